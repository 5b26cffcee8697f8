// Motion detection: one motion-detection channel per camera, fed by the
// camera's sub capture channel, and the module's thread, which turns each
// result into a 32 x 18 bitmap of moved cells and sends it to the master.
#include <sys/select.h>

#include <algorithm>
#include <cstring>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "msg/cal_hsc.h"
#include "platform/hi_mpi_sys.h"
#include "platform/hi_mpi_vda.h"
#include "platform/hi_mpi_vi.h"
#include "platform/os.h"
#include "runtime/kel_thread.h"
#include "runtime/kel_word.h"
#include "vin/cal_vin.h"

namespace {

unsigned hex(int32_t r)
{
    return static_cast<unsigned>(r);
}

// The same attributes for every camera: 16 x 16 cells of a 512 x 288
// picture compared with a reference that follows the picture, a result
// every 15 pictures.
constexpr vda_chn_attr_t md_chn_attr()
{
    vda_chn_attr_t a{};
    a.work_mode = VDA_WORK_MODE_MD;
    a.vda_alg = VDA_ALG_REF;
    a.mb_size = VDA_MB_16PIXEL;
    a.mb_sad_bits = VDA_MB_SAD_8BIT;
    a.ref_mode = VDA_REF_MODE_DYNAMIC;
    a.rslt_num = 8;
    a.vda_intvl = 15;
    a.bg_up_src_wgt = 128;
    a.sad_th = 100;
    a.obj_num_max = 128;
    a.width = CAL_VIN_MD_WIDTH;
    a.height = CAL_VIN_MD_HEIGHT;
    return a;
}

mpp_chn_t md_src(cal_t* cal, int c)
{
    return {HI_ID_VI, 0, cal_vin_cam_chn(cal, c) + VIU_SUB_CHN_OFFSET};
}

mpp_chn_t md_dest(int c)
{
    return {HI_ID_VDA, 0, c};
}

// One result of camera c: read it, send its bitmap, give it back.
void take_result(cal_vin_t* vin, int c)
{
    vda_data_t data{};
    if (int32_t r = HI_MPI_VDA_GetData(c, &data, true)) {
        CAL_LOG(7, "HI_MPI_VDA_GetData failed with %#x ch:%d\n", hex(r), c);
        return;
    }
    uint32_t bitmap[CAL_VIN_MD_WORDS];
    _vin_md_bitmap(data.mb_sad_addr, static_cast<int>(data.stride), vin->md_row, vin->md_col,
                   kel_word_load(vin->md_threshold[c]), bitmap);
    unsigned char body[HSC_MD_BODY_SIZE];
    static_assert(sizeof(bitmap) == sizeof(body));
    std::memcpy(body, bitmap, sizeof(body));
    cal_hsc_send_md(vin->cal, c + vin->cal->cam_base, body);
    if (int32_t r = HI_MPI_VDA_ReleaseData(c, &data))
        CAL_LOG(7, "HI_MPI_VDA_ReleaseData failed with %#x ch:%d\n", hex(r), c);
}

enum class wait_result { failed, timeout, ready };

// Waits up to 20 ms for any camera's descriptor; ready holds the readable ones.
wait_result wait_results(const cal_vin_t* vin, fd_set* ready)
{
    FD_ZERO(ready);
    int max_fd = 0;
    for (int c = 0; c < vin->num; ++c) {
        const int fd = vin->vda_fd[c];
        if (fd < 0 || fd >= FD_SETSIZE)
            continue;
        FD_SET(fd, ready);
        max_fd = std::max(max_fd, fd);
    }
    struct timeval limit = {0, 20000};
    const int r = select(max_fd + 1, ready, nullptr, nullptr, &limit);
    if (r < 0)
        return wait_result::failed;
    return r == 0 ? wait_result::timeout : wait_result::ready;
}

}  // namespace

int cal_vin_cam_chn(cal_t* cal, int c)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    // The cameras the map covers sit where the bring-up put them; beyond
    // it every camera has four capture channels of its own.
    if (c >= 0 && c < CAL_VIN_MAP_CAMS && c < cal->slave_cam)
        return cal_cam_to_vi_chn(cal, c);
    return 4 * c;
}

void _vin_md_bitmap(const uint8_t* cells, int stride, int md_row, int md_col, int threshold,
                    uint32_t bitmap[CAL_VIN_MD_WORDS])
{
    std::fill(bitmap, bitmap + CAL_VIN_MD_WORDS, 0u);
    const int rows = std::clamp(md_col, 0, CAL_VIN_MD_WORDS), cols = std::clamp(md_row, 0, 32);
    for (int r = 0; r < rows; ++r) {
        uint32_t word = 0;
        const uint8_t* row = cells + static_cast<ptrdiff_t>(r) * stride;
        for (int k = 0; k < cols; ++k)
            if (row[k] >= threshold)
                word |= 1u << k;
        bitmap[r] = word;
    }
}

