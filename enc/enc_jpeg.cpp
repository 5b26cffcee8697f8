// The JPEG snapshots: once a second, for each camera whose main recording
// stream runs, a JPEG channel is made, bound to the camera's processing
// group, read for one picture and torn down again, so the JPEG encoder
// holds nothing between snapshots. A pass's pictures go to the master
// together, at most 9 and 2096127 bytes per transfer.
#include "enc/enc_jpeg.h"

#include <sys/select.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "cal/cal_time.h"
#include "msg/cal_hsc.h"
#include "platform/hi_mpi_sys.h"
#include "platform/hi_mpi_venc.h"
#include "platform/os.h"
#include "runtime/kel_thread.h"
#include "vin/cal_vin.h"

namespace {

cal_enc_t* enc_of(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    CAL_CHECK_OBJ(cal->enc, cal_enc_t, "enc is NULL\n");
    return cal->enc;
}

int jpeg_group(int ch)
{
    return ENC_JPEG_CHN_BASE + ch;
}

// The JPEG channel attributes for an input of xres × yres.
venc_chn_attr_t jpeg_attr(int xres, int yres)
{
    venc_chn_attr_t attr{};
    attr.payload_type = PT_JPEG;
    venc_attr_jpeg_t& a = attr.jpeg;
    a.max_pic_width = static_cast<uint32_t>(xres);
    a.max_pic_height = static_cast<uint32_t>(yres);
    a.buf_size = static_cast<uint32_t>(xres * yres * 3 / 2);
    a.by_frame = 1;
    a.vi_field = 0;
    a.priority = 0;
    a.pic_width = static_cast<uint32_t>(xres);
    a.pic_height = static_cast<uint32_t>(yres);
    return attr;
}

// Steps 2 to 4 of a snapshot: the group, the channel and its binding. The
// descriptor entry of the group holds the channel's descriptor when it
// receives, -1 otherwise.
void make_channel(cal_enc_t* enc, int ch)
{
    cal_t* cal = enc->cal;
    const int g = jpeg_group(ch);
    enc->chn[g].fd = -1;
    HI_MPI_VENC_CreateGroup(g);  // a group left from before is used as it is
    venc_grp_frm_rate_t rate{kel_word_load(enc->ref_fps[ch]) / 2, ENC_JPG_TARGET_FPS};
    HI_MPI_VENC_SetGrpFrmRate(g, &rate);

    vin_info_t in{};
    cal_m_vin_get_info(cal, ch, &in);
    // The staging buffer bounds what a picture may be; a size beyond what
    // any camera has cannot overflow the attribute arithmetic.
    if (in.xres > 0 && in.yres > 0 && in.xres <= 8192 && in.yres <= 8192) {
        const venc_chn_attr_t attr = jpeg_attr(in.xres, in.yres);
        if (HI_MPI_VENC_CreateChn(g, &attr) != 0) {
            HI_MPI_VENC_DestroyGroup(g);
        } else if (HI_MPI_VENC_RegisterChn(g, g) != 0) {
            HI_MPI_VENC_DestroyChn(g);
            HI_MPI_VENC_DestroyGroup(g);
        } else {
            venc_param_jpeg_t p{};
            if (HI_MPI_VENC_GetJpegParam(g, &p) == 0) {
                p.qfactor = ENC_JPG_QFACTOR;
                HI_MPI_VENC_SetJpegParam(g, &p);
            }
        }
    }

    if (_vin_vloss_one(cal, ch) != 0 || !kel_word_load(enc->rec[ch].run))
        return;
    if (HI_MPI_VENC_StartRecvPic(g) != 0) {
        HI_MPI_VENC_UnRegisterChn(g);
        HI_MPI_VENC_DestroyChn(g);
        HI_MPI_VENC_DestroyGroup(g);
        return;
    }
    const int fd = HI_MPI_VENC_GetFd(g);
    if (fd < 0)
        return;
    cal_enc_raise_max_fd(enc, fd);
    enc->chn[g] = {fd, PT_JPEG};
    const mpp_chn_t src{HI_ID_VPSS, ch + 2 * enc->num, 0};
    const mpp_chn_t dest{HI_ID_GROUP, g, 0};
    HI_MPI_SYS_Bind(&src, &dest);
}

// Steps 5 to 7: one picture into bs_buf within 300 ms; its length, or 0
// when none came or a read failed.
int take_picture(cal_enc_t* enc, int ch)
{
    const int g = jpeg_group(ch);
    const int fd = enc->chn[g].fd;
    if (fd < 0 || fd >= FD_SETSIZE)
        return 0;
    fd_set ready;
    FD_ZERO(&ready);
    FD_SET(fd, &ready);
    struct timeval limit = {0, ENC_JPG_WAIT_MS * 1000};
    const int max_fd = enc->max_fd.load(std::memory_order_relaxed);
    const int nfds = (max_fd >= fd && max_fd < FD_SETSIZE ? max_fd : fd) + 1;
    if (select(nfds, &ready, nullptr, nullptr, &limit) <= 0 || !FD_ISSET(fd, &ready))
        return 0;

    venc_chn_stat_t stat{};
    if (HI_MPI_VENC_Query(g, &stat) != 0 || stat.cur_packs == 0)
        return 0;
    // The pack records are freed once on every way out.
    std::unique_ptr<venc_pack_t[]> packs(new (std::nothrow) venc_pack_t[stat.cur_packs]);
    if (packs == nullptr)
        return 0;
    venc_stream_t stream{packs.get(), stat.cur_packs, 0};
    if (HI_MPI_VENC_GetStream(g, &stream, true) != 0)
        return 0;
    const int total = _enc_jpeg_gather(enc, &stream);
    if (HI_MPI_VENC_ReleaseStream(g, &stream) != 0)
        return 0;
    return total;
}

}  // namespace

