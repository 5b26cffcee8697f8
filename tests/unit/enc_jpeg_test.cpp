// The JPEG snapshots: one camera step on the simulated board (the channel
// lives only inside it, whatever step fails), the staging limit and the
// batch limits of what goes to the master, and refused batches.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "enc/enc_jpeg.h"
#include "platform/hi_mpi_venc.h"
#include "platform/sim/fault.h"
#include "tests/support/enc_board.h"

namespace {

// What the transfer was given, batch by batch; it frees the blocks as the
// real one does, or refuses and leaves them.
struct sent_batch {
    std::vector<int> streams;
    std::vector<uint32_t> lens;
    std::vector<int32_t> jpg_on;
    std::vector<std::string> first_bytes;
    int total;
};
std::vector<sent_batch> g_sent;
int g_send_result = 0;

int capture_send(cal_t*, const int* channels, const jpg_desc_t* descs, int n, int total)
{
    if (g_send_result != 0)
        return g_send_result;
    sent_batch b{{}, {}, {}, {}, total};
    for (int k = 0; k < n; ++k) {
        b.streams.push_back(channels[k]);
        b.lens.push_back(descs[k].len);
        b.jpg_on.push_back(descs[k].jpg_on);
        b.first_bytes.emplace_back(reinterpret_cast<const char*>(descs[k].data), std::min<uint32_t>(descs[k].len, 2));
        std::free(descs[k].data);
    }
    g_sent.push_back(b);
    return 0;
}

class enc_jpeg_test : public enc_board_test {
protected:
    void SetUp() override
    {
        enc_board_test::SetUp();
        g_sent.clear();
        g_send_result = 0;
        stdout_capture quiet;
        ASSERT_EQ(chip_init_slave(&cal_), 0);
        // Cameras 0, 1 and 3 have a format; camera 2 none (0 × 0).
        for (int c : {0, 1, 3}) {
            vin_set_caps_cmd_t caps{8 + c, 352, 288, 1, 30.0, 0, 0};
            ASSERT_EQ(command(HSCC_CAL_SetVincaps, caps), 0);
            enc()->rec[c].run = 1;
        }
        enc()->rec[2].run = 1;
    }

    // One camera step into its own batch; the pictures it sent.
    std::vector<sent_batch> step(int ch)
    {
        g_sent.clear();
        {
            jpg_batch_t batch(&cal_, capture_send);
            _enc_jpeg_step(enc(), ch, &batch);
            batch.send();
        }
        return g_sent;
    }

    // A step that must give a picture: on a loaded machine (or under
    // emulation) a picture can miss the step's 300 ms; the next pass takes
    // one then, as on the board.
    std::vector<sent_batch> step_with_picture(int ch)
    {
        std::vector<sent_batch> s;
        for (int pass = 0; pass < 5 && s.empty(); ++pass)
            s = step(ch);
        return s;
    }

    // Nothing of JPEG group 32 + ch is left: channel, group, binding.
    static void expect_torn_down(int ch)
    {
        const int g = ENC_JPEG_CHN_BASE + ch;
        EXPECT_FALSE(sim_media_venc_chn(g).created) << g;
        EXPECT_FALSE(sim_media_venc_grp(g).created) << g;
        for (const sim_binding& b : sim_media_bindings())
            EXPECT_FALSE(b.dest.mod_id == HI_ID_GROUP && b.dest.dev_id == g) << g;
    }

    // A staged picture of the given pack lengths, every byte its pack's
    // letter.
    int gather(const std::vector<uint32_t>& lens)
    {
        std::vector<venc_pack_t> packs(lens.size());
        data_.clear();
        data_.reserve(lens.size());
        for (size_t k = 0; k < lens.size(); ++k) {
            data_.emplace_back(lens[k], static_cast<unsigned char>('a' + k));
            packs[k] = {};
            packs[k].addr[0] = data_[k].data();
            packs[k].len[0] = lens[k];
        }
        venc_stream_t s{packs.data(), static_cast<uint32_t>(packs.size()), 0};
        return _enc_jpeg_gather(enc(), &s);
    }

