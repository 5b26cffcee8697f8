// The encoder thread on the simulated board: it applies queued updates
// between reads, reads the channels' frames into record buffers, survives
// failing platform calls, and keeps beating while idle.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/time.h>

#include "platform/os.h"
#include "platform/sim/fault.h"
#include "platform/sim/h264_codec.h"
#include "platform/sim/media_core.h"
#include "tests/support/enc_board.h"

namespace {

constexpr int k_first_frames_ms = 90000;

class enc_thread_test : public enc_board_test {
protected:
    void SetUp() override
    {
        enc_board_test::SetUp();
        stdout_capture quiet;
        ASSERT_EQ(chip_init_slave(&cal_), 0);
        // Frame stamps near the wall clock, as after the master's clock command.
        struct timeval tv;
        os_gettimeofday(&tv);
        _enc_set_pts(&cal_, static_cast<uint64_t>(tv.tv_sec) * 1000000 + static_cast<uint64_t>(tv.tv_usec));
    }
    void TearDown() override
    {
        if (enc() != nullptr && kel_thread_running(enc()->thread_enc))
            cal_enc_stop(enc());
        enc_board_test::TearDown();
    }
    void start() { ASSERT_EQ(cal_enc_start(enc()), 0); }

    // Waits up to ms for cond.
    template <class F>
    bool within(int ms, F cond)
    {
        for (int i = 0; i < ms / 10; ++i) {
            if (cond())
                return true;
            os_usleep(10000);
        }
        return cond();
    }
    void record_camera(int cam)
    {
        update(1, 30, 0);  // the system rate; no channel changed yet
        set_video(ENC_KIND_REC, 8 + cam, 704, 576, 30, 2);
        run_video(ENC_KIND_REC, 8 + cam, 1);
        update(0, 30, 0);
    }
};

TEST_F(enc_thread_test, idle_thread_beats_and_applies_a_queued_update)
{
    start();
    EXPECT_TRUE(within(3000, [&] { return kel_thread_heart(enc()->thread_enc) >= 1; }));
    set_video(ENC_KIND_NET_LOW, 9, 352, 288, 15, 1);
    run_video(ENC_KIND_NET_LOW, 9, 1);
    update(0, 30);
    EXPECT_TRUE(within(3000, [&] { return logged_line("ch:1 network low success.."); }));
    EXPECT_EQ(queued(enc()->msgid_ce_enc), 0);
    EXPECT_TRUE(sim_media_venc_chn(25).receiving);
    EXPECT_EQ(cal_enc_stop(enc()), 0);
    EXPECT_EQ(enc()->net_low[1].changed, 0);
    EXPECT_TRUE(logged_line("exit!!"));
    EXPECT_FALSE(sim_media_venc_chn(25).created);
}

TEST_F(enc_thread_test, frames_of_a_recording_stream_reach_the_record_queue)
{
    if (!sim_h264_codec_available())
        GTEST_SKIP() << "this build of the board encodes nothing";
    start();
    record_camera(0);
    // A buffer is handed over once a frame lies more than a second after its
    // first. The board may first have to encode its scene loop (slow under
    // the sanitizers) when no earlier run left it in the cache.
    ASSERT_TRUE(within(k_first_frames_ms, [&] { return queued(cal_.msgid_encr) >= 1; }));
    tx_msg_t m;
    ASSERT_GE(os_msgrcv(cal_.msgid_encr, &m, TX_MSG_BODY_SIZE, 0, IPC_NOWAIT), 0);
    ebuf_t* eb = m.encr.ebuf;
    ASSERT_GT(eb->num_mmd, 0);
    EXPECT_EQ(eb->mmd[0].cam, 8);
    EXPECT_EQ(eb->mmd[0].width, 704);
    EXPECT_EQ(eb->mmd[0].key, 1);  // a stream begins at a key frame
    EXPECT_GT(eb->buf_off, 0);
    ebuf_free(eb);
}

TEST_F(enc_thread_test, failing_reads_end_the_pass_and_the_thread_goes_on)
{
    if (!sim_h264_codec_available())
        GTEST_SKIP() << "this build of the board encodes nothing";
    std::string err;
    ASSERT_EQ(sim_fault_set("HI_MPI_VENC_GetStream=a007800e", &err), 0) << err;
    start();
    record_camera(1);
    ASSERT_TRUE(within(k_first_frames_ms, [&] { return sim_fault_calls(SIM_OP_HI_MPI_VENC_GetStream) >= 3; }));
    const int heart = kel_thread_heart(enc()->thread_enc);
    EXPECT_TRUE(within(3000, [&] { return kel_thread_heart(enc()->thread_enc) > heart + 2; }));
    EXPECT_EQ(queued(cal_.msgid_encr), 0);
    // Back to normal (the board's rules change while nothing runs): the
    // stream rebuilt, frames flow again.
    EXPECT_EQ(cal_enc_stop(enc()), 0);
    ASSERT_EQ(sim_fault_set("", &err), 0) << err;
    start();
    run_video(ENC_KIND_REC, 9, 1);
    update(0, 30);
    EXPECT_TRUE(within(k_first_frames_ms, [&] { return queued(cal_.msgid_encr) >= 1; }));
}

}  // namespace
