#include "vin/chip.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "platform/hi_mpi_sys.h"
#include "platform/hi_mpi_venc.h"
#include "platform/hi_mpi_vo.h"
#include "vin/cal_vin.h"

namespace {

// Passes of the memory-zone set-up: one per channel number in use anywhere.
constexpr int k_mem_passes = 40;

constexpr int k_sub_width = 640;
constexpr int k_sub_height = 360;
constexpr int k_vpss_chns = 5;

// Platform error codes are traced in hexadecimal.
unsigned hex(int32_t r)
{
    return static_cast<unsigned>(r);
}

int32_t set_mem(int32_t mod, int32_t dev, int32_t chn, bool ddr1)
{
    const mpp_chn_t c{mod, dev, chn};
    return HI_MPI_SYS_SetMemConf(&c, ddr1 ? MMZ_DDR1 : MMZ_DEFAULT);
}

// Frame rates from the master become whole numbers by truncation; values
// no int holds are pinned to the int range (the platform refuses them).
int32_t trunc_rate(double fps)
{
    if (std::isnan(fps))
        return 0;
    if (fps >= static_cast<double>(INT_MAX))
        return INT_MAX;
    if (fps <= static_cast<double>(INT_MIN))
        return INT_MIN;
    return static_cast<int32_t>(fps);
}

const vi_dev_attr_t& pick_dev_table(int yres, int prog, int type)
{
    if (yres == 720)
        return type == 3 ? M_CHIP_VI_ATTR_7441_INTERLEAVED_720P : M_CHIP_VI_ATTR_7441_BT656_1MUX_720P;
    if (yres == 1080) {
        if (type != 3)
            return M_CHIP_VI_ATTR_7441_BT656_1MUX_720P;
        return prog != 0 ? M_CHIP_VI_ATTR_7441_INTERLEAVED_1080P : M_CHIP_VI_ATTR_7441_INTERLEAVED_1080I;
    }
    if (type == 3)
        return yres == 480 ? DEV_ATTR_TP28XX_NTSC : DEV_ATTR_TP28XX_PAL;
    return M_CHIP_DEV_ATTR_BT656D1_1MUX;
}

// Output channels enabled in group g, q = g / n.
bool vpss_chn_on(int q, int g, int k)
{
    if (q == 1)
        return true;
    if (q == 0 || q == 2)
        return k <= 3;
    if (q == 3)
        return k == 2 || k == 3;
    if (g == 127)
        return k == 2;
    if (g == 126 || g == 125)
        return k == 3;
    return false;
}

// The source bound to dest is unbound; 0 when nothing is bound.
int32_t unbind_dest(const mpp_chn_t& dest)
{
    mpp_chn_t src;
    if (HI_MPI_SYS_GetBindbyDest(&dest, &src) != 0)
        return 0;
    return HI_MPI_SYS_UnBind(&src, &dest);
}

bool cam_count_supported(int n)
{
    return n >= 1 && n <= CHIP_MAX_CAM;
}

}  // namespace

// Which bus lines carry the picture depends on where the device sits on
// the chip (d mod 4) and on the interface mode of its table.
void _m_chip_vi_comp_mask(vi_dev_attr_t* a, int d, int xres, int type)
{
    const int32_t mode = a->intf_mode;
    const bool standard = mode == VI_MODE_BT1120_STANDARD;
    const bool interleaved = mode == VI_MODE_BT1120_INTERLEAVED;
    switch (d % 4) {
    case 0:
        a->comp_mask[0] = 0xFF000000;
        if (standard)
            a->comp_mask[1] = 0x00FF0000;
        else if (interleaved)
            a->comp_mask[1] = 0;
        break;
    case 1:
        a->comp_mask[0] = 0x00FF0000;
        if (interleaved)
            a->comp_mask[1] = 0;
        break;
    case 2:
        if (standard || interleaved)
            a->comp_mask[0] = 0x0000FF00;
        else
            a->comp_mask[0] = (xres >= 1280 && type > 2) ? 0x00FF0000 : 0x0000FF00;
        if (standard)
            a->comp_mask[1] = 0xFF;
        else if (interleaved)
            a->comp_mask[1] = 0;
        break;
    default:
        a->comp_mask[0] = 0x000000FF;
        if (interleaved)
            a->comp_mask[1] = 0;
        break;
    }
}

