// Media platform: capture family (VI).
//
// A capture device takes the digital video of one input bus; its channels
// cut a rectangle out of the device's picture, scale it, and hand it to the
// destinations bound to them. Device d owns main channels 2d and 2d + 1 and
// their sub channels 2d + 16 and 2d + 17.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/hi_comm.h"

inline constexpr int VIU_MAX_DEV_NUM = 8;
inline constexpr int VIU_MAX_CHN_NUM = 32;
inline constexpr int VIU_SUB_CHN_OFFSET = 16;  // sub channel of main channel v is v + 16
inline constexpr int VIU_MAX_AD_CHN = 4;
inline constexpr uint32_t VIU_MAX_WIDTH = 1920;
inline constexpr uint32_t VIU_MAX_HEIGHT = 1080;
inline constexpr uint32_t VIU_MIN_SIZE = 32;
inline constexpr int32_t VIU_MAX_FRAME_RATE = 120;
inline constexpr uint32_t VIU_MAX_TIMING = 4096;  // active size and blanking, pixels or lines

// The capture device a channel belongs to.
constexpr int vi_dev_of_chn(int chn)
{
    return (chn % VIU_SUB_CHN_OFFSET) / 2;
}

// Interface modes (word 0 of the device attributes).
enum : int32_t {
    VI_MODE_BT656 = 0,
    VI_MODE_BT601 = 1,
    VI_MODE_DIGITAL_CAMERA = 2,
    VI_MODE_BT1120_STANDARD = 3,
    VI_MODE_BT1120_INTERLEAVED = 4,
};

// Work modes: cameras multiplexed on one port.
enum : int32_t {
    VI_WORK_MODE_1MUX = 0,
    VI_WORK_MODE_2MUX = 1,
    VI_WORK_MODE_4MUX = 2,
};

enum : int32_t {
    VI_SCAN_INTERLACED = 0,
    VI_SCAN_PROGRESSIVE = 1,
};

// Field selection of a channel.
enum : int32_t {
    VI_CAPSEL_TOP = 0,
    VI_CAPSEL_BOTTOM = 1,
    VI_CAPSEL_BOTH = 2,
};

// Capture device attributes: 28 words.
struct vi_dev_attr_t {
    int32_t intf_mode;                    // 0
    int32_t work_mode;                    // 1
    uint32_t comp_mask[2];                // 2, 3: bus lines carrying the components
    int32_t scan_mode;                    // 4
    int32_t ad_chn_id[VIU_MAX_AD_CHN];    // 5 .. 8: -1 = default
    int32_t data_seq;                     // 9: component order on the bus
    int32_t vsync_mode;                   // 10
    int32_t sync_cfg[5];                  // 11 .. 15: polarities, horizontal sync mode, sync-valid settings
    uint32_t h_front_blank;               // 16
    uint32_t h_active;                    // 17: active width, 0 = taken from the embedded sync
    uint32_t h_back_blank;                // 18
    uint32_t v_front_blank;               // 19
    uint32_t v_active;                    // 20: active height, 0 = taken from the embedded sync
    uint32_t v_back_blank;                // 21
    uint32_t v2_front_blank;              // 22: second field
    uint32_t v2_active;                   // 23
    uint32_t v2_back_blank;               // 24
    int32_t extra[3];                     // 25 .. 27
};
static_assert(sizeof(vi_dev_attr_t) == 112);
static_assert(offsetof(vi_dev_attr_t, comp_mask) == 8);
static_assert(offsetof(vi_dev_attr_t, scan_mode) == 16);
static_assert(offsetof(vi_dev_attr_t, data_seq) == 36);
static_assert(offsetof(vi_dev_attr_t, h_active) == 17 * 4);
static_assert(offsetof(vi_dev_attr_t, v_active) == 20 * 4);

struct vi_rect_t {
    int32_t x;
    int32_t y;
    uint32_t width;
    uint32_t height;
};

// Capture channel attributes: 13 words.
struct vi_chn_attr_t {
    vi_rect_t cap_rect;        // 0 .. 3: rectangle taken from the device picture
    pic_size_t dest_size;      // 4, 5: output size (never larger than the rectangle)
    int32_t cap_sel;           // 6: VI_CAPSEL_*
    int32_t pix_fmt;           // 7: PIXEL_FORMAT_YUV_SEMIPLANAR_422 / _420
    int32_t mirror;            // 8
    int32_t flip;              // 9
    int32_t chroma_resample;   // 10
    int32_t src_frame_rate;    // 11: -1 and -1: no frame-rate conversion
    int32_t frame_rate;        // 12: target rate
};
static_assert(sizeof(vi_chn_attr_t) == 52);
static_assert(offsetof(vi_chn_attr_t, cap_sel) == 24);
static_assert(offsetof(vi_chn_attr_t, pix_fmt) == 28);
static_assert(offsetof(vi_chn_attr_t, src_frame_rate) == 44);

// Capture channel status.
struct vi_chn_stat_t {
    int32_t enabled;
    uint32_t int_cnt;      // frames since the channel was enabled
    uint32_t frame_rate;   // frames per second delivered now
    uint32_t lost_int;
    uint32_t vb_fail;
    uint32_t pic_width;
    uint32_t pic_height;
};
static_assert(sizeof(vi_chn_stat_t) == 28);
static_assert(offsetof(vi_chn_stat_t, frame_rate) == 8);

int32_t HI_MPI_VI_SetDevAttr(int32_t dev, const vi_dev_attr_t* attr);
int32_t HI_MPI_VI_EnableDev(int32_t dev);
// Refused while a channel of the device is enabled.
int32_t HI_MPI_VI_DisableDev(int32_t dev);

// Refused while the channel is enabled.
int32_t HI_MPI_VI_SetChnAttr(int32_t chn, const vi_chn_attr_t* attr);
// Needs the channel's attributes and its device enabled.
int32_t HI_MPI_VI_EnableChn(int32_t chn);
int32_t HI_MPI_VI_DisableChn(int32_t chn);
// Converts the captured 4:2:2 picture to 4:2:0 output; for 4:2:0 channels.
int32_t HI_MPI_VI_EnableChn422to420(int32_t chn);
// Status of an enabled channel.
int32_t HI_MPI_VI_Query(int32_t chn, vi_chn_stat_t* stat);
