// Playback end to end: a slave records four cameras, then another slave
// plays the recording back from the master's files; the board's decoder
// channels show which frames they decoded.
#include <gtest/gtest.h>

#include "master/play.h"
#include "master/master.h"
#include "master/record.h"
#include "tests/support/play_records.h"
#include "tests/support/test_board.h"

namespace {

using playback_e2e_test = recorded_playback_test<4, 704, 576, 25>;

TEST_F(playback_e2e_test, every_frame_from_the_first_key_frame_on_is_decoded)
{
    ASSERT_EQ(summary_, 0);
    temp_board_dir board;
    tmaster::play_summary s = tmaster::play(options(board));
    tmaster::print_play_summary(stdout, s);
    ASSERT_EQ(s.rc, 0) << s.error;
    EXPECT_EQ(s.refused, 0u);
    EXPECT_GT(s.records, 1u);
    // The answers are held while the decoder is behind, never for long.
    EXPECT_LT(s.max_hold_ms, 3000.0);
    ASSERT_EQ(s.cameras.size(), 4u);
    for (const tmaster::play_camera& c : s.cameras) {
        SCOPED_TRACE(c.camera);
        EXPECT_GT(c.frames_sent, 50u);
        EXPECT_EQ(c.pictures, c.frames_sent);
        EXPECT_TRUE(c.have_last);
        EXPECT_EQ(c.last_seq, c.last_seq_sent);
        EXPECT_EQ(c.dec_width, 704u);
        EXPECT_EQ(c.dec_height, 576u);
        EXPECT_EQ(c.user_frames, 0u);
    }
}

TEST_F(playback_e2e_test, skip_show_passes_only_the_marked_frames_to_the_groups)
{
    ASSERT_EQ(summary_, 0);
    temp_board_dir board;
    tmaster::play_options o = options(board);
    o.skip_show = 1;
    o.show_every = 3;
    o.max_frames = 60;
    tmaster::play_summary s = tmaster::play(o);
    tmaster::print_play_summary(stdout, s);
    ASSERT_EQ(s.rc, 0) << s.error;
    for (const tmaster::play_camera& c : s.cameras) {
        SCOPED_TRACE(c.camera);
        EXPECT_EQ(c.pictures, c.frames_sent);
        EXPECT_EQ(c.user_frames, c.shown_sent);
        EXPECT_LT(c.shown_sent, c.frames_sent);
    }
}

// Camera 0 is played into its second GOP and decoded; playback stops (the
// channels go) and starts again; the rest of the stream follows. The new
// channel takes nothing before the next key frame (the frames before it
// are not even sent to the decoder) and decodes every frame from it on.
TEST_F(playback_e2e_test, stop_and_start_again_decode_from_the_next_key_frame)
{
    ASSERT_EQ(summary_, 0);
    const recorded_stream cam0 = read_stream(recorded_->file("rec/slave1/cam00-rec.h264"));
    std::vector<size_t> keys;
    for (size_t i = 0; i < cam0.aus.size(); ++i)
        if (tmaster::first_nal_type(cam0.aus[i]) == tmaster::NAL_SPS)
            keys.push_back(i);
    ASSERT_GE(keys.size(), 3u) << "the recording needs three GOPs";
    const size_t cut = keys[1] + 3;
    const size_t n = cam0.aus.size();

    temp_board_dir board;
    tmaster::master_options mo;
    mo.board = board.path();
    tmaster::master m(mo);
    ASSERT_EQ(m.open(), 0) << m.error();
    std::string err;
    ASSERT_GT(tmaster::start_playback(m, options(board), &err), 0) << err;
    const std::string media = board.file("chip1/media.json");
    using namespace std::chrono_literals;

    for (const auto& r : records_of(cam0, 0, 704, 576, 0, cut, 8))
        ASSERT_TRUE(m.play_transfer(1, tmaster::PLAY_ONE, r, 0, 10s));
    tmaster::media_vdec c = wait_channel(media, 0, cut, cam0.seq[cut - 1], 20s);
    ASSERT_EQ(c.pictures, cut);
    ASSERT_EQ(c.seq, cam0.seq[cut - 1]);

    // Stopped: the channel is gone.
    ASSERT_EQ(tmaster::play_command(m, 1, tmaster::PLAY_START, 0), 0);
    const auto end = std::chrono::steady_clock::now() + 5s;
    while (media_channel(media, 0).chn == 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(50ms);
    EXPECT_EQ(media_channel(media, 0).chn, -1) << "the decoder channel outlived the stop";

    ASSERT_EQ(tmaster::play_command(m, 1, tmaster::PLAY_START, 1), 0);
    for (const auto& r : records_of(cam0, 0, 704, 576, cut, n, 8))
        ASSERT_TRUE(m.play_transfer(1, tmaster::PLAY_ONE, r, 0, 10s));
    c = wait_channel(media, 0, n - keys[2], cam0.seq[n - 1], 20s);
    std::printf("   camera 0: %zu frames before the stop, %zu after (next key frame at %zu); decoded %llu, "
                "%llu undecoded, %llu refused\n",
                cut, n - cut, keys[2], static_cast<unsigned long long>(c.pictures),
                static_cast<unsigned long long>(c.undecoded), static_cast<unsigned long long>(c.refused));
    EXPECT_EQ(c.pictures, n - keys[2]);
    EXPECT_EQ(c.seq, cam0.seq[n - 1]);
    EXPECT_EQ(c.undecoded, 0u);
    EXPECT_EQ(c.refused, 0u);
    EXPECT_EQ(c.width, 704u);
    m.close();
}

}  // namespace
