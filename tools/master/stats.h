// Statistics the master keeps per slave and per stream.
//
// Streams: a record stream is a camera's main or low recording stream (the
// frame entry's `cam` and `low`); a network or snapshot stream is the stream
// number the notification carries.
//
// Gaps, counted per stream between two frames in arrival order:
//  - record: a frame's (second, index) should follow the previous one as
//    (same second, index + 1) or (next second, index 0); any other step,
//    backwards included, is one gap (a lost frame, a lost second, a reorder);
//  - network: within one day of the month the frame's millisecond should
//    advance by more than 0 and at most two frame periods (1000 / fps ms;
//    1000 ms when fps is 0); any other step is one gap; a change of the day
//    starts the stream afresh;
//  - snapshot: a picture more than 2 s after the previous one, or before it,
//    is one gap (snapshots come about once per second).
// A bad record (one that had findings) is counted once, whatever it had.
#pragma once

#include <compare>
#include <cstdint>
#include <deque>
#include <map>
#include <string>

#include "master/parse.h"

namespace tmaster {

enum class stream_kind : uint8_t { record, network, jpeg };

struct stream_id {
    stream_kind kind;
    int number;  // camera for records, stream number otherwise
    int low;     // records: 1 for the low stream
    auto operator<=>(const stream_id&) const = default;
};

struct stream_stats {
    uint64_t frames = 0;
    uint64_t bytes = 0;
    uint64_t key_frames = 0;
    uint64_t gaps = 0;
    uint16_t width = 0;   // of the last frame
    uint16_t height = 0;
    uint8_t fps = 0;
    // Position of the last frame, for the gap rule of its kind.
    bool seen = false;
    uint32_t last_sec = 0;
    uint32_t last_idx = 0;
    uint32_t last_day = 0;
    uint32_t last_msec = 0;
};

struct kind_stats {
    uint64_t notes = 0;   // notifications
    uint64_t frames = 0;  // frames or pictures taken from them
    uint64_t bytes = 0;   // window bytes of the accepted notifications
    uint64_t bad = 0;     // notifications with findings
    uint64_t rejected = 0;
};

struct slave_stats {
    kind_stats record;
    kind_stats network;
    kind_stats jpeg;
    kind_stats motion;
    uint64_t moved_cells = 0;
    std::map<uint32_t, uint64_t> motion_by_cam;  // reports per camera
    std::map<stream_id, stream_stats> streams;
    std::deque<std::string> last_bad;  // descriptions of the latest bad records
    uint64_t other_bad = 0;            // messages that were no notification at all

    void note_bad(std::string text);
};

inline constexpr size_t STATS_BAD_KEPT = 16;

void account(slave_stats& s, const record_batch& b);
void account(slave_stats& s, const network_batch& b);
void account(slave_stats& s, const jpeg_batch& b);
void account(slave_stats& s, const motion_report& m);

}  // namespace tmaster
