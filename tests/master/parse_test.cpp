// What the master makes of a slave's batches. Parsing: byte-exact results for
// good contents, and for bad ones a finding, no read outside the window and
// nothing invented. Statistics: the gap rule of each kind, streams kept apart.
#include <gtest/gtest.h>

#include "master/parse.h"
#include "master/stats.h"
#include "master_test_util.h"

using namespace mtest;

namespace {

class parse_test : public ::testing::Test {
protected:
    parse_test()
    {
        for (int k = 0; k < NUM_WINDOWS; ++k) {
            mem_[k].resize(WINDOW_SIZE);
            ws_[k] = mem_[k];
        }
    }
    record_batch record(uint32_t window, uint32_t bytes, uint32_t frames)
    {
        record_note_t n{window, bytes, frames, 0};
        return parse_record(bytes_of(n), ws_);
    }
    void patch_entry(int k, uint32_t data, uint32_t len)
    {
        uint8_t* e = mem_[1].data() + offsetof(ebuf_head_t, mmd) + sizeof(mmd_t) * static_cast<size_t>(k);
        std::memcpy(e + offsetof(mmd_t, data), &data, 4);
        std::memcpy(e + offsetof(mmd_t, len), &len, 4);
    }

    std::array<std::vector<uint8_t>, NUM_WINDOWS> mem_;
    window_set ws_;
};

TEST_F(parse_test, record_buffer_gives_every_frame_with_its_bytes_and_times)
{
    std::vector<crafted_frame> frames = {
        {3, 0, 0, 1715680000, 1000}, {3, 1, 0, 1715680000, 17}, {11, 0, 1, 1715680001, 4096}};
    record_batch b = record(1, write_record(mem_[1], frames), 3);
    EXPECT_FALSE(b.check.bad()) << b.check.problems.front();
    ASSERT_EQ(b.frames.size(), 3u);
    for (size_t k = 0; k < frames.size(); ++k) {
        const record_frame& f = b.frames[k];
        EXPECT_EQ(f.time, frames[k].time);
        EXPECT_EQ(f.attr, 0x40 + k);
        for (uint32_t i = 0; i < frames[k].len; ++i)
            ASSERT_EQ(ws_[1][f.offset + i], static_cast<uint8_t>((k * 7 + i) & 0xff)) << "frame " << k;
    }
    // An empty record is a bare header.
    EXPECT_FALSE(record(1, write_record(mem_[1], {}), 0).check.bad());
}

TEST_F(parse_test, record_with_untrustworthy_index_is_rejected_whole)
{
    struct bad_case {
        const char* what;
        uint32_t window, bytes;
        int32_t num_mmd, buf_off;
    };
    const bad_case cases[] = {
        {"window index past 3", 4, EBUF_HEAD_SIZE, 0, 0},
        {"more bytes than the window", 1, WINDOW_SIZE + 1, 0, 0},
        {"fewer bytes than a header", 1, EBUF_HEAD_SIZE - 1, 0, 0},
        {"num_mmd 480", 1, EBUF_HEAD_SIZE, 480, 0},
        {"negative num_mmd", 1, EBUF_HEAD_SIZE, -1, 0},
        {"buf_off past the bytes written", 1, EBUF_HEAD_SIZE + 100, 0, 101},
        {"negative buf_off", 1, EBUF_HEAD_SIZE, 0, -5},
    };
    for (const bad_case& c : cases) {
        SCOPED_TRACE(c.what);
        std::memcpy(mem_[1].data() + offsetof(ebuf_head_t, num_mmd), &c.num_mmd, 4);
        std::memcpy(mem_[1].data() + offsetof(ebuf_head_t, buf_off), &c.buf_off, 4);
        record_batch b = record(c.window, c.bytes, 0);
        EXPECT_TRUE(b.check.rejected);
        EXPECT_TRUE(b.frames.empty());
    }
    EXPECT_TRUE(parse_record(std::vector<uint8_t>(12, 0), ws_).check.rejected);
}

TEST_F(parse_test, record_frame_pointing_past_its_data_is_skipped_alone)
{
    write_record(mem_[1], {{0, 0, 0, 100, 50}, {0, 1, 0, 100, 50}, {0, 2, 0, 100, 50}});
    patch_entry(1, 50, 1000);
    patch_entry(2, 0xFFFFFFF0u, 0x20);  // would wrap a 32-bit sum
    record_batch b = record(1, EBUF_HEAD_SIZE + 150, 3);
    EXPECT_FALSE(b.check.rejected);
    EXPECT_EQ(b.check.problems.size(), 2u);
    ASSERT_EQ(b.frames.size(), 1u);
    EXPECT_EQ(b.frames[0].entry.frame_idx, 0);
}

TEST_F(parse_test, network_batch_walks_descriptors_and_data_and_never_past_what_was_written)
{
    std::vector<nbuf_desc_t> d = {net_desc(100, 1000), net_desc(200, 1033), net_desc(300, 1066)};
    network_note_t n = net_note(write_network(mem_[2], d), {3, 11, 19});
    network_batch b = parse_network(bytes_of(n), ws_);
    EXPECT_FALSE(b.check.bad());
    ASSERT_EQ(b.frames.size(), 3u);
    const uint32_t offsets[] = {28, 156, 384};
    for (size_t k = 0; k < 3; ++k) {
        EXPECT_EQ(b.frames[k].offset, offsets[k]);
        EXPECT_EQ(b.frames[k].stream, n.stream[k]);
    }
    // A payload cut after its frames' stream bytes is enough; one byte less is not.
    EXPECT_EQ(parse_network(bytes_of(n).first(15), ws_).frames.size(), 3u);
    EXPECT_TRUE(parse_network(bytes_of(n).first(14), ws_).check.rejected);

    struct bad_case {
        const char* what;
        network_note_t note;
        size_t frames_kept;
    };
    network_note_t many = net_note(0, {});
    many.frames = 129;
    const bad_case cases[] = {
        {"frame 1 runs past the total", net_note(156 + 199, {1, 1}), 1},
        {"descriptor 1 starts past the total", net_note(128 + 10, {1, 1}), 1},
        {"bytes left after the last frame", net_note(128 + 4, {1}), 1},
        {"more than the window", net_note(WINDOW_SIZE + 28, {1}), 0},
        {"129 frames", many, 0},
    };
    for (const bad_case& c : cases) {
        SCOPED_TRACE(c.what);
        network_batch b = parse_network(bytes_of(c.note), ws_);
        EXPECT_TRUE(b.check.bad());
        EXPECT_EQ(b.frames.size(), c.frames_kept);
    }
}

TEST_F(parse_test, snapshots_and_motion_are_held_to_their_limits)
{
    jpeg_note_t n{0, 12000, 2, {8, 9}, {{1, 1715680000, 5000, 0}, {0, 1715680001, 7000, 5000}}};
    jpeg_batch b = parse_jpeg(bytes_of(n), ws_);
    EXPECT_FALSE(b.check.bad());
    ASSERT_EQ(b.pictures.size(), 2u);
    EXPECT_EQ(b.pictures[1].stream, 9u);
    EXPECT_EQ(b.pictures[1].desc.data, 5000u);
    n.desc[1] = {1, 1, 0xFFFFFFFFu, 0xFFFFFFFFu};  // past the total, and wrapping a 32-bit sum
    EXPECT_EQ(parse_jpeg(bytes_of(n), ws_).pictures.size(), 1u);
    EXPECT_TRUE(parse_jpeg(bytes_of(n).first(83), ws_).check.rejected);  // two pictures need 84
    n.count = 11;
    EXPECT_TRUE(parse_jpeg(bytes_of(n), ws_).check.rejected);

    motion_note_t m{};
    m.rows[0] = 0x3;
    m.rows[17] = 0x80000000u;
    EXPECT_EQ(parse_motion(bytes_of(m)).moved_cells, 3);
    m.rows[18] = 1;  // no cells from row 18 on
    EXPECT_TRUE(parse_motion(bytes_of(m)).check.bad());
    EXPECT_TRUE(parse_motion(bytes_of(m).first(131)).check.rejected);
}

TEST(stats, record_gap_is_any_step_but_next_index_or_next_second)
{
    auto fr = [](uint8_t low, uint32_t time, uint8_t idx) {
        record_frame f{};
        f.entry.low = low;
        f.entry.frame_idx = idx;
        f.time = time;
        return f;
    };
    slave_stats s;
    record_batch b;
    b.frames = {
        fr(0, 100, 0), fr(1, 100, 0),  // the low stream is its own sequence
        fr(0, 100, 1), fr(1, 100, 1),
        fr(0, 101, 0),  // next second: no gap
        fr(0, 101, 2),  // index 1 lost: gap
        fr(0, 103, 0),  // second 102 lost: gap
        fr(0, 102, 5),  // backwards: gap
    };
    account(s, b);
    b.frames = {fr(0, 102, 6)};  // the sequence continues across notifications
    account(s, b);
    EXPECT_EQ(s.streams.at({stream_kind::record, 0, 0}).gaps, 3u);
    EXPECT_EQ(s.streams.at({stream_kind::record, 0, 0}).frames, 7u);
    EXPECT_EQ(s.streams.at({stream_kind::record, 0, 1}).gaps, 0u);
}

TEST(stats, network_gap_is_a_step_beyond_two_frame_periods_or_backwards)
{
    auto fr = [](int stream, uint32_t msec, uint8_t fps, uint8_t mday = 14) {
        network_frame f{stream, net_desc(10, msec, fps), 0};
        f.desc.mday = mday;
        return f;
    };
    slave_stats s;
    network_batch b;
    b.frames = {
        fr(5, 1000, 30), fr(5, 1033, 30), fr(5, 1099, 30),  // 66 ms = two periods: no gap
        fr(5, 1200, 30),                                     // 101 ms: gap
        fr(5, 1200, 30),                                     // repeated: gap
        fr(5, 100, 30, 15),                                  // next day starts afresh
        fr(6, 0, 0), fr(6, 2000, 0),                         // fps 0: period 1 s, so 2 s is no gap
    };
    account(s, b);
    EXPECT_EQ(s.streams.at({stream_kind::network, 5, 0}).gaps, 2u);
    EXPECT_EQ(s.streams.at({stream_kind::network, 6, 0}).gaps, 0u);
}

TEST(stats, snapshot_gap_is_more_than_two_seconds_or_backwards)
{
    slave_stats s;
    jpeg_batch b;
    b.pictures = {{8, {1, 100, 10, 0}}, {8, {1, 100, 10, 10}}, {8, {1, 102, 10, 20}},
                  {8, {1, 105, 10, 30}}, {8, {1, 104, 10, 40}}};
    account(s, b);
    EXPECT_EQ(s.streams.at({stream_kind::jpeg, 8, 0}).gaps, 2u);
}

}  // namespace
