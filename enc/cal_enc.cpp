// The encoder module's life, its command handlers and its clocks.
#include "enc/cal_enc.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include "cal/cal.h"
#include "cal/cal_buf.h"
#include "cal/cal_log.h"
#include "cal/cal_tx.h"
#include "enc/enc_jpeg.h"
#include "msg/cal_hsc.h"
#include "platform/hi_mpi_sys.h"
#include "platform/hi_mpi_venc.h"
#include "platform/os.h"
#include "runtime/kel_thread.h"

namespace {

cal_enc_t* enc_of(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    CAL_CHECK_OBJ(cal->enc, cal_enc_t, "enc is NULL\n");
    return cal->enc;
}

// The slave-local camera of a command, or -1 (traced) when it is not one of
// this slave's.
int command_cam(cal_t* cal, const cal_enc_t* enc, int64_t cam, const char* what)
{
    int ch = cal_local_cam(cal, cam);
    if (ch < 0 || ch >= enc->num) {
        TRACE("%s cam:%lld is not one of the %d cameras from %d: refused\n", what, static_cast<long long>(cam),
              enc->num, cal->cam_base);
        return -1;
    }
    return ch;
}

// The stream record of a kind that has one.
cal_enc_stream_t* stream_of(cal_enc_t* enc, uint32_t kind, int ch)
{
    switch (kind) {
    case ENC_KIND_REC:
        return &enc->rec[ch];
    case ENC_KIND_NET:
        return &enc->net[ch];
    case ENC_KIND_NET_LOW:
        return &enc->net_low[ch];
    case ENC_KIND_REC_LOW:
        return &enc->rec_low[ch];
    default:
        return nullptr;
    }
}

// The time base of the media platform is initialised once per process.
std::atomic<bool> g_pts_base_set{false};

void put_word(unsigned char* payload, size_t offset, int32_t v)
{
    std::memcpy(payload + offset, &v, sizeof(v));
}

// ---- rows ---------------------------------------------------------------------

int row_set_video(cal_t* cal, hsc_msg_t* msg)
{
    auto p = cal_payload<enc_set_video_cmd_t>(msg);
    // use_main shows the stream kind (0 is the main recording stream).
    TRACE("HSCC_CAL_SetEncVideo.. ch:%d xres:%d yres:%d fps:%.1f use_main:%d\n", p.cam, p.width, p.height,
          static_cast<double>(p.fps), static_cast<int>(p.kind));
    return cal_m_enc_set_video(cal, msg);
}

int row_run_video(cal_t* cal, hsc_msg_t* msg)
{
    return cal_m_enc_run_video(cal, msg);
}

int row_update(cal_t* cal, hsc_msg_t* msg)
{
    auto p = cal_payload<enc_update_cmd_t>(msg);
    TRACE("HSCC_CAL_UpdatEncVideo.. %d %d %llu\n", p.sync, p.fps, static_cast<unsigned long long>(p.t));
    return cal_enc_update(cal, msg);
}

int row_avcres(cal_t* cal, hsc_msg_t* msg)
{
    TRACE("HSCC_CAL_3531_avcres avc_cnt:%d\n", cal_payload<enc_avcres_cmd_t>(msg).avc_cnt);
    return cal_m_enc_init_avcres(cal, msg);
}

// HSCC_CAL_SetTimestamp.
struct enc_timestamp_cmd_t {
    int32_t on;
    int32_t date_fmt;  // 1 month/day/year, 2 day/month/year, else year/month/day
    int32_t hour12;    // 1: 12-hour clock with AM/PM
};
static_assert(offsetof(enc_timestamp_cmd_t, hour12) == 8);
static_assert(sizeof(enc_timestamp_cmd_t) == 12);

// HSCC_CAL_3531_playjpg.
struct enc_playjpg_cmd_t {
    int32_t on_playjpg;
};
static_assert(sizeof(enc_playjpg_cmd_t) == 4);

int row_set_timestamp(cal_t* cal, hsc_msg_t* msg)
{
    auto p = cal_payload<enc_timestamp_cmd_t>(msg);
    return _enc_set_timestamp(cal, p.on, p.date_fmt, p.hour12);
}

int row_set_time_font(cal_t* cal, hsc_msg_t* msg)
{
    // A glyph row is 512 bytes; what a shorter command did not carry reads
    // as zeros, never as what lies beyond the message.
    unsigned char row[CAL_ENC_FONT_BYTES] = {};
    const size_t n = std::min<size_t>(msg->len, sizeof(row));
    if (n < sizeof(row))
        TRACE("cmd:%08x len:%u: glyph row completed with zeros\n", msg->cmd, msg->len);
    std::memcpy(row, msg->data, n);
    return _enc_copy_timefont(cal, row, static_cast<int>(msg->cmd - HSCC_CAL_SetTimeFont));
}

int row_play_jpg(cal_t* cal, hsc_msg_t* msg)
{
    const int v = cal_payload<enc_playjpg_cmd_t>(msg).on_playjpg;
    TRACE("HSCC_CAL_3531_playjpg on_playjpg:%d\n", v);
    return cal_m_enc_on_playjpg(cal, v);
}

constexpr cal_cmd_row_t k_rows[] = {
    {HSCC_CAL_SetEncVideo, HSCC_CAL_SetEncVideo, sizeof(enc_set_video_cmd_t), false, row_set_video},
    {HSCC_CAL_RunEncVideo, HSCC_CAL_RunEncVideo, sizeof(enc_run_video_cmd_t), false, row_run_video},
    {HSCC_CAL_UpdatEncVideo, HSCC_CAL_UpdatEncVideo, sizeof(enc_update_cmd_t), false, row_update},
    {HSCC_CAL_3531_avcres, HSCC_CAL_3531_avcres, sizeof(enc_avcres_cmd_t), true, row_avcres},
    {HSCC_CAL_SetTimestamp, HSCC_CAL_SetTimestamp, sizeof(enc_timestamp_cmd_t), false, row_set_timestamp},
    {HSCC_CAL_SetTimeFont, HSCC_CAL_SetTimeFont_Last, 0, true, row_set_time_font},
    {HSCC_CAL_3531_playjpg, HSCC_CAL_3531_playjpg, sizeof(enc_playjpg_cmd_t), true, row_play_jpg},
};

}  // namespace

