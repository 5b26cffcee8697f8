// Media platform: encoder groups and channels (VENC).
//
// An encoder group is the bind destination (GROUP, group, 0) that receives
// pictures; an encoder channel registered with it encodes them. Errors of
// both carry the encoder module number HI_ID_VENC.
#pragma once

#include <cstdint>

#include "platform/hi_comm.h"

inline constexpr int VENC_MAX_GRP_NUM = 144;
inline constexpr int VENC_MAX_CHN_NUM = 144;

// Fails with hi_err(HI_ID_VENC, HI_ERR_EXIST) = 0xA0078004 when the group exists.
int32_t HI_MPI_VENC_CreateGroup(int32_t grp);
// Refused while a channel is registered with the group.
int32_t HI_MPI_VENC_DestroyGroup(int32_t grp);

int32_t HI_MPI_VENC_StopRecvPic(int32_t chn);
// Refused while the channel receives pictures.
int32_t HI_MPI_VENC_UnRegisterChn(int32_t chn);
// Refused while the channel is registered with a group.
int32_t HI_MPI_VENC_DestroyChn(int32_t chn);
