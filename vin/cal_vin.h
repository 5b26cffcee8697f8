// The video input module: the capture channel map of the cameras.
#pragma once

struct cal_t;

// Number of cameras the capture channel map covers.
inline constexpr int CAL_VIN_MAP_CAMS = 8;

// Camera c's main capture channel: for c in 0 .. slave_cam - 1 the map
// entry (cameras 0 .. 7 on channels 0, 2, 14, 12, 4, 6, 10, 8; a camera
// beyond the map gets 0); c itself for c = slave_cam; 0 below 0 or above
// slave_cam. Its sub channel is 16 higher, its capture device half of it.
int cal_cam_to_vi_chn(cal_t* cal, int c);
