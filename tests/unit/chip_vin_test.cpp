// Capture formats: a camera re-configured after the bring-up, read back
// from the simulated capture device and channels.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/media_board.h"
#include "vin/chip.h"

namespace {

class chip_vin_test : public media_board_test {};

constexpr int k_chn[8] = {0, 2, 14, 12, 4, 6, 10, 8};  // on devices 0, 1, 7, 6, 2, 3, 5, 4

TEST_F(chip_vin_test, every_device_table_and_component_mask_read_back_from_device_and_channels)
{
    struct format_case {
        const char* name;
        int cam, xres;
        uint32_t yres;
        int prog;
        double fps;
        int type;
        const vi_dev_attr_t* table;
        uint32_t mask0, cap_w, sub_h;
        int32_t sub_sel, sub_src, sub_dst;
    } cases[] = {
        {"interlaced 1080", 1, 1920, 1080, 0, 60.0, 3, &M_CHIP_VI_ATTR_7441_INTERLEAVED_1080I, 0x00FF0000, 1920, 360,
         VI_CAPSEL_BOTTOM, -1, -1},
        {"1080p at 60 converts to 30", 7, 1920, 1080, 1, 60.0, 3, &M_CHIP_VI_ATTR_7441_INTERLEAVED_1080P, 0xFF000000,
         1920, 360, VI_CAPSEL_BOTH, 60, 30},
        {"720p type 0", 0, 1280, 720, 1, 25.0, 0, &M_CHIP_VI_ATTR_7441_BT656_1MUX_720P, 0xFF000000, 1280, 360,
         VI_CAPSEL_BOTH, -1, -1},
        {"720p type 4 on device 2", 4, 1280, 720, 1, 25.0, 4, &M_CHIP_VI_ATTR_7441_BT656_1MUX_720P, 0x00FF0000, 1280,
         360, VI_CAPSEL_BOTH, -1, -1},
        {"720p type 0 on device 2", 4, 1280, 720, 1, 25.0, 0, &M_CHIP_VI_ATTR_7441_BT656_1MUX_720P, 0x0000FF00, 1280,
         360, VI_CAPSEL_BOTH, -1, -1},
        {"SD 704x576 type 4 on device 2", 4, 704, 576, 0, 25.0, 4, &M_CHIP_DEV_ATTR_BT656D1_1MUX, 0x0000FF00, 704,
         360, VI_CAPSEL_BOTH, -1, -1},
        {"720p type 3", 2, 1280, 720, 1, 25.0, 3, &M_CHIP_VI_ATTR_7441_INTERLEAVED_720P, 0x000000FF, 1280, 360,
         VI_CAPSEL_BOTH, -1, -1},
        {"PAL 960 type 3 captures 1920", 3, 960, 576, 0, 25.0, 3, &DEV_ATTR_TP28XX_PAL, 0x0000FF00, 1920, 360,
         VI_CAPSEL_BOTH, -1, -1},
        {"NTSC 960 type 3 captures 1920", 5, 960, 480, 0, 30.0, 3, &DEV_ATTR_TP28XX_NTSC, 0x000000FF, 1920, 360,
         VI_CAPSEL_BOTH, -1, -1},
        {"SD 704x288 type 0", 6, 704, 288, 0, 25.0, 0, &M_CHIP_DEV_ATTR_BT656D1_1MUX, 0x00FF0000, 704, 288,
         VI_CAPSEL_BOTH, -1, -1},
    };
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    for (const format_case& f : cases) {
        SCOPED_TRACE(f.name);
        stdout_capture out;
        ASSERT_EQ(_m_chip_set_vin(&cal_, f.cam, f.xres, static_cast<int>(f.yres), f.prog, f.fps, f.type), 0);
        EXPECT_EQ(out.text().find("failed"), std::string::npos);  // a clean re-configuration traces no failure

        const int v = k_chn[f.cam];
        sim_vi_dev dev = sim_media_vi_dev(v / 2);
        vi_dev_attr_t want = *f.table;
        want.comp_mask[0] = f.mask0;
        EXPECT_TRUE(dev.enabled && std::memcmp(&dev.attr, &want, sizeof(want)) == 0)
            << "mode " << dev.attr.intf_mode << " mask " << std::hex << dev.attr.comp_mask[0];
        vi_chn_attr_t a = sim_media_vi_chn(v).attr, s = sim_media_vi_chn(v + 16).attr;
        EXPECT_TRUE(sim_media_vi_chn(v).enabled && a.cap_sel == VI_CAPSEL_BOTH && a.frame_rate == -1);
        EXPECT_TRUE(a.cap_rect.width == f.cap_w && a.dest_size.width == f.cap_w && a.cap_rect.height == f.yres &&
                    a.dest_size.height == f.yres);
        EXPECT_TRUE(sim_media_vi_chn(v + 16).enabled && s.cap_rect.width == 640 && s.pix_fmt == 19);
        EXPECT_TRUE(s.cap_rect.height == f.sub_h && s.dest_size.height == f.sub_h && s.cap_sel == f.sub_sel);
        EXPECT_TRUE(s.src_frame_rate == f.sub_src && s.frame_rate == f.sub_dst);
    }
}

TEST_F(chip_vin_test, xres_0_switches_the_camera_off_and_cameras_without_a_channel_are_refused)
{
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    stdout_capture out;
    EXPECT_EQ(_m_chip_set_vin(&cal_, 1, 0, 1080, 1, 30.0, 3), 0);
    EXPECT_EQ(trace_messages(out.text()).size(), 2u);  // the camera lines only, no failures
    EXPECT_FALSE(sim_media_vi_chn(2).enabled || sim_media_vi_chn(18).enabled || sim_media_vi_dev(1).enabled);
    EXPECT_TRUE(sim_media_vi_chn(0).enabled);  // other cameras go on
    EXPECT_EQ(_m_chip_set_vin(&cal_, 1, 1280, 720, 1, 25.0, 3), 0);  // a later format brings it back
    EXPECT_TRUE(sim_media_vi_chn(2).enabled && sim_media_vi_chn(18).enabled && sim_media_vi_dev(1).enabled);

    // Channel 0, the map's answer for cameras beyond it, is not touched.
    stdout_capture refused;
    EXPECT_EQ(_m_chip_set_vin(&cal_, 8, 0, 0, 1, 30.0, 3), -1);
    EXPECT_EQ(_m_chip_set_vin(&cal_, -1, 0, 0, 1, 30.0, 3), -1);
    EXPECT_TRUE(has_message(trace_messages(refused.text()), "cam:8 has no capture channel (slv_cam:8), refused"));
    EXPECT_TRUE(sim_media_vi_chn(0).enabled && sim_media_vi_chn(16).enabled);
}

}  // namespace
