// The decode thread: takes the decode queue in order, owns the decoder
// channels, their bindings to the playback groups and the staging copy of
// the frame being sent.
#include <sys/ipc.h>
#include <sys/msg.h>

#include <cstring>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "dec/cal_dec.h"
#include "enc/cal_enc.h"
#include "platform/hi_mpi_sys.h"
#include "platform/hi_mpi_vdec.h"
#include "platform/hi_mpi_vo.h"
#include "platform/hi_mpi_vpss.h"
#include "platform/os.h"
#include "runtime/kel_thread.h"

namespace {

constexpr uint32_t k_idle_us = 10000;
constexpr int32_t k_wait_ms = 1000;

// Every decoder channel gets these.
constexpr vdec_chn_attr_t k_chn_attr{PT_H264_DEC, 1920 * 1080, 1, 1920, 1080, 3, VIDEO_MODE_FRAME, 0};

mpp_chn_t vdec_addr(int k)
{
    return {HI_ID_VDEC, 0, k};
}

mpp_chn_t grp_addr(int k)
{
    return {HI_ID_VPSS, k, 0};
}

int chans(const cal_t* cal)
{
    return cal->slave_cam < CAL_DEC_MAX_CHN ? cal->slave_cam : CAL_DEC_MAX_CHN;
}

void start_recv(int k)
{
    if (int32_t r = HI_MPI_VDEC_StartRecvStream(k))
        TRACE("HI_MPI_VDEC_StartRecvStream failed errno [%d] 0x%x \n", k, static_cast<unsigned>(r));
}

void stop_and_reset(int k)
{
    if (int32_t r = HI_MPI_VDEC_StopRecvStream(k))
        TRACE("HI_MPI_VDEC_StopRecvStream failed errno [%d] 0x%x \n", k, static_cast<unsigned>(r));
    if (int32_t r = HI_MPI_VDEC_ResetChn(k))
        TRACE("HI_MPI_VDEC_ResetChn failed errno [%d] 0x%x \n", k, static_cast<unsigned>(r));
}

}  // namespace

int cal_vdec_thread(void* arg)
{
    auto* dec = static_cast<cal_dec_t*>(arg);
    CAL_CHECK_OBJ(dec, cal_dec_t, "dec is NULL\n");
    cal_thread_priority(0, "cal_vdec_thread");
    kel_thread_reset_heart(dec->thread_vdec);
    kel_thread_set_stable(dec->thread_vdec, 1);
    TRACE("enter thread .. \n");
    dec_msg_t m;
    while (kel_thread_want_exit(dec->thread_vdec) == 0) {
        if (os_msgrcv(dec->msgid, &m, DEC_MSG_BODY_SIZE, 0, IPC_NOWAIT) < 0)
            os_usleep(k_idle_us);
        else
            dec_handle_msg(dec, m);
        kel_thread_inc_heart(dec->thread_vdec);
    }
    TRACE("EXIT!!\n");
    return 0;
}

void dec_handle_msg(cal_dec_t* dec, const dec_msg_t& m)
{
    switch (m.code) {
    case MSG_CMD_EXIT: TRACE("MSG_CMD_EXIT\n"); break;
    case MSG_CMD_DEC_START: start_dec(dec); break;
    case MSG_CMD_DEC_STOP:
        stop_dec(dec);
        dec->num_dbuf.store(0);
        break;
    case MSG_CMD_DEC_FLUSH: dec->flush_pending.store(0); break;
    case MSG_CMD_DBUF_WRITE: {
        dbuf_t* d = m.dbuf;
        if (d == nullptr)
            break;
        if (d->skip_show != dec->skip_show) {
            _bind_unbind(dec, d->skip_show);
            dec->skip_show = d->skip_show;
        }
        dec_dbuf(dec, d);
        dbuf_free(d);
        // Down by one unless a stop cleared the count meanwhile.
        int n = dec->num_dbuf.load();
        while (n > 0 && !dec->num_dbuf.compare_exchange_weak(n, n - 1)) {
        }
        if (n <= 0)
            CAL_LOG(7, "num_dbuf:%d ERROR!!\n", n);
        break;
    }
    default: break;
    }
}

