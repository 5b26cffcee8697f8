// Window contents written the way a slave's transfers leave them, for the
// master emulator's tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "master/h264.h"
#include "master/wire.h"

namespace mtest {

using namespace tmaster;

template <typename T>
std::span<const uint8_t> bytes_of(const T& v)
{
    return {reinterpret_cast<const uint8_t*>(&v), sizeof(T)};
}

struct crafted_frame {
    uint8_t cam;
    uint8_t idx;
    uint8_t low;
    uint32_t time;
    uint32_t len;
};

// Writes a record buffer into `w`: the header, then the frames' bytes back to
// back, each entry's data field being its offset in the data area. Frame k's
// bytes are (k * 7 + i) & 0xff. Returns the bytes written.
inline uint32_t write_record(std::span<uint8_t> w, const std::vector<crafted_frame>& frames)
{
    ebuf_head_t h{};
    uint32_t off = 0;
    for (size_t k = 0; k < frames.size(); ++k) {
        const crafted_frame& f = frames[k];
        mmd_t& e = h.mmd[k];
        e.cam = f.cam;
        e.frame_idx = f.idx;
        e.low = f.low;
        e.const12 = 2;
        e.const13 = 2;
        e.data = off;
        e.len = f.len;
        h.mmd_time[k] = f.time;
        h.mmd_mday[k] = 14;
        h.mmd_attr[k] = static_cast<uint8_t>(0x40 + k);
        for (uint32_t i = 0; i < f.len; ++i)
            w[EBUF_HEAD_SIZE + off + i] = static_cast<uint8_t>((k * 7 + i) & 0xff);
        off += f.len;
    }
    h.num_mmd = static_cast<int32_t>(frames.size());
    h.buf_off = static_cast<int32_t>(off);
    h.buf_size = 0x100000;
    std::memcpy(w.data(), &h, sizeof(h));
    return EBUF_HEAD_SIZE + off;
}

// A frame of 14 May with the constant bytes 1 and 2; its data field is the
// slave's own address, which the master must not use.
inline nbuf_desc_t net_desc(uint32_t len, uint32_t msec, uint8_t fps = 30)
{
    return {2024, 5, 14, msec, 0, 0, 704, 576, fps, 1, 2, 0, len, 0xdeadbeef};
}

// Writes each descriptor followed by its frame's bytes (zeros).
inline uint32_t write_network(std::span<uint8_t> w, const std::vector<nbuf_desc_t>& descs)
{
    uint32_t off = 0;
    for (const nbuf_desc_t& d : descs) {
        std::memcpy(w.data() + off, &d, sizeof(d));
        off += sizeof(d) + d.len;
    }
    return off;
}

inline network_note_t net_note(uint32_t bytes, const std::vector<uint8_t>& streams)
{
    network_note_t n{2, bytes, static_cast<uint32_t>(streams.size()), {}};
    std::copy(streams.begin(), streams.end(), n.stream);
    return n;
}

// Inserts emulation-prevention bytes as an encoder does.
inline std::vector<uint8_t> escape(const std::vector<uint8_t>& rbsp)
{
    std::vector<uint8_t> out;
    int zeros = 0;
    for (uint8_t b : rbsp) {
        if (zeros >= 2 && b <= 3) {
            out.push_back(3);
            zeros = 0;
        }
        out.push_back(b);
        zeros = b == 0 ? zeros + 1 : 0;
    }
    return out;
}

template <typename T>
void put(std::vector<uint8_t>& v, T x)
{
    const auto* p = reinterpret_cast<const uint8_t*>(&x);
    v.insert(v.end(), p, p + sizeof(T));
}

inline std::vector<uint8_t> sei_nal(uint32_t cam, uint32_t chn, uint32_t seq, uint64_t pts)
{
    std::vector<uint8_t> rbsp = {5, 36};
    rbsp.insert(rbsp.end(), FRAME_SEI_UUID, FRAME_SEI_UUID + 16);
    put(rbsp, cam);
    put(rbsp, chn);
    put(rbsp, seq);
    put(rbsp, pts);
    rbsp.push_back(0x80);
    std::vector<uint8_t> nal = {0x06};
    std::vector<uint8_t> e = escape(rbsp);
    nal.insert(nal.end(), e.begin(), e.end());
    return nal;
}

// One access unit as the board's encoder makes it: SPS, PPS, SEI, slice for
// a key frame; SEI, slice otherwise. Its time stamp is pts, or when 0 one
// frame period per seq from a fixed second.
inline std::vector<uint8_t> access_unit(uint32_t cam, uint32_t chn, uint32_t seq, bool key, size_t slice = 64,
                                        uint64_t pts = 0)
{
    std::vector<uint8_t> au;
    auto nal = [&](const std::vector<uint8_t>& n, bool four) {
        au.insert(au.end(), {0, 0});
        if (four)
            au.push_back(0);
        au.push_back(1);
        au.insert(au.end(), n.begin(), n.end());
    };
    if (key) {
        nal({0x67, 0x42, 0x00, 0x1f, 0xe9}, true);
        nal({0x68, 0xce, 0x3c, 0x80}, true);
    }
    nal(sei_nal(cam, chn, seq, pts != 0 ? pts : 1000000ull * 1700000000 + seq * 33333ull), !key);
    std::vector<uint8_t> s(slice, 0x5a);
    s[0] = key ? 0x65 : 0x41;
    nal(s, false);
    return au;
}

}  // namespace mtest
