// Solid cover regions painted into pictures: a cover is a rectangle in the
// pixels of the capture channel it is attached to, in one colour; every
// picture taken from that channel shows it, at whatever size the picture
// is scaled to.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/sim/scene.h"

struct sim_cover {
    int x, y, width, height;  // in the channel's pixels
    uint32_t color;           // 0xRRGGBB
    int layer;

    auto operator<=>(const sim_cover&) const = default;
};

// The luma of a colour (BT.601, studio range): black is 16.
uint8_t sim_cover_luma(uint32_t rgb);
// Chroma (cb, cr) of a colour.
void sim_cover_chroma(uint32_t rgb, uint8_t* cb, uint8_t* cr);

// Paints covers given on a channel of chn_w x chn_h into a luma plane of
// w x h (scaled to it; lower layers first).
void sim_cover_paint_luma(std::span<const sim_cover> covers, int chn_w, int chn_h, uint8_t* y, int w, int h,
                          int stride);

// A digest of a channel's covers as they look on a picture of w x h: 0 for
// none. Loops of encoded streams carry it in their key.
uint32_t sim_cover_digest(std::span<const sim_cover> covers, int chn_w, int chn_h, int w, int h);

// Covers scaled from a channel of chn_w x chn_h to a picture of w x h,
// clipped to it, lower layers first.
std::vector<sim_cover> sim_cover_scaled(std::span<const sim_cover> covers, int chn_w, int chn_h, int w, int h);

// Paints covers already scaled to pic's size into it, luma and chroma.
void sim_cover_paint(std::span<const sim_cover> scaled, const sim_picture& pic);
