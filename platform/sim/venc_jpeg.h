// The simulated JPEG channels' producer: one thread ("sim_venc_jpeg") that
// gives each receiving JPEG channel with a live source a real baseline JPEG
// of its source's current picture, with the covers of the capture channel
// painted in, at the channel's size and quality factor.
//
// A channel's first picture comes one source picture after it starts
// receiving, the next ones at its group's target rate. A JPEG channel
// holds at most one unread picture: while one waits, none is encoded, so a
// picture costs the host only when the process will read it.
#pragma once

#include <cstdint>
#include <string>

int sim_venc_jpeg_open(std::string* err);
void sim_venc_jpeg_close();

// Pictures encoded since the board opened.
uint64_t sim_venc_jpeg_pictures();
