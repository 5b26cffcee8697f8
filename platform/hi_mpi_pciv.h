// Media platform: PCI video family (window pool, PCI-reachable memory, DMA).
#pragma once

#include <cstddef>
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

// ---- PCI video channels ------------------------------------------------
//
// A PCI video channel takes the pictures of the source bound to it (a
// processing-group output channel or a capture channel) and writes them
// into picture buffers on another chip. Its number and its attributes are
// the receiving chip's choice; this chip passes them on as it gets them.

inline constexpr int PCIV_MAX_BUF_NUM = 16;
inline constexpr uint32_t PCIV_MIN_SIZE = 32;
inline constexpr uint32_t PCIV_MAX_WIDTH = 1920;
inline constexpr uint32_t PCIV_MAX_HEIGHT = 1088;

// The pictures the channel delivers.
struct pciv_pic_attr_t {
    uint32_t width;
    uint32_t height;
    uint32_t stride[2];  // luma and chroma line strides of the buffers
    int32_t field;       // 0 both fields (frame), 1 top, 2 bottom
    int32_t pix_fmt;     // PIXEL_FORMAT_*
};
static_assert(sizeof(pciv_pic_attr_t) == 24);

// The channel at the far end.
struct pciv_remote_obj_t {
    int32_t chip_id;
    int32_t pciv_chn;
};
static_assert(sizeof(pciv_remote_obj_t) == 8);

struct pciv_attr_t {
    pciv_pic_attr_t pic_attr;
    int32_t buf_chip;                     // chip whose memory holds the buffers
    uint32_t blk_size;                    // bytes per buffer
    uint32_t count;                       // buffers, 1 .. PCIV_MAX_BUF_NUM
    uint32_t phy_addr[PCIV_MAX_BUF_NUM];  // bus addresses of the buffers
    uint32_t reserved;
    pciv_remote_obj_t remote_obj;
};
static_assert(offsetof(pciv_attr_t, buf_chip) == 24);
static_assert(offsetof(pciv_attr_t, count) == 32);
static_assert(offsetof(pciv_attr_t, phy_addr) == 36);
static_assert(offsetof(pciv_attr_t, remote_obj) == 104);
static_assert(sizeof(pciv_attr_t) == 112);

int32_t HI_MPI_PCIV_Create(int32_t chn, const pciv_attr_t* attr);
// Refused while the channel is started.
int32_t HI_MPI_PCIV_Destroy(int32_t chn);
int32_t HI_MPI_PCIV_Start(int32_t chn);
int32_t HI_MPI_PCIV_Stop(int32_t chn);
