// Simulated processing groups. A group exists from creation to destruction
// and must be stopped before it is destroyed; its output channels need
// attributes before they are enabled.
#include "platform/hi_mpi_vdec.h"
#include "platform/hi_mpi_vpss.h"
#include "platform/sim/fault.h"
#include "platform/sim/media_state.h"
#include "platform/sim/picture_flow.h"

namespace {

constexpr int32_t k_mod = HI_ID_VPSS;

bool is_switch(int32_t v)
{
    return v == 0 || v == 1;
}

bool grp_valid(int32_t grp)
{
    return grp >= 0 && grp < VPSS_MAX_GRP_NUM;
}

bool chn_valid(int32_t chn)
{
    return chn >= 0 && chn < VPSS_MAX_CHN_NUM;
}

bool grp_attr_valid(const vpss_grp_attr_t& a)
{
    if (a.max_width < VPSS_MIN_SIZE || a.max_width > VPSS_MAX_WIDTH || a.max_height < VPSS_MIN_SIZE ||
        a.max_height > VPSS_MAX_HEIGHT)
        return false;
    if (a.pix_fmt != PIXEL_FORMAT_YUV_SEMIPLANAR_422 && a.pix_fmt != PIXEL_FORMAT_YUV_SEMIPLANAR_420)
        return false;
    for (int32_t s : {a.enhance_en, a.deblock_en, a.sharpen_en, a.denoise_en, a.histogram_en})
        if (!is_switch(s))
            return false;
    return a.die_mode >= VPSS_DIE_MODE_AUTO && a.die_mode <= VPSS_DIE_MODE_ON;
}

bool grp_param_valid(const vpss_grp_param_t& p)
{
    for (uint32_t s : p.strength)
        if (s > VPSS_MAX_STRENGTH)
            return false;
    if (p.motion_adapt > 1)
        return false;
    for (uint32_t s : p.spare)
        if (s != 0)
            return false;
    return true;
}

bool chn_attr_valid(const vpss_chn_attr_t& a)
{
    if (!is_switch(a.sharpen_en) || !is_switch(a.border_en))
        return false;
    for (uint32_t w : a.border_width)
        if (w > VPSS_MAX_BORDER_WIDTH || w % 2 != 0)
            return false;
    for (uint32_t c : a.border_color)
        if (c > 0xFFFFFF)
            return false;
    return true;
}

constexpr int32_t k_no_chn = -1;

// The error of a pointer argument: NULL, or a record valid() refuses.
template <class T, class Valid>
int32_t arg_error(const T* arg, Valid valid)
{
    if (arg == nullptr)
        return hi_err(k_mod, HI_ERR_NULL_PTR);
    return valid(*arg) ? 0 : hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
}

// The checks of every operation on an existing group, in the hardware's
// order: the injected fault, the group number, the channel number (unless
// k_no_chn), the operation's own argument error, the system, the group's
// existence. fn then runs on the group under the core's lock.
template <class Fn>
int32_t on_group(sim_op op, int32_t grp, int32_t chn, int32_t arg_err, Fn&& fn)
{
    if (int32_t r = sim_fail(op))
        return r;
    if (!grp_valid(grp))
        return hi_err(k_mod, HI_ERR_INVALID_DEVID);
    if (chn != k_no_chn && !chn_valid(chn))
        return hi_err(k_mod, HI_ERR_INVALID_CHNID);
    if (arg_err != 0)
        return arg_err;
    if (int32_t r = sim_media_ready(k_mod))
        return r;
    media_access m;
    sim_vpss_grp& g = m->vpss[grp];
    if (!g.created)
        return hi_err(k_mod, HI_ERR_UNEXIST);
    // What the group passes on may change: the counts downstream settle first.
    sim_flow_settle_all(*m, sim_media_now_us());
    return fn(g);
}

}  // namespace

int32_t HI_MPI_VPSS_CreateGrp(int32_t grp, const vpss_grp_attr_t* attr)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_VPSS_CreateGrp))
        return r;
    if (!grp_valid(grp))
        return hi_err(k_mod, HI_ERR_INVALID_DEVID);
    if (attr == nullptr)
        return hi_err(k_mod, HI_ERR_NULL_PTR);
    if (!grp_attr_valid(*attr))
        return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    if (int32_t r = sim_media_ready(k_mod))
        return r;
    media_access m;
    sim_vpss_grp& g = m->vpss[grp];
    if (g.created)
        return hi_err(k_mod, HI_ERR_EXIST);
    g = {};
    g.created = true;
    g.attr = *attr;
    g.param = sim_vpss_default_param();
    return 0;
}

int32_t HI_MPI_VPSS_DestroyGrp(int32_t grp)
{
    return on_group(SIM_OP_HI_MPI_VPSS_DestroyGrp, grp, k_no_chn, 0, [](sim_vpss_grp& g) {
        if (g.started)
            return hi_err(k_mod, HI_ERR_NOT_PERM);
        g = {};
        return 0;
    });
}

int32_t HI_MPI_VPSS_StartGrp(int32_t grp)
{
    return on_group(SIM_OP_HI_MPI_VPSS_StartGrp, grp, k_no_chn, 0, [](sim_vpss_grp& g) {
        if (!g.started)
            g.started_us = sim_media_now_us();
        g.started = true;
        return 0;
    });
}

