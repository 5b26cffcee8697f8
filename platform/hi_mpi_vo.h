// Media platform: video output (VO).
//
// Output devices 0 .. 2 drive the chip's own displays; device 8 is the
// cascade output towards the master. Each device has one video layer and
// 64 channels; channel k of device e is the bind destination (VO, e, k).
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/hi_comm.h"

inline constexpr int VO_MAX_DEV_NUM = 9;
inline constexpr int VO_MAX_CHN_NUM = 64;
inline constexpr int VO_CASCADE_DEV = 8;
inline constexpr uint32_t VO_MAX_PRIORITY = 7;
inline constexpr uint32_t VO_MIN_CHN_SIZE = 2;
inline constexpr uint32_t VO_MAX_CHN_SIZE = 4096;

// A rectangle of the output in pixels; a channel may lie partly off the
// screen, so x and y are signed. Every value is even.
struct vo_rect_t {
    int32_t x;
    int32_t y;
    uint32_t width;
    uint32_t height;
};
static_assert(sizeof(vo_rect_t) == 16);

// Channel attributes: where the channel shows on its device.
struct vo_chn_attr_t {
    uint32_t priority;   // 0 .. VO_MAX_PRIORITY; higher covers lower
    vo_rect_t rect;
    int32_t deflicker;   // 0 or 1
};
static_assert(offsetof(vo_chn_attr_t, rect) == 4);
static_assert(offsetof(vo_chn_attr_t, deflicker) == 20);
static_assert(sizeof(vo_chn_attr_t) == 24);

int32_t HI_MPI_VO_DisableChn(int32_t dev, int32_t chn);
int32_t HI_MPI_VO_Disable(int32_t dev);
int32_t HI_MPI_VO_DisableVideoLayer(int32_t layer);

// Channels of a device. A channel needs its attributes before it is
// enabled; enabling starts it showing (not paused).
int32_t HI_MPI_VO_SetChnAttr(int32_t dev, int32_t chn, const vo_chn_attr_t* attr);
int32_t HI_MPI_VO_GetChnAttr(int32_t dev, int32_t chn, vo_chn_attr_t* attr);
int32_t HI_MPI_VO_EnableChn(int32_t dev, int32_t chn);
// Pause keeps the last picture on the screen; resume shows new ones again.
// Both need an enabled channel.
int32_t HI_MPI_VO_ChnPause(int32_t dev, int32_t chn);
int32_t HI_MPI_VO_ChnResume(int32_t dev, int32_t chn);
// Drops the pictures queued for the channel (clear_all: the one shown too).
int32_t HI_MPI_VO_ClearChnBuffer(int32_t dev, int32_t chn, int32_t clear_all);

// Changes of a device's channels between these two calls take effect
// together at the end.
int32_t HI_MPI_VO_SetAttrBegin(int32_t dev);
int32_t HI_MPI_VO_SetAttrEnd(int32_t dev);
