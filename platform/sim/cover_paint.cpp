// Painting solid cover regions into pictures.
#include "platform/sim/cover_paint.h"

#include <algorithm>
#include <cstring>

uint8_t sim_cover_luma(uint32_t rgb)
{
    const int r = (rgb >> 16) & 0xFF, g = (rgb >> 8) & 0xFF, b = rgb & 0xFF;
    return static_cast<uint8_t>(16 + (66 * r + 129 * g + 25 * b + 128) / 256);
}

void sim_cover_chroma(uint32_t rgb, uint8_t* cb, uint8_t* cr)
{
    const int r = (rgb >> 16) & 0xFF, g = (rgb >> 8) & 0xFF, b = rgb & 0xFF;
    *cb = static_cast<uint8_t>(128 + (-38 * r - 74 * g + 112 * b + 128) / 256);
    *cr = static_cast<uint8_t>(128 + (112 * r - 94 * g - 18 * b + 128) / 256);
}

std::vector<sim_cover> sim_cover_scaled(std::span<const sim_cover> covers, int chn_w, int chn_h, int w, int h)
{
    std::vector<sim_cover> out;
    if (chn_w <= 0 || chn_h <= 0)
        return out;
    for (const sim_cover& c : covers) {
        // Scaled edges, rounded outward so a cover never shrinks to nothing
        // while the channel's one is visible.
        const int64_t x0 = int64_t{c.x} * w / chn_w, y0 = int64_t{c.y} * h / chn_h;
        const int64_t x1 = (int64_t{c.x} + c.width) * w + chn_w - 1, y1 = (int64_t{c.y} + c.height) * h + chn_h - 1;
        sim_cover s = c;
        s.x = static_cast<int>(std::clamp<int64_t>(x0, 0, w));
        s.y = static_cast<int>(std::clamp<int64_t>(y0, 0, h));
        s.width = static_cast<int>(std::clamp<int64_t>(x1 / chn_w, 0, w)) - s.x;
        s.height = static_cast<int>(std::clamp<int64_t>(y1 / chn_h, 0, h)) - s.y;
        if (c.width > 0 && c.height > 0 && s.width > 0 && s.height > 0)
            out.push_back(s);
    }
    std::stable_sort(out.begin(), out.end(), [](const sim_cover& a, const sim_cover& b) { return a.layer < b.layer; });
    return out;
}

void sim_cover_paint_luma(std::span<const sim_cover> covers, int chn_w, int chn_h, uint8_t* y, int w, int h,
                          int stride)
{
    for (const sim_cover& c : sim_cover_scaled(covers, chn_w, chn_h, w, h)) {
        const uint8_t luma = sim_cover_luma(c.color);
        for (int row = c.y; row < c.y + c.height; ++row)
            std::memset(y + static_cast<ptrdiff_t>(row) * stride + c.x, luma, static_cast<size_t>(c.width));
    }
}

uint32_t sim_cover_digest(std::span<const sim_cover> covers, int chn_w, int chn_h, int w, int h)
{
    std::vector<sim_cover> s = sim_cover_scaled(covers, chn_w, chn_h, w, h);
    if (s.empty())
        return 0;
    // FNV-1a over what the picture shows.
    uint32_t d = 2166136261u;
    auto mix = [&d](uint32_t v) {
        for (int i = 0; i < 4; ++i) {
            d ^= (v >> (8 * i)) & 0xFF;
            d *= 16777619u;
        }
    };
    for (const sim_cover& c : s) {
        mix(static_cast<uint32_t>(c.x));
        mix(static_cast<uint32_t>(c.y));
        mix(static_cast<uint32_t>(c.width));
        mix(static_cast<uint32_t>(c.height));
        mix(c.color);
    }
    return d == 0 ? 1 : d;
}

void sim_cover_paint(std::span<const sim_cover> scaled, const sim_picture& pic)
{
    for (const sim_cover& c : scaled) {
        const int x0 = std::clamp(c.x, 0, pic.width), x1 = std::clamp(c.x + c.width, x0, pic.width);
        const int y0 = std::clamp(c.y, 0, pic.height), y1 = std::clamp(c.y + c.height, y0, pic.height);
        const uint8_t luma = sim_cover_luma(c.color);
        for (int y = y0; y < y1; ++y)
            std::memset(pic.y + static_cast<ptrdiff_t>(y) * pic.y_stride + x0, luma, static_cast<size_t>(x1 - x0));
        uint8_t cb, cr;
        sim_cover_chroma(c.color, &cb, &cr);
        for (int y = y0 / 2; y < (y1 + 1) / 2; ++y)
            for (int x = x0 / 2; x < (x1 + 1) / 2; ++x) {
                pic.cb[static_cast<ptrdiff_t>(y) * pic.c_stride + x * pic.c_step] = cb;
                pic.cr[static_cast<ptrdiff_t>(y) * pic.c_stride + x * pic.c_step] = cr;
            }
    }
}
