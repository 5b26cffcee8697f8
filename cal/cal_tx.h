// Hand-off of encoded streams to the master: the encoder thread posts
// record buffers and network frames on two queues; the transmit threads take
// them off and give them to the host-slave channel's transfers.
#pragma once

#include "cal/cal_buf.h"

struct cal_t;

// Largest byte total of a network batch before one more frame (the 2 MiB
// network window, with room to spare).
inline constexpr int TX_ENCN_MAX_BYTES = 2096099;
inline constexpr int TX_ENCN_MAX_FRAMES = 128;

// Posts a full record buffer for tx_encr_thread. On a failed send the buffer
// is freed: in both cases it no longer belongs to the caller. Returns 0 or
// the negative send result.
int cal_notify_ebuf(cal_t* cal, ebuf_t* ebuf);

// Posts one network frame (its block is desc.data, desc.len bytes) of
// slave-local camera cam; the stream number sent is cam + cam_base + offset.
// On a failed send the block is freed. Returns 0 or the negative send result.
int cal_notify_nbuf(cal_t* cal, int cam, const nbuf_desc_t& desc, int offset);

// Thread functions of the core's thread_encr and thread_encn; the argument
// is the cal_t.
int tx_encr_thread(void* arg);
int tx_encn_thread(void* arg);
