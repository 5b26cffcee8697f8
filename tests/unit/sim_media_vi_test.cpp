// The simulated capture family: device and channel rules, the 4:2:0 switch
// and the status query against the board's cameras.
#include <gtest/gtest.h>

#include "platform/hi_mpi_vi.h"
#include "platform/sim/board.h"
#include "tests/support/media_board.h"

namespace {

constexpr int32_t vi_err(uint32_t e) { return hi_err(HI_ID_VI, e); }

vi_dev_attr_t dev_attr(uint32_t width = 1920, uint32_t height = 1080)
{
    vi_dev_attr_t a{};
    a.intf_mode = VI_MODE_BT1120_INTERLEAVED;
    a.comp_mask[0] = 0xFF000000;
    a.scan_mode = VI_SCAN_PROGRESSIVE;
    a.ad_chn_id[0] = a.ad_chn_id[1] = a.ad_chn_id[2] = a.ad_chn_id[3] = -1;
    a.h_active = width;
    a.v_active = height;
    return a;
}

vi_chn_attr_t chn_attr(uint32_t w = 1920, uint32_t h = 1080, int32_t src = -1, int32_t dst = -1)
{
    return {{0, 0, w, h}, {w, h}, VI_CAPSEL_BOTH, PIXEL_FORMAT_YUV_SEMIPLANAR_420, 0, 0, 0, src, dst};
}

class sim_media_vi_test : public media_board_test {
protected:
    // Device d on (if it is not yet) and channel chn configured and enabled.
    static void start(int d, int chn, vi_chn_attr_t attr)
    {
        vi_dev_attr_t dev = dev_attr();
        if (!sim_media_vi_dev(d).enabled) {
            ASSERT_TRUE(HI_MPI_VI_SetDevAttr(d, &dev) == 0 && HI_MPI_VI_EnableDev(d) == 0);
        }
        ASSERT_TRUE(HI_MPI_VI_SetChnAttr(chn, &attr) == 0 && HI_MPI_VI_EnableChn(chn) == 0);
    }