int _vin_set_md(cal_t* cal, int cam, int md_threshold)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    cal_vin_t* vin = cal->vin;
    CAL_CHECK_OBJ(vin, cal_vin_t, "vin is NULL\n");
    if (cam < 0 || cam >= vin->num) {
        CAL_LOG(3, "cam is out of range!!\n");
        return -1;
    }
    TRACE("cam:%d md_threshold:%d\n", cam, md_threshold);
    kel_word_store(vin->md_threshold[cam], md_threshold);
    return 0;
}

int _init_md(cal_vin_t* vin)
{
    CAL_CHECK_OBJ(vin, cal_vin_t, "vin is NULL\n");
    static constexpr vda_chn_attr_t k_attr = md_chn_attr();
    // The camera where the set-up stops and the ones after it are not
    // waited on, also when an earlier set-up had given them a descriptor.
    auto stop_at = [vin](int c) {
        for (int k = c; k < vin->num; ++k)
            vin->vda_fd[k] = -1;
    };
    for (int c = 0; c < vin->num; ++c) {
        if (int32_t r = HI_MPI_VDA_CreateChn(c, &k_attr)) {
            TRACE("HI_MPI_VDA_CreateChn err!%#x\n", hex(r));
            stop_at(c);
            return r;
        }
        const mpp_chn_t src = md_src(vin->cal, c), dest = md_dest(c);
        if (int32_t r = HI_MPI_SYS_Bind(&src, &dest)) {
            TRACE("HI_MPI_SYS_Bind err!%#x\n", hex(r));
            stop_at(c);
            return r;
        }
        if (int32_t r = HI_MPI_VDA_StartRecvPic(c)) {
            TRACE("HI_MPI_VDA_StartRecvPic err!%#x\n", hex(r));
            stop_at(c);
            return r;
        }
        const int32_t fd = HI_MPI_VDA_GetFd(c);
        if (fd < 0) {
            TRACE("HI_MPI_VDA_GetFd failed with %#x!\n", hex(fd));
            stop_at(c);
            return 0;
        }
        vin->vda_fd[c] = fd;
    }
    return 0;
}

int _exit_md(cal_vin_t* vin)
{
    CAL_CHECK_OBJ(vin, cal_vin_t, "vin is NULL\n");
    for (int c = 0; c < vin->num; ++c) {
        if (int32_t r = HI_MPI_VDA_StopRecvPic(c))
            TRACE("HI_MPI_VDA_StopRecvPic err(0x%x)!!!!\n", hex(r));
        const mpp_chn_t src = md_src(vin->cal, c), dest = md_dest(c);
        if (int32_t r = HI_MPI_SYS_UnBind(&src, &dest))
            TRACE("HI_MPI_SYS_UnBind err(0x%x)!!!!\n", hex(r));
        if (int32_t r = HI_MPI_VDA_DestroyChn(c))
            TRACE("HI_MPI_VDA_DestroyChn err(0x%x)!!!!\n", hex(r));
    }
    return 0;
}

int _vin_md_pass(cal_vin_t* vin)
{
    fd_set ready;
    const wait_result w = wait_results(vin, &ready);
    if (w == wait_result::failed) {
        // A descriptor went bad under the wait: the channels are made again.
        _exit_md(vin);
        _init_md(vin);
        return -1;
    }
    if (w == wait_result::timeout)
        return 0;
    for (int c = 0; c < vin->num; ++c) {
        const int fd = vin->vda_fd[c];
        if (fd >= 0 && fd < FD_SETSIZE && FD_ISSET(fd, &ready))
            take_result(vin, c);
    }
    return 1;
}

int cal_vin_thread(void* arg)
{
    auto* vin = static_cast<cal_vin_t*>(arg);
    CAL_CHECK_OBJ(vin, cal_vin_t, "vin is NULL\n");
    cal_thread_priority(0, "cal_vin_thread");
    kel_thread_reset_heart(vin->thread);
    kel_thread_set_stable(vin->thread, 1);
    TRACE("enter!!");

    // The capture channels settle before motion detection starts.
    os_usleep(CAL_VIN_MD_DELAY_US);
    _init_md(vin);

    while (kel_thread_want_exit(vin->thread) == 0) {
        if (_vin_md_pass(vin) <= 0)
            continue;
        kel_thread_inc_heart(vin->thread);
        os_usleep(10000);
    }
    _exit_md(vin);
    TRACE("exit!!");
    return 0;
}
