// The bring-up: the state the chip is left in, its memory zones, traces,
// the camera count it accepts and the failures that end it.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>

#include "platform/sim/fault.h"
#include "tests/support/media_board.h"
#include "vin/cal_vin.h"
#include "vin/chip.h"

namespace {

class chip_init_test : public chip_board_test {};

// Camera c of eight: main capture channel and capture device.
constexpr int k_chn[8] = {0, 2, 14, 12, 4, 6, 10, 8};
constexpr int k_dev[8] = {0, 1, 7, 6, 2, 3, 5, 4};

mpp_chn_t source_of(mpp_chn_t dest)
{
    mpp_chn_t src{-1, -1, -1};
    HI_MPI_SYS_GetBindbyDest(&dest, &src);
    return src;
}

std::set<int> enabled_chns(int grp)
{
    sim_vpss_grp g = sim_media_vpss_grp(grp);
    std::set<int> on;
    for (int k = 0; k < VPSS_MAX_CHN_NUM; ++k)
        if (g.chn[k].enabled)
            on.insert(k);
    return on;
}

TEST_F(chip_init_test, eight_cameras_capture_devices_and_channels)
{
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    const uint32_t masks[4] = {0xFF000000, 0x00FF0000, 0x0000FF00, 0x000000FF};
    int enabled = 0;
    for (int chn = 0; chn < VIU_MAX_CHN_NUM; ++chn)
        enabled += sim_media_vi_chn(chn).enabled;
    EXPECT_EQ(enabled, 16);
    // The conversion is asked for on the four 4:2:0 main channels only.
    EXPECT_EQ(sim_fault_calls(SIM_OP_HI_MPI_VI_EnableChn422to420), 4u);

    for (int c = 0; c < 8; ++c) {
        SCOPED_TRACE("camera " + std::to_string(c));
        sim_vi_dev dev = sim_media_vi_dev(k_dev[c]);
        vi_dev_attr_t want = M_CHIP_VI_ATTR_7441_INTERLEAVED_1080P;
        want.comp_mask[0] = masks[k_dev[c] % 4];
        EXPECT_TRUE(dev.enabled);
        EXPECT_EQ(std::memcmp(&dev.attr, &want, sizeof(want)), 0);

        // Cameras 1, 2, 5, 6 (channels not a multiple of 4) stay 4:2:2.
        sim_vi_chn main = sim_media_vi_chn(k_chn[c]), sub = sim_media_vi_chn(k_chn[c] + 16);
        bool yuv422 = c == 1 || c == 2 || c == 5 || c == 6;
        EXPECT_TRUE(main.enabled && main.attr.cap_rect.width == 1920 && main.attr.dest_size.height == 1080);
        EXPECT_EQ(main.attr.pix_fmt, yuv422 ? 18 : 19);
        EXPECT_EQ(main.to420, !yuv422);
        EXPECT_TRUE(sub.enabled && !sub.to420 && sub.attr.pix_fmt == 19 && sub.attr.frame_rate == -1);
        EXPECT_TRUE(sub.attr.dest_size.width == 640 && sub.attr.dest_size.height == 360);
    }
}

TEST_F(chip_init_test, eight_cameras_processing_groups_and_bindings)
{
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    for (int g = 0; g < VPSS_MAX_GRP_NUM; ++g) {
        SCOPED_TRACE("group " + std::to_string(g));
        sim_vpss_grp grp = sim_media_vpss_grp(g);
        bool planned = g < 24 || g == 125 || g == 127;
        ASSERT_EQ(grp.created, planned);
        if (!planned)
            continue;
        bool sub = g >= 8 && g < 16;
        EXPECT_TRUE(grp.started);
        EXPECT_EQ(grp.param.motion_adapt, 0u);
        EXPECT_TRUE(grp.attr.max_width == (sub ? 640u : 1920u) && grp.attr.max_height == (sub ? 360u : 1080u));
        EXPECT_EQ(grp.attr.pix_fmt, (g == 17 || g == 18 || g == 21 || g == 22 || g > 124) ? 18 : 19);
        std::set<int> want = sub ? std::set<int>{0, 1, 2, 3, 4}
                           : g == 127 ? std::set<int>{2}
                           : g == 125 ? std::set<int>{3}
                                      : std::set<int>{0, 1, 2, 3};
        EXPECT_EQ(enabled_chns(g), want);
        for (int k : want)
            EXPECT_EQ(std::memcmp(&grp.chn[k].attr, &CHIP_VPSS_CHN_ATTR, sizeof(vpss_chn_attr_t)), 0);
    }

    EXPECT_EQ(sim_media_bindings().size(), 24u);
    for (int c = 0; c < 8; ++c) {
        EXPECT_TRUE(source_of({HI_ID_VPSS, 8 + c, 0}) == (mpp_chn_t{HI_ID_VI, 0, k_chn[c] + 16})) << c;
        EXPECT_TRUE(source_of({HI_ID_VPSS, 16 + c, 0}) == (mpp_chn_t{HI_ID_VI, 0, k_chn[c]})) << c;
        EXPECT_TRUE(source_of({HI_ID_VPSS, c, 0}) == (mpp_chn_t{HI_ID_VDEC, 0, c})) << c;
    }
}

TEST_F(chip_init_test, eight_cameras_memory_zones)
{
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    std::map<std::tuple<int, int, int>, std::string> zone;
    for (const sim_mem_conf& m : sim_media_mem_confs())
        zone[{m.chn.mod_id, m.chn.dev_id, m.chn.chn_id}] = m.zone;
    auto z = [&](int32_t mod, int32_t dev, int32_t chn) -> std::string {
        auto it = zone.find({mod, dev, chn});
        return it == zone.end() ? "<not configured>" : it->second;
    };
    // 16 capture channels; 40 each of decoder, encoder channel, encoder
    // group and processing group; the output device; groups 127 and 125.
    EXPECT_EQ(zone.size(), 16u + 4 * 40 + 1 + 2);
    const std::set<int> ddr1_cams = {0, 3, 4, 7};   // channels 0, 12, 4, 8
    for (int c = 0; c < 8; ++c) {
        std::string want = ddr1_cams.count(c) ? "ddr1" : "";
        EXPECT_TRUE(z(HI_ID_VI, 0, k_chn[c]) == want && z(HI_ID_VI, 0, k_chn[c] + 16) == want) << c;
    }
    for (int i = 0; i < 40; ++i) {
        bool cam_ddr1 = ddr1_cams.count(i % 8) != 0;
        EXPECT_EQ(z(HI_ID_VDEC, 0, i), i % 2 ? "ddr1" : "") << i;
        EXPECT_TRUE(z(HI_ID_VENC, 0, i) == (cam_ddr1 ? "" : "ddr1") && z(HI_ID_GROUP, i, 0) == (cam_ddr1 ? "ddr1" : ""));
    }
    // Main-capture groups follow their camera, the others alternate.
    for (int g : {16, 19, 20, 23, 1, 9, 15, 25, 39})
        EXPECT_EQ(z(HI_ID_VPSS, g, 0), "ddr1") << g;
    for (int g : {17, 18, 21, 22, 0, 8, 24, 38, 125, 127})
        EXPECT_EQ(z(HI_ID_VPSS, g, 0), "") << g;
    EXPECT_EQ(z(HI_ID_VO, 0, 0), "");
}

TEST_F(chip_init_test, traces_of_a_clean_bring_up)
{
    stdout_capture out;
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    std::string text = out.text();
    EXPECT_EQ(text.rfind("chip_init_slave     (", 0), 0u);
    std::vector<std::string> want = {"start chip init slave "};
    for (int c = 0; c < 8; ++c) {
        want.push_back("cam:" + std::to_string(c) + " xres:1920 yres:1080 prog:1 slv_cam:8");
        want.push_back("cam:" + std::to_string(k_chn[c]) + " xres:1920 yres:1080 prog:1 slv_cam:8");
        want.push_back("cal_m_vout_get_cells with 640 360!");
    }
    for (int first : {8, 0, 16, 127, 125})
        want.push_back("start vpss .. " + std::to_string(first) + "!");
    want.push_back("stViParam.s32ViChnCnt! 8");
    EXPECT_EQ(trace_messages(text), want);
}

TEST_F(chip_init_test, four_cameras_and_groups_outside_the_plan)
{
    cal_.slave_cam = 4;
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    for (int g = 0; g < VPSS_MAX_GRP_NUM; ++g)
        EXPECT_EQ(sim_media_vpss_grp(g).created, g < 12 || g == 125 || g == 127) << g;
    EXPECT_EQ(enabled_chns(5), (std::set<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(enabled_chns(9), (std::set<int>{0, 1, 2, 3}));
    for (int g : {5, 9, 125})   // every format 4:2:0 without eight cameras
        EXPECT_EQ(sim_media_vpss_grp(g).attr.pix_fmt, 19) << g;
    EXPECT_TRUE(sim_media_vi_chn(12).to420 && !sim_media_vi_chn(4).enabled);
    auto b = sim_media_bindings();
    ASSERT_EQ(b.size(), 12u);
    EXPECT_TRUE(b[9].src == (mpp_chn_t{HI_ID_VI, 0, 28}) && b[9].dest == (mpp_chn_t{HI_ID_VPSS, 7, 0}));

    // Groups beyond the plan follow the other rows of the channel table; a
    // given group record is used as it is.
    const pic_size_t full{1920, 1080};
    vpss_grp_attr_t attr{704, 576, PIXEL_FORMAT_YUV_SEMIPLANAR_422, 0, 0, 0, 0, 0, 1};
    ASSERT_EQ(_mc_vpss_start(&cal_, 1, full, 5, &attr, 12), 0);   // q = 3
    EXPECT_EQ(enabled_chns(12), (std::set<int>{2, 3}));
    sim_vpss_grp g12 = sim_media_vpss_grp(12);
    EXPECT_TRUE(g12.attr.max_width == 704 && g12.attr.pix_fmt == 18 && g12.attr.die_mode == 1);
    ASSERT_EQ(_mc_vpss_start(&cal_, 2, full, 5, nullptr, 20), 0);   // q = 5
    EXPECT_TRUE(enabled_chns(21).empty() && sim_media_vpss_grp(21).started);
    EXPECT_EQ(_mc_vpss_start(&cal_, 1, full, 5, nullptr, 20), -1);   // exists
}

TEST_F(chip_init_test, camera_counts_and_the_channel_map)
{
    for (int n : {0, 9, -1}) {
        cal_.slave_cam = n;
        stdout_capture out;
        EXPECT_EQ(chip_init_slave(&cal_), -1) << n;
        auto m = trace_messages(out.text());
        ASSERT_EQ(m.size(), 2u);
        EXPECT_EQ(m[1].rfind("slave_cam:" + std::to_string(n) + " is not 1 .. 8", 0), 0u) << m[1];
    }
    EXPECT_TRUE(sim_media_mem_confs().empty() && !sim_media_vpss_grp(127).created);

    cal_.slave_cam = 8;
    for (int c = 0; c < 8; ++c)
        EXPECT_EQ(cal_cam_to_vi_chn(&cal_, c), k_chn[c]);
    EXPECT_EQ(cal_cam_to_vi_chn(&cal_, 8), 8);   // c = n gives c
    EXPECT_EQ(cal_cam_to_vi_chn(&cal_, 9), 0);
    EXPECT_EQ(cal_cam_to_vi_chn(&cal_, -1), 0);
    cal_.slave_cam = 16;
    EXPECT_EQ(cal_cam_to_vi_chn(&cal_, 10), 0);   // beyond the map
    cal_.size = 0;
    EXPECT_FATAL(cal_cam_to_vi_chn(&cal_, 0), "size != sizeof\\(cal_t\\)");
}

// ---- failures -------------------------------------------------------------

TEST_F(chip_init_test, failure_of_group_127_ends_the_bring_up_before_any_binding)
{
    reopen_media("HI_MPI_VPSS_StartGrp@25=a0088010");   // the 25th group is 127
    stdout_capture out;
    EXPECT_EQ(chip_init_slave(&cal_), -1);
    auto m = trace_messages(out.text());
    ASSERT_GE(m.size(), 2u);
    EXPECT_EQ(m[m.size() - 2], "HI_MPI_VPSS_StartGrp failed with 0xa0088010");
    EXPECT_EQ(m.back(), "Start Vpss failed!");
    EXPECT_TRUE(sim_media_vpss_grp(127).created && !sim_media_vpss_grp(127).started);
    EXPECT_FALSE(sim_media_vpss_grp(125).created);
    EXPECT_TRUE(sim_media_bindings().empty());
}

TEST_F(chip_init_test, bindings_capture_failures_go_on_a_decoder_failure_ends)
{
    reopen_media("HI_MPI_SYS_Bind@1=a0028004,HI_MPI_SYS_Bind@5=a0028004,HI_MPI_SYS_Bind@9=a0028003");
    stdout_capture out;
    EXPECT_EQ(chip_init_slave(&cal_), -1);
    auto m = trace_messages(out.text());
    EXPECT_TRUE(has_message(m, "failed with 16 0xa0028004!"));   // camera 0's sub channel
    EXPECT_TRUE(has_message(m, "failed with 2 0xa0028004!"));    // camera 1's main channel
    EXPECT_EQ(m.back(), "failed with 0xa0028003!");              // camera 2's decoder
    auto b = sim_media_bindings();
    ASSERT_EQ(b.size(), 6u);
    EXPECT_TRUE(b[0].src == (mpp_chn_t{HI_ID_VI, 0, 0}) && b[5].dest == (mpp_chn_t{HI_ID_VPSS, 18, 0}));
}

TEST_F(chip_init_test, memory_zone_failures)
{
    struct row {
        const char* rule;
        int result;
        const char* message;
    } rows[] = {
        {"HI_MPI_SYS_SetMemConf@2=a0028003", -1, "VI subchn HI_MPI_SYS_SetMemConf failed with 0xa0028003!"},
        {"HI_MPI_SYS_SetMemConf@7=a0028003", 0, "HI_MPI_SYS_SetMemConf ERR 0 0xa0028003!"},  // output device
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.rule);
        reopen_media(r.rule);
        stdout_capture out;
        EXPECT_EQ(chip_init_slave(&cal_), r.result);
        auto m = trace_messages(out.text());
        EXPECT_TRUE(has_message(m, r.message));
        EXPECT_EQ(sim_media_vi_dev(0).enabled, r.result == 0);   // capture comes after the zones
        EXPECT_EQ(r.result == 0 || m.back() == "_sys_memconfig failed with -1!", true);
    }
}

TEST_F(chip_init_test, a_failed_group_leaves_the_rest_of_its_run_uncreated)
{
    reopen_media("HI_MPI_VPSS_CreateGrp@3=a0088003");
    stdout_capture out;
    EXPECT_EQ(chip_init_slave(&cal_), 0);
    auto m = trace_messages(out.text());
    EXPECT_TRUE(has_message(m, "HI_MPI_VPSS_CreateGrp failed with 2 0xa0088003!"));
    EXPECT_TRUE(has_message(m, "Start Vpss failed!"));
    for (int g = 0; g < 24; ++g)
        EXPECT_EQ(sim_media_vpss_grp(g).created, g < 10 || g >= 16) << g;
    EXPECT_EQ(sim_media_bindings().size(), 24u);   // routing entries need no group
}

}  // namespace
