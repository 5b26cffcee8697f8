// The decoding behind the simulated decoder channels: each channel's stream
// buffer (access units waiting, bounded by the channel's buffer size), its
// decoder, and the pictures it keeps for HI_MPI_VDEC_GetImage. One thread
// ("sim_vdec", at a lower priority of its own) decodes for all channels in
// turn, so decoding never runs on a thread of the slave and never takes
// more than one processor.
//
// A decoded picture goes to the processing group bound to its channel
// (counted in the core) or, when none is, waits in the channel until it is
// fetched; a channel holding SIM_VDEC_MAX_HELD pictures stops decoding.
#pragma once

#include <cstdint>

#include "platform/hi_mpi_vdec.h"

inline constexpr int SIM_VDEC_MAX_HELD = 4;

void sim_vdec_engine_open();
void sim_vdec_engine_close();

// Drops everything channel chn holds (units, pictures, the decoder's state).
void sim_vdec_engine_reset(int32_t chn);

// Queues one access unit (copied) when the channel's buffer has room for it
// within wait_ms (-1: no limit); 0, or hi_err(VDEC, HI_ERR_BUF_FULL).
int32_t sim_vdec_engine_send(int32_t chn, const uint8_t* data, uint32_t len, uint32_t buf_size, int32_t wait_ms);

// The oldest picture kept, waiting up to wait_ms; 0, or hi_err(VDEC,
// HI_ERR_BUF_EMPTY).
int32_t sim_vdec_engine_get(int32_t chn, video_frame_info_t* frame, int32_t wait_ms);
// 0, or hi_err(VDEC, HI_ERR_ILLEGAL_PARAM) for a picture not handed out.
int32_t sim_vdec_engine_release(int32_t chn, uint32_t id);

// Access units waiting in channel chn (tests).
int sim_vdec_engine_pending(int32_t chn);
