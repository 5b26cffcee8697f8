// Per-stream statistics: frames, bytes, key frames, and the gap rules.
#include <gtest/gtest.h>

#include "master/stats.h"
#include "master_test_util.h"

using namespace mtest;

namespace {

record_frame rec_frame(uint8_t cam, uint8_t low, uint32_t time, uint8_t idx, uint32_t len, uint8_t key = 0)
{
    record_frame f{};
    f.entry.cam = cam;
    f.entry.low = low;
    f.entry.frame_idx = idx;
    f.entry.len = len;
    f.entry.key = key;
    f.time = time;
    return f;
}

uint64_t gaps(const slave_stats& s, stream_kind k, int number, int low = 0)
{
    auto it = s.streams.find({k, number, low});
    return it == s.streams.end() ? ~0ull : it->second.gaps;
}

TEST(stats, record_streams_are_kept_per_camera_and_main_or_low)
{
    slave_stats s;
    record_batch b;
    b.note.bytes = 5000;
    b.frames = {rec_frame(2, 0, 100, 0, 1000, 1), rec_frame(2, 1, 100, 0, 300, 1), rec_frame(2, 0, 100, 1, 500),
                rec_frame(3, 0, 100, 0, 700)};
    account(s, b);
    EXPECT_EQ(s.record.notes, 1u);
    EXPECT_EQ(s.record.frames, 4u);
    EXPECT_EQ(s.record.bytes, 5000u);
    const stream_stats& main2 = s.streams.at({stream_kind::record, 2, 0});
    EXPECT_EQ(main2.frames, 2u);
    EXPECT_EQ(main2.bytes, 1500u);
    EXPECT_EQ(main2.key_frames, 1u);
    EXPECT_EQ(s.streams.at({stream_kind::record, 2, 1}).bytes, 300u);
    EXPECT_EQ(s.streams.size(), 3u);
}

TEST(stats, record_gap_is_any_step_but_next_index_or_next_second)
{
    slave_stats s;
    record_batch b;
    b.frames = {
        rec_frame(0, 0, 100, 0, 1), rec_frame(0, 0, 100, 1, 1),
        rec_frame(0, 0, 101, 0, 1),  // next second: no gap
        rec_frame(0, 0, 101, 2, 1),  // index 1 lost: gap
        rec_frame(0, 0, 103, 0, 1),  // second 102 lost: gap
        rec_frame(0, 0, 102, 5, 1),  // backwards: gap
    };
    account(s, b);
    EXPECT_EQ(gaps(s, stream_kind::record, 0), 3u);

    // The sequence continues across notifications.
    record_batch next;
    next.frames = {rec_frame(0, 0, 102, 6, 1)};
    account(s, next);
    EXPECT_EQ(gaps(s, stream_kind::record, 0), 3u);
}

TEST(stats, network_gap_is_a_step_beyond_two_frame_periods_or_backwards)
{
    slave_stats s;
    network_batch b;
    auto fr = [](int stream, uint32_t msec, uint8_t fps, uint8_t mday = 14) {
        network_frame f{};
        f.stream = stream;
        f.desc = net_desc(10, msec, 0, fps);
        f.desc.mday = mday;
        return f;
    };
    b.frames = {
        fr(5, 1000, 30), fr(5, 1033, 30), fr(5, 1099, 30),  // 66 ms = two periods: no gap
        fr(5, 1200, 30),                                     // 101 ms: gap
        fr(5, 1200, 30),                                     // repeated: gap
        fr(5, 100, 30, 15),                                  // next day starts afresh
        fr(5, 133, 30, 15),
        fr(6, 0, 0), fr(6, 2000, 0),                         // fps 0: period 1 s, so 2 s is no gap
    };
    account(s, b);
    EXPECT_EQ(gaps(s, stream_kind::network, 5), 2u);
    EXPECT_EQ(gaps(s, stream_kind::network, 6), 0u);
    EXPECT_EQ(s.streams.at({stream_kind::network, 5, 0}).frames, 7u);
}

TEST(stats, snapshot_gap_is_more_than_two_seconds_or_backwards)
{
    slave_stats s;
    jpeg_batch b;
    b.pictures = {{8, {1, 100, 10, 0}}, {8, {1, 100, 10, 10}}, {8, {1, 102, 10, 20}},
                  {8, {1, 105, 10, 30}}, {8, {1, 104, 10, 40}}};
    account(s, b);
    EXPECT_EQ(gaps(s, stream_kind::jpeg, 8), 2u);
    EXPECT_EQ(s.streams.at({stream_kind::jpeg, 8, 0}).key_frames, 5u);
}

TEST(stats, bad_and_rejected_notifications_are_counted_and_described)
{
    slave_stats s;
    record_batch rejected;
    rejected.check.reject("claims %u bytes", 5u);
    rejected.note.bytes = 5;
    account(s, rejected);
    EXPECT_EQ(s.record.bad, 1u);
    EXPECT_EQ(s.record.rejected, 1u);
    EXPECT_EQ(s.record.bytes, 0u);  // nothing of it is counted as data

    for (int k = 0; k < 20; ++k) {
        motion_report m;
        m.check.add("row %d", k);
        account(s, m);
    }
    EXPECT_EQ(s.motion.bad, 20u);
    EXPECT_EQ(s.motion.frames, 20u);  // odd but used
    ASSERT_EQ(s.last_bad.size(), STATS_BAD_KEPT);
    EXPECT_EQ(s.last_bad.back(), "motion report; row 19");
}

}  // namespace
