// The PCI video paths on a slave of four cameras (recorder cameras 8 to
// 11, 16 video inputs: the PIP channel is 16), checked against the
// simulated board's channels and bindings.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/support/vout_board.h"

namespace {

constexpr int n = 4;
constexpr int pip = 16;

class vout_pciv_test : public vout_board_test {
protected:
    int init(int32_t kind, int32_t chn, int32_t live = 1, uint32_t len = sizeof(vout_pciv_init_t))
    {
        return command(HSCC_CAL_InitPcivVo, vout_pciv_init_t{kind, chn, live, vout_test_pciv_attr(704, 576)}, len);
    }
    int start(int32_t kind, int32_t arg, int32_t live = 1, int32_t w = 0, int32_t h = 0,
              uint32_t len = sizeof(vout_pciv_start_t))
    {
        return command(HSCC_CAL_StartPcivVo, vout_pciv_start_t{kind, arg, live, w, h}, len);
    }
    int stop(int32_t kind, int32_t chn = 0) { return command(HSCC_CAL_StopPcivVo, vout_pciv_stop_t{kind, chn}); }
    static sim_pciv_chn pciv(int chn) { return sim_media_pciv_chn(chn); }
};

TEST_F(vout_pciv_test, main_init_attaches_the_live_or_the_playback_group_and_keeps_the_masters_record)
{
    ASSERT_EQ(init(VOUT_PCIV_MAIN, 9, 1), 0);
    EXPECT_TRUE(pciv(9).created && pciv(9).started);
    EXPECT_EQ(pciv_source(9), (mpp_chn_t{HI_ID_VPSS, 2 * n + 1, 3}));
    const pciv_attr_t sent = vout_test_pciv_attr(704, 576), kept = pciv(9).attr;
    EXPECT_EQ(std::memcmp(&sent, &kept, sizeof(sent)), 0);

    for (int32_t live : {0, 2, -1}) {
        ASSERT_EQ(stop(VOUT_PCIV_MAIN, 10), -1);  // not created yet
        ASSERT_EQ(init(VOUT_PCIV_MAIN, 10, live), 0) << live;
        EXPECT_EQ(pciv_source(10), (mpp_chn_t{HI_ID_VPSS, 2, 3})) << live;
        ASSERT_EQ(stop(5, 10), 0);
        EXPECT_FALSE(pciv(10).created);
        EXPECT_EQ(pciv_source(10), std::nullopt);
    }
}

TEST_F(vout_pciv_test, main_start_takes_the_source_by_picture_size_and_replaces_the_old_one)
{
    ASSERT_EQ(init(VOUT_PCIV_MAIN, 9, 0), 0);
    ASSERT_EQ(start(VOUT_PCIV_MAIN, 9, 1, 640, 360), 0);
    // Camera 1's capture channel is 2; its sub channel 18.
    EXPECT_EQ(pciv_source(9), (mpp_chn_t{HI_ID_VI, 0, 18}));
    ASSERT_EQ(start(VOUT_PCIV_MAIN, 9, 1, 704, 576), 0);
    EXPECT_EQ(pciv_source(9), (mpp_chn_t{HI_ID_VPSS, 2 * n + 1, 3}));
    ASSERT_EQ(start(VOUT_PCIV_MAIN, 9, 1, 641, 360), 0);
    EXPECT_EQ(pciv_source(9), (mpp_chn_t{HI_ID_VPSS, 2 * n + 1, 3}));
    for (auto [w, h] : {std::pair{1920, 1080}, {320, 180}}) {
        ASSERT_EQ(start(VOUT_PCIV_MAIN, 9, 0, w, h), 0);
        EXPECT_EQ(pciv_source(9), (mpp_chn_t{HI_ID_VPSS, 1, 3})) << w;
    }
    EXPECT_EQ(sim_media_bindings().size(), 3u * n + 1);  // the bring-up's and one
    // Other start kinds do nothing.
    EXPECT_EQ(start(1, 9, 1, 640, 360), 0);
    EXPECT_EQ(start(7, 9), 0);
    EXPECT_EQ(pciv_source(9), (mpp_chn_t{HI_ID_VPSS, 1, 3}));
}

TEST_F(vout_pciv_test, pip_init_leaves_the_channel_started_without_a_source_until_a_pip_start)
{
    stdout_capture out;
    ASSERT_EQ(init(VOUT_PCIV_PIP, pip), 0);
    std::vector<std::string> m = trace_messages(out.text());
    EXPECT_TRUE(has_message(m, "HSCC_CAL_InitPcivVo.. 16 7 0"));
    EXPECT_TRUE(has_message(m, "slave init pciv chn 16 bindchn:4 ok"));
    EXPECT_TRUE(pciv(pip).created && pciv(pip).started);
    EXPECT_EQ(pciv_source(pip), std::nullopt);

    ASSERT_EQ(start(VOUT_PCIV_PIP, 6, 0, 0, 0, 8), 0);
    EXPECT_EQ(pciv_source(pip), (mpp_chn_t{HI_ID_VPSS, 6, 3}));
    ASSERT_EQ(start(VOUT_PCIV_PIP, 9), 0);
    EXPECT_EQ(pciv_source(pip), (mpp_chn_t{HI_ID_VPSS, 9, 3}));

    stdout_capture out2;
    ASSERT_EQ(stop(VOUT_PCIV_PIP), 0);
    EXPECT_EQ(pciv_source(pip), std::nullopt);
    EXPECT_TRUE(pciv(pip).started);
    // Nothing attached: still 0.
    ASSERT_EQ(command(HSCC_CAL_StopPcivVo, int32_t{VOUT_PCIV_PIP}), 0);
    m = trace_messages(out2.text());
    EXPECT_TRUE(has_message(m, "slave stop pciv chn 16 9 ok"));
    EXPECT_TRUE(has_message(m, "slave stop pciv chn 16 0 ok"));
    EXPECT_TRUE(pciv(pip).created);
}

TEST_F(vout_pciv_test, exit_whose_stop_fails_keeps_everything_and_exit_without_a_source_still_destroys)
{
    ASSERT_EQ(init(VOUT_PCIV_MAIN, 11, 1), 0);
    fail("HI_MPI_PCIV_Stop=a01a8009");
    EXPECT_EQ(stop(VOUT_PCIV_MAIN, 11), -1);
    EXPECT_TRUE(pciv(11).started);
    EXPECT_EQ(pciv_source(11), (mpp_chn_t{HI_ID_VPSS, 2 * n + 3, 3}));
    fail("");

    ASSERT_EQ(init(VOUT_PCIV_PIP, pip), 0);
    ASSERT_EQ(stop(VOUT_PCIV_MAIN, 11), 0);
    EXPECT_FALSE(pciv(11).created);
    // The PIP channel, started without a source, can be ended the same way.
    stdout_capture out;
    EXPECT_EQ(stop(3, pip), 0);
    EXPECT_FALSE(pciv(pip).created);
    EXPECT_TRUE(has_message(trace_messages(out.text()), "pciv chn:16 has no source"));

    // A failed destroy is traced and the exit still answers 0.
    ASSERT_EQ(init(VOUT_PCIV_MAIN, 8, 1), 0);
    fail("HI_MPI_PCIV_Destroy=a01a8009");
    EXPECT_EQ(stop(VOUT_PCIV_MAIN, 8), 0);
    EXPECT_TRUE(pciv(8).created && !pciv(8).started);
    EXPECT_EQ(pciv_source(8), std::nullopt);
}

TEST_F(vout_pciv_test, spot_channels_take_the_sub_capture_channel_counted_from_the_camera)
{
    ASSERT_EQ(init(1, 10), 0);  // c = 2: 16 + 4c with four cameras
    EXPECT_EQ(pciv_source(10), (mpp_chn_t{HI_ID_VI, 0, 24}));
    EXPECT_TRUE(pciv(10).started);
    ASSERT_EQ(init(5, 8), 0);
    EXPECT_EQ(pciv_source(8), (mpp_chn_t{HI_ID_VI, 0, 16}));
}

class vout_pciv_eight_test : public vout_pciv_test {
protected:
    int cameras() const override { return 8; }
};

TEST_F(vout_pciv_eight_test, spot_channels_of_an_eight_camera_slave_step_by_two)
{
    ASSERT_EQ(init(1, 10), 0);
    EXPECT_EQ(pciv_source(10), (mpp_chn_t{HI_ID_VI, 0, 20}));
    ASSERT_EQ(init(3, 15), 0);
    EXPECT_EQ(pciv_source(15), (mpp_chn_t{HI_ID_VI, 0, 30}));
}

TEST_F(vout_pciv_test, every_attached_channel_counts_the_pictures_of_its_source)
{
    ASSERT_EQ(init(VOUT_PCIV_MAIN, 8, 1), 0);   // main-capture group of camera 0
    ASSERT_EQ(init(1, 9), 0);                   // spot: capture channel 20
    ASSERT_EQ(init(VOUT_PCIV_PIP, pip), 0);     // no source
    ASSERT_EQ(init(VOUT_PCIV_MAIN, 10, 0), 0);  // playback group: nothing decoded
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (sim_media_pictures({HI_ID_PCIV, 0, 8}) == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_GT(sim_media_pictures({HI_ID_PCIV, 0, 8}), 0u);
    EXPECT_EQ(sim_media_pictures({HI_ID_PCIV, 0, pip}), 0u);
    EXPECT_EQ(sim_media_pictures({HI_ID_PCIV, 0, 10}), 0u);
    // Capture channel 20 is not one of a four-camera slave's: nothing.
    EXPECT_EQ(sim_media_pictures({HI_ID_PCIV, 0, 9}), 0u);

    // Detached or stopped, a channel keeps its count and adds nothing.
    ASSERT_EQ(start(VOUT_PCIV_PIP, 2 * n), 0);
    ASSERT_EQ(stop(VOUT_PCIV_MAIN, 8), 0);
    ASSERT_EQ(init(VOUT_PCIV_MAIN, 8, 1), 0);
    const uint64_t before = sim_media_pictures({HI_ID_PCIV, 0, pip});
    ASSERT_EQ(stop(VOUT_PCIV_PIP), 0);
    const uint64_t held = sim_media_pictures({HI_ID_PCIV, 0, pip});
    EXPECT_GE(held, before);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(sim_media_pictures({HI_ID_PCIV, 0, pip}), held);
}

TEST_F(vout_pciv_test, short_commands_and_cameras_of_other_slaves_are_refused_untouched)
{
    EXPECT_EQ(init(VOUT_PCIV_MAIN, 9, 1, sizeof(vout_pciv_init_t) - 1), -1);
    EXPECT_EQ(init(VOUT_PCIV_PIP, pip, 1, 12), -1);
    EXPECT_EQ(start(VOUT_PCIV_MAIN, 9, 1, 640, 360, 16), -1);
    EXPECT_EQ(start(VOUT_PCIV_PIP, 5, 0, 0, 0, 7), -1);
    EXPECT_EQ(command(HSCC_CAL_StopPcivVo, int32_t{2}), -1);
    EXPECT_EQ(command(HSCC_CAL_StopPcivVo, int32_t{0}, 3), -1);
    for (int32_t cam : {7, 12, -1, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(init(VOUT_PCIV_MAIN, cam, 1), -1) << cam;
        EXPECT_EQ(init(1, cam), -1) << cam;
        EXPECT_EQ(start(VOUT_PCIV_MAIN, cam, 1, 640, 360), -1) << cam;
    }
    for (int c = 0; c < PCIV_MAX_CHN_NUM; ++c)
        EXPECT_FALSE(pciv(c).created) << c;
    EXPECT_EQ(sim_media_bindings().size(), 3u * n);
    // The master's record is the platform's to judge.
    pciv_attr_t bad = vout_test_pciv_attr(704, 576);
    bad.count = 0;
    EXPECT_EQ(command(HSCC_CAL_InitPcivVo, vout_pciv_init_t{VOUT_PCIV_MAIN, 9, 1, bad}), -1);
    EXPECT_FALSE(pciv(9).created);
}

// ---- failures at each platform step -------------------------------------------------

TEST_F(vout_pciv_test, main_init_failures_leave_what_the_steps_say)
{
    fail("HI_MPI_PCIV_Create=a01a8003");
    EXPECT_EQ(init(VOUT_PCIV_MAIN, 9), -1);
    EXPECT_FALSE(pciv(9).created);
    EXPECT_EQ(pciv_source(9), std::nullopt);

    // A failed bind leaves the channel created and not started.
    fail("HI_MPI_SYS_Bind=a0028003");
    stdout_capture out;
    EXPECT_EQ(init(VOUT_PCIV_MAIN, 9), -1);
    EXPECT_TRUE(has_message(trace_messages(out.text()), "VPSS_Bind_PCIV(PcivChn:9) failed with 0xa0028003!"));
    EXPECT_TRUE(pciv(9).created && !pciv(9).started);

    // Init again over it: the create finds the channel and refuses.
    fail("");
    EXPECT_EQ(init(VOUT_PCIV_MAIN, 9), -1);

    // A failed start destroys the channel again.
    fail("HI_MPI_PCIV_Start=a01a8009");
    EXPECT_EQ(init(VOUT_PCIV_MAIN, 10), -1);
    EXPECT_FALSE(pciv(10).created);

    // A failed detach is traced and the init goes on.
    fail("");
    ASSERT_EQ(init(VOUT_PCIV_MAIN, 11), 0);
    ASSERT_EQ(stop(VOUT_PCIV_MAIN, 11), 0);
    const mpp_chn_t src{HI_ID_VI, 0, 0}, dest{HI_ID_PCIV, 0, 11};
    ASSERT_EQ(HI_MPI_SYS_Bind(&src, &dest), 0);
    fail("HI_MPI_SYS_UnBind=a0028005");
    stdout_capture out2;
    EXPECT_EQ(init(VOUT_PCIV_MAIN, 11), -1);  // the old binding is still there: the bind fails
    EXPECT_TRUE(has_message(trace_messages(out2.text()), "HI_MPI_SYS_UnBind failed with [11] 0xa0028005!"));
    EXPECT_EQ(pciv_source(11), src);
}

TEST_F(vout_pciv_test, pip_and_spot_failures_leave_what_the_steps_say)
{
    // A failed start destroys the channel; its binding is left in place.
    fail("HI_MPI_PCIV_Start=a01a8009");
    EXPECT_EQ(init(VOUT_PCIV_PIP, pip), -1);
    EXPECT_FALSE(pciv(pip).created);
    EXPECT_EQ(pciv_source(pip), (mpp_chn_t{HI_ID_VPSS, n, 3}));
    EXPECT_EQ(init(1, 9), -1);
    EXPECT_FALSE(pciv(9).created);
    EXPECT_EQ(pciv_source(9), (mpp_chn_t{HI_ID_VI, 0, 20}));
    fail("");
    ASSERT_EQ(stop(VOUT_PCIV_PIP), 0);
    ASSERT_EQ(stop(VOUT_PCIV_MAIN, 9), -1);  // no channel to stop: the binding stays
    EXPECT_EQ(pciv_source(9), (mpp_chn_t{HI_ID_VI, 0, 20}));

    // The unbind after the start fails: the channel runs with its first group.
    fail("HI_MPI_SYS_UnBind=a0028005");
    EXPECT_EQ(init(VOUT_PCIV_PIP, pip), -1);
    EXPECT_TRUE(pciv(pip).started);
    EXPECT_EQ(pciv_source(pip), (mpp_chn_t{HI_ID_VPSS, n, 3}));
    // Then PIP start and stop cannot detach it.
    stdout_capture out;
    EXPECT_EQ(start(VOUT_PCIV_PIP, 5), -1);
    EXPECT_EQ(stop(VOUT_PCIV_PIP), -1);
    EXPECT_TRUE(has_message(trace_messages(out.text()), "UnBind failed with 0xa0028005!"));
    EXPECT_EQ(pciv_source(pip), (mpp_chn_t{HI_ID_VPSS, n, 3}));

    fail("");
    ASSERT_EQ(stop(VOUT_PCIV_PIP), 0);
    fail("HI_MPI_SYS_Bind=a0028003");
    EXPECT_EQ(start(VOUT_PCIV_PIP, 5), -1);
    EXPECT_EQ(pciv_source(pip), std::nullopt);
    EXPECT_EQ(init(1, 11), -1);
    EXPECT_TRUE(pciv(11).created && !pciv(11).started);
    fail("HI_MPI_PCIV_Create=a01a8003");
    EXPECT_EQ(init(1, 10), -1);
    EXPECT_FALSE(pciv(10).created);
}

}  // namespace
