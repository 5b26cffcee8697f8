// Where pictures come from and how many: the capture channels deliver their
// camera's scene at the camera's rate (reduced by their frame-rate
// conversion), processing groups pass what their input receives to their
// enabled channels, and bindings carry pictures on. Everything is derived
// from the core's state and the clock; no picture is made.
//
// Only the family sources include this header; callers hold the core.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/sim/cover_paint.h"
#include "platform/sim/media_state.h"

// The live source of an encoder channel, followed back through the
// bindings: encoder group <- processing-group channel <- processing-group
// input <- capture channel -> capture input -> camera.
struct sim_flow_source {
    bool live = false;  // every link is there, running, and the camera delivers
    int input = -1;     // the slave's capture input
    int32_t vi = -1;    // the capture channel
    int camera = -1;    // recorder-wide
    sim_scene scene = sim_scene::absent;
    double fps = 0;     // pictures per second reaching the encoder group
};

// Pictures per second capture channel chn delivers: the camera's rate times
// the channel's conversion (target / source); 0 for an absent camera.
double sim_flow_vi_fps(const sim_media& m, int32_t chn);

sim_flow_source sim_flow_venc_source(const sim_media& m, int32_t venc_chn);

// The rate at which encoder channel chn produces access units from a source
// delivering src_fps: its target rate, never more than it receives.
double sim_flow_venc_fps(const sim_media& m, int32_t venc_chn, double src_fps);

// Pictures processing group grp has received since it started (0 while
// stopped or without a live input).
uint64_t sim_flow_vpss_pictures(const sim_media& m, int32_t grp, int64_t now_us);

// The source of a motion-detection channel: the capture channel bound to it.
struct sim_flow_vda_source {
    bool live = false;  // bound to an enabled capture channel whose camera delivers
    int32_t vi = -1;    // the capture channel
    int camera = -1;    // recorder-wide
    sim_scene scene = sim_scene::absent;
    double fps = 0;     // pictures per second it receives
    int64_t since_us = 0;  // host clock from which the channel delivers
};
sim_flow_vda_source sim_flow_vda_source_of(const sim_media& m, int32_t vda_chn);

// The solid covers attached to capture channel chn, in its output pixels,
// and the channel's output size.
std::vector<sim_cover> sim_flow_vi_covers(const sim_media& m, int32_t chn);
pic_size_t sim_flow_vi_size(const sim_media& m, int32_t chn);
