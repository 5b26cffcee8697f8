// Simulated encoder groups and channels: the life cycle a channel goes
// through (created, registered with a group, receiving) and the teardown
// order the hardware insists on: stop receiving, unregister, destroy the
// channel, destroy the group. A channel keeps its attributes and its stream
// buffer; the producer (venc_producer.cpp) fills the buffer while the
// channel receives.
#include <memory>
#include <utility>

#include "platform/hi_mpi_venc.h"
#include "platform/sim/board_conf.h"
#include "platform/sim/media_state.h"
#include "platform/sim/venc_ring.h"

namespace {

constexpr int32_t k_mod = HI_ID_VENC;
constexpr uint32_t k_min_size = 16;
constexpr uint32_t k_max_size = SIM_CAM_MAX_SIZE;
constexpr uint32_t k_max_buf = 64u << 20;
constexpr uint32_t k_default_qfactor = 90;

bool grp_valid(int32_t grp)
{
    return grp >= 0 && grp < VENC_MAX_GRP_NUM;
}

bool chn_valid(int32_t chn)
{
    return chn >= 0 && chn < VENC_MAX_CHN_NUM;
}

bool size_valid(uint32_t v, uint32_t max)
{
    return v >= k_min_size && v <= max && v % 2 == 0;
}

bool rate_valid(int64_t in, int64_t target)
{
    return in > 0 && in <= SIM_CAM_MAX_FPS && target > 0 && target <= in;
}

bool h264_valid(const venc_attr_h264_t& a, const venc_rc_attr_t& rc)
{
    if (a.max_pic_width > k_max_size || a.max_pic_height > k_max_size)
        return false;
    if (!size_valid(a.pic_width, a.max_pic_width) || !size_valid(a.pic_height, a.max_pic_height))
        return false;
    if (a.buf_size == 0 || a.buf_size > k_max_buf || a.profile > 2)
        return false;
    if (rc.rc_mode != VENC_RC_MODE_H264CBR && rc.rc_mode != VENC_RC_MODE_H264VBR &&
        rc.rc_mode != VENC_RC_MODE_H264FIXQP && rc.rc_mode != VENC_RC_MODE_H264AVBR)
        return false;
    if (rc.gop == 0 || rc.gop > 65536 || rc.stat_time == 0 || rc.stat_time > 60 || rc.fluctuate_level > 5)
        return false;
    return rate_valid(rc.vi_frm_rate, rc.target_frm_rate) && rc.bit_rate >= 2 && rc.bit_rate <= 100000;
}

bool jpeg_valid(const venc_attr_jpeg_t& a)
{
    if (a.max_pic_width > k_max_size || a.max_pic_height > k_max_size)
        return false;
    return size_valid(a.pic_width, a.max_pic_width) && size_valid(a.pic_height, a.max_pic_height) &&
           a.buf_size != 0 && a.buf_size <= k_max_buf;
}

// 0, or the error of an attribute record.
int32_t attr_error(const venc_chn_attr_t* attr)
{
    if (attr == nullptr)
        return hi_err(k_mod, HI_ERR_NULL_PTR);
    if (attr->payload_type == PT_H264)
        return h264_valid(attr->h264, attr->rc) ? 0 : hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    if (attr->payload_type == PT_JPEG)
        return jpeg_valid(attr->jpeg) ? 0 : hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    return hi_err(k_mod, HI_ERR_NOT_SUPPORT);
}

uint32_t buf_size_of(const venc_chn_attr_t& a)
{
    return a.payload_type == PT_H264 ? a.h264.buf_size : a.jpeg.buf_size;
}

// What a channel cannot change while it receives: its kind, picture size
// and stream buffer.
bool same_shape(const venc_chn_attr_t& a, const venc_chn_attr_t& b)
{
    if (a.payload_type != b.payload_type || buf_size_of(a) != buf_size_of(b))
        return false;
    if (a.payload_type == PT_H264)
        return a.h264.pic_width == b.h264.pic_width && a.h264.pic_height == b.h264.pic_height;
    return a.jpeg.pic_width == b.jpeg.pic_width && a.jpeg.pic_height == b.jpeg.pic_height;
}

// The checks of every operation on one existing channel, in the hardware's
// order: the injected fault, the channel number, the argument's own error,
// the system, the channel's existence. fn then runs on the channel under
// the core's lock.
template <class Fn>
int32_t on_chn(sim_op op, int32_t chn, int32_t arg_err, media_access::mode md, Fn&& fn)
{
    if (int32_t r = sim_media_op(op, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    if (arg_err != 0)
        return arg_err;
    media_access m(md);
    sim_venc_chn& c = m->venc_chn[chn];
    if (!c.created)
        return hi_err(k_mod, HI_ERR_UNEXIST);
    return fn(*m, c);
}

template <class Fn>
int32_t on_grp(sim_op op, int32_t grp, int32_t arg_err, Fn&& fn)
{
    if (int32_t r = sim_media_op(op, k_mod, grp_valid(grp), HI_ERR_INVALID_DEVID))
        return r;
    if (arg_err != 0)
        return arg_err;
    media_access m;
    sim_venc_grp& g = m->venc_grp[grp];
    if (!g.created)
        return hi_err(k_mod, HI_ERR_UNEXIST);
    return fn(g);
}

// The channel's stream buffer, taken under the core's lock so that a reader
// may wait on it without holding the core.
int32_t ring_of(sim_op op, int32_t chn, int32_t arg_err, std::shared_ptr<sim_venc_ring>* ring)
{
    return on_chn(op, chn, arg_err, media_access::read, [ring](sim_media&, sim_venc_chn& c) {
        *ring = c.ring;
        return 0;
    });
}

int32_t stream_arg_error(const venc_stream_t* stream)
{
    return stream == nullptr || stream->pack == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR) : 0;
}

}  // namespace

// ---- groups -------------------------------------------------------------------

int32_t HI_MPI_VENC_CreateGroup(int32_t grp)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VENC_CreateGroup, k_mod, grp_valid(grp), HI_ERR_INVALID_DEVID))
        return r;
    media_access m;
    sim_venc_grp& g = m->venc_grp[grp];
    if (g.created)
        return hi_err(k_mod, HI_ERR_EXIST);
    g = {};
    g.created = true;
    return 0;
}

