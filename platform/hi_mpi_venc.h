// Media platform: encoder groups and channels (VENC).
//
// An encoder group is the bind destination (GROUP, group, 0) that receives
// pictures; an encoder channel registered with it encodes them. Errors of
// both carry the encoder module number HI_ID_VENC.
//
// A channel's encoded output is read one frame at a time: its select
// descriptor is readable while a frame waits; HI_MPI_VENC_Query says how
// many packs the next frame has; HI_MPI_VENC_GetStream fills the caller's
// pack records with pointers into the channel's stream buffer, which stay
// valid until HI_MPI_VENC_ReleaseStream gives the frame back.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/hi_comm.h"

inline constexpr int VENC_MAX_GRP_NUM = 144;
inline constexpr int VENC_MAX_CHN_NUM = 144;

// Payload types.
enum : int32_t {
    PT_JPEG = 26,
    PT_H264 = 96,
};

// Rate-control modes.
enum : int32_t {
    VENC_RC_MODE_H264CBR = 1,
    VENC_RC_MODE_H264VBR = 2,
    VENC_RC_MODE_H264FIXQP = 3,
    // Variable bit rate capped at the channel's bit rate, the mode the
    // system's H.264 channels use.
    VENC_RC_MODE_H264AVBR = 13,
};

// H.264 NAL unit types a pack can carry.
enum : int32_t {
    H264E_NALU_PSLICE = 1,
    H264E_NALU_ISLICE = 5,
    H264E_NALU_SEI = 6,
    H264E_NALU_SPS = 7,
    H264E_NALU_PPS = 8,
};

// JPEG pack types.
enum : int32_t {
    JPEGE_PACK_ECS = 5,
    JPEGE_PACK_APP = 6,
    JPEGE_PACK_VDO = 7,
    JPEGE_PACK_PIC = 8,
};

// H.264 channel attributes, in the hardware record's field order.
struct venc_attr_h264_t {
    uint32_t max_pic_width;
    uint32_t max_pic_height;
    uint32_t buf_size;       // stream buffer bytes
    uint32_t profile;        // 0 baseline, 1 main, 2 high
    int32_t by_frame;        // 1: one get returns a whole frame
    int32_t field;           // field coding
    int32_t main_stream;
    uint32_t priority;
    int32_t vi_field;        // the input pictures are fields
    uint32_t pic_width;
    uint32_t pic_height;
};
static_assert(sizeof(venc_attr_h264_t) == 44);
static_assert(offsetof(venc_attr_h264_t, buf_size) == 8);
static_assert(offsetof(venc_attr_h264_t, pic_width) == 36);

// JPEG channel attributes, in the hardware record's field order.
struct venc_attr_jpeg_t {
    uint32_t max_pic_width;
    uint32_t max_pic_height;
    uint32_t buf_size;
    int32_t by_frame;
    int32_t vi_field;
    uint32_t priority;
    uint32_t pic_width;
    uint32_t pic_height;
};
static_assert(sizeof(venc_attr_jpeg_t) == 32);

// Rate control of an H.264 channel.
struct venc_rc_attr_t {
    int32_t rc_mode;            // VENC_RC_MODE_*
    uint32_t gop;               // pictures from one IDR picture to the next
    uint32_t stat_time;         // seconds over which the bit rate is held
    uint32_t vi_frm_rate;       // input frame rate
    uint32_t target_frm_rate;   // output frame rate
    uint32_t bit_rate;          // kbit/s
    uint32_t fluctuate_level;   // 0 .. 5
};
static_assert(sizeof(venc_rc_attr_t) == 28);

// Channel attributes: the payload type selects h264 or jpeg.
struct venc_chn_attr_t {
    int32_t payload_type;  // PT_H264 or PT_JPEG
    union {
        venc_attr_h264_t h264;
        venc_attr_jpeg_t jpeg;
    };
    venc_rc_attr_t rc;  // H.264 only
};
static_assert(offsetof(venc_chn_attr_t, h264) == 4);
static_assert(offsetof(venc_chn_attr_t, rc) == 48);
static_assert(sizeof(venc_chn_attr_t) == 76);

// Frame rates of an encoder group: pictures arrive at vi_frm_rate and the
// group passes target_frm_rate of them per second on to its channel.
struct venc_grp_frm_rate_t {
    int32_t vi_frm_rate;
    int32_t target_frm_rate;
};

