// The decoder module: playback of recorded video that the master hands down.
//
// The intake thread "cal_recv_dec_thread" pulls each transfer announced on
// MSGPORT_DEC into the landing buffer, copies every record into a dbuf of
// its own and posts it to the decode queue. The decode thread
// "cal_vdec_thread" takes the queue in order: data (dbufs) and the
// master's start, stop and flush requests alike, so each request takes
// effect exactly between the dbufs queued before it and those after it.
// Decoder channel k decodes slave-local camera k into processing group k.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "cal/cal_buf.h"
#include "cal/cal_mod.h"

struct cal_t;
struct kel_thread_t;

inline constexpr int CAL_DEC_MAX_CHN = 32;
inline constexpr key_t MSG_KEY_CE_DEC = 0x63646501;

// Transfers on MSGPORT_DEC.
inline constexpr uint32_t HSCC_DEC_Dbuf = 0x70000;   // one record at offset 0
inline constexpr uint32_t HSCC_DEC_Dbuf2 = 0x70001;  // two: at 0 and at the second offset

// The request of a transfer: payload words 0 and 1 for the exchange, and
// the second record's offset (message offset 36).
struct dec_xfer_req_t {
    uint32_t bytes;   // to pull
    uint32_t window;  // the master's window, 0 .. 3
    uint8_t master[12];
    uint32_t second;  // 0x70001: offset of the second record in the pulled bytes
};
static_assert(offsetof(dec_xfer_req_t, second) == 36 - 16);
static_assert(sizeof(dec_xfer_req_t) == 24);

// Messages of the decode queue.
enum : int32_t {
    MSG_CMD_EXIT = 1,
    MSG_CMD_DEC_START = 0x110,
    MSG_CMD_DEC_STOP = 0x210,
    MSG_CMD_DEC_FLUSH = 0x410,
    MSG_CMD_DBUF_WRITE = 0x510,
};

// Type 1; the body is five words on the chip (code, 0, 0, argument, dbuf).
// Off the chip the last word is a native pointer, and the body grows with it.
struct dec_msg_t {
    long type;
    int32_t code;
    int32_t zero1;
    int32_t zero2;
    int32_t arg;
    dbuf_t* dbuf;
};
inline constexpr size_t DEC_MSG_BODY_SIZE = sizeof(dec_msg_t) - offsetof(dec_msg_t, code);
static_assert(offsetof(dec_msg_t, dbuf) - offsetof(dec_msg_t, code) == 16);
static_assert(sizeof(void*) != 4 || DEC_MSG_BODY_SIZE == 20, "on the chip the body is five words");

// Room for a frame and the 1024 zero bytes the decoder reads past its end.
inline constexpr int DEC_STAGING_SIZE = 0x200000 + 4;
inline constexpr int DEC_PAD = 1024;
inline constexpr int DEC_MAX_FRAME = DEC_STAGING_SIZE - DEC_PAD - 4;  // 2,096,132

// Back-pressure: the acknowledgement of a transfer waits while more than
// DEC_BACKLOG dbufs are queued, up to DEC_HOLD_TRIES waits of DEC_HOLD_US.
inline constexpr int DEC_BACKLOG = 2;
inline constexpr int DEC_HOLD_TRIES = 100;
inline constexpr uint32_t DEC_HOLD_US = 10000;

struct cal_dec_chan_t {
    int vdec_chn;   // decoder channel k
    int vpss_grp;   // processing group k
    int wait_key;   // frames are skipped until one with its key mark
    int since_key;  // frames since the last key mark
    int width;      // of the last frame sent (0 after a start)
    int height;
    int fps;        // last reported (kept across starts)
    int quality;
};

struct cal_dec_t {
    pthread_mutex_t muxex;
    int running;                // 1 between a start and a stop of decoding
    kel_thread_t* thread_vdec;  // "cal_vdec_thread"
    kel_thread_t* thread_recv;  // "cal_recv_dec_thread"
    cal_t* cal;
    int num;                    // decoder channels = slave_cam
    cal_dec_chan_t chan[CAL_DEC_MAX_CHN];
    uint32_t norec;             // the no-record mask last examined
    int rep_width[CAL_DEC_MAX_CHN];   // size last reported by the change line
    int rep_height[CAL_DEC_MAX_CHN];
    int msgid;                  // the decode queue
    std::atomic<int> flush_pending;   // a flush is on its way through the queue
    int skip_show;              // 0: channels bound to their groups
    std::atomic<int> num_dbuf;  // dbufs queued and not yet consumed
    unsigned char staging[DEC_STAGING_SIZE];  // the frame being sent, then zeros
    int size;                   // sizeof(cal_dec_t)
};

extern const cal_mod_t cal_dec_mod;

// NULL when slave_cam is above 32 (compared unsigned).
cal_dec_t* cal_dec_new(cal_t* cal);
void cal_dec_delete(cal_dec_t* dec);
int cal_dec_start(cal_dec_t* dec);
int cal_dec_stop(cal_dec_t* dec);

// The master's requests: 1 start (arg carried), 2 stop, 3 flush; -1 for
// any other cmd.
int cal_mc_dec_cmd(cal_t* cal, int cmd, int arg);
// Status reply: the decode thread's heartbeat at payload offset 48.
int cal_m_dec_get_heart(cal_t* cal, unsigned char* payload);

// Intake (dec_recv.cpp).
int cal_recv_dec_thread(void* arg);
int _mc_dec_notify_dbuf(cal_t* cal, dbuf_t* dbuf);
int cal_dec_num_dbuf(cal_t* cal);
// Copies the records of one pulled transfer (msg as answered, bytes at
// `landing`) into dbufs and posts them; the number posted. Records the
// master got wrong are refused with a trace and nothing else.
int dec_take_transfer(cal_dec_t* dec, const hsc_msg_t* msg, const unsigned char* landing);

// Decoding (dec_thread.cpp).
int cal_vdec_thread(void* arg);
// Acts on one message of the decode queue.
void dec_handle_msg(cal_dec_t* dec, const dec_msg_t& msg);
int start_dec(cal_dec_t* dec);
int stop_dec(cal_dec_t* dec);
int _dec_chip_init(cal_t* cal);
int _dec_process_start(cal_t* cal);
int _dec_process_stop(cal_t* cal);
int _dec_chip_exit(cal_t* cal);
int _bind_unbind(cal_dec_t* dec, int unbind);
int dec_dbuf(cal_dec_t* dec, dbuf_t* dbuf);
int _decode_vdec(cal_dec_t* dec, int ch, const unsigned char* data, int len, int show, uint32_t norec);
void _dec_getquery(cal_dec_t* dec, int ch, uint32_t norec);
