// Fault injection over every operation of the simulated board: each one,
// failed once with NAME@1=CODE on a board where it would otherwise act,
// returns that code and changes nothing. The operations come from
// sim_ops.def itself, so one added there without a row here fails the test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/ipc.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "cal/cal.h"
#include "platform/hi_mpi_pciv.h"
#include "platform/hi_mpi_rgn.h"
#include "platform/hi_mpi_sys.h"
#include "platform/hi_mpi_vdec.h"
#include "platform/hi_mpi_vda.h"
#include "platform/hi_mpi_venc.h"
#include "platform/hi_mpi_vi.h"
#include "platform/hi_mpi_vo.h"
#include "platform/hi_mpi_vpss.h"
#include "platform/mcc.h"
#include "platform/os.h"
#include "platform/sim/fault.h"
#include "platform/sim/mcc_sim.h"
#include "platform/sim/media_core.h"
#include "platform/sim/pcimem_sim.h"
#include "platform/sim/sys_sim.h"
#include "tests/support/test_board.h"
#include "vin/chip.h"

namespace {

constexpr std::string_view k_ops[] = {
#define SIM_OP(name) #name,
#include "platform/sim/sim_ops.def"
#undef SIM_OP
};

// How a failure shows to the caller.
enum class fails_as {
    code,     // the operation returns the injected code
    errno_,   // -1, with the injected code in errno
    null,     // a null pointer (the memory map has no code to give)
};

// What the board holds before each row: the operation under test would
// change it if it ran.
struct board_state {
    int mcc_fd = -1;     // an open, unbound driver descriptor
    int queue = -1;      // a message queue holding one message
    uint32_t block = 0;  // a PCI block, mapped at `map`
    void* map = nullptr;
};

struct row {
    fails_as how;
    std::function<intptr_t(board_state&)> call;
};

constexpr vpss_grp_attr_t k_grp{1920, 1080, PIXEL_FORMAT_YUV_SEMIPLANAR_420, 0, 0, 0, 0, 0, 0};
constexpr vpss_chn_attr_t k_vpss_chn{0, 0, {2, 2, 2, 2}, {0x00FF00, 0x00FF00, 0x00FF00, 0x00FF00}};
constexpr vi_dev_attr_t k_vi_dev = M_CHIP_VI_ATTR_7441_INTERLEAVED_1080P;
constexpr vi_chn_attr_t k_vi_chn{{0, 0, 1920, 1080}, {1920, 1080}, VI_CAPSEL_BOTH, PIXEL_FORMAT_YUV_SEMIPLANAR_420,
                                 0, 0, 0, -1, -1};
constexpr mpp_chn_t k_vi0{HI_ID_VI, 0, 0}, k_vi1{HI_ID_VI, 0, 1}, k_grp0{HI_ID_VPSS, 0, 0}, k_grp1{HI_ID_VPSS, 1, 0};

venc_chn_attr_t h264_attr(uint32_t kbps)
{
    venc_chn_attr_t a{};
    a.payload_type = PT_H264;
    a.h264 = {64, 64, 64 * 64 * 3 / 4, 2, 1, 0, 1, 0, 0, 64, 64};
    a.rc = {VENC_RC_MODE_H264AVBR, 12, 5, 30, 15, kbps, 2};
    return a;
}

venc_chn_attr_t jpeg_attr()
{
    venc_chn_attr_t a{};
    a.payload_type = PT_JPEG;
    a.jpeg = {64, 64, 64 * 64 * 3 / 2, 1, 0, 0, 64, 64};
    return a;
}

pciv_attr_t pciv_attr(uint32_t w, uint32_t h)
{
    pciv_attr_t a{};
    a.pic_attr = {w, h, {w, w}, 0, PIXEL_FORMAT_YUV_SEMIPLANAR_420};
    a.blk_size = w * h * 3 / 2;
    a.count = 2;
    a.phy_addr[0] = 0x10000000;
    a.phy_addr[1] = 0x10000000 + a.blk_size;
    a.remote_obj = {0, 1};
    return a;
}

constexpr vdec_chn_attr_t k_vdec{PT_H264_DEC, 1920 * 1080, 1, 1920, 1080, 3, VIDEO_MODE_FRAME, 0};
constexpr vdec_prtcl_param_t k_prtcl{100, 21, 22, 1920 * 1080, 1};
constexpr vda_chn_attr_t md_attr()
{
    vda_chn_attr_t a{};
    a.vda_alg = VDA_ALG_REF;
    a.mb_size = VDA_MB_16PIXEL;
    a.rslt_num = 8;
    a.vda_intvl = 15;
    a.width = 512;
    a.height = 288;
    return a;
}

rgn_attr_t rgn_attr(int32_t type)
{
    rgn_attr_t a{};
    a.type = type;
    if (type == OVERLAY_RGN)
        a.overlay = {PIXEL_FORMAT_RGB_1555, 0x7C1F, {352, 20}};
    return a;
}

rgn_chn_attr_t cover_chn(int32_t x)
{
    rgn_chn_attr_t a{};
    a.show = 1;
    a.type = COVER_RGN;
    a.cover = {x, 8, 64, 32, 0, 1, {}};
    return a;
}

constexpr mpp_chn_t k_rgn_grp{HI_ID_GROUP, 2, 0};

struct tx_note {
    long type;
    char body[8];
};

// Every row calls its operation once, with arguments under which it acts
// on the board above.
const std::map<std::string_view, row>& rows()
{
    using s = board_state;
    static const std::map<std::string_view, row> table = {
        // system and video buffer pools
        {"HI_MPI_SYS_Init", {fails_as::code, [](s&) { return HI_MPI_SYS_Init(); }}},
        {"HI_MPI_SYS_Exit", {fails_as::code, [](s&) { return HI_MPI_SYS_Exit(); }}},
        {"HI_MPI_SYS_SetConf", {fails_as::code, [](s&) { mpp_sys_conf_t c{16}; return HI_MPI_SYS_SetConf(&c); }}},
        {"HI_MPI_SYS_GetConf", {fails_as::code, [](s&) { mpp_sys_conf_t c{}; return HI_MPI_SYS_GetConf(&c); }}},
        {"HI_MPI_SYS_SetMemConf", {fails_as::code, [](s&) { return HI_MPI_SYS_SetMemConf(&k_grp1, MMZ_DDR1); }}},
        {"HI_MPI_SYS_GetMemConf",
         {fails_as::code, [](s&) { char z[MAX_MMZ_NAME_LEN]; return HI_MPI_SYS_GetMemConf(&k_grp0, z); }}},
        {"HI_MPI_SYS_Bind", {fails_as::code, [](s&) { return HI_MPI_SYS_Bind(&k_vi1, &k_grp1); }}},
        {"HI_MPI_SYS_UnBind", {fails_as::code, [](s&) { return HI_MPI_SYS_UnBind(&k_vi0, &k_grp0); }}},
        {"HI_MPI_SYS_GetBindbyDest",
         {fails_as::code, [](s&) { mpp_chn_t src{}; return HI_MPI_SYS_GetBindbyDest(&k_grp0, &src); }}},
        {"HI_MPI_SYS_GetCurPts", {fails_as::code, [](s&) { uint64_t p; return HI_MPI_SYS_GetCurPts(&p); }}},
        {"HI_MPI_SYS_InitPtsBase", {fails_as::code, [](s&) { return HI_MPI_SYS_InitPtsBase(0); }}},
        {"HI_MPI_SYS_SyncPts", {fails_as::code, [](s&) { return HI_MPI_SYS_SyncPts(0); }}},
        {"HI_MPI_SYS_Mmap", {fails_as::null, [](s& b) {
             return reinterpret_cast<intptr_t>(HI_MPI_SYS_Mmap(b.block, 4096)); }}},
        {"HI_MPI_SYS_Munmap", {fails_as::code, [](s& b) { return HI_MPI_SYS_Munmap(b.map, 4096); }}},
        {"HI_MPI_VB_SetConf", {fails_as::code, [](s&) {
             vb_conf_t vb{};
             vb.max_pool_cnt = 2;
             vb.comm_pool[0] = {8192, 2, ""};
             return HI_MPI_VB_SetConf(&vb); }}},
        {"HI_MPI_VB_GetConf", {fails_as::code, [](s&) { vb_conf_t vb{}; return HI_MPI_VB_GetConf(&vb); }}},
        {"HI_MPI_VB_Init", {fails_as::code, [](s&) { return HI_MPI_VB_Init(); }}},
        {"HI_MPI_VB_Exit", {fails_as::code, [](s&) { return HI_MPI_VB_Exit(); }}},

        // PCI video, PCI memory and DMA
        {"HI_MPI_PCIV_WinVbCreate", {fails_as::code, [](s&) {
             pciv_win_vb_cfg_t w{};
             w.pool_count = 1;
             w.blk_size[0] = 0x200000;
             w.blk_count[0] = 4;
             return HI_MPI_PCIV_WinVbCreate(&w); }}},
        {"HI_MPI_PCIV_WinVbDestroy", {fails_as::code, [](s&) { return HI_MPI_PCIV_WinVbDestroy(); }}},
        {"HI_MPI_PCIV_Malloc", {fails_as::code, [](s&) { uint32_t a[2]; return HI_MPI_PCIV_Malloc(4096, 2, a); }}},
        {"HI_MPI_PCIV_Free", {fails_as::code, [](s& b) { return HI_MPI_PCIV_Free(1, &b.block); }}},
        {"HI_MPI_PCIV_DmaTask", {fails_as::code, [](s& b) {
             pciv_dma_block_t blk{b.block, b.block + 2048, 16};
             pciv_dma_task_t task{1, 0, &blk};
             return HI_MPI_PCIV_DmaTask(&task); }}},

        // message driver device calls
        {"mcc_open", {fails_as::errno_, [](s&) { return mcc_open(MCC_DEV_NAME, O_RDWR); }}},
        {"mcc_close", {fails_as::errno_, [](s& b) { return mcc_close(b.mcc_fd); }}},
        {"HI_MCC_IOC_CONNECT", {fails_as::errno_, [](s& b) {
             mcc_handle_attr a{};
             a.target_id = 0;
             a.port = 102;
             return mcc_ioctl(b.mcc_fd, HI_MCC_IOC_CONNECT, &a); }}},
        {"HI_MCC_IOC_CHECK", {fails_as::errno_, [](s& b) {
             mcc_handle_attr a{};
             return mcc_ioctl(b.mcc_fd, HI_MCC_IOC_CHECK, &a); }}},
        {"HI_MCC_IOC_GET_LOCAL_ID", {fails_as::errno_, [](s& b) {
             mcc_handle_attr a{};
             return mcc_ioctl(b.mcc_fd, HI_MCC_IOC_GET_LOCAL_ID, &a); }}},
        {"HI_MCC_IOC_GET_REMOTE_ID", {fails_as::errno_, [](s& b) {
             mcc_handle_attr a{};
             return mcc_ioctl(b.mcc_fd, HI_MCC_IOC_GET_REMOTE_ID, &a); }}},
        {"HI_MCC_IOC_ATTR_INIT", {fails_as::errno_, [](s& b) {
             mcc_handle_attr a{};
             return mcc_ioctl(b.mcc_fd, HI_MCC_IOC_ATTR_INIT, &a); }}},

        // operating-system services
        {"settimeofday", {fails_as::errno_, [](s&) {
             struct timeval tv{2000000000, 0};
             return os_settimeofday(&tv); }}},
        {"system", {fails_as::errno_, [](s&) { return os_system("echo table"); }}},
        {"write_etc_tz", {fails_as::errno_, [](s&) { return os_write_etc_tz("UTC0"); }}},
        {"sched_setscheduler", {fails_as::errno_, [](s&) { return os_sched_setscheduler(SCHED_OTHER, 0); }}},
        {"msgget", {fails_as::errno_, [](s&) { return os_msgget(MSG_KEY_ENCN, IPC_CREAT | 0600); }}},
        {"msgsnd", {fails_as::errno_, [](s& b) {
             tx_note n{7, "second"};
             return os_msgsnd(b.queue, &n, sizeof(n.body), IPC_NOWAIT); }}},
        {"msgrcv", {fails_as::errno_, [](s& b) {
             tx_note n{};
             return os_msgrcv(b.queue, &n, sizeof(n.body), 0, IPC_NOWAIT); }}},

        // capture
        {"HI_MPI_VI_SetDevAttr", {fails_as::code, [](s&) { return HI_MPI_VI_SetDevAttr(1, &k_vi_dev); }}},
        {"HI_MPI_VI_EnableDev", {fails_as::code, [](s&) { return HI_MPI_VI_EnableDev(3); }}},
        {"HI_MPI_VI_DisableDev", {fails_as::code, [](s&) { return HI_MPI_VI_DisableDev(2); }}},
        {"HI_MPI_VI_SetChnAttr", {fails_as::code, [](s&) { return HI_MPI_VI_SetChnAttr(4, &k_vi_chn); }}},
        {"HI_MPI_VI_EnableChn", {fails_as::code, [](s&) { return HI_MPI_VI_EnableChn(1); }}},
        {"HI_MPI_VI_DisableChn", {fails_as::code, [](s&) { return HI_MPI_VI_DisableChn(0); }}},
        {"HI_MPI_VI_EnableChn422to420", {fails_as::code, [](s&) { return HI_MPI_VI_EnableChn422to420(0); }}},
        {"HI_MPI_VI_Query", {fails_as::code, [](s&) { vi_chn_stat_t st{}; return HI_MPI_VI_Query(0, &st); }}},

        // processing groups
        {"HI_MPI_VPSS_CreateGrp", {fails_as::code, [](s&) { return HI_MPI_VPSS_CreateGrp(1, &k_grp); }}},
        {"HI_MPI_VPSS_DestroyGrp", {fails_as::code, [](s&) { return HI_MPI_VPSS_DestroyGrp(2); }}},
        {"HI_MPI_VPSS_StartGrp", {fails_as::code, [](s&) { return HI_MPI_VPSS_StartGrp(2); }}},
        {"HI_MPI_VPSS_StopGrp", {fails_as::code, [](s&) { return HI_MPI_VPSS_StopGrp(0); }}},
        {"HI_MPI_VPSS_GetGrpParam",
         {fails_as::code, [](s&) { vpss_grp_param_t p{}; return HI_MPI_VPSS_GetGrpParam(0, &p); }}},
        {"HI_MPI_VPSS_SetGrpParam", {fails_as::code, [](s&) {
             vpss_grp_param_t p = sim_vpss_default_param();
             p.strength[0] = p.strength[0] == 9 ? 10 : 9;
             return HI_MPI_VPSS_SetGrpParam(0, &p); }}},
        {"HI_MPI_VPSS_SetChnAttr", {fails_as::code, [](s&) { return HI_MPI_VPSS_SetChnAttr(0, 1, &k_vpss_chn); }}},
        {"HI_MPI_VPSS_EnableChn", {fails_as::code, [](s&) { return HI_MPI_VPSS_EnableChn(2, 0); }}},
        {"HI_MPI_VPSS_DisableChn", {fails_as::code, [](s&) { return HI_MPI_VPSS_DisableChn(0, 0); }}},
        {"HI_MPI_VPSS_UserSendFrame", {fails_as::code, [](s&) {
             video_frame_info_t f{64, 64, PIXEL_FORMAT_YUV_SEMIPLANAR_420, 0, 1, 0};
             return HI_MPI_VPSS_UserSendFrame(0, &f); }}},
        {"HI_MPI_VPSS_ResetGrp", {fails_as::code, [](s&) { return HI_MPI_VPSS_ResetGrp(0); }}},

        // encoder groups and channels
        {"HI_MPI_VENC_CreateGroup", {fails_as::code, [](s&) { return HI_MPI_VENC_CreateGroup(1); }}},
        {"HI_MPI_VENC_DestroyGroup", {fails_as::code, [](s&) { return HI_MPI_VENC_DestroyGroup(0); }}},
        {"HI_MPI_VENC_StopRecvPic", {fails_as::code, [](s&) { return HI_MPI_VENC_StopRecvPic(0); }}},
        {"HI_MPI_VENC_UnRegisterChn", {fails_as::code, [](s&) { return HI_MPI_VENC_UnRegisterChn(0); }}},
        {"HI_MPI_VENC_DestroyChn", {fails_as::code, [](s&) { return HI_MPI_VENC_DestroyChn(0); }}},
        {"HI_MPI_VENC_SetGrpFrmRate", {fails_as::code, [](s&) {
             venc_grp_frm_rate_t r{25, 5};
             return HI_MPI_VENC_SetGrpFrmRate(2, &r); }}},
        {"HI_MPI_VENC_GetGrpFrmRate",
         {fails_as::code, [](s&) { venc_grp_frm_rate_t r{}; return HI_MPI_VENC_GetGrpFrmRate(2, &r); }}},
        {"HI_MPI_VENC_CreateChn", {fails_as::code, [](s&) {
             venc_chn_attr_t a = h264_attr(64);
             return HI_MPI_VENC_CreateChn(3, &a); }}},
        {"HI_MPI_VENC_RegisterChn", {fails_as::code, [](s&) { return HI_MPI_VENC_RegisterChn(4, 4); }}},
        {"HI_MPI_VENC_StartRecvPic", {fails_as::code, [](s&) { return HI_MPI_VENC_StartRecvPic(2); }}},
        {"HI_MPI_VENC_SetChnAttr", {fails_as::code, [](s&) {
             venc_chn_attr_t a = h264_attr(128);
             return HI_MPI_VENC_SetChnAttr(2, &a); }}},
        {"HI_MPI_VENC_GetChnAttr",
         {fails_as::code, [](s&) { venc_chn_attr_t a{}; return HI_MPI_VENC_GetChnAttr(2, &a); }}},
        {"HI_MPI_VENC_SetH264eRefMode", {fails_as::code, [](s&) { return HI_MPI_VENC_SetH264eRefMode(2, 5); }}},
        {"HI_MPI_VENC_GetJpegParam",
         {fails_as::code, [](s&) { venc_param_jpeg_t p{}; return HI_MPI_VENC_GetJpegParam(5, &p); }}},
        {"HI_MPI_VENC_SetJpegParam", {fails_as::code, [](s&) {
             venc_param_jpeg_t p{50, 0};
             return HI_MPI_VENC_SetJpegParam(5, &p); }}},
        {"HI_MPI_VENC_Query", {fails_as::code, [](s&) { venc_chn_stat_t st{}; return HI_MPI_VENC_Query(2, &st); }}},
        {"HI_MPI_VENC_GetFd", {fails_as::code, [](s&) { return HI_MPI_VENC_GetFd(2); }}},
        {"HI_MPI_VENC_GetStream", {fails_as::code, [](s&) {
             venc_pack_t packs[4]{};
             venc_stream_t st{packs, 4, 0};
             return HI_MPI_VENC_GetStream(2, &st, false); }}},
        {"HI_MPI_VENC_ReleaseStream", {fails_as::code, [](s&) {
             venc_pack_t packs[4]{};
             venc_stream_t st{packs, 4, 0};
             return HI_MPI_VENC_ReleaseStream(2, &st); }}},

        // video output
        {"HI_MPI_VO_DisableChn", {fails_as::code, [](s&) { return HI_MPI_VO_DisableChn(0, 0); }}},
        {"HI_MPI_VO_Disable", {fails_as::code, [](s&) { return HI_MPI_VO_Disable(0); }}},
        {"HI_MPI_VO_DisableVideoLayer", {fails_as::code, [](s&) { return HI_MPI_VO_DisableVideoLayer(0); }}},
        {"HI_MPI_VO_SetChnAttr", {fails_as::code, [](s&) {
             vo_chn_attr_t a{0, {-2, 0, 640, 360}, 0};
             return HI_MPI_VO_SetChnAttr(VO_CASCADE_DEV, 3, &a); }}},
        {"HI_MPI_VO_GetChnAttr",
         {fails_as::code, [](s&) { vo_chn_attr_t a{}; return HI_MPI_VO_GetChnAttr(VO_CASCADE_DEV, 1, &a); }}},
        {"HI_MPI_VO_EnableChn", {fails_as::code, [](s&) { return HI_MPI_VO_EnableChn(VO_CASCADE_DEV, 2); }}},
        {"HI_MPI_VO_ChnPause", {fails_as::code, [](s&) { return HI_MPI_VO_ChnPause(VO_CASCADE_DEV, 1); }}},
        {"HI_MPI_VO_ChnResume", {fails_as::code, [](s&) { return HI_MPI_VO_ChnResume(VO_CASCADE_DEV, 4); }}},
        {"HI_MPI_VO_ClearChnBuffer",
         {fails_as::code, [](s&) { return HI_MPI_VO_ClearChnBuffer(VO_CASCADE_DEV, 1, 1); }}},
        {"HI_MPI_VO_SetAttrBegin", {fails_as::code, [](s&) { return HI_MPI_VO_SetAttrBegin(VO_CASCADE_DEV); }}},
        {"HI_MPI_VO_SetAttrEnd", {fails_as::code, [](s&) { return HI_MPI_VO_SetAttrEnd(VO_CASCADE_DEV); }}},

        // PCI video channels
        {"HI_MPI_PCIV_Create", {fails_as::code, [](s&) {
             pciv_attr_t a = pciv_attr(640, 360);
             return HI_MPI_PCIV_Create(5, &a); }}},
        {"HI_MPI_PCIV_Destroy", {fails_as::code, [](s&) { return HI_MPI_PCIV_Destroy(2); }}},
        {"HI_MPI_PCIV_Start", {fails_as::code, [](s&) { return HI_MPI_PCIV_Start(2); }}},
        {"HI_MPI_PCIV_Stop", {fails_as::code, [](s&) { return HI_MPI_PCIV_Stop(1); }}},

        // processing groups: crop
        {"HI_MPI_VPSS_GetCropCfg",
         {fails_as::code, [](s&) { vpss_crop_info_t c{}; return HI_MPI_VPSS_GetCropCfg(0, &c); }}},
        {"HI_MPI_VPSS_SetCropCfg", {fails_as::code, [](s&) {
             vpss_crop_info_t c{1, VPSS_CROP_ABS_COOR, {100, 50, 640, 360}, 0};
             return HI_MPI_VPSS_SetCropCfg(0, &c); }}},


        // decoder channels: 0 receiving, 1 created
        {"HI_MPI_VDEC_CreateChn", {fails_as::code, [](s&) { return HI_MPI_VDEC_CreateChn(2, &k_vdec); }}},
        {"HI_MPI_VDEC_DestroyChn", {fails_as::code, [](s&) { return HI_MPI_VDEC_DestroyChn(1); }}},
        {"HI_MPI_VDEC_GetPrtclParam",
         {fails_as::code, [](s&) { vdec_prtcl_param_t p{}; return HI_MPI_VDEC_GetPrtclParam(0, &p); }}},
        {"HI_MPI_VDEC_SetPrtclParam",
         {fails_as::code, [](s&) { return HI_MPI_VDEC_SetPrtclParam(1, &k_prtcl); }}},
        {"HI_MPI_VDEC_StartRecvStream", {fails_as::code, [](s&) { return HI_MPI_VDEC_StartRecvStream(1); }}},
        {"HI_MPI_VDEC_StopRecvStream", {fails_as::code, [](s&) { return HI_MPI_VDEC_StopRecvStream(0); }}},
        {"HI_MPI_VDEC_ResetChn", {fails_as::code, [](s&) { return HI_MPI_VDEC_ResetChn(1); }}},
        {"HI_MPI_VDEC_SendStream", {fails_as::code, [](s&) {
             static const uint8_t au[8] = {0, 0, 0, 1, 0x65, 0x88, 0x80, 0x40};
             vdec_stream_t st{au, sizeof(au), 0};
             return HI_MPI_VDEC_SendStream(0, &st, 0); }}},
        {"HI_MPI_VDEC_GetImage",
         {fails_as::code, [](s&) { video_frame_info_t f{}; return HI_MPI_VDEC_GetImage(0, &f, 0); }}},
        {"HI_MPI_VDEC_ReleaseImage",
         {fails_as::code, [](s&) { video_frame_info_t f{}; return HI_MPI_VDEC_ReleaseImage(0, &f); }}},
        // motion detection
        {"HI_MPI_VDA_CreateChn", {fails_as::code, [](s&) {
             vda_chn_attr_t a = md_attr();
             return HI_MPI_VDA_CreateChn(2, &a); }}},
        {"HI_MPI_VDA_DestroyChn", {fails_as::code, [](s&) { return HI_MPI_VDA_DestroyChn(1); }}},
        {"HI_MPI_VDA_StartRecvPic", {fails_as::code, [](s&) { return HI_MPI_VDA_StartRecvPic(1); }}},
        {"HI_MPI_VDA_StopRecvPic", {fails_as::code, [](s&) { return HI_MPI_VDA_StopRecvPic(0); }}},
        {"HI_MPI_VDA_GetFd", {fails_as::code, [](s&) { return HI_MPI_VDA_GetFd(0); }}},
        {"HI_MPI_VDA_GetData", {fails_as::code, [](s&) {
             vda_data_t d{};
             return HI_MPI_VDA_GetData(0, &d, false); }}},
        {"HI_MPI_VDA_ReleaseData", {fails_as::code, [](s&) {
             vda_data_t d{};
             return HI_MPI_VDA_ReleaseData(0, &d); }}},

        // regions
        {"HI_MPI_RGN_Create", {fails_as::code, [](s&) {
             rgn_attr_t a = rgn_attr(COVER_RGN);
             return HI_MPI_RGN_Create(5, &a); }}},
        {"HI_MPI_RGN_Destroy", {fails_as::code, [](s&) { return HI_MPI_RGN_Destroy(1); }}},
        {"HI_MPI_RGN_AttachToChn", {fails_as::code, [](s&) {
             rgn_chn_attr_t a = cover_chn(16);
             return HI_MPI_RGN_AttachToChn(1, &k_vi1, &a); }}},
        {"HI_MPI_RGN_DetachFrmChn", {fails_as::code, [](s&) { return HI_MPI_RGN_DetachFrmChn(3, &k_vi0); }}},
        {"HI_MPI_RGN_SetDisplayAttr", {fails_as::code, [](s&) {
             rgn_chn_attr_t a = cover_chn(32);
             return HI_MPI_RGN_SetDisplayAttr(3, &k_vi0, &a); }}},
        {"HI_MPI_RGN_GetDisplayAttr",
         {fails_as::code, [](s&) { rgn_chn_attr_t a{}; return HI_MPI_RGN_GetDisplayAttr(3, &k_vi0, &a); }}},
        {"HI_MPI_RGN_SetBitMap", {fails_as::code, [](s&) {
             static const std::vector<uint8_t> px(352 * 20 * 2, 9);
             bitmap_t bm{PIXEL_FORMAT_RGB_1555, 352, 20, px.data()};
             return HI_MPI_RGN_SetBitMap(64, &bm); }}},
    };
    return table;
}

class sim_fault_table_test : public board_test {
protected:
    void TearDown() override
    {
        if (state_.map != nullptr)
            HI_MPI_SYS_Munmap(state_.map, 4096);
        if (state_.mcc_fd >= 0)
            mcc_close(state_.mcc_fd);
        board_test::TearDown();
    }