int _m_sys_memconfig(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    const int n = cal->slave_cam;
    if (n <= 0) {
        TRACE("slave_cam:%d, no cameras to place\n", n);
        return -1;
    }
    for (int i = 0; i < k_mem_passes; ++i) {
        const int v = cal_cam_to_vi_chn(cal, i % n);
        const bool cam_ddr1 = v % 4 == 0;
        if (i < n) {
            if (set_mem(HI_ID_VI, 0, v, cam_ddr1) != 0) {
                TRACE("HI_MPI_SYS_SetMemConf ERR !");
                return -1;
            }
            if (int32_t r = set_mem(HI_ID_VI, 0, v + VIU_SUB_CHN_OFFSET, cam_ddr1)) {
                TRACE("VI subchn HI_MPI_SYS_SetMemConf failed with %#x!\n", hex(r));
                return -1;
            }
        }
        const bool vpss_ddr1 = (n == 8 && i >= 16 && i <= 23) ? cam_ddr1 : i % 2 == 1;
        if (set_mem(HI_ID_VDEC, 0, i, i % 2 == 1) != 0 || set_mem(HI_ID_VENC, 0, i, !cam_ddr1) != 0 ||
            set_mem(HI_ID_GROUP, i, 0, cam_ddr1) != 0 || set_mem(HI_ID_VPSS, i, 0, vpss_ddr1) != 0) {
            TRACE("HI_MPI_SYS_SetMemConf ERR !");
            return -1;
        }
        if (i == 0) {
            if (int32_t r = set_mem(HI_ID_VO, 0, 0, false))
                TRACE("HI_MPI_SYS_SetMemConf ERR %d %#x!\n", i, hex(r));
        }
    }
    if (set_mem(HI_ID_VPSS, CHIP_VPSS_GRP_OUT_A, 0, false) != 0 ||
        set_mem(HI_ID_VPSS, CHIP_VPSS_GRP_OUT_B, 0, false) != 0) {
        TRACE("HI_MPI_SYS_SetMemConf ERR !");
        return -1;
    }
    return 0;
}

