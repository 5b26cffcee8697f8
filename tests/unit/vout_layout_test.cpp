// Display layout and zoom on a slave of four cameras (recorder cameras 8 to
// 11), checked against what the simulated board holds afterwards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

#include "platform/hi_mpi_vpss.h"
#include "tests/support/vout_board.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

struct cell_def {
    int cam, x, y, w, h;
};

class vout_layout_test : public vout_board_test {
protected:
    // A layout record with the cells given; cells defaults to their number.
    static vout_layout_t record(std::initializer_list<cell_def> cells, int vout_idx = 0, int count = -1)
    {
        vout_layout_t r{};
        r.vout_idx = vout_idx;
        r.layout = 77;
        r.cells = count >= 0 ? count : static_cast<int>(cells.size());
        int k = 0;
        for (const cell_def& c : cells) {
            r.cell[k++] = {0, static_cast<int16_t>(c.cam), static_cast<int16_t>(c.x), static_cast<int16_t>(c.y),
                           static_cast<int16_t>(c.w), static_cast<int16_t>(c.h)};
        }
        return r;
    }
    // An n x n grid over 1920 x 1080, cameras from first on.
    static vout_layout_t grid(int n, int first)
    {
        vout_layout_t r{};
        r.cells = n * n;
        for (int k = 0; k < n * n; ++k)
            r.cell[k] = {0, static_cast<int16_t>(first + k), static_cast<int16_t>(k % n * 1920 / n),
                         static_cast<int16_t>(k / n * 1080 / n), static_cast<int16_t>(1920 / n),
                         static_cast<int16_t>(1080 / n)};
        return r;
    }
    int layout(const vout_layout_t& r, uint32_t len = sizeof(vout_layout_t))
    {
        return command(HSCC_CAL_SetLayout, r, len);
    }
    int zoom(int cam, int x, int y, int w, int h)
    {
        return command(HSCC_CAL_SetZoom, vout_zoom_t{cam, 0, 0, 0, x, y, w, h});
    }
    static vpss_crop_info_t crop() { return sim_media_vpss_grp(VOUT_GRP_FULL).crop; }
    static std::optional<mpp_chn_t> full_input() { return source_of({HI_ID_VPSS, VOUT_GRP_FULL, 0}); }
    static void expect_rect(int chn, int x, int y, uint32_t w, uint32_t h)
    {
        const vo_rect_t r = vo(chn).attr.rect;
        EXPECT_EQ(r.x, x) << chn;
        EXPECT_EQ(r.y, y) << chn;
        EXPECT_EQ(r.width, w) << chn;
        EXPECT_EQ(r.height, h) << chn;
    }
};

constexpr int n = 4;  // cameras of the slave

TEST_F(vout_layout_test, one_cell_goes_full_screen_through_group_127_and_its_zoom_rounds_to_even)
{
    ASSERT_EQ(layout(record({{9, 0, 0, 1920, 1080}})), 0);
    EXPECT_EQ(full_input(), (mpp_chn_t{HI_ID_VI, 0, 4}));  // capture channel 4c for c = 1
    EXPECT_TRUE(vo(9).enabled);
    EXPECT_FALSE(vo(9).paused);
    expect_rect(9, 0, 0, 1920, 1080);
    EXPECT_EQ(vo_source(9), (mpp_chn_t{HI_ID_VPSS, VOUT_GRP_FULL, VOUT_GRP_FULL_CHN}));
    EXPECT_EQ(sim_media_vo_dev(VOUT_DEV).batches, 1u);
    EXPECT_FALSE(sim_media_vo_dev(VOUT_DEV).in_batch);

    ASSERT_EQ(zoom(9, 101, 51, 641, 361), 0);
    vpss_crop_info_t c = crop();
    EXPECT_EQ(c.enable, 1);
    EXPECT_EQ(c.coord_mode, VPSS_CROP_ABS_COOR);
    EXPECT_EQ(c.rect.x, 100);
    EXPECT_EQ(c.rect.y, 50);
    EXPECT_EQ(c.rect.width, 640u);
    EXPECT_EQ(c.rect.height, 360u);

    // The next layout ends the zoom and takes group 127's input away.
    ASSERT_EQ(layout(grid(2, 8)), 0);
    EXPECT_EQ(crop().enable, 0);
    EXPECT_EQ(full_input(), std::nullopt);
}

