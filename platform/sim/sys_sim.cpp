// Simulated media system: init and exit, configuration, video buffer pools,
// the PCI window pool and the platform clock. It checks what the hardware
// library checks: configuration before init, no reconfiguration while
// initialised, the system only over initialised buffer pools.
#include <time.h>

#include <atomic>
#include <cstring>
#include <mutex>

#include "platform/hi_mpi_pciv.h"
#include "platform/hi_mpi_sys.h"
#include "platform/sim/families.h"
#include "platform/sim/fault.h"
#include "platform/sim/sys_sim.h"

namespace {

std::mutex g_mutex;
sim_sys_state g_state;

// The platform clock: host monotonic time plus an offset that the base
// initialisation and the synchronisation move.
std::atomic<int64_t> g_pts_offset_us{0};

int64_t monotonic_us()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

bool known_zone(const char* name)
{
    return name[0] == '\0' || std::strcmp(name, MMZ_DDR1) == 0;
}

}  // namespace

int sim_sys_open(std::string*)
{
    std::lock_guard lock(g_mutex);
    g_state = {};
    g_pts_offset_us = 0;
    return 0;
}

void sim_sys_close()
{
    std::lock_guard lock(g_mutex);
    g_state = {};
}

sim_sys_state sim_sys_snapshot()
{
    std::lock_guard lock(g_mutex);
    return g_state;
}

bool sim_sys_initialised()
{
    std::lock_guard lock(g_mutex);
    return g_state.sys_initialised;
}

int32_t HI_MPI_VB_SetConf(const vb_conf_t* conf)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_VB_SetConf))
        return r;
    if (conf == nullptr)
        return hi_err(HI_ID_VB, HI_ERR_NULL_PTR);
    if (conf->max_pool_cnt == 0 || conf->max_pool_cnt > VB_MAX_COMM_POOLS)
        return hi_err(HI_ID_VB, HI_ERR_ILLEGAL_PARAM);
    for (const vb_pool_conf_t& p : conf->comm_pool) {
        if (p.blk_cnt == 0)
            continue;
        if (p.blk_size == 0 || std::memchr(p.mmz_name, '\0', sizeof(p.mmz_name)) == nullptr ||
            !known_zone(p.mmz_name))
            return hi_err(HI_ID_VB, HI_ERR_ILLEGAL_PARAM);
    }
    std::lock_guard lock(g_mutex);
    if (g_state.vb_initialised)
        return hi_err(HI_ID_VB, HI_ERR_NOT_PERM);
    g_state.vb_conf = *conf;
    g_state.vb_configured = true;
    return 0;
}

int32_t HI_MPI_VB_GetConf(vb_conf_t* conf)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_VB_GetConf))
        return r;
    if (conf == nullptr)
        return hi_err(HI_ID_VB, HI_ERR_NULL_PTR);
    std::lock_guard lock(g_mutex);
    if (!g_state.vb_configured)
        return hi_err(HI_ID_VB, HI_ERR_NOT_CONFIG);
    *conf = g_state.vb_conf;
    return 0;
}

int32_t HI_MPI_VB_Init()
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_VB_Init))
        return r;
    std::lock_guard lock(g_mutex);
    if (!g_state.vb_configured)
        return hi_err(HI_ID_VB, HI_ERR_NOT_CONFIG);
    if (g_state.vb_initialised)
        return hi_err(HI_ID_VB, HI_ERR_NOT_PERM);
    g_state.vb_initialised = true;
    return 0;
}

int32_t HI_MPI_VB_Exit()
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_VB_Exit))
        return r;
    std::lock_guard lock(g_mutex);
    if (g_state.sys_initialised)
        return hi_err(HI_ID_VB, HI_ERR_NOT_PERM);  // the system still uses the pools
    g_state.vb_initialised = false;
    return 0;
}

