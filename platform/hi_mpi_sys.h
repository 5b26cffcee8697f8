// Media platform: system family (init and exit, configuration, memory zones,
// binding, time stamps, physical memory map) and video buffer pools.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/hi_comm.h"

// ---- video buffer pools -------------------------------------------------

inline constexpr int VB_MAX_COMM_POOLS = 128;
inline constexpr int MAX_MMZ_NAME_LEN = 16;

struct vb_pool_conf_t {
    uint32_t blk_size;             // bytes per block
    uint32_t blk_cnt;              // blocks in the pool; 0 = unused entry
    char mmz_name[MAX_MMZ_NAME_LEN];  // memory zone; "" = default zone
};

struct vb_conf_t {
    uint32_t max_pool_cnt;
    vb_pool_conf_t comm_pool[VB_MAX_COMM_POOLS];
};

int32_t HI_MPI_VB_SetConf(const vb_conf_t* conf);
int32_t HI_MPI_VB_GetConf(vb_conf_t* conf);
int32_t HI_MPI_VB_Init();
int32_t HI_MPI_VB_Exit();

// ---- system ---------------------------------------------------------------

struct mpp_sys_conf_t {
    uint32_t align_width;  // line stride alignment of every picture buffer
};

int32_t HI_MPI_SYS_SetConf(const mpp_sys_conf_t* conf);
int32_t HI_MPI_SYS_GetConf(mpp_sys_conf_t* conf);
int32_t HI_MPI_SYS_Init();
int32_t HI_MPI_SYS_Exit();

// Places a channel's buffers in a memory zone (name "" or NULL: default).
int32_t HI_MPI_SYS_SetMemConf(const mpp_chn_t* chn, const char* mmz_name);
int32_t HI_MPI_SYS_GetMemConf(const mpp_chn_t* chn, char* mmz_name);

// Routing of pictures from a source channel to a destination channel. A
// destination has at most one source; a source may feed many destinations.
int32_t HI_MPI_SYS_Bind(const mpp_chn_t* src, const mpp_chn_t* dest);
int32_t HI_MPI_SYS_UnBind(const mpp_chn_t* src, const mpp_chn_t* dest);
// The bind query: the source bound to dest, or an error when none is.
int32_t HI_MPI_SYS_GetBindbyDest(const mpp_chn_t* dest, mpp_chn_t* src);

// Time stamps: microseconds of the platform clock.
int32_t HI_MPI_SYS_GetCurPts(uint64_t* pts);
int32_t HI_MPI_SYS_InitPtsBase(uint64_t pts);
int32_t HI_MPI_SYS_SyncPts(uint64_t pts);

// Maps a physical range into the process; NULL on failure.
void* HI_MPI_SYS_Mmap(uint32_t phys_addr, uint32_t size);
int32_t HI_MPI_SYS_Munmap(void* virt_addr, uint32_t size);
