#include "cal/cal_cmd.h"

#include <unistd.h>

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

// Little-endian payload fields (the chip and the host are both
// little-endian; memcpy keeps unaligned reads defined).
template <class T>
T payload_get(const hsc_msg_t* msg, uint32_t offset)
{
    T v;
    std::memcpy(&v, msg->data + offset, sizeof(T));
    return v;
}

template <class T>
void payload_put(hsc_msg_t* msg, uint32_t offset, T v)
{
    std::memcpy(msg->data + offset, &v, sizeof(T));
}

int32_t word(const hsc_msg_t* msg, int k)
{
    return payload_get<int32_t>(msg, 4u * static_cast<uint32_t>(k));
}

// A row whose module is not part of the process yet: answered like an
// unknown code.
int awaiting_module(const hsc_msg_t* msg)
{
    TRACE("cmd:%08x waits for its module\n", msg->cmd);
    return 0;
}

int16_t half(const hsc_msg_t* msg, uint32_t offset)
{
    return payload_get<int16_t>(msg, offset);
}

// ---- rows -------------------------------------------------------------------

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

int row_set_layout(cal_t* cal, hsc_msg_t* msg)
{
    const auto& h = cal_cmd_handlers;
    return h.vout_set_layout ? h.vout_set_layout(cal, word(msg, 0), msg, -1) : awaiting_module(msg);
}

int row_set_zoom(cal_t* cal, hsc_msg_t* msg)
{
    const auto& h = cal_cmd_handlers;
    if (h.vout_set_zoom == nullptr)
        return awaiting_module(msg);
    return h.vout_set_zoom(cal, cal_local_cam(cal, word(msg, 0)), word(msg, 2), word(msg, 3), word(msg, 4),
                           word(msg, 5), word(msg, 6), word(msg, 7));
}

int row_set_vincaps(cal_t* cal, hsc_msg_t* msg)
{
    double fps = payload_get<double>(msg, 16);
    CAL_LOG(7, "HSCC_CAL_SetVincaps.. cam:%d xres:%d yres:%d prog:%d fps:%.1f type:%d cambase:%d\n", word(msg, 0),
            word(msg, 1), word(msg, 2), word(msg, 3), fps, word(msg, 7), cal->cam_base);
    const auto& h = cal_cmd_handlers;
    if (h.vin_set_caps == nullptr)
        return awaiting_module(msg);
    return h.vin_set_caps(cal, cal_local_cam(cal, word(msg, 0)), word(msg, 1), word(msg, 2), word(msg, 3), fps,
                          word(msg, 7));
}

int row_set_md(cal_t* cal, hsc_msg_t* msg)
{
    TRACE("HSCC_CAL_SetMd cam:%d cam_base:%d\n", word(msg, 0), cal->cam_base);
    const auto& h = cal_cmd_handlers;
    return h.vin_set_md ? h.vin_set_md(cal, cal_local_cam(cal, word(msg, 0)), word(msg, 1)) : awaiting_module(msg);
}

int row_set_vl(cal_t*, hsc_msg_t* msg)
{
    TRACE("HSCC_CAL_SetVl cam:%d\n", word(msg, 0));
    return 0;
}

int row_set_time(cal_t* cal, hsc_msg_t* msg)
{
    uint64_t u = payload_get<uint64_t>(msg, 0);
    _set_time(cal, u / 1000000, u);
    return 0;
}

int row_set_enc_video(cal_t* cal, hsc_msg_t* msg)
{
    // use_main shows the stream kind (payload word 0; 0 is the main
    // recording stream).
    TRACE("HSCC_CAL_SetEncVideo.. ch:%d xres:%d yres:%d fps:%.1f use_main:%d\n", msg->data[12], half(msg, 8),
          half(msg, 10), static_cast<double>(payload_get<float>(msg, 4)), word(msg, 0));
    const auto& h = cal_cmd_handlers;
    return h.enc_set_video ? h.enc_set_video(cal, msg) : awaiting_module(msg);
}

int row_run_enc_video(cal_t* cal, hsc_msg_t* msg)
{
    const auto& h = cal_cmd_handlers;
    return h.enc_run_video ? h.enc_run_video(cal, msg) : awaiting_module(msg);
}

int row_init_pciv_vo(cal_t* cal, hsc_msg_t* msg)
{
    const auto& h = cal_cmd_handlers;
    int kind = word(msg, 0);
    if (kind == 0) {
        TRACE("HSCC_CAL_InitPcivVo.. %d %d %d\n", word(msg, 1), word(msg, 30), word(msg, 29));
        return h.vout_pip_pcivinit ? h.vout_pip_pcivinit(cal, msg) : awaiting_module(msg);
    }
    if (kind == 2)
        return h.vout_main_pcivinit ? h.vout_main_pcivinit(cal, msg) : awaiting_module(msg);
    return h.vout_spot_pcivinit ? h.vout_spot_pcivinit(cal, msg) : awaiting_module(msg);
}

