// Media platform: the video detection unit (VDA) in motion-detection mode.
//
// A motion-detection channel takes pictures from the source bound to it
// (address (VDA, 0, channel)), scaled to its own picture size, and every
// `interval` pictures produces one result: for every cell of the picture a
// difference value against a reference picture. Results wait in the
// channel's result buffers until the process reads and releases them; the
// channel's descriptor is readable while a result waits unread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/hi_comm.h"

inline constexpr int VDA_CHN_NUM_MAX = 32;
inline constexpr uint32_t VDA_MIN_SIZE = 32;
inline constexpr uint32_t VDA_MAX_WIDTH = 960;
inline constexpr uint32_t VDA_MAX_HEIGHT = 576;
inline constexpr uint32_t VDA_MAX_RSLT_NUM = 16;

enum : int32_t {
    VDA_WORK_MODE_MD = 0,     // motion detection
    VDA_WORK_MODE_OD = 1,     // occlusion detection (not used)
    VDA_ALG_BG = 0,           // against a background picture
    VDA_ALG_REF = 1,          // against a reference picture
    VDA_MB_8PIXEL = 0,
    VDA_MB_16PIXEL = 1,
    VDA_MB_SAD_8BIT = 0,      // one byte per cell
    VDA_MB_SAD_16BIT = 1,
    VDA_REF_MODE_DYNAMIC = 0,  // the reference follows the picture
    VDA_REF_MODE_STATIC = 1,
    VDA_REF_MODE_USER = 2,
};

// Channel attributes: 42 words. Words 10 .. 39 hold the occlusion
// settings, unused in motion-detection mode.
struct vda_chn_attr_t {
    int32_t work_mode;      // VDA_WORK_MODE_*
    int32_t vda_alg;        // VDA_ALG_*
    int32_t mb_size;        // VDA_MB_*PIXEL
    int32_t mb_sad_bits;    // VDA_MB_SAD_*
    int32_t ref_mode;       // VDA_REF_MODE_*
    uint32_t rslt_num;      // result buffers, 1 .. VDA_MAX_RSLT_NUM
    uint32_t vda_intvl;     // pictures between two results, at least 1
    uint32_t bg_up_src_wgt; // background update weight
    uint32_t sad_th;        // the unit's own difference threshold
    uint32_t obj_num_max;   // objects it may report
    uint32_t od_attr[30];
    uint32_t width;         // picture size the channel works at
    uint32_t height;
};
static_assert(offsetof(vda_chn_attr_t, rslt_num) == 20);
static_assert(offsetof(vda_chn_attr_t, vda_intvl) == 24);
static_assert(offsetof(vda_chn_attr_t, sad_th) == 32);
static_assert(offsetof(vda_chn_attr_t, width) == 160);
static_assert(sizeof(vda_chn_attr_t) == 168);

// One result (80 bytes on the chip). Word 2 is where the cells' difference
// values lie (one byte per cell, row after row), word 3 the bytes from one
// row of cells to the next. The values stay there until the result is
// released.
struct vda_data_t {
    uint32_t mb_width;      // cells per row
    uint32_t mb_height;     // rows of cells
    uint8_t* mb_sad_addr;   // the difference values
    uint32_t stride;
    uint64_t pts;           // platform clock of the result's picture
    uint32_t sad_bits;      // VDA_MB_SAD_*
    uint32_t seq;           // results of the channel before this one
    uint32_t reserved[12];
};
static_assert(sizeof(void*) != 4 || sizeof(vda_data_t) == 80);
static_assert(sizeof(void*) != 4 || offsetof(vda_data_t, mb_sad_addr) == 8);
static_assert(sizeof(void*) != 4 || offsetof(vda_data_t, stride) == 12);

int32_t HI_MPI_VDA_CreateChn(int32_t chn, const vda_chn_attr_t* attr);
int32_t HI_MPI_VDA_DestroyChn(int32_t chn);
int32_t HI_MPI_VDA_StartRecvPic(int32_t chn);
int32_t HI_MPI_VDA_StopRecvPic(int32_t chn);
// The channel's descriptor for select(), readable while a result waits; a
// negative value (an error code) when there is none.
int32_t HI_MPI_VDA_GetFd(int32_t chn);
// The oldest unread result. block: wait until one comes (or the channel
// goes); otherwise HI_ERR_BUF_EMPTY when none waits.
int32_t HI_MPI_VDA_GetData(int32_t chn, vda_data_t* data, bool block);
// Gives a read result's buffer back; results are given back in the order
// they were read.
int32_t HI_MPI_VDA_ReleaseData(int32_t chn, const vda_data_t* data);
