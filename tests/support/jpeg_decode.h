// Test support: the luma plane of a JPEG picture, decoded with libjpeg-turbo
// (host builds of the simulated board only, where TARVO_SIM_LIBJPEG is
// defined), and measurements on it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#ifdef TARVO_SIM_LIBJPEG

struct luma_picture {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> y;  // row after row, width bytes each

    uint8_t at(int x, int y0) const { return y[static_cast<size_t>(y0) * width + x]; }
    // Mean luma of the pixels x0 <= x < x1, y0 <= y < y1 (clipped to the
    // picture); -1 when nothing is left.
    double mean(int x0, int y0, int x1, int y1) const;
};

// Decodes a JPEG picture to its luma plane. false (and *out untouched) when
// libjpeg cannot read the bytes.
bool decode_jpeg_luma(std::span<const uint8_t> jpeg, luma_picture* out);

#endif
