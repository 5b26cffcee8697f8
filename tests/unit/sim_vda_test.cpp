// The simulated motion-detection channels: results computed from the
// cameras' pictures (the bar's cells, a still camera, covers), the result
// buffers and their order, and the channel's life cycle.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <fstream>
#include <vector>

#include "platform/hi_mpi_rgn.h"
#include "platform/hi_mpi_vda.h"
#include "platform/sim/vda_motion.h"
#include "platform/sim/vda_queue.h"
#include "tests/support/media_board.h"
#include "vin/chip.h"

namespace {

using ::testing::Each;

vda_chn_attr_t md_attr(uint32_t interval, uint32_t buffers = 8)
{
    vda_chn_attr_t a{};
    a.vda_alg = VDA_ALG_REF;
    a.mb_size = VDA_MB_16PIXEL;
    a.rslt_num = buffers;
    a.vda_intvl = interval;
    a.width = 512;
    a.height = 288;
    return a;
}

TEST(sim_vda_cells, mean_absolute_difference_per_cell_clamped)
{
    const int w = 32, h = 16;
    std::vector<uint8_t> a(w * h, 100), b(w * h, 100);
    // Cell 0: its top half differs by 155 -> mean 77.5. Cell 1: all by 255.
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 16; ++x)
            b[y * w + x] = 255;
    for (int y = 0; y < 16; ++y)
        for (int x = 16; x < 32; ++x) {
            a[y * w + x] = 0;
            b[y * w + x] = 255;
        }
    uint8_t out[4] = {};
    sim_vda_cells(a.data(), b.data(), w, h, 16, out, 4);
    EXPECT_EQ(out[0], 77);
    EXPECT_EQ(out[1], 255);
    EXPECT_EQ(out[2], 0);  // stride padding untouched
}

class sim_vda_test : public media_board_test {
protected:
    void SetUp() override
    {
        std::ofstream(board_.file("board.conf")) << "camera 1 1920x1080 p 30 still\n";
        media_board_test::SetUp();
        ASSERT_EQ(chip_init_slave(&cal_), 0);
    }
    // Channel chn on capture channel vi, receiving.
    void start(int chn, int vi, const vda_chn_attr_t& a)
    {
        const mpp_chn_t src{HI_ID_VI, 0, vi}, dst{HI_ID_VDA, 0, chn};
        ASSERT_EQ(HI_MPI_VDA_CreateChn(chn, &a), 0);
        ASSERT_EQ(HI_MPI_SYS_Bind(&src, &dst), 0);
        ASSERT_EQ(HI_MPI_VDA_StartRecvPic(chn), 0);
    }
    // The next result's cells (32 x 18), read and given back.
    std::vector<uint8_t> next(int chn)
    {
        vda_data_t d{};
        EXPECT_EQ(HI_MPI_VDA_GetData(chn, &d, true), 0);
        EXPECT_EQ(d.mb_width, 32u);
        EXPECT_EQ(d.mb_height, 18u);
        EXPECT_GE(d.stride, 32u);
        std::vector<uint8_t> cells;
        for (uint32_t r = 0; r < d.mb_height; ++r)
            cells.insert(cells.end(), d.mb_sad_addr + r * d.stride, d.mb_sad_addr + r * d.stride + 32);
        EXPECT_EQ(HI_MPI_VDA_ReleaseData(chn, &d), 0);
        return cells;
    }
};

TEST_F(sim_vda_test, a_moving_bar_moves_full_columns_and_a_still_camera_nothing)
{
    // Camera 0 (moving) on sub channel 16, camera 1 (still) on 18.
    start(0, 16, md_attr(3));
    start(1, 18, md_attr(3));
    pollfd p{HI_MPI_VDA_GetFd(0), POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 3000), 1);
    for (int i = 0; i < 4; ++i) {
        std::vector<uint8_t> c = next(0);
        // 3 pictures at 30 fps: the bar (64 px of 512, the picture's whole
        // height) moves ~4 px, so only the cells under its two edges change.
        // A busy host may space the pictures further apart, and the bar
        // moves further, but always whole columns (every row moved or none),
        // some columns moved and most still.
        int moved = 0;
        for (int x = 0; x < 32; ++x) {
            for (int y = 1; y < 18; ++y)
                EXPECT_EQ(c[y * 32 + x] != 0, c[x] != 0) << "column " << x << " row " << y;
            moved += c[x] != 0;
        }
        EXPECT_GE(moved, 1);
        EXPECT_LE(moved, 16);
        EXPECT_THAT(next(1), Each(0));
    }
}

