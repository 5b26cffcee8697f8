// The master's side of the video output.
#include "master/screen.h"

#include <png.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

namespace tmaster {

namespace {

template <class T>
void put(std::vector<uint8_t>& b, size_t at, T v)
{
    if (b.size() < at + sizeof(T))
        b.resize(at + sizeof(T), 0);
    std::memcpy(b.data() + at, &v, sizeof(T));
}

// ---- a reader for the board's JSON (objects, lists, numbers, strings,
// true, false, null) ----------------------------------------------------------

struct jv {
    enum kind { null_v, bool_v, num_v, str_v, arr_v, obj_v } k = null_v;
    bool b = false;
    double num = 0;
    std::string str;
    std::vector<jv> arr;
    std::vector<std::pair<std::string, jv>> obj;

    const jv* get(const char* key) const
    {
        for (const auto& [name, v] : obj)
            if (name == key)
                return &v;
        return nullptr;
    }
    int64_t i(const char* key) const
    {
        const jv* v = get(key);
        return v != nullptr && v->k == num_v ? static_cast<int64_t>(v->num) : 0;
    }
    bool flag(const char* key) const
    {
        const jv* v = get(key);
        return v != nullptr && v->k == bool_v && v->b;
    }
};

class json_reader {
public:
    explicit json_reader(const std::string& t) : t_(t) {}

    bool document(jv* out)
    {
        return value(out, 0) && (skip(), p_ == t_.size());
    }
    std::string where() const { return "at byte " + std::to_string(p_); }

private:
    void skip()
    {
        while (p_ < t_.size() && std::strchr(" \t\r\n", t_[p_]) != nullptr)
            ++p_;
    }
    bool lit(const char* w)
    {
        size_t n = std::strlen(w);
        if (t_.compare(p_, n, w) != 0)
            return false;
        p_ += n;
        return true;
    }
    bool string(std::string* s)
    {
        if (p_ >= t_.size() || t_[p_] != '"')
            return false;
        for (++p_; p_ < t_.size(); ++p_) {
            char c = t_[p_];
            if (c == '"') {
                ++p_;
                return true;
            }
            if (c == '\\') {
                if (++p_ >= t_.size())
                    return false;
                c = t_[p_];  // the board writes no escapes beyond these
            }
            s->push_back(c);
        }
        return false;
    }
    bool value(jv* v, int depth)
    {
        if (depth > 32)
            return false;
        skip();
        if (p_ >= t_.size())
            return false;
        char c = t_[p_];
        if (c == '{') {
            v->k = jv::obj_v;
            ++p_;
            skip();
            if (p_ < t_.size() && t_[p_] == '}')
                return ++p_, true;
            for (;;) {
                skip();
                std::string key;
                if (!string(&key))
                    return false;
                skip();
                if (p_ >= t_.size() || t_[p_++] != ':')
                    return false;
                jv item;
                if (!value(&item, depth + 1))
                    return false;
                v->obj.emplace_back(std::move(key), std::move(item));
                skip();
                if (p_ < t_.size() && t_[p_] == ',') {
                    ++p_;
                    continue;
                }
                return p_ < t_.size() && t_[p_++] == '}';
            }
        }
        if (c == '[') {
            v->k = jv::arr_v;
            ++p_;
            skip();
            if (p_ < t_.size() && t_[p_] == ']')
                return ++p_, true;
            for (;;) {
                jv item;
                if (!value(&item, depth + 1))
                    return false;
                v->arr.push_back(std::move(item));
                skip();
                if (p_ < t_.size() && t_[p_] == ',') {
                    ++p_;
                    continue;
                }
                return p_ < t_.size() && t_[p_++] == ']';
            }
        }
        if (c == '"') {
            v->k = jv::str_v;
            return string(&v->str);
        }
        if (lit("true")) {
            v->k = jv::bool_v;
            v->b = true;
            return true;
        }
        if (lit("false")) {
            v->k = jv::bool_v;
            return true;
        }
        if (lit("null"))
            return true;
        const char* start = t_.c_str() + p_;
        char* end = nullptr;
        v->num = std::strtod(start, &end);
        if (end == start)
            return false;
        v->k = jv::num_v;
        p_ += static_cast<size_t>(end - start);
        return true;
    }