int _m_chip_set_vin(cal_t* cal, int cam, int xres, int yres, int prog, double fps, int type)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    const int n = cal->slave_cam;
    TRACE("cam:%d xres:%d yres:%d prog:%d slv_cam:%d\n", cam, xres, yres, prog, n);
    if (cam < 0 || cam >= n || cam >= CHIP_MAX_CAM) {
        TRACE("cam:%d has no capture channel (slv_cam:%d), refused\n", cam, n);
        return -1;
    }
    const int v = cal_cam_to_vi_chn(cal, cam);
    TRACE("cam:%d xres:%d yres:%d prog:%d slv_cam:%d\n", v, xres, yres, prog, n);
    const int sub = v + VIU_SUB_CHN_OFFSET;
    const int d = v / 2;

    if (int32_t r = HI_MPI_VI_DisableChn(v))
        TRACE("HI_MPI_VI_DisableChn failed with %#x\n", hex(r));
    if (int32_t r = HI_MPI_VI_DisableChn(sub))
        TRACE("HI_MPI_VI_DisableChn failed with %#x\n", hex(r));
    if (int32_t r = HI_MPI_VI_DisableDev(d))
        TRACE("HI_MPI_VI_DisableDev failed with %#x\n", hex(r));
    if (xres <= 0)
        return 0;

    vi_dev_attr_t dev = pick_dev_table(yres, prog, type);
    // Standard-definition input on the HD decoder path arrives 1920 wide.
    if (yres != 720 && yres != 1080 && type == 3)
        xres = 1920;
    _m_chip_vi_comp_mask(&dev, d, xres, type);
    if (int32_t r = HI_MPI_VI_SetDevAttr(d, &dev))
        TRACE("HI_MPI_VI_SetDevAttr failed with %#x!\n", hex(r));
    if (int32_t r = HI_MPI_VI_EnableDev(d))
        TRACE("HI_MPI_VI_EnableDev failed with %#x!\n", hex(r));

    // Main channel: the whole picture. With eight cameras the channels that
    // are not a multiple of 4 stay 4:2:2 (their memory is the default zone).
    vi_chn_attr_t main{};
    main.cap_rect = {0, 0, static_cast<uint32_t>(xres), static_cast<uint32_t>(yres)};
    main.dest_size = {static_cast<uint32_t>(xres), static_cast<uint32_t>(yres)};
    main.cap_sel = VI_CAPSEL_BOTH;
    main.pix_fmt = (n == 8 && v % 4 != 0) ? PIXEL_FORMAT_YUV_SEMIPLANAR_422 : PIXEL_FORMAT_YUV_SEMIPLANAR_420;
    main.src_frame_rate = -1;
    main.frame_rate = -1;
    if (int32_t r = HI_MPI_VI_SetChnAttr(v, &main))
        TRACE("HI_MPI_VI_SetChnAttr failed with %#x!\n", hex(r));
    if (int32_t r = HI_MPI_VI_EnableChn(v))
        TRACE("HI_MPI_VI_EnableChn failed with %#x!\n", hex(r));
    if (main.pix_fmt == PIXEL_FORMAT_YUV_SEMIPLANAR_420)
        HI_MPI_VI_EnableChn422to420(v);

    // Sub channel: at most 640 x 360, one field of an interlaced HD
    // picture, and at most 30 frames per second.
    const int sub_h = xres >= 1280 ? k_sub_height : std::min(yres, k_sub_height);
    TRACE("cal_m_vout_get_cells with %d %d!\n", k_sub_width, sub_h);
    vi_chn_attr_t low{};
    low.cap_rect = {0, 0, static_cast<uint32_t>(k_sub_width), static_cast<uint32_t>(sub_h)};
    low.dest_size = {static_cast<uint32_t>(k_sub_width), static_cast<uint32_t>(sub_h)};
    low.cap_sel = (yres >= 720 && prog == 0) ? VI_CAPSEL_BOTTOM : VI_CAPSEL_BOTH;
    low.pix_fmt = PIXEL_FORMAT_YUV_SEMIPLANAR_420;
    if (prog == 1 && fps > 30.0) {
        low.src_frame_rate = trunc_rate(fps);
        low.frame_rate = trunc_rate(fps * 0.5);
    } else {
        low.src_frame_rate = -1;
        low.frame_rate = -1;
    }
    if (int32_t r = HI_MPI_VI_SetChnAttr(sub, &low))
        TRACE("failed with %#x!\n", hex(r));
    if (int32_t r = HI_MPI_VI_EnableChn(sub))
        TRACE("failed with %#x!\n", hex(r));
    return 0;
}

