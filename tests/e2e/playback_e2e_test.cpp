// Playback end to end: a slave records four cameras, then another slave
// plays the recording back from the master's files; the board's decoder
// channels show which frames they decoded.
#include <gtest/gtest.h>

#include "master/play.h"
#include "master/record.h"
#include "tests/support/test_board.h"

namespace {

class playback_e2e_test : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        recorded_ = new temp_board_dir;
        recorded_->share_cache();
        tmaster::record_options o;
        o.board = recorded_->path();
        o.slave = TARVO_SLAVE_BINARY;
        o.plan.slaves.push_back({1, 0, 4, 4});
        o.plan.rec = {704, 576, 25, 2, 1};
        o.plan.out = recorded_->file("rec");
        o.seconds = 6;
        summary_ = tmaster::record(o).rc;
    }
    static void TearDownTestSuite()
    {
        delete recorded_;
        recorded_ = nullptr;
    }

    tmaster::play_options options(const temp_board_dir& board) const
    {
        tmaster::play_options o;
        o.board = board.path();
        o.slave = TARVO_SLAVE_BINARY;
        o.recording = recorded_->file("rec");
        o.cameras = 4;
        o.slave_cam = 4;
        o.num_vin = 4;
        o.width = 704;
        o.height = 576;
        return o;
    }

    static temp_board_dir* recorded_;
    static int summary_;
};

temp_board_dir* playback_e2e_test::recorded_ = nullptr;
int playback_e2e_test::summary_ = -1;

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

}  // namespace