    const std::string& t_;
    size_t p_ = 0;
};

media_chn chn_of(const jv* v)
{
    media_chn c;
    if (v != nullptr && v->k == jv::arr_v && v->arr.size() == 3) {
        c.mod = static_cast<int>(v->arr[0].num);
        c.dev = static_cast<int>(v->arr[1].num);
        c.chn = static_cast<int>(v->arr[2].num);
    }
    return c;
}

const std::vector<jv>& list_of(const jv& doc, const char* key)
{
    static const std::vector<jv> none;
    const jv* v = doc.get(key);
    return v != nullptr && v->k == jv::arr_v ? v->arr : none;
}

// ---- drawing --------------------------------------------------------------------

constexpr int k_scale = 2;
constexpr int k_w = SCREEN_WIDTH / k_scale, k_h = SCREEN_HEIGHT / k_scale;

struct rgb {
    uint8_t r, g, b;
};

class canvas {
public:
    canvas() : px_(static_cast<size_t>(k_w) * k_h * 3, 16) {}

    void fill(int x, int y, int w, int h, rgb c)
    {
        for (int j = std::max(y, 0); j < std::min(y + h, k_h); ++j)
            for (int i = std::max(x, 0); i < std::min(x + w, k_w); ++i) {
                uint8_t* p = &px_[(static_cast<size_t>(j) * k_w + i) * 3];
                p[0] = c.r;
                p[1] = c.g;
                p[2] = c.b;
            }
    }
    void frame(int x, int y, int w, int h, int t, rgb c)
    {
        fill(x, y, w, t, c);
        fill(x, y + h - t, w, t, c);
        fill(x, y, t, h, c);
        fill(x + w - t, y, t, h, c);
    }
    // A number in seven-segment digits, each d wide and 2d high.
    void number(int x, int y, int d, int v, rgb c)
    {
        static constexpr uint8_t k_seg[10] = {0x3f, 0x06, 0x5b, 0x4f, 0x66, 0x6d, 0x7d, 0x07, 0x7f, 0x6f};
        std::string s = std::to_string(v);
        const int t = std::max(2, d / 5);
        for (char ch : s) {
            if (ch < '0' || ch > '9') {
                x += d + t * 2;
                continue;
            }
            uint8_t m = k_seg[ch - '0'];
            if (m & 0x01) fill(x, y, d, t, c);
            if (m & 0x02) fill(x + d - t, y, t, d, c);
            if (m & 0x04) fill(x + d - t, y + d, t, d, c);
            if (m & 0x08) fill(x, y + 2 * d - t, d, t, c);
            if (m & 0x10) fill(x, y + d, t, d, c);
            if (m & 0x20) fill(x, y, t, d, c);
            if (m & 0x40) fill(x, y + d - t / 2, d, t, c);
            x += d + t * 2;
        }
    }
    const std::vector<uint8_t>& pixels() const { return px_; }

private:
    std::vector<uint8_t> px_;
};

rgb colour_of(const std::string& via)
{
    if (via == "full")
        return {40, 110, 200};
    if (via == "main")
        return {40, 150, 70};
    if (via == "sub")
        return {200, 150, 40};
    if (via == "other")
        return {150, 60, 150};
    return {90, 90, 90};
}

int write_png(const canvas& c, const std::string& path, std::string* err)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        *err = "cannot write " + path;
        return -1;
    }
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (png == nullptr || info == nullptr || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        std::fclose(f);
        *err = "PNG encoding failed";
        return -1;
    }
    png_init_io(png, f);
    png_set_IHDR(png, info, k_w, k_h, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < k_h; ++y)
        png_write_row(png, const_cast<png_bytep>(&c.pixels()[static_cast<size_t>(y) * k_w * 3]));
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return std::fclose(f) == 0 ? 0 : (*err = "cannot write " + path, -1);
}

}  // namespace

layout_cmd grid_layout(int n, int first)
{
    layout_cmd l;
    l.layout = n * n;
    for (int k = 0; k < n * n; ++k)
        l.cells.push_back({first + k, k % n * SCREEN_WIDTH / n, k / n * SCREEN_HEIGHT / n, SCREEN_WIDTH / n,
                           SCREEN_HEIGHT / n});
    return l;
}

layout_cmd nine_with_wide(int first)
{
    layout_cmd l;
    l.layout = 9;
    const int w = SCREEN_WIDTH / 3, h = SCREEN_HEIGHT / 3;
    l.cells.push_back({first, 0, 0, 2 * w, 2 * h});
    const int spots[5][2] = {{2, 0}, {2, 1}, {0, 2}, {1, 2}, {2, 2}};
    for (int k = 0; k < 5; ++k)
        l.cells.push_back({first + 1 + k, spots[k][0] * w, spots[k][1] * h, w, h});
    return l;
}

