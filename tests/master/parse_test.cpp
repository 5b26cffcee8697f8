// Parsing what a slave wrote: byte-exact results for good contents, and for
// bad ones a finding, no read outside the window and nothing invented.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "master/parse.h"
#include "master_test_util.h"

using namespace mtest;

namespace {

class parse_test : public ::testing::Test {
protected:
    parse_test() : mem_(static_cast<size_t>(NUM_WINDOWS) * WINDOW_SIZE, 0)
    {
        for (int k = 0; k < NUM_WINDOWS; ++k)
            ws_[k] = win(k);
    }
    std::span<uint8_t> win(int k)
    {
        return std::span<uint8_t>(mem_).subspan(static_cast<size_t>(k) * WINDOW_SIZE, WINDOW_SIZE);
    }
    record_batch record(uint32_t window, uint32_t bytes, uint32_t frames)
    {
        record_note_t n{window, bytes, frames, 0};
        return parse_record(bytes_of(n), ws_);
    }
    void patch_entry(int k, const std::function<void(mmd_t&)>& change)
    {
        size_t at = offsetof(ebuf_head_t, mmd) + sizeof(mmd_t) * static_cast<size_t>(k);
        mmd_t e = load_at<mmd_t>(ws_[1], at);
        change(e);
        std::memcpy(win(1).data() + at, &e, sizeof(e));
    }

    std::vector<uint8_t> mem_;
    window_set ws_;
};

TEST_F(parse_test, record_buffer_gives_every_frame_with_its_bytes_and_times)
{
    std::vector<frame_spec> frames = {
        {3, 0, 0, 1, 1715680000, 1000}, {3, 1, 0, 0, 1715680000, 17}, {11, 0, 1, 1, 1715680001, 4096}};
    uint32_t bytes = write_record(win(1), frames);
    record_batch b = record(1, bytes, 3);
    EXPECT_FALSE(b.check.bad()) << b.check.problems.front();
    ASSERT_EQ(b.frames.size(), 3u);
    uint32_t expect_off = EBUF_HEAD_SIZE;
    for (size_t k = 0; k < frames.size(); ++k) {
        const record_frame& f = b.frames[k];
        EXPECT_EQ(f.entry.cam, frames[k].cam);
        EXPECT_EQ(f.entry.low, frames[k].low);
        EXPECT_EQ(f.entry.len, frames[k].len);
        EXPECT_EQ(f.time, frames[k].time);
        EXPECT_EQ(f.attr, 0x40 + k);
        EXPECT_EQ(f.offset, expect_off);
        for (uint32_t i = 0; i < f.entry.len; ++i)
            ASSERT_EQ(ws_[1][f.offset + i], static_cast<uint8_t>((k * 7 + i) & 0xff)) << "frame " << k;
        expect_off += f.entry.len;
    }

    // An empty record is a bare header.
    bytes = write_record(win(1), {});
    EXPECT_EQ(bytes, 22104u);
    EXPECT_FALSE(record(1, bytes, 0).check.bad());
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
        std::memcpy(win(1).data() + offsetof(ebuf_head_t, num_mmd), &c.num_mmd, 4);
        std::memcpy(win(1).data() + offsetof(ebuf_head_t, buf_off), &c.buf_off, 4);
        record_batch b = record(c.window, c.bytes, 0);
        EXPECT_TRUE(b.check.rejected);
        EXPECT_TRUE(b.frames.empty());
    }
    EXPECT_TRUE(parse_record(std::vector<uint8_t>(12, 0), ws_).check.rejected);
}

TEST_F(parse_test, record_frame_pointing_past_its_data_is_skipped_alone)
{
    write_record(win(1), {{0, 0, 0, 1, 100, 50}, {0, 1, 0, 0, 100, 50}, {0, 2, 0, 0, 100, 50}});
    patch_entry(1, [](mmd_t& e) { e.len = 1000; });
    patch_entry(2, [](mmd_t& e) {  // would wrap a 32-bit sum
        e.data = 0xFFFFFFF0u;
        e.len = 0x20;
    });
    record_batch b = record(1, EBUF_HEAD_SIZE + 150, 3);
    EXPECT_FALSE(b.check.rejected);
    EXPECT_EQ(b.check.problems.size(), 2u);
    ASSERT_EQ(b.frames.size(), 1u);
    EXPECT_EQ(b.frames[0].entry.frame_idx, 0);

    // Odd values are reported, the frame kept.
    write_record(win(1), {{0, 0, 0, 1, 100, 10}});
    patch_entry(0, [](mmd_t& e) { e.const12 = 0; });
    win(1)[offsetof(ebuf_head_t, mmd_mday)] = 0;
    b = record(1, EBUF_HEAD_SIZE + 10, 2);  // and counts 2 frames where the record has 1
    EXPECT_EQ(b.check.problems.size(), 3u);
    EXPECT_EQ(b.frames.size(), 1u);
}