const cal_mod_t cal_enc_mod = {
    "enc",
    k_rows,
    [](cal_t* cal) { cal->enc = cal_enc_new(cal); },
    [](cal_t* cal) { return cal_enc_start(cal->enc); },
    [](cal_t* cal) { return cal_enc_stop(cal->enc); },
    [](cal_t* cal) {
        cal_enc_delete(cal->enc);
        cal->enc = nullptr;
    },
    [](const cal_t* cal) { return cal->enc != nullptr; },
    cal_enc_heart,
    _enc_set_pts,
};

// ---- life -------------------------------------------------------------------------

cal_enc_t* cal_enc_new(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    if (static_cast<unsigned>(cal->slave_cam) > CAL_ENC_MAX_CAM)
        return nullptr;
    // The record holds 14 KiB of overlay picture per camera: from the heap,
    // zeroed.
    cal_enc_t* enc = new (std::nothrow) cal_enc_t{};
    if (enc == nullptr)
        CAL_FATAL("malloc cal_enc_t failed!!\n");
    enc->cal = cal;
    enc->num = cal->slave_cam;
    enc->size = sizeof(cal_enc_t);

    if (pthread_mutex_init(&enc->muxex, nullptr) != 0)
        CAL_FATAL("enc->muxex pthread_mutex_init failed!!\n");

    enc->msgid_ce_enc = os_msgget(MSG_KEY_CE_ENC, IPC_CREAT);
    if (enc->msgid_ce_enc < 0)
        CAL_FATAL("msgget MSG_KEY_CE_ENC failed!!\n");
    // An update left by an earlier run must not rebuild this run's channels.
    cal_drain_queue(enc->msgid_ce_enc);

    enc->bs_size = CAL_ENC_BS_SIZE;
    void* bs = nullptr;
    if (posix_memalign(&bs, static_cast<size_t>(sysconf(_SC_PAGESIZE)), CAL_ENC_BS_SIZE) != 0)
        CAL_FATAL("valloc bs_buf failed!!\n");
    enc->bs_buf = static_cast<unsigned char*>(bs);
    enc->bs_len = 0;

    enc->period = 16666;
    enc->fps = 60;
    enc->thread_enc = kel_thread_new("cal_enc_thread", KEL_THREAD_STACK);
    enc->thread_jpg = kel_thread_new("cal_jpeg_thread", KEL_THREAD_STACK);
    enc->last_pts = 0;

    for (int ch = 0; ch < enc->num; ++ch) {
        enc->rec[ch].cam = enc->net[ch].cam = enc->rec_low[ch].cam = enc->net_low[ch].cam = ch;
        enc->ref_fps[ch] = 60;
    }
    for (cal_enc_chn_t& c : enc->chn)
        c = {-1, PT_H264};
    return enc;
}

