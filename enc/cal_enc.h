// The encoder module: each camera's recording, network and snapshot streams
// as the master describes them, the hardware encoder channels built from
// them, and the thread that turns encoded frames into record buffers and
// network frames.
//
// Configuration is two-step: the command handlers only record settings and
// mark streams changed; the encoder thread applies them (_update_chip) when
// the master sends the update command.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "cal/cal_mod.h"
#include "runtime/kel_word.h"

struct cal_t;
struct ebuf_t;
struct hsc_msg_t;
struct kel_thread_t;

inline constexpr int CAL_ENC_MAX_CAM = 32;
inline constexpr int CAL_ENC_MAX_CHN = 128;   // encoder channel numbers with a descriptor entry
inline constexpr int CAL_ENC_SLOTS = 2 * CAL_ENC_MAX_CAM + 1;  // main slots 0 .. n-1, the low slot 2n
inline constexpr int CAL_ENC_AVC_MAX = 8;     // pairs the avcres table holds
inline constexpr int CAL_ENC_FONT_GLYPHS = 20;
inline constexpr int CAL_ENC_FONT_BYTES = 512;
inline constexpr int CAL_ENC_OSD_BYTES = 14080;
inline constexpr uint32_t CAL_ENC_BS_SIZE = 0x100000;  // JPEG staging buffer

// Queue of the update command: the letters c, e, n and the byte 1.
inline constexpr key_t MSG_KEY_CE_ENC = 0x63656E01;
inline constexpr long MSG_CMD_ENC_UPDATE = 0x110;
inline constexpr int ENC_UPDATE_BODY_SIZE = 20;

// Stream kinds as the master numbers them in its commands.
enum : int {
    ENC_KIND_REC = 0,
    ENC_KIND_NET = 1,
    ENC_KIND_JPEG = 2,
    ENC_KIND_NONE = 3,
    ENC_KIND_NET_LOW = 4,
    ENC_KIND_COPY = 5,
    ENC_KIND_REC_LOW = 6,
};

// Settings and frame timing of one stream of one camera.
struct cal_enc_stream_t {
    int changed;      // 1: _update_chip rebuilds this stream's channel
    int run;          // REC only: mirrors on
    int cam;          // slave-local camera
    // The picture settings below are written by the command thread and read
    // by the encoder thread for every frame's record entry or descriptor:
    // each access is a whole word (kel_word.h).
    int width;
    int height;
    int fps;          // stream frame rate
    int quality;      // 1 .. 3, anything else: default bit rate
    int attr;         // attribute byte, carried into the record index
    int reserved0;
    int sys_fps;      // the module's fps at the last set-video
    int reserved1[2];
    int payload;      // 96 once set-video was received
    int on;
    int saved[7];     // what the on and off commands were given; nobody reads it
    int wait_key;     // 1: frames are dropped until the next key frame
    // Frame timing.
    int abs_bi;       // slot within the day of the previous frame; -1 after a new day
    int reserved2;
    uint64_t last_msec;  // time stamp of the previous frame, ms
    uint64_t abs_us;     // time given to the current frame, us since the epoch
    struct tm tm;        // local time of the current frame
    int sec_of_day;
    int frame_cnt;    // frames of this stream in the current second
    int byte_cnt;     // bytes of this stream in the current second
};

// Select descriptor and payload type of one encoder channel.
struct cal_enc_chn_t {
    int fd;        // -1 when none
    int payload;   // 96 at creation
};

