// The stream buffer of a simulated encoder channel: a ring of the channel's
// buffer size holding encoded frames until the process gives them back, and
// the channel's select descriptor, readable while a frame waits unread.
//
// The producer puts whole frames (copies of their packs); a frame that does
// not fit in the free room is dropped and counted, as the hardware drops
// pictures when its stream buffer is full. Frames are read in order and
// given back in the order they were read. A pack that crosses the ring's end
// is read as two pieces, the second at the ring's start.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "platform/hi_mpi_venc.h"
#include "platform/sim/ready_fd.h"

// Packs of one frame at most.
inline constexpr size_t SIM_VENC_MAX_PACKS = 8;

// One pack as the producer hands it in: its bytes and NAL type.
struct sim_pack_in {
    std::span<const uint8_t> part[2];  // concatenated; the second may be empty
    int32_t type;
};

class sim_venc_ring {
public:
    explicit sim_venc_ring(uint32_t size);
    sim_venc_ring(const sim_venc_ring&) = delete;
    sim_venc_ring& operator=(const sim_venc_ring&) = delete;

    // The select descriptor; -1 when none could be made.
    int fd() const { return ready_.fd(); }
    uint32_t size() const { return static_cast<uint32_t>(buf_.size()); }

    // Copies one frame in. false when it has no room (the frame is dropped
    // and counted), and for every frame after a drop up to the next IDR
    // picture (one whose first pack is the SPS).
    bool put(std::span<const sim_pack_in> packs, uint64_t pts, uint32_t seq);

    // Status as the channel query reports it.
    venc_chn_stat_t stat() const;

    // The next unread frame into the caller's packs. 0, or the error code:
    // HI_ERR_BUF_EMPTY (non-blocking, nothing waits, or the ring was closed
    // while waiting), HI_ERR_ILLEGAL_PARAM (too few pack records).
    uint32_t get(venc_stream_t* stream, bool block);
    // Gives back the oldest frame read; it must be the one stream describes.
    uint32_t release(const venc_stream_t* stream);

    // Wakes every blocked reader with HI_ERR_BUF_EMPTY; for destruction.
    void close();
    // Frames still in the ring (read or not) are thrown away.
    void clear();

    // Frames handed to put (every access unit the channel produced) and
    // those of them dropped.
    uint64_t produced() const { return produced_.load(std::memory_order_relaxed); }
    uint64_t dropped() const { return dropped_.load(std::memory_order_relaxed); }

private:
    struct pack_pos {
        uint32_t off;  // from the ring's start
        uint32_t len;
        int32_t type;
    };
    struct frame {
        uint32_t off;  // first byte
        uint32_t len;  // all packs
        uint64_t pts;
        uint32_t seq;
        uint32_t pack_count;
        std::array<pack_pos, SIM_VENC_MAX_PACKS> packs;
    };

    void signal_locked();

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<uint8_t> buf_;
    std::deque<frame> frames_;   // oldest first
    size_t read_ = 0;            // frames_[0 .. read_) are out with the reader
    uint32_t head_ = 0;          // where the next frame goes
    uint32_t used_ = 0;
    bool closed_ = false;
    bool resync_ = false;        // a picture was dropped: wait for an IDR picture
    sim_ready_fd ready_;
    std::atomic<uint64_t> produced_{0};
    std::atomic<uint64_t> dropped_{0};
};
