// Playback at 1080p with a master that hands records down faster than the
// board decodes them: the slave holds its answers back while its decoder is
// behind, never for long, and its memory stays bounded; a flush drops the
// records queued before it and nothing sent after it.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "master/h264.h"
#include "master/master.h"
#include "master/play.h"
#include "master/record.h"
#include "tests/support/play_records.h"
#include "tests/support/test_board.h"

namespace {

using namespace std::chrono_literals;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr auto PRESSURE = 20s;
constexpr auto WARM_UP = 6s;
#else
constexpr auto PRESSURE = 60s;
constexpr auto WARM_UP = 10s;
#endif
// What the slave may hold above its size before playback (decoder
// channels made, nothing decoded yet): two 1080p decoders with their
// reference and output pictures (about 3 MB each, some 25 MB a decoder),
// the channels' stream buffers (2 MiB each), the landing buffer and the
// master's window as mapped (2 MiB each), the staging room (2 MiB) and
// about six records of 0.4 MB. Measured: about 62 MB. A slave that
// answered at once would hold a full decode queue of records, 300 MB.
constexpr double HELD_ALLOWANCE_MB = 96;
constexpr int CAMERAS = 2;
constexpr int FRAMES_PER_RECORD = 20;  // 10 per camera: a third of a second of video

using playback_pressure_e2e_test = recorded_playback_test<CAMERAS, 1920, 1080, 30>;

double mean_mb(std::vector<size_t>::const_iterator a, std::vector<size_t>::const_iterator b)
{
    return b > a ? static_cast<double>(std::accumulate(a, b, size_t{0})) / static_cast<double>(b - a) / 1024.0 : 0;
}

// The answers of port 107 are held while three or more records wait, up to
// about a second each, and the slave's resident size stops growing once its
// decoders and buffers are made: what it holds is a few records (at most
// three waiting when an answer leaves, the two of that transfer and the one
// being decoded: six records of about 0.4 MB), the landing buffer and the
// decoder channels' stream buffers (2 MiB each), all reached in the first
// seconds. A slave that answered at once would take the records as fast as
// the master writes them, hundreds of megabytes a minute.
TEST_F(playback_pressure_e2e_test, answers_are_held_briefly_and_memory_stays_bounded)
{
    ASSERT_EQ(summary_, 0);
    temp_board_dir board;
    tmaster::play_options o = options(board);
    o.frames_per_record = FRAMES_PER_RECORD;
    o.at_least = PRESSURE;
    o.settle = 20s;
    tmaster::play_summary s = tmaster::play(o);
    tmaster::print_play_summary(stdout, s);
    ASSERT_EQ(s.rc, 0) << s.error;
    EXPECT_EQ(s.refused, 0u);

    // Held: many answers wait for the decoder (how long depends on how fast
    // the host decodes; a slave that answered at once would hold none 30 ms),
    // none much past a second.
    const auto held = std::count_if(s.hold_ms.begin(), s.hold_ms.end(), [](double ms) { return ms >= 30; });
    std::printf("   %zu answers, %td held 30 ms or more, longest %.0f ms\n", s.hold_ms.size(), held, s.max_hold_ms);
    EXPECT_GE(held, static_cast<long>(s.hold_ms.size() / 4));
    EXPECT_LT(s.max_hold_ms, 1300.0);

    // Everything sent was decoded: the records held back were not lost.
    for (const tmaster::play_camera& c : s.cameras) {
        SCOPED_TRACE(c.camera);
        EXPECT_EQ(c.pictures, c.frames_sent);
        EXPECT_EQ(c.last_seq, c.last_seq_sent);
        EXPECT_EQ(c.dec_width, 1920u);
        EXPECT_EQ(c.dec_height, 1080u);
    }

    // Resident size once a second: within the allowance above where it
    // began, and after the warm-up within a few records of where it was,
    // with no upward trend.
    const size_t warm = static_cast<size_t>(std::chrono::duration_cast<std::chrono::seconds>(WARM_UP).count());
    ASSERT_GT(s.rss_kb.size(), 2 * warm) << "too few samples";
    auto at = [&](size_t i) { return s.rss_kb.begin() + static_cast<long>(i); };
    const double start = static_cast<double>(s.rss_kb.front()) / 1024;
    const double base = static_cast<double>(*std::max_element(at(warm / 2), at(warm))) / 1024;
    const double top = static_cast<double>(*std::max_element(at(warm), s.rss_kb.end())) / 1024;
    const size_t third = (s.rss_kb.size() - warm) / 3;
    const double early = mean_mb(at(warm), at(warm + third));
    const double late = mean_mb(s.rss_kb.end() - static_cast<long>(third), s.rss_kb.end());
    std::printf("   VmRSS: %.1f MB at the start, %.1f MB at the warm-up, at most %.1f MB after; %.1f MB early, "
                "%.1f MB late\n",
                start, base, top, early, late);
#if defined(__SANITIZE_ADDRESS__)
    // The address sanitizer keeps freed blocks (up to 256 MB) in quarantine:
    // the resident size shows the quarantine filling, not the slave.
    std::printf("   (resident size not judged under the address sanitizer)\n");
#else
#if !defined(__SANITIZE_THREAD__)  // its shadow memory multiplies every figure
    EXPECT_LT(top, start + HELD_ALLOWANCE_MB);
#endif
    EXPECT_LT(top, base + 16);
    EXPECT_LT(late, early + 8);
#endif
}

// Camera 0's records are sent until the decoder is well behind, then the
// flush, then camera 1's from its first key frame. Camera 0 decodes a
// whole number of its records from the first on and loses the rest (they
// were queued before the flush); camera 1 decodes every frame.
TEST_F(playback_pressure_e2e_test, a_flush_drops_the_records_queued_before_it_and_none_after)
{
    ASSERT_EQ(summary_, 0);
    const recorded_stream cam0 = read_stream(recorded_->file("rec/slave1/cam00-rec.h264"));
    const recorded_stream cam1 = read_stream(recorded_->file("rec/slave1/cam01-rec.h264"));
    ASSERT_GT(cam0.aus.size(), 100u);
    ASSERT_GT(cam1.aus.size(), 100u);
    constexpr size_t per = 15;
    const auto before = records_of(cam0, 0, 1920, 1080, 0, cam0.aus.size(), per);
    const auto after = records_of(cam1, 1, 1920, 1080, 0, cam1.aus.size(), per);

    temp_board_dir board;
    tmaster::master_options mo;
    mo.board = board.path();
    tmaster::master m(mo);
    ASSERT_EQ(m.open(), 0) << m.error();
    std::string err;
    ASSERT_GT(tmaster::start_playback(m, options(board), &err), 0) << err;

    // Sent at once, the records outrun the decoder: when the last one is
    // answered, two or three wait in the decode queue.
    for (const auto& r : before)
        ASSERT_TRUE(m.play_transfer(1, tmaster::PLAY_ONE, r, 0, 10s));
    // The intake answers a transfer when it has pulled it and queues the
    // record just after: a flush sent at once could reach the decode queue
    // before the last record, which would then be decoded after the flush
    // (and in part, its references gone).
    std::this_thread::sleep_for(30ms);
    ASSERT_EQ(tmaster::play_command(m, 1, tmaster::PLAY_FLUSH, 0), 0);
    for (const auto& r : after)
        ASSERT_TRUE(m.play_transfer(1, tmaster::PLAY_ONE, r, 0, 10s));

    const std::string media = board.file("chip1/media.json");
    const tmaster::media_vdec c1 = wait_channel(media, 1, cam1.aus.size(), cam1.seq.back(), 30s);
    EXPECT_EQ(c1.pictures, cam1.aus.size());
    EXPECT_EQ(c1.seq, cam1.seq.back());
    EXPECT_EQ(c1.undecoded, 0u);
    EXPECT_EQ(c1.refused, 0u);

    // Camera 0: its first records whole, then nothing; let the board
    // publish its counters once more first.
    std::this_thread::sleep_for(1500ms);
    const tmaster::media_vdec c0 = media_channel(media, 0);
    std::printf("   camera 0: %llu of %zu frames decoded before the flush (records of %zu); camera 1: %llu of %zu\n",
                static_cast<unsigned long long>(c0.pictures), cam0.aus.size(), per,
                static_cast<unsigned long long>(c1.pictures), cam1.aus.size());
    EXPECT_GT(c0.pictures, 0u);
    EXPECT_LT(c0.pictures, cam0.aus.size()) << "the flush dropped nothing";
    ASSERT_TRUE(c0.have_last);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // Under the sanitizers the board's 1080p decoder falls so far behind
    // that a send to it times out now and then, and the camera waits for
    // its next key frame: records are then decoded in part by design.
    EXPECT_EQ(c0.pictures % per, 0u) << "a record was decoded in part";
    if (c0.pictures > 0 && c0.pictures <= cam0.aus.size()) {
        EXPECT_EQ(c0.seq, cam0.seq[c0.pictures - 1]);
    }
    EXPECT_EQ(c0.undecoded, 0u);
#endif
    m.close();
}

}  // namespace
