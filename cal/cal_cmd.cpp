#include "cal/cal_cmd.h"

#include <cstddef>
#include <cstring>
#include <ctime>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "cal/startup.h"
#include "msg/cal_hsc.h"
#include "platform/hi_mpi_sys.h"
#include "platform/hi_mpi_vi.h"
#include "platform/os.h"
#include "vin/cal_vin.h"

namespace {

template <class T>
void payload_put(hsc_msg_t* msg, uint32_t offset, T v)
{
    std::memcpy(msg->data + offset, &v, sizeof(T));
}

// ---- payloads of the core's rows ------------------------------------------------

// HSCC_CAL_SetTz: the zone text, NUL-terminated or ending with the payload.
struct cmd_tz_t {
    char text[1];
};
static_assert(sizeof(cmd_tz_t) == 1);

// HSCC_CAL_SetTime.
struct cmd_time_t {
    uint64_t usec;  // microseconds since the epoch
};
static_assert(sizeof(cmd_time_t) == 8);

// A command naming one camera (HSCC_CAL_SetVl) or one output path.
struct cmd_word_t {
    int32_t w0;
};
static_assert(sizeof(cmd_word_t) == 4);

// A payload the row does not read.
struct cmd_none_t {};

template <class T>
constexpr uint32_t min_len()
{
    return std::is_empty_v<T> ? 0 : sizeof(T);
}

// ---- the core's rows ----------------------------------------------------------

int row_set_dma_info(cal_t* cal, hsc_msg_t* msg)
{
    TRACE("HSCC_CAL_SetDmaInfo..");
    int r = cal_hsc_set_dma_info(cal, msg);
    TRACE("_hsc_set_dma_info.. r:%d\n", r);
    return r;
}

int row_set_tz(cal_t* cal, hsc_msg_t* msg)
{
    TRACE("HSCC_CAL_SetTz..");
    // The zone text ends at its NUL or at the end of what arrived.
    char tz[PCIV_MSG_MAX_PAYLOAD + 1];
    size_t n = strnlen(reinterpret_cast<const char*>(msg->data), msg->len);
    std::memcpy(tz, msg->data, n);
    tz[n] = '\0';
    return _set_tz(cal, tz);
}

int row_get_dma_info(cal_t* cal, hsc_msg_t* msg)
{
    return cal_hsc_get_dma_info(cal, msg);
}

int row_get_status(cal_t* cal, hsc_msg_t* msg)
{
    cal_cmd_get_status(cal, msg);
    return 0;
}

int row_set_vl(cal_t*, hsc_msg_t* msg)
{
    TRACE("HSCC_CAL_SetVl cam:%d\n", cal_payload<cmd_word_t>(msg).w0);
    return 0;
}

int row_set_time(cal_t* cal, hsc_msg_t* msg)
{
    uint64_t u = cal_payload<cmd_time_t>(msg).usec;
    _set_time(cal, u / 1000000, u);
    return 0;
}

constexpr cal_cmd_row_t k_core_rows[] = {
    {HSCC_CAL_SetDmaInfo, HSCC_CAL_SetDmaInfo, sizeof(hsc_dma_info_t), false, row_set_dma_info},
    {HSCC_CAL_SetTz, HSCC_CAL_SetTz, min_len<cmd_tz_t>(), true, row_set_tz},
    {HSCC_CAL_GetDmaInfo, HSCC_CAL_GetDmaInfo, min_len<cmd_none_t>(), false, row_get_dma_info},
    {HSCC_CAL_GetStatus, HSCC_CAL_GetStatus, min_len<cmd_none_t>(), true, row_get_status},
    {HSCC_CAL_SetVl, HSCC_CAL_SetVl, min_len<cmd_word_t>(), true, row_set_vl},
    {HSCC_CAL_SetTime, HSCC_CAL_SetTime, min_len<cmd_time_t>(), true, row_set_time},
};

const cal_cmd_row_t* find_in(std::span<const cal_cmd_row_t> rows, uint32_t code)
{
    for (const cal_cmd_row_t& row : rows)
        if (code >= row.code && code <= row.last)
            return &row;
    return nullptr;
}

}  // namespace

