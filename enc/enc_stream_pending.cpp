// Placeholders until the stream records land.
#include "enc/cal_enc.h"

int _parse_enc_ebuf(cal_enc_t*, int, const venc_stream_t*)
{
    return 0;
}

int _check_ebuf(cal_enc_t*, int, int, uint32_t)
{
    return 0;
}

int _calc_timing(cal_enc_t*, cal_enc_stream_t*, uint64_t, time_t)
{
    return -1;
}