// JPEG parameters; the first field is the quality factor 1 .. 99.
struct venc_param_jpeg_t {
    uint32_t qfactor;
    uint32_t mcu_per_ecs;
};

// State of a channel. cur_packs is the pack count of the next frame, 0 when
// none waits.
struct venc_chn_stat_t {
    uint32_t left_pics;           // pictures received, not yet encoded
    uint32_t left_stream_bytes;   // bytes in the stream buffer
    uint32_t left_stream_frames;  // frames waiting to be read
    uint32_t cur_packs;
};

// One pack of a frame. A pack lies in the channel's ring buffer; where the
// ring wraps it comes in two pieces, the second starting at the ring's
// start. len[1] is 0 when there is one piece.
struct venc_pack_t {
    uint32_t phy_addr[2];      // bus addresses of the pieces (low 32 bits)
    unsigned char* addr[2];    // where the process reads them
    uint32_t len[2];
    uint64_t pts;              // time stamp of the frame, platform clock, us
    int32_t data_type;         // H264E_NALU_* or JPEGE_PACK_*
    int32_t field_end;
    int32_t frame_end;         // 1 on the frame's last pack
};
// The record is 48 bytes on the chip, where pointers are 4 bytes.
static_assert(sizeof(void*) != 4 || sizeof(venc_pack_t) == 48);

// One frame as GetStream returns it: the caller's pack array, filled.
struct venc_stream_t {
    venc_pack_t* pack;  // cur_packs records, supplied by the caller
    uint32_t pack_count;
    uint32_t seq;       // frame sequence number of the channel
};

// ---- groups -----------------------------------------------------------------

// Fails with hi_err(HI_ID_VENC, HI_ERR_EXIST) = 0xA0078004 when the group exists.
int32_t HI_MPI_VENC_CreateGroup(int32_t grp);
// Refused while a channel is registered with the group.
int32_t HI_MPI_VENC_DestroyGroup(int32_t grp);
int32_t HI_MPI_VENC_SetGrpFrmRate(int32_t grp, const venc_grp_frm_rate_t* rate);
int32_t HI_MPI_VENC_GetGrpFrmRate(int32_t grp, venc_grp_frm_rate_t* rate);

// ---- channels ---------------------------------------------------------------

int32_t HI_MPI_VENC_CreateChn(int32_t chn, const venc_chn_attr_t* attr);
// Refused while the channel is registered with a group.
int32_t HI_MPI_VENC_DestroyChn(int32_t chn);
int32_t HI_MPI_VENC_RegisterChn(int32_t grp, int32_t chn);
// Refused while the channel receives pictures.
int32_t HI_MPI_VENC_UnRegisterChn(int32_t chn);
int32_t HI_MPI_VENC_StartRecvPic(int32_t chn);
int32_t HI_MPI_VENC_StopRecvPic(int32_t chn);
int32_t HI_MPI_VENC_SetChnAttr(int32_t chn, const venc_chn_attr_t* attr);
int32_t HI_MPI_VENC_GetChnAttr(int32_t chn, venc_chn_attr_t* attr);
// H.264 reference mode (how P pictures refer back; 5 is the mode the system uses).
int32_t HI_MPI_VENC_SetH264eRefMode(int32_t chn, int32_t mode);
int32_t HI_MPI_VENC_GetJpegParam(int32_t chn, venc_param_jpeg_t* param);
int32_t HI_MPI_VENC_SetJpegParam(int32_t chn, const venc_param_jpeg_t* param);

// Fails when the channel does not exist.
int32_t HI_MPI_VENC_Query(int32_t chn, venc_chn_stat_t* stat);
// The channel's select descriptor (readable while a frame waits), or a
// negative value. The descriptor belongs to the channel: never close it.
int32_t HI_MPI_VENC_GetFd(int32_t chn);
// Fills stream->pack (pack_count records, at least cur_packs of Query) with
// the next frame. block: wait for one; otherwise fail with
// hi_err(HI_ID_VENC, HI_ERR_BUF_EMPTY) when none waits.
int32_t HI_MPI_VENC_GetStream(int32_t chn, venc_stream_t* stream, bool block);
// Gives the frame's room in the stream buffer back.
int32_t HI_MPI_VENC_ReleaseStream(int32_t chn, const venc_stream_t* stream);
