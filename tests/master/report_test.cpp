// What the recorder leaves for people: the MP4 files at the frames' own
// times, and the report page with its plots.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "master/mp4.h"
#include "master/report.h"
#include "master_test_util.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

using namespace mtest;

namespace {

class temp_dir {
public:
    temp_dir()
    {
        path_ = (std::filesystem::temp_directory_path() / "treport-XXXXXX").string();
        if (mkdtemp(path_.data()) == nullptr)
            path_.clear();
    }
    ~temp_dir()
    {
        std::error_code ec;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ec);
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

std::string slurp(const std::string& path)
{
    std::ifstream f(path);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

// Presentation times (seconds) and key marks of an MP4's packets.
std::vector<std::pair<double, bool>> mp4_packets(const std::string& path)
{
    std::vector<std::pair<double, bool>> out;
    av_log_set_level(AV_LOG_QUIET);  // the stand-in frames are no pictures its probe could parse
    AVFormatContext* ctx = nullptr;
    if (avformat_open_input(&ctx, path.c_str(), nullptr, nullptr) != 0)
        return out;
    AVPacket* pkt = av_packet_alloc();
    while (av_read_frame(ctx, pkt) >= 0) {
        out.emplace_back(static_cast<double>(pkt->pts) * av_q2d(ctx->streams[0]->time_base),
                         (pkt->flags & AV_PKT_FLAG_KEY) != 0);
        av_packet_unref(pkt);
    }
    av_packet_free(&pkt);
    avformat_close_input(&ctx);
    return out;
}

TEST(mp4_file, frames_keep_their_own_times_and_a_repeated_time_is_moved_past_the_previous_one)
{
    temp_dir dir;
    const std::string path = dir.path() + "/a.mp4";
    mp4_file f;
    f.open(path, 352, 288, 15);
    // Frames before the first key frame cannot be shown: not written.
    EXPECT_EQ(f.append(access_unit(0, 0, 0, false), 1'000'000, false), 0);
    const int64_t t0 = 1'700'000'000'000'000;
    EXPECT_EQ(f.append(access_unit(0, 0, 1, true), t0, true), 0);
    EXPECT_EQ(f.append(access_unit(0, 0, 2, false), t0 + 66'666, false), 0);
    // A lost second: the next frame comes a second later.
    EXPECT_EQ(f.append(access_unit(0, 0, 3, false), t0 + 1'066'666, false), 0);
    // The same time twice: moved 1 ms on.
    EXPECT_EQ(f.append(access_unit(0, 0, 4, false), t0 + 1'066'666, false), 0);
    EXPECT_EQ(f.append(access_unit(0, 0, 5, true), t0 + 1'133'333, true), 0);
    EXPECT_EQ(f.close(), 0) << f.error();
    EXPECT_EQ(f.frames(), 5u);
    EXPECT_EQ(f.moved(), 1u);

    const auto p = mp4_packets(path);
    ASSERT_EQ(p.size(), 5u);
    const double want[] = {0, 0.066666, 1.066666, 1.067666, 1.133333};
    const bool key[] = {true, false, false, false, true};
    for (size_t k = 0; k < p.size(); ++k) {
        EXPECT_NEAR(p[k].first, want[k], 0.0001) << k;
        EXPECT_EQ(p[k].second, key[k]) << k;
    }
}

// The last frame has no successor to give it a duration, and a file whose
// index ends where the last frame begins hides it from players. Network
// frames' times are whole milliseconds, with repeats and lost seconds:
// every frame must be found again, the last one too, in every such stream.
TEST(mp4_file, every_frame_is_played_the_last_one_too)
{
    temp_dir dir;
    uint32_t x = 1;
    auto rnd = [&x] {
        x = x * 1664525u + 1013904223u;
        return x >> 8;
    };
    int hidden = 0;
    for (int trial = 0; trial < 200; ++trial) {
        const std::string path = dir.path() + "/t" + std::to_string(trial) + ".mp4";
        const int fps = trial % 2 != 0 ? 30 : 15;
        const int n = 20 + static_cast<int>(rnd() % 100);
        mp4_file f;
        f.open(path, 352, 288, fps);
        int64_t t = 1'700'000'000'000'000 + (rnd() % 1000) * 1000;
        for (int k = 0; k < n; ++k) {
            const uint32_t r = rnd() % 100;
            if (r >= 15)  // the next frame, within a millisecond
                t += (1000 / fps + static_cast<int64_t>(rnd() % 3) - 1) * 1000;
            else if (r >= 10)  // a lost second
                t += 1'000'000;
            // else the same time again
            const bool key = k % fps == 0;
            ASSERT_EQ(f.append(access_unit(0, 0, static_cast<uint32_t>(k), key), t, key), 0) << f.error();
        }
        ASSERT_EQ(f.close(), 0) << f.error();
        if (mp4_packets(path).size() != static_cast<size_t>(n))
            ++hidden;
    }
    EXPECT_EQ(hidden, 0) << "streams that lost a frame in their MP4";
}

TEST(mp4_file, a_stream_without_frames_leaves_no_file_and_one_without_sps_is_refused)
{
    temp_dir dir;
    mp4_file empty;
    empty.open(dir.path() + "/empty.mp4", 352, 288, 15);
    EXPECT_EQ(empty.close(), 0);
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/empty.mp4"));

    mp4_file bad;
    bad.open(dir.path() + "/bad.mp4", 352, 288, 15);
    std::vector<uint8_t> idr_only = {0, 0, 0, 1, 0x65, 0x88, 0x80, 0x40};
    EXPECT_EQ(bad.append(idr_only, 0, true), -1);
    EXPECT_NE(bad.error().find("SPS"), std::string::npos) << bad.error();
    EXPECT_EQ(bad.append(access_unit(0, 0, 1, true), 1000, true), -1) << "a failed file takes nothing more";
    EXPECT_EQ(bad.close(), -1);
}

// A recording of one camera whose REC lost second 102, with a finding that
// carries markup, two snapshots of which only the first was kept, and three
// status polls.
record_summary sample(const std::string& out)
{
    record_summary s;
    s.out = out;
    s.seconds = 4;
    s.began_at = 100.5;
    s.ended_at = 104.5;
    s.slaves = {{1, 0, 1, 1}};
    stream_summary rec;
    rec.key = {1, 0, stream_type::rec};
    rec.want = {1920, 1080, 30, 2, 1};
    rec.frames = 90;
    rec.gaps = 1;
    rec.lost = 30;
    rec.violations = 1;
    rec.problems = {"seq 30 after 59: <script>alert(1)</script> lost"};
    rec.file = "slave1/cam00-rec.h264";
    rec.rate = {{100, 30, 600000}, {101, 30, 600000}, {103, 30, 600000}};
    s.streams.push_back(rec);
    s.snapshots.push_back({1, 0, 1, 101, 10, 101.2, "slave1/snap/cam00-101.jpg"});
    s.snapshots.push_back({1, 0, 1, 102, 10, 102.2, "slave1/snap/cam00-102.jpg"});
    for (int k = 0; k < 3; ++k) {
        status_sample p;
        p.chip = 1;
        p.at = 100.5 + k;
        p.ok = true;
        p.st.heartbit = 100u * static_cast<uint32_t>(k);
        p.st.fps[0] = 30;
        s.status.push_back(p);
    }
    return s;
}

TEST(report, gaps_show_as_empty_seconds_findings_are_escaped_and_only_pictures_that_exist_are_shown)
{
    temp_dir dir;
    std::filesystem::create_directories(dir.path() + "/slave1/snap");
    std::ofstream(dir.path() + "/slave1/snap/cam00-101.jpg") << "not looked at";
    std::ofstream(dir.path() + "/slave1/cam00-rec.h264") << "frames";
    record_summary s = sample(dir.path());

    report_result r = write_report(s);
    ASSERT_EQ(r.rc, 0);
    EXPECT_TRUE(r.notes.empty()) << r.notes.front();
    EXPECT_EQ(r.page, dir.path() + "/report.html");

    // Second by second from the recording's start; the lost second is a 0.
    std::istringstream data(slurp(dir.path() + "/report/data/slave1-cam00-rec.dat"));
    std::string line;
    std::vector<std::string> rows;
    while (std::getline(data, line))
        if (!line.empty() && line[0] != '#')
            rows.push_back(line);
    EXPECT_EQ(rows, (std::vector<std::string>{"0 4800.0 30", "1 4800.0 30", "2 0.0 0", "3 4800.0 30"}));

    const std::string html = slurp(r.page);
    EXPECT_EQ(html.find("<script>alert"), std::string::npos);
    EXPECT_NE(html.find("&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos);
    EXPECT_NE(html.find("<img class=\"thumb\" src=\"slave1/snap/cam00-101.jpg\""), std::string::npos);
    EXPECT_EQ(html.find("cam00-102.jpg"), std::string::npos) << "a snapshot that was not kept";
    EXPECT_EQ(html.find("overlay.png"), std::string::npos) << "no overlay was saved";
    EXPECT_EQ(html.find("layout.png"), std::string::npos) << "no layout was drawn";
    EXPECT_NE(html.find("href=\"slave1/cam00-rec.h264\""), std::string::npos);
    EXPECT_EQ(html.find(".mp4"), std::string::npos) << "no MP4 was written";
    // The plots gnuplot drew are on the page.
    for (const char* png : {"report/slave1-cam00-rate.png", "report/slave1-status.png"}) {
        EXPECT_TRUE(std::filesystem::exists(dir.path() + "/" + png)) << png;
        EXPECT_NE(html.find(std::string("src=\"") + png + "\""), std::string::npos) << png;
    }
}

TEST(report, without_gnuplot_the_page_is_written_without_plots_and_says_why)
{
    temp_dir dir;
    const char* path = getenv("PATH");
    const std::string saved = path != nullptr ? path : "";
    setenv("PATH", dir.path().c_str(), 1);
    report_result r = write_report(sample(dir.path()));
    setenv("PATH", saved.c_str(), 1);
    ASSERT_EQ(r.rc, 0);
    ASSERT_EQ(r.notes.size(), 1u);
    EXPECT_NE(r.notes[0].find("gnuplot"), std::string::npos) << r.notes[0];
    const std::string html = slurp(r.page);
    EXPECT_EQ(html.find("rate.png"), std::string::npos);
    EXPECT_NE(html.find("gnuplot"), std::string::npos) << "the page says what is missing";
}

}  // namespace
