// The recorder's side of the master: the frame SEI read through H.264's
// emulation prevention, the sequence checks, the record index and network
// descriptor checks, the files and the summary. Batches are crafted in
// windows the way a slave's transfers leave them.
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "master/h264.h"
#include "master/streams.h"
#include "master_test_util.h"

using namespace mtest;

namespace {

TEST(h264, the_frame_sei_is_read_through_emulation_prevention_and_nothing_else_passes)
{
    // Camera 0, channel 0 and seq 3 make runs of zeros the encoder escapes.
    std::vector<uint8_t> au = access_unit(0, 0, 3, true);
    std::vector<uint8_t> nal = sei_nal(0, 0, 3, 0x0000000300000000ull);
    ASSERT_GT(nal.size(), 1u + 2 + 36 + 1);  // escaped
    std::optional<frame_sei> s = parse_frame_sei(nal);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->camera, 0u);
    EXPECT_EQ(s->chn, 0u);
    EXPECT_EQ(s->seq, 3u);
    EXPECT_EQ(s->pts, 0x0000000300000000ull);

    EXPECT_EQ(first_nal_type(au), NAL_SPS);
    EXPECT_EQ(first_nal_type(access_unit(9, 1, 4, false)), NAL_SEI);
    std::optional<frame_sei> f = find_frame_sei(access_unit(12, 33, 70000, false));
    ASSERT_TRUE(f);
    EXPECT_EQ(f->camera, 12u);
    EXPECT_EQ(f->chn, 33u);
    EXPECT_EQ(f->seq, 70000u);

    // Another message before it is stepped over.
    std::vector<uint8_t> two = {0x06, 1, 2, 0xaa, 0xbb};
    std::vector<uint8_t> one = sei_nal(5, 6, 7, 8);
    two.insert(two.end(), one.begin() + 1, one.end());
    ASSERT_TRUE(parse_frame_sei(two));
    EXPECT_EQ(parse_frame_sei(two)->seq, 7u);

    // Wrong identifier, wrong size, cut short, another NAL type: none.
    std::vector<uint8_t> bad = nal;
    bad[3] ^= 1;
    EXPECT_FALSE(parse_frame_sei(bad));
    bad = nal;
    bad[2] = 35;
    EXPECT_FALSE(parse_frame_sei(bad));
    for (size_t n = 0; n < nal.size() - 1; ++n)
        EXPECT_FALSE(parse_frame_sei(std::span(nal).first(n))) << n;
    bad = nal;
    bad[0] = 0x01;
    EXPECT_FALSE(parse_frame_sei(bad));
    EXPECT_FALSE(find_frame_sei(std::vector<uint8_t>{0, 0, 1, 0x65, 1, 2, 3}));
    EXPECT_EQ(first_nal_type({}), -1);
}

