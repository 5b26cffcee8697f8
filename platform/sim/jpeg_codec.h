// The JPEG encoder behind the simulated JPEG channels (libjpeg-turbo on the
// host). The build for 32-bit ARM has none: there every picture is one
// fixed 16 × 16 grey baseline JPEG.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/sim/scene.h"

// Encodes a planar 4:2:0 picture (c_step 1) as a baseline JPEG at quality
// 1 .. 99 into out. false when it cannot.
bool sim_jpeg_encode(const sim_picture& pic, int quality, std::vector<uint8_t>* out);
