// The motion reports of a recording: one line per report in a log file
// (when the report arrived, which slave and camera, how many cells moved
// and which), and per camera a heat map of how often each cell moved over
// the run, drawn as a PNG picture.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace tmaster {

struct notification;

inline constexpr int MOTION_COLS = 32;  // cells per row
inline constexpr int MOTION_ROWS = 18;  // rows of cells

// How often each cell of one camera moved, and out of how many reports.
struct motion_heat {
    std::array<uint32_t, MOTION_COLS * MOTION_ROWS> moved{};  // row after row
    uint64_t reports = 0;
};

class motion_log {
public:
    // Log lines go to path (created anew); an empty path keeps no log.
    int open(const std::string& path, std::string* err);
    // Takes a motion notification; other notifications are ignored.
    void take(const notification& n);
    void close();

    uint64_t reports() const;
    // Heat maps by (chip, camera).
    std::map<std::pair<int, int>, motion_heat> heat() const;
    // Writes <out>/slave<chip>/cam<NN>-motion.png for every camera that
    // reported; returns the files written (relative to out).
    std::vector<std::string> write_heat_maps(const std::string& out, std::string* err) const;

private:
    struct closer {
        void operator()(FILE* f) const { std::fclose(f); }
    };
    mutable std::mutex mu_;
    std::unique_ptr<FILE, closer> f_;
    std::chrono::steady_clock::time_point t0_ = std::chrono::steady_clock::now();
    std::map<std::pair<int, int>, motion_heat> heat_;
    uint64_t reports_ = 0;
};

// Draws a heat map as a 512 x 288 RGB PNG (16 x 16 pixels per cell; dark
// blue for never, through red, to white for every report). 0, or -1.
int write_heat_png(const std::string& path, const motion_heat& h, std::string* err);

}  // namespace tmaster