TEST_F(vout_layout_test, four_cells_show_the_main_capture_groups_and_sixteen_the_sub_capture_groups)
{
    ASSERT_EQ(layout(grid(2, 8)), 0);
    for (int c = 0; c < n; ++c) {
        EXPECT_EQ(vo_source(8 + c), (mpp_chn_t{HI_ID_VPSS, 2 * n + c, 3})) << c;
        expect_rect(8 + c, c % 2 * 960, c / 2 * 540, 960, 540);
    }
    EXPECT_EQ(full_input(), std::nullopt);

    // Sixteen cells of cameras 0 .. 15: this slave's four are placed, the
    // other slaves' are not.
    ASSERT_EQ(layout(grid(4, 0)), 0);
    for (int c = 0; c < n; ++c) {
        EXPECT_EQ(vo_source(8 + c), (mpp_chn_t{HI_ID_VPSS, n + c, 2})) << c;
        expect_rect(8 + c, (8 + c) % 4 * 480, (8 + c) / 4 * 270, 480, 270);
    }
    for (int cam : {0, 7, 12, 15}) {
        EXPECT_FALSE(vo(cam).attr_set) << cam;
        EXPECT_EQ(vo_source(cam), std::nullopt) << cam;
    }
    EXPECT_EQ(full_input(), std::nullopt);
}

TEST_F(vout_layout_test, a_wide_cell_among_nine_shows_the_main_capture_group_and_feeds_group_127)
{
    ASSERT_EQ(layout(record({{8, 0, 0, 1280, 720}, {9, 1280, 0, 640, 360}, {10, 1280, 360, 640, 360},
                             {11, 1280, 720, 640, 360}, {4, 0, 720, 640, 360}, {5, 640, 720, 640, 360},
                             {6, 0, 0, 2, 2}, {7, 0, 0, 2, 2}, {12, 0, 0, 2, 2}})),
              0);
    EXPECT_EQ(vo_source(8), (mpp_chn_t{HI_ID_VPSS, 2 * n, 3}));
    EXPECT_EQ(full_input(), (mpp_chn_t{HI_ID_VI, 0, 0}));
    for (int c = 1; c < n; ++c)
        EXPECT_EQ(vo_source(8 + c), (mpp_chn_t{HI_ID_VPSS, n + c, 2})) << c;
    // Four wide cells are not enough for group 127.
    ASSERT_EQ(layout(record({{8, 0, 0, 1280, 720}, {9, 0, 0, 960, 540}, {10, 0, 0, 960, 540}, {11, 0, 0, 960, 540}})),
              0);
    EXPECT_EQ(full_input(), std::nullopt);
    EXPECT_EQ(vo_source(8), (mpp_chn_t{HI_ID_VPSS, 2 * n, 3}));
}

TEST_F(vout_layout_test, narrow_cameras_below_1280_take_three_quarters_of_their_cell_centred)
{
    // Capture widths as the master set them (the encoder is not on this board).
    cal_.vin->xres[1] = 704;
    cal_.vin->xres[2] = 1280;
    vout_layout_t r = record({{9, 0, 0, 640, 360}, {10, 0, 360, 640, 360}, {8, 640, 0, 640, 360}, {11, 2, 0, 640, 360}});
    r.narrow[9] = 1;
    r.narrow[10] = 1;
    ASSERT_EQ(layout(r), 0);
    expect_rect(9, 80, 0, 480, 360);
    expect_rect(10, 0, 360, 640, 360);
    // Camera 8 is captured as the master never set it (width 0) but its
    // byte is off; camera 11 is narrowed by the byte of camera 11 only.
    expect_rect(8, 640, 0, 640, 360);
    expect_rect(11, 2, 0, 640, 360);
}

