// Chip bring-up: memory zones, the capture device and channels of every
// camera, the processing groups and the bindings of the capture and decoder
// channels to them; and the matching teardown.
//
// Processing groups with n cameras: 0 .. n-1 playback (fed by decoder
// channel c), n .. 2n-1 sub capture (640 x 360), 2n .. 3n-1 main capture,
// 127 and 125 for the output paths.
#pragma once

#include <cstdint>

#include "platform/hi_comm.h"
#include "platform/hi_mpi_vi.h"
#include "platform/hi_mpi_vpss.h"

struct cal_t;

// The bring-up handles at most this many cameras (the capture channel map).
inline constexpr int CHIP_MAX_CAM = 8;

// Groups 125 and 127 carry the output paths.
inline constexpr int CHIP_VPSS_GRP_OUT_A = 127;
inline constexpr int CHIP_VPSS_GRP_OUT_B = 125;

// Encoder groups the teardown clears: 0 .. CHIP_VENC_TEARDOWN_GRPS - 1.
inline constexpr int CHIP_VENC_TEARDOWN_GRPS = 144;
// Output devices the teardown switches off: 0 .. CHIP_VO_TEARDOWN_DEVS - 1.
inline constexpr int CHIP_VO_TEARDOWN_DEVS = 3;

// Capture device tables, named after the video decoder chips whose output
// they describe. The bring-up copies one and sets its component masks.
constexpr vi_dev_attr_t chip_dev_table(int32_t mode, int32_t scan, int32_t seq, int32_t vsync, uint32_t width,
                                       uint32_t height)
{
    vi_dev_attr_t a{};
    a.intf_mode = mode;
    a.work_mode = VI_WORK_MODE_1MUX;
    a.comp_mask[0] = 0xFF000000;
    a.comp_mask[1] = 0;
    a.scan_mode = scan;
    for (int32_t& ad : a.ad_chn_id)
        ad = -1;
    a.data_seq = seq;
    a.vsync_mode = vsync;
    a.h_active = width;
    a.v_active = height;
    return a;
}

inline constexpr vi_dev_attr_t M_CHIP_DEV_ATTR_BT656D1_1MUX =
    chip_dev_table(VI_MODE_BT656, VI_SCAN_INTERLACED, 0, 0, 0, 0);
inline constexpr vi_dev_attr_t M_CHIP_VI_ATTR_7441_BT656_1MUX_720P =
    chip_dev_table(VI_MODE_BT656, VI_SCAN_PROGRESSIVE, 0, 0, 0, 0);
inline constexpr vi_dev_attr_t M_CHIP_VI_ATTR_7441_INTERLEAVED_720P =
    chip_dev_table(VI_MODE_BT1120_INTERLEAVED, VI_SCAN_PROGRESSIVE, 1, 1, 1280, 720);
inline constexpr vi_dev_attr_t M_CHIP_VI_ATTR_7441_INTERLEAVED_1080P =
    chip_dev_table(VI_MODE_BT1120_INTERLEAVED, VI_SCAN_PROGRESSIVE, 1, 1, 1920, 1080);
inline constexpr vi_dev_attr_t M_CHIP_VI_ATTR_7441_INTERLEAVED_1080I =
    chip_dev_table(VI_MODE_BT1120_INTERLEAVED, VI_SCAN_INTERLACED, 1, 1, 1920, 1080);
inline constexpr vi_dev_attr_t DEV_ATTR_TP28XX_NTSC =
    chip_dev_table(VI_MODE_BT1120_INTERLEAVED, VI_SCAN_INTERLACED, 1, 1, 1920, 480);
inline constexpr vi_dev_attr_t DEV_ATTR_TP28XX_PAL =
    chip_dev_table(VI_MODE_BT1120_INTERLEAVED, VI_SCAN_INTERLACED, 1, 1, 1920, 576);

// Output channel attributes of every enabled processing-group channel.
inline constexpr vpss_chn_attr_t CHIP_VPSS_CHN_ATTR = {
    0, 0, {2, 2, 2, 2}, {0x00FF00, 0x00FF00, 0x00FF00, 0x00FF00}};

// Brings up the chip for slave_cam cameras (1 .. 8; any other count is
// refused with a trace). 0, or -1 when the memory zones, group 127 or 125
// or a decoder binding failed. Capture and group failures are traced.
int chip_init_slave(cal_t* cal);

// Unbinds and switches off output devices 0 .. 2, clears encoder groups
// 0 .. 143 and tears down the processing groups of the bring-up (0 .. 3n-1,
// then 125 and 127). -1 when stopping a group fails (the teardown ends
// there), else 0. Memory zones and the capture set-up stay.
int chip_exit_slave(cal_t* cal);

// Places every channel in its memory zone: 0, or -1 on the first failure
// other than the output device's.
int _m_sys_memconfig(cal_t* cal);

// Switches camera cam's capture device and channels off and, for xres > 0,
// on again with the format: picture size, prog 1 progressive / 0
// interlaced, frame rate, signal type (3: HD decoder on an interleaved
// bus). Platform failures are traced and leave the camera without
// pictures; the result is 0. A camera without a capture channel (cam < 0,
// cam >= slave_cam or beyond the map) is refused with -1 and nothing is
// touched.
int _m_chip_set_vin(cal_t* cal, int cam, int xres, int yres, int prog, double fps, int type);

// Sets the component masks (words 2 and 3) of a copied device table for
// device d, by d mod 4 and the table's interface mode.
void _m_chip_vi_comp_mask(vi_dev_attr_t* attr, int d, int xres, int type);

// Creates, configures and starts groups first .. first + count - 1, each
// with up to nchn output channels. Without grp_attr the groups take size
// and 4:2:0. 0, or -1 at the first failure (the groups made so far stay).
int _mc_vpss_start(cal_t* cal, int count, pic_size_t size, int nchn, const vpss_grp_attr_t* grp_attr, int first);
