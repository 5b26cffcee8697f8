// The video output module: the PCI video paths to the master's main,
// picture-in-picture and spot outputs, and the placement of this slave's
// cameras in the master's screen layout through the cascade output device
// 8, with the zoom of the full-screen processing group 127.
//
// The module keeps no state that changes what it does: the channels, their
// bindings and the crop of group 127 live in the platform. All handlers run
// on the main thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cal/cal_mod.h"
#include "platform/hi_mpi_pciv.h"

struct cal_t;
struct hsc_msg_t;

struct cal_vout_t {
    int slave_cam;  // copy of the core's
    cal_t* cal;     // owner
    int size;       // sizeof(cal_vout_t)
};

// ---- command payloads -----------------------------------------------------------

// HSCC_CAL_InitPcivVo: the path, the channel, the live flag of the main
// path, then the master's PCI video attribute record, passed on unchanged.
struct vout_pciv_init_t {
    int32_t kind;      // VOUT_PCIV_PIP, VOUT_PCIV_MAIN, any other: spot
    int32_t chn;       // PCI video channel p (main, spot: the camera)
    int32_t live;      // main: 1 live, any other value playback
    pciv_attr_t attr;  // message offset 28
};
static_assert(offsetof(vout_pciv_init_t, chn) == 4);
static_assert(offsetof(vout_pciv_init_t, attr) == 12);
static_assert(sizeof(vout_pciv_init_t) == 124);

// HSCC_CAL_StartPcivVo. The PIP path reads the group only; the main path
// reads all five words.
struct vout_pciv_start_t {
    int32_t kind;
    int32_t arg;     // PIP: processing group g; main: channel p = camera
    int32_t live;    // main
    int32_t width;   // main: the picture the master shows
    int32_t height;
};
static_assert(offsetof(vout_pciv_start_t, width) == 12);
static_assert(sizeof(vout_pciv_start_t) == 20);
inline constexpr uint32_t VOUT_PCIV_PIP_START_LEN = 8;

// HSCC_CAL_StopPcivVo. The PIP path reads the kind only.
struct vout_pciv_stop_t {
    int32_t kind;
    int32_t chn;     // main or spot channel p
};
static_assert(sizeof(vout_pciv_stop_t) == 8);
inline constexpr uint32_t VOUT_PCIV_PIP_STOP_LEN = 4;

enum : int32_t {
    VOUT_PCIV_PIP = 0,
    VOUT_PCIV_MAIN = 2,
};

inline constexpr int VOUT_MAX_CELLS = 32;
inline constexpr int VOUT_MAX_CAMS = 32;  // recorder-wide cameras a layout names

// One cell of the master's screen, in pixels of the cascade output.
struct vout_cell_t {
    int16_t tag;   // not interpreted
    int16_t cam;   // recorder-wide camera
    int16_t x;
    int16_t y;
    int16_t width;
    int16_t height;
};
static_assert(offsetof(vout_cell_t, cam) == 2);
static_assert(offsetof(vout_cell_t, height) == 10);
static_assert(sizeof(vout_cell_t) == 12);

// HSCC_CAL_SetLayout. A message carries the header and at least the cells
// it uses.
struct vout_layout_t {
    int32_t vout_idx;                // only 0 is laid out; 2 and 3 are not this slave's
    int32_t layout;                  // traced only
    int32_t cells;                   // cells used, 0 .. VOUT_MAX_CELLS
    uint8_t narrow[VOUT_MAX_CAMS];   // per recorder-wide camera: 3/4 of the cell below 1280 wide
    vout_cell_t cell[VOUT_MAX_CELLS];
};
static_assert(offsetof(vout_layout_t, cells) == 8);
static_assert(offsetof(vout_layout_t, narrow) == 12);
static_assert(offsetof(vout_layout_t, cell) == 44);
static_assert(sizeof(vout_layout_t) == 428);
inline constexpr uint32_t VOUT_LAYOUT_HEAD_LEN = offsetof(vout_layout_t, cell);

// HSCC_CAL_SetZoom: the crop of group 127 in pixels of its input picture.
struct vout_zoom_t {
    int32_t cam;  // recorder-wide; selects nothing
    int32_t w1;
    int32_t w2;
    int32_t w3;
    int32_t x;
    int32_t y;
    int32_t width;
    int32_t height;
};
static_assert(offsetof(vout_zoom_t, x) == 16);
static_assert(sizeof(vout_zoom_t) == 32);

// A cell's rectangle while it is placed.
struct vout_rect_t {
    int x;
    int y;
    int width;
    int height;
};

// ---- addresses ----------------------------------------------------------------------

inline constexpr int VOUT_DEV = 8;           // the cascade output towards the master
inline constexpr int VOUT_GRP_FULL = 127;    // full-screen group of a single or wide cell
inline constexpr int VOUT_GRP_FULL_CHN = 2;  // its output channel the cell shows
inline constexpr int VOUT_PLAY_CHNS = 8;     // decoder channels and groups a layout resets

// The module's table: its command rows and its life.
extern const cal_mod_t cal_vout_mod;

// NULL when slave_cam (unsigned) is above 32.
cal_vout_t* cal_vout_new(cal_t* cal);
void cal_vout_delete(cal_vout_t* vout);

// ---- PCI video paths: each takes the whole command message and returns
// 0 or -1. A message too short for what the path reads is refused (-1)
// before anything is done; so is a main or spot channel whose camera is not
// one of this slave's (the path would otherwise show another camera).

int cal_m_vout_main_pcivinit_slave(cal_t* cal, hsc_msg_t* msg);
int cal_m_vout_mainpciv_slavestart(cal_t* cal, hsc_msg_t* msg);
int cal_m_vout_pip_pcivinit_slave(cal_t* cal, hsc_msg_t* msg);
int cal_m_vout_pippciv_slavestart(cal_t* cal, hsc_msg_t* msg);
int cal_m_vout_pippciv_slavestop(cal_t* cal, hsc_msg_t* msg);
int cal_m_vout_spot_pcivinit_slave(cal_t* cal, hsc_msg_t* msg);
int cal_m_vout_spot_pcivexit_slave(cal_t* cal, hsc_msg_t* msg);

// ---- layout and zoom ------------------------------------------------------------------

// Rebuilds this slave's part of the master's screen from the layout record
// in msg: 0, or -1 for a vout_idx other than 0, 2 and 3, a message shorter
// than its used cells, or a failed attribute begin or end of device 8. A
// slave with 8 cameras lays out nothing (0). A count above 32 cells is
// taken as 32.
int cal_m_vout_set_layout(cal_t* cal, int vout_idx, hsc_msg_t* msg, int target);

// Narrows a cell to 3/4 of its width, centred, for a camera captured below
// 1280 wide when narrow is non-zero. Returns 0.
int cal_m_vout_fit_cell(cal_t* cal, int camera, int narrow, int cells, vout_rect_t* rect);

// Stops, resets and restarts decoder channels 0 .. 7 and resets groups
// 0 .. 7, for vout_idx 0. Returns 0.
int _m_vout_clear_play_display(cal_t* cal, int vout_idx);

// Crops group 127 to the rectangle, each value rounded toward zero to an
// even number: 0, or -1 when the platform refuses.
int _vout_set_zoom(cal_t* cal, int cam, int w2, int w3, int x, int y, int width, int height);

// v rounded toward zero to an even number.
constexpr int vout_even(int v)
{
    return v - v % 2;
}