    // Pools, system, window pool; capture device 0 with channel 0 on and
    // channel 1 set up, device 2 on without channels, device 3 set up but
    // off; groups 0 (started, channel 0 on) and 2
    // (created, channel 0 configured); group 0 fed by capture channel 0
    // and kept in the default zone; encoder group 0; a PCI block, mapped;
    // a driver descriptor; a queue with one message.
    void fill_board()
    {
        vb_conf_t vb{};
        vb.max_pool_cnt = 1;
        vb.comm_pool[0] = {4096, 4, ""};
        mpp_sys_conf_t sys{64};
        pciv_win_vb_cfg_t win{};
        win.pool_count = 1;
        win.blk_size[0] = 0x200000;
        win.blk_count[0] = 4;
        ASSERT_TRUE(HI_MPI_VB_SetConf(&vb) == 0 && HI_MPI_VB_Init() == 0 && HI_MPI_SYS_SetConf(&sys) == 0 &&
                    HI_MPI_SYS_Init() == 0 && HI_MPI_PCIV_WinVbCreate(&win) == 0);
        ASSERT_TRUE(HI_MPI_VI_SetDevAttr(0, &k_vi_dev) == 0 && HI_MPI_VI_EnableDev(0) == 0 &&
                    HI_MPI_VI_SetChnAttr(0, &k_vi_chn) == 0 && HI_MPI_VI_EnableChn(0) == 0 &&
                    HI_MPI_VI_SetChnAttr(1, &k_vi_chn) == 0 && HI_MPI_VI_SetDevAttr(2, &k_vi_dev) == 0 &&
                    HI_MPI_VI_EnableDev(2) == 0 && HI_MPI_VI_SetDevAttr(3, &k_vi_dev) == 0);
        ASSERT_TRUE(HI_MPI_VPSS_CreateGrp(0, &k_grp) == 0 && HI_MPI_VPSS_SetChnAttr(0, 0, &k_vpss_chn) == 0 &&
                    HI_MPI_VPSS_EnableChn(0, 0) == 0 && HI_MPI_VPSS_StartGrp(0) == 0 &&
                    HI_MPI_VPSS_CreateGrp(2, &k_grp) == 0 && HI_MPI_VPSS_SetChnAttr(2, 0, &k_vpss_chn) == 0);
        ASSERT_TRUE(HI_MPI_SYS_Bind(&k_vi0, &k_grp0) == 0 && HI_MPI_SYS_SetMemConf(&k_grp0, MMZ_DEFAULT) == 0);
        ASSERT_EQ(HI_MPI_VENC_CreateGroup(0), 0);
        // Encoder group and channel 2 registered, 4 both created apart, 5 a
        // JPEG channel.
        const venc_chn_attr_t h264 = h264_attr(64), jpeg = jpeg_attr();
        ASSERT_TRUE(HI_MPI_VENC_CreateGroup(2) == 0 && HI_MPI_VENC_CreateChn(2, &h264) == 0 &&
                    HI_MPI_VENC_RegisterChn(2, 2) == 0 && HI_MPI_VENC_CreateGroup(4) == 0 &&
                    HI_MPI_VENC_CreateChn(4, &h264) == 0 && HI_MPI_VENC_CreateChn(5, &jpeg) == 0);
        // Output device 8: channel 1 shown, 2 configured, 4 paused, in a batch.
        const vo_chn_attr_t vo{0, {0, 0, 960, 540}, 0};
        ASSERT_TRUE(HI_MPI_VO_SetChnAttr(VO_CASCADE_DEV, 1, &vo) == 0 && HI_MPI_VO_EnableChn(VO_CASCADE_DEV, 1) == 0 &&
                    HI_MPI_VO_SetChnAttr(VO_CASCADE_DEV, 2, &vo) == 0 &&
                    HI_MPI_VO_SetChnAttr(VO_CASCADE_DEV, 4, &vo) == 0 && HI_MPI_VO_EnableChn(VO_CASCADE_DEV, 4) == 0 &&
                    HI_MPI_VO_ChnPause(VO_CASCADE_DEV, 4) == 0 && HI_MPI_VO_SetAttrBegin(VO_CASCADE_DEV) == 0);
        // PCI video channel 1 started, 2 created.
        const pciv_attr_t pciv = pciv_attr(704, 576);
        ASSERT_TRUE(HI_MPI_PCIV_Create(1, &pciv) == 0 && HI_MPI_PCIV_Start(1) == 0 && HI_MPI_PCIV_Create(2, &pciv) == 0);
        ASSERT_TRUE(HI_MPI_VDEC_CreateChn(0, &k_vdec) == 0 && HI_MPI_VDEC_StartRecvStream(0) == 0 &&
                    HI_MPI_VDEC_CreateChn(1, &k_vdec) == 0);
        // Motion channel 0 receiving, 1 created.
        const vda_chn_attr_t md = md_attr();
        ASSERT_TRUE(HI_MPI_VDA_CreateChn(0, &md) == 0 && HI_MPI_VDA_StartRecvPic(0) == 0 &&
                    HI_MPI_VDA_CreateChn(1, &md) == 0);
        // Regions: cover 1 created apart, cover 3 on capture channel 0,
        // overlay 64 on encoder group 2.
        const rgn_attr_t cover = rgn_attr(COVER_RGN), overlay = rgn_attr(OVERLAY_RGN);
        rgn_chn_attr_t cc = cover_chn(0), oc{};
        oc.show = 1;
        oc.type = OVERLAY_RGN;
        oc.overlay.x = 20;
        ASSERT_TRUE(HI_MPI_RGN_Create(1, &cover) == 0 && HI_MPI_RGN_Create(3, &cover) == 0 &&
                    HI_MPI_RGN_AttachToChn(3, &k_vi0, &cc) == 0 && HI_MPI_RGN_Create(64, &overlay) == 0 &&
                    HI_MPI_RGN_AttachToChn(64, &k_rgn_grp, &oc) == 0);
        ASSERT_EQ(HI_MPI_PCIV_Malloc(8192, 1, &state_.block), 0);
        ASSERT_NE(state_.map = HI_MPI_SYS_Mmap(state_.block, 4096), nullptr);
        ASSERT_GE(state_.mcc_fd = mcc_open(MCC_DEV_NAME, O_RDWR), 0);
        ASSERT_GE(state_.queue = os_msgget(MSG_KEY_ENCR, IPC_CREAT | 0600), 0);
        tx_note n{5, "first"};
        ASSERT_EQ(os_msgsnd(state_.queue, &n, sizeof(n.body), 0), 0);
    }

