// Encoder channel building: from a stream's settings to an encoder group
// and channel bound to its processing group, and their teardown.
#include <algorithm>
#include <array>
#include <climits>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "cal/cal_tx.h"
#include "enc/cal_enc.h"
#include "platform/hi_mpi_sys.h"
#include "platform/hi_mpi_venc.h"
#include "vin/cal_vin.h"

namespace {

cal_enc_t* enc_of(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    CAL_CHECK_OBJ(cal->enc, cal_enc_t, "enc is NULL\n");
    return cal->enc;
}

// Picture source of a stream: a channel of one of the processing groups
// the bring-up made (n .. 2n-1 sub capture, 2n .. 3n-1 main capture).
struct source_t {
    int grp;
    int chn;
};

source_t source_of(int kind, int ch, int n)
{
    switch (kind) {
    case ENC_KIND_REC:
        return {ch + 2 * n, 1};
    case ENC_KIND_NET_LOW:
        return {ch + n, 1};
    case ENC_KIND_REC_LOW:
        return {ch + n, 2};
    default:
        return {-1, -1};
    }
}

unsigned err(int32_t r)
{
    return static_cast<unsigned>(r);
}

// Unregisters, destroys the channel and destroys the group; results are
// not needed by the callers.
void undo_chn(int v)
{
    HI_MPI_VENC_UnRegisterChn(v);
    HI_MPI_VENC_DestroyChn(v);
    HI_MPI_VENC_DestroyGroup(v);
}

}  // namespace

// Tears down a stream's channel and forgets its descriptor: a platform may
// close a destroyed channel's descriptor and hand its number to another
// object, which the encoder thread must then not take for this channel.
void _enc_exit_stream_chn(cal_enc_t* enc, int v)
{
    _enc_exit_chn(v);
    enc->chn[v].fd = -1;
}

namespace {

// Camera ch's streams in the order an update tears them down and builds
// them, with the lines that tell how the build went.
struct stream_step {
    cal_enc_stream_t* s;
    int kind;
    const char* ok;
    const char* failed;
};

std::array<stream_step, 4> update_order(cal_enc_t* enc, int ch)
{
    return {{
        {&enc->rec[ch], ENC_KIND_REC, "ch:%d recoding success!!\n", "ch:%d recoding failure!!\n"},
        {&enc->net[ch], ENC_KIND_NET, "ch:%d network high success..\n", "ch:%d network high failure..\n"},
        {&enc->net_low[ch], ENC_KIND_NET_LOW, "ch:%d network low success..\n", "ch:%d network low failure..\n"},
        {&enc->rec_low[ch], ENC_KIND_REC_LOW, "ch:%d rec low success..\n", "ch:%d rec low failure..\n"},
    }};
}

}  // namespace

int _update_chip(cal_t* cal, int, uint64_t)
{
    cal_enc_t* enc = enc_of(cal);
    const int n = enc->num;
    for (int ch = 0; ch < n; ++ch) {
        if (ebuf_t* eb = enc->ebuf[ch]) {
            enc->ebuf[ch] = nullptr;
            cal_notify_ebuf(cal, eb);
        }
        for (const stream_step& st : update_order(enc, ch))
            if (st.s->changed)
                _enc_exit_stream_chn(enc, enc_chn_of(st.kind, ch, n));
    }
    for (int ch = 0; ch < n; ++ch) {
        for (const stream_step& st : update_order(enc, ch)) {
            if (!st.s->changed)
                continue;
            if (st.kind == ENC_KIND_REC) {
                // The time overlay follows the REC channel's rebuild; a
                // channel going off takes its region with it.
                if (enc->osd_on && kel_word_load(st.s->on))
                    _enc_init_osd_insert(cal, ch, st.s->width, st.s->height);
                else
                    _enc_exit_osd_insert(cal, ch);
            }
            if (kel_word_load(st.s->on)) {
                int r = _process_start(cal, ch, st.kind);
                cal_log(7, __func__, __LINE__, r == 0 ? st.ok : st.failed, ch);
            }
            st.s->changed = 0;
        }
    }
    return 0;
}

