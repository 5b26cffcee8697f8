#include "vin/cal_vin.h"

#include <climits>
#include <cmath>
#include <new>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "enc/cal_enc.h"
#include "msg/cal_hsc.h"
#include "runtime/kel_thread.h"
#include "vin/chip.h"

namespace {

cal_vin_t* vin_of(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    CAL_CHECK_OBJ(cal->vin, cal_vin_t, "vin is NULL\n");
    return cal->vin;
}

bool cam_valid(const cal_vin_t* vin, int cam)
{
    return cam >= 0 && cam < vin->num;
}

// A frame rate as a whole number, truncated toward zero and held to the
// range of int.
int fps_to_int(double fps)
{
    if (fps >= static_cast<double>(INT_MAX))
        return INT_MAX;
    if (fps <= static_cast<double>(INT_MIN))
        return INT_MIN;
    return static_cast<int>(fps);
}

int row_set_vincaps(cal_t* cal, hsc_msg_t* msg)
{
    auto p = cal_payload<vin_set_caps_cmd_t>(msg);
    CAL_LOG(7, "HSCC_CAL_SetVincaps.. cam:%d xres:%d yres:%d prog:%d fps:%.1f type:%d cambase:%d\n", p.cam, p.xres,
            p.yres, p.prog, p.fps, p.type, cal->cam_base);
    return _vin_set_caps(cal, cal_local_cam(cal, p.cam), p.xres, p.yres, p.prog, p.fps, p.type);
}

int row_set_md(cal_t* cal, hsc_msg_t* msg)
{
    auto p = cal_payload<vin_set_md_cmd_t>(msg);
    TRACE("HSCC_CAL_SetMd cam:%d cam_base:%d\n", p.cam, cal->cam_base);
    return _vin_set_md(cal, cal_local_cam(cal, p.cam), p.md_threshold);
}

int row_set_privacy(cal_t* cal, hsc_msg_t* msg)
{
    return cal_vin_set_privacy(cal, msg);
}

constexpr cal_cmd_row_t k_rows[] = {
    {HSCC_CAL_SetVincaps, HSCC_CAL_SetVincaps, sizeof(vin_set_caps_cmd_t), false, row_set_vincaps},
    {HSCC_CAL_SetMd, HSCC_CAL_SetMd, sizeof(vin_set_md_cmd_t), false, row_set_md},
    {HSCC_CAL_SetPrivacy, HSCC_CAL_SetPrivacy, sizeof(vin_set_privacy_cmd_t), false, row_set_privacy},
};

}  // namespace

const cal_mod_t cal_vin_mod = {
    "vin",
    k_rows,
    [](cal_t* cal) { cal->vin = cal_vin_new(cal); },
    [](cal_t* cal) { return cal_vin_start(cal->vin); },
    [](cal_t* cal) { return cal_vin_stop(cal->vin); },
    [](cal_t* cal) {
        cal_vin_delete(cal->vin);
        cal->vin = nullptr;
    },
    [](const cal_t* cal) { return cal->vin != nullptr; },
    nullptr,
    nullptr,
};

cal_vin_t* cal_vin_new(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    if (static_cast<unsigned>(cal->slave_cam) > CAL_VIN_MAX_CAM)
        return nullptr;
    cal_vin_t* vin = new (std::nothrow) cal_vin_t{};
    if (vin == nullptr)
        CAL_FATAL("malloc cal_vin_t failed!!\n");
    vin->num = cal->slave_cam;
    vin->cal = cal;
    TRACE("num:%d\n", vin->num);
    vin->size = sizeof(cal_vin_t);
    for (int c = 0; c < vin->num; ++c) {
        vin->prog[c] = 1;
        vin->vda_fd[c] = -1;
    }
    vin->md_col = 18;
    vin->md_row = 32;
    TRACE("md_row:%d md_col:%d\n", vin->md_row, vin->md_col);
    vin->thread = kel_thread_new("cal_vin_thread", KEL_THREAD_STACK);
    return vin;
}

void cal_vin_delete(cal_vin_t* vin)
{
    CAL_CHECK_OBJ(vin, cal_vin_t, "vin is NULL\n");
    kel_thread_delete(vin->thread);
    delete vin;
}

int cal_vin_start(cal_vin_t* vin)
{
    CAL_CHECK_OBJ(vin, cal_vin_t, "vin is NULL\n");
    TRACE("enter");
    if (kel_thread_start(vin->thread, cal_vin_thread, vin) < 0)
        CAL_FATAL("kel_thread_start for cal_vin_thread failed!!\n");
    kel_thread_wait_stable(vin->thread, 5000);
    return 0;
}

int cal_vin_stop(cal_vin_t* vin)
{
    CAL_CHECK_OBJ(vin, cal_vin_t, "vin is NULL\n");
    kel_thread_notify_stop(vin->thread);
    return kel_thread_stop(vin->thread, 2000);
}

int cal_vin_get_caps(cal_t* cal, int cam, int* xres, int* yres, int* prog, double* fps)
{
    cal_vin_t* vin = vin_of(cal);
    if (!cam_valid(vin, cam))
        return -1;
    if (xres != nullptr)
        *xres = vin->xres[cam];
    if (yres != nullptr)
        *yres = vin->yres[cam];
    if (prog != nullptr)
        *prog = vin->prog[cam];
    if (fps != nullptr)
        *fps = vin->fps[cam];
    return 0;
}

int cal_m_vin_get_info(cal_t* cal, int cam, vin_info_t* info)
{
    return cal_vin_get_caps(cal, cam, &info->xres, &info->yres, &info->prog, &info->fps);
}

int cal_cam_to_vi_chn(cal_t* cal, int c)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    // One camera per capture device, in the order the board wires them.
    static constexpr int k_vi_chn[CAL_VIN_MAP_CAMS] = {0, 2, 14, 12, 4, 6, 10, 8};
    const int n = cal->slave_cam;
    if (c < 0 || c > n)
        return 0;
    if (c == n)
        return c;
    return c < CAL_VIN_MAP_CAMS ? k_vi_chn[c] : 0;
}

int _vin_vloss_one(cal_t* cal, int)
{
    vin_of(cal);
    return 0;
}

int _vin_set_caps(cal_t* cal, int cam, int xres, int yres, int prog, double fps, int type)
{
    cal_vin_t* vin = vin_of(cal);
    TRACE("cam:%d xres:%d yres:%d prog:%d fps:%.3f\n", cam, xres, yres, prog, fps);
    if (!cam_valid(vin, cam)) {
        TRACE("cam:%d is not one of the %d cameras: refused\n", cam, vin->num);
        return -1;
    }
    if (!std::isfinite(fps)) {
        TRACE("fps is not a number: refused\n");
        return -1;
    }
    vin->fps[cam] = fps;
    vin->type[cam] = type;
    vin->xres[cam] = xres;
    vin->yres[cam] = yres;
    vin->prog[cam] = prog;
    _enc_set_ref_fps(cal, cam, fps_to_int(fps));
    return _m_chip_set_vin(cal, cam, xres, yres, prog, fps, type);
}