int32_t HI_MPI_VENC_DestroyGroup(int32_t grp)
{
    return on_grp(SIM_OP_HI_MPI_VENC_DestroyGroup, grp, 0, [](sim_venc_grp& g) {
        if (g.chn >= 0)
            return hi_err(k_mod, HI_ERR_NOT_PERM);
        g = {};
        return 0;
    });
}

int32_t HI_MPI_VENC_SetGrpFrmRate(int32_t grp, const venc_grp_frm_rate_t* rate)
{
    int32_t err = rate == nullptr                                         ? hi_err(k_mod, HI_ERR_NULL_PTR)
                  : rate_valid(rate->vi_frm_rate, rate->target_frm_rate) ? 0
                                                                          : hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    return on_grp(SIM_OP_HI_MPI_VENC_SetGrpFrmRate, grp, err, [rate](sim_venc_grp& g) {
        g.frm_rate = *rate;
        return 0;
    });
}

int32_t HI_MPI_VENC_GetGrpFrmRate(int32_t grp, venc_grp_frm_rate_t* rate)
{
    int32_t err = rate == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR) : 0;
    return on_grp(SIM_OP_HI_MPI_VENC_GetGrpFrmRate, grp, err, [rate](sim_venc_grp& g) {
        *rate = g.frm_rate;
        return 0;
    });
}

// ---- channel life cycle ---------------------------------------------------------

int32_t HI_MPI_VENC_CreateChn(int32_t chn, const venc_chn_attr_t* attr)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VENC_CreateChn, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    if (int32_t r = attr_error(attr))
        return r;
    // The buffer is made before the core is taken: it may be megabytes.
    auto ring = std::make_shared<sim_venc_ring>(buf_size_of(*attr));
    if (ring->fd() < 0)
        return hi_err(k_mod, HI_ERR_NOMEM);
    media_access m;
    sim_venc_chn& c = m->venc_chn[chn];
    if (c.created)
        return hi_err(k_mod, HI_ERR_EXIST);
    uint32_t session = c.session;
    c = {};
    c.created = true;
    c.attr = *attr;
    c.jpeg = {k_default_qfactor, 0};
    c.session = session;
    c.ring = std::move(ring);
    return 0;
}