struct cal_enc_t {
    cal_t* cal;
    int num;          // cameras (slave_cam)
    int period;       // frame period in us = 1000000 / fps
    int fps;          // system frame rate
    int reserved0;
    cal_enc_chn_t chn[CAL_ENC_MAX_CHN];
    // Raised by the encoder thread's rebuilds and by the JPEG thread,
    // read by both: see cal_enc_raise_max_fd.
    std::atomic<int> max_fd;
    kel_thread_t* thread_enc;  // "cal_enc_thread"
    pthread_mutex_t muxex;
    int reserved1;
    int ref_fps[CAL_ENC_MAX_CAM];  // input frame rate per camera
    cal_enc_stream_t rec[CAL_ENC_MAX_CAM];
    cal_enc_stream_t net[CAL_ENC_MAX_CAM];
    cal_enc_stream_t rec_low[CAL_ENC_MAX_CAM];
    cal_enc_stream_t net_low[CAL_ENC_MAX_CAM];
    // Kind 2 and kind 5 switches and the copy's key wait: the command thread
    // writes them, the encoder and JPEG threads read them (whole words).
    int jpg_on[CAL_ENC_MAX_CAM];
    int copy_on[CAL_ENC_MAX_CAM];
    int copy_wait_key[CAL_ENC_MAX_CAM];
    unsigned char* bs_buf;  // JPEG staging buffer, page aligned
    int bs_size;
    int bs_len;
    int reserved2;
    kel_thread_t* thread_jpg;  // "cal_jpeg_thread"
    int msgid_ce_enc;
    // An update the queue refused, left for the encoder thread's next pass;
    // flag and t are written and taken under muxex.
    std::atomic<int> update_pending;
    int update_flag;
    uint64_t update_t;
    ebuf_t* ebuf[CAL_ENC_SLOTS];  // current record buffer per slot
    uint64_t last_pts;            // last time stamp given to the platform, us
    int reserved3[4];
    int on_playjpg[CAL_ENC_MAX_CAM];
    int16_t avc_cnt;
    uint16_t avc_res[CAL_ENC_AVC_MAX][2];
    int osd_attached[CAL_ENC_MAX_CAM];
    int osd_on;
    int date_fmt;
    int hour12;
    unsigned char timefont[CAL_ENC_FONT_GLYPHS][CAL_ENC_FONT_BYTES];
    unsigned char osd_bmp[CAL_ENC_MAX_CAM][CAL_ENC_OSD_BYTES];
    int size;  // sizeof(cal_enc_t)
};

// ---- command payloads ----------------------------------------------------------

// HSCC_CAL_SetEncVideo: 17 bytes, byte-packed as the master sends them.
struct __attribute__((packed)) enc_set_video_cmd_t {
    uint32_t kind;
    float fps;         // frames per second
    int16_t width;
    int16_t height;
    uint8_t cam;       // recorder-wide camera
    uint8_t unread[2];
    uint8_t quality;   // 1 .. 3
    uint8_t attr;      // carried into the record index
};
static_assert(offsetof(enc_set_video_cmd_t, fps) == 4);
static_assert(offsetof(enc_set_video_cmd_t, width) == 8);
static_assert(offsetof(enc_set_video_cmd_t, height) == 10);
static_assert(offsetof(enc_set_video_cmd_t, cam) == 12);
static_assert(offsetof(enc_set_video_cmd_t, quality) == 15);
static_assert(offsetof(enc_set_video_cmd_t, attr) == 16);
static_assert(sizeof(enc_set_video_cmd_t) == 17);

// HSCC_CAL_RunEncVideo.
struct enc_run_video_cmd_t {
    uint32_t kind;
    uint32_t cam;      // recorder-wide camera
    uint32_t onoff;    // 0 off
    uint32_t stop;     // kept by the off command
};
static_assert(offsetof(enc_run_video_cmd_t, onoff) == 8);
static_assert(sizeof(enc_run_video_cmd_t) == 16);

// HSCC_CAL_UpdatEncVideo.
struct enc_update_cmd_t {
    int16_t sync;      // 1: align the clocks with t
    int16_t fps;       // system frame rate
    uint8_t unread[4];
    uint64_t t;        // us since the epoch
};
static_assert(offsetof(enc_update_cmd_t, fps) == 2);
static_assert(offsetof(enc_update_cmd_t, t) == 8);
static_assert(sizeof(enc_update_cmd_t) == 16);

// HSCC_CAL_3531_avcres: the count, then as many pairs as it says (the
// record keeps CAL_ENC_AVC_MAX).
struct enc_avcres_cmd_t {
    int16_t avc_cnt;
};
static_assert(sizeof(enc_avcres_cmd_t) == 2);
inline constexpr size_t ENC_AVC_PAIR_SIZE = 4;

