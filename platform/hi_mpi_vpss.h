// Media platform: video processing groups (VPSS).
//
// A group takes one picture stream at its input (address (VPSS, group, 0))
// and delivers it scaled on up to five output channels, each of which can be
// bound on to encoders, output channels or PCI video channels.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/hi_comm.h"

inline constexpr int VPSS_MAX_GRP_NUM = 128;
inline constexpr int VPSS_MAX_CHN_NUM = 5;
inline constexpr uint32_t VPSS_MIN_SIZE = 64;
inline constexpr uint32_t VPSS_MAX_WIDTH = 1920;
inline constexpr uint32_t VPSS_MAX_HEIGHT = 1088;
inline constexpr uint32_t VPSS_MAX_BORDER_WIDTH = 14;
inline constexpr uint32_t VPSS_MAX_STRENGTH = 255;

enum : int32_t {
    VPSS_DIE_MODE_AUTO = 0,
    VPSS_DIE_MODE_OFF = 1,
    VPSS_DIE_MODE_ON = 2,
};

// Group attributes: 9 words. The switches are 0 or 1.
struct vpss_grp_attr_t {
    uint32_t max_width;
    uint32_t max_height;
    int32_t pix_fmt;
    int32_t enhance_en;
    int32_t deblock_en;
    int32_t sharpen_en;
    int32_t denoise_en;
    int32_t histogram_en;
    int32_t die_mode;   // de-interlacing, VPSS_DIE_MODE_*
};
static_assert(sizeof(vpss_grp_attr_t) == 36);

// Output channel attributes: 10 words.
struct vpss_chn_attr_t {
    int32_t sharpen_en;
    int32_t border_en;
    uint32_t border_width[4];   // top, bottom, left, right; even, at most 14
    uint32_t border_color[4];   // 0xRRGGBB
};
static_assert(sizeof(vpss_chn_attr_t) == 40);
static_assert(offsetof(vpss_chn_attr_t, border_color) == 24);

// Group processing parameters: 14 words. Read from the platform, adjusted
// and written back.
struct vpss_grp_param_t {
    uint32_t strength[8];   // 0 .. 7: filter strengths, 0 .. 255
    uint32_t motion_adapt;  // 8: motion-adaptive filtering, 0 or 1
    uint32_t spare[5];      // 9 .. 13: 0
};
static_assert(sizeof(vpss_grp_param_t) == 56);
static_assert(offsetof(vpss_grp_param_t, motion_adapt) == 32);

int32_t HI_MPI_VPSS_CreateGrp(int32_t grp, const vpss_grp_attr_t* attr);
// Refused while the group is started.
int32_t HI_MPI_VPSS_DestroyGrp(int32_t grp);
int32_t HI_MPI_VPSS_StartGrp(int32_t grp);
int32_t HI_MPI_VPSS_StopGrp(int32_t grp);
int32_t HI_MPI_VPSS_GetGrpParam(int32_t grp, vpss_grp_param_t* param);
int32_t HI_MPI_VPSS_SetGrpParam(int32_t grp, const vpss_grp_param_t* param);
int32_t HI_MPI_VPSS_SetChnAttr(int32_t grp, int32_t chn, const vpss_chn_attr_t* attr);
// Needs the channel's attributes.
int32_t HI_MPI_VPSS_EnableChn(int32_t grp, int32_t chn);
int32_t HI_MPI_VPSS_DisableChn(int32_t grp, int32_t chn);

// ---- crop of a group's input picture --------------------------------------

enum : int32_t {
    VPSS_CROP_RATIO_COOR = 0,  // rectangle in thousandths of the picture
    VPSS_CROP_ABS_COOR = 1,    // rectangle in pixels
};

struct vpss_rect_t {
    int32_t x;
    int32_t y;
    uint32_t width;
    uint32_t height;
};
static_assert(sizeof(vpss_rect_t) == 16);

struct vpss_crop_info_t {
    int32_t enable;      // 0 or 1
    int32_t coord_mode;  // VPSS_CROP_*
    vpss_rect_t rect;    // pixels: even, inside the group's maximum size
    int32_t crop_mode;   // 0: the group's input picture
};
static_assert(offsetof(vpss_crop_info_t, rect) == 8);
static_assert(offsetof(vpss_crop_info_t, crop_mode) == 24);
static_assert(sizeof(vpss_crop_info_t) == 28);

int32_t HI_MPI_VPSS_GetCropCfg(int32_t grp, vpss_crop_info_t* crop);
int32_t HI_MPI_VPSS_SetCropCfg(int32_t grp, const vpss_crop_info_t* crop);

struct video_frame_info_t;
// Hands one picture to the group's input, as a bound source would.
int32_t HI_MPI_VPSS_UserSendFrame(int32_t grp, const video_frame_info_t* frame);
// Drops the pictures the group holds.
int32_t HI_MPI_VPSS_ResetGrp(int32_t grp);
