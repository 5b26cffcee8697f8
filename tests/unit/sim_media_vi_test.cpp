// The simulated capture family: device and channel rules and the status
// query against the board's cameras.
#include <gtest/gtest.h>

#include <fstream>

#include "platform/hi_mpi_vi.h"
#include "platform/sim/board.h"
#include "tests/support/media_board.h"
#include "vin/chip.h"

namespace {

constexpr int32_t vi_err(uint32_t e) { return hi_err(HI_ID_VI, e); }
constexpr vi_dev_attr_t k_dev = M_CHIP_VI_ATTR_7441_INTERLEAVED_1080P, k_dev720 = M_CHIP_VI_ATTR_7441_INTERLEAVED_720P;

vi_chn_attr_t chn_attr(uint32_t w = 1920, uint32_t h = 1080, int32_t src = -1, int32_t dst = -1)
{
    return {{0, 0, w, h}, {w, h}, VI_CAPSEL_BOTH, PIXEL_FORMAT_YUV_SEMIPLANAR_420, 0, 0, 0, src, dst};
}

class sim_media_vi_test : public media_board_test {
protected:
    // Device d on (if it is not yet) and channel chn configured and enabled.
    static void start(int d, int chn, vi_chn_attr_t attr)
    {
        if (!sim_media_vi_dev(d).enabled) {
            ASSERT_TRUE(HI_MPI_VI_SetDevAttr(d, &k_dev) == 0 && HI_MPI_VI_EnableDev(d) == 0);
        }
        ASSERT_TRUE(HI_MPI_VI_SetChnAttr(chn, &attr) == 0 && HI_MPI_VI_EnableChn(chn) == 0);
    }
};

TEST_F(sim_media_vi_test, devices_and_channels_switch_on_and_off_in_order_within_their_limits)
{
    vi_chn_attr_t a = chn_attr(), off_edge = chn_attr(640, 360);
    off_edge.cap_rect.x = 1282;
    EXPECT_EQ(HI_MPI_VI_EnableDev(2), vi_err(HI_ERR_NOT_CONFIG));
    EXPECT_EQ(HI_MPI_VI_SetDevAttr(8, &k_dev), vi_err(HI_ERR_INVALID_DEVID));
    EXPECT_EQ(HI_MPI_VI_EnableChn(32), vi_err(HI_ERR_INVALID_CHNID));
    for (vi_chn_attr_t bad : {chn_attr(1922, 1080), chn_attr(640, 360, 30, 60), off_edge})
        EXPECT_EQ(HI_MPI_VI_SetChnAttr(4, &bad), vi_err(HI_ERR_ILLEGAL_PARAM)) << bad.cap_rect.width;
    ASSERT_EQ(HI_MPI_VI_SetChnAttr(4, &a), 0);
    EXPECT_EQ(HI_MPI_VI_EnableChn(4), vi_err(HI_ERR_NOT_PERM));  // device 2 is off
    start(2, 21, chn_attr(640, 360));                             // device 2's second sub channel
    EXPECT_EQ(HI_MPI_VI_SetDevAttr(2, &k_dev720), vi_err(HI_ERR_NOT_PERM));
    EXPECT_EQ(HI_MPI_VI_SetChnAttr(21, &a), vi_err(HI_ERR_NOT_PERM));
    EXPECT_EQ(HI_MPI_VI_DisableDev(2), vi_err(HI_ERR_NOT_PERM));  // channel 21 still runs
    ASSERT_TRUE(HI_MPI_VI_DisableChn(21) == 0 && HI_MPI_VI_DisableChn(21) == 0);
    EXPECT_EQ(HI_MPI_VI_DisableDev(2), 0);
    ASSERT_EQ(HI_MPI_VI_SetDevAttr(2, &k_dev720), 0);  // the device's timing limits the rectangle
    EXPECT_EQ(HI_MPI_VI_SetChnAttr(4, &a), vi_err(HI_ERR_ILLEGAL_PARAM));
}

TEST_F(sim_media_vi_test, query_reports_the_cameras_frame_rate_after_conversion)
{
    // Channel 14 is on device 7 (input 2), channel 12 on device 6 (input 3).
    std::ofstream(board_.file("board.conf")) << "camera 12 1920x1080 p 60\ncamera 13 1920x1080 p 25 absent\n";
    reopen_media("");
    sim_set_cam_base(10);
    vi_chn_stat_t st{};
    EXPECT_EQ(HI_MPI_VI_Query(14, &st), vi_err(HI_ERR_NOT_PERM));  // not enabled
    start(7, 14, chn_attr());
    start(7, 30, chn_attr(640, 360, 60, 30));  // its sub channel halves the rate
    start(6, 12, chn_attr());
    for (auto [chn, rate] : {std::pair{14, 60u}, {30, 30u}, {12, 0u}}) {
        ASSERT_EQ(HI_MPI_VI_Query(chn, &st), 0);
        EXPECT_EQ(st.frame_rate, rate) << chn;  // camera 13 is absent: 0
    }
    EXPECT_TRUE(st.enabled == 1 && st.pic_width == 1920 && st.pic_height == 1080);
}

TEST_F(sim_media_vi_test, a_first_camera_at_the_int_limit_leaves_the_later_inputs_default_cameras)
{
    // Input 0 carries camera 2147483647; input 3 would be 2147483650, a
    // camera no board has: it must not wrap to a number that is.
    std::ofstream(board_.file("board.conf")) << "camera 2147483647 1920x1080 p 12\n";
    reopen_media("");
    sim_set_cam_base(2147483647);
    EXPECT_EQ(sim_media_camera(0).fps, 12.0);
    EXPECT_EQ(sim_media_camera(3).fps, 30.0);
    start(6, 12, chn_attr());  // input 3
    vi_chn_stat_t st{};
    ASSERT_EQ(HI_MPI_VI_Query(12, &st), 0);
    EXPECT_EQ(st.frame_rate, 30u);
}

}  // namespace