TEST(stream_check, sequence_counts_from_the_first_key_frame_and_finds_lost_repeated_reordered_and_foreign)
{
    stream_check c({1, 9, stream_type::rec}, {1920, 1080, 30, 2, 1}, 1);
    EXPECT_FALSE(c.take(access_unit(9, 1, 8, false), false, 0));  // before the first key frame
    EXPECT_TRUE(c.take(access_unit(9, 1, 10, true), true, 1));
    EXPECT_TRUE(c.take(access_unit(9, 1, 11, false), false, 1));
    EXPECT_TRUE(c.take(access_unit(9, 1, 13, false), false, 1));   // 12 lost
    EXPECT_FALSE(c.take(access_unit(9, 1, 13, false), false, 1));  // repeated
    EXPECT_FALSE(c.take(access_unit(9, 1, 12, false), false, 1));  // late
    EXPECT_TRUE(c.take(access_unit(9, 1, 17, false), false, 1));   // 14..16 lost
    EXPECT_FALSE(c.take(access_unit(10, 2, 18, false), false, 1)); // another camera's
    EXPECT_TRUE(c.take(access_unit(9, 1, 18, false), false, 1));   // and on it goes
    EXPECT_TRUE(c.take(access_unit(9, 1, 21, true), true, 1));     // 19..20 lost, on at a key frame
    EXPECT_EQ(c.before_key, 1u);
    EXPECT_EQ(c.frames, 6u);
    EXPECT_EQ(c.key_frames, 2u);
    EXPECT_EQ(c.lost, 6u);
    EXPECT_EQ(c.gaps, 3u);
    EXPECT_EQ(c.gaps_off_key, 2u);  // 13 and 17 went on without a key frame
    EXPECT_EQ(c.repeated, 1u);
    EXPECT_EQ(c.reordered, 1u);
    EXPECT_EQ(c.foreign, 1u);
    EXPECT_EQ(c.first_seq, 10u);
    EXPECT_EQ(c.last_seq, 21u);
    EXPECT_EQ(c.problems().count, 8u);
    EXPECT_EQ(c.problems().kept[0], "lost 1 frame(s): seq 12..12");
    EXPECT_EQ(c.problems().kept[1], "seq 13 goes on after the gap without a key frame");

    // A key flag that is not "the first NAL unit is an SPS", and another
    // encoder channel, are violations; the frames stay.
    stream_check d({1, 9, stream_type::netlow}, {352, 288, 15, 2, 1}, 33);
    EXPECT_TRUE(d.take(access_unit(9, 33, 0, true), false, 0));
    EXPECT_TRUE(d.take(access_unit(9, 34, 1, false), true, 0));
    EXPECT_EQ(d.problems().count, 3u);

    // A frame without the SEI is kept and listed; the sequence is counted
    // from the first frame that carries one.
    stream_check e({1, 9, stream_type::rec}, {1920, 1080, 30, 2, 1}, 1);
    EXPECT_TRUE(e.take(std::vector<uint8_t>{0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x65, 0x88}, true, 0));
    EXPECT_TRUE(e.take(access_unit(9, 1, 500, false), false, 0));
    EXPECT_TRUE(e.take(access_unit(9, 1, 501, false), false, 0));
    EXPECT_EQ(e.no_sei, 1u);
    EXPECT_EQ(e.lost, 0u);
    EXPECT_EQ(e.first_seq, 500u);
    EXPECT_EQ(e.problems().count, 1u);
}

class recorder_test : public ::testing::Test {
protected:
    recorder_test()
    {
        dir_ = (std::filesystem::temp_directory_path() / "trec-XXXXXX").string();
        if (mkdtemp(dir_.data()) == nullptr)
            ADD_FAILURE() << "mkdtemp";
        for (int k = 0; k < NUM_WINDOWS; ++k) {
            mem_[k].resize(WINDOW_SIZE);
            ws_[k] = mem_[k];
        }
        // A second slave: chip 2 with cameras 8..15.
        plan_.slaves.push_back({2, 8, 8, 8});
        plan_.out = dir_ + "/out";
        // Ten seconds into a minute, so a buffer of a few seconds stays in it.
        now_ = std::time(nullptr) / 60 * 60 + 10;
    }
    ~recorder_test() override { std::filesystem::remove_all(dir_); }

    struct frame {
        uint8_t cam;
        uint8_t low;
        uint32_t seq;
        bool key;
        int64_t t;     // mmd_time, relative to now_
        uint8_t idx;
        int sod_off = 0;  // added to the right second of the day
    };
    // A record buffer in window 1; returns it parsed.
    record_batch record(const std::vector<frame>& frames, int num_mmd = -1)
    {
        ebuf_head_t h{};
        uint32_t off = 0;
        for (size_t k = 0; k < frames.size(); ++k) {
            const frame& f = frames[k];
            std::vector<uint8_t> au = access_unit(f.cam, chn(f.cam, f.low ? 2 : 0), f.seq, f.key);
            time_t t = static_cast<time_t>(now_ + f.t);
            tm b{};
            localtime_r(&t, &b);
            mmd_t& e = h.mmd[k];
            e.cam = f.cam;
            e.frame_idx = f.idx;
            e.low = f.low;
            e.key = f.key;
            e.width = f.low ? 704 : 1920;
            e.height = f.low ? 576 : 1080;
            e.fps = f.low ? 15 : 30;
            e.quality = 2;
            e.const12 = e.const13 = 2;
            e.sec_of_day = static_cast<uint32_t>(b.tm_hour * 3600 + b.tm_min * 60 + b.tm_sec + f.sod_off);
            e.data = off;
            e.len = static_cast<uint32_t>(au.size());
            h.mmd_time[k] = static_cast<uint32_t>(t);
            h.mmd_mday[k] = static_cast<uint8_t>(b.tm_mday);
            h.mmd_attr[k] = 1;
            std::memcpy(mem_[1].data() + EBUF_HEAD_SIZE + off, au.data(), au.size());
            off += e.len;
            aus_[{f.cam, f.low}].insert(aus_[{f.cam, f.low}].end(), au.begin(), au.end());
        }
        h.num_mmd = num_mmd >= 0 ? num_mmd : static_cast<int32_t>(frames.size());
        h.buf_off = static_cast<int32_t>(off);
        h.buf_size = 0x100000;
        std::memcpy(mem_[1].data(), &h, sizeof(h));
        record_note_t n{1, EBUF_HEAD_SIZE + off, static_cast<uint32_t>(h.num_mmd), 0};
        return parse_record(bytes_of(n), ws_);
    }
    void take(recorder& r, const record_batch& b) { r.take_record(2, b, ws_[1], static_cast<double>(now_)); }

