// The simulated encoder's producer: one thread ("sim_venc") that, at each
// receiving H.264 channel's rate, copies the next access unit of the
// channel's scene loop into its stream buffer with a live SEI and the
// platform clock's time stamp; and one thread ("sim_venc_loop") that makes
// the loops (from the board's cache, or by encoding) off the producer's
// path. A channel whose loop is not ready yet produces nothing.
#pragma once

#include <cstdint>
#include <string>

// Started by the media core's open and stopped by its close, before the
// core's state goes.
int sim_venc_producer_open(std::string* err);
void sim_venc_producer_close();

// Whether channel chn produces access units now (receiving, a live source
// and its loop ready).
bool sim_venc_producing(int32_t chn);

// Loops made since the board opened: encoded, and read from the cache.
struct sim_venc_loop_counts {
    uint32_t encoded;
    uint32_t cached;
};
sim_venc_loop_counts sim_venc_loops_made();
