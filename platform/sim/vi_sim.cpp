// Simulated capture family. Device attributes are set while the device is
// off, channel attributes while the channel is off; a channel runs only on
// an enabled device, and a device goes off only after its channels. What a
// channel delivers follows the camera on its device's input (board.conf).
#include <cmath>

#include "platform/hi_mpi_vi.h"
#include "platform/sim/board.h"
#include "platform/sim/media_state.h"
#include "platform/sim/picture_flow.h"

namespace {

constexpr int32_t k_mod = HI_ID_VI;

bool is_switch(int32_t v)
{
    return v == 0 || v == 1;
}

bool dev_valid(int32_t dev)
{
    return dev >= 0 && dev < VIU_MAX_DEV_NUM;
}

bool chn_valid(int32_t chn)
{
    return chn >= 0 && chn < VIU_MAX_CHN_NUM;
}

bool dev_attr_valid(const vi_dev_attr_t& a)
{
    if (a.intf_mode < VI_MODE_BT656 || a.intf_mode > VI_MODE_BT1120_INTERLEAVED)
        return false;
    if (a.work_mode < VI_WORK_MODE_1MUX || a.work_mode > VI_WORK_MODE_4MUX)
        return false;
    if (a.comp_mask[0] == 0 || !is_switch(a.scan_mode))
        return false;
    for (int32_t ad : a.ad_chn_id)
        if (ad < -1 || ad >= VIU_MAX_AD_CHN)
            return false;
    if (a.data_seq < 0 || a.data_seq > 3 || a.vsync_mode < 0 || a.vsync_mode > 2)
        return false;
    for (uint32_t t : {a.h_front_blank, a.h_active, a.h_back_blank, a.v_front_blank, a.v_active, a.v_back_blank,
                       a.v2_front_blank, a.v2_active, a.v2_back_blank})
        if (t > VIU_MAX_TIMING)
            return false;
    return true;
}

bool even_size(uint32_t v, uint32_t max)
{
    return v >= VIU_MIN_SIZE && v <= max && v % 2 == 0;
}

bool chn_attr_valid(const vi_chn_attr_t& a)
{
    const vi_rect_t& r = a.cap_rect;
    if (r.x < 0 || r.y < 0 || r.x % 2 != 0 || r.y % 2 != 0)
        return false;
    if (!even_size(r.width, VIU_MAX_WIDTH) || !even_size(r.height, VIU_MAX_HEIGHT))
        return false;
    if (static_cast<uint64_t>(r.x) + r.width > VIU_MAX_WIDTH ||
        static_cast<uint64_t>(r.y) + r.height > VIU_MAX_HEIGHT)
        return false;
    // The channel scales down, never up.
    if (!even_size(a.dest_size.width, r.width) || !even_size(a.dest_size.height, r.height))
        return false;
    if (a.cap_sel < VI_CAPSEL_TOP || a.cap_sel > VI_CAPSEL_BOTH)
        return false;
    if (a.pix_fmt != PIXEL_FORMAT_YUV_SEMIPLANAR_422 && a.pix_fmt != PIXEL_FORMAT_YUV_SEMIPLANAR_420)
        return false;
    if (!is_switch(a.mirror) || !is_switch(a.flip) || !is_switch(a.chroma_resample))
        return false;
    bool no_conversion = a.src_frame_rate == -1 && a.frame_rate == -1;
    bool conversion = a.src_frame_rate > 0 && a.src_frame_rate <= VIU_MAX_FRAME_RATE && a.frame_rate > 0 &&
                      a.frame_rate <= a.src_frame_rate;
    return no_conversion || conversion;
}

// The rectangle must lie inside the device picture when the device's timing
// gives its size.
bool fits_device(const sim_vi_dev& d, const vi_rect_t& r)
{
    if (!d.attr_set)
        return true;
    if (d.attr.h_active != 0 && static_cast<uint64_t>(r.x) + r.width > d.attr.h_active)
        return false;
    if (d.attr.v_active != 0 && static_cast<uint64_t>(r.y) + r.height > d.attr.v_active)
        return false;
    return true;
}

bool dev_has_enabled_chn(const sim_media& m, int32_t dev)
{
    for (int32_t chn : {2 * dev, 2 * dev + 1, 2 * dev + VIU_SUB_CHN_OFFSET, 2 * dev + 1 + VIU_SUB_CHN_OFFSET})
        if (m.vi_chn[chn].enabled)
            return true;
    return false;
}

}  // namespace

