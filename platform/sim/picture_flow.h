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
    bool textured = false;
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

// Pictures per second source src delivers to what is bound to it: a
// capture channel that runs, or an enabled output channel of a started
// processing group fed by one. 0 for anything else.
double sim_flow_src_fps(const sim_media& m, const mpp_chn_t& src);

// The same for the source bound to dest; 0 when none is.
double sim_flow_dest_fps(const sim_media& m, const mpp_chn_t& dest);

// The picture count of a destination that counts (an output channel or a
// PCI video channel), and whether it runs; NULL for any other address.
sim_pic_count* sim_flow_count_of(sim_media& m, const mpp_chn_t& dest, bool* running);

// Pictures dest has received up to now.
uint64_t sim_flow_pictures(const sim_media& m, const mpp_chn_t& dest, int64_t now_us);

// Folds what dest has received up to now into its count; called before
// its source or its running state changes. Nothing for an address that
// does not count.
void sim_flow_settle(sim_media& m, const mpp_chn_t& dest, int64_t now_us);

// Settles every destination that counts and runs; called before a change
// upstream of them (a binding, a group or capture channel switched) that
// may change what they receive.
void sim_flow_settle_all(sim_media& m, int64_t now_us);

// The source of a motion-detection channel: the capture channel bound to it.
struct sim_flow_vda_source {
    bool live = false;  // bound to an enabled capture channel whose camera delivers
    int32_t vi = -1;    // the capture channel
    int camera = -1;    // recorder-wide
    sim_scene scene = sim_scene::absent;
    bool textured = false;
    double fps = 0;     // pictures per second it receives
    int64_t since_us = 0;  // host clock from which the channel delivers
};
sim_flow_vda_source sim_flow_vda_source_of(const sim_media& m, int32_t vda_chn);

// The solid covers attached to capture channel chn, in its output pixels,
// and the channel's output size.
std::vector<sim_cover> sim_flow_vi_covers(const sim_media& m, int32_t chn);
pic_size_t sim_flow_vi_size(const sim_media& m, int32_t chn);
