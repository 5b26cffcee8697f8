// Wire records of the master side: the port hello, the message header, the
// command payloads the master builds or reads, the notification payloads and
// the contents a slave writes into the master's windows. These are the
// master's own definitions, laid out from the byte tables of the protocol;
// every size and offset is checked at compile time.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

namespace tmaster {

static_assert(std::endian::native == std::endian::little,
              "the master reads little-endian records in place");

// ---- board and ports -------------------------------------------------------

inline constexpr uint32_t HELLO_MAGIC = 0x3143434D;
inline constexpr int MAX_SLAVE_CHIP = 14;

inline constexpr int PORT_CAL = 102;     // commands, replies, the announcement
inline constexpr int PORT_ENCR = 103;    // record buffers
inline constexpr int PORT_ENCN = 104;    // network batches
inline constexpr int PORT_VIN = 105;     // motion reports
inline constexpr int PORT_ENCJPG = 106;  // snapshot batches
inline constexpr int PORT_DEC = 107;     // playback transfers
inline constexpr int PORT_HANDSHAKE = 1000;
inline constexpr int NUM_PORTS = 6;      // 102 .. 107

constexpr bool is_slave_port(int port) { return port >= PORT_CAL && port <= PORT_DEC; }
constexpr int port_slot(int port) { return port - PORT_CAL; }

inline constexpr uint64_t CHIP_MEM_SIZE = 256ull << 20;
inline constexpr uint32_t WINDOW_SIZE = 0x200000;  // each DMA window and local buffer
inline constexpr int NUM_WINDOWS = 4;

// Bus address of byte `offset` of chip `chip`'s memory.
constexpr uint32_t bus_address(int chip, uint32_t offset)
{
    return (static_cast<uint32_t>(chip + 1) << 28) | offset;
}

// True when [addr, addr + size) lies inside chip `chip`'s memory.
constexpr bool in_chip_range(int chip, uint32_t addr, uint32_t size)
{
    uint64_t lo = static_cast<uint64_t>(chip + 1) << 28;
    return addr >= lo && static_cast<uint64_t>(addr) + size <= lo + CHIP_MEM_SIZE;
}

struct hello_t {
    uint32_t magic;
    uint32_t chip;  // sender's chip id
    uint32_t port;
};
static_assert(sizeof(hello_t) == 12);

// ---- messages --------------------------------------------------------------

struct msg_head_t {
    uint32_t id;
    uint32_t cmd;
    uint32_t len;     // payload bytes after the header
    int32_t result;
};
static_assert(sizeof(msg_head_t) == 16);
static_assert(offsetof(msg_head_t, cmd) == 4);
static_assert(offsetof(msg_head_t, len) == 8);
static_assert(offsetof(msg_head_t, result) == 12);

inline constexpr size_t MSG_HEAD_SIZE = 16;
inline constexpr size_t MSG_MAX_PAYLOAD = 532;  // what a slave can receive
inline constexpr size_t PACKET_MAX = 4096;      // largest packet on the board

inline constexpr uint32_t CMD_ANNOUNCE = 0x20000;
inline constexpr uint32_t CMD_SET_DMA_INFO = 0x20001;
inline constexpr uint32_t CMD_SET_TZ = 0x20002;
inline constexpr uint32_t CMD_GET_DMA_INFO = 0x20003;
inline constexpr uint32_t CMD_GET_STATUS = 0x20004;
inline constexpr uint32_t CMD_SET_VINCAPS = 0x20200;
inline constexpr uint32_t CMD_SET_TIME = 0x20300;
inline constexpr uint32_t CMD_SET_ENC_VIDEO = 0x20301;
inline constexpr uint32_t CMD_RUN_ENC_VIDEO = 0x20302;
inline constexpr uint32_t CMD_UPDATE_ENC_VIDEO = 0x20308;
inline constexpr uint32_t CMD_SET_MD = 0x20201;
inline constexpr uint32_t CMD_SET_PRIVACY = 0x20307;

inline constexpr uint32_t NOTE_RECORD = 0x30000;
inline constexpr uint32_t NOTE_NETWORK = 0x40000;
inline constexpr uint32_t NOTE_MOTION = 0x50000;
inline constexpr uint32_t NOTE_JPEG = 0x60000;

// HSCC_CAL_SetDmaInfo request and HSCC_CAL_GetDmaInfo reply (20 bytes).
struct dma_info_t {
    uint32_t dma_index;  // word 0: unused in the request, the base index in the reply
    uint32_t addr[NUM_WINDOWS];
};
static_assert(sizeof(dma_info_t) == 20);
static_assert(offsetof(dma_info_t, addr) == 4);

// HSCC_CAL_GetStatus reply (56 bytes).
struct status_t {
    uint32_t heartbit;
    uint32_t fps[8];      // measured frame rate per camera (4 used on a 4-camera slave)
    uint32_t clock;       // slave's wall clock, seconds since the epoch
    uint64_t media_pts;   // media platform time stamp, microseconds
    uint32_t heart_vdec;  // decode thread heartbeat
    uint32_t heart_jpeg;  // snapshot thread heartbeat
};
static_assert(sizeof(status_t) == 56);
static_assert(offsetof(status_t, fps) == 4);
static_assert(offsetof(status_t, clock) == 36);
static_assert(offsetof(status_t, media_pts) == 40);
static_assert(offsetof(status_t, heart_vdec) == 48);
static_assert(offsetof(status_t, heart_jpeg) == 52);

// HSCC_CAL_SetTime request (8 bytes).
struct set_time_t {
    uint64_t usec;  // microseconds since the epoch
};
static_assert(sizeof(set_time_t) == 8);

// HSCC_CAL_SetMd request (8 bytes).
struct set_md_t {
    int32_t cam;        // recorder-wide camera number
    int32_t threshold;  // a cell whose difference is at least this has moved
};
static_assert(offsetof(set_md_t, threshold) == 4);
static_assert(sizeof(set_md_t) == 8);

// HSCC_CAL_SetPrivacy request (40 bytes): a rectangle in fractions of the
// picture; zero width or height removes the camera's mask.
struct set_privacy_t {
    int32_t cam;
    int32_t show;
    double x;
    double y;
    double w;
    double h;
};
static_assert(offsetof(set_privacy_t, x) == 8);
static_assert(offsetof(set_privacy_t, h) == 32);
static_assert(sizeof(set_privacy_t) == 40);

// HSCC_CAL_SetVincaps request (32 bytes).
struct vincaps_t {
    int32_t cam;   // recorder-wide camera number
    int32_t xres;  // 0 or less switches the camera's capture off
    int32_t yres;
    int32_t prog;  // 1 progressive, 0 interlaced
    double fps;
    uint32_t unused24;
    int32_t type;  // camera signal type
};
static_assert(sizeof(vincaps_t) == 32);
static_assert(offsetof(vincaps_t, xres) == 4);
static_assert(offsetof(vincaps_t, yres) == 8);
static_assert(offsetof(vincaps_t, prog) == 12);
static_assert(offsetof(vincaps_t, fps) == 16);
static_assert(offsetof(vincaps_t, type) == 28);

// Stream kinds of the set-video and run-video commands.
inline constexpr uint32_t KIND_REC = 0;
inline constexpr uint32_t KIND_NET = 1;
inline constexpr uint32_t KIND_JPEG = 2;
inline constexpr uint32_t KIND_NET_LOW = 4;
inline constexpr uint32_t KIND_COPY = 5;
inline constexpr uint32_t KIND_REC_LOW = 6;

// HSCC_CAL_SetEncVideo request (20 bytes; the slave reads 17).
struct enc_video_t {
    uint32_t kind;
    float fps;
    int16_t width;
    int16_t height;
    uint8_t cam;  // recorder-wide camera number
    uint8_t unused13[2];
    uint8_t quality;  // 1 .. 3
    uint8_t attr;     // carried into the record index
    uint8_t unused17[3];
};
static_assert(sizeof(enc_video_t) == 20);
static_assert(offsetof(enc_video_t, fps) == 4);
static_assert(offsetof(enc_video_t, width) == 8);
static_assert(offsetof(enc_video_t, height) == 10);
static_assert(offsetof(enc_video_t, cam) == 12);
static_assert(offsetof(enc_video_t, quality) == 15);
static_assert(offsetof(enc_video_t, attr) == 16);

// HSCC_CAL_RunEncVideo request (16 bytes).
struct run_video_t {
    uint32_t kind;
    uint32_t cam;    // recorder-wide camera number
    uint32_t onoff;  // 0 off
    uint32_t stop;   // stop value, kept by an off command
};
static_assert(sizeof(run_video_t) == 16);
static_assert(offsetof(run_video_t, cam) == 4);
static_assert(offsetof(run_video_t, onoff) == 8);
static_assert(offsetof(run_video_t, stop) == 12);

// HSCC_CAL_UpdatEncVideo request (16 bytes).
struct update_video_t {
    int16_t sync;  // not 0: align the slave's clocks with t
    int16_t fps;   // system frame rate
    uint32_t unused4;
    uint64_t t;    // microseconds since the epoch
};
static_assert(sizeof(update_video_t) == 16);
static_assert(offsetof(update_video_t, fps) == 2);
static_assert(offsetof(update_video_t, t) == 8);

// ---- window contents -------------------------------------------------------

// Frame entry of a record buffer (40 bytes).
struct mmd_t {
    uint8_t cam;        // recorder-wide camera number
    uint8_t frame_idx;  // index within its second
    uint8_t low;        // 0 main, 1 low recording stream
    uint8_t key;
    uint16_t width;
    uint16_t height;
    uint8_t fps;
    uint8_t quality;
    uint8_t reserved10;
    uint8_t reserved11;
    uint8_t const12;    // 2
    uint8_t const13;    // 2
    uint8_t reserved14[14];
    uint32_t sec_of_day;
    uint32_t data;      // offset from the start of the data area
    uint32_t len;
};
static_assert(sizeof(mmd_t) == 40);
static_assert(offsetof(mmd_t, width) == 4);
static_assert(offsetof(mmd_t, height) == 6);
static_assert(offsetof(mmd_t, fps) == 8);
static_assert(offsetof(mmd_t, quality) == 9);
static_assert(offsetof(mmd_t, const12) == 12);
static_assert(offsetof(mmd_t, const13) == 13);
static_assert(offsetof(mmd_t, sec_of_day) == 28);
static_assert(offsetof(mmd_t, data) == 32);
static_assert(offsetof(mmd_t, len) == 36);

inline constexpr int EBUF_ENTRIES = 480;
inline constexpr int EBUF_MAX_FRAMES = 479;

// Record buffer header (22104 bytes), followed by the data area.
struct ebuf_head_t {
    uint8_t reserved0[8];
    mmd_t mmd[EBUF_ENTRIES];
    uint32_t mmd_time[EBUF_ENTRIES];  // seconds since the epoch
    uint8_t mmd_mday[EBUF_ENTRIES];
    uint8_t mmd_attr[EBUF_ENTRIES];
    int32_t num_mmd;
    int32_t buf_off;
    int32_t buf_size;
    uint8_t reserved22100[4];
};
static_assert(sizeof(ebuf_head_t) == 22104);
static_assert(offsetof(ebuf_head_t, mmd) == 8);
static_assert(offsetof(ebuf_head_t, mmd_time) == 19208);
static_assert(offsetof(ebuf_head_t, mmd_mday) == 21128);
static_assert(offsetof(ebuf_head_t, mmd_attr) == 21608);
static_assert(offsetof(ebuf_head_t, num_mmd) == 22088);
static_assert(offsetof(ebuf_head_t, buf_off) == 22092);
static_assert(offsetof(ebuf_head_t, buf_size) == 22096);
inline constexpr uint32_t EBUF_HEAD_SIZE = sizeof(ebuf_head_t);

// Network frame descriptor (28 bytes), followed at once by the frame bytes.
struct nbuf_desc_t {
    uint16_t year;
    uint8_t mon;
    uint8_t mday;
    uint32_t msec;  // milliseconds since local midnight
    uint16_t reserved8;
    uint16_t key;
    uint16_t width;
    uint16_t height;
    uint8_t fps;
    uint8_t const17;  // 1
    uint8_t const18;  // 2
    uint8_t reserved19;
    uint32_t len;
    uint32_t data;  // the slave's own address, meaningless here
};
static_assert(sizeof(nbuf_desc_t) == 28);
static_assert(offsetof(nbuf_desc_t, mon) == 2);
static_assert(offsetof(nbuf_desc_t, mday) == 3);
static_assert(offsetof(nbuf_desc_t, msec) == 4);
static_assert(offsetof(nbuf_desc_t, key) == 10);
static_assert(offsetof(nbuf_desc_t, width) == 12);
static_assert(offsetof(nbuf_desc_t, height) == 14);
static_assert(offsetof(nbuf_desc_t, fps) == 16);
static_assert(offsetof(nbuf_desc_t, const17) == 17);
static_assert(offsetof(nbuf_desc_t, const18) == 18);
static_assert(offsetof(nbuf_desc_t, len) == 20);
static_assert(offsetof(nbuf_desc_t, data) == 24);

// Snapshot descriptor (16 bytes).
struct jpg_desc_t {
    uint32_t jpg_on;
    uint32_t time;  // seconds since the epoch
    uint32_t len;
    uint32_t data;  // offset of the picture in the window
};
static_assert(sizeof(jpg_desc_t) == 16);
static_assert(offsetof(jpg_desc_t, time) == 4);
static_assert(offsetof(jpg_desc_t, len) == 8);
static_assert(offsetof(jpg_desc_t, data) == 12);

// ---- notification payloads -------------------------------------------------

inline constexpr int NET_MAX_FRAMES = 128;
inline constexpr int JPG_MAX_PICTURES = 10;
inline constexpr int MD_ROWS = 32;
inline constexpr int MD_CELL_ROWS = 18;  // rows that carry cells

struct record_note_t {  // 0x30000, 16 bytes
    uint32_t window;
    uint32_t bytes;
    uint32_t frames;
    uint32_t zero;
};
static_assert(sizeof(record_note_t) == 16);

struct network_note_t {  // 0x40000, 140 bytes
    uint32_t window;
    uint32_t bytes;
    uint32_t frames;
    uint8_t stream[NET_MAX_FRAMES];  // low 8 bits of each frame's stream number
};
static_assert(sizeof(network_note_t) == 140);
static_assert(offsetof(network_note_t, stream) == 12);

struct jpeg_note_t {  // 0x60000, 212 bytes
    uint32_t window;
    uint32_t bytes;
    uint32_t count;
    uint32_t stream[JPG_MAX_PICTURES];
    jpg_desc_t desc[JPG_MAX_PICTURES];
};
static_assert(sizeof(jpeg_note_t) == 212);
static_assert(offsetof(jpeg_note_t, stream) == 12);
static_assert(offsetof(jpeg_note_t, desc) == 52);

struct motion_note_t {  // 0x50000, 132 bytes
    uint32_t cam;  // recorder-wide camera number
    uint32_t rows[MD_ROWS];
};
static_assert(sizeof(motion_note_t) == 132);

// ---- reading records out of untrusted bytes --------------------------------

// Copies a T out of bytes at `offset`; the caller has checked the bounds.
template <typename T>
T load_at(std::span<const uint8_t> bytes, size_t offset)
{
    static_assert(std::is_trivially_copyable_v<T>);
    T v;
    std::memcpy(&v, bytes.data() + offset, sizeof(T));
    return v;
}

// Copies a T out of the front of bytes, zero-filling what is missing.
template <typename T>
T load_prefix(std::span<const uint8_t> bytes)
{
    static_assert(std::is_trivially_copyable_v<T>);
    T v{};
    if (!bytes.empty())
        std::memcpy(&v, bytes.data(), bytes.size() < sizeof(T) ? bytes.size() : sizeof(T));
    return v;
}

}  // namespace tmaster
