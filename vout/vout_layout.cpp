// The placement of this slave's cameras in the master's screen layout: one
// channel of the cascade output device 8 per camera (channel = recorder-
// wide camera number), and the zoom of the full-screen group 127.
#include <algorithm>
#include <cstring>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "msg/cal_hsc.h"
#include "platform/hi_mpi_vdec.h"
#include "platform/hi_mpi_vo.h"
#include "platform/hi_mpi_vpss.h"
#include "vin/cal_vin.h"
#include "vout/cal_vout.h"
#include "vout/vout_bind.h"

namespace {

constexpr int k_narrow_below = 1280;  // capture width under which a narrow camera is narrowed
constexpr int k_sub_width = 640;      // a wider cell shows the main-capture group
constexpr int k_sub_grp_chn = 2;      // output channel of a sub-capture group a cell shows
constexpr int k_main_grp_chn = 3;     // output channel of a main-capture group a cell shows
constexpr int k_slave_cam_unlaid = 8; // a slave with this many cameras lays out nothing

cal_vout_t* vout_of(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    CAL_CHECK_OBJ(cal->vout, cal_vout_t, "vout is NULL\n");
    return cal->vout;
}

// The layout record as far as the message holds it: false (traced) when
// it is shorter than the header and the cells it uses. The cell count is
// held to 0 .. 32.
bool take_layout(const hsc_msg_t* msg, vout_layout_t* rec)
{
    *rec = vout_layout_t{};
    if (msg->len < VOUT_LAYOUT_HEAD_LEN) {
        TRACE("layout len:%u < %u refused\n", msg->len, VOUT_LAYOUT_HEAD_LEN);
        return false;
    }
    std::memcpy(rec, msg->data, VOUT_LAYOUT_HEAD_LEN);
    if (rec->cells > VOUT_MAX_CELLS) {
        TRACE("cells:%d, a layout holds %d\n", rec->cells, VOUT_MAX_CELLS);
        rec->cells = VOUT_MAX_CELLS;
    }
    rec->cells = std::max(rec->cells, 0);
    const uint32_t need = VOUT_LAYOUT_HEAD_LEN + static_cast<uint32_t>(rec->cells) * sizeof(vout_cell_t);
    if (msg->len < need) {
        TRACE("layout len:%u < %u for %d cells refused\n", msg->len, need, rec->cells);
        return false;
    }
    std::memcpy(rec->cell, msg->data + VOUT_LAYOUT_HEAD_LEN, need - VOUT_LAYOUT_HEAD_LEN);
    return true;
}

// Switches every channel the layout may have used off and detaches it,
// detaches group 127 and ends its zoom.
void clear_device(int n)
{
    for (int i = 0; i < 4 * n; ++i) {
        if (int32_t r = HI_MPI_VO_DisableChn(VOUT_DEV, i))
            TRACE("failed with %#x!\n", vout_hex(r));
        HI_MPI_VO_ChnPause(VOUT_DEV, i);
        HI_MPI_VO_ClearChnBuffer(VOUT_DEV, i, 0);
        vout_detached_t d = vout_detach({HI_ID_VO, VOUT_DEV, i});
        if (d.err != 0)
            TRACE("HI_MPI_SYS_UnBind failed with [%d][%d] %#x!\n", i, 0, vout_hex(d.err));
    }
    vout_detached_t d = vout_detach({HI_ID_VPSS, VOUT_GRP_FULL, 0});
    if (d.err != 0)
        TRACE("HI_MPI_SYS_UnBind failed with [%d][%d] %#x!\n", 4 * n, 0, vout_hex(d.err));
    vpss_crop_info_t crop{};
    if (int32_t r = HI_MPI_VPSS_GetCropCfg(VOUT_GRP_FULL, &crop)) {
        TRACE("HI_MPI_VPSS_GetCropCfg failed with %#x!\n", vout_hex(r));
    } else if (crop.enable == 1) {
        crop.enable = 0;
        if (int32_t r2 = HI_MPI_VPSS_SetCropCfg(VOUT_GRP_FULL, &crop))
            TRACE("HI_MPI_VPSS_SetCropCfg failed with %#x!\n", vout_hex(r2));
    }
}

// Places one cell; false when its channel could not be set up, which ends
// the placing.
bool place_cell(cal_t* cal, const vout_layout_t& rec, const vout_cell_t& cell)
{
    const int cam = cell.cam;
    const int n = cal->slave_cam;
    // Only this slave's cameras, and only those a layout can name.
    if (cam < 0 || cam >= VOUT_MAX_CAMS || cal_local_cam(cal, cam) < 0)
        return true;
    const int c = cam - cal->cam_base;
    const bool wide = cell.width > k_sub_width;
    if (rec.cells == 1 || (rec.cells > 4 && wide)) {
        const mpp_chn_t vi{HI_ID_VI, 0, 4 * c};
        if (int32_t r = vout_bind(vi, {HI_ID_VPSS, VOUT_GRP_FULL, 0}))
            TRACE("failed with %#x!\n", vout_hex(r));
    }
    vout_rect_t rect{cell.x, cell.y, cell.width, cell.height};
    cal_m_vout_fit_cell(cal, cam, rec.narrow[cam], rec.cells, &rect);
    vo_chn_attr_t attr{};
    attr.priority = 0;
    attr.rect = {vout_even(rect.x), vout_even(rect.y), static_cast<uint32_t>(vout_even(rect.width)),
                 static_cast<uint32_t>(vout_even(rect.height))};
    attr.deflicker = 0;
    if (int32_t r = HI_MPI_VO_SetChnAttr(VOUT_DEV, cam, &attr)) {
        TRACE("HI_MPI_VO_SetChnAttr failed!! cam:%d s32Ret:%08x\n", cam, vout_hex(r));
        return false;
    }
    if (int32_t r = HI_MPI_VO_EnableChn(VOUT_DEV, cam)) {
        TRACE("HI_MPI_VO_EnableChn failed!! cam:%d s32Ret:%08x\n", cam, vout_hex(r));
        return false;
    }
    mpp_chn_t src{HI_ID_VPSS, n + c, k_sub_grp_chn};
    if (rec.cells == 1)
        src = {HI_ID_VPSS, VOUT_GRP_FULL, VOUT_GRP_FULL_CHN};
    else if (wide)
        src = {HI_ID_VPSS, 2 * n + c, k_main_grp_chn};
    if (int32_t r = vout_bind(src, {HI_ID_VO, VOUT_DEV, cam}))
        TRACE("failed with %#x!\n", vout_hex(r));
    return true;
}

}  // namespace

