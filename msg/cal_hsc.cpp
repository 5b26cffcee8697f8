#include "msg/cal_hsc.h"

#include <cstring>
#include <new>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "platform/hi_mpi_pciv.h"
#include "platform/hi_mpi_sys.h"
#include "platform/os.h"

namespace {

constexpr unsigned k_max_slave_cam = 32;
constexpr int k_master = 0;
constexpr int k_stat_slot_s = 10;

}  // namespace

cal_hsc_t* cal_hsc_new(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    if (static_cast<unsigned>(cal->slave_cam) > k_max_slave_cam)
        return nullptr;

    cal_hsc_t* hsc = new (std::nothrow) cal_hsc_t{};
    if (hsc == nullptr)
        CAL_FATAL("malloc cal_hsc_t failed!!\n");
    hsc->cal = cal;
    hsc->num = cal->slave_cam;
    TRACE("num:%d\n", hsc->num);
    hsc->size = sizeof(cal_hsc_t);

    int32_t r = HI_MPI_PCIV_Malloc(HSC_BUF_SIZE, HSC_NUM_BUF, hsc->phys_addr);
    for (int k = 0; k < HSC_NUM_BUF; ++k) {
        hsc->virt_addr[k] = static_cast<unsigned char*>(HI_MPI_SYS_Mmap(hsc->phys_addr[k], HSC_BUF_SIZE));
        TRACE("k:%d r:%08x phys_addr:%08x virt_addr:%08x\n", k, static_cast<unsigned>(r), hsc->phys_addr[k],
              ptr32(hsc->virt_addr[k]));
        if (hsc->phys_addr[k] == 0)
            CAL_FATAL("PCIV_Malloc failed\n");
    }

    _init_port();

    hsc_msg_t hello{};
    hello.cmd = HSC_MSG_ANNOUNCE;
    pciv_write_msg(k_master, MSGPORT_CAL, &hello);
    return hsc;
}

void cal_hsc_delete(cal_hsc_t* hsc)
{
    CAL_CHECK_OBJ(hsc, cal_hsc_t, "hsc is NULL\n");
    delete hsc;
}

int _init_port()
{
    int r = pciv_wait_connect(k_master);
    if (r != 0) {
        TRACE("pciv_wait_connect failed.. r:%d\n", r);
        return r;
    }
    struct {
        int port;
        const char* fail;
    } const steps[] = {
        {MSGPORT_CAL, "pciv_open_msg MSGPORT_CAL failed.. r:%d\n"},
        {MSGPORT_ENCR, "pciv_open_msg MSGPORT_ENCR failed.. r:%d\n"},
        {MSGPORT_ENCN, "pciv_open_msg MSGPORT_ENCN failed.. r:%d\n"},
        {MSGPORT_VIN, "pciv_open_msg MSGPORT_VIN failed.. r:%d\n"},
        {MSGPORT_ENCJPG, "pciv_open_msg MSGPORT_ENCJPG failed.. r:%d\n"},
        {MSGPORT_DEC, "pciv_open_msg MSGPORT_DEC failed.. r:%d\n"},
    };
    for (const auto& step : steps) {
        r = pciv_open_msg(k_master, step.port);
        if (r != 0) {
            TRACE(step.fail, r);
            return r;
        }
    }
    TRACE("pciv_open_msg MSGPORT_DEC sucess.. r:%d\n", r);
    return 0;
}

int cal_hsc_read_msg(cal_t* cal, hsc_msg_t* msg)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    pciv_wait_msg(k_master, MSGPORT_CAL, -1);
    return pciv_read_msg(k_master, MSGPORT_CAL, msg);
}

int cal_hsc_write_msg(cal_t* cal, hsc_msg_t* msg)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    int r = pciv_write_msg(k_master, MSGPORT_CAL, msg);
    CAL_LOG(7, "r:%d cmd:%08x\n", r, msg->cmd);
    return r;
}

int cal_hsc_set_dma_info(cal_t* cal, hsc_msg_t* msg)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    cal_hsc_t* hsc = cal->hsc;
    CAL_CHECK_OBJ(hsc, cal_hsc_t, "hsc is NULL\n");
    // The four window addresses must all have arrived; a short request
    // would otherwise set windows from whatever the buffer held before.
    if (msg->len < sizeof(hsc_dma_info_t)) {
        TRACE("short request.. len:%u < %d, windows unchanged\n", msg->len, static_cast<int>(sizeof(hsc_dma_info_t)));
        return -1;
    }
    hsc_dma_info_t info;
    std::memcpy(&info, msg->data, sizeof(info));
    hsc->dma_index = 0;
    TRACE("dma_index:%d\n", hsc->dma_index.load());
    for (int k = 0; k < HSC_NUM_BUF; ++k) {
        hsc->host_phys_addr[k] = info.addr[k];
        TRACE("k:%d host_phys_addr:%08x\n", k, info.addr[k]);
    }
    return 0;
}

int cal_hsc_get_dma_info(cal_t* cal, hsc_msg_t* msg)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    cal_hsc_t* hsc = cal->hsc;
    CAL_CHECK_OBJ(hsc, cal_hsc_t, "hsc is NULL\n");
    hsc_dma_info_t info;
    msg->len = sizeof(info);
    info.dma_index = static_cast<uint32_t>(hsc->dma_index.load());
    for (int k = 0; k < HSC_NUM_BUF; ++k) {
        info.addr[k] = hsc->phys_addr[k];
        TRACE("k:%d phys_addr:%08x\n", k, hsc->phys_addr[k]);
    }
    std::memcpy(msg->data, &info, sizeof(info));
    return 0;
}

void _calc_dma(cal_hsc_t* hsc, int e, int n, int j)
{
    std::lock_guard lock(hsc->muxex);
    int now = static_cast<int>(os_time(nullptr));
    const int v[3] = {e, n, j};
    for (int k = 0; k < 3; ++k) {
        if (v[k] != 0) {
            hsc->cnt[k] += 1;
            hsc->bytes[k] += v[k];
        }
    }
    if (now / k_stat_slot_s == hsc->last_time / k_stat_slot_s)
        return;
    int total_cnt = hsc->cnt[0] + hsc->cnt[1] + hsc->cnt[2];
    int total_bytes = hsc->bytes[0] + hsc->bytes[1] + hsc->bytes[2];
    TRACE("ebuf:%d,%d nbuf:%d,%d jpg:%d,%d total:%d,%d (%d,%d)\n", hsc->cnt[0], hsc->bytes[0], hsc->cnt[1],
          hsc->bytes[1], hsc->cnt[2], hsc->bytes[2], total_cnt, total_bytes, total_cnt / k_stat_slot_s,
          total_bytes / k_stat_slot_s);
    hsc->last_time = now;
    for (int k = 0; k < 3; ++k) {
        hsc->cnt[k] = 0;
        hsc->bytes[k] = 0;
    }
}