int32_t HI_MPI_SYS_SetConf(const mpp_sys_conf_t* conf)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_SYS_SetConf))
        return r;
    if (conf == nullptr)
        return hi_err(HI_ID_SYS, HI_ERR_NULL_PTR);
    if (conf->align_width < 16 || conf->align_width % 16 != 0)
        return hi_err(HI_ID_SYS, HI_ERR_ILLEGAL_PARAM);
    std::lock_guard lock(g_mutex);
    if (g_state.sys_initialised)
        return hi_err(HI_ID_SYS, HI_ERR_NOT_PERM);
    g_state.sys_conf = *conf;
    g_state.sys_configured = true;
    return 0;
}

int32_t HI_MPI_SYS_GetConf(mpp_sys_conf_t* conf)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_SYS_GetConf))
        return r;
    if (conf == nullptr)
        return hi_err(HI_ID_SYS, HI_ERR_NULL_PTR);
    std::lock_guard lock(g_mutex);
    if (!g_state.sys_configured)
        return hi_err(HI_ID_SYS, HI_ERR_NOT_CONFIG);
    *conf = g_state.sys_conf;
    return 0;
}

int32_t HI_MPI_SYS_Init()
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_SYS_Init))
        return r;
    std::lock_guard lock(g_mutex);
    if (!g_state.sys_configured)
        return hi_err(HI_ID_SYS, HI_ERR_NOT_CONFIG);
    if (!g_state.vb_initialised)
        return hi_err(HI_ID_SYS, HI_ERR_SYS_NOTREADY);
    g_state.sys_initialised = true;
    return 0;
}

int32_t HI_MPI_SYS_Exit()
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_SYS_Exit))
        return r;
    std::lock_guard lock(g_mutex);
    g_state.sys_initialised = false;
    return 0;
}

int32_t HI_MPI_SYS_GetCurPts(uint64_t* pts)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_SYS_GetCurPts))
        return r;
    if (pts == nullptr)
        return hi_err(HI_ID_SYS, HI_ERR_NULL_PTR);
    // Unsigned: any 64-bit base the master sets wraps rather than overflows.
    *pts = sim_sys_pts_at(monotonic_us());
    return 0;
}

uint64_t sim_sys_pts_at(int64_t monotonic)
{
    return static_cast<uint64_t>(monotonic) + static_cast<uint64_t>(g_pts_offset_us.load());
}

int32_t HI_MPI_SYS_InitPtsBase(uint64_t pts)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_SYS_InitPtsBase))
        return r;
    g_pts_offset_us = static_cast<int64_t>(pts - static_cast<uint64_t>(monotonic_us()));
    return 0;
}

int32_t HI_MPI_SYS_SyncPts(uint64_t pts)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_SYS_SyncPts))
        return r;
    g_pts_offset_us = static_cast<int64_t>(pts - static_cast<uint64_t>(monotonic_us()));
    return 0;
}

int32_t HI_MPI_PCIV_WinVbCreate(const pciv_win_vb_cfg_t* cfg)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_PCIV_WinVbCreate))
        return r;
    if (cfg == nullptr)
        return hi_err(HI_ID_PCIV, HI_ERR_NULL_PTR);
    if (cfg->pool_count == 0 || cfg->pool_count > PCIV_MAX_VBCOUNT)
        return hi_err(HI_ID_PCIV, HI_ERR_ILLEGAL_PARAM);
    for (uint32_t i = 0; i < cfg->pool_count; ++i)
        if (cfg->blk_size[i] == 0 || cfg->blk_count[i] == 0)
            return hi_err(HI_ID_PCIV, HI_ERR_ILLEGAL_PARAM);
    std::lock_guard lock(g_mutex);
    if (!g_state.sys_initialised)
        return hi_err(HI_ID_PCIV, HI_ERR_SYS_NOTREADY);
    if (g_state.win_vb_created)
        return hi_err(HI_ID_PCIV, HI_ERR_EXIST);
    g_state.win_vb = *cfg;
    g_state.win_vb_created = true;
    return 0;
}

int32_t HI_MPI_PCIV_WinVbDestroy()
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_PCIV_WinVbDestroy))
        return r;
    std::lock_guard lock(g_mutex);
    if (!g_state.win_vb_created)
        return hi_err(HI_ID_PCIV, HI_ERR_UNEXIST);
    g_state.win_vb_created = false;
    return 0;
}
