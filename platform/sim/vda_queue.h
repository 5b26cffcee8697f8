// The result buffers of a simulated motion-detection channel: results wait
// here until the process reads them, and stay until it gives them back.
// The channel's select descriptor is readable while a result waits unread.
//
// A result that finds every buffer taken (read and not given back, or
// waiting unread) is dropped and counted, as the hardware drops results.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "platform/hi_mpi_vda.h"
#include "platform/sim/ready_fd.h"

class sim_vda_queue {
public:
    // buffers: how many results it holds at once; cells_w x cells_h values
    // per result, in rows of `stride` bytes.
    sim_vda_queue(uint32_t buffers, uint32_t cells_w, uint32_t cells_h);
    sim_vda_queue(const sim_vda_queue&) = delete;
    sim_vda_queue& operator=(const sim_vda_queue&) = delete;

    int fd() const { return ready_.fd(); }
    uint32_t cells_w() const { return cells_w_; }
    uint32_t cells_h() const { return cells_h_; }
    uint32_t stride() const { return stride_; }

    // Takes one result: cells_h rows of stride bytes. false when it was
    // dropped (no free buffer, or closed).
    bool put(std::vector<uint8_t> cells, uint64_t pts);

    // The oldest unread result. 0, or HI_ERR_BUF_EMPTY (non-blocking and
    // nothing waits, or closed while waiting).
    uint32_t get(vda_data_t* data, bool block);
    // Gives back the oldest result read; data must describe it.
    uint32_t release(const vda_data_t* data);

    // Wakes blocked readers; for destruction.
    void close();

    uint64_t results() const { return results_.load(std::memory_order_relaxed); }
    uint64_t dropped() const { return dropped_.load(std::memory_order_relaxed); }

private:
    struct result {
        std::vector<uint8_t> cells;
        uint64_t pts;
        uint32_t seq;
    };
    void signal_locked();

    const uint32_t buffers_, cells_w_, cells_h_, stride_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<result> held_;  // oldest first; [0, read_) are out with the reader
    size_t read_ = 0;
    uint32_t seq_ = 0;
    bool closed_ = false;
    sim_ready_fd ready_;
    std::atomic<uint64_t> results_{0};
    std::atomic<uint64_t> dropped_{0};
};