    // What the board holds, as far as it can be read without calling the
    // operation under test: the families' read-backs, the chip's files,
    // the time stamp base, the driver descriptor, the queue.
    std::string board_digest(std::string_view under_test)
    {
        std::ostringstream o;
        sim_sys_state s = sim_sys_snapshot();
        o << "sys " << s.vb_configured << s.vb_initialised << s.sys_configured << s.sys_initialised
          << s.win_vb_created << " " << s.sys_conf.align_width << " " << s.vb_conf.max_pool_cnt << " "
          << s.vb_conf.comm_pool[0].blk_size << "\n";
        for (int d = 0; d < VIU_MAX_DEV_NUM; ++d)
            o << sim_media_vi_dev(d).attr_set << sim_media_vi_dev(d).enabled;
        for (int c = 0; c < VIU_MAX_CHN_NUM; ++c) {
            sim_vi_chn chn = sim_media_vi_chn(c);
            o << chn.attr_set << chn.enabled << chn.to420;
        }
        for (int g = 0; g < 4; ++g) {
            sim_vpss_grp grp = sim_media_vpss_grp(g);
            o << "\ngrp " << grp.created << grp.started << " " << grp.param.strength[0] << " " << grp.user_frames
              << " " << grp.resets;
            for (const sim_vpss_chn& c : grp.chn)
                o << c.attr_set << c.enabled;
            o << " crop " << grp.crop.enable << grp.crop.rect.x << "," << grp.crop.rect.width;
        }
        for (int g = 0; g < 6; ++g) {
            o << "\nvenc " << sim_media_venc_grp(g).created << sim_media_venc_grp(g).chn << " "
              << sim_media_venc_chn(g).created << sim_media_venc_chn(g).receiving;
            venc_grp_frm_rate_t r{};
            venc_chn_attr_t a{};
            venc_param_jpeg_t p{};
            if (under_test != "HI_MPI_VENC_GetGrpFrmRate" && HI_MPI_VENC_GetGrpFrmRate(g, &r) == 0)
                o << " rate " << r.vi_frm_rate << "/" << r.target_frm_rate;
            if (under_test != "HI_MPI_VENC_GetChnAttr" && HI_MPI_VENC_GetChnAttr(g, &a) == 0)
                o << " kbps " << a.rc.bit_rate;
            if (under_test != "HI_MPI_VENC_GetJpegParam" && HI_MPI_VENC_GetJpegParam(g, &p) == 0)
                o << " q " << p.qfactor;
        }
        for (int c = 0; c < 3; ++c) {
            sim_vdec_chn d = sim_media_vdec_chn(c);
            o << "\nvdec " << d.created << d.receiving << " " << d.prtcl.max_slice_num << " " << d.refused;
        }
        for (int c = 0; c < 3; ++c)
            o << "\nvda " << sim_media_vda_chn(c).created << sim_media_vda_chn(c).receiving;
        for (int h : {1, 3, 5, 64}) {
            sim_rgn g = sim_media_rgn(h);
            o << "\nrgn " << h << " " << g.created << g.attached << " " << g.chn.mod_id << "." << g.chn.chn_id << " "
              << g.chn_attr.cover.x << " " << g.bitmap.size();
        }
        o << "\nvo " << sim_media_vo_dev(0).enabled << sim_media_vo_dev(0).layer_enabled
          << sim_media_vo_dev(0).chn[0].enabled;
        const sim_vo_dev vo = sim_media_vo_dev(VO_CASCADE_DEV);
        o << " cascade " << vo.in_batch << vo.batches;
        for (int c = 0; c < 6; ++c)
            o << " " << vo.chn[c].attr_set << vo.chn[c].enabled << vo.chn[c].paused << vo.chn[c].clears << "@"
              << vo.chn[c].attr.rect.x << "," << vo.chn[c].attr.rect.width;
        for (int c = 0; c < 6; ++c)
            o << " pciv " << sim_media_pciv_chn(c).created << sim_media_pciv_chn(c).started
              << sim_media_pciv_chn(c).attr.pic_attr.width;
        for (const sim_binding& b : sim_media_bindings())
            o << "\nbind " << b.src.mod_id << "." << b.src.dev_id << "." << b.src.chn_id << ">" << b.dest.mod_id
              << "." << b.dest.dev_id << "." << b.dest.chn_id;
        for (const sim_mem_conf& m : sim_media_mem_confs())
            o << "\nzone " << m.chn.mod_id << "." << m.chn.dev_id << "." << m.chn.chn_id << "=" << m.zone;
        o << "\npci " << sim_pcimem_allocated() << " " << sim_mcc_connected_count();
        for (const char* f : {"clock", "etc/TZ", "shell.log", "sched.log", "msgq"})
            o << "\n" << f << ":" << read_file(chip_file(f));
        if (under_test != "HI_MPI_SYS_GetCurPts") {
            // The base of the time stamps, to the second.
            uint64_t pts = 0;
            HI_MPI_SYS_GetCurPts(&pts);
            o << "\npts-base " << (static_cast<int64_t>(pts) - os_monotonic_us()) / 1000000;
        }
        if (under_test != "HI_MCC_IOC_GET_LOCAL_ID") {
            mcc_handle_attr a{};
            o << "\nmcc " << mcc_ioctl(state_.mcc_fd, HI_MCC_IOC_GET_LOCAL_ID, &a);
        }
        o << "\nqueue " << queued(state_.queue);
        return o.str();
    }