int cal_enc_start(cal_enc_t* enc)
{
    CAL_CHECK_OBJ(enc, cal_enc_t, "enc is NULL\n");
    int r = kel_thread_start(enc->thread_enc, cal_enc_thread, enc);
    if (r < 0)
        CAL_FATAL("kel_thread_start for cal_enc_thread failed!!\n");
    kel_thread_wait_stable(enc->thread_enc, 5000);
    int j = kel_thread_start(enc->thread_jpg, cal_jpeg_thread, enc);
    if (j < 0)
        CAL_FATAL("kel_thread_start for cal_jpeg_thread failed!!\n");
    kel_thread_wait_stable(enc->thread_jpg, 5000);
    return r + j;
}

int cal_enc_stop(cal_enc_t* enc)
{
    CAL_CHECK_OBJ(enc, cal_enc_t, "enc is NULL\n");
    const int n = enc->num;
    // The encoder thread still runs: its descriptor entries stay as they
    // are (a failed select only makes it pause until it is stopped).
    for (int ch = 0; ch < n; ++ch) {
        _enc_exit_chn(ch);
        _enc_exit_chn(ch + n);
        _enc_exit_chn(ch + 3 * n);
        _enc_exit_chn(ch + 2 * n);
        _enc_exit_jpeg_chn(enc, ch);
    }
    kel_thread_notify_stop(enc->thread_enc);
    kel_thread_notify_stop(enc->thread_jpg);
    int r = kel_thread_stop(enc->thread_enc, 2000);
    r += kel_thread_stop(enc->thread_jpg, 2000);
    return r;
}

void cal_enc_delete(cal_enc_t* enc)
{
    CAL_CHECK_OBJ(enc, cal_enc_t, "enc is NULL\n");
    kel_thread_t* threads[] = {enc->thread_enc, enc->thread_jpg};
    bool running[2] = {};
    for (int i = 0; i < 2; ++i)
        if ((running[i] = kel_thread_running(threads[i]) != 0))
            kel_thread_notify_stop(threads[i]);
    for (int i = 0; i < 2; ++i)
        if (running[i])
            kel_thread_stop(threads[i], 2000);
    kel_thread_delete(enc->thread_enc);
    kel_thread_delete(enc->thread_jpg);
    cal_drain_queue(enc->msgid_ce_enc);
    std::free(enc->bs_buf);
    kel_thread_dump();
    // Buffers still being filled are not sent; the shared low slot too.
    for (ebuf_t*& eb : enc->ebuf) {
        ebuf_free(eb);
        eb = nullptr;
    }
    pthread_mutex_destroy(&enc->muxex);
    delete enc;
}

// ---- handlers ---------------------------------------------------------------------

