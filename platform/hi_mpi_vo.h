// Media platform: video output (VO).
//
// Output devices 0 .. 2 drive the chip's own displays; device 8 is the
// cascade output towards the master. Each device has one video layer and
// 64 channels; channel k of device e is the bind destination (VO, e, k).
#pragma once

#include <cstdint>

#include "platform/hi_comm.h"

inline constexpr int VO_MAX_DEV_NUM = 9;
inline constexpr int VO_MAX_CHN_NUM = 64;
inline constexpr int VO_CASCADE_DEV = 8;

int32_t HI_MPI_VO_DisableChn(int32_t dev, int32_t chn);
int32_t HI_MPI_VO_Disable(int32_t dev);
int32_t HI_MPI_VO_DisableVideoLayer(int32_t layer);
