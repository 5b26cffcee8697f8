// Parsing of what a slave hands the master: notification payloads and the
// window contents they name. Nothing is trusted: every count, length and
// offset is checked against the window and the record's own bounds before
// it is used. A batch whose frame index cannot be trusted is rejected whole;
// a single frame that points outside its data is skipped; values that are
// merely odd (a day of the month of 0, a wrong constant) are reported and
// the frame kept.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "master/wire.h"

namespace tmaster {

// The four windows of one slave, as the master sees them in chip 0's memory.
using window_set = std::array<std::span<const uint8_t>, NUM_WINDOWS>;

// What was wrong with one notification.
struct findings {
    std::vector<std::string> problems;
    bool rejected = false;  // nothing of the batch was used

    bool bad() const { return !problems.empty(); }
    void add(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void reject(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
};

struct record_frame {
    mmd_t entry;      // as written; entry.data is the offset in the data area
    uint32_t time;    // seconds since the epoch
    uint8_t mday;
    uint8_t attr;
    uint32_t offset;  // of the frame bytes, from the start of the window
};

struct record_batch {
    record_note_t note{};
    int32_t num_mmd = 0;
    int32_t buf_off = 0;
    int32_t buf_size = 0;
    std::vector<record_frame> frames;
    findings check;
};

struct network_frame {
    int stream;        // low 8 bits of the stream number
    nbuf_desc_t desc;
    uint32_t offset;   // of the frame bytes in the window
};

struct network_batch {
    uint32_t window = 0;
    uint32_t bytes = 0;
    uint32_t count = 0;
    std::vector<network_frame> frames;
    findings check;
};

struct jpeg_picture {
    uint32_t stream;
    jpg_desc_t desc;  // desc.data is the picture's offset in the window
};

struct jpeg_batch {
    uint32_t window = 0;
    uint32_t bytes = 0;
    uint32_t count = 0;
    std::vector<jpeg_picture> pictures;
    findings check;
};

struct motion_report {
    motion_note_t note{};
    int moved_cells = 0;
    findings check;
};

// Window a slave uses for each kind (its base index being 0).
inline constexpr uint32_t JPEG_WINDOW = 0;
inline constexpr uint32_t RECORD_WINDOW = 1;
inline constexpr uint32_t NETWORK_WINDOW = 2;

record_batch parse_record(std::span<const uint8_t> payload, const window_set& windows);
network_batch parse_network(std::span<const uint8_t> payload, const window_set& windows);
jpeg_batch parse_jpeg(std::span<const uint8_t> payload, const window_set& windows);
motion_report parse_motion(std::span<const uint8_t> payload);

// The bytes a notification says were written: the front of the named window,
// clipped to the window; empty when the index names no window.
std::span<const uint8_t> written_bytes(const window_set& windows, uint32_t window, uint32_t bytes);

}  // namespace tmaster