// ---- the batch ----------------------------------------------------------------------

jpg_batch_t::jpg_batch_t(cal_t* cal, jpg_send_fn send) : cal_(cal), send_(send) {}

jpg_batch_t::~jpg_batch_t()
{
    clear();
}

bool jpg_batch_t::full_for(uint32_t len) const
{
    return count_ > 0 && (count_ >= JPG_BATCH_MAX || int64_t{total_} + len > ENC_JPG_BATCH_BYTES);
}

void jpg_batch_t::add(int stream, int32_t jpg_on, uint32_t time, unsigned char* block, uint32_t len)
{
    stream_[count_] = stream;
    desc_[count_] = {jpg_on, time, len, block};
    ++count_;
    total_ += static_cast<int>(len);
}

int jpg_batch_t::send()
{
    if (count_ == 0)
        return 0;
    const int r = send_(cal_, stream_, desc_, count_, total_);
    if (r == 0)
        count_ = 0;  // the transfer freed every block
    clear();
    return r;
}

void jpg_batch_t::clear()
{
    for (int k = 0; k < count_; ++k)
        std::free(desc_[k].data);
    count_ = 0;
    total_ = 0;
}

// ---- the camera step -------------------------------------------------------------------

int _enc_jpeg_gather(cal_enc_t* enc, const venc_stream_t* stream)
{
    int64_t total = 0;
    bool copying = true;
    for (uint32_t k = 0; k < stream->pack_count; ++k) {
        const venc_pack_t& p = stream->pack[k];
        const int64_t len = int64_t{p.len[0]} + p.len[1];
        total += len;
        // A pack goes in only when it fits whole; none after one that did not.
        copying = copying && total <= ENC_JPG_STAGE_MAX;
        if (!copying)
            continue;
        unsigned char* at = enc->bs_buf + (total - len);
        for (int piece = 0; piece < 2; ++piece)
            if (p.len[piece] != 0) {
                std::memcpy(at, p.addr[piece], p.len[piece]);
                at += p.len[piece];
            }
    }
    return total > INT32_MAX ? INT32_MAX : static_cast<int>(total);
}

