// The master's motion log and heat maps: every report counted per cell and
// logged, broken reports left out, and the heat map written as a PNG of the
// grid's size.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "master/master.h"
#include "master/motion.h"
#include "master/parse.h"

using namespace tmaster;

namespace {

notification motion(int chip, uint32_t cam, std::initializer_list<std::pair<int, uint32_t>> rows)
{
    motion_note_t note{};
    note.cam = cam;
    for (auto [r, w] : rows)
        note.rows[r] = w;
    std::vector<uint8_t> payload(sizeof note);
    std::memcpy(payload.data(), &note, sizeof note);
    notification n;
    n.chip = chip;
    n.port = PORT_VIN;
    n.kind = note_kind::motion;
    n.parsed = parse_motion(payload);
    return n;
}

TEST(motion_log, counts_cells_per_camera_logs_each_report_and_draws_a_png)
{
    char dir[] = "/tmp/tarvo-motion-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string out = dir;
    motion_log log;
    std::string err;
    ASSERT_EQ(log.open(out + "/motion.log", &err), 0) << err;
    log.take(motion(1, 11, {{0, 0x1}, {17, 0x80000000u}}));
    log.take(motion(1, 11, {{0, 0x3}}));
    log.take(motion(2, 11, {}));
    // A report that is too short is not counted.
    notification bad = motion(1, 11, {{0, 0xFF}});
    bad.parsed = parse_motion(std::vector<uint8_t>(12, 0));
    log.take(bad);
    log.close();
    EXPECT_EQ(log.reports(), 3u);
    auto heat = log.heat();
    const motion_heat& h = heat.at({1, 11});
    EXPECT_EQ(h.reports, 2u);
    EXPECT_EQ(h.moved[0], 2u);
    EXPECT_EQ(h.moved[1], 1u);
    EXPECT_EQ(h.moved[17 * MOTION_COLS + 31], 1u);
    EXPECT_EQ(heat.at({2, 11}).reports, 1u);

    std::ifstream f(out + "/motion.log");
    std::string line, text;
    int lines = 0;
    while (std::getline(f, line))
        if (!line.empty() && line[0] != '#') {
            ++lines;
            text += line + "\n";
        }
    EXPECT_EQ(lines, 3);
    EXPECT_NE(text.find(" 1 11 2 00000001 "), std::string::npos) << text;

    std::vector<std::string> files = log.write_heat_maps(out, &err);
    ASSERT_EQ(files.size(), 2u) << err;
    EXPECT_EQ(files[0], "slave1/cam11-motion.png");
    std::ifstream png(out + "/" + files[0], std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(png)), std::istreambuf_iterator<char>());
    ASSERT_GT(bytes.size(), 24u);
    EXPECT_EQ(bytes.substr(1, 3), "PNG");
    auto be32 = [&](size_t at) {
        return (uint32_t(uint8_t(bytes[at])) << 24) | (uint32_t(uint8_t(bytes[at + 1])) << 16) |
               (uint32_t(uint8_t(bytes[at + 2])) << 8) | uint32_t(uint8_t(bytes[at + 3]));
    };
    EXPECT_EQ(be32(16), 512u);  // IHDR width, height
    EXPECT_EQ(be32(20), 288u);
    std::filesystem::remove_all(out);
}

}  // namespace
