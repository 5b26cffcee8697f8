// Simulated PCI video channels. A channel is created with the attributes
// the receiving chip chose, started, stopped, and destroyed only while
// stopped. Its source is whatever is bound to (PCIV, 0, chn); while it is
// started it counts the pictures that source delivers.
#include "platform/hi_mpi_pciv.h"
#include "platform/sim/media_state.h"
#include "platform/sim/picture_flow.h"

namespace {

constexpr int32_t k_mod = HI_ID_PCIV;
constexpr int32_t k_max_chip = 14;

bool chn_valid(int32_t chn)
{
    return chn >= 0 && chn < PCIV_MAX_CHN_NUM;
}

bool size_valid(uint32_t v, uint32_t max)
{
    return v >= PCIV_MIN_SIZE && v <= max && v % 2 == 0;
}

bool attr_valid(const pciv_attr_t& a)
{
    const pciv_pic_attr_t& p = a.pic_attr;
    if (!size_valid(p.width, PCIV_MAX_WIDTH) || !size_valid(p.height, PCIV_MAX_HEIGHT))
        return false;
    if (p.stride[0] < p.width || p.stride[1] < p.width || p.field < 0 || p.field > 2)
        return false;
    uint64_t frame = uint64_t{p.stride[0]} * p.height;
    if (p.pix_fmt == PIXEL_FORMAT_YUV_SEMIPLANAR_420)
        frame += uint64_t{p.stride[1]} * p.height / 2;
    else if (p.pix_fmt == PIXEL_FORMAT_YUV_SEMIPLANAR_422)
        frame += uint64_t{p.stride[1]} * p.height;
    else
        return false;
    if (a.buf_chip < 0 || a.buf_chip > k_max_chip || a.count == 0 || a.count > PCIV_MAX_BUF_NUM)
        return false;
    if (a.blk_size < frame)
        return false;
    return a.remote_obj.chip_id >= 0 && a.remote_obj.chip_id <= k_max_chip && a.remote_obj.pciv_chn >= 0;
}

// The checks of an operation on an existing channel: the injected fault,
// the channel number, the system, the channel's existence. fn runs on the
// channel under the core's lock, after its picture count is settled.
template <class Fn>
int32_t on_channel(sim_op op, int32_t chn, Fn&& fn)
{
    if (int32_t r = sim_media_op(op, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    media_access m;
    sim_pciv_chn& c = m->pciv[chn];
    if (!c.created)
        return hi_err(k_mod, HI_ERR_UNEXIST);
    sim_flow_settle(*m, {k_mod, 0, chn}, sim_media_now_us());
    return fn(c);
}

}  // namespace

int32_t HI_MPI_PCIV_Create(int32_t chn, const pciv_attr_t* attr)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_PCIV_Create, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    if (attr == nullptr)
        return hi_err(k_mod, HI_ERR_NULL_PTR);
    if (!attr_valid(*attr))
        return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    media_access m;
    sim_pciv_chn& c = m->pciv[chn];
    if (c.created)
        return hi_err(k_mod, HI_ERR_EXIST);
    c = {};
    c.created = true;
    c.attr = *attr;
    return 0;
}

int32_t HI_MPI_PCIV_Destroy(int32_t chn)
{
    return on_channel(SIM_OP_HI_MPI_PCIV_Destroy, chn, [](sim_pciv_chn& c) {
        if (c.started)
            return hi_err(k_mod, HI_ERR_NOT_PERM);
        c = {};
        return 0;
    });
}

int32_t HI_MPI_PCIV_Start(int32_t chn)
{
    return on_channel(SIM_OP_HI_MPI_PCIV_Start, chn, [](sim_pciv_chn& c) {
        c.started = true;
        return 0;
    });
}

int32_t HI_MPI_PCIV_Stop(int32_t chn)
{
    return on_channel(SIM_OP_HI_MPI_PCIV_Stop, chn, [](sim_pciv_chn& c) {
        c.started = false;
        return 0;
    });
}