int32_t HI_MPI_VENC_DestroyChn(int32_t chn)
{
    return on_chn(SIM_OP_HI_MPI_VENC_DestroyChn, chn, 0, media_access::change, [](sim_media&, sim_venc_chn& c) {
        if (c.grp >= 0)
            return hi_err(k_mod, HI_ERR_NOT_PERM);
        c.ring->close();
        uint32_t session = c.session;
        c = {};
        c.session = session;
        return 0;
    });
}

int32_t HI_MPI_VENC_RegisterChn(int32_t grp, int32_t chn)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VENC_RegisterChn, k_mod, grp_valid(grp), HI_ERR_INVALID_DEVID))
        return r;
    if (!chn_valid(chn))
        return hi_err(k_mod, HI_ERR_INVALID_CHNID);
    media_access m;
    sim_venc_grp& g = m->venc_grp[grp];
    sim_venc_chn& c = m->venc_chn[chn];
    if (!g.created || !c.created)
        return hi_err(k_mod, HI_ERR_UNEXIST);
    if (c.grp >= 0)
        return hi_err(k_mod, HI_ERR_EXIST);
    if (g.chn >= 0)
        return hi_err(k_mod, HI_ERR_NOT_PERM);
    g.chn = chn;
    c.grp = grp;
    return 0;
}

int32_t HI_MPI_VENC_UnRegisterChn(int32_t chn)
{
    return on_chn(SIM_OP_HI_MPI_VENC_UnRegisterChn, chn, 0, media_access::change,
                  [](sim_media& m, sim_venc_chn& c) {
                      if (c.grp < 0 || c.receiving)
                          return hi_err(k_mod, HI_ERR_NOT_PERM);
                      m.venc_grp[c.grp].chn = -1;
                      c.grp = -1;
                      return 0;
                  });
}

int32_t HI_MPI_VENC_StartRecvPic(int32_t chn)
{
    return on_chn(SIM_OP_HI_MPI_VENC_StartRecvPic, chn, 0, media_access::change, [](sim_media&, sim_venc_chn& c) {
        if (c.grp < 0)
            return hi_err(k_mod, HI_ERR_NOT_PERM);
        if (!c.receiving)
            ++c.session;
        c.receiving = true;
        return 0;
    });
}

int32_t HI_MPI_VENC_StopRecvPic(int32_t chn)
{
    return on_chn(SIM_OP_HI_MPI_VENC_StopRecvPic, chn, 0, media_access::change, [](sim_media&, sim_venc_chn& c) {
        c.receiving = false;
        return 0;
    });
}

// ---- attributes -----------------------------------------------------------------

int32_t HI_MPI_VENC_SetChnAttr(int32_t chn, const venc_chn_attr_t* attr)
{
    int32_t err = attr_error(attr);
    std::shared_ptr<sim_venc_ring> old;
    int32_t r = on_chn(SIM_OP_HI_MPI_VENC_SetChnAttr, chn, err, media_access::change,
                       [attr, &old](sim_media&, sim_venc_chn& c) {
                           if (!same_shape(c.attr, *attr)) {
                               if (c.receiving)
                                   return hi_err(k_mod, HI_ERR_NOT_PERM);
                               if (buf_size_of(c.attr) != buf_size_of(*attr)) {
                                   // A new stream buffer, with the channel's descriptor kept
                                   // meaningful: the old one is closed for its readers.
                                   auto ring = std::make_shared<sim_venc_ring>(buf_size_of(*attr));
                                   if (ring->fd() < 0)
                                       return hi_err(k_mod, HI_ERR_NOMEM);
                                   old = std::exchange(c.ring, std::move(ring));
                                   old->close();
                               }
                           }
                           c.attr = *attr;
                           return 0;
                       });
    return r;
}