std::vector<uint8_t> layout_payload(const layout_cmd& l)
{
    std::vector<uint8_t> b(428, 0);
    const int count = static_cast<int>(std::min<size_t>(l.cells.size(), LAYOUT_MAX_CELLS));
    put<int32_t>(b, 0, l.vout_idx);
    put<int32_t>(b, 4, l.layout);
    put<int32_t>(b, 8, l.cells_field >= 0 ? l.cells_field : count);
    for (int c = 0; c < 32; ++c)
        b[12 + c] = l.narrow[c] ? 1 : 0;
    for (int k = 0; k < count; ++k) {
        const screen_cell& c = l.cells[k];
        const size_t at = 44 + 12 * static_cast<size_t>(k);
        put<int16_t>(b, at + 2, static_cast<int16_t>(c.cam));
        put<int16_t>(b, at + 4, static_cast<int16_t>(c.x));
        put<int16_t>(b, at + 6, static_cast<int16_t>(c.y));
        put<int16_t>(b, at + 8, static_cast<int16_t>(c.width));
        put<int16_t>(b, at + 10, static_cast<int16_t>(c.height));
    }
    return b;
}

std::vector<uint8_t> zoom_payload(int cam, int x, int y, int width, int height)
{
    std::vector<uint8_t> b(32, 0);
    put<int32_t>(b, 0, cam);
    put<int32_t>(b, 16, x);
    put<int32_t>(b, 20, y);
    put<int32_t>(b, 24, width);
    put<int32_t>(b, 28, height);
    return b;
}

std::array<uint8_t, PCIV_ATTR_SIZE> pciv_attr_record(uint32_t width, uint32_t height, int remote_chn)
{
    std::vector<uint8_t> b(PCIV_ATTR_SIZE, 0);
    const uint32_t stride = (width + 15) / 16 * 16;
    const uint32_t blk = stride * height * 3 / 2;
    put<uint32_t>(b, 0, width);
    put<uint32_t>(b, 4, height);
    put<uint32_t>(b, 8, stride);   // luma
    put<uint32_t>(b, 12, stride);  // chroma
    put<int32_t>(b, 16, 0);        // whole frames
    put<int32_t>(b, 20, 19);       // 4:2:0
    put<int32_t>(b, 24, 0);        // buffers in chip 0's memory
    put<uint32_t>(b, 28, blk);
    put<uint32_t>(b, 32, 4);
    for (uint32_t i = 0; i < 4; ++i)
        put<uint32_t>(b, 36 + 4 * i, 0x18000000u + static_cast<uint32_t>(remote_chn) * 4 * blk + i * blk);
    put<int32_t>(b, 104, 0);  // the far end: chip 0
    put<int32_t>(b, 108, remote_chn);
    std::array<uint8_t, PCIV_ATTR_SIZE> a{};
    std::copy(b.begin(), b.end(), a.begin());
    return a;
}

std::vector<uint8_t> pciv_init_payload(int kind, int chn, int live, uint32_t width, uint32_t height)
{
    std::vector<uint8_t> b(12, 0);
    put<int32_t>(b, 0, kind);
    put<int32_t>(b, 4, chn);
    put<int32_t>(b, 8, live);
    auto a = pciv_attr_record(width, height, chn);
    b.insert(b.end(), a.begin(), a.end());
    return b;
}

std::vector<uint8_t> pciv_start_payload(int kind, int arg, int live, int width, int height)
{
    std::vector<uint8_t> b(20, 0);
    put<int32_t>(b, 0, kind);
    put<int32_t>(b, 4, arg);
    put<int32_t>(b, 8, live);
    put<int32_t>(b, 12, width);
    put<int32_t>(b, 16, height);
    return b;
}

std::vector<uint8_t> pciv_stop_payload(int kind, int chn)
{
    std::vector<uint8_t> b(8, 0);
    put<int32_t>(b, 0, kind);
    put<int32_t>(b, 4, chn);
    return b;
}

std::optional<media_chn> media_state::source_of(const media_chn& dest) const
{
    for (const auto& [src, dst] : binds)
        if (dst == dest)
            return src;
    return std::nullopt;
}

const media_vo* media_state::vo_chn(int dev, int chn) const
{
    for (const media_vo& v : vo)
        if (v.dev == dev && v.chn == chn)
            return &v;
    return nullptr;
}

const media_vpss* media_state::group(int grp) const
{
    for (const media_vpss& g : vpss)
        if (g.grp == grp)
            return &g;
    return nullptr;
}

const media_pciv* media_state::pciv_chn(int chn) const
{
    for (const media_pciv& p : pciv)
        if (p.chn == chn)
            return &p;
    return nullptr;
}

