// The simulated output channels: what the hardware refuses, and the
// pictures a channel counts while it shows its source.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/support/vout_board.h"

namespace {

using sim_media_vo_test = vout_board_test;

constexpr int32_t err(uint32_t e)
{
    return hi_err(HI_ID_VO, e);
}

TEST_F(sim_media_vo_test, channels_take_even_rectangles_and_need_attributes_and_an_enabled_channel)
{
    const vo_chn_attr_t ok{0, {-2, 4, 640, 360}, 0};
    for (vo_chn_attr_t bad : {vo_chn_attr_t{0, {-3, 4, 640, 360}, 0}, vo_chn_attr_t{0, {0, 0, 641, 360}, 0},
                              vo_chn_attr_t{0, {0, 0, 0, 360}, 0}, vo_chn_attr_t{8, {0, 0, 640, 360}, 0},
                              vo_chn_attr_t{0, {0, 0, 640, 4098}, 0}, vo_chn_attr_t{0, {0, 0, 640, 360}, 2}})
        EXPECT_EQ(HI_MPI_VO_SetChnAttr(VOUT_DEV, 1, &bad), err(HI_ERR_ILLEGAL_PARAM));
    EXPECT_EQ(HI_MPI_VO_SetChnAttr(VOUT_DEV, 64, &ok), err(HI_ERR_INVALID_CHNID));
    EXPECT_EQ(HI_MPI_VO_SetChnAttr(9, 1, &ok), err(HI_ERR_INVALID_DEVID));
    EXPECT_EQ(HI_MPI_VO_SetChnAttr(VOUT_DEV, 1, nullptr), err(HI_ERR_NULL_PTR));
    EXPECT_EQ(HI_MPI_VO_EnableChn(VOUT_DEV, 1), err(HI_ERR_NOT_CONFIG));
    EXPECT_EQ(HI_MPI_VO_ChnPause(VOUT_DEV, 1), err(HI_ERR_NOT_PERM));
    EXPECT_EQ(HI_MPI_VO_SetAttrEnd(VOUT_DEV), err(HI_ERR_NOT_PERM));
    ASSERT_EQ(HI_MPI_VO_SetChnAttr(VOUT_DEV, 1, &ok), 0);
    vo_chn_attr_t back{};
    ASSERT_EQ(HI_MPI_VO_GetChnAttr(VOUT_DEV, 1, &back), 0);
    EXPECT_EQ(back.rect.x, -2);
    // Device 0's display is not up on this board; the cascade device is.
    ASSERT_EQ(HI_MPI_VO_SetChnAttr(0, 1, &ok), 0);
    EXPECT_EQ(HI_MPI_VO_EnableChn(0, 1), err(HI_ERR_NOT_PERM));
    ASSERT_EQ(HI_MPI_VO_EnableChn(VOUT_DEV, 1), 0);
    ASSERT_EQ(HI_MPI_VO_ChnPause(VOUT_DEV, 1), 0);
    EXPECT_TRUE(vo(1).paused);
    ASSERT_EQ(HI_MPI_VO_EnableChn(VOUT_DEV, 1), 0);
    EXPECT_FALSE(vo(1).paused);
    EXPECT_EQ(HI_MPI_VO_ClearChnBuffer(VOUT_DEV, 1, 2), err(HI_ERR_ILLEGAL_PARAM));
    ASSERT_EQ(HI_MPI_VO_ClearChnBuffer(VOUT_DEV, 1, 1), 0);
    EXPECT_EQ(vo(1).clears, 1u);
}

TEST_F(sim_media_vo_test, a_channel_counts_while_it_shows_and_holds_its_count_paused_or_detached)
{
    const vo_chn_attr_t a{0, {0, 0, 960, 540}, 0};
    const mpp_chn_t src{HI_ID_VPSS, 8, 3}, dest{HI_ID_VO, VOUT_DEV, 8};  // main-capture group of camera 0
    ASSERT_TRUE(HI_MPI_VO_SetChnAttr(VOUT_DEV, 8, &a) == 0 && HI_MPI_VO_EnableChn(VOUT_DEV, 8) == 0 &&
                HI_MPI_SYS_Bind(&src, &dest) == 0);
    auto grows = [&] {
        const uint64_t first = sim_media_pictures(dest);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (sim_media_pictures(dest) == first && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return sim_media_pictures(dest) > first;
    };
    auto holds = [&] {
        const uint64_t first = sim_media_pictures(dest);
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        return sim_media_pictures(dest) == first;
    };
    EXPECT_TRUE(grows());
    ASSERT_EQ(HI_MPI_VO_ChnPause(VOUT_DEV, 8), 0);
    EXPECT_TRUE(holds());
    const uint64_t paused = sim_media_pictures(dest);
    ASSERT_EQ(HI_MPI_VO_ChnResume(VOUT_DEV, 8), 0);
    EXPECT_TRUE(grows());
    EXPECT_GT(sim_media_pictures(dest), paused);
    ASSERT_EQ(HI_MPI_SYS_UnBind(&src, &dest), 0);
    EXPECT_TRUE(holds());
    EXPECT_GT(sim_media_pictures(dest), paused);
    // A stopped group delivers nothing more; what came before stays counted.
    ASSERT_EQ(HI_MPI_SYS_Bind(&src, &dest), 0);
    EXPECT_TRUE(grows());
    const uint64_t before_stop = sim_media_pictures(dest);
    ASSERT_EQ(HI_MPI_VPSS_StopGrp(8), 0);
    EXPECT_GE(sim_media_pictures(dest), before_stop);
    EXPECT_TRUE(holds());
}

}  // namespace
