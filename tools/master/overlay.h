// The master's side of the snapshots and the time overlay: the glyph strip
// it sends (rendered from a real font), the snapshot files it keeps, and
// the overlay bitmaps it reads back from the board as pictures.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tmaster {

inline constexpr int FONT_ROWS = 20;         // one command per row
inline constexpr int FONT_ROW_BYTES = 512;   // 256 pixels of 2 bytes
inline constexpr int FONT_CELL_W = 16;
inline constexpr uint32_t CMD_SET_TIMESTAMP = 0x2030a;
inline constexpr uint32_t CMD_SET_TIME_FONT = 0x20380;  // + row, rows 0 .. 19
inline constexpr uint16_t FONT_INK = 0xFFFF;  // opaque white, 1:5:5:5
inline constexpr const char* FONT_FILE = "/usr/share/fonts/truetype/dejavu/DejaVuSansMono-Bold.ttf";

// HSCC_CAL_SetTimestamp.
struct timestamp_t {
    int32_t on;
    int32_t date_fmt;  // 1 month/day/year, 2 day/month/year, else year/month/day
    int32_t hour12;    // 1: 12-hour clock with AM/PM
};
static_assert(sizeof(timestamp_t) == 12);

// The glyph strip: 20 rows of 512 bytes; glyph g (the digits, "/", ":",
// "A", "P", "M") in pixels 16g .. 16g + 15 of every row, "M" 18 pixels
// wide (into the first 2 pixels of glyph 15). Ink is FONT_INK, the rest 0.
// Empty with the reason in *err when the font cannot be rendered.
std::vector<uint8_t> render_time_font(const std::string& font_file, std::string* err);

// The line the overlay shows for a glyph strip: which glyph, if any, each
// 16-pixel cell of a bitmap (rows of width × 2 bytes) holds; '?' for a cell
// that matches none, ' ' for an empty one.
std::string read_overlay_line(std::span<const uint8_t> bitmap, int width, int height,
                              std::span<const uint8_t> strip);

// One region of a slave's media.json with its bitmap file.
struct region_bitmap {
    int handle = -1;
    int x = 0, y = 0;
    int width = 0, height = 0;  // of the bitmap
    std::string file;           // relative to the board
};
std::vector<region_bitmap> overlay_regions(const std::string& media_json);

// Writes a 1:5:5:5 bitmap as an RGBA PNG (alpha from the top bit). 0, or
// -1 with *err.
int write_bitmap_png(const std::string& path, std::span<const uint8_t> bitmap, int width, int height,
                     std::string* err);

}  // namespace tmaster