// Body of the update message on MSG_KEY_CE_ENC.
struct __attribute__((packed)) enc_update_body_t {
    int32_t flag;          // sync flag of the command
    uint8_t reserved[8];
    uint64_t t;            // us since the epoch
};
static_assert(offsetof(enc_update_body_t, t) == 12);
static_assert(sizeof(enc_update_body_t) == ENC_UPDATE_BODY_SIZE);

struct enc_update_msg_t {
    long type;  // MSG_CMD_ENC_UPDATE
    enc_update_body_t body;
};

// ---- module life, handlers, clocks ---------------------------------------------

// The module's table: its command rows and its life.
extern const cal_mod_t cal_enc_mod;

// NULL when slave_cam (unsigned) is above 32.
cal_enc_t* cal_enc_new(cal_t* cal);
// Starts the encoder thread, then the JPEG thread, each waited for until
// it is stable. Sum of the starts.
int cal_enc_start(cal_enc_t* enc);
// Tears down every channel, then stops the threads; sum of the stops.
int cal_enc_stop(cal_enc_t* enc);
void cal_enc_delete(cal_enc_t* enc);

// Command handlers; each takes the whole message. Set-video and run-video
// answer -1 for a camera that is not one of the slave's (or a frame rate
// that is no number) and change nothing.
int cal_m_enc_set_video(cal_t* cal, hsc_msg_t* msg);
int cal_m_enc_run_video(cal_t* cal, hsc_msg_t* msg);
int cal_enc_update(cal_t* cal, hsc_msg_t* msg);
int cal_m_enc_init_avcres(cal_t* cal, hsc_msg_t* msg);
// Status reply: the encoder thread's heartbeat at payload offset 48, the
// JPEG thread's at 52.
int cal_enc_heart(cal_t* cal, unsigned char* payload);

// HSCC_CAL_3531_playjpg, and the playback path when it stops: on_playjpg
// of every camera = value. Returns 0.
int cal_m_enc_on_playjpg(cal_t* cal, int value);

// Input frame rate of slave-local camera ch; 0, or -1 out of range.
int _enc_set_ref_fps(cal_t* cal, int ch, int fps);
// Aligns the media platform's time stamps with t (us since the epoch).
void _enc_set_pts(cal_t* cal, uint64_t t);
// Raises max_fd to fd if fd is larger; safe from either thread.
void cal_enc_raise_max_fd(cal_enc_t* enc, int fd);

// ---- channel building -----------------------------------------------------------

// Encoder channel numbers of camera ch's streams with n cameras.
inline int enc_chn_of(int kind, int ch, int n)
{
    switch (kind) {
    case ENC_KIND_REC:
        return ch;
    case ENC_KIND_NET:
        return ch + n;
    case ENC_KIND_REC_LOW:
        return ch + 2 * n;
    case ENC_KIND_NET_LOW:
        return ch + 3 * n;
    default:
        return -1;
    }
}

struct venc_chn_attr_t;

// Applies the settings of every changed stream: hands over the main record
// buffers, tears down the changed streams' channels and builds those that
// are on. flag and t are those of the update; not used. Returns 0.
int _update_chip(cal_t* cal, int flag, uint64_t t);
// Builds one stream's encoder group, channel and binding; 0 or -1.
int _process_start(cal_t* cal, int ch, int kind);
// H.264 attributes of encoder channel vchn from its stream's settings and
// its camera's input format; 0, or -1 for a channel outside 0 .. 4n-1.
int _enc_chn_attr(cal_t* cal, int vchn, venc_chn_attr_t* attr);
// Bits per second for a picture size, frame rate and quality level.
int _calc_bitrate(int kind, int w, int h, double fps, int quality);
// Tears down encoder channel vchn with its group and binding; 0, or -1 when
// there is no such channel or a step fails.
int _enc_exit_chn(int vchn);
// _enc_exit_chn (v), then the descriptor entry of v is forgotten.
void _enc_exit_stream_chn(cal_enc_t* enc, int v);
// Tears down JPEG channel 32 + ch; returns 0.
int _enc_exit_jpeg_chn(cal_enc_t* enc, int ch);
// Every camera's JPEG channel; returns 0.
int cal_enc_exit_jpeg(cal_t* cal);