TEST_F(vout_layout_test, every_value_is_rounded_toward_zero_to_even)
{
    ASSERT_EQ(layout(record({{8, -3, 5, 641, 363}, {9, 7, -1, 479, 271}})), 0);
    expect_rect(8, -2, 4, 640, 362);
    expect_rect(9, 6, 0, 478, 270);
}

TEST_F(vout_layout_test, cells_of_other_slaves_and_cameras_from_32_are_skipped)
{
    ASSERT_EQ(layout(record({{7, 0, 0, 960, 540}, {12, 0, 0, 960, 540}, {32, 0, 0, 960, 540},
                             {-1, 0, 0, 960, 540}, {10, 960, 540, 960, 540}})),
              0);
    for (int cam : {7, 12, 32})
        EXPECT_FALSE(vo(cam).attr_set) << cam;
    EXPECT_TRUE(vo(10).enabled);
    EXPECT_EQ(vo_source(10), (mpp_chn_t{HI_ID_VPSS, 2 * n + 2, 3}));
}

TEST_F(vout_layout_test, a_count_above_32_is_held_to_32_and_a_short_message_is_refused_untouched)
{
    vout_layout_t r = grid(4, 8);  // cameras 8 .. 23: ours are the first four
    r.cells = 1000;
    ASSERT_EQ(layout(r), 0);
    EXPECT_TRUE(vo(11).enabled);

    // Three cells named, two arrived: refused before anything is done.
    vout_layout_t s = record({{8, 0, 0, 960, 540}, {9, 0, 0, 960, 540}, {10, 0, 0, 960, 540}});
    const uint32_t batches = sim_media_vo_dev(VOUT_DEV).batches;
    EXPECT_EQ(layout(s, VOUT_LAYOUT_HEAD_LEN + 2 * sizeof(vout_cell_t)), -1);
    EXPECT_EQ(layout(s, VOUT_LAYOUT_HEAD_LEN - 1), -1);
    EXPECT_EQ(sim_media_vo_dev(VOUT_DEV).batches, batches);
    expect_rect(8, 0, 0, 480, 270);
    // The cells that arrived are enough.
    EXPECT_EQ(layout(s, VOUT_LAYOUT_HEAD_LEN + 3 * sizeof(vout_cell_t)), 0);
    expect_rect(8, 0, 0, 960, 540);
    EXPECT_FALSE(vo(11).enabled);
}

TEST_F(vout_layout_test, only_output_0_is_laid_out_and_2_and_3_are_left_alone)
{
    ASSERT_EQ(layout(grid(2, 8)), 0);
    for (int idx : {1, -1, 4}) {
        stdout_capture out;
        EXPECT_EQ(layout(record({{8, 0, 0, 1920, 1080}}, idx)), -1) << idx;
        EXPECT_THAT(out.text(), HasSubstr("begin vout_idx:" + std::to_string(idx) + " layout:77 target:-1 cambase:8"));
    }
    for (int idx : {2, 3})
        EXPECT_EQ(layout(record({{8, 0, 0, 1920, 1080}}, idx)), 0) << idx;
    EXPECT_EQ(sim_media_vo_dev(VOUT_DEV).batches, 1u);
    expect_rect(8, 0, 0, 960, 540);
    EXPECT_EQ(full_input(), std::nullopt);
}