const cal_cmd_row_t* cal_cmd_find_row(const cal_t* cal, uint32_t code)
{
    if (const cal_cmd_row_t* row = find_in(k_core_rows, code))
        return row;
    for (int id = 0; id < CAL_MOD_COUNT; ++id)
        if (const cal_mod_t* m = cal_mod_live(cal, static_cast<cal_mod_id>(id)))
            if (const cal_cmd_row_t* row = find_in(m->rows, code))
                return row;
    return nullptr;
}

int cal_cmd_dispatch(cal_t* cal, hsc_msg_t* msg)
{
    const cal_cmd_row_t* row = cal_cmd_find_row(cal, msg->cmd);
    if (row == nullptr)
        return 0;
    // A request shorter than its payload struct runs nothing: refused where
    // the handler's result would be the answer, 0 where the answer is
    // always 0.
    if (msg->len < row->min_len) {
        TRACE("cmd:%08x len:%u < %u refused\n", msg->cmd, msg->len, row->min_len);
        return row->result_zero ? 0 : -1;
    }
    int r = row->run(cal, msg);
    return row->result_zero ? 0 : r;
}

int cal_cmd_get_status(cal_t* cal, hsc_msg_t* msg)
{
    // Eight cameras follow the capture channel map; any other count reports
    // the capture channels 0, 4, 8 and 12. A failed query leaves the value
    // of the camera before in the record.
    int n = cal->slave_cam == 8 ? 8 : 4;
    vi_chn_stat_t stat{};
    for (int i = 0; i < n; ++i) {
        int c = cal->slave_cam == 8 ? cal_cam_to_vi_chn(cal, i) : 4 * i;
        HI_MPI_VI_Query(c, &stat);
        payload_put<uint32_t>(msg, 4 + 4 * static_cast<uint32_t>(i), stat.frame_rate);
    }
    // The modules write their threads' heartbeats at 48 and 52; a thread
    // whose module has not joined beats 0.
    payload_put<int32_t>(msg, 48, 0);
    payload_put<int32_t>(msg, 52, 0);
    for (cal_mod_id id : CAL_MOD_STATUS_ORDER)
        if (const cal_mod_t* m = cal_mod_live(cal, id); m != nullptr && m->status != nullptr)
            m->status(cal, msg->data);

    uint64_t pts = 0;
    HI_MPI_SYS_GetCurPts(&pts);
    payload_put<uint32_t>(msg, 0, heartbit);
    payload_put<uint32_t>(msg, 36, static_cast<uint32_t>(os_time(nullptr)));
    payload_put<uint64_t>(msg, 40, pts);
    msg->len = CAL_STATUS_LEN;
    return 0;
}

int cal_cmd_turn(cal_t* cal, hsc_msg_t* msg)
{
    ++heartbit;
    if (cal_hsc_read_msg(cal, msg) != 0) {
        os_usleep(10000);
        return -1;
    }
    // What did not arrive reads as zeros, never as an earlier command's bytes.
    std::memset(msg->data + msg->len, 0, sizeof(msg->data) - msg->len);
    CAL_LOG(7, "id:%d cmd:%08x len:%d --1--\n", static_cast<int>(msg->id), msg->cmd, static_cast<int>(msg->len));
    msg->result = cal_cmd_dispatch(cal, msg);
    cal_hsc_write_msg(cal, msg);
    CAL_LOG(7, "id:%d cmd:%08x len:%d --2--\n", static_cast<int>(msg->id), msg->cmd, static_cast<int>(msg->len));
    return 0;
}

void cal_cmd_loop(cal_t* cal)
{
    hsc_msg_t msg;
    for (;;)
        cal_cmd_turn(cal, &msg);
}
