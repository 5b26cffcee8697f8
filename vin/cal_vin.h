// The video input module: each camera's capture format as the master last
// set it, the capture channel map, the per-camera motion settings, and the
// module's worker thread object.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cal/cal_mod.h"

struct cal_t;
struct kel_thread_t;

// Number of cameras the capture channel map covers.
inline constexpr int CAL_VIN_MAP_CAMS = 8;
inline constexpr int CAL_VIN_MAX_CAM = 32;

// Motion detection: results of a 512 x 288 picture in 16 x 16 cells, 32 per
// row and 18 rows; a bitmap of 32 words, one per row. The thread waits
// this long after its start before it makes the motion channels.
inline constexpr uint32_t CAL_VIN_MD_WIDTH = 512;
inline constexpr uint32_t CAL_VIN_MD_HEIGHT = 288;
inline constexpr int CAL_VIN_MD_WORDS = 32;
inline constexpr uint32_t CAL_VIN_MD_DELAY_US = 10000000;

struct cal_vin_t {
    int num;                   // cameras (slave_cam)
    kel_thread_t* thread;      // "cal_vin_thread"
    cal_t* cal;
    int xres[CAL_VIN_MAX_CAM];       // capture width as the master set it
    int yres[CAL_VIN_MAX_CAM];
    int prog[CAL_VIN_MAX_CAM];       // 1 progressive, 0 interlaced
    double fps[CAL_VIN_MAX_CAM];
    int type[CAL_VIN_MAX_CAM];       // camera signal type
    int md_threshold[CAL_VIN_MAX_CAM];
    int vda_fd[CAL_VIN_MAX_CAM];     // motion-detection channel descriptor, -1 none
    int md_row;                // motion cells per row
    int md_col;                // motion cells per column
    int size;                  // sizeof(cal_vin_t)
};

// Capture format record filled by cal_m_vin_get_info; the words marked
// reserved belong to the caller and are left as they are.
struct vin_info_t {
    int32_t reserved0[2];
    int32_t xres;
    int32_t yres;
    int32_t prog;
    int32_t reserved5;
    double fps;
};
static_assert(offsetof(vin_info_t, xres) == 8);
static_assert(offsetof(vin_info_t, prog) == 16);
static_assert(offsetof(vin_info_t, fps) == 24);
static_assert(sizeof(vin_info_t) == 32);

// Payload of HSCC_CAL_SetVincaps.
struct vin_set_caps_cmd_t {
    int32_t cam;       // recorder-wide camera
    int32_t xres;      // 0 or less switches the camera's capture off
    int32_t yres;
    int32_t prog;
    double fps;
    int32_t unused;
    int32_t type;
};
static_assert(offsetof(vin_set_caps_cmd_t, xres) == 4);
static_assert(offsetof(vin_set_caps_cmd_t, prog) == 12);
static_assert(offsetof(vin_set_caps_cmd_t, fps) == 16);
static_assert(offsetof(vin_set_caps_cmd_t, type) == 28);
static_assert(sizeof(vin_set_caps_cmd_t) == 32);

// Payload of HSCC_CAL_SetMd.
struct vin_set_md_cmd_t {
    int32_t cam;           // recorder-wide camera
    int32_t md_threshold;  // useful range 0 .. 256
};
static_assert(offsetof(vin_set_md_cmd_t, md_threshold) == 4);
static_assert(sizeof(vin_set_md_cmd_t) == 8);

// Payload of HSCC_CAL_SetPrivacy: the rectangle in fractions of the picture.
struct vin_set_privacy_cmd_t {
    int32_t cam;   // recorder-wide camera
    int32_t show;  // traced only
    double x;      // left edge, fraction of the width
    double y;      // top edge, fraction of the height
    double w;
    double h;
};
static_assert(offsetof(vin_set_privacy_cmd_t, show) == 4);
static_assert(offsetof(vin_set_privacy_cmd_t, x) == 8);
static_assert(offsetof(vin_set_privacy_cmd_t, y) == 16);
static_assert(offsetof(vin_set_privacy_cmd_t, w) == 24);
static_assert(offsetof(vin_set_privacy_cmd_t, h) == 32);
static_assert(sizeof(vin_set_privacy_cmd_t) == 40);

// The module's table: its command rows and its life.
extern const cal_mod_t cal_vin_mod;

// NULL when slave_cam (unsigned) is above 32.
cal_vin_t* cal_vin_new(cal_t* cal);
// Stops a running thread and frees the module.
void cal_vin_delete(cal_vin_t* vin);
// Starts cal_vin_thread and waits (up to 5 s) until it reports stable; 0.
int cal_vin_start(cal_vin_t* vin);
// The result of stopping the thread.
int cal_vin_stop(cal_vin_t* vin);

