// The H.264 encoder behind the scene loops (OpenH264 on the host).
#pragma once

#include "platform/sim/h264_loop.h"

// Whether this build can encode.
bool sim_h264_codec_available();

// Encodes key's loop: sim_loop_frames(key) pictures of the camera's scene,
// an IDR picture every GOP, at the key's bit rate (filler data makes up
// what the encoder leaves short). false when it cannot.
bool sim_h264_encode(const sim_loop_key& key, sim_h264_loop* loop);
