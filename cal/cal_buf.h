// Stream buffers: the record buffers (ebuf), the network frame blocks (nbuf)
// with their descriptors, the snapshot descriptors and the decode buffers
// (dbuf), their pools, and their hand-off between
// threads.
//
// The record buffer and the decode buffer are laid out byte for byte as the
// master sees them (little-endian, offsets checked below). The network
// descriptor keeps a native pointer inside the process; nbuf_desc_to_wire
// produces the 28 bytes the master receives.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

static_assert(std::endian::native == std::endian::little, "the master's records are little-endian");

// ---- record buffer --------------------------------------------------------

inline constexpr int EBUF_MAX_MMD = 480;       // frame entries in the index
inline constexpr int EBUF_HEADER_SIZE = 22104;

// One frame of a record buffer's index (40 bytes).
struct ebuf_mmd_t {
    uint8_t cam;          // recorder-wide camera number
    uint8_t frame_idx;    // index of the frame within its second
    uint8_t low;          // 0 main recording stream, 1 low recording stream
    uint8_t key;          // 1 when the frame begins with a sequence parameter set
    uint16_t width;
    uint16_t height;
    uint8_t fps;
    uint8_t quality;
    uint8_t reserved10;   // 0
    uint8_t reserved11;
    uint8_t const12;      // 2
    uint8_t const13;      // 2
    uint8_t reserved14[14];
    uint32_t sec_of_day;  // seconds since local midnight
    uint32_t data;        // in the slave: low 32 bits of the frame's address;
                          // in the master's copy: offset from the start of buf
    uint32_t len;         // frame length in bytes
};
static_assert(sizeof(ebuf_mmd_t) == 40);
static_assert(offsetof(ebuf_mmd_t, width) == 4);
static_assert(offsetof(ebuf_mmd_t, height) == 6);
static_assert(offsetof(ebuf_mmd_t, fps) == 8);
static_assert(offsetof(ebuf_mmd_t, quality) == 9);
static_assert(offsetof(ebuf_mmd_t, const12) == 12);
static_assert(offsetof(ebuf_mmd_t, const13) == 13);
static_assert(offsetof(ebuf_mmd_t, sec_of_day) == 28);
static_assert(offsetof(ebuf_mmd_t, data) == 32);
static_assert(offsetof(ebuf_mmd_t, len) == 36);

// A record buffer: the 22104-byte header, then buf_size bytes of frame data.
struct ebuf_t {
    uint8_t reserved0[8];
    ebuf_mmd_t mmd[EBUF_MAX_MMD];
    uint32_t mmd_time[EBUF_MAX_MMD];  // frame time, seconds since 1970 (UTC)
    uint8_t mmd_mday[EBUF_MAX_MMD];   // day of the month, local time
    uint8_t mmd_attr[EBUF_MAX_MMD];   // attribute byte of the stream
    int32_t num_mmd;                  // valid entries (at most 479)
    int32_t buf_off;                  // bytes of buf used
    int32_t buf_size;                 // capacity of buf
    uint8_t reserved22100[4];
    uint8_t buf[];                    // frame data, back to back in entry order
};
static_assert(sizeof(ebuf_t) == EBUF_HEADER_SIZE);
static_assert(offsetof(ebuf_t, mmd) == 8);
static_assert(offsetof(ebuf_t, mmd_time) == 19208);
static_assert(offsetof(ebuf_t, mmd_mday) == 21128);
static_assert(offsetof(ebuf_t, mmd_attr) == 21608);
static_assert(offsetof(ebuf_t, num_mmd) == 22088);
static_assert(offsetof(ebuf_t, buf_off) == 22092);
static_assert(offsetof(ebuf_t, buf_size) == 22096);
static_assert(offsetof(ebuf_t, buf) == EBUF_HEADER_SIZE);

// ---- network frame descriptor -----------------------------------------------

inline constexpr int NBUF_DESC_WIRE_SIZE = 28;

