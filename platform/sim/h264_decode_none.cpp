// Builds without an H.264 decoder (the ARM cross build): every access unit
// counts as one picture of unknown size.
#include "platform/sim/h264_decode.h"

namespace {

class counting_decoder final : public sim_h264_decoder {
public:
    bool decode(std::span<const uint8_t> au, sim_h264_picture* pic) override
    {
        *pic = {0, 0};
        return !au.empty();
    }
};

}  // namespace

bool sim_h264_decoder_available()
{
    return false;
}

std::unique_ptr<sim_h264_decoder> sim_h264_decoder_new()
{
    return std::make_unique<counting_decoder>();
}
