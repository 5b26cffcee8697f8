// The media core's routing, memory zones, readiness and processing groups.
#include <gtest/gtest.h>

#include "platform/hi_mpi_vi.h"
#include "platform/hi_mpi_vpss.h"
#include "tests/support/media_board.h"

namespace {

class sim_media_sys_test : public media_board_test {};

constexpr mpp_chn_t vi(int chn) { return {HI_ID_VI, 0, chn}; }
constexpr mpp_chn_t vpss(int grp, int chn = 0) { return {HI_ID_VPSS, grp, chn}; }
constexpr int32_t sys_err(uint32_t e) { return hi_err(HI_ID_SYS, e); }
constexpr int32_t vpss_err(uint32_t e) { return hi_err(HI_ID_VPSS, e); }

TEST_F(sim_media_sys_test, a_destination_has_one_source_and_addresses_out_of_range_or_role_are_refused)
{
    mpp_chn_t a = vi(0), b = vi(2), g16 = vpss(16), g8 = vpss(8), src{};
    ASSERT_EQ(HI_MPI_SYS_Bind(&a, &g16), 0);  // routing entries may name groups not yet created
    EXPECT_EQ(HI_MPI_SYS_Bind(&b, &g16), sys_err(HI_ERR_EXIST));
    ASSERT_EQ(HI_MPI_SYS_Bind(&a, &g8), 0);
    EXPECT_EQ(HI_MPI_SYS_UnBind(&b, &g16), sys_err(HI_ERR_UNEXIST));  // not the bound pair
    ASSERT_EQ(HI_MPI_SYS_UnBind(&a, &g16), 0);
    EXPECT_EQ(HI_MPI_SYS_GetBindbyDest(&g16, &src), sys_err(HI_ERR_UNEXIST));
    ASSERT_EQ(HI_MPI_SYS_Bind(&b, &g16), 0);
    ASSERT_EQ(HI_MPI_SYS_GetBindbyDest(&g16, &src), 0);
    EXPECT_EQ(src, b);

    auto bind = [](mpp_chn_t s, mpp_chn_t d) { return HI_MPI_SYS_Bind(&s, &d); };
    EXPECT_EQ(bind(vi(32), vpss(1)), sys_err(HI_ERR_INVALID_CHNID));
    EXPECT_EQ(bind(vi(0), vpss(1, 1)), sys_err(HI_ERR_INVALID_CHNID));  // a group receives on channel 0
    EXPECT_EQ(bind(vpss(0, 1), {HI_ID_GROUP, 144, 0}), sys_err(HI_ERR_INVALID_DEVID));
    EXPECT_EQ(bind(vpss(0, 1), vi(0)), sys_err(HI_ERR_ILLEGAL_PARAM));  // capture is never a destination
    auto all = sim_media_bindings();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_TRUE(all[0].dest == g8 && all[1].src == b);
}

TEST_F(sim_media_sys_test, memory_zones_take_one_entry_per_channel_and_nothing_works_before_initialisation)
{
    mpp_chn_t g3 = vpss(3), v4 = vi(4), bad = vpss(3, 2);
    ASSERT_TRUE(HI_MPI_SYS_SetMemConf(&g3, MMZ_DDR1) == 0 && HI_MPI_SYS_SetMemConf(&v4, nullptr) == 0);
    ASSERT_EQ(HI_MPI_SYS_SetMemConf(&g3, MMZ_DEFAULT), 0);
    EXPECT_EQ(HI_MPI_SYS_SetMemConf(&g3, "ddr2"), sys_err(HI_ERR_ILLEGAL_PARAM));
    EXPECT_EQ(HI_MPI_SYS_SetMemConf(&bad, MMZ_DDR1), sys_err(HI_ERR_INVALID_CHNID));
    auto confs = sim_media_mem_confs();
    ASSERT_EQ(confs.size(), 2u);
    EXPECT_TRUE(confs[0].chn == g3 && confs[1].chn == v4 && confs[0].zone == std::string(""));

    reopen("");  // the media system is not initialised
    EXPECT_EQ(HI_MPI_SYS_Bind(&v4, &g3), sys_err(HI_ERR_SYS_NOTREADY));
    EXPECT_EQ(HI_MPI_VI_EnableDev(0), hi_err(HI_ID_VI, HI_ERR_SYS_NOTREADY));
}

TEST_F(sim_media_sys_test, group_lifecycle_and_channels_as_the_hardware_checks_them)
{
    const vpss_grp_attr_t attr{1920, 1080, PIXEL_FORMAT_YUV_SEMIPLANAR_420, 0, 0, 0, 0, 0, 0};
    vpss_grp_attr_t wide = attr;
    wide.max_width = 1921;
    EXPECT_EQ(HI_MPI_VPSS_StartGrp(5), vpss_err(HI_ERR_UNEXIST));
    EXPECT_EQ(HI_MPI_VPSS_CreateGrp(128, &attr), vpss_err(HI_ERR_INVALID_DEVID));
    EXPECT_EQ(HI_MPI_VPSS_CreateGrp(5, &wide), vpss_err(HI_ERR_ILLEGAL_PARAM));
    ASSERT_EQ(HI_MPI_VPSS_CreateGrp(5, &attr), 0);
    EXPECT_EQ(HI_MPI_VPSS_CreateGrp(5, &attr), vpss_err(HI_ERR_EXIST));

    const vpss_chn_attr_t chn{0, 0, {2, 2, 2, 2}, {0x00FF00, 0x00FF00, 0x00FF00, 0x00FF00}};
    EXPECT_EQ(HI_MPI_VPSS_EnableChn(5, 1), vpss_err(HI_ERR_NOT_CONFIG));
    EXPECT_EQ(HI_MPI_VPSS_SetChnAttr(5, 5, &chn), vpss_err(HI_ERR_INVALID_CHNID));
    ASSERT_TRUE(HI_MPI_VPSS_SetChnAttr(5, 1, &chn) == 0 && HI_MPI_VPSS_EnableChn(5, 1) == 0);

    ASSERT_EQ(HI_MPI_VPSS_StartGrp(5), 0);
    EXPECT_EQ(HI_MPI_VPSS_DestroyGrp(5), vpss_err(HI_ERR_NOT_PERM));  // still started
    ASSERT_TRUE(HI_MPI_VPSS_StopGrp(5) == 0 && HI_MPI_VPSS_DestroyGrp(5) == 0);
    EXPECT_EQ(HI_MPI_VPSS_DestroyGrp(5), vpss_err(HI_ERR_UNEXIST));
}

}  // namespace
