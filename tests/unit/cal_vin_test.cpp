// The video input module: its creation limits, the format the master sets
// through HSCC_CAL_SetVincaps, and what a bad camera or format does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <limits>

#include "platform/sim/media_core.h"
#include "tests/support/enc_board.h"

namespace {

using ::testing::HasSubstr;

vin_set_caps_cmd_t caps(int cam, int xres, int yres, int prog, double fps, int type = 0)
{
    vin_set_caps_cmd_t p{};
    p.cam = cam;
    p.xres = xres;
    p.yres = yres;
    p.prog = prog;
    p.fps = fps;
    p.type = type;
    return p;
}

class cal_vin_test : public enc_board_test {
protected:
    // Every camera's stored format and input rate, to show nothing moved.
    std::vector<double> snapshot()
    {
        std::vector<double> s;
        for (int c = 0; c < CAL_VIN_MAX_CAM; ++c)
            s.insert(s.end(), {double(vin()->xres[c]), double(vin()->yres[c]), double(vin()->prog[c]),
                               vin()->fps[c], double(vin()->type[c]), double(enc()->ref_fps[c])});
        return s;
    }
};

TEST_F(cal_vin_test, creation_limits_and_the_values_a_new_module_holds)
{
    drop_modules();
    for (int n : {33, -1, INT_MIN}) {
        cal_.slave_cam = n;
        EXPECT_EQ(cal_vin_new(&cal_), nullptr) << n;
    }
    cal_.slave_cam = 32;
    cal_vin_t* v32 = cal_vin_new(&cal_);
    ASSERT_NE(v32, nullptr);
    EXPECT_EQ(v32->vda_fd[31], -1);
    cal_vin_delete(v32);

    cal_.slave_cam = 8;
    stdout_capture out;
    make_modules();
    EXPECT_THAT(out.text(), HasSubstr("> num:8\n"));
    EXPECT_THAT(out.text(), HasSubstr("> md_row:32 md_col:18\n"));
    int x = -9, y = -9, p = -9;
    double f = -9;
    EXPECT_EQ(cal_vin_get_caps(&cal_, 0, &x, &y, &p, &f), 0);
    EXPECT_EQ(x, 0);
    EXPECT_EQ(y, 0);
    EXPECT_EQ(p, 1);
    EXPECT_EQ(f, 0.0);
    EXPECT_EQ(cal_vin_get_caps(&cal_, 3, nullptr, nullptr, nullptr, nullptr), 0);
    // Cameras beyond the count stay all zero.
    EXPECT_EQ(vin()->prog[8], 0);
    EXPECT_EQ(vin()->vda_fd[8], 0);
    EXPECT_EQ(vin()->vda_fd[7], -1);
    for (int c = 0; c < 8; ++c)
        EXPECT_EQ(_vin_vloss_one(&cal_, c), 0);
}

TEST_F(cal_vin_test, set_vincaps_stores_the_format_of_the_local_camera_and_tells_the_encoder)
{
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    stdout_capture out;
    EXPECT_EQ(command(HSCC_CAL_SetVincaps, caps(8 + 2, 1280, 720, 1, 25.0)), 0);
    EXPECT_EQ(command(HSCC_CAL_SetVincaps, caps(8 + 5, 1920, 1080, 0, 29.97, 3)), 0);
    EXPECT_THAT(out.text(), HasSubstr("> cam:2 xres:1280 yres:720 prog:1 fps:25.000\n"));
    EXPECT_THAT(read_file(chip_file("var/log/message")),
                HasSubstr("HSCC_CAL_SetVincaps.. cam:10 xres:1280 yres:720 prog:1 fps:25.0 type:0 cambase:8"));

    vin_info_t info;
    std::memset(&info, 0x5A, sizeof(info));
    EXPECT_EQ(cal_m_vin_get_info(&cal_, 2, &info), 0);
    EXPECT_EQ(info.xres, 1280);
    EXPECT_EQ(info.yres, 720);
    EXPECT_EQ(info.prog, 1);
    EXPECT_EQ(info.fps, 25.0);
    EXPECT_EQ(info.reserved0[0], 0x5A5A5A5A);  // the caller's words stay
    EXPECT_EQ(info.reserved5, 0x5A5A5A5A);
    EXPECT_EQ(enc()->ref_fps[2], 25);
    EXPECT_EQ(enc()->ref_fps[5], 29);  // truncated
    EXPECT_EQ(vin()->type[5], 3);
    EXPECT_EQ(sim_media_vi_chn(6).attr.dest_size.width, 1920u);  // camera 5 captures on channel 6

    // Width 0 switches the camera off and is stored.
    EXPECT_EQ(command(HSCC_CAL_SetVincaps, caps(8 + 2, 0, 720, 1, 25.0)), 0);
    EXPECT_EQ(vin()->xres[2], 0);
    EXPECT_FALSE(sim_media_vi_chn(14).enabled);
}

TEST_F(cal_vin_test, a_camera_out_of_range_or_a_rate_that_is_no_number_changes_nothing)
{
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    const auto before = snapshot();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    for (int cam : {7, 16, -1, INT_MIN, INT_MAX, INT_MIN + 8}) {
        stdout_capture out;
        EXPECT_EQ(command(HSCC_CAL_SetVincaps, caps(cam, 1280, 720, 1, 25.0)), -1) << cam;
        EXPECT_THAT(out.text(), HasSubstr("refused")) << cam;
    }
    for (double fps : {nan, inf, -inf})
        EXPECT_EQ(command(HSCC_CAL_SetVincaps, caps(9, 1280, 720, 1, fps)), -1) << fps;
    // Short of its 32 bytes: refused before anything is read.
    EXPECT_EQ(command(HSCC_CAL_SetVincaps, caps(9, 1280, 720, 1, 25.0), 31), -1);
    // A first camera near the top of the numbering cannot overflow.
    cal_.cam_base = INT_MAX - 3;
    EXPECT_EQ(command(HSCC_CAL_SetVincaps, caps(INT_MIN, 1280, 720, 1, 25.0)), -1);
    EXPECT_EQ(command(HSCC_CAL_SetVincaps, caps(2, 1280, 720, 1, 25.0)), -1);
    cal_.cam_base = INT_MIN;
    EXPECT_EQ(command(HSCC_CAL_SetVincaps, caps(INT_MAX, 1280, 720, 1, 25.0)), -1);
    EXPECT_EQ(snapshot(), before);
    // The direct calls refuse the same cameras.
    EXPECT_EQ(_vin_set_caps(&cal_, 8, 1280, 720, 1, 25.0, 0), -1);
    EXPECT_EQ(cal_vin_get_caps(&cal_, -1, nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(snapshot(), before);
}

TEST_F(cal_vin_test, negative_and_huge_sizes_and_rates_never_crash)
{
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    const int sizes[] = {INT_MIN, -1, 1, 479, 480, 720, 1080, 4096, 65536, INT_MAX};
    const double rates[] = {-1e300, -1, 0, 0.5, 30.0, 60.0, 1e9, 1e300};
    int cam = 0;
    stdout_capture quiet;
    for (int x : sizes)
        for (int y : sizes)
            for (double f : rates) {
                cam = (cam + 1) % 8;
                EXPECT_EQ(command(HSCC_CAL_SetVincaps, caps(8 + cam, x, y, cam % 2, f, cam % 5)), 0);
                EXPECT_EQ(vin()->xres[cam], x);
                EXPECT_EQ(vin()->fps[cam], f);
            }
    // The input rate is the truncated rate, held to the range of int.
    EXPECT_EQ(command(HSCC_CAL_SetVincaps, caps(8, 1920, 1080, 1, 1e300)), 0);
    EXPECT_EQ(enc()->ref_fps[0], INT_MAX);
    EXPECT_EQ(command(HSCC_CAL_SetVincaps, caps(8, 1920, 1080, 1, -1e300)), 0);
    EXPECT_EQ(enc()->ref_fps[0], INT_MIN);
}

using cal_vin_death_test = cal_vin_test;

TEST_F(cal_vin_death_test, operations_check_their_objects)
{
    EXPECT_FATAL(cal_vin_start(nullptr), "vin is NULL");
    vin()->size -= 4;
    EXPECT_FATAL(cal_vin_stop(vin()), "size != sizeof\\(cal_vin_t\\)");
    vin()->size += 4;
    cal_vin_t* v = vin();
    cal_.vin = nullptr;
    EXPECT_FATAL(cal_vin_get_caps(&cal_, 0, nullptr, nullptr, nullptr, nullptr), "vin is NULL");
    cal_.vin = v;
}

}  // namespace
