// Snapshots and the time overlay end to end: one slave of 8 cameras
// recorded by the master emulator for 15 s. Every camera sends about one
// JPEG per second, each a picture of the camera's capture size, and the
// overlay read back from the board shows the master's glyphs spelling the
// slave's date and time at the bottom left of the REC picture.
#include <gtest/gtest.h>

#include <dirent.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "master/overlay.h"
#include "master/record.h"
#include "tests/support/test_board.h"

using namespace tmaster;

namespace {

constexpr int SECONDS = 15;
// About one a second. The sanitizer builds paint and encode each picture
// many times slower on a loaded host: a pass over 8 cameras may take most
// of the run there, so only the pictures' correctness is checked.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double k_min_snapshots = 0;
#else
constexpr double k_min_snapshots = SECONDS - 3;
#endif

std::vector<uint8_t> slurp(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

// Width and height from a baseline JPEG's frame header; {0, 0} when the
// file is no such JPEG.
std::pair<int, int> jpeg_size(const std::vector<uint8_t>& j)
{
    if (j.size() < 4 || j[0] != 0xFF || j[1] != 0xD8 || j[j.size() - 2] != 0xFF || j[j.size() - 1] != 0xD9)
        return {0, 0};
    for (size_t at = 2; at + 9 < j.size();) {
        if (j[at] != 0xFF)
            return {0, 0};
        const uint8_t marker = j[at + 1];
        const size_t len = static_cast<size_t>(j[at + 2] << 8 | j[at + 3]);
        if (marker == 0xC0)
            return {j[at + 7] << 8 | j[at + 8], j[at + 5] << 8 | j[at + 6]};
        at += 2 + len;
    }
    return {0, 0};
}

std::string expected_line(time_t t)
{
    struct tm tm;
    localtime_r(&t, &tm);
    char date[16], clock[16], line[40];
    std::strftime(date, sizeof(date), "%m/%d/%Y", &tm);
    const int h = tm.tm_hour % 12 == 0 ? 12 : tm.tm_hour % 12;
    std::snprintf(clock, sizeof(clock), "%s %02d:%02d:%02d", tm.tm_hour > 11 ? "PM" : "AM", h, tm.tm_min, tm.tm_sec);
    std::snprintf(line, sizeof(line), "%s %s", date, clock);
    return line;
}

TEST(snapshot_e2e, eight_cameras_send_a_jpeg_a_second_and_burn_in_the_time)
{
    temp_board_dir board;
    board.share_cache();
    temp_board_dir out;
    record_options o;
    o.board = board.path();
    o.slave = TARVO_SLAVE_BINARY;
    o.plan.out = out.path();
    o.plan.slaves = {{1, 0, 8, 8}};
    o.plan.date_fmt = 1;
    o.plan.hour12 = 1;
    o.seconds = SECONDS;
    o.first_key_wait = std::chrono::milliseconds(120000);
    o.progress = stderr;

    const time_t began = std::time(nullptr);
    record_summary s = record(o);
    const time_t ended = std::time(nullptr);
    ASSERT_EQ(s.rc, 0) << s.error;

    // Snapshots: one per camera and second from 5 s after the start on.
    std::map<int, std::vector<std::string>> per_cam;
    const std::string snap = out.path() + "/slave1/snap";
    DIR* d = opendir(snap.c_str());
    ASSERT_NE(d, nullptr);
    while (dirent* e = readdir(d)) {
        int cam = -1;
        if (std::sscanf(e->d_name, "cam%d-", &cam) == 1)
            per_cam[cam].push_back(snap + "/" + e->d_name);
    }
    closedir(d);
    const double run_s = static_cast<double>(ended - began);
    EXPECT_FALSE(per_cam.empty()) << "no snapshot arrived";
    for (int cam = 0; cam < 8; ++cam) {
        SCOPED_TRACE("camera " + std::to_string(cam));
        const auto& files = per_cam[cam];
        EXPECT_GE(static_cast<double>(files.size()), k_min_snapshots);
        EXPECT_LE(static_cast<double>(files.size()), run_s + 1);
        for (const std::string& f : files)
            EXPECT_EQ(jpeg_size(slurp(f)), std::make_pair(1920, 1080)) << f;
    }

    // The overlay: every camera's region at 20, 1048, its bitmap the
    // master's glyphs for the slave's clock within the last seconds.
    std::string err;
    const std::vector<uint8_t> strip = render_time_font(FONT_FILE, &err);
    ASSERT_FALSE(strip.empty()) << err;
    std::stringstream json;
    json << std::ifstream(board.file("chip1/media.json")).rdbuf();
    const std::vector<region_bitmap> regions = overlay_regions(json.str());
    ASSERT_EQ(regions.size(), 8u) << json.str();
    for (const region_bitmap& r : regions) {
        SCOPED_TRACE("region " + std::to_string(r.handle));
        EXPECT_EQ(r.x, 20);
        EXPECT_EQ(r.y, 1048);
        const std::string shown = read_overlay_line(slurp(board.file(r.file)), r.width, r.height, strip);
        bool recent = false;
        for (time_t t = ended - 4; t <= ended + 1 && !recent; ++t)
            recent = shown == expected_line(t);
        EXPECT_TRUE(recent) << "shown \"" << shown << "\", expected about \"" << expected_line(ended) << "\"";
        EXPECT_TRUE(std::ifstream(out.path() + "/slave1/cam0" + std::to_string(r.handle - 64) + "-overlay.png").good());
    }
}

}  // namespace