std::optional<media_state> parse_media_state(const std::string& text, std::string* err)
{
    jv doc;
    json_reader r(text);
    if (!r.document(&doc) || doc.k != jv::obj_v) {
        *err = "media.json is not JSON " + r.where();
        return std::nullopt;
    }
    media_state s;
    for (const jv& b : list_of(doc, "binds"))
        s.binds.emplace_back(chn_of(b.get("src")), chn_of(b.get("dst")));
    for (const jv& v : list_of(doc, "vi"))
        s.vi.push_back({static_cast<int>(v.i("chn")), static_cast<int>(v.i("width")), static_cast<int>(v.i("height"))});
    for (const jv& g : list_of(doc, "vpss")) {
        media_vpss m;
        m.grp = static_cast<int>(g.i("grp"));
        m.started = g.flag("started");
        m.pictures = static_cast<uint64_t>(g.i("pictures"));
        if (const jv* c = g.get("crop"))
            m.crop = {c->flag("enable"), static_cast<int>(c->i("x")), static_cast<int>(c->i("y")),
                      static_cast<int>(c->i("width")), static_cast<int>(c->i("height"))};
        s.vpss.push_back(m);
    }
    for (const jv& v : list_of(doc, "vo"))
        s.vo.push_back({static_cast<int>(v.i("dev")), static_cast<int>(v.i("chn")), v.flag("enabled"),
                        v.flag("paused"), static_cast<int>(v.i("x")), static_cast<int>(v.i("y")),
                        static_cast<int>(v.i("width")), static_cast<int>(v.i("height")),
                        static_cast<uint64_t>(v.i("pictures"))});
    for (const jv& p : list_of(doc, "pciv"))
        s.pciv.push_back({static_cast<int>(p.i("chn")), p.flag("started"), static_cast<int>(p.i("width")),
                          static_cast<int>(p.i("height")), static_cast<uint64_t>(p.i("pictures"))});
    return s;
}

std::optional<media_state> read_media_state(const std::string& board, int chip, std::string* err)
{
    const std::string path = board + "/chip" + std::to_string(chip) + "/media.json";
    std::ifstream in(path);
    if (!in) {
        *err = "cannot read " + path;
        return std::nullopt;
    }
    std::stringstream text;
    text << in.rdbuf();
    return parse_media_state(text.str(), err);
}

std::vector<screen_part> screen_parts(const media_state& s, int slave_cam)
{
    constexpr int k_vo = 15, k_vpss = 8, k_vi = 16, k_dev = 8, k_full = 127;
    std::vector<screen_part> out;
    for (const media_vo& v : s.vo) {
        if (v.dev != k_dev || !v.enabled)
            continue;
        screen_part p;
        p.vo = v;
        p.source = s.source_of({k_vo, v.dev, v.chn});
        p.via = "none";
        if (p.source && p.source->mod == k_vpss) {
            const int g = p.source->dev;
            p.via = g == k_full                                        ? "full"
                    : g >= 2 * slave_cam && g < 3 * slave_cam          ? "main"
                    : g >= slave_cam && g < 2 * slave_cam              ? "sub"
                                                                       : "other";
            std::optional<media_chn> in = s.source_of({k_vpss, g, 0});
            if (in && in->mod == k_vi)
                p.capture = in;
            if (g == k_full)
                if (const media_vpss* grp = s.group(k_full))
                    p.crop = grp->crop;
        } else if (p.source) {
            p.via = "other";
        }
        out.push_back(p);
    }
    return out;
}

int draw_screen_png(const std::vector<screen_part>& parts, const std::string& path, std::string* err)
{
    canvas c;
    for (const screen_part& p : parts) {
        const int x = p.vo.x / k_scale, y = p.vo.y / k_scale, w = p.vo.width / k_scale, h = p.vo.height / k_scale;
        c.fill(x, y, w, h, colour_of(p.via));
        c.frame(x, y, w, h, 2, {230, 230, 230});
        const int d = std::clamp(h / 6, 6, 40);
        c.number(x + d / 2, y + d / 2, d, p.vo.chn, {250, 250, 250});
        if (p.crop.enable && w > 0 && h > 0) {
            // The zoomed part of the 1920 x 1080 picture, as it lies in the cell.
            const int cx = x + p.crop.x * w / SCREEN_WIDTH, cy = y + p.crop.y * h / SCREEN_HEIGHT;
            const int cw = p.crop.width * w / SCREEN_WIDTH, ch = p.crop.height * h / SCREEN_HEIGHT;
            c.frame(cx, cy, std::max(cw, 4), std::max(ch, 4), 3, {255, 60, 60});
        }
    }
    return write_png(c, path, err);
}

}  // namespace tmaster
