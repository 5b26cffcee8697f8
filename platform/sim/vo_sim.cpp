// Simulated video output: devices, their video layers and channels.
// Switching off what is already off succeeds. A channel needs attributes
// before it is enabled and a device whose layer is up; enabling starts it
// showing. Each channel counts the pictures its source delivers while it
// shows (enabled and not paused).
#include "platform/hi_mpi_vo.h"
#include "platform/sim/media_state.h"
#include "platform/sim/picture_flow.h"

namespace {

constexpr int32_t k_mod = HI_ID_VO;

bool dev_valid(int32_t dev)
{
    return dev >= 0 && dev < VO_MAX_DEV_NUM;
}

bool chn_valid(int32_t chn)
{
    return chn >= 0 && chn < VO_MAX_CHN_NUM;
}

bool even(int64_t v)
{
    return v % 2 == 0;
}

bool size_valid(uint32_t v)
{
    return v >= VO_MIN_CHN_SIZE && v <= VO_MAX_CHN_SIZE && even(v);
}

bool chn_attr_valid(const vo_chn_attr_t& a)
{
    const vo_rect_t& r = a.rect;
    return a.priority <= VO_MAX_PRIORITY && (a.deflicker == 0 || a.deflicker == 1) && even(r.x) && even(r.y) &&
           size_valid(r.width) && size_valid(r.height);
}

// The checks of every channel operation, in the hardware's order: the
// injected fault, the device, the channel, the operation's argument error,
// the system. fn then runs on the channel under the core's lock, after
// the channel's picture count is settled (fn may change what it counts).
template <class Fn>
int32_t on_channel(sim_op op, int32_t dev, int32_t chn, int32_t arg_err, Fn&& fn)
{
    if (int32_t r = sim_media_op(op, k_mod, dev_valid(dev), HI_ERR_INVALID_DEVID))
        return r;
    if (!chn_valid(chn))
        return hi_err(k_mod, HI_ERR_INVALID_CHNID);
    if (arg_err != 0)
        return arg_err;
    media_access m;
    sim_flow_settle(*m, {k_mod, dev, chn}, sim_media_now_us());
    return fn(m->vo[dev], m->vo[dev].chn[chn]);
}

}  // namespace

int32_t HI_MPI_VO_DisableChn(int32_t dev, int32_t chn)
{
    return on_channel(SIM_OP_HI_MPI_VO_DisableChn, dev, chn, 0, [](sim_vo_dev&, sim_vo_chn& c) {
        c.enabled = false;
        return 0;
    });
}

int32_t HI_MPI_VO_Disable(int32_t dev)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VO_Disable, k_mod, dev_valid(dev), HI_ERR_INVALID_DEVID))
        return r;
    media_access m;
    m->vo[dev].enabled = false;
    return 0;
}

int32_t HI_MPI_VO_DisableVideoLayer(int32_t layer)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VO_DisableVideoLayer, k_mod, dev_valid(layer), HI_ERR_INVALID_DEVID))
        return r;
    media_access m;
    m->vo[layer].layer_enabled = false;
    return 0;
}

int32_t HI_MPI_VO_SetChnAttr(int32_t dev, int32_t chn, const vo_chn_attr_t* attr)
{
    int32_t err = attr == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR)
                  : chn_attr_valid(*attr) ? 0
                                          : hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    return on_channel(SIM_OP_HI_MPI_VO_SetChnAttr, dev, chn, err, [attr](sim_vo_dev&, sim_vo_chn& c) {
        c.attr = *attr;
        c.attr_set = true;
        return 0;
    });
}

int32_t HI_MPI_VO_GetChnAttr(int32_t dev, int32_t chn, vo_chn_attr_t* attr)
{
    int32_t err = attr == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR) : 0;
    return on_channel(SIM_OP_HI_MPI_VO_GetChnAttr, dev, chn, err, [attr](sim_vo_dev&, sim_vo_chn& c) {
        if (!c.attr_set)
            return hi_err(k_mod, HI_ERR_NOT_CONFIG);
        *attr = c.attr;
        return 0;
    });
}

int32_t HI_MPI_VO_EnableChn(int32_t dev, int32_t chn)
{
    return on_channel(SIM_OP_HI_MPI_VO_EnableChn, dev, chn, 0, [](sim_vo_dev& d, sim_vo_chn& c) {
        if (!d.enabled || !d.layer_enabled)
            return hi_err(k_mod, HI_ERR_NOT_PERM);
        if (!c.attr_set)
            return hi_err(k_mod, HI_ERR_NOT_CONFIG);
        c.enabled = true;
        c.paused = false;
        return 0;
    });
}

int32_t HI_MPI_VO_ChnPause(int32_t dev, int32_t chn)
{
    return on_channel(SIM_OP_HI_MPI_VO_ChnPause, dev, chn, 0, [](sim_vo_dev&, sim_vo_chn& c) {
        if (!c.enabled)
            return hi_err(k_mod, HI_ERR_NOT_PERM);
        c.paused = true;
        return 0;
    });
}

int32_t HI_MPI_VO_ChnResume(int32_t dev, int32_t chn)
{
    return on_channel(SIM_OP_HI_MPI_VO_ChnResume, dev, chn, 0, [](sim_vo_dev&, sim_vo_chn& c) {
        if (!c.enabled)
            return hi_err(k_mod, HI_ERR_NOT_PERM);
        c.paused = false;
        return 0;
    });
}

int32_t HI_MPI_VO_ClearChnBuffer(int32_t dev, int32_t chn, int32_t clear_all)
{
    int32_t err = clear_all == 0 || clear_all == 1 ? 0 : hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    return on_channel(SIM_OP_HI_MPI_VO_ClearChnBuffer, dev, chn, err, [](sim_vo_dev&, sim_vo_chn& c) {
        ++c.clears;
        return 0;
    });
}

int32_t HI_MPI_VO_SetAttrBegin(int32_t dev)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VO_SetAttrBegin, k_mod, dev_valid(dev), HI_ERR_INVALID_DEVID))
        return r;
    media_access m;
    m->vo[dev].in_batch = true;
    return 0;
}

int32_t HI_MPI_VO_SetAttrEnd(int32_t dev)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VO_SetAttrEnd, k_mod, dev_valid(dev), HI_ERR_INVALID_DEVID))
        return r;
    media_access m;
    sim_vo_dev& d = m->vo[dev];
    if (!d.in_batch)
        return hi_err(k_mod, HI_ERR_NOT_PERM);
    d.in_batch = false;
    ++d.batches;
    return 0;
}