int row_start_pciv_vo(cal_t* cal, hsc_msg_t* msg)
{
    const auto& h = cal_cmd_handlers;
    int kind = word(msg, 0);
    if (kind == 0)
        return h.vout_pippciv_start ? h.vout_pippciv_start(cal, msg) : awaiting_module(msg);
    if (kind == 2)
        return h.vout_mainpciv_start ? h.vout_mainpciv_start(cal, msg) : awaiting_module(msg);
    return 0;  // the spot output has nothing to start
}

int row_stop_pciv_vo(cal_t* cal, hsc_msg_t* msg)
{
    const auto& h = cal_cmd_handlers;
    if (word(msg, 0) == 0)
        return h.vout_pippciv_stop ? h.vout_pippciv_stop(cal, msg) : awaiting_module(msg);
    return h.vout_spot_pcivexit ? h.vout_spot_pcivexit(cal, msg) : awaiting_module(msg);
}

int row_set_privacy(cal_t* cal, hsc_msg_t* msg)
{
    const auto& h = cal_cmd_handlers;
    return h.vin_set_privacy ? h.vin_set_privacy(cal, msg) : awaiting_module(msg);
}

int row_update_enc_video(cal_t* cal, hsc_msg_t* msg)
{
    TRACE("HSCC_CAL_UpdatEncVideo.. %d %d %llu\n", half(msg, 0), half(msg, 2),
          static_cast<unsigned long long>(payload_get<uint64_t>(msg, 8)));
    const auto& h = cal_cmd_handlers;
    return h.enc_update ? h.enc_update(cal, msg) : awaiting_module(msg);
}

int row_set_timestamp(cal_t* cal, hsc_msg_t* msg)
{
    const auto& h = cal_cmd_handlers;
    return h.enc_set_timestamp ? h.enc_set_timestamp(cal, word(msg, 0), word(msg, 1), word(msg, 2))
                               : awaiting_module(msg);
}

int row_set_time_font(cal_t* cal, hsc_msg_t* msg)
{
    const auto& h = cal_cmd_handlers;
    if (h.enc_copy_timefont == nullptr)
        return awaiting_module(msg);
    h.enc_copy_timefont(cal, msg->data, static_cast<int>(msg->cmd - HSCC_CAL_SetTimeFont));
    return 0;
}

int row_dec_start(cal_t* cal, hsc_msg_t* msg)
{
    TRACE("HSCC_CAL_3531_decstart cam:%d\n", word(msg, 0));
    const auto& h = cal_cmd_handlers;
    if (h.dec_cmd == nullptr)
        return awaiting_module(msg);
    h.dec_cmd(cal, word(msg, 0) == 0 ? 2 : 1, word(msg, 1));
    return 0;
}

int row_dec_flush(cal_t* cal, hsc_msg_t* msg)
{
    TRACE("HSCC_CAL_3531_flush cam:%d\n", word(msg, 2));
    const auto& h = cal_cmd_handlers;
    if (h.dec_cmd == nullptr)
        return awaiting_module(msg);
    h.dec_cmd(cal, 3, 0);
    return 0;
}

int row_play_jpg(cal_t* cal, hsc_msg_t* msg)
{
    TRACE("HSCC_CAL_3531_playjpg on_playjpg:%d\n", word(msg, 0));
    const auto& h = cal_cmd_handlers;
    if (h.enc_on_playjpg == nullptr)
        return awaiting_module(msg);
    h.enc_on_playjpg(cal, word(msg, 0));
    return 0;
}

int row_avc_res(cal_t* cal, hsc_msg_t* msg)
{
    TRACE("HSCC_CAL_3531_avcres avc_cnt:%d\n", half(msg, 0));
    const auto& h = cal_cmd_handlers;
    if (h.enc_init_avcres == nullptr)
        return awaiting_module(msg);
    h.enc_init_avcres(cal, msg);
    return 0;
}

// The module a row's handlers belong to; CORE rows run in the process now.
enum cmd_module { CORE, VOUT, VIN, ENC, DEC };

struct cmd_row {
    uint32_t code;
    uint32_t last;     // last code of a range of codes with one handler
    uint32_t min_len;  // payload bytes the row reads from the request
    cmd_module module;
    bool result_zero;  // answered 0 whatever the handler says
    int (*run)(cal_t* cal, hsc_msg_t* msg);
};