int _process_start(cal_t* cal, int ch, int kind)
{
    cal_enc_t* enc = enc_of(cal);
    const int n = enc->num;
    if (kind == ENC_KIND_NET)
        return 0;  // the main network stream is made of REC frames
    const source_t src_of = source_of(kind, ch, n);
    if (ch < 0 || ch >= n || src_of.grp < 0) {
        TRACE("ch:%d kind:%d has no encoder channel\n", ch, kind);
        return -1;
    }
    const int v = enc_chn_of(kind, ch, n);
    venc_chn_attr_t attr{};

    int32_t r = HI_MPI_VENC_CreateGroup(v);
    if (r == 0) {
        _enc_chn_attr(cal, v, &attr);
        venc_grp_frm_rate_t rate{static_cast<int32_t>(attr.rc.vi_frm_rate),
                                 static_cast<int32_t>(attr.rc.target_frm_rate)};
        HI_MPI_VENC_SetGrpFrmRate(v, &rate);
        if (HI_MPI_VENC_CreateChn(v, &attr) != 0) {
            HI_MPI_VENC_DestroyGroup(v);
        } else {
            HI_MPI_VENC_SetH264eRefMode(v, ENC_REF_MODE);
            if (HI_MPI_VENC_RegisterChn(v, v) != 0) {
                HI_MPI_VENC_DestroyChn(v);
                HI_MPI_VENC_DestroyGroup(v);
            }
            if (HI_MPI_VENC_StartRecvPic(v) != 0)
                undo_chn(v);
        }
    } else if (r == ENC_ERR_GRP_EXIST) {
        // The channel is there already: give it the new attributes.
        HI_MPI_VENC_StopRecvPic(v);
        _enc_chn_attr(cal, v, &attr);
        HI_MPI_VENC_SetChnAttr(v, &attr);
        if (int32_t s = HI_MPI_VENC_StartRecvPic(v); s != 0) {
            undo_chn(v);
            CAL_LOG(7, "VencChn:%d HI_MPI_VENC_StartRecvPic faild with%#x!\n", v, err(s));
            return -1;
        }
    }

    const mpp_chn_t src{HI_ID_VPSS, src_of.grp, src_of.chn};
    const mpp_chn_t dest{HI_ID_GROUP, v, 0};
    if (int32_t b = HI_MPI_SYS_Bind(&src, &dest); b != 0) {
        CAL_LOG(7, "venc ch:%d binding failed with %#x!\n", v, err(b));
        return -1;
    }
    int fd = HI_MPI_VENC_GetFd(v);
    if (fd < 0)
        return -1;
    cal_enc_raise_max_fd(enc, fd);
    enc->chn[v] = {fd, attr.payload_type};
    return 0;
}