    struct net_frame {
        uint8_t stream;
        uint32_t sei_cam;
        uint32_t seq;
        bool key;
        int64_t t;
        uint32_t ms;
        uint16_t width, height;
        uint8_t fps;
    };
    network_batch network(const std::vector<net_frame>& frames)
    {
        network_note_t note{2, 0, static_cast<uint32_t>(frames.size()), {}};
        uint32_t off = 0;
        for (size_t k = 0; k < frames.size(); ++k) {
            const net_frame& f = frames[k];
            bool low = f.stream >= 16 && f.stream < 24;
            std::vector<uint8_t> au = access_unit(f.sei_cam, chn(f.sei_cam, low ? 3 : 0), f.seq, f.key);
            time_t t = static_cast<time_t>(now_ + f.t);
            tm b{};
            localtime_r(&t, &b);
            nbuf_desc_t d{static_cast<uint16_t>(b.tm_year + 1900), static_cast<uint8_t>(b.tm_mon + 1),
                          static_cast<uint8_t>(b.tm_mday),
                          static_cast<uint32_t>((b.tm_hour * 3600 + b.tm_min * 60 + b.tm_sec) * 1000) + f.ms, 0,
                          static_cast<uint16_t>(f.key), f.width, f.height, f.fps, 1, 2, 0,
                          static_cast<uint32_t>(au.size()), 0x1234};
            std::memcpy(mem_[2].data() + off, &d, sizeof(d));
            std::memcpy(mem_[2].data() + off + sizeof(d), au.data(), au.size());
            off += static_cast<uint32_t>(sizeof(d) + au.size());
            note.stream[k] = f.stream;
        }
        note.bytes = off;
        return parse_network(bytes_of(note), ws_);
    }
    void take(recorder& r, const network_batch& b) { r.take_network(2, b, ws_[2], static_cast<double>(now_)); }

    // Encoder channel of a camera of chip 2 (8 cameras): offset 0, 2n, 3n.
    static uint32_t chn(uint32_t cam, int n_times) { return cam - 8 + static_cast<uint32_t>(n_times) * 8; }

    std::string file(const std::string& rel) const
    {
        std::ifstream f(plan_.out + "/" + rel, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(f), {});
    }
    std::string bytes(uint8_t cam, uint8_t low) { return {aus_[{cam, low}].begin(), aus_[{cam, low}].end()}; }

    std::string dir_;
    record_plan plan_;
    time_t now_;
    std::array<std::vector<uint8_t>, NUM_WINDOWS> mem_;
    window_set ws_;
    std::map<std::pair<int, int>, std::vector<uint8_t>> aus_;
};

