// Simulated encoder groups and channels: the life cycle a channel goes
// through (created, registered with a group, receiving) and the teardown
// order the hardware insists on: stop receiving, unregister, destroy the
// channel, destroy the group.
#include "platform/hi_mpi_venc.h"
#include "platform/sim/media_state.h"

namespace {

constexpr int32_t k_mod = HI_ID_VENC;

bool grp_valid(int32_t grp)
{
    return grp >= 0 && grp < VENC_MAX_GRP_NUM;
}

bool chn_valid(int32_t chn)
{
    return chn >= 0 && chn < VENC_MAX_CHN_NUM;
}

}  // namespace

int32_t HI_MPI_VENC_CreateGroup(int32_t grp)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VENC_CreateGroup, k_mod, grp_valid(grp), HI_ERR_INVALID_DEVID))
        return r;
    media_access m;
    sim_venc_grp& g = m->venc_grp[grp];
    if (g.created)
        return hi_err(k_mod, HI_ERR_EXIST);
    g = {true, -1};
    return 0;
}

int32_t HI_MPI_VENC_DestroyGroup(int32_t grp)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VENC_DestroyGroup, k_mod, grp_valid(grp), HI_ERR_INVALID_DEVID))
        return r;
    media_access m;
    sim_venc_grp& g = m->venc_grp[grp];
    if (!g.created)
        return hi_err(k_mod, HI_ERR_UNEXIST);
    if (g.chn >= 0)
        return hi_err(k_mod, HI_ERR_NOT_PERM);
    g = {false, -1};
    return 0;
}

int32_t HI_MPI_VENC_StopRecvPic(int32_t chn)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VENC_StopRecvPic, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    media_access m;
    sim_venc_chn& c = m->venc_chn[chn];
    if (!c.created)
        return hi_err(k_mod, HI_ERR_UNEXIST);
    c.receiving = false;
    return 0;
}

int32_t HI_MPI_VENC_UnRegisterChn(int32_t chn)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VENC_UnRegisterChn, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    media_access m;
    sim_venc_chn& c = m->venc_chn[chn];
    if (!c.created)
        return hi_err(k_mod, HI_ERR_UNEXIST);
    if (c.grp < 0 || c.receiving)
        return hi_err(k_mod, HI_ERR_NOT_PERM);
    m->venc_grp[c.grp].chn = -1;
    c.grp = -1;
    return 0;
}

int32_t HI_MPI_VENC_DestroyChn(int32_t chn)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VENC_DestroyChn, k_mod, chn_valid(chn), HI_ERR_INVALID_CHNID))
        return r;
    media_access m;
    sim_venc_chn& c = m->venc_chn[chn];
    if (!c.created)
        return hi_err(k_mod, HI_ERR_UNEXIST);
    if (c.grp >= 0)
        return hi_err(k_mod, HI_ERR_NOT_PERM);
    c = {false, false, -1};
    return 0;
}