int32_t HI_MPI_VENC_GetChnAttr(int32_t chn, venc_chn_attr_t* attr)
{
    int32_t err = attr == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR) : 0;
    return on_chn(SIM_OP_HI_MPI_VENC_GetChnAttr, chn, err, media_access::read, [attr](sim_media&, sim_venc_chn& c) {
        *attr = c.attr;
        return 0;
    });
}

int32_t HI_MPI_VENC_SetH264eRefMode(int32_t chn, int32_t mode)
{
    int32_t err = mode < 0 || mode > 5 ? hi_err(k_mod, HI_ERR_ILLEGAL_PARAM) : 0;
    return on_chn(SIM_OP_HI_MPI_VENC_SetH264eRefMode, chn, err, media_access::change,
                  [mode](sim_media&, sim_venc_chn& c) {
                      if (c.attr.payload_type != PT_H264)
                          return hi_err(k_mod, HI_ERR_NOT_SUPPORT);
                      c.ref_mode = mode;
                      return 0;
                  });
}

int32_t HI_MPI_VENC_GetJpegParam(int32_t chn, venc_param_jpeg_t* param)
{
    int32_t err = param == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR) : 0;
    return on_chn(SIM_OP_HI_MPI_VENC_GetJpegParam, chn, err, media_access::read,
                  [param](sim_media&, sim_venc_chn& c) {
                      if (c.attr.payload_type != PT_JPEG)
                          return hi_err(k_mod, HI_ERR_NOT_SUPPORT);
                      *param = c.jpeg;
                      return 0;
                  });
}

int32_t HI_MPI_VENC_SetJpegParam(int32_t chn, const venc_param_jpeg_t* param)
{
    int32_t err = param == nullptr                               ? hi_err(k_mod, HI_ERR_NULL_PTR)
                  : param->qfactor < 1 || param->qfactor > 99 ? hi_err(k_mod, HI_ERR_ILLEGAL_PARAM)
                                                                : 0;
    return on_chn(SIM_OP_HI_MPI_VENC_SetJpegParam, chn, err, media_access::change,
                  [param](sim_media&, sim_venc_chn& c) {
                      if (c.attr.payload_type != PT_JPEG)
                          return hi_err(k_mod, HI_ERR_NOT_SUPPORT);
                      c.jpeg = *param;
                      return 0;
                  });
}

// ---- streams --------------------------------------------------------------------

int32_t HI_MPI_VENC_Query(int32_t chn, venc_chn_stat_t* stat)
{
    int32_t err = stat == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR) : 0;
    std::shared_ptr<sim_venc_ring> ring;
    if (int32_t r = ring_of(SIM_OP_HI_MPI_VENC_Query, chn, err, &ring))
        return r;
    *stat = ring->stat();
    return 0;
}

int32_t HI_MPI_VENC_GetFd(int32_t chn)
{
    std::shared_ptr<sim_venc_ring> ring;
    if (int32_t r = ring_of(SIM_OP_HI_MPI_VENC_GetFd, chn, 0, &ring))
        return r;
    return ring->fd();
}

int32_t HI_MPI_VENC_GetStream(int32_t chn, venc_stream_t* stream, bool block)
{
    std::shared_ptr<sim_venc_ring> ring;
    if (int32_t r = ring_of(SIM_OP_HI_MPI_VENC_GetStream, chn, stream_arg_error(stream), &ring))
        return r;
    // The wait happens outside the core: the producer needs it meanwhile.
    uint32_t e = ring->get(stream, block);
    return e == 0 ? 0 : hi_err(k_mod, e);
}

int32_t HI_MPI_VENC_ReleaseStream(int32_t chn, const venc_stream_t* stream)
{
    std::shared_ptr<sim_venc_ring> ring;
    if (int32_t r = ring_of(SIM_OP_HI_MPI_VENC_ReleaseStream, chn, stream_arg_error(stream), &ring))
        return r;
    uint32_t e = ring->release(stream);
    return e == 0 ? 0 : hi_err(k_mod, e);
}
