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

#include <cstdint>
#include <ctime>

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
    int max_fd;
    kel_thread_t* thread_enc;  // "cal_enc_thread"
    pthread_mutex_t muxex;
    int reserved1;
    int ref_fps[CAL_ENC_MAX_CAM];  // input frame rate per camera
    cal_enc_stream_t rec[CAL_ENC_MAX_CAM];
    cal_enc_stream_t net[CAL_ENC_MAX_CAM];
    cal_enc_stream_t rec_low[CAL_ENC_MAX_CAM];
    cal_enc_stream_t net_low[CAL_ENC_MAX_CAM];
    int jpg_on[CAL_ENC_MAX_CAM];
    int copy_on[CAL_ENC_MAX_CAM];
    int copy_wait_key[CAL_ENC_MAX_CAM];
    unsigned char* bs_buf;  // JPEG staging buffer, page aligned
    int bs_size;
    int bs_len;
    int reserved2;
    kel_thread_t* thread_jpg;  // "cal_jpeg_thread"
    int msgid_ce_enc;
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

// ---- encoder thread and stream records --------------------------------------

// Frame limits of the routing.
inline constexpr int ENC_REC_FRAME_MAX = 2074023;   // larger record frames are refused
inline constexpr int ENC_NET_FRAME_MAX = 2096099;   // larger network frames are refused
inline constexpr int ENC_EBUF_NEED = 0x100000;      // data area of a new record buffer
inline constexpr int ENC_EBUF_MAX_FRAMES = 479;

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
