// Media platform: video decoder channels (VDEC).
//
// A decoder channel takes whole encoded frames (one H.264 access unit per
// send) and delivers the decoded pictures to the processing group bound to
// it, (VDEC, 0, chn) -> (VPSS, grp, 0), or keeps them for
// HI_MPI_VDEC_GetImage when nothing is bound.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/hi_comm.h"

inline constexpr int VDEC_MAX_CHN = 64;
inline constexpr uint32_t VDEC_MAX_WIDTH = 1920;
inline constexpr uint32_t VDEC_MAX_HEIGHT = 1088;
inline constexpr int32_t PT_H264_DEC = 96;

enum : int32_t {
    VIDEO_MODE_STREAM = 0,  // a send may hold any part of the stream
    VIDEO_MODE_FRAME = 1,   // whole frames, one frame per send
};

// Channel attributes: 8 words, in the vendor's order.
struct vdec_chn_attr_t {
    int32_t payload_type;   // 96: H.264
    uint32_t buf_size;      // stream buffer bytes
    uint32_t priority;
    uint32_t pic_width;     // largest picture
    uint32_t pic_height;
    uint32_t ref_frame_num;
    int32_t mode;           // VIDEO_MODE_*
    int32_t support_bframe;
};
static_assert(sizeof(vdec_chn_attr_t) == 32);
static_assert(offsetof(vdec_chn_attr_t, ref_frame_num) == 20);

// Protocol parameters: 5 words.
struct vdec_prtcl_param_t {
    int32_t max_slice_num;
    int32_t max_sps_num;
    int32_t max_pps_num;
    int32_t sc_buf_size;        // start-code buffer
    int32_t display_frame_num;
};
static_assert(sizeof(vdec_prtcl_param_t) == 20);

// One send: the frame's bytes (the caller keeps them), its length and time
// stamp.
struct vdec_stream_t {
    const uint8_t* addr;
    uint32_t len;
    uint64_t pts;
};

// A decoded picture as the platform hands it out. `id` names it to the
// platform until it is released.
struct video_frame_info_t {
    uint32_t width;
    uint32_t height;
    int32_t pix_fmt;
    uint64_t pts;
    uint32_t id;
    int32_t chn;    // the decoder channel that made it
};

int32_t HI_MPI_VDEC_CreateChn(int32_t chn, const vdec_chn_attr_t* attr);
int32_t HI_MPI_VDEC_DestroyChn(int32_t chn);
int32_t HI_MPI_VDEC_GetPrtclParam(int32_t chn, vdec_prtcl_param_t* param);
int32_t HI_MPI_VDEC_SetPrtclParam(int32_t chn, const vdec_prtcl_param_t* param);
int32_t HI_MPI_VDEC_StartRecvStream(int32_t chn);
int32_t HI_MPI_VDEC_StopRecvStream(int32_t chn);
// Drops what the channel holds; refused while it receives.
int32_t HI_MPI_VDEC_ResetChn(int32_t chn);
// wait_ms: -1 waits for room without limit, 0 not at all.
int32_t HI_MPI_VDEC_SendStream(int32_t chn, const vdec_stream_t* stream, int32_t wait_ms);
int32_t HI_MPI_VDEC_GetImage(int32_t chn, video_frame_info_t* frame, int32_t wait_ms);
int32_t HI_MPI_VDEC_ReleaseImage(int32_t chn, const video_frame_info_t* frame);