    board_state state_;
};

TEST_F(sim_fault_table_test, every_operation_failed_once_returns_its_code_and_changes_nothing)
{
    std::vector<std::string_view> missing;
    for (std::string_view name : k_ops)
        if (rows().count(name) == 0)
            missing.push_back(name);
    EXPECT_THAT(missing, ::testing::IsEmpty()) << "operations of sim_ops.def without a row here";
    EXPECT_EQ(rows().size(), std::size(k_ops) - missing.size()) << "rows for operations sim_ops.def lacks";

    for (size_t i = 0; i < std::size(k_ops); ++i) {
        const std::string_view name = k_ops[i];
        auto it = rows().find(name);
        if (it == rows().end())
            continue;
        const row& r = it->second;
        SCOPED_TRACE(std::string(name));
        // Codes unique to the row: the errno-style operations take small
        // numbers, the platform's own a code of its error form.
        const int32_t code = r.how == fails_as::errno_ ? static_cast<int32_t>(0x100 + i)
                                                       : static_cast<int32_t>(0xA0FE0000u | static_cast<uint32_t>(i));
        char rule[96];
        std::snprintf(rule, sizeof(rule), "%.*s@1=%x", static_cast<int>(name.size()), name.data(),
                      static_cast<unsigned>(code));
        TearDown();
        state_ = {};
        reopen("");
        ASSERT_NO_FATAL_FAILURE(fill_board());
        // The rule comes after the set-up, which calls many operations; the
        // call count starts again with it.
        std::string err;
        ASSERT_EQ(sim_fault_set(rule, &err), 0) << err;
        const std::string before = board_digest(name);
        errno = 0;
        const intptr_t result = r.call(state_);
        switch (r.how) {
        case fails_as::code: EXPECT_EQ(result, code); break;
        case fails_as::errno_:
            EXPECT_EQ(result, -1);
            EXPECT_EQ(errno, code);
            break;
        case fails_as::null: EXPECT_EQ(result, 0); break;
        }
        EXPECT_EQ(sim_fault_calls(static_cast<sim_op>(i)), 1u);
        EXPECT_EQ(board_digest(name), before);
        // Only the first call fails: the second is not refused with the code.
        errno = 0;
        const intptr_t again = r.call(state_);
        EXPECT_FALSE(again == code || (r.how == fails_as::errno_ && errno == code));
        if (name == "mcc_open" && again >= 0)
            mcc_close(static_cast<int>(again));
        if (name == "mcc_close")
            state_.mcc_fd = -1;
        if (name == "HI_MPI_SYS_Munmap")
            state_.map = nullptr;
    }
}

}  // namespace
