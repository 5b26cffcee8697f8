// Per-stream statistics: the gap rules, and streams kept apart.
#include <gtest/gtest.h>

#include "master/stats.h"
#include "master_test_util.h"

using namespace mtest;

namespace {

record_frame rec_frame(uint8_t low, uint32_t time, uint8_t idx)
{
    record_frame f{};
    f.entry.cam = 2;
    f.entry.low = low;
    f.entry.frame_idx = idx;
    f.entry.len = 10;
    f.time = time;
    return f;
}

uint64_t gaps(const slave_stats& s, stream_kind k, int number, int low = 0)
{
    auto it = s.streams.find({k, number, low});
    return it == s.streams.end() ? ~0ull : it->second.gaps;
}

TEST(stats, record_gap_is_any_step_but_next_index_or_next_second)
{
    slave_stats s;
    record_batch b;
    b.frames = {
        rec_frame(0, 100, 0), rec_frame(1, 100, 0),  // the low stream is its own sequence
        rec_frame(0, 100, 1), rec_frame(1, 100, 1),
        rec_frame(0, 101, 0),  // next second: no gap
        rec_frame(0, 101, 2),  // index 1 lost: gap
        rec_frame(0, 103, 0),  // second 102 lost: gap
        rec_frame(0, 102, 5),  // backwards: gap
    };
    account(s, b);
    EXPECT_EQ(gaps(s, stream_kind::record, 2, 0), 3u);
    EXPECT_EQ(gaps(s, stream_kind::record, 2, 1), 0u);
    EXPECT_EQ(s.streams.at({stream_kind::record, 2, 0}).frames, 6u);

    // The sequence continues across notifications.
    record_batch next;
    next.frames = {rec_frame(0, 102, 6)};
    account(s, next);
    EXPECT_EQ(gaps(s, stream_kind::record, 2, 0), 3u);
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
        fr(6, 0, 0), fr(6, 2000, 0),                         // fps 0: period 1 s, so 2 s is no gap
    };
    account(s, b);
    EXPECT_EQ(gaps(s, stream_kind::network, 5), 2u);
    EXPECT_EQ(gaps(s, stream_kind::network, 6), 0u);
}

TEST(stats, snapshot_gap_is_more_than_two_seconds_or_backwards)
{
    slave_stats s;
    jpeg_batch b;
    b.pictures = {{8, {1, 100, 10, 0}}, {8, {1, 100, 10, 10}}, {8, {1, 102, 10, 20}},
                  {8, {1, 105, 10, 30}}, {8, {1, 104, 10, 40}}};
    account(s, b);
    EXPECT_EQ(gaps(s, stream_kind::jpeg, 8), 2u);
}

TEST(stats, a_rejected_batch_counts_as_bad_and_adds_no_data)
{
    slave_stats s;
    record_batch rejected;
    rejected.check.reject("claims %u bytes", 5u);
    rejected.note.bytes = 5;
    account(s, rejected);
    EXPECT_EQ(s.record.bad, 1u);
    EXPECT_EQ(s.record.rejected, 1u);
    EXPECT_EQ(s.record.bytes, 0u);
    EXPECT_EQ(s.last_bad.back(), "record buffer; claims 5 bytes");
}

}  // namespace
