// The test scene of the simulated cameras.
#include "platform/sim/scene.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>

namespace {

// Block digits, 5 columns by 7 rows, one bit per column (bit 4 leftmost).
constexpr uint8_t k_digits[10][7] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
};

constexpr uint8_t k_digit_luma = SIM_SCENE_LUMA_MAX;

// Background luma: a soft diagonal ramp, 56 .. 120.
uint8_t background(int x, int y, int w, int h)
{
    int ramp = (x * 32 / std::max(w, 1)) + (y * 32 / std::max(h, 1));
    return static_cast<uint8_t>(56 + ramp);
}

// Whether (x, y) lies on a stroke of the number, drawn in the upper left
// quarter: digits of 6 x 9 cells (a blank column and a margin row), as large
// as the quarter allows.
bool on_number(const std::string& text, int x, int y, int w, int h)
{
    int n = static_cast<int>(text.size());
    int cell = std::max(1, std::min(w / 2 / (6 * n + 1), h / 2 / 9));
    int cx = x / cell - 1, cy = y / cell - 1;
    if (cx < 0 || cy < 0 || cy >= 7 || cx >= 6 * n)
        return false;
    int col = cx % 6;
    if (col == 5)
        return false;
    uint8_t row = k_digits[text[cx / 6] - '0'][cy];
    return (row >> (4 - col)) & 1;
}

// A textured background: the ramp at half its slope, 80 .. 112, with a
// fixed pseudo-random grain of +-32 per sample (48 .. 144), the same in
// every picture.
uint8_t textured(int x, int y, int w, int h, int camera)
{
    uint32_t v = static_cast<uint32_t>(x) * 73856093u ^ static_cast<uint32_t>(y) * 19349663u ^
                 static_cast<uint32_t>(camera) * 83492791u;
    v *= 2654435761u;
    const int grain = static_cast<int>((v >> 24) % 65) - 32;
    return static_cast<uint8_t>(80 + (background(x, y, w, h) - 56) / 2 + grain);
}

}  // namespace

int sim_scene_bar_width(int w)
{
    return std::max(1, w / 8);
}

int sim_scene_bar_x(sim_scene kind, int64_t t_us, int w)
{
    int span = w - sim_scene_bar_width(w);
    if (kind != sim_scene::moving)
        return span / 2;
    int64_t phase = ((t_us % SIM_SCENE_SWEEP_US) + SIM_SCENE_SWEEP_US) % SIM_SCENE_SWEEP_US;
    return static_cast<int>(phase * span / SIM_SCENE_SWEEP_US);
}

sim_scene_painter::sim_scene_painter(int camera, sim_scene kind, int width, int height, bool texture)
    : kind_(kind),
      width_(width),
      height_(height),
      // Chroma: a tint of the camera's own, so cameras differ in colour too.
      tint_cb_(static_cast<uint8_t>(112 + (camera * 37) % 32)),
      tint_cr_(static_cast<uint8_t>(112 + (camera * 53) % 32))
{
    if (kind == sim_scene::absent || width <= 0 || height <= 0)
        return;
    const std::string text = std::to_string(std::max(camera, 0));
    luma_.resize(static_cast<size_t>(width) * height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            luma_[static_cast<size_t>(y) * width + x] =
                on_number(text, x, y, width, height) ? k_digit_luma
                                                     : texture ? textured(x, y, width, height, camera)
                                                               : background(x, y, width, height);
}

bool sim_scene_painter::render(int64_t t_us, const sim_picture& pic) const
{
    if (luma_.empty())
        return false;
    const int w = width_, h = height_;
    const int bar_x = sim_scene_bar_x(kind_, t_us, w), bar_w = sim_scene_bar_width(w);
    for (int y = 0; y < h; ++y) {
        uint8_t* row = pic.y + static_cast<std::ptrdiff_t>(y) * pic.y_stride;
        std::memcpy(row, luma_.data() + static_cast<size_t>(y) * w, w);
        std::memset(row + bar_x, SIM_SCENE_BAR_LUMA, bar_w);
    }
    // Neutral chroma on the bar.
    const int c_begin = bar_x / 2, c_end = (bar_x + bar_w + 1) / 2;
    for (int y = 0; y < (h + 1) / 2; ++y) {
        uint8_t* cb = pic.cb + static_cast<std::ptrdiff_t>(y) * pic.c_stride;
        uint8_t* cr = pic.cr + static_cast<std::ptrdiff_t>(y) * pic.c_stride;
        for (int x = 0; x < (w + 1) / 2; ++x) {
            bool bar = x >= c_begin && x < c_end;
            cb[x * pic.c_step] = bar ? 128 : tint_cb_;
            cr[x * pic.c_step] = bar ? 128 : tint_cr_;
        }
    }
    return true;
}

bool sim_scene_render(int camera, sim_scene kind, int64_t t_us, const sim_picture& pic)
{
    return sim_scene_painter(camera, kind, pic.width, pic.height).render(t_us, pic);
}