// Every command the process knows. A request shorter than what its row
// reads runs nothing: it is refused (-1) where the handler's result would
// be the answer, and answered 0 where the answer is always 0 or the row's
// module is not in the process yet.
constexpr cmd_row k_rows[] = {
    {HSCC_CAL_SetDmaInfo, HSCC_CAL_SetDmaInfo, sizeof(hsc_dma_info_t), CORE, false, row_set_dma_info},
    {HSCC_CAL_SetTz, HSCC_CAL_SetTz, 1, CORE, true, row_set_tz},
    {HSCC_CAL_GetDmaInfo, HSCC_CAL_GetDmaInfo, 0, CORE, false, row_get_dma_info},
    {HSCC_CAL_GetStatus, HSCC_CAL_GetStatus, 0, CORE, true, row_get_status},
    {HSCC_CAL_SetLayout, HSCC_CAL_SetLayout, 4, VOUT, false, row_set_layout},
    {HSCC_CAL_SetZoom, HSCC_CAL_SetZoom, 32, VOUT, false, row_set_zoom},
    {HSCC_CAL_SetVincaps, HSCC_CAL_SetVincaps, 32, VIN, false, row_set_vincaps},
    {HSCC_CAL_SetMd, HSCC_CAL_SetMd, 8, VIN, false, row_set_md},
    {HSCC_CAL_SetVl, HSCC_CAL_SetVl, 4, CORE, true, row_set_vl},
    {HSCC_CAL_SetTime, HSCC_CAL_SetTime, 8, CORE, true, row_set_time},
    {HSCC_CAL_SetEncVideo, HSCC_CAL_SetEncVideo, 13, ENC, false, row_set_enc_video},
    {HSCC_CAL_RunEncVideo, HSCC_CAL_RunEncVideo, 0, ENC, false, row_run_enc_video},
    {HSCC_CAL_InitPcivVo, HSCC_CAL_InitPcivVo, 4, VOUT, false, row_init_pciv_vo},
    {HSCC_CAL_StartPcivVo, HSCC_CAL_StartPcivVo, 4, VOUT, false, row_start_pciv_vo},
    {HSCC_CAL_StopPcivVo, HSCC_CAL_StopPcivVo, 4, VOUT, false, row_stop_pciv_vo},
    {HSCC_CAL_SetPrivacy, HSCC_CAL_SetPrivacy, 0, VIN, false, row_set_privacy},
    {HSCC_CAL_UpdatEncVideo, HSCC_CAL_UpdatEncVideo, 16, ENC, false, row_update_enc_video},
    {HSCC_CAL_SetTimestamp, HSCC_CAL_SetTimestamp, 12, ENC, false, row_set_timestamp},
    {HSCC_CAL_SetTimeFont, HSCC_CAL_SetTimeFont_Last, 0, ENC, true, row_set_time_font},
    {HSCC_CAL_3531_decstart, HSCC_CAL_3531_decstart, 8, DEC, true, row_dec_start},
    {HSCC_CAL_3531_flush, HSCC_CAL_3531_flush, 0, DEC, true, row_dec_flush},
    {HSCC_CAL_3531_playjpg, HSCC_CAL_3531_playjpg, 4, ENC, true, row_play_jpg},
    {HSCC_CAL_3531_avcres, HSCC_CAL_3531_avcres, 2, ENC, true, row_avc_res},
};

// Whether a module has joined: every handler of it is in the table.
bool module_present(cmd_module m)
{
    const auto& h = cal_cmd_handlers;
    switch (m) {
    case CORE:
        return true;
    case VOUT:
        return h.vout_set_layout && h.vout_set_zoom && h.vout_pip_pcivinit && h.vout_main_pcivinit &&
               h.vout_spot_pcivinit && h.vout_pippciv_start && h.vout_mainpciv_start && h.vout_pippciv_stop &&
               h.vout_spot_pcivexit;
    case VIN:
        return h.vin_set_caps && h.vin_set_md && h.vin_set_privacy;
    case ENC:
        return h.enc_set_video && h.enc_run_video && h.enc_update && h.enc_set_timestamp && h.enc_copy_timefont &&
               h.enc_on_playjpg && h.enc_init_avcres;
    case DEC:
        return h.dec_cmd != nullptr;
    }
    return false;
}

const cmd_row* find_row(uint32_t code)
{
    for (const cmd_row& row : k_rows)
        if (code >= row.code && code <= row.last)
            return &row;
    return nullptr;
}

}  // namespace

// Modules not yet in the process: video output, video input (formats,
// motion, privacy), encoder and decoder. Their entries stay NULL until they
// join.
cal_cmd_handlers_t cal_cmd_handlers = {};

int cal_cmd_dispatch(cal_t* cal, hsc_msg_t* msg)
{
    const cmd_row* row = find_row(msg->cmd);
    if (row == nullptr)
        return 0;
    if (msg->len < row->min_len) {
        bool answer_zero = row->result_zero || !module_present(row->module);
        TRACE("cmd:%08x len:%u < %u refused\n", msg->cmd, msg->len, row->min_len);
        return answer_zero ? 0 : -1;
    }
    return row->run(cal, msg);
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
    // The encoder reports the JPEG thread's heartbeat at 52, then the
    // decoder the decode thread's at 48. A thread that does not exist yet
    // beats 0.
    payload_put<int32_t>(msg, 48, 0);
    payload_put<int32_t>(msg, 52, 0);
    if (cal_cmd_handlers.enc_heart != nullptr)
        cal_cmd_handlers.enc_heart(cal, msg->data);
    if (cal_cmd_handlers.dec_get_heart != nullptr)
        cal_cmd_handlers.dec_get_heart(cal, msg->data);

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
        usleep(10000);
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
