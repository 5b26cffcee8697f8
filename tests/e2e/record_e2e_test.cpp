// A recorder on one board: two slaves (cameras 0..7 and 8..15) configured as
// a recorder's master does, recording for a minute. Every stream must arrive
// whole (no frame lost, repeated or reordered from its first key frame), in
// record buffers that keep their rules, at the configured rates, as H.264
// that decodes to the configured sizes, and no slave's frames may reach the
// other's files. Every camera sends about one snapshot a second.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "master/record.h"
#include "tests/support/h264_decode.h"
#include "tests/support/test_board.h"

extern "C" {
#include <libavformat/avformat.h>
}

using namespace tmaster;

namespace {

// What a player sees of an MP4 file: its picture size, its frames in file
// order with their key marks and presentation times.
struct mp4_index {
    bool opened = false;
    int width = 0, height = 0;
    std::vector<double> times;  // seconds
    uint64_t keys = 0;
    bool first_key = false;
};

mp4_index read_mp4(const std::string& path)
{
    mp4_index r;
    AVFormatContext* ctx = nullptr;
    if (avformat_open_input(&ctx, path.c_str(), nullptr, nullptr) != 0)
        return r;
    if (avformat_find_stream_info(ctx, nullptr) >= 0 && ctx->nb_streams == 1) {
        r.opened = true;
        const AVStream* st = ctx->streams[0];
        r.width = st->codecpar->width;
        r.height = st->codecpar->height;
        AVPacket* pkt = av_packet_alloc();
        while (av_read_frame(ctx, pkt) >= 0) {
            const bool key = (pkt->flags & AV_PKT_FLAG_KEY) != 0;
            if (r.times.empty())
                r.first_key = key;
            r.keys += key;
            r.times.push_back(static_cast<double>(pkt->pts) * av_q2d(st->time_base));
            av_packet_unref(pkt);
        }
        av_packet_free(&pkt);
    }
    avformat_close_input(&ctx);
    return r;
}

constexpr int SECONDS = 60;
// The thread sanitizer slows every thread of the slave several times over:
// there two cameras a slave keep the test about races, not about load.
// Its slower start also costs the first second or two of the count.
#if defined(__SANITIZE_THREAD__)
constexpr int CAMERAS = 2;
constexpr int MISSING_S = 3;
#else
constexpr int CAMERAS = 8;
constexpr int MISSING_S = 1;
#endif
// Snapshots whose arrival falls in the recording window, per camera: one a
// second, one more at most. Under the sanitizers the slave cannot hold the
// pace; there only the upper bound stays tight.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int SNAPSHOTS_AT_LEAST = SECONDS / 4;
#else
constexpr int SNAPSHOTS_AT_LEAST = SECONDS - 5;
#endif
constexpr int SNAPSHOTS_AT_MOST = SECONDS + 1;
// The board replays loops of at most a few seconds: the first camera's
// files are decoded for longer than a loop, every other file through its
// second IDR picture (decoding every picture would take minutes).
constexpr int DECODE_LOOP = 150;
constexpr int DECODE_START = 40;

TEST(record_e2e, two_slaves_record_a_minute_of_every_stream_whole_at_its_rate_and_size)
{
    temp_board_dir board;
    board.share_cache();
    temp_board_dir out;
    record_options o;
    o.board = board.path();
    o.slave = TARVO_SLAVE_BINARY;
    o.plan.out = out.path();
    o.plan.slaves = {{1, 0, CAMERAS, 8}, {2, 8, CAMERAS, 8}};
    o.seconds = SECONDS;
    o.first_key_wait = std::chrono::milliseconds(120000);
    o.progress = stderr;

    record_summary s = record(o);
    ASSERT_EQ(s.rc, 0) << s.error;
    EXPECT_EQ(s.all_violations(), 0u);
    for (const std::string& p : s.problems)
        ADD_FAILURE() << p;

    // Snapshots: counted by arrival within the recording window; every
    // transfer within the batch limits.
    size_t fewest = SIZE_MAX, most = 0;
    for (const slave_plan& sp : o.plan.slaves) {
        for (int c = 0; c < sp.cameras; ++c) {
            const int cam = sp.cam_base + c;
            const size_t n = s.snapshots_of(sp.chip, cam, s.began_at, s.ended_at);
            fewest = std::min(fewest, n);
            most = std::max(most, n);
            EXPECT_GE(n, static_cast<size_t>(SNAPSHOTS_AT_LEAST)) << "slave " << sp.chip << " camera " << cam;
            EXPECT_LE(n, static_cast<size_t>(SNAPSHOTS_AT_MOST)) << "slave " << sp.chip << " camera " << cam;
        }
    }
    for (const snapshot_transfer& t : s.snapshot_transfers) {
        EXPECT_LE(t.pictures, 9u);
        EXPECT_LE(t.bytes, 2096127u);
    }
    std::fprintf(stderr, "-- snapshots in the %.1f s window: %zu to %zu per camera; %zu in %zu transfers in all\n",
                 s.ended_at - s.began_at, fewest, most, s.snapshots.size(), s.snapshot_transfers.size());

    const stream_type types[] = {stream_type::rec, stream_type::reclow, stream_type::netlow, stream_type::copy};
    for (const slave_plan& sp : o.plan.slaves) {
        for (int c = 0; c < sp.cameras; ++c) {
            const int cam = sp.cam_base + c;
            for (stream_type t : types) {
                SCOPED_TRACE("slave " + std::to_string(sp.chip) + " camera " + std::to_string(cam) + " " +
                             stream_type_name(t));
                const stream_summary* st = s.find(sp.chip, cam, t);
                ASSERT_NE(st, nullptr);
                for (const std::string& p : st->problems)
                    ADD_FAILURE() << p;
                EXPECT_EQ(st->lost + st->repeated + st->reordered + st->foreign + st->no_sei, 0u);
                EXPECT_EQ(st->violations, 0u);
                // Counting began once every stream had begun, so each spans
                // the whole recording; one second of frames may be missing or
                // extra at either end.
                const double fps = st->want.fps;
                EXPECT_GE(static_cast<double>(st->frames), fps * (SECONDS - MISSING_S));
                EXPECT_NEAR(static_cast<double>(st->frames), fps * st->seconds, 2 * fps);
                if (t == stream_type::rec || t == stream_type::copy) {
                    EXPECT_NEAR(st->kbps, 4714, 4714 * 0.2);
                }

                // The MP4 twin: the same frames at the times the slave gave
                // them, one frame period apart.
                mp4_index m = read_mp4(out.path() + "/" + st->mp4);
                ASSERT_TRUE(m.opened) << st->mp4;
                EXPECT_EQ(m.width, st->want.width);
                EXPECT_EQ(m.height, st->want.height);
                EXPECT_EQ(m.times.size(), st->frames);
                EXPECT_TRUE(m.first_key);
                EXPECT_EQ(m.keys, st->key_frames);
                if (m.times.size() > 1) {
                    double widest = 0;
                    for (size_t k = 1; k < m.times.size(); ++k)
                        widest = std::max(widest, m.times[k] - m.times[k - 1]);
                    const double period = (m.times.back() - m.times.front()) / static_cast<double>(m.times.size() - 1);
                    EXPECT_NEAR(period, 1.0 / fps, 0.05 / fps);
                    // Two periods at most (a frame may take the next slot
                    // of its second), give or take the times' rounding.
                    EXPECT_LE(widest, 2.0 / fps + 1e-4) << "a pause in a stream that lost nothing";
                }

                ASSERT_FALSE(st->file.empty());
                const std::string path = out.path() + "/" + st->file;
                EXPECT_NE(st->file.find("slave" + std::to_string(sp.chip) + "/"), std::string::npos) << st->file;
#ifdef TARVO_SIM_OPENH264
                const int n = c == 0 ? DECODE_LOOP : DECODE_START;
                h264_file_result d = decode_h264_file(path, n);
                EXPECT_EQ(d.errors, 0);
                EXPECT_EQ(static_cast<uint64_t>(d.pictures), std::min<uint64_t>(st->frames, n));
                EXPECT_TRUE(d.sizes_agree);
                EXPECT_EQ(d.width, st->want.width);
                EXPECT_EQ(d.height, st->want.height);
#endif
            }
        }
    }
}

}  // namespace