TEST_F(parse_test, network_batch_walks_descriptors_and_data_back_to_back)
{
    std::vector<nbuf_desc_t> d = {net_desc(100, 1000, 1), net_desc(200, 1033), net_desc(300, 1066)};
    uint32_t bytes = write_network(win(2), d);
    ASSERT_EQ(bytes, 684u);
    network_note_t n = net_note(bytes, {3, 11, 19});
    network_batch b = parse_network(bytes_of(n), ws_);
    EXPECT_FALSE(b.check.bad());
    ASSERT_EQ(b.frames.size(), 3u);
    const uint32_t offsets[] = {28, 156, 384};
    for (size_t k = 0; k < 3; ++k) {
        EXPECT_EQ(b.frames[k].offset, offsets[k]);
        EXPECT_EQ(b.frames[k].stream, n.stream[k]);
        EXPECT_EQ(0, std::memcmp(&b.frames[k].desc, &d[k], sizeof(nbuf_desc_t)));
        EXPECT_EQ(ws_[2][offsets[k]], static_cast<uint8_t>(k));
    }
    // A payload cut after its frames' stream bytes is enough.
    EXPECT_EQ(parse_network(bytes_of(n).first(15), ws_).frames.size(), 3u);
}

TEST_F(parse_test, network_batch_never_reads_past_what_was_written)
{
    write_network(win(2), {net_desc(100, 0), net_desc(5000, 33)});
    struct bad_case {
        const char* what;
        network_note_t note;
        size_t frames_kept;
    };
    const bad_case cases[] = {
        {"frame 1 runs past the total", net_note(28 + 100 + 28 + 50, {1, 1}), 1},
        {"descriptor 1 starts past the total", net_note(128 + 10, {1, 1}), 1},
        {"bytes left after the last frame", net_note(128 + 4, {1}), 1},
        {"more than the window", net_note(WINDOW_SIZE + 28, {1}), 0},
    };
    for (const bad_case& c : cases) {
        SCOPED_TRACE(c.what);
        network_batch b = parse_network(bytes_of(c.note), ws_);
        EXPECT_TRUE(b.check.bad());
        EXPECT_EQ(b.frames.size(), c.frames_kept);
    }
    network_note_t many = net_note(0, {});
    many.frames = 129;
    EXPECT_TRUE(parse_network(bytes_of(many), ws_).check.rejected);
    network_note_t three = net_note(128, {1, 2, 3});
    EXPECT_TRUE(parse_network(bytes_of(three).first(14), ws_).check.rejected);  // a stream byte missing
}

TEST_F(parse_test, jpeg_batch_is_placed_by_offsets_and_held_to_its_limits)
{
    jpeg_note_t n{};
    n.bytes = 12000;
    n.count = 2;
    n.stream[0] = 8;
    n.stream[1] = 9;
    n.desc[0] = {1, 1715680000, 5000, 0};
    n.desc[1] = {0, 1715680001, 7000, 5000};
    jpeg_batch b = parse_jpeg(bytes_of(n), ws_);
    EXPECT_FALSE(b.check.bad());
    ASSERT_EQ(b.pictures.size(), 2u);
    EXPECT_EQ(b.pictures[1].stream, 9u);
    EXPECT_EQ(b.pictures[1].desc.data, 5000u);

    n.desc[1] = {1, 1, 7001, 5000};  // one byte past the total
    EXPECT_EQ(parse_jpeg(bytes_of(n), ws_).pictures.size(), 1u);
    n.desc[1] = {1, 1, 0xFFFFFFFFu, 0xFFFFFFFFu};
    EXPECT_EQ(parse_jpeg(bytes_of(n), ws_).pictures.size(), 1u);
    EXPECT_TRUE(parse_jpeg(bytes_of(n).first(83), ws_).check.rejected);  // two pictures need 84
    n.count = 11;
    EXPECT_TRUE(parse_jpeg(bytes_of(n), ws_).check.rejected);
}

TEST_F(parse_test, motion_report_counts_moved_cells)
{
    motion_note_t n{};
    n.cam = 11;
    n.rows[0] = 0x3;
    n.rows[17] = 0x80000000u;
    motion_report m = parse_motion(bytes_of(n));
    EXPECT_FALSE(m.check.bad());
    EXPECT_EQ(m.moved_cells, 3);
    n.rows[18] = 1;
    EXPECT_TRUE(parse_motion(bytes_of(n)).check.bad());
    EXPECT_TRUE(parse_motion(bytes_of(n).first(131)).check.rejected);
}

}  // namespace
