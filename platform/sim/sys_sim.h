// State of the simulated media system, video buffer pools and PCI window
// pool, as a test reads it back.
#pragma once

#include "platform/hi_mpi_pciv.h"
#include "platform/hi_mpi_sys.h"

struct sim_sys_state {
    bool vb_configured;
    bool vb_initialised;
    bool sys_configured;
    bool sys_initialised;
    vb_conf_t vb_conf;
    mpp_sys_conf_t sys_conf;
    bool win_vb_created;
    pciv_win_vb_cfg_t win_vb;
};

sim_sys_state sim_sys_snapshot();

// Whether the media system is initialised (what every media family checks
// first); cheaper than a snapshot.
bool sim_sys_initialised();

// The platform clock (what HI_MPI_SYS_GetCurPts reads) at a moment of the
// host's monotonic clock, in microseconds.
uint64_t sim_sys_pts_at(int64_t monotonic_us);
