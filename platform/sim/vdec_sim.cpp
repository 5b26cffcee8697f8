// Simulated decoder channels: none can be created on this board yet, so
// every channel operation finds no channel.
#include "platform/hi_mpi_vdec.h"
#include "platform/sim/media_state.h"

namespace {

constexpr int32_t k_mod = HI_ID_VDEC;

int32_t no_channel(sim_op op, int32_t chn)
{
    if (int32_t r = sim_media_op(op, k_mod, chn >= 0 && chn < VDEC_MAX_CHN_NUM, HI_ERR_INVALID_CHNID))
        return r;
    return hi_err(k_mod, HI_ERR_UNEXIST);
}

}  // namespace

int32_t HI_MPI_VDEC_StartRecvStream(int32_t chn)
{
    return no_channel(SIM_OP_HI_MPI_VDEC_StartRecvStream, chn);
}

int32_t HI_MPI_VDEC_StopRecvStream(int32_t chn)
{
    return no_channel(SIM_OP_HI_MPI_VDEC_StopRecvStream, chn);
}

int32_t HI_MPI_VDEC_ResetChn(int32_t chn)
{
    return no_channel(SIM_OP_HI_MPI_VDEC_ResetChn, chn);
}