TEST_F(vout_layout_test, a_layout_clears_the_play_display_and_every_channel_it_may_have_used)
{
    // A channel of another slave's range left over by someone else.
    const vo_chn_attr_t a{0, {0, 0, 64, 64}, 0};
    const mpp_chn_t vi{HI_ID_VI, 0, 0}, vo15{HI_ID_VO, VOUT_DEV, 15};
    ASSERT_TRUE(HI_MPI_VO_SetChnAttr(VOUT_DEV, 15, &a) == 0 && HI_MPI_VO_EnableChn(VOUT_DEV, 15) == 0 &&
                HI_MPI_SYS_Bind(&vi, &vo15) == 0);
    stdout_capture out;
    ASSERT_EQ(layout(record({{8, 0, 0, 960, 540}})), 0);
    EXPECT_FALSE(vo(15).enabled);  // 4n - 1
    EXPECT_EQ(vo_source(15), std::nullopt);
    EXPECT_EQ(vo(15).clears, 1u);
    std::vector<std::string> m = trace_messages(out.text());
    // No decoder channel exists on this board: each of the eight is traced.
    EXPECT_TRUE(has_message(m, "HI_MPI_VDEC_StopRecvStream failed errno [7] 0xa0058005 "));
    EXPECT_TRUE(has_message(m, "HI_MPI_VDEC_ResetChn failed errno [0] 0xa0058005 "));
    EXPECT_TRUE(has_message(m, "HI_MPI_VDEC_StartRecvStream failed errno [3] 0xa0058005 "));
}

class vout_layout_eight_test : public vout_layout_test {
protected:
    int cameras() const override { return 8; }
};

TEST_F(vout_layout_eight_test, a_slave_of_eight_cameras_lays_out_nothing)
{
    EXPECT_EQ(layout(grid(4, 8)), 0);
    EXPECT_EQ(layout(record({{8, 0, 0, 1920, 1080}}, 1)), 0);
    EXPECT_EQ(sim_media_vo_dev(VOUT_DEV).batches, 0u);
    EXPECT_FALSE(vo(8).attr_set);
}

// ---- failures at each platform step ------------------------------------------------

TEST_F(vout_layout_test, a_failed_begin_refuses_the_layout_and_leaves_the_screen_as_it_was)
{
    ASSERT_EQ(layout(grid(2, 8)), 0);
    fail("HI_MPI_VO_SetAttrBegin=a00f8009");
    stdout_capture out;
    EXPECT_EQ(layout(record({{8, 0, 0, 1920, 1080}})), -1);
    EXPECT_TRUE(has_message(trace_messages(out.text()), "Start VO failed!"));
    EXPECT_EQ(vo_source(9), (mpp_chn_t{HI_ID_VPSS, 2 * n + 1, 3}));
    expect_rect(8, 0, 0, 960, 540);
    EXPECT_EQ(full_input(), std::nullopt);
}

TEST_F(vout_layout_test, a_failed_end_is_refused_though_the_cells_are_placed)
{
    fail("HI_MPI_VO_SetAttrEnd=a00f8009");
    stdout_capture out;
    EXPECT_EQ(layout(grid(2, 8)), -1);
    EXPECT_TRUE(has_message(trace_messages(out.text()), "End VO failed! a00f8009"));
    EXPECT_TRUE(vo(11).enabled);
    EXPECT_TRUE(sim_media_vo_dev(VOUT_DEV).in_batch);
    // The next layout begins again.
    fail("");
    EXPECT_EQ(layout(grid(2, 8)), 0);
    EXPECT_FALSE(sim_media_vo_dev(VOUT_DEV).in_batch);
}

TEST_F(vout_layout_test, a_channel_that_cannot_be_set_up_abandons_the_cells_after_it)
{
    for (const char* rule : {"HI_MPI_VO_SetChnAttr@2=a00f8003", "HI_MPI_VO_EnableChn@2=a00f8009"}) {
        SCOPED_TRACE(rule);
        ASSERT_EQ(layout(record({})), 0);
        fail(rule);
        stdout_capture out;
        EXPECT_EQ(layout(grid(2, 8)), 0);
        const std::string text = out.text();
        EXPECT_THAT(text, HasSubstr(std::string(rule).find("SetChnAttr") != std::string::npos
                                        ? "HI_MPI_VO_SetChnAttr failed!! cam:9 s32Ret:a00f8003"
                                        : "HI_MPI_VO_EnableChn failed!! cam:9 s32Ret:a00f8009"));
        EXPECT_TRUE(vo(8).enabled);
        EXPECT_EQ(vo_source(8), (mpp_chn_t{HI_ID_VPSS, 2 * n, 3}));
        for (int cam : {9, 10, 11}) {
            EXPECT_FALSE(vo(cam).enabled) << cam;
            EXPECT_EQ(vo_source(cam), std::nullopt) << cam;
        }
        fail("");
    }
}

