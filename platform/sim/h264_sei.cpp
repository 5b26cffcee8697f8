// The frame-identifying SEI of the simulated encoder.
#include "platform/sim/h264_sei.h"

#include <cstring>
#include <vector>

namespace {

constexpr uint8_t k_nal_sei = 6;
constexpr uint8_t k_user_data_unregistered = 5;

void put_le(uint8_t* p, uint64_t v, int n)
{
    for (int i = 0; i < n; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint64_t get_le(const uint8_t* p, int n)
{
    uint64_t v = 0;
    for (int i = 0; i < n; ++i)
        v |= static_cast<uint64_t>(p[i]) << (8 * i);
    return v;
}

}  // namespace

size_t sim_sei_write(const sim_sei& sei, std::array<uint8_t, SIM_SEI_MAX>& out)
{
    // The message before escaping: type, size, payload, then the RBSP stop bit.
    uint8_t raw[2 + SIM_SEI_PAYLOAD + 1];
    raw[0] = k_user_data_unregistered;
    raw[1] = SIM_SEI_PAYLOAD;
    std::memcpy(raw + 2, SIM_SEI_UUID, 16);
    put_le(raw + 18, sei.camera, 4);
    put_le(raw + 22, sei.chn, 4);
    put_le(raw + 26, sei.seq, 4);
    put_le(raw + 30, sei.pts, 8);
    raw[sizeof raw - 1] = 0x80;

    size_t n = 0;
    for (uint8_t b : {0, 0, 0, 1})
        out[n++] = b;
    out[n++] = k_nal_sei;
    int zeros = 0;
    for (uint8_t b : raw) {
        // Two zero bytes followed by 0 .. 3 would read as a start code.
        if (zeros == 2 && b <= 3) {
            out[n++] = 3;
            zeros = 0;
        }
        out[n++] = b;
        zeros = b == 0 ? zeros + 1 : 0;
    }
    return n;
}

std::optional<sim_sei> sim_sei_find(std::span<const uint8_t> s)
{
    for (size_t i = 0; i + 4 <= s.size(); ++i) {
        if (!(s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) || (s[i + 3] & 0x1F) != k_nal_sei)
            continue;
        // Unescape up to the next start code or the end.
        std::vector<uint8_t> rbsp;
        int zeros = 0;
        for (size_t k = i + 4; k < s.size(); ++k) {
            if (zeros >= 2 && s[k] == 1)
                break;
            if (zeros == 2 && s[k] == 3) {
                zeros = 0;
                continue;
            }
            rbsp.push_back(s[k]);
            zeros = s[k] == 0 ? zeros + 1 : 0;
        }
        if (rbsp.size() < 2 + SIM_SEI_PAYLOAD || rbsp[0] != k_user_data_unregistered || rbsp[1] != SIM_SEI_PAYLOAD ||
            std::memcmp(rbsp.data() + 2, SIM_SEI_UUID, 16) != 0)
            continue;
        const uint8_t* p = rbsp.data() + 18;
        return sim_sei{static_cast<uint32_t>(get_le(p, 4)), static_cast<uint32_t>(get_le(p + 4, 4)),
                       static_cast<uint32_t>(get_le(p + 8, 4)), get_le(p + 12, 8)};
    }
    return std::nullopt;
}
