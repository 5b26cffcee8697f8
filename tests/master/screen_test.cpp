// The master's video output side: the wire records it sends, its reading
// of a board's media.json, and what it draws of a slave's screen.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "master/screen.h"

using namespace tmaster;

namespace {

template <class T>
T at(const std::vector<uint8_t>& b, size_t off)
{
    T v;
    std::memcpy(&v, b.data() + off, sizeof(T));
    return v;
}

TEST(screen_test, layout_zoom_and_pciv_records_put_each_field_at_its_offset)
{
    layout_cmd l = grid_layout(4, 3);
    l.narrow[5] = true;
    std::vector<uint8_t> b = layout_payload(l);
    ASSERT_EQ(b.size(), 428u);
    EXPECT_EQ(at<int32_t>(b, 8), 16);
    EXPECT_EQ(b[12 + 5], 1);
    EXPECT_EQ(b[12 + 4], 0);
    // Cell 5: camera 8 at column 1, row 1 of 480 x 270.
    EXPECT_EQ(at<int16_t>(b, 44 + 5 * 12 + 2), 8);
    EXPECT_EQ(at<int16_t>(b, 44 + 5 * 12 + 4), 480);
    EXPECT_EQ(at<int16_t>(b, 44 + 5 * 12 + 6), 270);
    EXPECT_EQ(at<int16_t>(b, 44 + 5 * 12 + 8), 480);
    EXPECT_EQ(at<int16_t>(b, 44 + 5 * 12 + 10), 270);
    // More than 32 cells: 32 go, and the count says so unless forced.
    layout_cmd many = grid_layout(6, 0);
    EXPECT_EQ(at<int32_t>(layout_payload(many), 8), 32);
    many.cells_field = 99;
    EXPECT_EQ(at<int32_t>(layout_payload(many), 8), 99);

    std::vector<uint8_t> z = zoom_payload(9, 1, 2, 3, 4);
    EXPECT_EQ(at<int32_t>(z, 0), 9);
    EXPECT_EQ(at<int32_t>(z, 16), 1);
    EXPECT_EQ(at<int32_t>(z, 28), 4);

    std::vector<uint8_t> p = pciv_init_payload(2, 9, 1, 704, 576);
    ASSERT_EQ(p.size(), 124u);
    EXPECT_EQ(at<int32_t>(p, 4), 9);
    EXPECT_EQ(at<uint32_t>(p, 12), 704u);
    EXPECT_EQ(at<uint32_t>(p, 16), 576u);
    EXPECT_GE(at<uint32_t>(p, 12 + 28), 704u * 576 * 3 / 2);
    EXPECT_EQ(at<int32_t>(p, 12 + 108), 9);  // word 30: the master's channel
    EXPECT_EQ(pciv_start_payload(2, 9, 1, 640, 360).size(), 20u);
}

TEST(screen_test, media_state_is_read_and_each_cell_followed_to_its_source)
{
    const std::string text = R"({
"binds": [
  {"src": [16,0,4], "dst": [8,127,0]},
  {"src": [8,127,2], "dst": [15,8,9]},
  {"src": [8,8,3], "dst": [15,8,8]},
  {"src": [8,5,2], "dst": [15,8,10]},
  {"src": [8,8,3], "dst": [26,0,8]}],
"vi": [
  {"chn": 4, "width": 1920, "height": 1080, "fps": 30}],
"vpss": [
  {"grp": 127, "started": true, "chn": [2], "crop": {"enable": true, "x": 100, "y": 50, "width": 640, "height": 360}, "pictures": 7, "user_frames": 0}],
"vo": [
  {"dev": 8, "chn": 9, "enabled": true, "paused": false, "x": -2, "y": 0, "width": 1920, "height": 1080, "pictures": 12},
  {"dev": 8, "chn": 8, "enabled": true, "paused": false, "x": 0, "y": 0, "width": 960, "height": 540, "pictures": 3},
  {"dev": 8, "chn": 10, "enabled": true, "paused": true, "x": 0, "y": 540, "width": 960, "height": 540, "pictures": 0},
  {"dev": 8, "chn": 11, "enabled": false, "paused": false, "x": 0, "y": 0, "width": 2, "height": 2, "pictures": 0}],
"pciv": [
  {"chn": 8, "started": true, "width": 1920, "height": 1080, "pictures": 44}]
}
)";
    std::string err;
    std::optional<media_state> s = parse_media_state(text, &err);
    ASSERT_TRUE(s) << err;
    EXPECT_EQ(s->binds.size(), 5u);
    EXPECT_EQ(s->vo_chn(8, 9)->x, -2);
    EXPECT_EQ(s->pciv_chn(8)->pictures, 44u);
    EXPECT_EQ(s->source_of({26, 0, 8}), (media_chn{8, 8, 3}));
    EXPECT_TRUE(s->group(127)->crop.enable);

    std::vector<screen_part> parts = screen_parts(*s, 4);
    ASSERT_EQ(parts.size(), 3u);  // channel 11 is off
    EXPECT_EQ(parts[0].via, "full");
    EXPECT_EQ(parts[0].capture, (media_chn{16, 0, 4}));
    EXPECT_EQ(parts[0].crop.width, 640);
    EXPECT_EQ(parts[1].via, "main");
    EXPECT_EQ(parts[2].via, "sub");

    const std::string png = (std::filesystem::temp_directory_path() / "tarvo-screen-test.png").string();
    ASSERT_EQ(draw_screen_png(parts, png, &err), 0) << err;
    EXPECT_GT(std::filesystem::file_size(png), 100u);
    std::filesystem::remove(png);

    for (const char* bad : {"", "{", "{\"vo\": [}", "[1, 2", "{\"binds\": [] } x"})
        EXPECT_FALSE(parse_media_state(bad, &err)) << bad;
    // Deep nesting is refused, not followed.
    EXPECT_FALSE(parse_media_state(std::string(10000, '[') + std::string(10000, ']'), &err));
}

}  // namespace