int cal_m_vout_set_layout(cal_t* cal, int vout_idx, hsc_msg_t* msg, int target)
{
    vout_of(cal);
    if (cal->slave_cam == k_slave_cam_unlaid)
        return 0;
    vout_layout_t rec;
    if (!take_layout(msg, &rec))
        return -1;
    TRACE("begin vout_idx:%d layout:%d target:%d cambase:%d\n", vout_idx, rec.layout, target, cal->cam_base);
    if (vout_idx == 2 || vout_idx == 3)
        return 0;  // outputs this slave does not feed
    if (vout_idx != 0)
        return -1;
    if (HI_MPI_VO_SetAttrBegin(VOUT_DEV) != 0) {
        TRACE("Start VO failed!");
        return -1;
    }
    _m_vout_clear_play_display(cal, 0);
    clear_device(cal->slave_cam);
    for (int k = 0; k < rec.cells; ++k)
        if (!place_cell(cal, rec, rec.cell[k]))
            break;
    if (int32_t r = HI_MPI_VO_SetAttrEnd(VOUT_DEV)) {
        TRACE("End VO failed! %x\n", vout_hex(r));
        return -1;
    }
    return 0;
}

int cal_m_vout_fit_cell(cal_t* cal, int camera, int narrow, int, vout_rect_t* rect)
{
    // The capture format is the video input module's, kept as the master set it.
    if (narrow == 0 || cal->vin == nullptr)
        return 0;
    vin_info_t info{};
    if (cal_m_vin_get_info(cal, camera - cal->cam_base, &info) != 0 || info.xres >= k_narrow_below)
        return 0;
    const int width = (3 * rect->width) / 4;
    rect->x += (rect->width - width) / 2;
    rect->width = width;
    return 0;
}

int _m_vout_clear_play_display(cal_t* cal, int vout_idx)
{
    vout_of(cal);
    if (vout_idx != 0)
        return 0;
    // The playback path of every decoder channel starts afresh: nothing
    // decoded for the old layout is shown in the new one.
    for (int k = 0; k < VOUT_PLAY_CHNS; ++k) {
        if (int32_t r = HI_MPI_VDEC_StopRecvStream(k))
            TRACE("HI_MPI_VDEC_StopRecvStream failed errno [%d] 0x%x \n", k, vout_hex(r));
        if (int32_t r = HI_MPI_VDEC_ResetChn(k))
            TRACE("HI_MPI_VDEC_ResetChn failed errno [%d] 0x%x \n", k, vout_hex(r));
        if (int32_t r = HI_MPI_VDEC_StartRecvStream(k))
            TRACE("HI_MPI_VDEC_StartRecvStream failed errno [%d] 0x%x \n", k, vout_hex(r));
        HI_MPI_VPSS_ResetGrp(k);
    }
    return 0;
}

int _vout_set_zoom(cal_t* cal, int, int, int, int x, int y, int width, int height)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    vpss_crop_info_t crop{};
    crop.enable = 1;
    crop.coord_mode = VPSS_CROP_ABS_COOR;
    crop.rect = {vout_even(x), vout_even(y), static_cast<uint32_t>(vout_even(width)),
                 static_cast<uint32_t>(vout_even(height))};
    crop.crop_mode = 0;
    if (int32_t r = HI_MPI_VPSS_SetCropCfg(VOUT_GRP_FULL, &crop)) {
        TRACE("HI_MPI_VPSS_SetCropCfg failed with %#x!\n", vout_hex(r));
        return -1;
    }
    return 0;
}