int start_dec(cal_dec_t* dec)
{
    TRACE("..\n");
    if (dec->running == 1)
        return 0;
    for (int k = 0; k < CAL_DEC_MAX_CHN; ++k)
        dec->rep_width[k] = dec->rep_height[k] = 0;
    for (int k = 0; k < dec->num; ++k) {
        dec->chan[k].wait_key = 1;
        dec->chan[k].width = dec->chan[k].height = 0;
    }
    dec->running = 1;
    TRACE(".. _dec_chip_init \n");
    // The decoder channels take the memory the snapshot encoders held.
    cal_enc_exit_jpeg(dec->cal);
    _dec_chip_init(dec->cal);
    _dec_process_start(dec->cal);
    return 0;
}

int stop_dec(cal_dec_t* dec)
{
    TRACE("..\n");
    dec->running = 0;
    TRACE("Stop dec \n");
    _dec_chip_exit(dec->cal);
    cal_m_enc_on_playjpg(dec->cal, 0);
    return 0;
}

int _dec_chip_init(cal_t* cal)
{
    TRACE("start _dec_chip_init\n");
    for (int k = 0; k < chans(cal); ++k) {
        if (int32_t r = HI_MPI_VDEC_CreateChn(k, &k_chn_attr)) {
            TRACE("HI_MPI_VDEC_CreateChn failed errno [%d] 0x%x \n", k, static_cast<unsigned>(r));
            continue;
        }
        vdec_prtcl_param_t p{};
        if (int32_t r = HI_MPI_VDEC_GetPrtclParam(k, &p)) {
            TRACE("HI_MPI_VDEC_GetPrtclParam failed errno [%d] 0x%x \n", k, static_cast<unsigned>(r));
            HI_MPI_VDEC_DestroyChn(k);
            continue;
        }
        p.max_slice_num = 100;
        p.max_sps_num = 21;
        p.max_pps_num = 22;
        p.display_frame_num = 1;
        if (int32_t r = HI_MPI_VDEC_SetPrtclParam(k, &p)) {
            TRACE("HI_MPI_VDEC_SetPrtclParam failed errno [%d] 0x%x \n", k, static_cast<unsigned>(r));
            HI_MPI_VDEC_DestroyChn(k);
        }
    }
    TRACE("end _dec_chip_init\n");
    return 0;
}

int _dec_process_start(cal_t* cal)
{
    for (int k = 0; k < chans(cal); ++k)
        start_recv(k);
    TRACE("end _dec_process_start\n");
    return 0;
}

int _dec_process_stop(cal_t* cal)
{
    for (int k = 0; k < chans(cal); ++k)
        stop_and_reset(k);
    return 0;
}

int _dec_chip_exit(cal_t* cal)
{
    _dec_process_stop(cal);
    for (int k = 0; k < chans(cal); ++k)
        if (int32_t r = HI_MPI_VDEC_DestroyChn(k))
            TRACE("HI_MPI_VDEC_DestroyChn failed errno [%d] 0x%x \n", k, static_cast<unsigned>(r));
    TRACE("..\n");
    return 0;
}

int _bind_unbind(cal_dec_t* dec, int unbind)
{
    TRACE("unbind:%d\n", unbind);
    for (int k = 0; k < dec->num; ++k) {
        const mpp_chn_t grp = grp_addr(k);
        mpp_chn_t src{};
        const bool fed = HI_MPI_SYS_GetBindbyDest(&grp, &src) == 0;
        if (unbind != 0) {
            if (!fed)
                continue;
            if (int32_t r = HI_MPI_SYS_UnBind(&src, &grp))
                TRACE("VDEC TO VPSS UnBind failed with [%d][%d] %#x!\n", k, k, static_cast<unsigned>(r));
        } else if (!fed) {
            const mpp_chn_t chn = vdec_addr(k);
            if (int32_t r = HI_MPI_SYS_Bind(&chn, &grp)) {
                TRACE("VDEC TO VPSS Bind failed with [%d][%d] %#x!\n", k, k, static_cast<unsigned>(r));
                return -1;
            }
        }
    }
    return 0;
}

