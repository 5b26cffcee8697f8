// The JPEG snapshots: the thread that takes one picture per camera about
// once per second with a JPEG channel that lives only for that picture,
// and the batch that carries a pass's pictures to the master.
#pragma once

#include <cstdint>

#include "cal/cal_buf.h"
#include "enc/cal_enc.h"

struct cal_t;
struct venc_stream_t;

// A picture is assembled in bs_buf; one whose packs add up to more than
// this is dropped.
inline constexpr int ENC_JPG_STAGE_MAX = 0xFFBFF;     // 1047551 bytes
// A batch goes before it would pass 9 pictures or this many bytes.
inline constexpr int ENC_JPG_BATCH_BYTES = 0x1FFBFF;  // 2096127 bytes
inline constexpr int ENC_JPG_WAIT_MS = 300;
inline constexpr uint32_t ENC_JPG_QFACTOR = 50;
inline constexpr int ENC_JPG_TARGET_FPS = 5;
inline constexpr int ENC_JPG_FIRST_DELAY_MS = 5000;
inline constexpr int ENC_JPG_PASS_MS = 1000;

// The transfer a batch is handed to (cal_hsc_send_jpg): it frees the
// blocks it sent; -1 leaves them with the caller.
using jpg_send_fn = int (*)(cal_t* cal, const int* channels, const jpg_desc_t* descs, int n, int total);

// The pictures of one pass until they are handed over. The batch owns the
// blocks it holds: what the transfer did not take is freed once, when the
// batch is sent, cleared or destroyed.
class jpg_batch_t {
public:
    explicit jpg_batch_t(cal_t* cal, jpg_send_fn send);
    ~jpg_batch_t();
    jpg_batch_t(const jpg_batch_t&) = delete;
    jpg_batch_t& operator=(const jpg_batch_t&) = delete;

    int count() const { return count_; }
    int total() const { return total_; }
    // Whether a picture of len bytes must wait for the next batch.
    bool full_for(uint32_t len) const;
    // Takes the block (len bytes) of stream number stream; the batch must
    // have room (full_for is false).
    void add(int stream, int32_t jpg_on, uint32_t time, unsigned char* block, uint32_t len);
    // Hands the pictures over and empties the batch; the transfer's result
    // (0 when there was nothing to send). On -1 the blocks are freed here:
    // those pictures are lost.
    int send();

private:
    void clear();

    cal_t* cal_;
    jpg_send_fn send_;
    int stream_[JPG_BATCH_MAX];
    jpg_desc_t desc_[JPG_BATCH_MAX];
    int count_ = 0;
    int total_ = 0;
};

// The thread function of thread_jpg.
int cal_jpeg_thread(void* arg);
// One camera's snapshot: the channel made, one picture waited for and
// kept in batch, the channel torn down again.
void _enc_jpeg_step(cal_enc_t* enc, int ch, jpg_batch_t* batch);
// Unbinds JPEG group 32 + ch from its source and stops its receiving; 0,
// or -1 when stopping fails (0 at once when the unbinding fails).
int _enc_unbind_jpeg(cal_enc_t* enc, int ch);

// Copies a picture's packs in order into bs_buf while they fit the staging
// limit; returns the length of all packs (copied or not).
int _enc_jpeg_gather(cal_enc_t* enc, const venc_stream_t* stream);
// Keeps the staged picture of total bytes for camera ch in batch, sending
// the batch first when the picture does not fit it; a picture above the
// staging limit is dropped with its trace. 0 kept, -1 dropped.
int _enc_jpeg_keep(cal_enc_t* enc, int ch, int total, jpg_batch_t* batch);
