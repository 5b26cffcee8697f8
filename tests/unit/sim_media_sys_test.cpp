// The media core's routing, memory zones, readiness and board.conf.
#include <gtest/gtest.h>

#include "platform/hi_mpi_vi.h"
#include "tests/support/media_board.h"

namespace {

class sim_media_sys_test : public media_board_test {};

constexpr mpp_chn_t vi(int chn) { return {HI_ID_VI, 0, chn}; }
constexpr mpp_chn_t vpss(int grp, int chn = 0) { return {HI_ID_VPSS, grp, chn}; }
constexpr int32_t sys_err(uint32_t e) { return hi_err(HI_ID_SYS, e); }

TEST_F(sim_media_sys_test, a_destination_has_one_source_and_a_source_feeds_many)
{
    mpp_chn_t a = vi(0), b = vi(2), g16 = vpss(16), g8 = vpss(8), src{};
    ASSERT_EQ(HI_MPI_SYS_Bind(&a, &g16), 0);   // routing entries may name groups not yet created
    EXPECT_EQ(HI_MPI_SYS_Bind(&b, &g16), sys_err(HI_ERR_EXIST));
    ASSERT_EQ(HI_MPI_SYS_Bind(&a, &g8), 0);
    EXPECT_EQ(sim_media_dests_of(a).size(), 2u);
    ASSERT_EQ(HI_MPI_SYS_GetBindbyDest(&g16, &src), 0);
    EXPECT_EQ(src, a);

    EXPECT_EQ(HI_MPI_SYS_UnBind(&b, &g16), sys_err(HI_ERR_UNEXIST));   // not the bound pair
    ASSERT_EQ(HI_MPI_SYS_UnBind(&a, &g16), 0);
    EXPECT_EQ(HI_MPI_SYS_GetBindbyDest(&g16, &src), sys_err(HI_ERR_UNEXIST));
    ASSERT_EQ(HI_MPI_SYS_Bind(&b, &g16), 0);
    auto all = sim_media_bindings();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_TRUE(all[0].dest == g8 && all[1].src == b);
}

TEST_F(sim_media_sys_test, addresses_outside_their_module_range_or_role_are_refused)
{
    struct row {
        mpp_chn_t src, dest;
        uint32_t err;
    } rows[] = {
        {vi(32), vpss(0), HI_ERR_INVALID_CHNID},
        {vi(0), vpss(0, 1), HI_ERR_INVALID_CHNID},   // a group receives on channel 0
        {vpss(0, 5), {HI_ID_GROUP, 0, 0}, HI_ERR_INVALID_CHNID},
        {vpss(0, 1), {HI_ID_GROUP, 144, 0}, HI_ERR_INVALID_DEVID},
        {vpss(0, 1), vi(0), HI_ERR_ILLEGAL_PARAM},   // capture is never a destination
        {{99, 0, 0}, vpss(0), HI_ERR_ILLEGAL_PARAM},
    };
    for (const row& r : rows)
        EXPECT_EQ(HI_MPI_SYS_Bind(&r.src, &r.dest), sys_err(r.err)) << r.src.mod_id << " " << r.dest.mod_id;
    EXPECT_EQ(HI_MPI_SYS_Bind(&rows[0].dest, nullptr), sys_err(HI_ERR_NULL_PTR));
    EXPECT_TRUE(sim_media_bindings().empty());
}

TEST_F(sim_media_sys_test, memory_zones_one_entry_per_channel_and_only_known_zones)
{
    mpp_chn_t g3 = vpss(3), v4 = vi(4), bad = vpss(3, 2);
    char zone[MAX_MMZ_NAME_LEN] = "junk";
    ASSERT_EQ(HI_MPI_SYS_GetMemConf(&g3, zone), 0);
    EXPECT_STREQ(zone, "");   // never configured: the default zone
    ASSERT_EQ(HI_MPI_SYS_SetMemConf(&g3, MMZ_DDR1), 0);
    ASSERT_EQ(HI_MPI_SYS_SetMemConf(&v4, nullptr), 0);
    ASSERT_EQ(HI_MPI_SYS_GetMemConf(&g3, zone), 0);
    EXPECT_STREQ(zone, "ddr1");
    ASSERT_EQ(HI_MPI_SYS_SetMemConf(&g3, MMZ_DEFAULT), 0);
    EXPECT_EQ(HI_MPI_SYS_SetMemConf(&g3, "ddr2"), sys_err(HI_ERR_ILLEGAL_PARAM));
    EXPECT_EQ(HI_MPI_SYS_SetMemConf(&g3, "ddr1-but-far-too-long"), sys_err(HI_ERR_ILLEGAL_PARAM));
    EXPECT_EQ(HI_MPI_SYS_SetMemConf(&bad, MMZ_DDR1), sys_err(HI_ERR_INVALID_CHNID));

    auto confs = sim_media_mem_confs();
    ASSERT_EQ(confs.size(), 2u);
    EXPECT_TRUE(confs[0].chn == g3 && confs[1].chn == v4);
    EXPECT_STREQ(confs[0].zone, "");
}

TEST_F(sim_media_sys_test, nothing_works_before_the_system_is_initialised_and_faults_have_no_effect)
{
    reopen("HI_MPI_SYS_Bind@2=a0028010");
    mpp_chn_t a = vi(0), g = vpss(16);
    EXPECT_EQ(HI_MPI_SYS_Bind(&a, &g), sys_err(HI_ERR_SYS_NOTREADY));
    EXPECT_EQ(HI_MPI_VI_EnableDev(0), hi_err(HI_ID_VI, HI_ERR_SYS_NOTREADY));
    init_media_system();
    EXPECT_EQ(HI_MPI_SYS_Bind(&a, &g), static_cast<int32_t>(0xa0028010));   // the second call
    EXPECT_TRUE(sim_media_bindings().empty());
    EXPECT_EQ(HI_MPI_SYS_Bind(&a, &g), 0);
}

TEST(sim_board_conf_test, lines_comments_defaults_and_refused_lines)
{
    std::vector<std::string> problems;
    sim_board_conf conf = sim_board_conf_parse("# cameras of the test board\n\n"
                                               "camera 3 1280x720 p 25\n"
                                               "  camera 4 960x576 i 29.97 absent\r\n"
                                               "camera 5 704x288 p 12.5 still\n"
                                               "camera 6 1920x1080 p 30 blinking\n"
                                               "camera -1 1920x1080 p 30\n"
                                               "camera 7 1920*1080 p 30\n"
                                               "camera 8 1920x1080 q 0\n"
                                               "camera 9 1920x1080 p 30 still extra\n"
                                               "camera 3 640x480 p 30\n",
                                               &problems);
    ASSERT_EQ(conf.cameras.size(), 3u);
    sim_camera_conf c3 = conf.camera(3), c4 = conf.camera(4), c6 = conf.camera(6);
    EXPECT_TRUE(c3.width == 1280 && c3.height == 720 && c3.progressive && c3.scene == sim_scene::moving);
    EXPECT_DOUBLE_EQ(c3.fps, 25.0);
    EXPECT_TRUE(!c4.progressive && c4.scene == sim_scene::absent);
    EXPECT_DOUBLE_EQ(c4.delivered_fps(), 0.0);
    EXPECT_DOUBLE_EQ(conf.camera(5).fps, 12.5);
    EXPECT_TRUE(c6.width == 1920 && c6.height == 1080 && c6.scene == sim_scene::moving);   // the default

    ASSERT_EQ(problems.size(), 6u);
    EXPECT_EQ(problems[0].rfind("board.conf:6: scene 'blinking'", 0), 0u) << problems[0];
    EXPECT_EQ(problems[5].rfind("board.conf:11: camera 3 is already given", 0), 0u) << problems[5];
}

}  // namespace