TEST_F(recorder_test, record_frames_go_in_order_to_their_camera_and_stream_files_and_the_summary)
{
    recorder r(plan_);
    std::string err;
    ASSERT_EQ(r.open(&err), 0) << err;
    // Cameras 8 and 9 share a main slot; every REC LOW shares the low slot.
    take(r, record({{8, 0, 0, true, 0, 0}, {9, 0, 0, true, 0, 0}, {8, 0, 1, false, 0, 1}, {9, 0, 1, false, 0, 1}}));
    take(r, record({{8, 0, 2, false, 0, 2}, {9, 0, 2, false, 0, 2}, {8, 0, 3, false, 1, 0}}));
    take(r, record({{8, 1, 0, true, 0, 0}, {15, 1, 0, true, 0, 0}, {8, 1, 1, false, 0, 2}, {15, 1, 1, false, 3, 2}}));
    record_summary s = r.summary();
    EXPECT_EQ(s.all_violations(), 0u) << summary_json(s);
    r.finish();

    EXPECT_EQ(file("slave2/cam08-rec.h264"), bytes(8, 0));
    EXPECT_EQ(file("slave2/cam09-rec.h264"), bytes(9, 0));
    EXPECT_EQ(file("slave2/cam15-reclow.h264"), bytes(15, 1));
    EXPECT_EQ(file("slave2/cam08-rec.h264").substr(0, 5), std::string("\0\0\0\1\x67", 5));  // Annex B
    EXPECT_TRUE(file("slave2/cam10-rec.h264").empty());
    EXPECT_TRUE(std::filesystem::exists(plan_.out + "/slave2/cam10-copy.h264"));

    const stream_summary* rec8 = s.find(2, 8, stream_type::rec);
    ASSERT_NE(rec8, nullptr);
    EXPECT_EQ(rec8->frames, 4u);
    EXPECT_EQ(rec8->key_frames, 1u);
    EXPECT_EQ(rec8->bytes, bytes(8, 0).size());
    EXPECT_EQ(rec8->file, "slave2/cam08-rec.h264");
    // 4 frames, 3 periods of their time stamps plus one: 4 / (4 / 30) = 30.
    EXPECT_NEAR(rec8->frame_rate, 30.0, 0.01);
    EXPECT_NEAR(rec8->kbps, static_cast<double>(rec8->bytes) * 8 / (4.0 / 30) / 1000, 0.01);
    EXPECT_EQ(s.streams.size(), 32u);
    // 32 streams and every camera's snapshots.
    recorder::progress_t p = r.progress();
    EXPECT_EQ(p.expected, 40u);
    EXPECT_EQ(p.started, 4u);
}

TEST_F(recorder_test, cameras_of_their_own_plan_and_snapshots_with_their_arrival_switch_and_transfer)
{
    // Camera 9 has its REC off, camera 10 no input.
    plan_.cameras = {{9, 1920, 1080, false}, {10, 0, 0, true}};
    recorder r(plan_);
    std::string err;
    ASSERT_EQ(r.open(&err), 0) << err;
    record_summary s = r.summary();
    EXPECT_EQ(s.streams.size(), 32u - 2 - 4);
    EXPECT_EQ(s.find(2, 9, stream_type::rec), nullptr);
    EXPECT_EQ(s.find(2, 9, stream_type::copy), nullptr);
    EXPECT_NE(s.find(2, 9, stream_type::reclow), nullptr);
    EXPECT_EQ(s.find(2, 10, stream_type::netlow), nullptr);
    EXPECT_EQ(r.progress().expected, 26u + 6);
    EXPECT_EQ(r.snapshots_missing().size(), 6u);

    // Two pictures of one transfer: camera 8 with its switch off, 11 on.
    const uint32_t t = static_cast<uint32_t>(now_);
    const uint8_t pictures[13] = {0xFF, 0xD8, 1, 2, 3, 0xFF, 0xD8, 4, 5, 6, 7, 8, 9};
    std::memcpy(mem_[0].data(), pictures, sizeof(pictures));
    jpeg_note_t n{0, 13, 2, {8, 11}, {{0, t, 5, 0}, {1, t, 8, 5}}};
    r.take_jpeg(2, parse_jpeg(bytes_of(n), ws_), ws_[0], 1000.5);
    s = r.summary();
    ASSERT_EQ(s.snapshot_transfers.size(), 1u);
    EXPECT_EQ(s.snapshot_transfers[0].pictures, 2u);
    EXPECT_EQ(s.snapshot_transfers[0].bytes, 13u);
    EXPECT_EQ(s.snapshot_transfers[0].cameras, (std::vector<int>{8, 11}));
    ASSERT_EQ(s.snapshots.size(), 2u);
    EXPECT_EQ(s.snapshots[0].camera, 8);
    EXPECT_EQ(s.snapshots[0].jpg_on, 0u);
    EXPECT_EQ(s.snapshots[1].jpg_on, 1u);
    EXPECT_EQ(s.snapshots[1].len, 8u);
    EXPECT_EQ(s.snapshots[1].arrival, 1000.5);
    EXPECT_EQ(s.snapshots[1].file, "slave2/snap/cam11-" + std::to_string(t) + ".jpg");
    EXPECT_EQ(file(s.snapshots[1].file), std::string(pictures + 5, pictures + 13));
    EXPECT_EQ(s.snapshots_of(2, 11, 1000, 1001), 1u);
    EXPECT_EQ(s.snapshots_of(2, 11, 1000.6, 1001), 0u);
    EXPECT_EQ(s.snapshots_of(1, 11, 1000, 1001), 0u);
    EXPECT_EQ(r.progress().started, 2u);
    EXPECT_EQ(r.snapshots_missing().size(), 4u);
}