TEST_F(sim_vda_test, cells_the_bar_passed_wholly_are_at_least_64_and_covers_hide_them)
{
    // 30 pictures apart the bar has travelled a quarter of the width.
    start(0, 16, md_attr(30));
    std::vector<uint8_t> c = next(0);
    int strong = 0;
    for (int k = 0; k < 32; ++k)
        strong += c[17 * 32 + k] >= 64;
    EXPECT_GE(strong, 4);
    // A black cover over the whole sub channel: nothing moves any more.
    rgn_attr_t ra{};
    ra.type = COVER_RGN;
    rgn_chn_attr_t ca{};
    ca.show = 1;
    ca.type = COVER_RGN;
    ca.cover = {0, 0, 640, 360, 0, 0, {}};
    const mpp_chn_t sub{HI_ID_VI, 0, 16};
    ASSERT_EQ(HI_MPI_RGN_Create(16, &ra), 0);
    ASSERT_EQ(HI_MPI_RGN_AttachToChn(16, &sub, &ca), 0);
    next(0);  // may span the change
    EXPECT_THAT(next(0), Each(0));
}

TEST_F(sim_vda_test, results_wait_in_order_are_given_back_in_order_and_a_full_channel_drops)
{
    start(0, 16, md_attr(1, 2));
    // A result a picture, two buffers: soon both are full and results drop.
    for (int t = 0; t < 500 && sim_media_vda_chn(0).queue->dropped() == 0; ++t)
        usleep(10000);
    vda_data_t a{}, b{}, c{};
    ASSERT_EQ(HI_MPI_VDA_GetData(0, &a, false), 0);
    ASSERT_EQ(HI_MPI_VDA_GetData(0, &b, false), 0);
    EXPECT_EQ(b.seq, a.seq + 1);
    EXPECT_NE(HI_MPI_VDA_GetData(0, &c, false), 0);  // both buffers are out
    EXPECT_EQ(HI_MPI_VDA_ReleaseData(0, &b), hi_err(HI_ID_VDA, HI_ERR_ILLEGAL_PARAM));
    EXPECT_EQ(HI_MPI_VDA_ReleaseData(0, &a), 0);
    EXPECT_EQ(HI_MPI_VDA_ReleaseData(0, &b), 0);
    EXPECT_GT(sim_media_vda_chn(0).queue->dropped(), 0u);
    // A receiving channel is not destroyed; a stopped one is.
    EXPECT_EQ(HI_MPI_VDA_DestroyChn(0), hi_err(HI_ID_VDA, HI_ERR_NOT_PERM));
    EXPECT_EQ(HI_MPI_VDA_StopRecvPic(0), 0);
    EXPECT_EQ(HI_MPI_VDA_DestroyChn(0), 0);
    EXPECT_EQ(HI_MPI_VDA_GetFd(0), hi_err(HI_ID_VDA, HI_ERR_UNEXIST));
    // Attributes the unit does not take.
    vda_chn_attr_t bad = md_attr(0);
    EXPECT_EQ(HI_MPI_VDA_CreateChn(0, &bad), hi_err(HI_ID_VDA, HI_ERR_ILLEGAL_PARAM));
    bad = md_attr(15);
    bad.width = 500;
    EXPECT_EQ(HI_MPI_VDA_CreateChn(0, &bad), hi_err(HI_ID_VDA, HI_ERR_ILLEGAL_PARAM));
    EXPECT_EQ(HI_MPI_VDA_CreateChn(32, &bad), hi_err(HI_ID_VDA, HI_ERR_INVALID_CHNID));
}

}  // namespace
