// Encoded scene loops: a camera's test scene encoded once per channel
// configuration as a loop of whole GOPs (about 4 s, the bar's sweep), which
// the simulated encoder replays. Loops are cached as files under the
// board's cache/ directory, named by their key, and shared by the board's
// slaves; a file is written under a temporary name and renamed, so a
// reader never sees half of one.
//
// Encoding needs OpenH264, which only the host build has; elsewhere no loop
// can be made and sim_h264_loop_make answers nullptr.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/sim/board_conf.h"
#include "platform/sim/cover_paint.h"

// What a loop depends on.
struct sim_loop_key {
    int camera = 0;  // recorder-wide
    sim_scene scene = sim_scene::moving;
    bool textured = false;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t gop = 0;
    uint32_t kbps = 0;
    uint32_t mfps = 0;    // frame rate in 1/1000 frames per second
    uint32_t covers = 0;  // digest of the camera's cover regions, 0 for none
    std::vector<sim_cover> cover_rects;  // those covers at the loop's picture size

    bool operator==(const sim_loop_key&) const = default;
    // The cache file's name.
    std::string file_name() const;
};

// One access unit: the parameter sets (IDR pictures only; length 0
// otherwise) and the slice, each an Annex B NAL unit with its start code
// (the slice pack may end with a filler-data NAL unit that holds the bit
// rate). Offsets are into the loop's data.
struct sim_loop_au {
    enum part { SPS, PPS, SLICE, PARTS };
    uint8_t idr;
    uint8_t pad[3];
    std::array<uint32_t, PARTS> off;
    std::array<uint32_t, PARTS> len;
};
static_assert(sizeof(sim_loop_au) == 28);

struct sim_h264_loop {
    sim_loop_key key;
    std::vector<sim_loop_au> aus;  // the first is an IDR picture
    std::vector<uint8_t> data;
};

// How a loop was obtained.
struct sim_loop_made {
    bool from_cache = false;
    int64_t encode_us = 0;  // time spent encoding (0 from the cache)
};

// The loop for key, read from cache_dir when there, else encoded and stored
// there. nullptr when it cannot be made.
std::shared_ptr<const sim_h264_loop> sim_h264_loop_make(const sim_loop_key& key, const std::string& cache_dir,
                                                        sim_loop_made* made);

// Frames in the loop of key: whole GOPs covering the bar's 4 s sweep.
uint32_t sim_loop_frames(const sim_loop_key& key);