TEST_F(recorder_test, record_index_violations_are_found_and_listed_on_their_stream)
{
    recorder r(plan_);
    auto problems = [&](int cam, stream_type t) {
        record_summary all = r.summary();
        const stream_summary* x = all.find(2, cam, t);
        return x != nullptr ? x->problems : std::vector<std::string>{"no such stream"};
    };
    auto has = [](const std::vector<std::string>& v, const char* text) {
        return std::any_of(v.begin(), v.end(), [&](const std::string& p) { return p.find(text) != std::string::npos; });
    };

    // Across a minute: :59 and :00 in one buffer; also more than 1 s apart.
    take(r, record({{8, 0, 0, true, 49, 0}, {8, 0, 1, false, 50, 0}}));
    EXPECT_TRUE(has(problems(8, stream_type::rec), "across a minute")) << ::testing::PrintToString(problems(8, stream_type::rec));

    // The low slot may span 4 s, not 5.
    take(r, record({{9, 1, 0, true, 0, 0}, {9, 1, 1, false, 4, 0}}));
    EXPECT_TRUE(problems(9, stream_type::reclow).empty());
    take(r, record({{9, 1, 2, false, 5, 0}, {9, 1, 3, false, 10, 0}}));
    EXPECT_TRUE(has(problems(9, stream_type::reclow), "spanning 5 s"));

    // A key flag without an SPS first, a frame index of 30 at 30 fps, a
    // second of the day that is not mmd_time's, a slot index that does not
    // grow.
    take(r, record({{10, 0, 0, true, 0, 0}}));
    ASSERT_TRUE(problems(10, stream_type::rec).empty());
    mem_[1].assign(WINDOW_SIZE, 0);
    record_batch b = record({{10, 0, 1, false, 0, 30}, {10, 0, 2, false, 0, 5, 7}, {10, 0, 3, false, 0, 4}});
    b.frames[0].entry.key = 1;
    take(r, b);
    std::vector<std::string> p = problems(10, stream_type::rec);
    EXPECT_TRUE(has(p, "key flag 1, but its first NAL unit is of type 6"));
    EXPECT_TRUE(has(p, "frame index 30"));
    EXPECT_TRUE(has(p, "do not match mmd_time"));
    EXPECT_TRUE(has(p, "slot index"));

    // Main and low frames in one buffer.
    take(r, record({{11, 0, 0, true, 0, 0}, {11, 1, 0, true, 0, 0}}));
    EXPECT_TRUE(has(problems(11, stream_type::rec), "main and low"));

    // 480 frames: the buffer is refused whole, a violation of the recorder.
    std::vector<frame> many;
    for (uint32_t k = 0; k < 480; ++k)
        many.push_back({12, 1, k, k == 0, 0, static_cast<uint8_t>(k % 30)});
    take(r, record(many));
    record_summary s = r.summary();
    EXPECT_EQ(s.find(2, 12, stream_type::reclow)->frames, 0u);
    EXPECT_TRUE(has(s.problems, "num_mmd 480 outside 0..479"));

    // An entry of another slave's camera, and a frame whose SEI names
    // another camera: neither reaches a file.
    take(r, record({{3, 0, 0, true, 0, 0}}));
    take(r, record({{13, 0, 0, true, 0, 0}}));
    mem_[1].assign(WINDOW_SIZE, 0);
    record_batch f = record({{13, 0, 1, false, 0, 1}});
    std::vector<uint8_t> other = access_unit(14, 6, 1, false);
    ASSERT_EQ(other.size(), f.frames[0].entry.len);
    std::memcpy(mem_[1].data() + f.frames[0].offset, other.data(), other.size());
    take(r, f);
    s = r.summary();
    EXPECT_TRUE(has(s.problems, "names camera 3, not one of this slave's"));
    EXPECT_EQ(s.find(2, 13, stream_type::rec)->foreign, 1u);
    EXPECT_EQ(s.find(2, 13, stream_type::rec)->frames, 1u);
    EXPECT_EQ(s.find(2, 14, stream_type::rec)->frames, 0u);
}

