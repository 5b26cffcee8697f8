// Motion reports: the log and the heat maps.
#include "master/motion.h"

#include <png.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "master/master.h"

namespace tmaster {

int motion_log::open(const std::string& path, std::string* err)
{
    std::lock_guard lk(mu_);
    t0_ = std::chrono::steady_clock::now();
    if (path.empty())
        return 0;
    f_.reset(std::fopen(path.c_str(), "w"));
    if (f_ == nullptr) {
        *err = path + ": " + std::strerror(errno);
        return -1;
    }
    std::fprintf(f_.get(), "# seconds chip camera moved rows(0..17, hex: bit k = cell k moved)\n");
    return 0;
}

void motion_log::take(const notification& n)
{
    const auto* m = std::get_if<motion_report>(&n.parsed);
    if (n.kind != note_kind::motion || m == nullptr || m->check.rejected)
        return;
    const double t = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0_).count();
    std::lock_guard lk(mu_);
    ++reports_;
    motion_heat& h = heat_[{n.chip, static_cast<int>(m->note.cam)}];
    ++h.reports;
    for (int r = 0; r < MOTION_ROWS; ++r)
        for (int k = 0; k < MOTION_COLS; ++k)
            if ((m->note.rows[r] >> k) & 1u)
                ++h.moved[r * MOTION_COLS + k];
    if (f_ == nullptr)
        return;
    std::fprintf(f_.get(), "%.3f %d %u %d", t, n.chip, m->note.cam, m->moved_cells);
    for (int r = 0; r < MOTION_ROWS; ++r)
        std::fprintf(f_.get(), " %08x", m->note.rows[r]);
    std::fputc('\n', f_.get());
}

void motion_log::close()
{
    std::lock_guard lk(mu_);
    f_.reset();
}

uint64_t motion_log::reports() const
{
    std::lock_guard lk(mu_);
    return reports_;
}

std::map<std::pair<int, int>, motion_heat> motion_log::heat() const
{
    std::lock_guard lk(mu_);
    return heat_;
}

std::vector<std::string> motion_log::write_heat_maps(const std::string& out, std::string* err) const
{
    std::vector<std::string> files;
    for (const auto& [key, h] : heat()) {
        char rel[64];
        std::snprintf(rel, sizeof(rel), "slave%d/cam%02d-motion.png", key.first, key.second);
        ::mkdir((out + "/slave" + std::to_string(key.first)).c_str(), 0755);
        if (write_heat_png(out + "/" + rel, h, err) == 0)
            files.emplace_back(rel);
    }
    return files;
}

namespace {

// never .. always: dark blue, red, yellow, white.
void heat_colour(double v, uint8_t rgb[3])
{
    static constexpr double k_stops[4][3] = {{16, 16, 64}, {220, 30, 20}, {250, 220, 40}, {255, 255, 255}};
    v = std::clamp(v, 0.0, 1.0) * 3;
    const int i = std::min(2, static_cast<int>(v));
    const double f = v - i;
    for (int c = 0; c < 3; ++c)
        rgb[c] = static_cast<uint8_t>(k_stops[i][c] + (k_stops[i + 1][c] - k_stops[i][c]) * f + 0.5);
}

struct png_closer {
    void operator()(FILE* f) const { std::fclose(f); }
};

}  // namespace

int write_heat_png(const std::string& path, const motion_heat& h, std::string* err)
{
    constexpr int cell = 16, w = MOTION_COLS * cell, hgt = MOTION_ROWS * cell;
    std::vector<uint8_t> pixels(static_cast<size_t>(w) * hgt * 3);
    for (int y = 0; y < hgt; ++y)
        for (int x = 0; x < w; ++x) {
            const uint32_t n = h.moved[(y / cell) * MOTION_COLS + x / cell];
            uint8_t* p = &pixels[(static_cast<size_t>(y) * w + x) * 3];
            heat_colour(h.reports != 0 ? static_cast<double>(n) / static_cast<double>(h.reports) : 0, p);
            // A faint grid shows the cells.
            if (x % cell == 0 || y % cell == 0)
                for (int c = 0; c < 3; ++c)
                    p[c] = static_cast<uint8_t>(p[c] * 3 / 4);
        }
    std::unique_ptr<FILE, png_closer> f(std::fopen(path.c_str(), "wb"));
    if (f == nullptr) {
        *err = path + ": " + std::strerror(errno);
        return -1;
    }
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = w;
    image.height = hgt;
    image.format = PNG_FORMAT_RGB;
    if (png_image_write_to_stdio(&image, f.get(), 0, pixels.data(), w * 3, nullptr) == 0) {
        *err = path + ": " + image.message;
        png_image_free(&image);
        return -1;
    }
    return 0;
}

}  // namespace tmaster