    static uint32_t rate_of(int chn)
    {
        vi_chn_stat_t st{};
        EXPECT_EQ(HI_MPI_VI_Query(chn, &st), 0);
        return st.frame_rate;
    }
};

TEST_F(sim_media_vi_test, device_and_channel_order_of_switching_on_and_off)
{
    vi_dev_attr_t d = dev_attr(), bad = dev_attr(), other = dev_attr(1280, 720);
    vi_chn_attr_t a = chn_attr();
    bad.comp_mask[0] = 0;
    EXPECT_EQ(HI_MPI_VI_EnableDev(2), vi_err(HI_ERR_NOT_CONFIG));
    EXPECT_EQ(HI_MPI_VI_SetDevAttr(8, &d), vi_err(HI_ERR_INVALID_DEVID));
    EXPECT_EQ(HI_MPI_VI_SetDevAttr(2, &bad), vi_err(HI_ERR_ILLEGAL_PARAM));
    EXPECT_EQ(HI_MPI_VI_EnableChn(4), vi_err(HI_ERR_NOT_CONFIG));
    ASSERT_EQ(HI_MPI_VI_SetChnAttr(4, &a), 0);
    EXPECT_EQ(HI_MPI_VI_EnableChn(4), vi_err(HI_ERR_NOT_PERM));   // device 2 is off
    EXPECT_EQ(HI_MPI_VI_EnableChn(32), vi_err(HI_ERR_INVALID_CHNID));

    ASSERT_TRUE(HI_MPI_VI_SetDevAttr(2, &d) == 0 && HI_MPI_VI_EnableDev(2) == 0);
    EXPECT_EQ(HI_MPI_VI_SetDevAttr(2, &other), vi_err(HI_ERR_NOT_PERM));
    ASSERT_EQ(HI_MPI_VI_EnableChn(4), 0);
    start(2, 21, chn_attr(640, 360));   // device 2's second sub channel
    EXPECT_EQ(HI_MPI_VI_SetChnAttr(4, &a), vi_err(HI_ERR_NOT_PERM));
    ASSERT_EQ(HI_MPI_VI_DisableChn(4), 0);
    EXPECT_EQ(HI_MPI_VI_DisableDev(2), vi_err(HI_ERR_NOT_PERM));   // channel 21 still runs
    ASSERT_EQ(HI_MPI_VI_DisableChn(21), 0);
    EXPECT_EQ(HI_MPI_VI_DisableChn(21), 0);
    EXPECT_EQ(HI_MPI_VI_DisableDev(2), 0);
    EXPECT_EQ(HI_MPI_VI_SetDevAttr(2, &other), 0);
    EXPECT_EQ(sim_media_vi_dev(2).attr.h_active, 1280u);
}

TEST_F(sim_media_vi_test, channel_attributes_the_hardware_refuses)
{
    auto refused = [](vi_chn_attr_t a) { return HI_MPI_VI_SetChnAttr(0, &a) == vi_err(HI_ERR_ILLEGAL_PARAM); };
    vi_chn_attr_t up = chn_attr(), off = chn_attr(640, 360), fmt = chn_attr();
    up.cap_rect.width = 640;   // output larger than the rectangle
    off.cap_rect.x = 1282;     // beyond the right edge
    fmt.pix_fmt = 17;
    for (vi_chn_attr_t a : {chn_attr(1922, 1080), chn_attr(705, 576), chn_attr(16, 16), chn_attr(640, 360, 30, 60),
                            chn_attr(640, 360, -1, 30), chn_attr(640, 360, 121, 60), up, off, fmt})
        EXPECT_TRUE(refused(a)) << a.cap_rect.width << " " << a.src_frame_rate;
    EXPECT_FALSE(sim_media_vi_chn(0).attr_set);

    // A device whose timing gives its size limits the rectangle.
    vi_dev_attr_t d = dev_attr(1280, 720);
    ASSERT_EQ(HI_MPI_VI_SetDevAttr(0, &d), 0);
    EXPECT_TRUE(refused(chn_attr(1920, 1080)));
    EXPECT_FALSE(refused(chn_attr(1280, 720, 60, 30)));
}

TEST_F(sim_media_vi_test, the_420_switch_is_for_420_channels_and_ends_with_the_channel)
{
    vi_chn_attr_t a = chn_attr();
    a.pix_fmt = PIXEL_FORMAT_YUV_SEMIPLANAR_422;
    EXPECT_EQ(HI_MPI_VI_EnableChn422to420(2), vi_err(HI_ERR_NOT_CONFIG));
    start(1, 2, a);
    EXPECT_EQ(HI_MPI_VI_EnableChn422to420(2), vi_err(HI_ERR_NOT_SUPPORT));
    start(0, 0, chn_attr());
    ASSERT_TRUE(HI_MPI_VI_EnableChn422to420(0) == 0 && sim_media_vi_chn(0).to420);
    ASSERT_EQ(HI_MPI_VI_DisableChn(0), 0);
    EXPECT_FALSE(sim_media_vi_chn(0).to420);
}

TEST_F(sim_media_vi_test, query_reports_the_cameras_frame_rate_after_conversion)
{
    // Channel 14 is on device 7 (input 2), channel 12 on device 6 (input 3).
    write_board_conf("camera 12 1920x1080 p 60\ncamera 13 1920x1080 p 25 absent\ncamera 10 1280x720 p 25\nnonsense\n");
    testing::internal::CaptureStderr();
    reopen_media("HI_MPI_VI_Query@1=a010800f");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("sim: board.conf:4: "), std::string::npos);
    sim_set_cam_base(10);
    vi_chn_stat_t st{};
    EXPECT_EQ(HI_MPI_VI_Query(14, &st), static_cast<int32_t>(0xa010800f));
    EXPECT_EQ(HI_MPI_VI_Query(14, &st), vi_err(HI_ERR_NOT_PERM));   // not enabled
    EXPECT_EQ(HI_MPI_VI_Query(-1, &st), vi_err(HI_ERR_INVALID_CHNID));

    start(7, 14, chn_attr());
    start(7, 30, chn_attr(640, 360, 60, 30));   // its sub channel halves the rate
    start(6, 12, chn_attr());
    start(0, 0, chn_attr(1280, 720));
    start(2, 4, chn_attr());                    // input 4 has no line: the default camera
    EXPECT_EQ(rate_of(14), 60u);
    EXPECT_EQ(rate_of(30), 30u);
    EXPECT_EQ(rate_of(12), 0u);                 // absent camera
    EXPECT_EQ(rate_of(0), 25u);
    EXPECT_EQ(rate_of(4), 30u);
    ASSERT_EQ(HI_MPI_VI_Query(30, &st), 0);
    EXPECT_TRUE(st.enabled == 1 && st.pic_width == 640 && st.pic_height == 360);
}

}  // namespace