TEST_F(recorder_test, network_frames_are_told_apart_by_stream_number_and_their_descriptors_checked)
{
    recorder r(plan_);
    std::string err;
    ASSERT_EQ(r.open(&err), 0) << err;
    // Chip 2: cameras 8..15; NET LOW 16..23; the recording copy 24..31.
    take(r, network({{16, 8, 0, true, 0, 0, 352, 288, 15},
                     {24, 8, 0, true, 0, 0, 1920, 1080, 30},
                     {16, 8, 1, false, 0, 66, 352, 288, 15},
                     {31, 15, 0, true, 0, 0, 1920, 1080, 30},
                     {24, 8, 1, false, 0, 33, 1920, 1080, 30}}));
    record_summary s = r.summary();
    EXPECT_EQ(s.all_violations(), 0u) << summary_json(s);
    EXPECT_EQ(s.find(2, 8, stream_type::netlow)->frames, 2u);
    EXPECT_EQ(s.find(2, 8, stream_type::copy)->frames, 2u);
    EXPECT_EQ(s.find(2, 15, stream_type::copy)->frames, 1u);

    // A number that names no stream of the slave; a NET stream that was not
    // switched on; a frame of another camera under camera 9's number; a
    // wrong size; a time that goes back; a date far from the clock.
    take(r, network({{40, 8, 0, true, 0, 0, 352, 288, 15},
                     {9, 9, 0, true, 0, 0, 1920, 1080, 30},
                     {17, 10, 0, true, 0, 0, 352, 288, 15},
                     {18, 10, 0, true, 0, 0, 704, 576, 15},
                     {16, 8, 2, false, 0, 33, 352, 288, 15},
                     {25, 9, 0, true, 86400 * 3, 0, 1920, 1080, 30}}));
    s = r.summary();
    auto has = [](const std::vector<std::string>& v, const char* text) {
        return std::any_of(v.begin(), v.end(), [&](const std::string& p) { return p.find(text) != std::string::npos; });
    };
    EXPECT_TRUE(has(s.problems, "stream number 40 names no stream"));
    EXPECT_TRUE(has(s.find(2, 9, stream_type::net)->problems, "not switched on"));
    EXPECT_EQ(s.find(2, 9, stream_type::netlow)->foreign, 1u);
    EXPECT_TRUE(has(s.find(2, 10, stream_type::netlow)->problems, "704x576 at 15 fps; configured 352x288"));
    EXPECT_TRUE(has(s.find(2, 8, stream_type::netlow)->problems, "msec"));
    EXPECT_TRUE(has(s.find(2, 9, stream_type::copy)->problems, "from the master's clock"));
    r.finish();
    EXPECT_EQ(file("slave2/cam08-netlow.h264").size(), s.find(2, 8, stream_type::netlow)->bytes);
}

TEST(summary, json_carries_every_stream_with_its_counts_and_escaped_problems)
{
    record_summary s;
    s.out = "/tmp/x";
    s.seconds = 30;
    s.problems = {"chip 1: \"odd\"\\"};
    s.violations = 1;
    stream_summary a;
    a.key = {2, 9, stream_type::reclow};
    a.file = "slave2/cam09-reclow.h264";
    a.want = {704, 576, 15, 2, 1};
    a.frames = 450;
    a.kbps = 1234.5;
    a.lost = 2;
    a.violations = 1;
    a.problems = {"lost 2 frame(s): seq 7..8"};
    s.streams = {a};
    std::string j = summary_json(s);
    for (const char* want : {"\"violations\": 2", "\"seconds\": 30", "\"problems\": [\"chip 1: \\\"odd\\\"\\\\\"]",
                             "\"chip\": 2", "\"camera\": 9", "\"stream\": \"reclow\"",
                             "\"file\": \"slave2/cam09-reclow.h264\"", "\"width\": 704", "\"frames\": 450",
                             "\"kbps\": 1234.500", "\"lost\": 2", "\"problems\": [\"lost 2 frame(s): seq 7..8\"]"})
        EXPECT_NE(j.find(want), std::string::npos) << want << "\n" << j;
    EXPECT_EQ(std::count(j.begin(), j.end(), '{'), std::count(j.begin(), j.end(), '}'));
    EXPECT_EQ(std::count(j.begin(), j.end(), '['), std::count(j.begin(), j.end(), ']'));
}

}  // namespace