int _mc_vpss_start(cal_t* cal, int count, pic_size_t size, int nchn, const vpss_grp_attr_t* grp_attr, int first)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    const int n = cal->slave_cam;
    TRACE("start vpss .. %d!\n", first);
    vpss_grp_attr_t attr{};
    if (grp_attr != nullptr) {
        attr = *grp_attr;
    } else {
        attr.max_width = size.width;
        attr.max_height = size.height;
        attr.pix_fmt = PIXEL_FORMAT_YUV_SEMIPLANAR_420;
    }
    if (count <= 0)
        return 0;
    if (n <= 0) {
        TRACE("slave_cam:%d, no group plan\n", n);
        return -1;
    }
    for (int i = 0; i < count; ++i) {
        const int g = first + i;
        // With eight cameras each main-capture group takes its capture
        // channel's format; the output groups take 4:2:2.
        if (n == 8) {
            bool yuv422 = (g >= 16 && g <= 23 && cal_cam_to_vi_chn(cal, i) % 4 != 0) || g > 124;
            attr.pix_fmt = yuv422 ? PIXEL_FORMAT_YUV_SEMIPLANAR_422 : PIXEL_FORMAT_YUV_SEMIPLANAR_420;
        }
        if (int32_t r = HI_MPI_VPSS_CreateGrp(g, &attr)) {
            TRACE("HI_MPI_VPSS_CreateGrp failed with %d %#x!\n", i, hex(r));
            return -1;
        }
        vpss_grp_param_t param{};
        if (int32_t r = HI_MPI_VPSS_GetGrpParam(g, &param)) {
            TRACE("failed with %#x!\n", hex(r));
            return -1;
        }
        param.motion_adapt = 0;
        if (int32_t r = HI_MPI_VPSS_SetGrpParam(g, &param)) {
            TRACE("failed with %#x!\n", hex(r));
            return -1;
        }
        const int q = g / n;
        for (int k = 0; k < nchn; ++k) {
            if (!vpss_chn_on(q, g, k))
                continue;
            if (int32_t r = HI_MPI_VPSS_SetChnAttr(g, k, &CHIP_VPSS_CHN_ATTR)) {
                TRACE("HI_MPI_VPSS_SetChnAttr failed with %#x\n", hex(r));
                return -1;
            }
            if (int32_t r = HI_MPI_VPSS_EnableChn(g, k)) {
                TRACE("HI_MPI_VPSS_EnableChn failed with %#x\n", hex(r));
                return -1;
            }
        }
        if (int32_t r = HI_MPI_VPSS_StartGrp(g)) {
            TRACE("HI_MPI_VPSS_StartGrp failed with %#x\n", hex(r));
            return -1;
        }
    }
    return 0;
}

int chip_init_slave(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    TRACE("start chip init slave ");
    const int n = cal->slave_cam;
    if (!cam_count_supported(n)) {
        TRACE("slave_cam:%d is not 1 .. %d (the capture channel map covers %d cameras), chip not brought up\n", n,
              CHIP_MAX_CAM, CAL_VIN_MAP_CAMS);
        return -1;
    }
    if (int r = _m_sys_memconfig(cal)) {
        TRACE("_sys_memconfig failed with %d!\n", r);
        return -1;
    }
    for (int c = 0; c < n; ++c)
        _m_chip_set_vin(cal, c, 1920, 1080, 1, 30.0, 3);

    const pic_size_t sub{k_sub_width, k_sub_height};
    const pic_size_t full{1920, 1080};
    if (_mc_vpss_start(cal, n, sub, k_vpss_chns, nullptr, n) != 0)
        TRACE("Start Vpss failed!");
    if (_mc_vpss_start(cal, n, full, k_vpss_chns, nullptr, 0) != 0)
        TRACE("Start Vpss failed!");
    if (_mc_vpss_start(cal, n, full, k_vpss_chns, nullptr, 2 * n) != 0)
        TRACE("Start Vpss failed!");
    if (_mc_vpss_start(cal, 1, full, k_vpss_chns, nullptr, CHIP_VPSS_GRP_OUT_A) != 0) {
        TRACE("Start Vpss failed!");
        return -1;
    }
    if (_mc_vpss_start(cal, 1, full, k_vpss_chns, nullptr, CHIP_VPSS_GRP_OUT_B) != 0) {
        TRACE("Start Vpss failed!");
        return -1;
    }

    TRACE("stViParam.s32ViChnCnt! %d\n", n);
    for (int c = 0; c < n; ++c) {
        const int v = cal_cam_to_vi_chn(cal, c);
        const mpp_chn_t sub_src{HI_ID_VI, 0, v + VIU_SUB_CHN_OFFSET};
        const mpp_chn_t sub_dest{HI_ID_VPSS, n + c, 0};
        if (int32_t r = HI_MPI_SYS_Bind(&sub_src, &sub_dest))
            TRACE("failed with %d %#x!\n", v + VIU_SUB_CHN_OFFSET, hex(r));
        const mpp_chn_t main_src{HI_ID_VI, 0, v};
        const mpp_chn_t main_dest{HI_ID_VPSS, 2 * n + c, 0};
        if (int32_t r = HI_MPI_SYS_Bind(&main_src, &main_dest))
            TRACE("failed with %d %#x!\n", v, hex(r));
        const mpp_chn_t dec_src{HI_ID_VDEC, 0, c};
        const mpp_chn_t dec_dest{HI_ID_VPSS, c, 0};
        if (int32_t r = HI_MPI_SYS_Bind(&dec_src, &dec_dest)) {
            TRACE("failed with %#x!\n", hex(r));
            return -1;
        }
    }
    return 0;
}