struct nbuf_desc_t {
    uint16_t year;        // local time of the frame
    uint8_t mon;          // 1 .. 12
    uint8_t mday;         // 1 .. 31
    uint32_t msec;        // milliseconds since local midnight
    uint16_t reserved8;   // 0
    uint16_t key;         // 1 for a key frame
    uint16_t width;
    uint16_t height;
    uint8_t fps;
    uint8_t const17;      // 1
    uint8_t const18;      // 2
    uint8_t reserved19;   // 0
    uint32_t len;         // frame length in bytes
    unsigned char* data;  // the nbuf block holding the frame
};
static_assert(offsetof(nbuf_desc_t, msec) == 4);
static_assert(offsetof(nbuf_desc_t, key) == 10);
static_assert(offsetof(nbuf_desc_t, width) == 12);
static_assert(offsetof(nbuf_desc_t, fps) == 16);
static_assert(offsetof(nbuf_desc_t, len) == 20);
static_assert(offsetof(nbuf_desc_t, data) == 24);
static_assert(sizeof(void*) != 4 || sizeof(nbuf_desc_t) == NBUF_DESC_WIRE_SIZE,
              "on the chip the descriptor is its own wire image");

// Writes the 28 bytes the master receives: the fields as they are, the data
// pointer as its low 32 bits.
void nbuf_desc_to_wire(const nbuf_desc_t& desc, unsigned char out[NBUF_DESC_WIRE_SIZE]);

// ---- snapshot descriptor ----------------------------------------------------

inline constexpr int JPG_DESC_WIRE_SIZE = 16;
inline constexpr int JPG_BATCH_MAX = 9;  // pictures the JPEG thread sends at once

// One per JPEG picture, handed with the picture's block to the JPEG transfer.
struct jpg_desc_t {
    int32_t jpg_on;       // the camera's JPEG switch when the picture was taken
    uint32_t time;        // seconds since the epoch when it was stored
    uint32_t len;         // picture length in bytes
    unsigned char* data;  // the picture's heap block (the transfer frees it)
};
static_assert(offsetof(jpg_desc_t, time) == 4);
static_assert(offsetof(jpg_desc_t, len) == 8);
static_assert(offsetof(jpg_desc_t, data) == 12 || sizeof(void*) != 4);
static_assert(sizeof(void*) != 4 || sizeof(jpg_desc_t) == JPG_DESC_WIRE_SIZE,
              "on the chip the descriptor is its own wire image");

// ---- decode buffer ----------------------------------------------------------

inline constexpr int DBUF_MAX_VDEC = 240;
inline constexpr int DBUF_HEADER_SIZE = 12008;

// A playback record as the master writes it: the 12008-byte index, whose
// last member buf begins at 12004, then the frame data. A dbuf of the slave
// is one block of DBUF_HEADER_SIZE + buf_size bytes; reach the data through
// dbuf_data(), since it runs past the declared end of buf.
struct dbuf_t {
    uint8_t reserved0[4];
    int32_t num_vdec;                   // frames in the record, 0 .. 240
    int32_t cam[DBUF_MAX_VDEC];         // recorder-wide camera of each frame
    uint8_t reserved968[960];
    int32_t len[DBUF_MAX_VDEC];         // frame lengths
    uint8_t reserved2888[960];
    uint8_t reserved3848[1920];         // per-frame 64-bit values
    int16_t width[DBUF_MAX_VDEC];
    int16_t height[DBUF_MAX_VDEC];
    uint8_t show[DBUF_MAX_VDEC];        // 1: shown in skip-show mode
    uint8_t key[DBUF_MAX_VDEC];         // a waiting channel may resume here
    uint8_t quality[DBUF_MAX_VDEC];
    uint8_t fps[DBUF_MAX_VDEC];
    int32_t off[DBUF_MAX_VDEC];         // frame data offset from buf
    uint8_t reserved8648[2880];
    uint8_t reserved11528[404];
    uint32_t norec;                     // bit n: camera n has no recording
    int32_t year;
    int32_t mon;
    int32_t mday;
    uint8_t reserved11948[4];
    uint8_t sec_of_day[8];              // IEEE double, not used
    uint8_t reserved11960[12];
    int32_t skip_show;
    uint8_t reserved11976[20];
    int32_t buf_off;                    // bytes of frame data in buf
    int32_t buf_size;                   // capacity of buf
    uint8_t buf[4];
};
static_assert(sizeof(dbuf_t) == DBUF_HEADER_SIZE);
static_assert(offsetof(dbuf_t, num_vdec) == 4);
static_assert(offsetof(dbuf_t, cam) == 8);
static_assert(offsetof(dbuf_t, len) == 1928);
static_assert(offsetof(dbuf_t, width) == 5768);
static_assert(offsetof(dbuf_t, height) == 6248);
static_assert(offsetof(dbuf_t, show) == 6728);
static_assert(offsetof(dbuf_t, key) == 6968);
static_assert(offsetof(dbuf_t, quality) == 7208);
static_assert(offsetof(dbuf_t, fps) == 7448);
static_assert(offsetof(dbuf_t, off) == 7688);
static_assert(offsetof(dbuf_t, norec) == 11932);
static_assert(offsetof(dbuf_t, year) == 11936);
static_assert(offsetof(dbuf_t, sec_of_day) == 11952);
static_assert(offsetof(dbuf_t, skip_show) == 11972);
static_assert(offsetof(dbuf_t, buf_off) == 11996);
static_assert(offsetof(dbuf_t, buf_size) == 12000);
static_assert(offsetof(dbuf_t, buf) == 12004);

