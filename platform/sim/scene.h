// The test scene a simulated camera shows, rendered at any picture size and
// time into a caller's buffer.
//
// A static background with the camera's recorder-wide number drawn large in
// the upper left quarter (luma 48 .. 160 everywhere), and a bright vertical
// bar (luma 235), an eighth of the width wide and full height, that sweeps
// from the left edge to the right once every 4 s on a moving camera and
// stands in the middle on a still one. Nothing else changes with time, so a
// picture differs from an earlier one only where the bar was or is.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/sim/board_conf.h"

inline constexpr int64_t SIM_SCENE_SWEEP_US = 4000000;
inline constexpr uint8_t SIM_SCENE_LUMA_MIN = 48;
inline constexpr uint8_t SIM_SCENE_LUMA_MAX = 160;
inline constexpr uint8_t SIM_SCENE_BAR_LUMA = 235;

// A 4:2:0 picture to render into: planar (I420: cb and cr planes, step 1)
// or semi-planar (NV12: cr = cb + 1, step 2).
struct sim_picture {
    int width;
    int height;
    uint8_t* y;
    int y_stride;
    uint8_t* cb;
    uint8_t* cr;
    int c_stride;
    int c_step;
};

// Left edge of the bar in a picture w wide at time t_us (microseconds on any
// steady clock; the sweep restarts every SIM_SCENE_SWEEP_US).
int sim_scene_bar_x(sim_scene kind, int64_t t_us, int w);
int sim_scene_bar_width(int w);

// One camera's scene at one size: the still part is drawn once, so that
// each picture is row copies and the bar.
class sim_scene_painter {
public:
    // textured: a fixed fine texture over the background (the camera's own).
    sim_scene_painter(int camera, sim_scene kind, int width, int height, bool textured = false);

    // Renders the picture at t_us into pic (of the painter's size). An absent
    // camera renders nothing and answers false.
    bool render(int64_t t_us, const sim_picture& pic) const;

private:
    sim_scene kind_;
    int width_, height_;
    std::vector<uint8_t> luma_;  // the still part, width_ per row
    uint8_t tint_cb_, tint_cr_;
};

// Renders camera `camera`'s scene once (a painter for one picture).
bool sim_scene_render(int camera, sim_scene kind, int64_t t_us, const sim_picture& pic);