int chip_exit_slave(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    const int n = cal->slave_cam;

    for (int e = 0; e < CHIP_VO_TEARDOWN_DEVS; ++e) {
        for (int k = 0; k < VO_MAX_CHN_NUM; ++k) {
            if (int32_t r = unbind_dest({HI_ID_VO, e, k}))
                TRACE("VPSS to VO Bind failed with %#x!\n", hex(r));
            if (int32_t r = HI_MPI_VO_DisableChn(e, k))
                TRACE("failed with %#x!\n", hex(r));
        }
        if (int32_t r = HI_MPI_VO_Disable(e))
            TRACE("failed with %#x!\n", hex(r));
        if (int32_t r = HI_MPI_VO_DisableVideoLayer(e))
            TRACE("failed with %#x!\n", hex(r));
    }

    // Encoder channel g belongs to encoder group g.
    for (int g = 0; g < CHIP_VENC_TEARDOWN_GRPS; ++g) {
        if (int32_t r = unbind_dest({HI_ID_GROUP, g, 0}))
            TRACE("VPSS to VO Bind failed with %#x!\n", hex(r));
        HI_MPI_VENC_StopRecvPic(g);
        HI_MPI_VENC_UnRegisterChn(g);
        HI_MPI_VENC_DestroyChn(g);
        if (int32_t r = HI_MPI_VENC_DestroyGroup(g))
            TRACE("HI_MPI_VENC_xxx group[%d] failed with %#x!\n", g, hex(r));
    }

    // The groups the bring-up creates: none of the camera groups when it
    // refused the camera count.
    const int cam_grps = cam_count_supported(n) ? 3 * n : 0;
    if (cam_grps == 0)
        TRACE("slave_cam:%d, no camera groups\n", n);
    for (int i = 0; i < cam_grps + 2; ++i) {
        const int g = i < cam_grps ? i : (i == cam_grps ? CHIP_VPSS_GRP_OUT_B : CHIP_VPSS_GRP_OUT_A);
        if (int32_t r = unbind_dest({HI_ID_VPSS, g, 0}))
            TRACE("VPSS to VO Bind failed with %#x!\n", hex(r));
        if (int32_t r = HI_MPI_VPSS_StopGrp(g)) {
            TRACE("failed with %#x!\n", hex(r));
            return -1;
        }
        for (int k = 0; k < k_vpss_chns; ++k) {
            if (int32_t r = HI_MPI_VPSS_DisableChn(g, k))
                TRACE("failed with %#x!\n", hex(r));
        }
        if (int32_t r = HI_MPI_VPSS_DestroyGrp(g))
            TRACE("failed with %#x!\n", hex(r));
    }
    return 0;
}