inline unsigned char* dbuf_data(dbuf_t* d)
{
    return reinterpret_cast<unsigned char*>(d) + offsetof(dbuf_t, buf);
}

// ---- pools --------------------------------------------------------------------
//
// Blocks are 16-byte aligned. Each pool has its own lock, held only inside
// these calls, and running totals of what is currently allocated. The pools
// have no ceiling of their own: users check the totals before allocating.
// A negative size is a broken invariant ("buf_size<0", level 3, abort).

// Header + size bytes; sets buf_size, buf_off = 0 and num_mmd = 0 only.
ebuf_t* ebuf_malloc(int size);
void ebuf_free(ebuf_t* ebuf);  // NULL is ignored
int ebuf_get_total_size();
int ebuf_get_cnt();

unsigned char* nbuf_malloc(int size);
void nbuf_free(unsigned char* block, int size);  // size as allocated; NULL is ignored
int nbuf_get_total_size();
int nbuf_get_cnt();

// 12008 + size bytes; sets buf_size and clears num_vdec, buf_off, norec and
// skip_show. The decode pool keeps no count.
dbuf_t* dbuf_malloc(int size);
void dbuf_free(dbuf_t* dbuf);  // NULL is ignored
int dbuf_get_total_size();

// Diagnostic prints: one buffer, or the pool's totals.
void ebuf_dump(const ebuf_t* ebuf);
void ebuf_dump();
void dbuf_dump(const dbuf_t* dbuf);
void dbuf_dump();

// ---- hand-off between threads -------------------------------------------------

// Pool ceilings the producers respect before allocating.
inline constexpr int EBUF_TOTAL_LIMIT = 0x3000000;
inline constexpr int NBUF_TOTAL_LIMIT = 0x1000000;

// Messages of the queues MSG_KEY_ENCR and MSG_KEY_ENCN: a type word and a
// 52-byte body; every send and receive uses the full body size. The queues
// only carry pointers within this process.
inline constexpr int TX_MSG_BODY_SIZE = 52;
inline constexpr long MSG_CMD_ENC_DATA = 67;

struct tx_msg_t {
    long type;
    union {
        unsigned char body[TX_MSG_BODY_SIZE];
        struct {
            ebuf_t* ebuf;         // the full record buffer
        } encr;
        struct {
            int32_t reserved;
            int32_t stream;       // stream number of the frame
            nbuf_desc_t desc;
        } encn;
    };
};
static_assert(offsetof(tx_msg_t, encr.ebuf) == offsetof(tx_msg_t, body));
static_assert(offsetof(tx_msg_t, encn.stream) == offsetof(tx_msg_t, body) + 4);
static_assert(offsetof(tx_msg_t, encn.desc) == offsetof(tx_msg_t, body) + 8);
static_assert(offsetof(tx_msg_t, encn.desc) + sizeof(nbuf_desc_t) <= offsetof(tx_msg_t, body) + TX_MSG_BODY_SIZE,
              "a native descriptor fits the body");
