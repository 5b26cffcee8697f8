// Simulated video output: the switch-off side of devices, their video
// layers and channels. Switching off what is already off succeeds.
#include "platform/hi_mpi_vo.h"
#include "platform/sim/media_state.h"

namespace {

constexpr int32_t k_mod = HI_ID_VO;

bool dev_valid(int32_t dev)
{
    return dev >= 0 && dev < VO_MAX_DEV_NUM;
}

}  // namespace

int32_t HI_MPI_VO_DisableChn(int32_t dev, int32_t chn)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VO_DisableChn, k_mod, dev_valid(dev), HI_ERR_INVALID_DEVID))
        return r;
    if (chn < 0 || chn >= VO_MAX_CHN_NUM)
        return hi_err(k_mod, HI_ERR_INVALID_CHNID);
    media_access m;
    m->vo[dev].chn_enabled[chn] = false;
    return 0;
}

int32_t HI_MPI_VO_Disable(int32_t dev)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VO_Disable, k_mod, dev_valid(dev), HI_ERR_INVALID_DEVID))
        return r;
    media_access m;
    m->vo[dev].enabled = false;
    return 0;
}

int32_t HI_MPI_VO_DisableVideoLayer(int32_t layer)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_VO_DisableVideoLayer, k_mod, dev_valid(layer), HI_ERR_INVALID_DEVID))
        return r;
    media_access m;
    m->vo[layer].layer_enabled = false;
    return 0;
}
