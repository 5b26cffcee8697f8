// Builds without an H.264 encoder (the ARM cross build): no loop is made, so
// encoder channels produce nothing.
#include "platform/sim/h264_codec.h"

bool sim_h264_codec_available()
{
    return false;
}

bool sim_h264_encode(const sim_loop_key&, sim_h264_loop*)
{
    return false;
}