    std::vector<std::vector<unsigned char>> data_;
};

TEST_F(enc_jpeg_test, a_camera_with_rec_running_gives_one_jpeg_and_keeps_no_channel)
{
    run_video(ENC_KIND_JPEG, 8, 1);
    std::vector<sent_batch> s = step_with_picture(0);
    ASSERT_EQ(s.size(), 1u);
    ASSERT_EQ(s[0].streams, std::vector<int>{8});
    EXPECT_EQ(s[0].jpg_on, std::vector<int32_t>{1});
    EXPECT_EQ(s[0].first_bytes[0], "\xff\xd8");
    EXPECT_EQ(s[0].total, static_cast<int>(s[0].lens[0]));
    expect_torn_down(0);
    // The JPEG switch off: the descriptor says so.
    run_video(ENC_KIND_JPEG, 8, 0);
    s = step_with_picture(0);
    ASSERT_EQ(s.size(), 1u);
    EXPECT_EQ(s[0].jpg_on, std::vector<int32_t>{0});
    EXPECT_EQ(enc()->chn[ENC_JPEG_CHN_BASE].fd, -1);
}

TEST_F(enc_jpeg_test, rec_off_or_no_format_gives_no_picture_and_leaves_nothing)
{
    // REC off: the channel is made and torn down, and nothing is sent.
    enc()->rec[1].run = 0;
    EXPECT_TRUE(step(1).empty());
    expect_torn_down(1);
    EXPECT_EQ(sim_fault_calls(SIM_OP_HI_MPI_VENC_CreateChn), 1u);
    EXPECT_EQ(sim_fault_calls(SIM_OP_HI_MPI_VENC_StartRecvPic), 0u);
    EXPECT_TRUE(step(2).empty());  // 0 × 0: no channel at all
    expect_torn_down(2);
    EXPECT_EQ(sim_fault_calls(SIM_OP_HI_MPI_VENC_CreateChn), 1u);
}

TEST_F(enc_jpeg_test, on_a_slave_of_more_than_8_cameras_snapshots_never_touch_a_stream_channel)
{
    // With 16 cameras, channels 32 .. 63 carry streams: camera 0's JPEG
    // channel would be the third kind's channel of camera 0.
    enc()->num = 16;
    enc()->chn[ENC_JPEG_CHN_BASE] = {77, 96};
    EXPECT_TRUE(step(0).empty());
    EXPECT_EQ(cal_enc_exit_jpeg(&cal_), 0);
    EXPECT_EQ(enc()->chn[ENC_JPEG_CHN_BASE].fd, 77);
    EXPECT_EQ(sim_fault_calls(SIM_OP_HI_MPI_VENC_CreateGroup), 0u);
    EXPECT_EQ(sim_fault_calls(SIM_OP_HI_MPI_VENC_StopRecvPic), 0u);
    EXPECT_EQ(sim_fault_calls(SIM_OP_HI_MPI_VENC_DestroyChn), 0u);
    enc()->chn[ENC_JPEG_CHN_BASE] = {-1, 96};
    enc()->num = 8;
}

TEST_F(enc_jpeg_test, a_failure_at_any_step_tears_down_and_the_next_camera_goes_on)
{
    struct fault {
        const char* rule;
        bool picture;  // the failed camera still has its picture
    };
    const fault faults[] = {
        {"HI_MPI_VENC_CreateGroup@1=a0078004", false},  // nothing to register with
        {"HI_MPI_VENC_SetGrpFrmRate@1=a0078003", true},
        {"HI_MPI_VENC_CreateChn@1=a007800c", false},
        {"HI_MPI_VENC_RegisterChn@1=a0078009", false},
        {"HI_MPI_VENC_GetJpegParam@1=a0078008", true},
        {"HI_MPI_VENC_SetJpegParam@1=a0078003", true},
        {"HI_MPI_VENC_StartRecvPic@1=a0078009", false},
        {"HI_MPI_VENC_GetFd@1=a0078005", false},
        {"HI_MPI_SYS_Bind@1=a0028003", false},
        {"HI_MPI_VENC_Query@1=a0078005", false},
        {"HI_MPI_VENC_GetStream@1=a007800e", false},
        {"HI_MPI_VENC_ReleaseStream@1=a0078003", false},
        {"HI_MPI_SYS_UnBind@1=a0028003", true},
        {"HI_MPI_VENC_StopRecvPic@1=a0078003", true},
    };
    for (const fault& f : faults) {
        SCOPED_TRACE(f.rule);
        std::string err;
        ASSERT_EQ(sim_fault_set(f.rule, &err), 0) << err;
        EXPECT_EQ((f.picture ? step_with_picture(0) : step(0)).size(), f.picture ? 1u : 0u);
        // A failed unbinding or stop leaves the channel to the next pass's
        // teardown; everything else is gone now.
        if (std::string(f.rule).find("UnBind") == std::string::npos &&
            std::string(f.rule).find("StopRecv") == std::string::npos)
            expect_torn_down(0);
        std::vector<sent_batch> next = step_with_picture(1);
        ASSERT_EQ(next.size(), 1u);
        EXPECT_EQ(next[0].streams, std::vector<int>{9});
        expect_torn_down(1);
        ASSERT_EQ(sim_fault_set("", &err), 0);
        step(0);  // the next pass cleans up what a failed teardown left
        expect_torn_down(0);
    }
}

TEST_F(enc_jpeg_test, the_staging_limit_keeps_1047551_bytes_and_drops_1047552_with_its_trace)
{
    jpg_batch_t batch(&cal_, capture_send);
    EXPECT_EQ(gather({1000, ENC_JPG_STAGE_MAX - 1000}), ENC_JPG_STAGE_MAX);
    EXPECT_EQ(enc()->bs_buf[999], 'a');
    EXPECT_EQ(enc()->bs_buf[ENC_JPG_STAGE_MAX - 1], 'b');
    EXPECT_EQ(_enc_jpeg_keep(enc(), 3, ENC_JPG_STAGE_MAX, &batch), 0);
    EXPECT_EQ(batch.count(), 1);
    EXPECT_EQ(batch.total(), 1047551);

    // One byte more: the pack that passes the limit and those after it stay
    // out of the staging buffer, and the picture is dropped.
    std::memset(enc()->bs_buf, 'z', CAL_ENC_BS_SIZE);
    EXPECT_EQ(gather({1000, ENC_JPG_STAGE_MAX - 1000 + 1, 5}), 1047557);
    EXPECT_EQ(enc()->bs_buf[999], 'a');
    EXPECT_EQ(enc()->bs_buf[1000], 'z');
    EXPECT_EQ(gather({1000, ENC_JPG_STAGE_MAX - 1000 + 1}), 1047552);
    EXPECT_EQ(_enc_jpeg_keep(enc(), 3, 1047552, &batch), -1);
    EXPECT_EQ(batch.count(), 1);
    EXPECT_TRUE(logged_line("Over jpgbuffer!! 1047552 don't send data by pci express"));
    EXPECT_EQ(batch.send(), 0);
    ASSERT_EQ(g_sent.size(), 1u);
    EXPECT_EQ(g_sent[0].streams, std::vector<int>{11});
}

TEST_F(enc_jpeg_test, ten_pictures_go_as_nine_and_one_and_a_batch_never_passes_2096127_bytes)
{
    {
        jpg_batch_t batch(&cal_, capture_send);
        for (int k = 0; k < 10; ++k)
            ASSERT_EQ(_enc_jpeg_keep(enc(), k % 8, 100 + k, &batch), 0);
        batch.send();
    }
    ASSERT_EQ(g_sent.size(), 2u);
    EXPECT_EQ(g_sent[0].streams.size(), 9u);
    EXPECT_EQ(g_sent[0].total, 9 * 100 + 36);
    EXPECT_EQ(g_sent[1].streams, std::vector<int>{9});  // camera 9 % 8 = 1
    EXPECT_EQ(g_sent[1].lens, std::vector<uint32_t>{109});

    // Pictures that add up to the limit exactly travel together; one byte
    // more starts a new batch.
    g_sent.clear();
    {
        jpg_batch_t batch(&cal_, capture_send);
        ASSERT_EQ(_enc_jpeg_keep(enc(), 0, 1047551, &batch), 0);
        ASSERT_EQ(_enc_jpeg_keep(enc(), 1, 1047551, &batch), 0);
        ASSERT_EQ(_enc_jpeg_keep(enc(), 2, ENC_JPG_BATCH_BYTES - 2 * 1047551, &batch), 0);
        ASSERT_EQ(_enc_jpeg_keep(enc(), 3, 1, &batch), 0);
        batch.send();
    }
    ASSERT_EQ(g_sent.size(), 2u);
    EXPECT_EQ(g_sent[0].total, 2096127);
    EXPECT_EQ(g_sent[0].streams.size(), 3u);
    EXPECT_EQ(g_sent[1].total, 1);
}

TEST_F(enc_jpeg_test, a_refused_batch_frees_its_blocks_and_the_next_one_starts_empty)
{
    jpg_batch_t batch(&cal_, capture_send);
    g_send_result = -1;  // no windows yet
    for (int k = 0; k < 3; ++k)
        ASSERT_EQ(_enc_jpeg_keep(enc(), k, 5000, &batch), 0);
    EXPECT_EQ(batch.send(), -1);
    EXPECT_EQ(batch.count(), 0);
    EXPECT_EQ(batch.total(), 0);
    g_send_result = 0;
    ASSERT_EQ(_enc_jpeg_keep(enc(), 4, 7000, &batch), 0);
    EXPECT_EQ(batch.send(), 0);
    ASSERT_EQ(g_sent.size(), 1u);
    EXPECT_EQ(g_sent[0].streams, std::vector<int>{12});
    // Blocks still held when the batch goes are freed with it (the leak
    // checkers of the sanitizer builds see any that is not).
    ASSERT_EQ(_enc_jpeg_keep(enc(), 5, 10, &batch), 0);
}

TEST_F(enc_jpeg_test, playjpg_sets_every_camera_and_nothing_else)
{
    struct {
        int32_t v;
    } p{1};
    const int before = enc()->jpg_on[0];
    EXPECT_EQ(command(HSCC_CAL_3531_playjpg, p), 0);
    for (int ch = 0; ch < 8; ++ch)
        EXPECT_EQ(enc()->on_playjpg[ch], 1);
    EXPECT_EQ(enc()->on_playjpg[8], 0);
    EXPECT_EQ(enc()->jpg_on[0], before);
    EXPECT_EQ(cal_m_enc_on_playjpg(&cal_, 0), 0);
    EXPECT_EQ(enc()->on_playjpg[3], 0);
}

}  // namespace
