// Simulated motion-detection channels: create, destroy, start and stop
// receiving, the select descriptor, and reading and giving back results.
// The results themselves are computed from the camera's pictures by the
// motion thread (vda_motion.cpp) into the channel's queue.
#include <memory>
#include <utility>

#include "platform/hi_mpi_vda.h"
#include "platform/sim/media_state.h"
#include "platform/sim/vda_queue.h"

namespace {

constexpr int32_t k_mod = HI_ID_VDA;

bool chn_valid(int32_t chn)
{
    return chn >= 0 && chn < VDA_MAX_CHN_NUM && chn < VDA_CHN_NUM_MAX;
}

uint32_t cell_of(const vda_chn_attr_t& a)
{
    return a.mb_size == VDA_MB_16PIXEL ? 16 : 8;
}

int32_t attr_error(const vda_chn_attr_t* a)
{
    if (a == nullptr)
        return hi_err(k_mod, HI_ERR_NULL_PTR);
    if (a->work_mode != VDA_WORK_MODE_MD)
        return hi_err(k_mod, HI_ERR_NOT_SUPPORT);
    if (a->mb_sad_bits != VDA_MB_SAD_8BIT)
        return hi_err(k_mod, HI_ERR_NOT_SUPPORT);
    const bool ok = (a->vda_alg == VDA_ALG_BG || a->vda_alg == VDA_ALG_REF) &&
                    (a->mb_size == VDA_MB_8PIXEL || a->mb_size == VDA_MB_16PIXEL) && a->ref_mode >= 0 &&
                    a->ref_mode <= VDA_REF_MODE_USER && a->rslt_num >= 1 && a->rslt_num <= VDA_MAX_RSLT_NUM &&
                    a->vda_intvl >= 1 && a->width >= VDA_MIN_SIZE && a->width <= VDA_MAX_WIDTH &&
                    a->height >= VDA_MIN_SIZE && a->height <= VDA_MAX_HEIGHT && a->width % cell_of(*a) == 0 &&
                    a->height % cell_of(*a) == 0;
    return ok ? 0 : hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
}

// The checks of every operation on one existing channel, in the hardware's
// order: injected fault, channel number, argument, system, existence.
template <class Fn>
int32_t on_chn(sim_op op, int32_t chn, int32_t arg_err, media_access::mode md, Fn&& fn)
{
    if (int32_t r = sim_media_op(op, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    if (arg_err != 0)
        return arg_err;
    media_access m(md);
    sim_vda_chn& c = m->vda[chn];
    if (!c.created)
        return hi_err(k_mod, HI_ERR_UNEXIST);
    return fn(c);
}

// The channel's queue, taken under the core's lock so that a reader may
// wait on it without holding the core.
int32_t queue_of(sim_op op, int32_t chn, int32_t arg_err, std::shared_ptr<sim_vda_queue>* q)
{
    return on_chn(op, chn, arg_err, media_access::read, [q](sim_vda_chn& c) {
        *q = c.queue;
        return 0;
    });
}

}  // namespace

int32_t HI_MPI_VDA_CreateChn(int32_t chn, const vda_chn_attr_t* attr)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VDA_CreateChn, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    if (int32_t r = attr_error(attr))
        return r;
    const uint32_t cell = cell_of(*attr);
    auto queue = std::make_shared<sim_vda_queue>(attr->rslt_num, attr->width / cell, attr->height / cell);
    if (queue->fd() < 0)
        return hi_err(k_mod, HI_ERR_NOMEM);
    media_access m;
    sim_vda_chn& c = m->vda[chn];
    if (c.created)
        return hi_err(k_mod, HI_ERR_EXIST);
    const uint32_t session = c.session;
    c = {};
    c.created = true;
    c.attr = *attr;
    c.session = session;
    c.queue = std::move(queue);
    return 0;
}

int32_t HI_MPI_VDA_DestroyChn(int32_t chn)
{
    return on_chn(SIM_OP_HI_MPI_VDA_DestroyChn, chn, 0, media_access::change, [](sim_vda_chn& c) {
        // The unit lets a channel go only once it has stopped receiving.
        if (c.receiving)
            return hi_err(k_mod, HI_ERR_NOT_PERM);
        c.queue->close();
        const uint32_t session = c.session;
        c = {};
        c.session = session;
        return 0;
    });
}

int32_t HI_MPI_VDA_StartRecvPic(int32_t chn)
{
    return on_chn(SIM_OP_HI_MPI_VDA_StartRecvPic, chn, 0, media_access::change, [](sim_vda_chn& c) {
        if (!c.receiving) {
            ++c.session;
            c.receiving_us = sim_media_now_us();
        }
        c.receiving = true;
        return 0;
    });
}

int32_t HI_MPI_VDA_StopRecvPic(int32_t chn)
{
    return on_chn(SIM_OP_HI_MPI_VDA_StopRecvPic, chn, 0, media_access::change, [](sim_vda_chn& c) {
        c.receiving = false;
        return 0;
    });
}

int32_t HI_MPI_VDA_GetFd(int32_t chn)
{
    return on_chn(SIM_OP_HI_MPI_VDA_GetFd, chn, 0, media_access::read,
                  [](sim_vda_chn& c) { return static_cast<int32_t>(c.queue->fd()); });
}

int32_t HI_MPI_VDA_GetData(int32_t chn, vda_data_t* data, bool block)
{
    std::shared_ptr<sim_vda_queue> q;
    int32_t err = data == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR) : 0;
    if (int32_t r = queue_of(SIM_OP_HI_MPI_VDA_GetData, chn, err, &q))
        return r;
    uint32_t e = q->get(data, block);
    return e == 0 ? 0 : hi_err(k_mod, e);
}

int32_t HI_MPI_VDA_ReleaseData(int32_t chn, const vda_data_t* data)
{
    std::shared_ptr<sim_vda_queue> q;
    int32_t err = data == nullptr ? hi_err(k_mod, HI_ERR_NULL_PTR) : 0;
    if (int32_t r = queue_of(SIM_OP_HI_MPI_VDA_ReleaseData, chn, err, &q))
        return r;
    uint32_t e = q->release(data);
    return e == 0 ? 0 : hi_err(k_mod, e);
}
