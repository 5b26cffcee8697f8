// The motion thread of the simulated board ("sim_vda"): for every receiving
// motion-detection channel with a live source it computes, every
// `interval` pictures of the source, the mean absolute luma difference of
// every cell between that picture and the picture of the previous result,
// and puts the result in the channel's queue. The scene is drawn (at the
// channel's size, with the source channel's covers) only when a result is
// due.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/sim/cover_paint.h"

int sim_vda_motion_open(std::string* err);
void sim_vda_motion_close();

// The cells of one result: for each cell x cell block of two luma planes of
// w x h, the mean absolute difference, clamped to 0 .. 255; cells_w x
// cells_h values in rows of `stride` bytes.
void sim_vda_cells(const uint8_t* cur, const uint8_t* ref, int w, int h, int cell, uint8_t* out, int stride);
