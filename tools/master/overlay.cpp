// Glyph strip, overlay read-back and PNG files.
#include "master/overlay.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include <ft2build.h>
#include FT_FREETYPE_H
#include <png.h>

namespace tmaster {

namespace {

constexpr char k_glyphs[] = "0123456789/:APM";
constexpr int k_m_glyph = 14;
constexpr int k_m_width = 18;

struct ft_library {
    FT_Library lib = nullptr;
    ~ft_library()
    {
        if (lib != nullptr)
            FT_Done_FreeType(lib);
    }
};

struct ft_face {
    FT_Face face = nullptr;
    ~ft_face()
    {
        if (face != nullptr)
            FT_Done_Face(face);
    }
};

void put_pixel(std::vector<uint8_t>& strip, int x, int y, uint16_t v)
{
    size_t at = static_cast<size_t>(y) * FONT_ROW_BYTES + static_cast<size_t>(x) * 2;
    strip[at] = static_cast<uint8_t>(v & 0xFF);
    strip[at + 1] = static_cast<uint8_t>(v >> 8);
}

uint16_t pixel(std::span<const uint8_t> b, size_t at)
{
    return static_cast<uint16_t>(b[at] | (b[at + 1] << 8));
}

// Returns the value after the key in a JSON object's text, or "".
std::string field(const std::string& obj, const std::string& key)
{
    const std::string k = "\"" + key + "\": ";
    size_t at = obj.find(k);
    if (at == std::string::npos)
        return "";
    at += k.size();
    size_t end = obj.find_first_of(",}", at);
    return obj.substr(at, end - at);
}

}  // namespace

std::vector<uint8_t> render_time_font(const std::string& font_file, std::string* err)
{
    ft_library ft;
    ft_face f;
    if (FT_Init_FreeType(&ft.lib) != 0 || FT_New_Face(ft.lib, font_file.c_str(), 0, &f.face) != 0) {
        *err = font_file + ": cannot be opened as a font";
        return {};
    }
    // Digits about 16 pixels high in the 20-pixel cell.
    if (FT_Set_Pixel_Sizes(f.face, 0, 18) != 0) {
        *err = font_file + ": no 18-pixel size";
        return {};
    }
    std::vector<uint8_t> strip(static_cast<size_t>(FONT_ROWS) * FONT_ROW_BYTES, 0);
    const int ascent = static_cast<int>(f.face->size->metrics.ascender >> 6);
    for (int g = 0; k_glyphs[g] != '\0'; ++g) {
        if (FT_Load_Char(f.face, static_cast<FT_ULong>(k_glyphs[g]), FT_LOAD_RENDER) != 0) {
            *err = std::string("glyph '") + k_glyphs[g] + "' missing from " + font_file;
            return {};
        }
        const FT_GlyphSlot s = f.face->glyph;
        const FT_Bitmap& bm = s->bitmap;
        const int cell_w = g == k_m_glyph ? k_m_width : FONT_CELL_W;
        // Centred across the cell, on a baseline 2 pixels above the bottom.
        const int left = (cell_w - static_cast<int>(bm.width)) / 2;
        const int top = ascent - s->bitmap_top - (ascent + 2 - FONT_ROWS);
        for (int r = 0; r < static_cast<int>(bm.rows); ++r)
            for (int c = 0; c < static_cast<int>(bm.width); ++c) {
                const int x = left + c, y = top + r;
                if (x < 0 || x >= cell_w || y < 0 || y >= FONT_ROWS)
                    continue;
                if (bm.buffer[r * bm.pitch + c] >= 128)
                    put_pixel(strip, FONT_CELL_W * g + x, y, FONT_INK);
            }
    }
    return strip;
}

std::string read_overlay_line(std::span<const uint8_t> bitmap, int width, int height,
                              std::span<const uint8_t> strip)
{
    std::string line;
    if (height != FONT_ROWS || bitmap.size() < static_cast<size_t>(width) * height * 2 ||
        strip.size() < static_cast<size_t>(FONT_ROWS) * FONT_ROW_BYTES)
        return line;
    const size_t row = static_cast<size_t>(width) * 2;
    for (int cell = 0; cell * FONT_CELL_W + FONT_CELL_W <= width; ++cell) {
        bool empty = true;
        for (int y = 0; y < FONT_ROWS && empty; ++y)
            for (int x = 0; x < FONT_CELL_W && empty; ++x)
                empty = pixel(bitmap, y * row + (cell * FONT_CELL_W + x) * 2) == 0;
        if (empty) {
            line += ' ';
            continue;
        }
        char found = '?';
        for (int g = 0; k_glyphs[g] != '\0' && found == '?'; ++g) {
            bool same = true;
            for (int y = 0; y < FONT_ROWS && same; ++y)
                same = std::memcmp(bitmap.data() + y * row + cell * FONT_CELL_W * 2,
                                   strip.data() + y * FONT_ROW_BYTES + g * FONT_CELL_W * 2, FONT_CELL_W * 2) == 0;
            if (same)
                found = k_glyphs[g];
        }
        line += found;
    }
    while (!line.empty() && line.back() == ' ')
        line.pop_back();
    return line;
}

std::vector<region_bitmap> overlay_regions(const std::string& media_json)
{
    std::vector<region_bitmap> out;
    const size_t at = media_json.find("\"rgn\": [");
    if (at == std::string::npos)
        return out;
    // Region objects hold one nested list ("attached"); walk object by object.
    for (size_t open = media_json.find("{\"handle\"", at); open != std::string::npos && open < media_json.size();
         open = media_json.find("{\"handle\"", open + 1)) {
        const size_t close = media_json.find('}', open);
        if (close == std::string::npos)
            break;
        const std::string obj = media_json.substr(open, close - open + 1);
        std::string file = field(obj, "bitmap");
        if (file.size() < 3 || file.front() != '"')
            continue;
        region_bitmap r;
        r.handle = std::atoi(field(obj, "handle").c_str());
        r.x = std::atoi(field(obj, "x").c_str());
        r.y = std::atoi(field(obj, "y").c_str());
        r.width = std::atoi(field(obj, "bitmap_width").c_str());
        r.height = std::atoi(field(obj, "bitmap_height").c_str());
        r.file = file.substr(1, file.size() - 2);
        out.push_back(r);
    }
    return out;
}

int write_bitmap_png(const std::string& path, std::span<const uint8_t> bitmap, int width, int height,
                     std::string* err)
{
    if (width <= 0 || height <= 0 || bitmap.size() < static_cast<size_t>(width) * height * 2) {
        *err = path + ": the bitmap is smaller than its size";
        return -1;
    }
    std::vector<uint8_t> rgba(static_cast<size_t>(width) * height * 4);
    for (size_t i = 0; i < static_cast<size_t>(width) * height; ++i) {
        const uint16_t v = pixel(bitmap, i * 2);
        rgba[i * 4] = static_cast<uint8_t>(((v >> 10) & 31) * 255 / 31);
        rgba[i * 4 + 1] = static_cast<uint8_t>(((v >> 5) & 31) * 255 / 31);
        rgba[i * 4 + 2] = static_cast<uint8_t>((v & 31) * 255 / 31);
        rgba[i * 4 + 3] = (v & 0x8000) != 0 ? 255 : 0;
    }
    png_image img{};
    img.version = PNG_IMAGE_VERSION;
    img.width = static_cast<png_uint_32>(width);
    img.height = static_cast<png_uint_32>(height);
    img.format = PNG_FORMAT_RGBA;
    if (png_image_write_to_file(&img, path.c_str(), 0, rgba.data(), 0, nullptr) == 0) {
        *err = path + ": " + img.message;
        return -1;
    }
    return 0;
}

}  // namespace tmaster
