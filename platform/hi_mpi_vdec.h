// Media platform: decoder channels (VDEC), the operations that start and
// stop a channel's intake and reset it.
#pragma once

#include <cstdint>

#include "platform/hi_comm.h"

int32_t HI_MPI_VDEC_StartRecvStream(int32_t chn);
int32_t HI_MPI_VDEC_StopRecvStream(int32_t chn);
// Drops what the channel holds; the channel must not receive.
int32_t HI_MPI_VDEC_ResetChn(int32_t chn);
