// The simulated JPEG channels: a real baseline JPEG of the scene at the
// channel's size and quality, with the covers of its capture channel
// painted in, and at most one unread picture held.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "platform/hi_mpi_rgn.h"
#include "platform/hi_mpi_venc.h"
#include "tests/support/enc_board.h"

#ifdef TARVO_SIM_LIBJPEG
#include <cstdio>

#include <jpeglib.h>
#endif

namespace {

constexpr int k_chn = 40;

class sim_jpeg_test : public enc_board_test {
protected:
    void SetUp() override
    {
        enc_board_test::SetUp();
        stdout_capture quiet;
        ASSERT_EQ(chip_init_slave(&cal_), 0);
    }

    // A JPEG channel of w × h at quality q fed by camera 0's main group.
    void start(uint32_t w, uint32_t h, uint32_t q)
    {
        venc_chn_attr_t a{};
        a.payload_type = PT_JPEG;
        a.jpeg = {w, h, w * h * 3 / 2, 1, 0, 0, w, h};
        venc_grp_frm_rate_t rate{30, 5};
        venc_param_jpeg_t p{q, 0};
        const mpp_chn_t src{HI_ID_VPSS, 16, 0}, dest{HI_ID_GROUP, k_chn, 0};
        ASSERT_TRUE(HI_MPI_VENC_CreateGroup(k_chn) == 0 && HI_MPI_VENC_SetGrpFrmRate(k_chn, &rate) == 0 &&
                    HI_MPI_VENC_CreateChn(k_chn, &a) == 0 && HI_MPI_VENC_RegisterChn(k_chn, k_chn) == 0 &&
                    HI_MPI_VENC_SetJpegParam(k_chn, &p) == 0 && HI_MPI_VENC_StartRecvPic(k_chn) == 0 &&
                    HI_MPI_SYS_Bind(&src, &dest) == 0);
    }

    // The next picture, waited for up to 5 s; empty when none came.
    std::vector<uint8_t> picture()
    {
        venc_chn_stat_t st{};
        for (int i = 0; i < 500 && (HI_MPI_VENC_Query(k_chn, &st) != 0 || st.cur_packs == 0); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (st.cur_packs == 0)
            return {};
        std::vector<venc_pack_t> packs(st.cur_packs);
        venc_stream_t s{packs.data(), st.cur_packs, 0};
        if (HI_MPI_VENC_GetStream(k_chn, &s, true) != 0)
            return {};
        std::vector<uint8_t> out;
        for (const venc_pack_t& p : packs)
            for (int k = 0; k < 2; ++k)
                out.insert(out.end(), p.addr[k], p.addr[k] + p.len[k]);
        EXPECT_EQ(HI_MPI_VENC_ReleaseStream(k_chn, &s), 0);
        return out;
    }
};

TEST_F(sim_jpeg_test, a_receiving_channel_gives_baseline_jpegs_holding_one_unread_at_most)
{
    start(352, 288, 50);
    std::vector<uint8_t> j = picture();
    ASSERT_GT(j.size(), 100u);
    EXPECT_EQ(j[0], 0xFF);
    EXPECT_EQ(j[1], 0xD8);
    EXPECT_EQ(j[j.size() - 1], 0xD9);
    // Not read: the next picture waits, and no third is made meanwhile.
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    venc_chn_stat_t st{};
    ASSERT_EQ(HI_MPI_VENC_Query(k_chn, &st), 0);
    EXPECT_EQ(st.left_stream_frames, 1u);
}

#ifdef TARVO_SIM_LIBJPEG
TEST_F(sim_jpeg_test, the_picture_has_the_channels_size_quality_and_the_covers_of_its_capture_channel)
{
    // A black cover on the right half of camera 0's main capture channel
    // (1920 × 1080 there, 352 × 288 in the picture).
    rgn_attr_t ra{};
    ra.type = COVER_RGN;
    rgn_chn_attr_t ca{};
    ca.show = 1;
    ca.type = COVER_RGN;
    ca.cover = {960, 0, 960, 1080, 0, 0, {}};
    const mpp_chn_t vi{HI_ID_VI, 0, cal_cam_to_vi_chn(&cal_, 0)};
    ASSERT_TRUE(HI_MPI_RGN_Create(0, &ra) == 0 && HI_MPI_RGN_AttachToChn(0, &vi, &ca) == 0);
    start(352, 288, 90);
    std::vector<uint8_t> j = picture();
    ASSERT_FALSE(j.empty());

    jpeg_decompress_struct d;
    jpeg_error_mgr err;
    d.err = jpeg_std_error(&err);
    jpeg_create_decompress(&d);
    jpeg_mem_src(&d, j.data(), static_cast<unsigned long>(j.size()));
    ASSERT_EQ(jpeg_read_header(&d, TRUE), JPEG_HEADER_OK);
    d.out_color_space = JCS_GRAYSCALE;
    jpeg_start_decompress(&d);
    EXPECT_EQ(d.output_width, 352u);
    EXPECT_EQ(d.output_height, 288u);
    std::vector<uint8_t> luma(352 * 288);
    while (d.output_scanline < d.output_height) {
        JSAMPROW row = luma.data() + d.output_scanline * 352;
        jpeg_read_scanlines(&d, &row, 1);
    }
    jpeg_finish_decompress(&d);
    jpeg_destroy_decompress(&d);
    // Left half: the scene (never black); right half: the cover.
    int dark_left = 0, dark_right = 0;
    for (int y = 8; y < 280; ++y) {
        for (int x = 8; x < 168; ++x)
            dark_left += luma[y * 352 + x] < 30;
        for (int x = 184; x < 344; ++x)
            dark_right += luma[y * 352 + x] < 30;
    }
    EXPECT_EQ(dark_left, 0);
    EXPECT_EQ(dark_right, 272 * 160);
}
#endif

}  // namespace
