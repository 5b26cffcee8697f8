// The teardown: what goes, what survives, and where a failure stops it.
#include <gtest/gtest.h>

#include "platform/hi_mpi_venc.h"
#include "tests/support/media_board.h"
#include "vin/chip.h"

namespace {

class chip_exit_test : public chip_board_test {};

int created_groups()
{
    int n = 0;
    for (int g = 0; g < VPSS_MAX_GRP_NUM; ++g)
        n += sim_media_vpss_grp(g).created;
    return n;
}

TEST_F(chip_exit_test, only_zones_capture_and_bindings_into_other_destinations_survive)
{
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    ASSERT_TRUE(HI_MPI_VENC_CreateGroup(0) == 0 && HI_MPI_VENC_CreateGroup(143) == 0);
    const sim_binding extra[] = {
        {{HI_ID_VPSS, 16, 1}, {HI_ID_GROUP, 0, 0}},
        {{HI_ID_VPSS, 8, 2}, {HI_ID_GROUP, 143, 0}},
        {{HI_ID_VPSS, 16, 3}, {HI_ID_VO, 2, 63}},
        {{HI_ID_VPSS, 127, 2}, {HI_ID_VO, 8, 5}},   // the cascade device is not torn down
        {{HI_ID_VI, 0, 16}, {HI_ID_VDA, 0, 0}},
        {{HI_ID_VPSS, 0, 3}, {HI_ID_PCIV, 0, 3}},
    };
    for (const sim_binding& b : extra)
        ASSERT_EQ(HI_MPI_SYS_Bind(&b.src, &b.dest), 0);
    size_t zones = sim_media_mem_confs().size();

    stdout_capture out;
    EXPECT_EQ(chip_exit_slave(&cal_), 0);
    auto m = trace_messages(out.text());
    EXPECT_EQ(created_groups(), 0);
    EXPECT_FALSE(sim_media_venc_grp(0).created || sim_media_venc_grp(143).created);
    auto left = sim_media_bindings();
    ASSERT_EQ(left.size(), 3u);
    EXPECT_TRUE(left[0].dest == extra[3].dest && left[1].dest == extra[4].dest && left[2].dest == extra[5].dest);
    EXPECT_EQ(sim_media_mem_confs().size(), zones);
    for (int chn : {0, 2, 14, 12, 4, 6, 10, 8})
        EXPECT_TRUE(sim_media_vi_chn(chn).enabled && sim_media_vi_chn(chn + 16).enabled) << chn;

    // Every encoder group that did not exist is traced; the two that did are not.
    EXPECT_TRUE(has_message(m, "HI_MPI_VENC_xxx group[1] failed with 0xa0078005!"));
    EXPECT_EQ(std::count_if(m.begin(), m.end(), [](const std::string& s) { return s.rfind("HI_MPI_VENC_xxx", 0) == 0; }),
              142);
}

TEST_F(chip_exit_test, a_group_that_will_not_stop_ends_the_teardown)
{
    reopen_media("HI_MPI_VPSS_StopGrp@3=a0088010");
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    stdout_capture out;
    EXPECT_EQ(chip_exit_slave(&cal_), -1);
    EXPECT_EQ(trace_messages(out.text()).back(), "failed with 0xa0088010!");
    EXPECT_TRUE(!sim_media_vpss_grp(1).created && sim_media_vpss_grp(2).started);
    EXPECT_EQ(created_groups(), 26 - 2);
    EXPECT_EQ(sim_media_bindings().size(), 24u - 3);   // group 2 lost its input already
}

TEST_F(chip_exit_test, camera_groups_go_first_then_125_then_127)
{
    reopen_media("HI_MPI_VPSS_StopGrp@26=a0088010");
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    EXPECT_EQ(chip_exit_slave(&cal_), -1);
    EXPECT_EQ(created_groups(), 1);
    EXPECT_TRUE(sim_media_vpss_grp(127).created);
}

}  // namespace
