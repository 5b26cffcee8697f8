// Privacy masks: the rectangles HSCC_CAL_SetPrivacy computes on the main
// and sub capture channels, removal, refusals and the region handle plan.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "platform/hi_mpi_rgn.h"
#include "platform/sim/fault.h"
#include "platform/sim/media_core.h"
#include "tests/support/enc_board.h"

namespace {

using ::testing::HasSubstr;

struct box {
    int x, y, w, h;
    bool operator==(const box&) const = default;
};

class vin_privacy_test : public enc_board_test {
protected:
    int privacy(int cam, double x, double y, double w, double h, int show = 1)
    {
        return command(HSCC_CAL_SetPrivacy, vin_set_privacy_cmd_t{cam, show, x, y, w, h});
    }
    // The cover region `handle` on capture channel chn, or {-1..} when none.
    box cover(int handle, int chn)
    {
        sim_rgn r = sim_media_rgn(handle);
        if (!r.created || !r.attached || !sim_same_chn(r.chn, {HI_ID_VI, 0, chn}))
            return {-1, -1, -1, -1};
        EXPECT_EQ(r.attr.type, COVER_RGN);
        EXPECT_EQ(r.chn_attr.show, 1);
        EXPECT_EQ(r.chn_attr.cover.color, 0u);
        const rgn_cover_chn_attr_t& c = r.chn_attr.cover;
        return {c.x, c.y, static_cast<int>(c.width), static_cast<int>(c.height)};
    }
    void set_caps(int cam, int xres, int yres, int type)
    {
        vin_set_caps_cmd_t p{};
        p.cam = cam;
        p.xres = xres;
        p.yres = yres;
        p.prog = 1;
        p.fps = 25;
        p.type = type;
        ASSERT_EQ(command(HSCC_CAL_SetVincaps, p), 0);
    }
    static constexpr box none{-1, -1, -1, -1};
};

TEST_F(vin_privacy_test, worked_examples_give_their_rectangles_on_both_channels)
{
    set_caps(8, 1920, 1080, 3);
    stdout_capture out;
    EXPECT_EQ(privacy(8, 0.5, 0.5, 0.25, 0.25, 0), 0);
    // Camera 0: main region 0 on channel 0, sub region 16 on channel 16;
    // show 0 still shows the mask.
    EXPECT_EQ(cover(0, 0), (box{960, 540, 480, 268}));
    EXPECT_EQ(cover(16, 16), (box{320, 180, 160, 88}));
    EXPECT_EQ(sim_media_rgn(0).chn_attr.cover.layer, 0u);
    const std::string text = out.text();
    // The first command finds no regions to remove, and says so.
    EXPECT_THAT(text, HasSubstr("HI_MPI_RGN_DetachFrmChn failed with 0xa0128005!\n"));
    EXPECT_THAT(text, HasSubstr("HI_MPI_RGN_Destroy failed with 0xa0128005!\n"));
    EXPECT_THAT(text, HasSubstr("ch:0 nx:960 ny:540 nw:480 nh:268 show:0!\n"));
    EXPECT_THAT(text, HasSubstr("ch:16 nx:320 ny:180 nw:160 nh:88 show:0!\n"));
    EXPECT_THAT(text, HasSubstr("success..\n"));

    // Camera 2 (channel 14): regions 2 and 18, layer 2 on both.
    set_caps(10, 1920, 1080, 3);
    EXPECT_EQ(privacy(10, 0.0, 0.0, 0.5, 0.5), 0);
    EXPECT_EQ(cover(2, 14), (box{0, 0, 960, 540}));
    EXPECT_EQ(cover(18, 30), (box{0, 0, 320, 180}));
    EXPECT_EQ(sim_media_rgn(18).chn_attr.cover.layer, 2u);

    // A type-3 camera stored as 960 x 576 is masked on a 1920-wide picture;
    // type 0 on its own width.
    set_caps(9, 960, 576, 3);
    EXPECT_EQ(privacy(9, 0.5, 0.0, 0.25, 0.5), 0);
    EXPECT_EQ(cover(1, 2).x, 960);
    set_caps(9, 960, 576, 0);
    EXPECT_EQ(privacy(9, 0.5, 0.0, 0.25, 0.5), 0);
    EXPECT_EQ(cover(1, 2).x, 480);
}

TEST_F(vin_privacy_test, narrow_and_empty_rectangles_remove_masks)
{
    set_caps(8, 1920, 1080, 3);
    ASSERT_EQ(privacy(8, 0.5, 0.5, 0.25, 0.25), 0);
    // 0.003 of 1920 is 5 pixels, rounded down to 4: the main channel keeps
    // a mask; of 640 it is 1, rounded down to 0: the sub channel has none.
    EXPECT_EQ(privacy(8, 0.1, 0.1, 0.003, 0.5), 0);
    EXPECT_EQ(cover(0, 0), (box{192, 108, 4, 540}));
    EXPECT_EQ(cover(16, 16), none);
    EXPECT_FALSE(sim_media_rgn(16).created);
    // 0.001 gives 1 pixel on the main channel, 0 once rounded: no masks.
    EXPECT_EQ(privacy(8, 0.1, 0.1, 0.001, 0.5), 0);
    EXPECT_FALSE(sim_media_rgn(0).created);
    EXPECT_FALSE(sim_media_rgn(16).created);
    // Width or height 0 removes both.
    ASSERT_EQ(privacy(8, 0.5, 0.5, 0.25, 0.25), 0);
    EXPECT_EQ(privacy(8, 0.5, 0.5, 0.25, 0.0), 0);
    EXPECT_FALSE(sim_media_rgn(0).created);
    EXPECT_FALSE(sim_media_rgn(16).created);
}

TEST_F(vin_privacy_test, a_camera_out_of_range_or_a_rectangle_of_no_numbers_changes_nothing)
{
    set_caps(8, 1920, 1080, 3);
    ASSERT_EQ(privacy(8, 0.5, 0.5, 0.25, 0.25), 0);
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    for (int cam : {7, 16, -1, INT32_MIN})
        EXPECT_EQ(privacy(cam, 0, 0, 0, 0), -1) << cam;
    EXPECT_EQ(privacy(8, nan, 0, 0, 0), -1);
    EXPECT_EQ(privacy(8, 0, 0, inf, 0.5), -1);
    EXPECT_EQ(privacy(8, 0, -inf, 0.5, 0.5), -1);
    EXPECT_EQ(privacy(8, 0, 0, 0.5, nan), -1);
    EXPECT_EQ(cover(0, 0), (box{960, 540, 480, 268}));
    EXPECT_EQ(cover(16, 16), (box{320, 180, 160, 88}));
    // Huge fractions stay within int and are refused by the platform, traced.
    stdout_capture out;
    EXPECT_EQ(privacy(8, 1e300, -1e300, 1e300, 1e300), 0);
    EXPECT_THAT(out.text(), HasSubstr("HI_MPI_RGN_AttachToChn failed with"));
    EXPECT_FALSE(sim_media_rgn(0).created);
    // A command shorter than its payload is refused before the handler.
    EXPECT_EQ(command(HSCC_CAL_SetPrivacy, vin_set_privacy_cmd_t{8, 1, 0, 0, 0.5, 0.5}, 39), -1);
}

TEST_F(vin_privacy_test, a_failed_attachment_destroys_the_new_region_and_the_command_still_succeeds)
{
    set_caps(8, 1920, 1080, 3);
    std::string err;
    ASSERT_EQ(sim_fault_set("HI_MPI_RGN_AttachToChn@1=a0128003", &err), 0) << err;
    stdout_capture out;
    EXPECT_EQ(privacy(8, 0.5, 0.5, 0.25, 0.25), 0);
    EXPECT_THAT(out.text(), HasSubstr("HI_MPI_RGN_AttachToChn failed with 0xa0128003!\n"));
    // The sub channel's attachment came first and failed: no sub region;
    // the main one is there.
    EXPECT_FALSE(sim_media_rgn(16).created);
    EXPECT_EQ(cover(0, 0), (box{960, 540, 480, 268}));
}

TEST_F(vin_privacy_test, handles_keep_every_cameras_regions_apart_on_a_large_slave)
{
    cal_vin_t small{};
    small.num = 16;
    EXPECT_EQ(cal_vin_privacy_handle(&small, 15, false), 15);
    EXPECT_EQ(cal_vin_privacy_handle(&small, 15, true), 31);
    cal_vin_t large{};
    large.num = 32;
    std::vector<int> used;
    for (int c = 0; c < 32; ++c)
        for (bool sub : {false, true})
            used.push_back(cal_vin_privacy_handle(&large, c, sub));
    std::sort(used.begin(), used.end());
    EXPECT_EQ(std::adjacent_find(used.begin(), used.end()), used.end());
    // Clear of the time overlay's 64 + c and within the platform's handles.
    EXPECT_LT(used.back(), 64);
}

}  // namespace