int _enc_jpeg_keep(cal_enc_t* enc, int ch, int total, jpg_batch_t* batch)
{
    if (total > ENC_JPG_STAGE_MAX) {
        CAL_LOG(7, "Over jpgbuffer!! %d don't send data by pci express\n", total);
        return -1;
    }
    const auto len = static_cast<uint32_t>(total);
    if (batch->full_for(len))
        batch->send();
    auto* block = static_cast<unsigned char*>(std::malloc(len));
    if (block == nullptr)
        return -1;
    std::memcpy(block, enc->bs_buf, len);
    batch->add(ch + enc->cal->cam_base, kel_word_load(enc->jpg_on[ch]), static_cast<uint32_t>(os_time(nullptr)), block, len);
    return 0;
}

int _enc_unbind_jpeg([[maybe_unused]] cal_enc_t* enc, int ch)
{
    const int g = jpeg_group(ch);
    const mpp_chn_t dest{HI_ID_GROUP, g, 0};
    mpp_chn_t src;
    if (HI_MPI_SYS_GetBindbyDest(&dest, &src) == 0 && HI_MPI_SYS_UnBind(&src, &dest) != 0)
        return 0;
    return HI_MPI_VENC_StopRecvPic(g) != 0 ? -1 : 0;
}

void _enc_jpeg_step(cal_enc_t* enc, int ch, jpg_batch_t* batch)
{
    if (_vin_vloss_one(enc->cal, ch) != 0 || !enc_jpeg_chn_free(enc, ch))
        return;
    make_channel(enc, ch);
    if (const int total = take_picture(enc, ch); total > 0)
        _enc_jpeg_keep(enc, ch, total, batch);
    _enc_unbind_jpeg(enc, ch);
    _enc_exit_jpeg_chn(enc, ch);
    // The descriptor went with the channel.
    enc->chn[jpeg_group(ch)].fd = -1;
}

// ---- the thread ----------------------------------------------------------------------------

namespace {

// Sleeps ms in 10 ms steps, ending early when the thread is asked to stop.
// false when it was.
bool nap(kel_thread_t* t, int ms)
{
    for (int slept = 0; slept < ms; slept += 10) {
        if (kel_thread_want_exit(t) != 0)
            return false;
        os_usleep(10000);
    }
    return true;
}

}  // namespace

int cal_jpeg_thread(void* arg)
{
    auto* enc = static_cast<cal_enc_t*>(arg);
    CAL_CHECK_OBJ(enc, cal_enc_t, "enc is NULL\n");
    cal_thread_priority(0, "cal_jpeg_thread");
    kel_thread_reset_heart(enc->thread_jpg);
    kel_thread_set_stable(enc->thread_jpg, 1);
    nap(enc->thread_jpg, ENC_JPG_FIRST_DELAY_MS);

    while (kel_thread_want_exit(enc->thread_jpg) == 0) {
        const double start = cal_get_msec();
        {
            jpg_batch_t batch(enc->cal, cal_hsc_send_jpg);
            for (int ch = 0; ch < enc->num && kel_thread_want_exit(enc->thread_jpg) == 0; ++ch)
                _enc_jpeg_step(enc, ch, &batch);
            batch.send();
        }
        for (int k = 0; k < 100; ++k) {
            const double d = cal_get_msec() - start;
            if (d >= ENC_JPG_PASS_MS || d <= -ENC_JPG_PASS_MS || kel_thread_want_exit(enc->thread_jpg) != 0)
                break;
            os_usleep(10000);
        }
        kel_thread_inc_heart(enc->thread_jpg);
    }
    CAL_LOG(7, "exit!!\n");
    return 0;
}

int cal_m_enc_on_playjpg(cal_t* cal, int value)
{
    cal_enc_t* enc = enc_of(cal);
    for (int ch = 0; ch < enc->num; ++ch)
        enc->on_playjpg[ch] = value;
    return 0;
}
