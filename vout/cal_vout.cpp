// The video output module's life and its command rows.
#include "vout/cal_vout.h"

#include <new>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "msg/cal_hsc.h"
#include "vout/vout_bind.h"

namespace {

int row_set_layout(cal_t* cal, hsc_msg_t* msg)
{
    return cal_m_vout_set_layout(cal, cal_payload<int32_t>(msg), msg, -1);
}

int row_set_zoom(cal_t* cal, hsc_msg_t* msg)
{
    auto p = cal_payload<vout_zoom_t>(msg);
    // The camera selects nothing; any value passes, held to the int range.
    int c = vout_id(int64_t{p.cam} - cal->cam_base);
    return _vout_set_zoom(cal, c, p.w2, p.w3, p.x, p.y, p.width, p.height);
}

int row_init_pciv_vo(cal_t* cal, hsc_msg_t* msg)
{
    auto p = cal_payload<vout_pciv_init_t>(msg);
    if (p.kind == VOUT_PCIV_PIP) {
        // Words 1, 30 and 29: the channel and the far end's channel and chip.
        TRACE("HSCC_CAL_InitPcivVo.. %d %d %d\n", p.chn, p.attr.remote_obj.pciv_chn, p.attr.remote_obj.chip_id);
        return cal_m_vout_pip_pcivinit_slave(cal, msg);
    }
    if (p.kind == VOUT_PCIV_MAIN)
        return cal_m_vout_main_pcivinit_slave(cal, msg);
    return cal_m_vout_spot_pcivinit_slave(cal, msg);
}

int row_start_pciv_vo(cal_t* cal, hsc_msg_t* msg)
{
    int32_t kind = cal_payload<int32_t>(msg);
    if (kind == VOUT_PCIV_PIP)
        return cal_m_vout_pippciv_slavestart(cal, msg);
    if (kind == VOUT_PCIV_MAIN)
        return cal_m_vout_mainpciv_slavestart(cal, msg);
    return 0;
}

int row_stop_pciv_vo(cal_t* cal, hsc_msg_t* msg)
{
    if (cal_payload<int32_t>(msg) == VOUT_PCIV_PIP)
        return cal_m_vout_pippciv_slavestop(cal, msg);
    return cal_m_vout_spot_pcivexit_slave(cal, msg);
}

// The PCI video rows need the kind word at least; each path then checks
// the length of what it reads.
constexpr cal_cmd_row_t k_rows[] = {
    {HSCC_CAL_SetLayout, HSCC_CAL_SetLayout, VOUT_LAYOUT_HEAD_LEN, false, row_set_layout},
    {HSCC_CAL_SetZoom, HSCC_CAL_SetZoom, sizeof(vout_zoom_t), false, row_set_zoom},
    {HSCC_CAL_InitPcivVo, HSCC_CAL_InitPcivVo, sizeof(vout_pciv_init_t), false, row_init_pciv_vo},
    {HSCC_CAL_StartPcivVo, HSCC_CAL_StartPcivVo, sizeof(int32_t), false, row_start_pciv_vo},
    {HSCC_CAL_StopPcivVo, HSCC_CAL_StopPcivVo, sizeof(int32_t), false, row_stop_pciv_vo},
};

}  // namespace

const cal_mod_t cal_vout_mod = {
    "vout",
    k_rows,
    [](cal_t* cal) { cal->vout = cal_vout_new(cal); },
    // No thread: the module only answers commands.
    [](cal_t*) { return 0; },
    [](cal_t*) { return 0; },
    [](cal_t* cal) {
        cal_vout_delete(cal->vout);
        cal->vout = nullptr;
    },
    [](const cal_t* cal) { return cal->vout != nullptr; },
    nullptr,
    nullptr,
};

cal_vout_t* cal_vout_new(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    if (static_cast<unsigned>(cal->slave_cam) > VOUT_MAX_CAMS)
        return nullptr;
    cal_vout_t* vout = new (std::nothrow) cal_vout_t{};
    if (vout == nullptr)
        CAL_FATAL("malloc cal_vout_t failed!!\n");
    vout->slave_cam = cal->slave_cam;
    vout->cal = cal;
    vout->size = sizeof(cal_vout_t);
    return vout;
}

void cal_vout_delete(cal_vout_t* vout)
{
    TRACE("..");
    CAL_CHECK_OBJ(vout, cal_vout_t, "vout is NULL\n");
    delete vout;
}
