// Reading the H.264 access units a slave delivers (Annex B byte streams):
// the NAL units they hold and the frame SEI the simulated board's encoder
// writes into every access unit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace tmaster {

inline constexpr int NAL_SEI = 6;
inline constexpr int NAL_SPS = 7;

// Calls fn(nal) for each NAL unit of an Annex B byte stream, in order, until
// fn returns false. nal starts with the NAL header byte, start code and
// trailing zero bytes removed.
template <typename F>
void for_each_nal(std::span<const uint8_t> au, F fn);

// Type of the first NAL unit of an access unit, or -1 when it has none.
int first_nal_type(std::span<const uint8_t> au);

// Removes H.264's emulation-prevention bytes (the 03 of 00 00 03) from `in`
// into `out`; returns the bytes written, at most out.size().
size_t unescape_rbsp(std::span<const uint8_t> in, std::span<uint8_t> out);

// The frame SEI: one user_data_unregistered message (payload type 5, size
// 36) holding the 16 bytes "tarvo-sim-frame1" and five little-endian fields.
struct frame_sei {
    uint32_t camera;  // recorder-wide camera number
    uint32_t chn;     // encoder channel
    uint32_t seq;     // 0 for the channel's first access unit after a start
    uint64_t pts;     // microseconds
};

inline constexpr char FRAME_SEI_UUID[] = "tarvo-sim-frame1";
inline constexpr size_t FRAME_SEI_SIZE = 36;

// The frame SEI of one SEI NAL unit (header byte first), or nullopt.
std::optional<frame_sei> parse_frame_sei(std::span<const uint8_t> nal);
// The frame SEI of an access unit: its first SEI NAL unit that holds one.
std::optional<frame_sei> find_frame_sei(std::span<const uint8_t> au);

// ---- inline ------------------------------------------------------------------

namespace detail {
// Offset of the next start code (00 00 01) at or after `from`, or the size.
inline size_t next_start(std::span<const uint8_t> b, size_t from)
{
    for (size_t i = from; i + 2 < b.size(); ++i) {
        if (b[i + 2] > 1) {
            i += 2;  // no start code can begin before i + 3
            continue;
        }
        if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1)
            return i;
    }
    return b.size();
}
}  // namespace detail

template <typename F>
void for_each_nal(std::span<const uint8_t> au, F fn)
{
    size_t s = detail::next_start(au, 0);
    while (s < au.size()) {
        size_t begin = s + 3;
        size_t next = detail::next_start(au, begin);
        size_t end = next;
        while (end > begin && au[end - 1] == 0)
            --end;  // trailing zeros and the first zero of a 4-byte start code
        if (end > begin && !fn(au.subspan(begin, end - begin)))
            return;
        s = next;
    }
}

}  // namespace tmaster
