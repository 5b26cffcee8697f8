// Capture formats: a camera re-configured after the bring-up, read back
// from the simulated capture device and channels.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/media_board.h"
#include "vin/chip.h"

namespace {

struct format_case {
    const char* name;
    int cam;   // of eight: cameras 0 .. 7 sit on devices 0, 1, 7, 6, 2, 3, 5, 4
    int xres, yres, prog;
    double fps;
    int type;
    const vi_dev_attr_t* table;
    uint32_t mask0, mask1;
    uint32_t cap_w, cap_h;          // main channel
    uint32_t sub_h;
    int32_t sub_sel, sub_src, sub_dst;
};

constexpr int k_chn[8] = {0, 2, 14, 12, 4, 6, 10, 8};

const format_case k_cases[] = {
    {"interlaced_1080_type3_at_60_no_conversion", 1, 1920, 1080, 0, 60.0, 3, &M_CHIP_VI_ATTR_7441_INTERLEAVED_1080I,
     0x00FF0000, 0, 1920, 1080, 360, VI_CAPSEL_BOTTOM, -1, -1},
    {"progressive_1080_at_60_converts_to_30", 7, 1920, 1080, 1, 60.0, 3, &M_CHIP_VI_ATTR_7441_INTERLEAVED_1080P,
     0xFF000000, 0, 1920, 1080, 360, VI_CAPSEL_BOTH, 60, 30},
    {"progressive_at_exactly_30_no_conversion", 1, 1920, 1080, 1, 30.0, 3, &M_CHIP_VI_ATTR_7441_INTERLEAVED_1080P,
     0x00FF0000, 0, 1920, 1080, 360, VI_CAPSEL_BOTH, -1, -1},
    {"progressive_at_59_94_truncates", 6, 1920, 1080, 1, 59.94, 3, &M_CHIP_VI_ATTR_7441_INTERLEAVED_1080P,
     0x00FF0000, 0, 1920, 1080, 360, VI_CAPSEL_BOTH, 59, 29},
    {"progressive_1080_type0", 7, 1920, 1080, 1, 30.0, 0, &M_CHIP_VI_ATTR_7441_BT656_1MUX_720P, 0xFF000000, 0,
     1920, 1080, 360, VI_CAPSEL_BOTH, -1, -1},
    {"hd720_interlaced_type0_bottom_field", 5, 1280, 720, 0, 50.0, 0, &M_CHIP_VI_ATTR_7441_BT656_1MUX_720P,
     0x000000FF, 0, 1280, 720, 360, VI_CAPSEL_BOTTOM, -1, -1},
    {"hd720_type0", 0, 1280, 720, 1, 25.0, 0, &M_CHIP_VI_ATTR_7441_BT656_1MUX_720P, 0xFF000000, 0, 1280, 720, 360,
     VI_CAPSEL_BOTH, -1, -1},
    {"hd720_type3", 2, 1280, 720, 1, 25.0, 3, &M_CHIP_VI_ATTR_7441_INTERLEAVED_720P, 0x000000FF, 0, 1280, 720,
     360, VI_CAPSEL_BOTH, -1, -1},
    {"pal_960_type3_captures_1920", 3, 960, 576, 0, 25.0, 3, &DEV_ATTR_TP28XX_PAL, 0x0000FF00, 0, 1920, 576, 360,
     VI_CAPSEL_BOTH, -1, -1},
    {"ntsc_960_type3_captures_1920", 5, 960, 480, 0, 30.0, 3, &DEV_ATTR_TP28XX_NTSC, 0x000000FF, 0, 1920, 480,
     360, VI_CAPSEL_BOTH, -1, -1},
    {"sd_704x288_type0", 6, 704, 288, 0, 25.0, 0, &M_CHIP_DEV_ATTR_BT656D1_1MUX, 0x00FF0000, 0, 704, 288, 288,
     VI_CAPSEL_BOTH, -1, -1},
    {"bt656_1280_type4_on_device_2", 4, 1280, 720, 1, 25.0, 4, &M_CHIP_VI_ATTR_7441_BT656_1MUX_720P, 0x00FF0000, 0,
     1280, 720, 360, VI_CAPSEL_BOTH, -1, -1},
    {"bt656_1280_type0_on_device_2", 4, 1280, 720, 1, 25.0, 0, &M_CHIP_VI_ATTR_7441_BT656_1MUX_720P, 0x0000FF00,
     0, 1280, 720, 360, VI_CAPSEL_BOTH, -1, -1},
};

void PrintTo(const format_case& f, std::ostream* os)
{
    *os << f.name;
}

class chip_vin_format_test : public chip_board_test, public testing::WithParamInterface<format_case> {};

TEST_P(chip_vin_format_test, records_read_back)
{
    const format_case& f = GetParam();
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    stdout_capture out;
    ASSERT_EQ(_m_chip_set_vin(&cal_, f.cam, f.xres, f.yres, f.prog, f.fps, f.type), 0);
    auto m = trace_messages(out.text());
    EXPECT_TRUE(has_message(m, "cal_m_vout_get_cells with 640 " + std::to_string(f.sub_h) + "!"));
    for (const std::string& line : m)   // a clean re-configuration traces no failure
        EXPECT_EQ(line.find("failed"), std::string::npos) << line;

    const int v = k_chn[f.cam];
    sim_vi_dev dev = sim_media_vi_dev(v / 2);
    vi_dev_attr_t want = *f.table;
    want.comp_mask[0] = f.mask0;
    want.comp_mask[1] = f.mask1;
    EXPECT_TRUE(dev.enabled);
    EXPECT_EQ(std::memcmp(&dev.attr, &want, sizeof(want)), 0)
        << "mode " << dev.attr.intf_mode << " masks " << std::hex << dev.attr.comp_mask[0] << " "
        << dev.attr.comp_mask[1];

    sim_vi_chn main = sim_media_vi_chn(v), sub = sim_media_vi_chn(v + 16);
    const vi_chn_attr_t& a = main.attr;
    EXPECT_TRUE(main.enabled && a.cap_sel == VI_CAPSEL_BOTH && a.frame_rate == -1);
    EXPECT_TRUE(a.cap_rect.width == f.cap_w && a.cap_rect.height == f.cap_h && a.dest_size.width == f.cap_w &&
                a.dest_size.height == f.cap_h)
        << a.cap_rect.width << "x" << a.cap_rect.height;
    const vi_chn_attr_t& s = sub.attr;
    EXPECT_TRUE(sub.enabled && s.cap_rect.width == 640 && s.pix_fmt == 19);
    EXPECT_EQ(s.cap_rect.height, f.sub_h);
    EXPECT_EQ(s.dest_size.height, f.sub_h);
    EXPECT_EQ(s.cap_sel, f.sub_sel);
    EXPECT_EQ(s.src_frame_rate, f.sub_src);
    EXPECT_EQ(s.frame_rate, f.sub_dst);
}

INSTANTIATE_TEST_SUITE_P(formats, chip_vin_format_test, testing::ValuesIn(k_cases),
                         [](const testing::TestParamInfo<format_case>& i) { return i.param.name; });

class chip_vin_test : public chip_board_test {};

TEST_F(chip_vin_test, component_masks_for_every_device_position_and_mode)
{
    struct row {
        int32_t mode;
        int d, xres, type;
        uint32_t mask0, mask1;
    } rows[] = {
        // Mask 1 starts as 0x1234 so that "unchanged" shows.
        {VI_MODE_BT1120_STANDARD, 0, 1920, 3, 0xFF000000, 0x00FF0000},
        {VI_MODE_BT1120_STANDARD, 1, 1920, 3, 0x00FF0000, 0x1234},
        {VI_MODE_BT1120_STANDARD, 2, 1920, 3, 0x0000FF00, 0xFF},
        {VI_MODE_BT1120_STANDARD, 3, 1920, 3, 0x000000FF, 0x1234},
        {VI_MODE_BT1120_INTERLEAVED, 4, 1920, 3, 0xFF000000, 0},
        {VI_MODE_BT1120_INTERLEAVED, 7, 1920, 3, 0x000000FF, 0},
        {VI_MODE_BT656, 2, 1280, 4, 0x00FF0000, 0x1234},
        {VI_MODE_BT656, 2, 1280, 0, 0x0000FF00, 0x1234},
        {VI_MODE_BT656, 6, 1279, 4, 0x0000FF00, 0x1234},
        {VI_MODE_BT656, 6, 1920, 2, 0x0000FF00, 0x1234},
    };
    for (const row& r : rows) {
        vi_dev_attr_t a{};
        a.intf_mode = r.mode;
        a.comp_mask[1] = 0x1234;
        _m_chip_vi_comp_mask(&a, r.d, r.xres, r.type);
        EXPECT_EQ(a.comp_mask[0], r.mask0) << "mode " << r.mode << " device " << r.d;
        EXPECT_EQ(a.comp_mask[1], r.mask1) << "mode " << r.mode << " device " << r.d;
    }
}

TEST_F(chip_vin_test, xres_0_switches_the_camera_off_and_unknown_cameras_are_refused)
{
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    stdout_capture out;
    EXPECT_EQ(_m_chip_set_vin(&cal_, 1, 0, 1080, 1, 30.0, 3), 0);
    EXPECT_EQ(_m_chip_set_vin(&cal_, 1, -4, 1080, 1, 30.0, 3), 0);
    EXPECT_EQ(trace_messages(out.text()).size(), 4u);   // the camera lines only, no failures
    EXPECT_FALSE(sim_media_vi_chn(2).enabled || sim_media_vi_chn(18).enabled || sim_media_vi_dev(1).enabled);
    EXPECT_TRUE(sim_media_vi_chn(0).enabled);   // other cameras go on
    vi_chn_stat_t st;
    EXPECT_NE(HI_MPI_VI_Query(2, &st), 0);
    EXPECT_EQ(_m_chip_set_vin(&cal_, 1, 1280, 720, 1, 25.0, 3), 0);   // a later format brings it back
    ASSERT_EQ(HI_MPI_VI_Query(2, &st), 0);
    EXPECT_EQ(st.frame_rate, 30u);   // the board's default camera

    // Cameras without a capture channel: channel 0 (the map's answer) is not touched.
    stdout_capture refused;
    EXPECT_EQ(_m_chip_set_vin(&cal_, 8, 0, 0, 1, 30.0, 3), -1);
    EXPECT_EQ(_m_chip_set_vin(&cal_, -1, 0, 0, 1, 30.0, 3), -1);
    EXPECT_TRUE(has_message(trace_messages(refused.text()), "cam:8 has no capture channel (slv_cam:8), refused"));
    EXPECT_TRUE(sim_media_vi_chn(0).enabled && sim_media_vi_chn(16).enabled);
}

TEST_F(chip_vin_test, refused_formats_and_channels_that_will_not_stop_keep_the_old_format)
{
    reopen_media("HI_MPI_VI_DisableChn@19=a010800f");   // camera 1's main channel, second run
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    stdout_capture out;
    EXPECT_EQ(_m_chip_set_vin(&cal_, 0, 2560, 1440, 1, 1e12, 0), 0);
    EXPECT_EQ(_m_chip_set_vin(&cal_, 1, 1280, 720, 1, 25.0, 0), 0);
    auto m = trace_messages(out.text());
    EXPECT_TRUE(has_message(m, "HI_MPI_VI_SetChnAttr failed with 0xa0108003!"));   // 2560 wide
    EXPECT_TRUE(has_message(m, "failed with 0xa0108003!"));                       // sub channel rate
    EXPECT_TRUE(has_message(m, "HI_MPI_VI_DisableChn failed with 0xa010800f"));
    EXPECT_TRUE(has_message(m, "HI_MPI_VI_DisableDev failed with 0xa0108009"));
    EXPECT_TRUE(has_message(m, "HI_MPI_VI_SetDevAttr failed with 0xa0108009!"));
    EXPECT_TRUE(has_message(m, "HI_MPI_VI_SetChnAttr failed with 0xa0108009!"));
    EXPECT_TRUE(sim_media_vi_chn(0).enabled && sim_media_vi_chn(0).attr.cap_rect.width == 1920);
    EXPECT_EQ(sim_media_vi_chn(16).attr.src_frame_rate, -1);
    EXPECT_EQ(sim_media_vi_chn(2).attr.cap_rect.width, 1920u);
    EXPECT_EQ(sim_media_vi_dev(1).attr.intf_mode, VI_MODE_BT1120_INTERLEAVED);
}

}  // namespace