// The stored format of slave-local camera cam; any out-parameter may be
// NULL. 0, or -1 for a camera outside 0 .. num-1 (nothing written).
int cal_vin_get_caps(cal_t* cal, int cam, int* xres, int* yres, int* prog, double* fps);
int cal_m_vin_get_info(cal_t* cal, int cam, vin_info_t* info);

// Camera c's main capture channel: for c in 0 .. slave_cam - 1 the map
// entry (cameras 0 .. 7 on channels 0, 2, 14, 12, 4, 6, 10, 8; a camera
// beyond the map gets 0); c itself for c = slave_cam; 0 below 0 or above
// slave_cam. Its sub channel is 16 higher, its capture device half of it.
int cal_cam_to_vi_chn(cal_t* cal, int c);

// Video-loss query: 0 (signal present) for every camera; the slave keeps no
// loss state.
int _vin_vloss_one(cal_t* cal, int cam);

// Handler of HSCC_CAL_SetVincaps: stores the format, tells the encoder the
// camera's input rate and reconfigures the capture. The result of the
// capture set-up (0); -1 for a camera outside 0 .. num-1 or a frame rate
// that is not a finite number, with nothing changed.
int _vin_set_caps(cal_t* cal, int cam, int xres, int yres, int prog, double fps, int type);

// ---- motion detection ----------------------------------------------------------

// The capture channel motion detection and privacy masks address for camera
// c: where the bring-up put it for the cameras the channel map covers
// (0 .. 7, and fewer than slave_cam), 4 x c beyond the map. With eight
// cameras this is cal_cam_to_vi_chn; with fewer it keeps every camera on
// the channels it is captured on.
int cal_vin_cam_chn(cal_t* cal, int c);

// Handler of HSCC_CAL_SetMd with the slave-local camera: stores the
// threshold (the next result uses it); 0. A camera outside 0 .. num-1 is
// logged "cam is out of range!!" and refused with -1, nothing stored.
int _vin_set_md(cal_t* cal, int cam, int md_threshold);

// Creates, binds and starts every camera's motion channel and takes its
// descriptor. 0, or the platform error of the first failed step (that
// camera and the ones after it get no channel, and their descriptors are
// -1 so that they are not waited on). A camera whose descriptor cannot be
// had ends the set-up the same way with 0.
int _init_md(cal_vin_t* vin);
// Stops, unbinds and destroys every camera's motion channel, each step
// traced when it fails; 0. vda_fd keeps its values.
int _exit_md(cal_vin_t* vin);

// The module's worker thread: waits 10 s, makes the motion channels, then
// sends one report per result of every camera on MSGPORT_VIN, each waiting
// for the master's answer, until asked to stop; 0.
int cal_vin_thread(void* arg);

// One wait of the thread: up to 20 ms for any camera's result, then every
// camera's waiting result in camera order (read, reported, given back). 1
// when results were there, 0 after a wait that saw none, -1 when the wait
// failed and the channels were made again.
int _vin_md_pass(cal_vin_t* vin);

// The bitmap of one result: bit k of word r set when the value of cell k of
// row r (at cells + r * stride + k) is at least threshold, for md_col rows
// of md_row cells; the other words 0.
void _vin_md_bitmap(const uint8_t* cells, int stride, int md_row, int md_col, int threshold,
                    uint32_t bitmap[CAL_VIN_MD_WORDS]);

// ---- privacy masks -------------------------------------------------------------

// Every sub capture channel is 640 x 360 as far as masks are concerned.
inline constexpr int CAL_VIN_SUB_WIDTH = 640;
inline constexpr int CAL_VIN_SUB_HEIGHT = 360;
inline constexpr int CAL_VIN_PRIVACY_SUB_OFFSET = 16;

// Region handle of camera c's mask on its main (sub false) or sub capture
// channel. Main: c. Sub: c + 16 on a slave of up to 16 cameras, c + 32 on
// a larger one, so that no camera's sub region is another camera's main
// region (camera 16's main region 16 would otherwise be camera 0's sub
// region). Handles stay below 64, clear of the time overlay's 64 + c.
int cal_vin_privacy_handle(const cal_vin_t* vin, int c, bool sub);

// Handler of HSCC_CAL_SetPrivacy (msg: the whole command). Removes camera
// c's two masks and, for a rectangle of non-zero pixel width and height on
// each channel, places a new black cover there; every platform failure is
// traced and the result is 0. A camera outside the slave's range or a
// rectangle that is not four finite numbers is refused with -1 and changes
// nothing.
int cal_vin_set_privacy(cal_t* cal, hsc_msg_t* msg);
// The same on camera c's sub channel (640 x 360); 0.
int _m_vin_set_privacy_subch(cal_t* cal, int c, int show, double x, double y, double w, double h);
