// Media platform: PCI video family (window pool, PCI-reachable memory, DMA).
#pragma once

#include <cstdint>

#include "platform/hi_comm.h"

inline constexpr int PCIV_MAX_VBCOUNT = 8;

// Pool of window buffers that the PCI video channels of the master write to.
struct pciv_win_vb_cfg_t {
    uint32_t pool_count;
    uint32_t blk_size[PCIV_MAX_VBCOUNT];
    uint32_t blk_count[PCIV_MAX_VBCOUNT];
};

int32_t HI_MPI_PCIV_WinVbCreate(const pciv_win_vb_cfg_t* cfg);
int32_t HI_MPI_PCIV_WinVbDestroy();

// Allocates blk_cnt blocks of blk_size bytes of memory that the PCI DMA
// engine can reach, and writes their bus addresses to phys_addr[0..blk_cnt).
int32_t HI_MPI_PCIV_Malloc(uint32_t blk_size, uint32_t blk_cnt, uint32_t phys_addr[]);
int32_t HI_MPI_PCIV_Free(uint32_t blk_cnt, const uint32_t phys_addr[]);

// One block of a DMA task: bus addresses and size in bytes.
struct pciv_dma_block_t {
    uint32_t src_addr;
    uint32_t dst_addr;
    uint32_t blk_size;
};

struct pciv_dma_task_t {
    uint32_t count;             // blocks in the task
    int32_t read;               // 1: read from the master, 0: write to the master
    pciv_dma_block_t* blocks;
};

// Runs the task; returns when every block is copied.
int32_t HI_MPI_PCIV_DmaTask(pciv_dma_task_t* task);
