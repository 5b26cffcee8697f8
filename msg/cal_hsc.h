// The host-slave channel: the slave's end of all traffic with the master.
//
// It opens the six message ports, keeps four local 2 MiB transfer buffers
// that the PCI DMA engine reaches and the master's four receive windows,
// carries commands and replies on MSGPORT_CAL, and pairs each bulk transfer
// with its notification on the port of its kind.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "cal/cal_buf.h"
#include "msg/pciv_msg.h"

struct cal_t;

// Ports towards the master (target 0), one thread each.
inline constexpr int MSGPORT_CAL = 102;     // commands, replies, the announcement
inline constexpr int MSGPORT_ENCR = 103;    // recording stream
inline constexpr int MSGPORT_ENCN = 104;    // network streams
inline constexpr int MSGPORT_VIN = 105;     // video input reports
inline constexpr int MSGPORT_ENCJPG = 106;  // JPEG snapshots
inline constexpr int MSGPORT_DEC = 107;     // playback transfers

// Codes of the messages the slave originates.
inline constexpr uint32_t HSC_MSG_ANNOUNCE = 0x20000;
inline constexpr uint32_t HSC_MSG_ENCR = 0x30000;
inline constexpr uint32_t HSC_MSG_ENCN = 0x40000;
inline constexpr uint32_t HSC_MSG_VIN = 0x50000;
inline constexpr uint32_t HSC_MSG_JPG = 0x60000;

// Local buffers and the master's windows, by kind.
inline constexpr int HSC_NUM_BUF = 4;
inline constexpr uint32_t HSC_BUF_SIZE = 0x200000;
enum : int {
    HSC_BUF_JPG = 0,
    HSC_BUF_ENCR = 1,
    HSC_BUF_ENCN = 2,
    HSC_BUF_DEC = 3,
};

inline constexpr int HSC_ENCN_MAX_FRAMES = 128;
inline constexpr int HSC_JPG_MAX_PICS = 10;
inline constexpr int HSC_MD_BODY_SIZE = 128;

// A message on any port: 16-byte header, payload of at most 532 bytes.
struct hsc_msg_t {
    uint32_t id;      // echoed in the reply to a command
    uint32_t cmd;     // message code
    uint32_t len;     // payload bytes; on receipt, what actually arrived
    int32_t result;   // a reply's result; 0 in what the slave originates
    unsigned char data[PCIV_MSG_MAX_PAYLOAD];
};
static_assert(sizeof(hsc_msg_t) == PCIV_MSG_MAX_SIZE);
static_assert(offsetof(hsc_msg_t, len) == 8);
static_assert(offsetof(hsc_msg_t, data) == PCIV_MSG_HEAD_SIZE);

// Payloads of the notifications (little-endian, as the master reads them).
struct hsc_encr_note_t {
    uint32_t window;  // host window index
    uint32_t bytes;   // bytes written into the window
    uint32_t frames;  // num_mmd of the record
    uint32_t zero;
};
static_assert(sizeof(hsc_encr_note_t) == 16);

struct hsc_encn_note_t {
    uint32_t window;
    uint32_t bytes;
    uint32_t count;
    uint8_t stream[HSC_ENCN_MAX_FRAMES];  // low 8 bits of each frame's stream number
};
static_assert(sizeof(hsc_encn_note_t) == 140);

struct hsc_jpg_wire_desc_t {
    int32_t jpg_on;
    uint32_t time;
    uint32_t len;
    uint32_t offset;  // the picture's offset in the window
};
static_assert(sizeof(hsc_jpg_wire_desc_t) == JPG_DESC_WIRE_SIZE);

struct hsc_jpg_note_t {
    uint32_t window;
    uint32_t bytes;
    uint32_t count;
    uint32_t stream[HSC_JPG_MAX_PICS];
    hsc_jpg_wire_desc_t desc[HSC_JPG_MAX_PICS];
};
static_assert(sizeof(hsc_jpg_note_t) == 212);
static_assert(offsetof(hsc_jpg_note_t, desc) == 52);

struct hsc_md_note_t {
    int32_t cam;  // recorder-wide camera number
    uint8_t body[HSC_MD_BODY_SIZE];
};
static_assert(sizeof(hsc_md_note_t) == 132);

// HSCC_CAL_GetDmaInfo reply and HSCC_CAL_SetDmaInfo request.
struct hsc_dma_info_t {
    uint32_t dma_index;
    uint32_t addr[HSC_NUM_BUF];
};
static_assert(sizeof(hsc_dma_info_t) == 20);

struct cal_hsc_t {
    int num;                  // cameras on the slave
    cal_t* cal;
    std::mutex muxex;         // guards last_time, cnt and bytes
    uint32_t phys_addr[HSC_NUM_BUF];        // local buffers
    unsigned char* virt_addr[HSC_NUM_BUF];  // the same, mapped
    // Written by the main thread (set by command), read by the transfer
    // threads: single words.
    std::atomic<int> dma_index;
    std::atomic<uint32_t> host_phys_addr[HSC_NUM_BUF];  // master's windows; 0 until set
    int last_time;            // seconds of the last statistics line
    int cnt[3];               // transfers in this 10-second slot: recording, network, JPEG
    int bytes[3];
    int size;                 // sizeof(cal_hsc_t)
};

// NULL when slave_cam is above 32 (compared unsigned). Waits without limit
// for the master, opens the ports and announces the slave.
cal_hsc_t* cal_hsc_new(cal_t* cal);
// Frees the object only; ports and buffers stay.
void cal_hsc_delete(cal_hsc_t* hsc);
int _init_port();

int cal_hsc_read_msg(cal_t* cal, hsc_msg_t* msg);
int cal_hsc_write_msg(cal_t* cal, hsc_msg_t* msg);
int cal_hsc_set_dma_info(cal_t* cal, hsc_msg_t* msg);
int cal_hsc_get_dma_info(cal_t* cal, hsc_msg_t* msg);
// Counts one transfer of e recording, n network or j JPEG bytes.
void _calc_dma(cal_hsc_t* hsc, int e, int n, int j);

// Transfers to the master. Each returns -1 with nothing sent and the data
// left with the caller when the windows are not set (or the batch is not
// acceptable); otherwise it copies, runs one DMA, notifies and waits for the
// master's answer, and returns 0.
int cal_hsc_send_ebuf(cal_t* cal, const ebuf_t* ebuf);  // the record stays the caller's
// Frees each frame's block with nbuf_free once it is copied.
int cal_hsc_send_nbuf(cal_t* cal, const int* channels, const nbuf_desc_t* descs, int n, int total);
// Frees each picture's block (plain heap memory) once it is copied.
int cal_hsc_send_jpg(cal_t* cal, const int* channels, const jpg_desc_t* descs, int n, int total);
// Returns the result of the write.
int cal_hsc_send_md(cal_t* cal, int cam, const unsigned char* body);

// Playback transfer: waits for the master's request on MSGPORT_DEC (no
// time limit; timeout is not applied), pulls the announced bytes from its
// window into local buffer 3, holds the answer back while the decoder is
// behind, answers with id 0, and gives buffer 3's address in *landing.
// A request for more than the buffer or naming no window pulls nothing:
// it is answered with result -1 and *landing is NULL. -1 when no request
// could be read.
int cal_hsc_read_dec(cal_t* cal, hsc_msg_t* msg, int timeout, unsigned char** landing);
// The decoder's count of queued records, for the hold above (dec/).
int cal_dec_num_dbuf(cal_t* cal);
