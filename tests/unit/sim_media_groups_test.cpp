// The simulated processing groups, encoder groups and output teardown.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/hi_mpi_venc.h"
#include "platform/hi_mpi_vi.h"
#include "platform/hi_mpi_vo.h"
#include "platform/hi_mpi_vpss.h"
#include "tests/support/media_board.h"

namespace {

class sim_media_groups_test : public media_board_test {};

constexpr vpss_grp_attr_t k_grp_attr{1920, 1080, PIXEL_FORMAT_YUV_SEMIPLANAR_420, 0, 0, 0, 0, 0, 0};
constexpr vpss_chn_attr_t k_chn_attr{0, 0, {2, 2, 2, 2}, {0x00FF00, 0x00FF00, 0x00FF00, 0x00FF00}};
constexpr int32_t vpss_err(uint32_t e) { return hi_err(HI_ID_VPSS, e); }

TEST_F(sim_media_groups_test, group_lifecycle_and_attributes_the_hardware_refuses)
{
    EXPECT_EQ(HI_MPI_VPSS_StartGrp(5), vpss_err(HI_ERR_UNEXIST));
    EXPECT_EQ(HI_MPI_VPSS_StopGrp(5), vpss_err(HI_ERR_UNEXIST));
    EXPECT_EQ(HI_MPI_VPSS_CreateGrp(128, &k_grp_attr), vpss_err(HI_ERR_INVALID_DEVID));
    vpss_grp_attr_t wide = k_grp_attr, fmt = k_grp_attr, die = k_grp_attr;
    wide.max_width = 1921;
    fmt.pix_fmt = 17;
    die.die_mode = 3;
    for (const vpss_grp_attr_t& a : {wide, fmt, die})
        EXPECT_EQ(HI_MPI_VPSS_CreateGrp(5, &a), vpss_err(HI_ERR_ILLEGAL_PARAM));

    ASSERT_EQ(HI_MPI_VPSS_CreateGrp(5, &k_grp_attr), 0);
    EXPECT_EQ(HI_MPI_VPSS_CreateGrp(5, &k_grp_attr), vpss_err(HI_ERR_EXIST));
    ASSERT_EQ(HI_MPI_VPSS_StartGrp(5), 0);
    EXPECT_EQ(HI_MPI_VPSS_DestroyGrp(5), vpss_err(HI_ERR_NOT_PERM));   // still started
    ASSERT_EQ(HI_MPI_VPSS_StopGrp(5), 0);
    ASSERT_EQ(HI_MPI_VPSS_DestroyGrp(5), 0);
    EXPECT_FALSE(sim_media_vpss_grp(5).created);
    EXPECT_EQ(HI_MPI_VPSS_DestroyGrp(5), vpss_err(HI_ERR_UNEXIST));
}

TEST_F(sim_media_groups_test, group_parameters_and_output_channels)
{
    vpss_grp_param_t p{};
    EXPECT_EQ(HI_MPI_VPSS_GetGrpParam(2, &p), vpss_err(HI_ERR_UNEXIST));
    EXPECT_EQ(HI_MPI_VPSS_SetChnAttr(2, 0, &k_chn_attr), vpss_err(HI_ERR_UNEXIST));
    ASSERT_EQ(HI_MPI_VPSS_CreateGrp(2, &k_grp_attr), 0);
    ASSERT_EQ(HI_MPI_VPSS_GetGrpParam(2, &p), 0);
    EXPECT_EQ(p.motion_adapt, 1u);   // a new group starts with the platform's defaults
    p.motion_adapt = 0;
    ASSERT_EQ(HI_MPI_VPSS_SetGrpParam(2, &p), 0);
    p.strength[3] = 256;
    EXPECT_EQ(HI_MPI_VPSS_SetGrpParam(2, &p), vpss_err(HI_ERR_ILLEGAL_PARAM));
    EXPECT_TRUE(sim_media_vpss_grp(2).param.motion_adapt == 0 && sim_media_vpss_grp(2).param.strength[3] < 256);

    EXPECT_EQ(HI_MPI_VPSS_EnableChn(2, 1), vpss_err(HI_ERR_NOT_CONFIG));
    EXPECT_EQ(HI_MPI_VPSS_SetChnAttr(2, 5, &k_chn_attr), vpss_err(HI_ERR_INVALID_CHNID));
    vpss_chn_attr_t odd = k_chn_attr;
    odd.border_width[1] = 3;
    EXPECT_EQ(HI_MPI_VPSS_SetChnAttr(2, 1, &odd), vpss_err(HI_ERR_ILLEGAL_PARAM));
    ASSERT_TRUE(HI_MPI_VPSS_SetChnAttr(2, 1, &k_chn_attr) == 0 && HI_MPI_VPSS_EnableChn(2, 1) == 0);
    sim_vpss_grp g = sim_media_vpss_grp(2);
    EXPECT_TRUE(g.chn[1].enabled && !g.chn[0].enabled);
    ASSERT_EQ(HI_MPI_VPSS_DisableChn(2, 1), 0);
    EXPECT_EQ(HI_MPI_VPSS_DisableChn(2, 1), 0);
    EXPECT_FALSE(sim_media_vpss_grp(2).chn[1].enabled);
}

TEST_F(sim_media_groups_test, encoder_groups_and_output_teardown_calls)
{
    ASSERT_EQ(HI_MPI_VENC_CreateGroup(7), 0);
    EXPECT_EQ(HI_MPI_VENC_CreateGroup(7), static_cast<int32_t>(0xA0078004));
    EXPECT_EQ(HI_MPI_VENC_CreateGroup(144), hi_err(HI_ID_VENC, HI_ERR_INVALID_DEVID));
    // No channel exists: every channel step of a teardown is refused.
    EXPECT_EQ(HI_MPI_VENC_StopRecvPic(7), hi_err(HI_ID_VENC, HI_ERR_UNEXIST));
    EXPECT_EQ(HI_MPI_VENC_UnRegisterChn(7), hi_err(HI_ID_VENC, HI_ERR_UNEXIST));
    EXPECT_EQ(HI_MPI_VENC_DestroyChn(144), hi_err(HI_ID_VENC, HI_ERR_INVALID_CHNID));
    ASSERT_EQ(HI_MPI_VENC_DestroyGroup(7), 0);
    EXPECT_EQ(HI_MPI_VENC_DestroyGroup(7), hi_err(HI_ID_VENC, HI_ERR_UNEXIST));

    EXPECT_EQ(HI_MPI_VO_DisableChn(8, 63), 0);
    EXPECT_EQ(HI_MPI_VO_DisableChn(0, 64), hi_err(HI_ID_VO, HI_ERR_INVALID_CHNID));
    EXPECT_EQ(HI_MPI_VO_Disable(9), hi_err(HI_ID_VO, HI_ERR_INVALID_DEVID));
    EXPECT_EQ(HI_MPI_VO_DisableVideoLayer(2), 0);
}

TEST_F(sim_media_groups_test, injected_failures_leave_no_trace_in_the_state)
{
    reopen_media("HI_MPI_VPSS_CreateGrp@1=a0088012,HI_MPI_VENC_CreateGroup=a007800c,HI_MPI_VPSS_StopGrp=a0088010");
    EXPECT_EQ(HI_MPI_VPSS_CreateGrp(1, &k_grp_attr), static_cast<int32_t>(0xa0088012));
    EXPECT_FALSE(sim_media_vpss_grp(1).created);
    ASSERT_TRUE(HI_MPI_VPSS_CreateGrp(1, &k_grp_attr) == 0 && HI_MPI_VPSS_StartGrp(1) == 0);
    EXPECT_EQ(HI_MPI_VPSS_StopGrp(1), static_cast<int32_t>(0xa0088010));
    EXPECT_TRUE(sim_media_vpss_grp(1).started);
    EXPECT_EQ(HI_MPI_VENC_CreateGroup(0), static_cast<int32_t>(0xa007800c));
    EXPECT_FALSE(sim_media_venc_grp(0).created);
}

// Operations from several threads meet only under the core's lock (run
// under the thread sanitizer).
TEST_F(sim_media_groups_test, concurrent_operations_and_read_back)
{
    ASSERT_TRUE(HI_MPI_VPSS_CreateGrp(0, &k_grp_attr) == 0 && HI_MPI_VPSS_SetChnAttr(0, 0, &k_chn_attr) == 0);
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        vi_chn_stat_t st;
        while (!stop) {
            (void)sim_media_vpss_grp(0);
            (void)sim_media_bindings();
            (void)HI_MPI_VI_Query(0, &st);
        }
    });
    mpp_chn_t src{HI_ID_VI, 0, 0}, dest{HI_ID_VPSS, 0, 0};
    for (int i = 0; i < 200; ++i) {
        EXPECT_TRUE(HI_MPI_VPSS_EnableChn(0, 0) == 0 && HI_MPI_SYS_Bind(&src, &dest) == 0);
        EXPECT_TRUE(HI_MPI_SYS_UnBind(&src, &dest) == 0 && HI_MPI_VPSS_DisableChn(0, 0) == 0);
    }
    stop = true;
    reader.join();
    EXPECT_TRUE(sim_media_bindings().empty());
}

}  // namespace