int cal_m_enc_set_video(cal_t* cal, hsc_msg_t* msg)
{
    cal_enc_t* enc = enc_of(cal);
    auto p = cal_payload<enc_set_video_cmd_t>(msg);
    int ch = command_cam(cal, enc, p.cam, "set-video");
    if (ch < 0)
        return -1;
    if (p.kind > ENC_KIND_REC_LOW)
        return 0;
    if (!std::isfinite(p.fps)) {
        TRACE("set-video ch:%d fps is not a number: refused\n", ch);
        return -1;
    }
    // Truncated toward zero, held to the range of int.
    const float f = p.fps;
    const int fps = f >= 2147483648.0f ? INT_MAX : f < -2147483648.0f ? INT_MIN : static_cast<int>(f);
    const int quality = p.quality, attr = p.attr;

    cal_enc_stream_t* s = stream_of(enc, p.kind, ch);
    switch (p.kind) {
    case ENC_KIND_REC:
    case ENC_KIND_REC_LOW: {
        bool same = s->width == p.width && s->height == p.height && s->fps == fps && s->quality == quality &&
                    s->attr == attr;
        if (!same) {
            kel_word_store(s->width, p.width);
            kel_word_store(s->height, p.height);
            kel_word_store(s->fps, fps);
            kel_word_store(s->quality, quality);
            kel_word_store(s->attr, attr);
            s->payload = PT_H264;
            s->sys_fps = enc->fps;
        }
        if (p.kind == ENC_KIND_REC_LOW)
            CAL_LOG(7, "REC LOW.. ch:%d width:%d height:%d\n", ch, s->width, s->height);
        else if (!same)
            CAL_LOG(7, "REC.. ch:%d width:%d height:%d\n", ch, s->width, s->height);
        break;
    }
    case ENC_KIND_NET:
    case ENC_KIND_NET_LOW:
        // The same settings again (a master that takes over sends them
        // anew) leave the fields the running encoder thread reads alone.
        if (s->width != p.width || s->height != p.height || s->fps != fps || s->quality != quality ||
            s->payload != PT_H264 || s->sys_fps != enc->fps) {
            kel_word_store(s->width, p.width);
            kel_word_store(s->height, p.height);
            kel_word_store(s->fps, fps);
            kel_word_store(s->quality, quality);
            s->payload = PT_H264;
            s->sys_fps = enc->fps;
        }
        CAL_LOG(7, "%s.. ch:%d width:%d height:%d\n", p.kind == ENC_KIND_NET ? "NET" : "NET LOW", ch, s->width,
                s->height);
        break;
    default:
        break;  // the JPEG switch and the recording copy carry no picture
    }
    return 0;
}

int cal_m_enc_run_video(cal_t* cal, hsc_msg_t* msg)
{
    cal_enc_t* enc = enc_of(cal);
    auto p = cal_payload<enc_run_video_cmd_t>(msg);
    int ch = command_cam(cal, enc, p.cam, "run-video");
    if (ch < 0)
        return -1;
    if (p.kind > ENC_KIND_REC_LOW)
        return 0;
    const bool on = p.onoff != 0;
    cal_enc_stream_t* s = stream_of(enc, p.kind, ch);
    switch (p.kind) {
    case ENC_KIND_REC:
    case ENC_KIND_REC_LOW:
        if (on) {
            kel_word_store(s->on, 1);
            kel_word_store(s->wait_key, 1);
            s->saved[0] = s->attr;
            s->saved[1] = s->fps;
            s->saved[2] = s->quality;
        } else {
            kel_word_store(s->on, 0);
            kel_word_store(s->width, 0);
            kel_word_store(s->height, 0);
            s->saved[3] = static_cast<int>(p.stop);
            s->saved[4] = s->attr;
            s->saved[5] = s->fps;
            s->saved[6] = s->quality;
        }
        s->changed = 1;
        if (p.kind == ENC_KIND_REC) {
            kel_word_store(s->run, kel_word_load(s->on));
            CAL_LOG(7, "REC.. ch:%d onoff:%d start:%d\n", ch, static_cast<int>(p.onoff), kel_word_load(s->on));
        }
        break;
    case ENC_KIND_NET:
    case ENC_KIND_NET_LOW:
        if (on) {
            kel_word_store(s->wait_key, 1);
            kel_word_store(s->on, 1);
        } else {
            kel_word_store(s->on, 0);
            s->saved[3] = static_cast<int>(p.stop);
        }
        s->changed = 1;
        CAL_LOG(7, "%s.. ch:%d onoff:%d start:%d\n", p.kind == ENC_KIND_NET ? "NET" : "NET LOW", ch,
                static_cast<int>(p.onoff), kel_word_load(s->on));
        break;
    case ENC_KIND_JPEG:
        kel_word_store(enc->jpg_on[ch], on ? 1 : 0);
        break;
    case ENC_KIND_COPY:
        kel_word_store(enc->copy_on[ch], static_cast<int>(p.onoff));
        if (!on)
            kel_word_store(enc->copy_wait_key[ch], 1);
        break;
    default:
        break;
    }
    return 0;
}