inline constexpr int ENC_JPEG_CHN_BASE = 32;
// On a slave of more than 8 cameras, channel 32 + ch is one of the streams'
// channels (0 .. 4n - 1): a JPEG channel made or torn down there would take
// a live stream with it, so such cameras get no snapshots.
inline bool enc_jpeg_chn_free(const cal_enc_t* enc, int ch)
{
    return ENC_JPEG_CHN_BASE + ch >= 4 * enc->num;
}
inline constexpr int ENC_REF_MODE = 5;
inline constexpr int32_t ENC_ERR_GRP_EXIST = static_cast<int32_t>(0xA0078004u);

// ---- encoder thread and stream records --------------------------------------

// Frame limits of the routing.
inline constexpr int ENC_REC_FRAME_MAX = 2074023;   // larger record frames are refused
inline constexpr int ENC_NET_FRAME_MAX = 2096099;   // larger network frames are refused
inline constexpr int ENC_EBUF_NEED = 0x100000;      // data area of a new record buffer
inline constexpr int ENC_EBUF_MAX_FRAMES = 479;

// ---- time overlay -------------------------------------------------------------------

inline constexpr int ENC_OSD_HANDLE_BASE = 64;  // region of camera ch: 64 + ch
inline constexpr int ENC_OSD_WIDTH = 352;       // pixels, 2 bytes each
inline constexpr int ENC_OSD_HEIGHT = 20;
inline constexpr int ENC_OSD_X = 20;
inline constexpr int ENC_OSD_LINE_MAX = 22;     // characters: 352 / 16
inline constexpr int ENC_GLYPH_BYTES = 32;      // one 16-pixel glyph row
inline constexpr int ENC_GLYPH_M_BYTES = 36;    // "M" is 18 pixels wide
inline constexpr uint32_t ENC_OSD_BG_COLOR = 0x7C1F;

// HSCC_CAL_SetTimestamp: stores the three settings; nothing is redrawn or
// attached until the next update and the next second. Returns 0.
int _enc_set_timestamp(cal_t* cal, int on, int date_fmt, int hour12);
// HSCC_CAL_SetTimeFont: 512 bytes of data into glyph row index; 0, or -1
// when index is not 0 .. 19.
int _enc_copy_timefont(cal_t* cal, const unsigned char* data, int index);
// Creates and attaches camera ch's overlay region on its REC group, at the
// bottom left of a picture height pixels high; 0, or -1 (width unused).
int _enc_init_osd_insert(cal_t* cal, int ch, int width, int height);
// Detaches and destroys camera ch's overlay region; returns 0.
int _enc_exit_osd_insert(cal_t* cal, int ch);
// Redraws every attached camera's overlay with the local time of secs and
// hands the pictures to their regions.
void _draw_enc_osd(cal_enc_t* enc, time_t secs);
// The overlay's line for a local time: 19 characters, or 22 with AM/PM.
// out holds at least ENC_OSD_LINE_MAX + 1 bytes. Returns the length.
int _enc_osd_line(const struct tm* tm, int date_fmt, int hour12, char* out);

struct venc_stream_t;

// The thread function of thread_enc.
int cal_enc_thread(void* arg);

// Routes one frame of encoder channel v; 0, or -1 for an oversized frame.
int _parse_enc_ebuf(cal_enc_t* enc, int v, const venc_stream_t* stream);

// Makes record slot `slot` ready for a frame of `size` bytes at second
// `secs`, handing over the current buffer when it is full or stale; 0, or
// -1 when no buffer can hold such a frame. The slot may stay empty.
int _check_ebuf(cal_enc_t* enc, int slot, int size, uint32_t secs);

// Gives a frame stamped msec (ms) its slot in the second; the frame index,
// or -1 when the frame must not be used. now is time(NULL).
int _calc_timing(cal_enc_t* enc, cal_enc_stream_t* s, uint64_t msec, time_t now);
