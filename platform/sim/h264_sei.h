// The SEI NAL unit a simulated encoder writes into every access unit: one
// user_data_unregistered message (payload type 5, 36 bytes) whose 16-byte
// identifier is "tarvo-sim-frame1", followed by the recorder-wide camera,
// the encoder channel, the channel's sequence number (u32 each) and the
// pack's time stamp in microseconds (u64), all little-endian. The NAL unit
// carries emulation-prevention bytes and starts with a 4-byte start code.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

inline constexpr char SIM_SEI_UUID[17] = "tarvo-sim-frame1";
inline constexpr size_t SIM_SEI_PAYLOAD = 36;
// Start code, header, then type, size, payload and trailing bits: the length
// without escapes, and at most (an escape after every two of those bytes).
inline constexpr size_t SIM_SEI_PLAIN = 4 + 1 + 2 + SIM_SEI_PAYLOAD + 1;
inline constexpr size_t SIM_SEI_MAX = 4 + 1 + (2 + SIM_SEI_PAYLOAD + 1) * 3 / 2 + 1;

struct sim_sei {
    uint32_t camera;
    uint32_t chn;
    uint32_t seq;
    uint64_t pts;
};

// Writes the NAL unit into out; returns its length.
size_t sim_sei_write(const sim_sei& sei, std::array<uint8_t, SIM_SEI_MAX>& out);

// The fields of the first such SEI in an Annex B byte stream (an access unit
// or a pack), if any.
std::optional<sim_sei> sim_sei_find(std::span<const uint8_t> stream);
