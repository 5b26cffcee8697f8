// Media platform: regions (RGN).
//
// A region is a rectangle the platform lays over the pictures of the
// channel it is attached to: an overlay region shows a bitmap the process
// hands in (the time overlay on an encoder group), a cover region is a
// solid rectangle of one colour (privacy masks on capture channels). A
// region is created with its own attributes, attached to one channel with
// per-channel display attributes, and keeps its last bitmap.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/hi_comm.h"

// Handles 0 .. RGN_HANDLE_MAX - 1.
inline constexpr int32_t RGN_HANDLE_MAX = 128;

// Region types.
enum : int32_t {
    OVERLAY_RGN = 0,  // a bitmap over an encoder group's pictures
    COVER_RGN = 2,    // a solid rectangle over a capture channel's pictures
};

// Pixel format of an overlay bitmap: 2 bytes per pixel, 1 alpha bit and 5
// bits each of red, green and blue, little-endian.
enum : int32_t {
    PIXEL_FORMAT_RGB_1555 = 8,
};

// Largest overlay region and bitmap the platform takes.
inline constexpr uint32_t RGN_OVERLAY_MAX_WIDTH = 4096;
inline constexpr uint32_t RGN_OVERLAY_MAX_HEIGHT = 4096;

// Region attributes (5 words). A cover region has only its type: words 1
// .. 4 are 0.
struct rgn_overlay_attr_t {
    int32_t pixel_format;  // PIXEL_FORMAT_RGB_1555
    uint32_t bg_color;     // what the bitmap shows where nothing is drawn
    pic_size_t size;       // region size in pixels
};

struct rgn_attr_t {
    int32_t type;  // OVERLAY_RGN or COVER_RGN
    union {
        rgn_overlay_attr_t overlay;
        uint32_t reserved[4];
    };
};
static_assert(sizeof(rgn_attr_t) == 20);
static_assert(offsetof(rgn_attr_t, overlay) == 4);

// Per-channel display attributes of an overlay region.
struct rgn_overlay_chn_attr_t {
    int32_t x;  // position of the region's top left corner in the picture
    int32_t y;
    uint32_t bg_alpha;  // 0 (transparent) .. 128 (opaque)
    uint32_t fg_alpha;
    uint32_t layer;
    uint32_t reserved[7];
};

// Per-channel display attributes of a cover region.
struct rgn_cover_chn_attr_t {
    int32_t x;  // the rectangle in the picture, pixels
    int32_t y;
    uint32_t width;
    uint32_t height;
    uint32_t color;  // 0xRRGGBB
    uint32_t layer;
    uint32_t reserved[6];
};

// Per-channel display attributes (14 words): shown, the region's type, then
// the fields of that type.
struct rgn_chn_attr_t {
    int32_t show;  // 1: displayed
    int32_t type;  // as the region's
    union {
        rgn_overlay_chn_attr_t overlay;
        rgn_cover_chn_attr_t cover;
    };
};
static_assert(sizeof(rgn_overlay_chn_attr_t) == 48);
static_assert(sizeof(rgn_cover_chn_attr_t) == 48);
static_assert(sizeof(rgn_chn_attr_t) == 56);
static_assert(offsetof(rgn_chn_attr_t, overlay) == 8);
static_assert(offsetof(rgn_chn_attr_t, cover.color) == 24);
static_assert(offsetof(rgn_chn_attr_t, cover.layer) == 28);

// A bitmap for an overlay region: width × height pixels of the given
// format, rows of width × 2 bytes back to back.
struct bitmap_t {
    int32_t pixel_format;
    uint32_t width;
    uint32_t height;
    const void* data;
};

int32_t HI_MPI_RGN_Create(int32_t handle, const rgn_attr_t* attr);
// Refused while the region is attached.
int32_t HI_MPI_RGN_Destroy(int32_t handle);
// A region is attached to one channel at a time: an overlay to an encoder
// group (GROUP, group, 0), a cover to a capture channel (VI, 0, channel).
int32_t HI_MPI_RGN_AttachToChn(int32_t handle, const mpp_chn_t* chn, const rgn_chn_attr_t* attr);
int32_t HI_MPI_RGN_DetachFrmChn(int32_t handle, const mpp_chn_t* chn);
// Changes the display attributes of an attached region on its channel.
int32_t HI_MPI_RGN_SetDisplayAttr(int32_t handle, const mpp_chn_t* chn, const rgn_chn_attr_t* attr);
int32_t HI_MPI_RGN_GetDisplayAttr(int32_t handle, const mpp_chn_t* chn, rgn_chn_attr_t* attr);
// Hands an overlay region its bitmap (copied); the bitmap must not be
// larger than the region.
int32_t HI_MPI_RGN_SetBitMap(int32_t handle, const bitmap_t* bitmap);