int dec_dbuf(cal_dec_t* dec, dbuf_t* d)
{
    if (dec->flush_pending.load() != 0)
        return 0;
    // The intake checked every frame against the record's own data.
    const unsigned char* buf = dbuf_data(d);
    const int cam_base = dec->cal->cam_base;
    for (int i = 0; i < d->num_vdec && i < DBUF_MAX_VDEC; ++i) {
        const int64_t c = static_cast<int64_t>(d->cam[i]) - cam_base;
        if (c < 0 || c >= dec->num)
            continue;
        const int ch = static_cast<int>(c);
        cal_dec_chan_t& chan = dec->chan[ch];
        if (d->key[i] != 0) {
            chan.wait_key = 0;
            chan.since_key = 0;
        } else {
            ++chan.since_key;
        }
        if (chan.wait_key != 0)
            continue;
        if (_decode_vdec(dec, ch, buf + d->off[i], d->len[i], d->show[i], d->norec) != 0) {
            chan.wait_key = 1;
            continue;
        }
        chan.width = d->width[i];
        chan.height = d->height[i];
        if (chan.width != dec->rep_width[ch] || chan.height != dec->rep_height[ch] || d->fps[i] != chan.fps ||
            d->quality[i] != chan.quality) {
            TRACE("ch:%d width:%d,%d height:%d,%d fp1000s:%d,%d quality:%d.%d\n", ch, chan.width,
                  dec->rep_width[ch], chan.height, dec->rep_height[ch], chan.fps, d->fps[i], chan.quality,
                  d->quality[i]);
            chan.fps = d->fps[i];
            chan.quality = d->quality[i];
            dec->rep_width[ch] = chan.width;
            dec->rep_height[ch] = chan.height;
        }
    }
    return 0;
}

int _decode_vdec(cal_dec_t* dec, int ch, const unsigned char* data, int len, int show, uint32_t norec)
{
    CAL_CHECK_OBJ(dec, cal_dec_t, "dec is NULL\n");
    if (data == nullptr)
        CAL_FATAL("buf is NULL\n");
    if (len < 0 || len > DEC_MAX_FRAME) {
        TRACE("refused.. ch:%d len:%d\n", ch, len);
        return -1;
    }
    _dec_getquery(dec, ch, norec);
    std::memcpy(dec->staging, data, static_cast<size_t>(len));
    std::memset(dec->staging + len, 0, DEC_PAD);
    const vdec_stream_t st{dec->staging, static_cast<uint32_t>(len), 0};
    if (int32_t r = HI_MPI_VDEC_SendStream(ch, &st, k_wait_ms)) {
        TRACE("HI_MPI_VDEC_SendStream faile ch:%d 0x%#x\n", ch, static_cast<unsigned>(r));
        return -1;
    }
    if (dec->skip_show == 0)
        return 0;
    video_frame_info_t pic{};
    if (int32_t r = HI_MPI_VDEC_GetImage(ch, &pic, k_wait_ms)) {
        TRACE("HI_MPI_VDEC_GetImage faile ch:%d 0x%#x\n", ch, static_cast<unsigned>(r));
        return -1;
    }
    if (show == 1)
        if (int32_t r = HI_MPI_VPSS_UserSendFrame(ch, &pic))
            TRACE("HI_MPI_VPSS_UserSendFrame faile ch:%d vpss:%d x%#x\n", ch, ch, static_cast<unsigned>(r));
    if (int32_t r = HI_MPI_VDEC_ReleaseImage(ch, &pic))
        TRACE("HI_MPI_VDEC_ReleaseImage faile 0x%#x\n", static_cast<unsigned>(r));
    return 0;
}

void _dec_getquery(cal_dec_t* dec, int ch, uint32_t norec)
{
    if (ch > 31 || norec == dec->norec)
        return;
    const int cam = ch + dec->cal->cam_base;
    if (cam < 0 || cam > 31 || (norec & (1u << cam)) == 0) {
        dec->norec = norec;
        return;
    }
    TRACE("cam_norec:%d norec:%#x idx:%d\n", 1, norec, ch);
    HI_MPI_VO_ChnPause(VO_CASCADE_DEV, cam);
    stop_and_reset(ch);
    start_recv(ch);
    HI_MPI_VPSS_ResetGrp(ch);
    HI_MPI_VO_ClearChnBuffer(VO_CASCADE_DEV, cam, 1);
    HI_MPI_VO_ChnResume(VO_CASCADE_DEV, cam);
    dec->norec = norec;
}