int cal_enc_update(cal_t* cal, hsc_msg_t* msg)
{
    cal_enc_t* enc = enc_of(cal);
    auto p = cal_payload<enc_update_cmd_t>(msg);
    uint64_t cur = 0;
    HI_MPI_SYS_GetCurPts(&cur);
    if (p.sync != 0) {
        // More than 2 s ahead of the platform clock, or behind it: the
        // system clock follows the master. Close ahead: only the stamps.
        if (p.t < cur || p.t - cur > 2000000) {
            struct timeval tv;
            tv.tv_sec = static_cast<time_t>(p.t / 1000000);
            tv.tv_usec = static_cast<suseconds_t>(p.t % 1000000);
            os_settimeofday(&tv);
            _enc_set_pts(cal, p.t);
        } else {
            HI_MPI_SYS_SyncPts(p.t);
            enc->last_pts = p.t;
        }
    }
    // A rate of 0 or less cannot give a period: the previous rate stays.
    if (p.fps <= 0)
        TRACE("fps:%d kept fps:%d\n", p.fps, enc->fps);
    else if (p.fps != enc->fps) {
        enc->fps = p.fps;
        enc->period = 1000000 / p.fps;
    }
    enc_update_msg_t m{};
    m.type = MSG_CMD_ENC_UPDATE;
    m.body.flag = p.sync;
    m.body.t = p.t;
    if (os_msgsnd(enc->msgid_ce_enc, &m, ENC_UPDATE_BODY_SIZE, IPC_NOWAIT) != 0) {
        // The update is never lost: the encoder thread, which owns the
        // channels it rebuilds, takes it on its next pass.
        TRACE("msgsnd update failed: left for the encoder thread\n");
        pthread_mutex_lock(&enc->muxex);
        enc->update_flag = p.sync;
        enc->update_t = p.t;
        enc->update_pending.store(1);
        pthread_mutex_unlock(&enc->muxex);
    }
    return 0;
}

int cal_m_enc_init_avcres(cal_t* cal, hsc_msg_t* msg)
{
    cal_enc_t* enc = enc_of(cal);
    const int16_t cnt = cal_payload<enc_avcres_cmd_t>(msg).avc_cnt;
    if (cnt <= 0) {
        enc->avc_cnt = cnt;
        return 0;
    }
    // As many pairs as the record holds and the message carries.
    const size_t head = sizeof(enc_avcres_cmd_t);
    const size_t arrived = msg->len > head ? (msg->len - head) / ENC_AVC_PAIR_SIZE : 0;
    const int n = static_cast<int>(std::min<size_t>({static_cast<size_t>(cnt), CAL_ENC_AVC_MAX, arrived}));
    if (n != cnt)
        TRACE("avc_cnt:%d holds %d\n", cnt, n);
    std::memcpy(enc->avc_res, msg->data + head, static_cast<size_t>(n) * ENC_AVC_PAIR_SIZE);
    enc->avc_cnt = static_cast<int16_t>(n);
    return 0;
}

int cal_enc_heart(cal_t* cal, unsigned char* payload)
{
    cal_enc_t* enc = enc_of(cal);
    put_word(payload, 48, kel_thread_heart(enc->thread_enc));
    put_word(payload, 52, kel_thread_heart(enc->thread_jpg));
    return 0;
}

// ---- clocks -------------------------------------------------------------------------

int _enc_set_ref_fps(cal_t* cal, int ch, int fps)
{
    cal_enc_t* enc = enc_of(cal);
    if (ch < 0 || ch >= enc->num)
        return -1;
    kel_word_store(enc->ref_fps[ch], fps);
    return 0;
}

void _enc_set_pts(cal_t* cal, uint64_t t)
{
    cal_enc_t* enc = enc_of(cal);
    uint64_t cur = 0;
    HI_MPI_SYS_GetCurPts(&cur);
    if (g_pts_base_set && cur <= t) {
        HI_MPI_SYS_SyncPts(t);
    } else {
        HI_MPI_SYS_InitPtsBase(t);
        g_pts_base_set = true;
        HI_MPI_SYS_SyncPts(t);
    }
    enc->last_pts = t;
}

void cal_enc_raise_max_fd(cal_enc_t* enc, int fd)
{
    int cur = enc->max_fd.load(std::memory_order_relaxed);
    while (fd > cur && !enc->max_fd.compare_exchange_weak(cur, fd, std::memory_order_relaxed))
        ;
}
