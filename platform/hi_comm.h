// Types shared by every family of the media platform interface.
//
// The media platform is the chip vendor's library over its kernel drivers.
// Every operation returns 0 on success or a 32-bit error code of the form
// 0xA0000000 | module << 16 | 4 << 13 | error, traced with "%#x".
#pragma once

#include <cstdint>

// Module numbers, as used in channel addresses and in error codes.
enum : int32_t {
    HI_ID_VB = 1,
    HI_ID_SYS = 2,
    HI_ID_VDEC = 5,
    HI_ID_GROUP = 6,  // encoder group (channel addresses only)
    HI_ID_VENC = 7,   // encoder channel; also the error module of encoder groups
    HI_ID_VPSS = 8,
    HI_ID_VDA = 9,
    HI_ID_VO = 15,
    HI_ID_VI = 16,
    HI_ID_RGN = 18,
    HI_ID_PCIV = 26,
};

// Error numbers of the low field of an error code.
enum : uint32_t {
    HI_ERR_INVALID_DEVID = 1,
    HI_ERR_INVALID_CHNID = 2,
    HI_ERR_ILLEGAL_PARAM = 3,
    HI_ERR_EXIST = 4,
    HI_ERR_UNEXIST = 5,
    HI_ERR_NULL_PTR = 6,
    HI_ERR_NOT_CONFIG = 7,
    HI_ERR_NOT_SUPPORT = 8,
    HI_ERR_NOT_PERM = 9,
    HI_ERR_NOMEM = 12,
    HI_ERR_NOBUF = 13,
    HI_ERR_BUF_EMPTY = 14,
    HI_ERR_BUF_FULL = 15,
    HI_ERR_SYS_NOTREADY = 16,
    HI_ERR_BADADDR = 17,
    HI_ERR_BUSY = 18,
};

constexpr int32_t hi_err(int32_t module, uint32_t err)
{
    return static_cast<int32_t>(0xA0000000u | (static_cast<uint32_t>(module) << 16) | (4u << 13) | err);
}
static_assert(static_cast<uint32_t>(hi_err(HI_ID_VENC, HI_ERR_EXIST)) == 0xA0078004u,
              "encoder group 'exists' code is the one the encoder tests for");

// Platform channel address: (module, device, channel).
struct mpp_chn_t {
    int32_t mod_id;
    int32_t dev_id;
    int32_t chn_id;
};
static_assert(sizeof(mpp_chn_t) == 12);

// Size of a picture or a region, in pixels.
struct pic_size_t {
    uint32_t width;
    uint32_t height;
};

// Pixel formats the system uses.
enum : int32_t {
    PIXEL_FORMAT_YUV_SEMIPLANAR_422 = 18,
    PIXEL_FORMAT_YUV_SEMIPLANAR_420 = 19,
};

// Memory zone names: "" is the platform's default zone.
inline constexpr const char* MMZ_DEFAULT = "";
inline constexpr const char* MMZ_DDR1 = "ddr1";