int _enc_chn_attr(cal_t* cal, int vchn, venc_chn_attr_t* attr)
{
    cal_enc_t* enc = enc_of(cal);
    const int num = enc->num;
    if (num <= 0 || vchn < 0 || vchn >= 4 * num)
        return -1;
    const int ch = vchn % num;
    const bool low = vchn >= 2 * num;
    const cal_enc_stream_t* s;
    int kind;
    if (!low) {
        s = vchn < num ? &enc->rec[ch] : &enc->net[ch];
        kind = vchn < num ? ENC_KIND_REC : ENC_KIND_NET;
    } else {
        s = vchn - 2 * num < num ? &enc->rec_low[ch] : &enc->net_low[ch];
        kind = vchn - 2 * num < num ? ENC_KIND_REC_LOW : ENC_KIND_NET_LOW;
    }

    vin_info_t in{};
    cal_m_vin_get_info(cal, ch, &in);
    int fps_in = kel_word_load(enc->ref_fps[ch]);
    if (in.prog == 0)
        fps_in /= 2;
    if (low && in.xres == 1280 && fps_in > 30)
        fps_in /= 2;

    attr->payload_type = s->payload;
    if (s->payload != PT_H264)
        return 0;
    const int w = s->width, h = s->height;
    const int fps_target = std::min(s->fps, fps_in);
    uint32_t gop = w >= 1280 && h >= 720 && fps_target >= 12 ? 16 : 12;
    if (fps_target <= 1)
        gop = 6;

    venc_attr_h264_t& a = attr->h264;
    a.max_pic_width = static_cast<uint32_t>(w);
    a.max_pic_height = static_cast<uint32_t>(h);
    a.buf_size = static_cast<uint32_t>((w * h / 4) * 3);
    a.profile = 2;
    a.by_frame = 1;
    a.field = 0;
    a.main_stream = 1;
    a.priority = 0;
    a.vi_field = 0;
    a.pic_width = static_cast<uint32_t>(w);
    a.pic_height = static_cast<uint32_t>(h);
    venc_rc_attr_t& rc = attr->rc;
    rc.rc_mode = VENC_RC_MODE_H264AVBR;
    rc.gop = gop;
    rc.stat_time = 5;
    rc.vi_frm_rate = static_cast<uint32_t>(fps_in);
    rc.target_frm_rate = static_cast<uint32_t>(fps_target);
    rc.bit_rate = static_cast<uint32_t>(_calc_bitrate(kind, w, h, fps_target, s->quality) / 1000);
    rc.fluctuate_level = 2;
    return 0;
}

int _calc_bitrate(int, int w, int h, double fps, int quality)
{
    double base;
    switch (quality) {
    case 1:
        base = 10000000;
        break;
    case 2:
        base = 12000000;
        break;
    case 3:
        base = 14000000;
        break;
    default:
        base = 8000000;
        break;
    }
    if (w >= 1280 && h >= 720 && fps >= 12.0)
        base = base * 11000000 / 14000000;
    if (w <= 480)
        base *= 1.5;
    else if (w <= 960)
        base *= 1.2;
    if (fps <= 1.0)
        base *= 1.5;
    const double r = h * (w * base) / 1920 / 1080 * fps / 60;
    // Sizes and rates from the master are not bounded: hold to int.
    if (!(r > static_cast<double>(INT_MIN)))
        return r != r ? 0 : INT_MIN;
    if (r >= static_cast<double>(INT_MAX))
        return INT_MAX;
    return static_cast<int>(r);
}

int _enc_exit_chn(int vchn)
{
    venc_chn_stat_t stat;
    if (HI_MPI_VENC_Query(vchn, &stat) != 0)
        return -1;
    const mpp_chn_t dest{HI_ID_GROUP, vchn, 0};
    mpp_chn_t src;
    if (HI_MPI_SYS_GetBindbyDest(&dest, &src) == 0)
        HI_MPI_SYS_UnBind(&src, &dest);
    if (HI_MPI_VENC_StopRecvPic(vchn) != 0 || HI_MPI_VENC_UnRegisterChn(vchn) != 0 ||
        HI_MPI_VENC_DestroyChn(vchn) != 0 || HI_MPI_VENC_DestroyGroup(vchn) != 0)
        return -1;
    return 0;
}

int _enc_exit_jpeg_chn(cal_enc_t* enc, int ch)
{
    CAL_CHECK_OBJ(enc, cal_enc_t, "enc is NULL\n");
    if (!enc_jpeg_chn_free(enc, ch))
        return 0;
    const int v = ENC_JPEG_CHN_BASE + ch;
    HI_MPI_VENC_StopRecvPic(v);
    undo_chn(v);
    return 0;
}

int cal_enc_exit_jpeg(cal_t* cal)
{
    cal_enc_t* enc = enc_of(cal);
    for (int ch = 0; ch < enc->num; ++ch)
        _enc_exit_jpeg_chn(enc, ch);
    return 0;
}