int32_t HI_MPI_VI_SetDevAttr(int32_t dev, const vi_dev_attr_t* attr)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VI_SetDevAttr, k_mod, dev_valid(dev), HI_ERR_INVALID_DEVID))
        return r;
    if (attr == nullptr)
        return hi_err(k_mod, HI_ERR_NULL_PTR);
    if (!dev_attr_valid(*attr))
        return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    media_access m;
    sim_vi_dev& d = m->vi_dev[dev];
    if (d.enabled)
        return hi_err(k_mod, HI_ERR_NOT_PERM);
    d.attr = *attr;
    d.attr_set = true;
    return 0;
}

int32_t HI_MPI_VI_EnableDev(int32_t dev)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VI_EnableDev, k_mod, dev_valid(dev), HI_ERR_INVALID_DEVID))
        return r;
    media_access m;
    sim_flow_settle_all(*m, sim_media_now_us());
    sim_vi_dev& d = m->vi_dev[dev];
    if (!d.attr_set)
        return hi_err(k_mod, HI_ERR_NOT_CONFIG);
    d.enabled = true;
    return 0;
}

int32_t HI_MPI_VI_DisableDev(int32_t dev)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VI_DisableDev, k_mod, dev_valid(dev), HI_ERR_INVALID_DEVID))
        return r;
    media_access m;
    sim_flow_settle_all(*m, sim_media_now_us());
    if (dev_has_enabled_chn(*m, dev))
        return hi_err(k_mod, HI_ERR_NOT_PERM);
    m->vi_dev[dev].enabled = false;
    return 0;
}

int32_t HI_MPI_VI_SetChnAttr(int32_t chn, const vi_chn_attr_t* attr)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VI_SetChnAttr, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    if (attr == nullptr)
        return hi_err(k_mod, HI_ERR_NULL_PTR);
    if (!chn_attr_valid(*attr))
        return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    media_access m;
    sim_vi_chn& c = m->vi_chn[chn];
    if (c.enabled)
        return hi_err(k_mod, HI_ERR_NOT_PERM);
    if (!fits_device(m->vi_dev[vi_dev_of_chn(chn)], attr->cap_rect))
        return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    c.attr = *attr;
    c.attr_set = true;
    c.to420 = false;
    return 0;
}

int32_t HI_MPI_VI_EnableChn(int32_t chn)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VI_EnableChn, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    media_access m;
    sim_flow_settle_all(*m, sim_media_now_us());
    sim_vi_chn& c = m->vi_chn[chn];
    if (!c.attr_set)
        return hi_err(k_mod, HI_ERR_NOT_CONFIG);
    if (!m->vi_dev[vi_dev_of_chn(chn)].enabled)
        return hi_err(k_mod, HI_ERR_NOT_PERM);
    if (!c.enabled) {
        c.enabled = true;
        c.enabled_us = sim_media_now_us();
    }
    return 0;
}

int32_t HI_MPI_VI_DisableChn(int32_t chn)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VI_DisableChn, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    media_access m;
    sim_flow_settle_all(*m, sim_media_now_us());
    sim_vi_chn& c = m->vi_chn[chn];
    c.enabled = false;
    c.to420 = false;
    return 0;
}

int32_t HI_MPI_VI_EnableChn422to420(int32_t chn)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VI_EnableChn422to420, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    media_access m;
    sim_vi_chn& c = m->vi_chn[chn];
    if (!c.attr_set)
        return hi_err(k_mod, HI_ERR_NOT_CONFIG);
    if (c.attr.pix_fmt != PIXEL_FORMAT_YUV_SEMIPLANAR_420)
        return hi_err(k_mod, HI_ERR_NOT_SUPPORT);
    c.to420 = true;
    return 0;
}

int32_t HI_MPI_VI_Query(int32_t chn, vi_chn_stat_t* stat)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VI_Query, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    if (stat == nullptr)
        return hi_err(k_mod, HI_ERR_NULL_PTR);
    media_access m;
    const sim_vi_chn& c = m->vi_chn[chn];
    if (!c.enabled)
        return hi_err(k_mod, HI_ERR_NOT_PERM);
    double fps = sim_flow_vi_fps(*m, chn);
    double seconds = static_cast<double>(sim_media_now_us() - c.enabled_us) / 1e6;
    *stat = {};
    stat->enabled = 1;
    stat->int_cnt = static_cast<uint32_t>(static_cast<uint64_t>(seconds * fps));
    stat->frame_rate = static_cast<uint32_t>(std::lround(fps));
    stat->pic_width = c.attr.dest_size.width;
    stat->pic_height = c.attr.dest_size.height;
    return 0;
}
