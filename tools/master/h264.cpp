#include "master/h264.h"

#include <array>
#include <cstring>

namespace tmaster {

int first_nal_type(std::span<const uint8_t> au)
{
    int type = -1;
    for_each_nal(au, [&](std::span<const uint8_t> nal) {
        type = nal[0] & 0x1f;
        return false;
    });
    return type;
}

size_t unescape_rbsp(std::span<const uint8_t> in, std::span<uint8_t> out)
{
    size_t n = 0;
    int zeros = 0;
    for (size_t i = 0; i < in.size() && n < out.size(); ++i) {
        uint8_t b = in[i];
        if (zeros >= 2 && b == 3) {
            zeros = 0;  // an emulation-prevention byte: dropped
            continue;
        }
        zeros = b == 0 ? zeros + 1 : 0;
        out[n++] = b;
    }
    return n;
}

std::optional<frame_sei> parse_frame_sei(std::span<const uint8_t> nal)
{
    if (nal.size() < 2 || (nal[0] & 0x1f) != NAL_SEI)
        return std::nullopt;
    // The frame SEI is small; a longer SEI is read as far as this holds.
    std::array<uint8_t, 512> rbsp;
    size_t n = unescape_rbsp(nal.subspan(1), rbsp);
    size_t i = 0;
    // sei_message()s until the rbsp trailing bits (a lone 0x80).
    while (i < n && !(rbsp[i] == 0x80 && i + 1 == n)) {
        uint32_t type = 0, size = 0;
        while (i < n && rbsp[i] == 0xff)
            type += rbsp[i++];
        if (i >= n)
            return std::nullopt;
        type += rbsp[i++];
        while (i < n && rbsp[i] == 0xff)
            size += rbsp[i++];
        if (i >= n)
            return std::nullopt;
        size += rbsp[i++];
        if (size > n - i)
            return std::nullopt;
        if (type == 5 && size == FRAME_SEI_SIZE && std::memcmp(&rbsp[i], FRAME_SEI_UUID, 16) == 0) {
            frame_sei s{};
            std::memcpy(&s.camera, &rbsp[i + 16], 4);
            std::memcpy(&s.chn, &rbsp[i + 20], 4);
            std::memcpy(&s.seq, &rbsp[i + 24], 4);
            std::memcpy(&s.pts, &rbsp[i + 28], 8);
            return s;
        }
        i += size;
    }
    return std::nullopt;
}

std::optional<frame_sei> find_frame_sei(std::span<const uint8_t> au)
{
    std::optional<frame_sei> found;
    for_each_nal(au, [&](std::span<const uint8_t> nal) {
        int type = nal[0] & 0x1f;
        if (type == NAL_SEI)
            found = parse_frame_sei(nal);
        // Slices come after the SEI: nothing more to look for.
        return !found && (type < 1 || type > 5);
    });
    return found;
}

}  // namespace tmaster
