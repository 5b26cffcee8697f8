// Simulated decoder channels: their attributes, protocol parameters and
// receiving state. The stream buffers, the decoding and the pictures kept
// for fetching are the engine's (vdec_engine.*).
#include "platform/hi_mpi_vdec.h"
#include "platform/sim/fault.h"
#include "platform/sim/media_state.h"
#include "platform/sim/vdec_engine.h"

namespace {

constexpr int32_t k_mod = HI_ID_VDEC;

bool chn_valid(int32_t chn)
{
    return chn >= 0 && chn < VDEC_MAX_CHN_NUM;
}

bool attr_valid(const vdec_chn_attr_t& a)
{
    return a.payload_type == PT_H264_DEC && a.pic_width >= 64 && a.pic_width <= VDEC_MAX_WIDTH &&
           a.pic_height >= 64 && a.pic_height <= VDEC_MAX_HEIGHT && a.buf_size >= a.pic_width * a.pic_height / 2 &&
           a.ref_frame_num >= 1 && a.ref_frame_num <= 16 &&
           (a.mode == VIDEO_MODE_STREAM || a.mode == VIDEO_MODE_FRAME) &&
           (a.support_bframe == 0 || a.support_bframe == 1);
}

bool prtcl_valid(const vdec_prtcl_param_t& p)
{
    return p.max_slice_num >= 1 && p.max_slice_num <= 136 && p.max_sps_num >= 1 && p.max_sps_num <= 32 &&
           p.max_pps_num >= 1 && p.max_pps_num <= 256 && p.sc_buf_size > 0 && p.display_frame_num >= 0 &&
           p.display_frame_num <= 16;
}

// The checks of every operation on one channel, in the hardware's order:
// the injected fault, the channel number, the operation's own argument
// error, the system, the channel's existence. fn then runs on the channel
// under the core's lock.
template <class Fn>
int32_t on_chn(sim_op op, int32_t chn, int32_t arg_err, Fn&& fn)
{
    if (int32_t r = sim_media_op(op, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    if (arg_err != 0)
        return arg_err;
    media_access m;
    sim_vdec_chn& c = m->vdec[chn];
    if (!c.created)
        return hi_err(k_mod, HI_ERR_UNEXIST);
    return fn(c);
}

int32_t null_err(const void* p)
{
    return p == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR) : 0;
}

}  // namespace

int32_t HI_MPI_VDEC_CreateChn(int32_t chn, const vdec_chn_attr_t* attr)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VDEC_CreateChn, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    if (attr == nullptr)
        return hi_err(k_mod, HI_ERR_NULL_PTR);
    if (!attr_valid(*attr))
        return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    {
        media_access m;
        sim_vdec_chn& c = m->vdec[chn];
        if (c.created)
            return hi_err(k_mod, HI_ERR_EXIST);
        c = {};
        c.created = true;
        c.attr = *attr;
        c.prtcl = {16, 2, 2, static_cast<int32_t>(attr->buf_size), 2};
    }
    sim_vdec_engine_reset(chn);
    return 0;
}

int32_t HI_MPI_VDEC_DestroyChn(int32_t chn)
{
    int32_t r = on_chn(SIM_OP_HI_MPI_VDEC_DestroyChn, chn, 0, [](sim_vdec_chn& c) {
        c = {};
        return 0;
    });
    if (r == 0)
        sim_vdec_engine_reset(chn);
    return r;
}

int32_t HI_MPI_VDEC_GetPrtclParam(int32_t chn, vdec_prtcl_param_t* param)
{
    return on_chn(SIM_OP_HI_MPI_VDEC_GetPrtclParam, chn, null_err(param), [param](sim_vdec_chn& c) {
        *param = c.prtcl;
        return 0;
    });
}

int32_t HI_MPI_VDEC_SetPrtclParam(int32_t chn, const vdec_prtcl_param_t* param)
{
    int32_t err = param == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR)
                  : prtcl_valid(*param) ? 0
                                        : hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    return on_chn(SIM_OP_HI_MPI_VDEC_SetPrtclParam, chn, err, [param](sim_vdec_chn& c) {
        if (c.receiving)
            return hi_err(k_mod, HI_ERR_NOT_PERM);
        c.prtcl = *param;
        return 0;
    });
}

int32_t HI_MPI_VDEC_StartRecvStream(int32_t chn)
{
    return on_chn(SIM_OP_HI_MPI_VDEC_StartRecvStream, chn, 0, [](sim_vdec_chn& c) {
        c.receiving = true;
        return 0;
    });
}

int32_t HI_MPI_VDEC_StopRecvStream(int32_t chn)
{
    return on_chn(SIM_OP_HI_MPI_VDEC_StopRecvStream, chn, 0, [](sim_vdec_chn& c) {
        c.receiving = false;
        return 0;
    });
}

int32_t HI_MPI_VDEC_ResetChn(int32_t chn)
{
    int32_t r = on_chn(SIM_OP_HI_MPI_VDEC_ResetChn, chn, 0, [](sim_vdec_chn& c) {
        return c.receiving ? hi_err(k_mod, HI_ERR_NOT_PERM) : 0;
    });
    if (r == 0)
        sim_vdec_engine_reset(chn);
    return r;
}

int32_t HI_MPI_VDEC_SendStream(int32_t chn, const vdec_stream_t* stream, int32_t wait_ms)
{
    int32_t err = stream == nullptr                                ? hi_err(k_mod, HI_ERR_NULL_PTR)
                  : stream->addr == nullptr || stream->len == 0 ? hi_err(k_mod, HI_ERR_ILLEGAL_PARAM)
                                                                   : 0;
    uint32_t buf_size = 0;
    int32_t r = on_chn(SIM_OP_HI_MPI_VDEC_SendStream, chn, err, [&](sim_vdec_chn& c) {
        if (!c.receiving || stream->len > c.attr.buf_size) {
            ++c.refused;
            return hi_err(k_mod, c.receiving ? HI_ERR_ILLEGAL_PARAM : HI_ERR_NOT_PERM);
        }
        buf_size = c.attr.buf_size;
        return 0;
    });
    if (r != 0)
        return r;
    return sim_vdec_engine_send(chn, stream->addr, stream->len, buf_size, wait_ms);
}

int32_t HI_MPI_VDEC_GetImage(int32_t chn, video_frame_info_t* frame, int32_t wait_ms)
{
    int32_t r = on_chn(SIM_OP_HI_MPI_VDEC_GetImage, chn, null_err(frame), [](sim_vdec_chn&) { return 0; });
    return r != 0 ? r : sim_vdec_engine_get(chn, frame, wait_ms);
}

int32_t HI_MPI_VDEC_ReleaseImage(int32_t chn, const video_frame_info_t* frame)
{
    int32_t r = on_chn(SIM_OP_HI_MPI_VDEC_ReleaseImage, chn, null_err(frame), [](sim_vdec_chn&) { return 0; });
    return r != 0 ? r : sim_vdec_engine_release(chn, frame->id);
}
