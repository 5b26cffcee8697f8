// The H.264 decoder behind the simulated decoder channels (OpenH264 on the
// host). Builds without it (the ARM cross build) count one picture per
// access unit without decoding; their pictures have no size.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

// Whether this build really decodes.
bool sim_h264_decoder_available();

struct sim_h264_picture {
    uint32_t width;
    uint32_t height;
};

class sim_h264_decoder {
public:
    virtual ~sim_h264_decoder() = default;
    // Decodes one whole access unit; true with the picture it completes,
    // false when it completes none (not decodable, or no reference yet).
    virtual bool decode(std::span<const uint8_t> au, sim_h264_picture* pic) = 0;
};

// A decoder with no stream behind it; NULL when one cannot be made.
std::unique_ptr<sim_h264_decoder> sim_h264_decoder_new();