int32_t HI_MPI_VPSS_StopGrp(int32_t grp)
{
    return on_group(SIM_OP_HI_MPI_VPSS_StopGrp, grp, k_no_chn, 0, [](sim_vpss_grp& g) {
        g.started = false;
        return 0;
    });
}

int32_t HI_MPI_VPSS_GetGrpParam(int32_t grp, vpss_grp_param_t* param)
{
    int32_t err = param == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR) : 0;
    return on_group(SIM_OP_HI_MPI_VPSS_GetGrpParam, grp, k_no_chn, err, [param](sim_vpss_grp& g) {
        *param = g.param;
        return 0;
    });
}

int32_t HI_MPI_VPSS_SetGrpParam(int32_t grp, const vpss_grp_param_t* param)
{
    int32_t err = arg_error(param, grp_param_valid);
    return on_group(SIM_OP_HI_MPI_VPSS_SetGrpParam, grp, k_no_chn, err, [param](sim_vpss_grp& g) {
        g.param = *param;
        return 0;
    });
}

int32_t HI_MPI_VPSS_SetChnAttr(int32_t grp, int32_t chn, const vpss_chn_attr_t* attr)
{
    int32_t err = arg_error(attr, chn_attr_valid);
    return on_group(SIM_OP_HI_MPI_VPSS_SetChnAttr, grp, chn, err, [chn, attr](sim_vpss_grp& g) {
        g.chn[chn].attr = *attr;
        g.chn[chn].attr_set = true;
        return 0;
    });
}

int32_t HI_MPI_VPSS_EnableChn(int32_t grp, int32_t chn)
{
    return on_group(SIM_OP_HI_MPI_VPSS_EnableChn, grp, chn, 0, [chn](sim_vpss_grp& g) {
        if (!g.chn[chn].attr_set)
            return hi_err(k_mod, HI_ERR_NOT_CONFIG);
        g.chn[chn].enabled = true;
        return 0;
    });
}

int32_t HI_MPI_VPSS_DisableChn(int32_t grp, int32_t chn)
{
    return on_group(SIM_OP_HI_MPI_VPSS_DisableChn, grp, chn, 0, [chn](sim_vpss_grp& g) {
        g.chn[chn].enabled = false;
        return 0;
    });
}

namespace {

bool crop_valid(const vpss_crop_info_t& c, const vpss_grp_attr_t& a)
{
    if (!is_switch(c.enable) || (c.coord_mode != VPSS_CROP_RATIO_COOR && c.coord_mode != VPSS_CROP_ABS_COOR) ||
        c.crop_mode != 0)
        return false;
    if (c.enable == 0)
        return true;
    const vpss_rect_t& r = c.rect;
    if (r.x < 0 || r.y < 0 || r.x % 2 != 0 || r.y % 2 != 0 || r.width % 2 != 0 || r.height % 2 != 0 ||
        r.width < VPSS_MIN_SIZE || r.height < VPSS_MIN_SIZE)
        return false;
    // Thousandths of the picture, or pixels of the group's largest picture.
    const uint64_t w = c.coord_mode == VPSS_CROP_RATIO_COOR ? 1000 : a.max_width;
    const uint64_t h = c.coord_mode == VPSS_CROP_RATIO_COOR ? 1000 : a.max_height;
    return static_cast<uint64_t>(r.x) + r.width <= w && static_cast<uint64_t>(r.y) + r.height <= h;
}

}  // namespace

int32_t HI_MPI_VPSS_GetCropCfg(int32_t grp, vpss_crop_info_t* crop)
{
    int32_t err = crop == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR) : 0;
    return on_group(SIM_OP_HI_MPI_VPSS_GetCropCfg, grp, k_no_chn, err, [crop](sim_vpss_grp& g) {
        *crop = g.crop;
        return 0;
    });
}

int32_t HI_MPI_VPSS_SetCropCfg(int32_t grp, const vpss_crop_info_t* crop)
{
    int32_t err = crop == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR) : 0;
    return on_group(SIM_OP_HI_MPI_VPSS_SetCropCfg, grp, k_no_chn, err, [crop](sim_vpss_grp& g) {
        if (!crop_valid(*crop, g.attr))
            return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
        g.crop = *crop;
        return 0;
    });
}

int32_t HI_MPI_VPSS_UserSendFrame(int32_t grp, const video_frame_info_t* frame)
{
    int32_t err = frame == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR) : 0;
    return on_group(SIM_OP_HI_MPI_VPSS_UserSendFrame, grp, k_no_chn, err, [frame](sim_vpss_grp& g) {
        if (!g.started)
            return hi_err(k_mod, HI_ERR_NOT_PERM);
        if (frame->width > g.attr.max_width || frame->height > g.attr.max_height)
            return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
        ++g.user_frames;
        return 0;
    });
}

int32_t HI_MPI_VPSS_ResetGrp(int32_t grp)
{
    return on_group(SIM_OP_HI_MPI_VPSS_ResetGrp, grp, k_no_chn, 0, [](sim_vpss_grp& g) {
        ++g.resets;
        return 0;
    });
}
