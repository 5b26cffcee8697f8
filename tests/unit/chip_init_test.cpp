// The bring-up and the teardown: the state the chip is left in, its memory
// zones, traces, the camera count it accepts and the failures that end them.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>

#include "platform/hi_mpi_venc.h"
#include "tests/support/media_board.h"
#include "vin/cal_vin.h"
#include "vin/chip.h"

namespace {

class chip_init_test : public media_board_test {};

// Camera c of eight: main capture channel, on capture device k_chn[c] / 2.
constexpr int k_chn[8] = {0, 2, 14, 12, 4, 6, 10, 8};

TEST_F(chip_init_test, eight_cameras_capture_bindings_and_traces)
{
    stdout_capture out;
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    int enabled = 0;
    for (int chn = 0; chn < VIU_MAX_CHN_NUM; ++chn)
        enabled += sim_media_vi_chn(chn).enabled;
    EXPECT_EQ(enabled, 16);
    EXPECT_EQ(sim_media_bindings().size(), 24u);
    std::vector<std::string> traces = {"start chip init slave "};
    for (int c = 0; c < 8; ++c) {
        SCOPED_TRACE("camera " + std::to_string(c));
        EXPECT_EQ(cal_cam_to_vi_chn(&cal_, c), k_chn[c]);
        sim_vi_dev dev = sim_media_vi_dev(k_chn[c] / 2);
        vi_dev_attr_t want = M_CHIP_VI_ATTR_7441_INTERLEAVED_1080P;
        want.comp_mask[0] = 0xFF000000u >> 8 * (k_chn[c] / 2 % 4);
        EXPECT_TRUE(dev.enabled && std::memcmp(&dev.attr, &want, sizeof(want)) == 0);

        // Cameras 1, 2, 5, 6 stay 4:2:2; the others are converted to 4:2:0.
        sim_vi_chn main = sim_media_vi_chn(k_chn[c]), sub = sim_media_vi_chn(k_chn[c] + 16);
        bool yuv422 = c == 1 || c == 2 || c == 5 || c == 6;
        EXPECT_TRUE(main.enabled && main.attr.cap_rect.width == 1920 && main.attr.dest_size.height == 1080);
        EXPECT_TRUE(main.attr.pix_fmt == (yuv422 ? 18 : 19) && main.to420 == !yuv422);
        EXPECT_TRUE(sub.enabled && !sub.to420 && sub.attr.pix_fmt == 19 && sub.attr.frame_rate == -1);
        EXPECT_TRUE(sub.attr.dest_size.width == 640 && sub.attr.dest_size.height == 360);
        mpp_chn_t src[3]{}, dest[3] = {{HI_ID_VPSS, c, 0}, {HI_ID_VPSS, 8 + c, 0}, {HI_ID_VPSS, 16 + c, 0}};
        for (int k = 0; k < 3; ++k)
            HI_MPI_SYS_GetBindbyDest(&dest[k], &src[k]);
        EXPECT_TRUE(src[0] == (mpp_chn_t{HI_ID_VDEC, 0, c}) && src[1] == (mpp_chn_t{HI_ID_VI, 0, k_chn[c] + 16}) &&
                    src[2] == (mpp_chn_t{HI_ID_VI, 0, k_chn[c]}));

        traces.push_back("cam:" + std::to_string(c) + " xres:1920 yres:1080 prog:1 slv_cam:8");
        traces.push_back("cam:" + std::to_string(k_chn[c]) + " xres:1920 yres:1080 prog:1 slv_cam:8");
        traces.push_back("cal_m_vout_get_cells with 640 360!");
    }
    for (int first : {8, 0, 16, 127, 125})
        traces.push_back("start vpss .. " + std::to_string(first) + "!");
    traces.push_back("stViParam.s32ViChnCnt! 8");
    std::string text = out.text();
    EXPECT_EQ(text.rfind("chip_init_slave     (", 0), 0u);
    EXPECT_EQ(trace_messages(text), traces);
}

TEST_F(chip_init_test, eight_cameras_processing_groups)
{
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    for (int g = 0; g < VPSS_MAX_GRP_NUM; ++g) {
        SCOPED_TRACE("group " + std::to_string(g));
        sim_vpss_grp grp = sim_media_vpss_grp(g);
        bool planned = g < 24 || g == 125 || g == 127, sub = g >= 8 && g < 16;
        ASSERT_EQ(grp.created, planned);
        if (!planned)
            continue;
        EXPECT_TRUE(grp.started && grp.param.motion_adapt == 0);
        EXPECT_TRUE(grp.attr.max_width == (sub ? 640u : 1920u) && grp.attr.max_height == (sub ? 360u : 1080u));
        EXPECT_EQ(grp.attr.pix_fmt, (g == 17 || g == 18 || g == 21 || g == 22 || g > 124) ? 18 : 19);
        std::set<int> want = sub ? std::set<int>{0, 1, 2, 3, 4}
                           : g == 127 ? std::set<int>{2}
                           : g == 125 ? std::set<int>{3}
                                      : std::set<int>{0, 1, 2, 3};
        for (int k = 0; k < VPSS_MAX_CHN_NUM; ++k) {
            const sim_vpss_chn& chn = grp.chn[k];
            EXPECT_EQ(chn.enabled, want.count(k) == 1) << k;
            EXPECT_TRUE(!chn.enabled || std::memcmp(&chn.attr, &CHIP_VPSS_CHN_ATTR, sizeof(chn.attr)) == 0) << k;
        }
    }
}

TEST_F(chip_init_test, eight_cameras_memory_zones)
{
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    std::map<std::tuple<int, int, int>, std::string> zone;
    for (const sim_mem_conf& m : sim_media_mem_confs())
        zone[{m.chn.mod_id, m.chn.dev_id, m.chn.chn_id}] = m.zone;
    // 16 capture channels; 40 each of decoder, encoder channel, encoder
    // group and processing group; the output device; groups 127 and 125.
    EXPECT_EQ(zone.size(), 16u + 4 * 40 + 1 + 2);
    auto z = [&](int32_t mod, int32_t dev, int32_t chn) {
        return zone.count({mod, dev, chn}) ? zone[{mod, dev, chn}] : "<not configured>";
    };
    const std::set<int> ddr1_cams = {0, 3, 4, 7};  // channels 0, 12, 4, 8
    for (int c = 0; c < 8; ++c) {
        std::string want = ddr1_cams.count(c) ? "ddr1" : "";
        EXPECT_TRUE(z(HI_ID_VI, 0, k_chn[c]) == want && z(HI_ID_VI, 0, k_chn[c] + 16) == want) << c;
    }
    for (int i = 0; i < 40; ++i) {
        bool cam_ddr1 = ddr1_cams.count(i % 8) != 0;
        EXPECT_EQ(z(HI_ID_VDEC, 0, i), i % 2 ? "ddr1" : "") << i;
        EXPECT_EQ(z(HI_ID_VENC, 0, i), cam_ddr1 ? "" : "ddr1") << i;
        EXPECT_EQ(z(HI_ID_GROUP, i, 0), cam_ddr1 ? "ddr1" : "") << i;
    }
    // Main-capture groups follow their camera, the others alternate.
    for (int g : {16, 19, 20, 23, 1, 9, 15, 25, 39})
        EXPECT_EQ(z(HI_ID_VPSS, g, 0), "ddr1") << g;
    for (int g : {17, 18, 21, 22, 0, 8, 24, 38, 125, 127})
        EXPECT_EQ(z(HI_ID_VPSS, g, 0), "") << g;
    EXPECT_EQ(z(HI_ID_VO, 0, 0), "");
}

TEST_F(chip_init_test, four_cameras_keep_one_pixel_format_and_zones_alternate_by_group_parity)
{
    cal_.slave_cam = 4;
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    for (int c = 0; c < 4; ++c) {
        sim_vi_chn main = sim_media_vi_chn(cal_cam_to_vi_chn(&cal_, c));
        EXPECT_TRUE(main.enabled && main.attr.pix_fmt == 19 && main.to420) << c;
    }
    std::map<int, std::string> zone;
    for (const sim_mem_conf& m : sim_media_mem_confs())
        if (m.chn.mod_id == HI_ID_VPSS)
            zone[m.chn.dev_id] = m.zone;
    for (int g = 0; g < 40; ++g)
        EXPECT_EQ(zone[g], g % 2 ? "ddr1" : "") << g;
    for (int g : {0, 5, 11, 125, 127}) {
        sim_vpss_grp grp = sim_media_vpss_grp(g);
        EXPECT_TRUE(grp.started && grp.attr.pix_fmt == 19) << g;
    }
}

TEST_F(chip_init_test, a_memory_zone_failure_ends_the_bring_up_before_capture_but_the_output_entry_is_only_traced)
{
    reopen_media("HI_MPI_SYS_SetMemConf@3=a0028003");  // the first pass's decoder entry
    stdout_capture out;
    EXPECT_EQ(chip_init_slave(&cal_), -1);
    EXPECT_TRUE(has_message(trace_messages(out.text()), "_sys_memconfig failed with -1!"));
    for (int d = 0; d < VIU_MAX_DEV_NUM; ++d)
        EXPECT_FALSE(sim_media_vi_dev(d).enabled) << d;

    reopen_media("HI_MPI_SYS_SetMemConf@7=a0028003");  // after VI, VI sub, VDEC, VENC, group, VPSS: VO 0 0
    stdout_capture again;
    EXPECT_EQ(chip_init_slave(&cal_), 0);
    EXPECT_TRUE(has_message(trace_messages(again.text()), "HI_MPI_SYS_SetMemConf ERR 0 0xa0028003!"));
}

TEST_F(chip_init_test, camera_counts_beyond_the_channel_map_are_refused)
{
    for (int n : {0, 9, -1}) {
        cal_.slave_cam = n;
        stdout_capture out;
        EXPECT_EQ(chip_init_slave(&cal_), -1) << n;
        auto m = trace_messages(out.text());
        std::string last = m.empty() ? "" : m.back();
        EXPECT_EQ(last.rfind("slave_cam:" + std::to_string(n) + " is not 1 .. 8", 0), 0u) << last;
    }
    EXPECT_TRUE(sim_media_mem_confs().empty() && !sim_media_vpss_grp(127).created);
    cal_.slave_cam = 8;
    EXPECT_EQ(cal_cam_to_vi_chn(&cal_, 8), 8);  // c = n gives c
    EXPECT_EQ(cal_cam_to_vi_chn(&cal_, 9) + cal_cam_to_vi_chn(&cal_, -1), 0);
}

TEST_F(chip_init_test, failure_of_group_127_ends_the_bring_up_before_any_binding)
{
    reopen_media("HI_MPI_VPSS_StartGrp@25=a0088010");  // the 25th group is 127
    stdout_capture out;
    EXPECT_EQ(chip_init_slave(&cal_), -1);
    auto m = trace_messages(out.text());
    EXPECT_TRUE(has_message(m, "HI_MPI_VPSS_StartGrp failed with 0xa0088010"));
    EXPECT_EQ(m.back(), "Start Vpss failed!");
    EXPECT_TRUE(!sim_media_vpss_grp(127).started && !sim_media_vpss_grp(125).created);
    EXPECT_TRUE(sim_media_bindings().empty());
}

TEST_F(chip_init_test, bindings_capture_failures_go_on_a_decoder_failure_ends)
{
    reopen_media("HI_MPI_SYS_Bind@1=a0028004,HI_MPI_SYS_Bind@5=a0028004,HI_MPI_SYS_Bind@9=a0028003");
    stdout_capture out;
    EXPECT_EQ(chip_init_slave(&cal_), -1);
    auto m = trace_messages(out.text());
    EXPECT_TRUE(has_message(m, "failed with 16 0xa0028004!"));  // camera 0's sub channel
    EXPECT_TRUE(has_message(m, "failed with 2 0xa0028004!"));   // camera 1's main channel
    EXPECT_EQ(m.back(), "failed with 0xa0028003!");             // camera 2's decoder
    auto b = sim_media_bindings();
    ASSERT_EQ(b.size(), 6u);
    EXPECT_TRUE(b[0].src == (mpp_chn_t{HI_ID_VI, 0, 0}) && b[5].dest == (mpp_chn_t{HI_ID_VPSS, 18, 0}));
}

int created_groups()
{
    int n = 0;
    for (int g = 0; g < VPSS_MAX_GRP_NUM; ++g)
        n += sim_media_vpss_grp(g).created;
    return n;
}

TEST_F(chip_init_test, teardown_leaves_only_zones_capture_and_bindings_into_other_destinations)
{
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    ASSERT_TRUE(HI_MPI_VENC_CreateGroup(0) == 0 && HI_MPI_VENC_CreateGroup(143) == 0);
    const sim_binding extra[] = {
        {{HI_ID_VPSS, 16, 1}, {HI_ID_GROUP, 143, 0}},
        {{HI_ID_VPSS, 16, 3}, {HI_ID_VO, 2, 63}},
        {{HI_ID_VPSS, 127, 2}, {HI_ID_VO, 8, 5}},  // the cascade device is not torn down
        {{HI_ID_VI, 0, 16}, {HI_ID_VDA, 0, 0}},
    };
    for (const sim_binding& b : extra)
        ASSERT_EQ(HI_MPI_SYS_Bind(&b.src, &b.dest), 0);
    size_t zones = sim_media_mem_confs().size();

    stdout_capture out;
    EXPECT_EQ(chip_exit_slave(&cal_), 0);
    EXPECT_EQ(created_groups(), 0);
    EXPECT_FALSE(sim_media_venc_grp(0).created || sim_media_venc_grp(143).created);
    auto left = sim_media_bindings();
    ASSERT_EQ(left.size(), 2u);
    EXPECT_TRUE(left[0].dest == extra[2].dest && left[1].dest == extra[3].dest);
    EXPECT_EQ(sim_media_mem_confs().size(), zones);
    for (int chn : k_chn)
        EXPECT_TRUE(sim_media_vi_chn(chn).enabled && sim_media_vi_chn(chn + 16).enabled) << chn;
    // Every encoder group that did not exist is traced; the two that did are not.
    auto m = trace_messages(out.text());
    EXPECT_TRUE(has_message(m, "HI_MPI_VENC_xxx group[1] failed with 0xa0078005!"));
    EXPECT_EQ(std::count_if(m.begin(), m.end(), [](auto& s) { return s.rfind("HI_MPI_VENC_xxx", 0) == 0; }), 142);
}

TEST_F(chip_init_test, a_group_that_will_not_stop_ends_the_teardown_camera_groups_first)
{
    for (int nth : {3, 26}) {  // group 2; then group 127, the last
        reopen_media(("HI_MPI_VPSS_StopGrp@" + std::to_string(nth) + "=a0088010").c_str());
        ASSERT_EQ(chip_init_slave(&cal_), 0);
        stdout_capture out;
        EXPECT_EQ(chip_exit_slave(&cal_), -1);
        EXPECT_EQ(trace_messages(out.text()).back(), "failed with 0xa0088010!");
        EXPECT_EQ(created_groups(), nth == 3 ? 26 - 2 : 1);
        EXPECT_TRUE(nth == 3 ? sim_media_vpss_grp(2).started : sim_media_vpss_grp(127).created);
    }
}

}  // namespace