TEST_F(vout_layout_test, a_failed_bind_leaves_that_cell_without_a_source_and_goes_on)
{
    // One cell: the first bind feeds group 127, the second the channel.
    fail("HI_MPI_SYS_Bind@1=a0028003");
    EXPECT_EQ(layout(record({{10, 0, 0, 1920, 1080}})), 0);
    EXPECT_EQ(full_input(), std::nullopt);
    EXPECT_EQ(vo_source(10), (mpp_chn_t{HI_ID_VPSS, VOUT_GRP_FULL, VOUT_GRP_FULL_CHN}));
    fail("HI_MPI_SYS_Bind@1=a0028003");
    EXPECT_EQ(layout(grid(2, 8)), 0);
    EXPECT_EQ(vo_source(8), std::nullopt);
    EXPECT_TRUE(vo(8).enabled);
    EXPECT_EQ(vo_source(11), (mpp_chn_t{HI_ID_VPSS, 2 * n + 3, 3}));
}

TEST_F(vout_layout_test, a_failed_detach_or_crop_read_is_traced_and_the_layout_goes_on)
{
    ASSERT_EQ(layout(record({{9, 0, 0, 1920, 1080}})), 0);
    ASSERT_EQ(zoom(9, 0, 0, 640, 360), 0);
    fail("HI_MPI_SYS_UnBind=a0028005,HI_MPI_VPSS_GetCropCfg=a0088005,HI_MPI_VO_DisableChn@2=a00f8010");
    stdout_capture out;
    EXPECT_EQ(layout(grid(2, 8)), 0);
    std::vector<std::string> m = trace_messages(out.text());
    EXPECT_TRUE(has_message(m, "failed with 0xa00f8010!"));
    EXPECT_TRUE(has_message(m, "HI_MPI_SYS_UnBind failed with [9][0] 0xa0028005!"));
    EXPECT_TRUE(has_message(m, "HI_MPI_SYS_UnBind failed with [16][0] 0xa0028005!"));
    EXPECT_TRUE(has_message(m, "HI_MPI_VPSS_GetCropCfg failed with 0xa0088005!"));
    // What could not be detached stays, and so does the zoom; camera 9's
    // channel keeps its old source, the others are placed.
    EXPECT_EQ(crop().enable, 1);
    EXPECT_EQ(full_input(), (mpp_chn_t{HI_ID_VI, 0, 4}));
    EXPECT_EQ(vo_source(9), (mpp_chn_t{HI_ID_VPSS, VOUT_GRP_FULL, VOUT_GRP_FULL_CHN}));
    EXPECT_EQ(vo_source(10), (mpp_chn_t{HI_ID_VPSS, 2 * n + 2, 3}));
    expect_rect(9, 960, 0, 960, 540);
}

TEST_F(vout_layout_test, a_refused_zoom_returns_minus_1_and_keeps_the_crop)
{
    ASSERT_EQ(zoom(9, 100, 50, 640, 360), 0);
    fail("HI_MPI_VPSS_SetCropCfg=a0088003");
    stdout_capture out;
    EXPECT_EQ(zoom(9, 0, 0, 1920, 1080), -1);
    EXPECT_TRUE(has_message(trace_messages(out.text()), "HI_MPI_VPSS_SetCropCfg failed with 0xa0088003!"));
    fail("");
    EXPECT_EQ(crop().rect.x, 100);
    // A rectangle the group cannot take is refused by the platform.
    EXPECT_EQ(zoom(9, -4, 0, 640, 360), -1);
    EXPECT_EQ(zoom(9, 1800, 0, 640, 360), -1);
    EXPECT_EQ(command(HSCC_CAL_SetZoom, vout_zoom_t{9, 0, 0, 0, 0, 0, 640, 360}, 28), -1);
    EXPECT_EQ(crop().rect.x, 100);
}

}  // namespace
