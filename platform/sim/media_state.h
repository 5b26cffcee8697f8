// Inside the simulated media core: the state the family operations share.
// Only the family sources of the simulated board include this header.
#pragma once

#include <array>
#include <mutex>
#include <vector>

#include "platform/sim/fault.h"
#include "platform/sim/media_core.h"

struct sim_media {
    std::array<sim_vi_dev, VIU_MAX_DEV_NUM> vi_dev;
    std::array<sim_vi_chn, VIU_MAX_CHN_NUM> vi_chn;
    std::array<sim_vpss_grp, VPSS_MAX_GRP_NUM> vpss;
    std::array<sim_venc_grp, VENC_MAX_GRP_NUM> venc_grp;
    std::array<sim_venc_chn, VENC_MAX_CHN_NUM> venc_chn;
    std::array<sim_vo_dev, VO_MAX_DEV_NUM> vo;
    std::array<sim_pciv_chn, PCIV_MAX_CHN_NUM> pciv;
    std::array<sim_vdec_chn, VDEC_MAX_CHN_NUM> vdec;
    std::array<sim_rgn, RGN_HANDLE_MAX> rgn;
    std::vector<sim_binding> bindings;  // at most one per destination
    std::vector<sim_mem_conf> mem;      // at most one per channel address
    sim_board_conf board;
    std::array<sim_vda_chn, VDA_MAX_CHN_NUM> vda;
};

// The core, locked for as long as the object lives. Operations take it once,
// after their argument checks, and never call another operation meanwhile.
//
// Every access counts as a change of the state (media.json and the encoder
// producer look again) unless it is made as a read.
class media_access {
public:
    enum mode { change, read };
    explicit media_access(mode md = change);
    ~media_access();
    media_access(const media_access&) = delete;
    media_access& operator=(const media_access&) = delete;
    sim_media* operator->() { return m_; }
    sim_media& operator*() { return *m_; }

private:
    std::unique_lock<std::mutex> lock_;
    sim_media* m_;
    mode mode_;
};

// 0 when the media system is initialised, else hi_err(module,
// HI_ERR_SYS_NOTREADY). Takes the system family's own lock, so it is called
// before the core is taken.
int32_t sim_media_ready(int32_t module);

// The entry every family operation on one device, group or channel makes,
// in the hardware's order: an injected fault, the id's range (id_err when it
// is out of range), then the media system being up. 0 when all pass.
int32_t sim_media_op(sim_op op, int32_t module, bool id_valid, uint32_t id_err);

// Grows with every change of the core's state.
uint64_t sim_media_generation();

// Host monotonic time in microseconds.
int64_t sim_media_now_us();
