// The simulated media core: its state, the board's open and close hooks,
// the read-back for tests, and the system family's routing and memory-zone
// operations.
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "platform/hi_mpi_sys.h"
#include "platform/sim/board.h"
#include "platform/sim/families.h"
#include "platform/sim/fault.h"
#include "platform/sim/media_state.h"
#include "platform/sim/sys_sim.h"
#include "platform/sim/media_json.h"
#include "platform/sim/picture_flow.h"
#include "platform/sim/venc_jpeg.h"
#include "platform/sim/venc_producer.h"
#include "platform/sim/venc_ring.h"
#include "platform/sim/vdec_engine.h"
#include "platform/sim/vda_motion.h"
#include "platform/sim/vda_queue.h"

namespace {

std::mutex g_mutex;
sim_media g_media;
std::atomic<uint64_t> g_generation{0};

void reset(sim_media& m)
{
    m.vi_dev = {};
    m.vi_chn = {};
    m.vpss = {};
    m.venc_grp = {};
    for (sim_venc_chn& c : m.venc_chn) {
        if (c.ring)
            c.ring->close();
        c = {};
    }
    m.vo = {};
    // The cascade device towards the master is up from power-on: the
    // board's boot brings it up, nothing in the process does.
    m.vo[VO_CASCADE_DEV].enabled = true;
    m.vo[VO_CASCADE_DEV].layer_enabled = true;
    m.pciv = {};
    m.vdec = {};
    for (sim_rgn& r : m.rgn)
        r = {};
    m.bindings.clear();
    m.mem.clear();
    m.board = {};
    for (sim_vda_chn& c : m.vda) {
        if (c.queue)
            c.queue->close();
        c = {};
    }
}

// What an address may be used as.
enum addr_role { ROLE_SOURCE, ROLE_DEST, ROLE_MEM };

struct addr_rule {
    int32_t mod;
    int32_t devs;       // devices 0 .. devs - 1
    int32_t chns;       // channels 0 .. chns - 1
    bool source, dest, mem;
};

// A processing group is addressed as (VPSS, group, 0) when it receives or
// has its memory placed, and (VPSS, group, output channel) when it feeds.
constexpr addr_rule k_addr_rules[] = {
    {HI_ID_VI, 1, VIU_MAX_CHN_NUM, true, false, true},
    {HI_ID_VDEC, 1, VDEC_MAX_CHN_NUM, true, false, true},
    {HI_ID_VPSS, VPSS_MAX_GRP_NUM, VPSS_MAX_CHN_NUM, true, true, true},
    {HI_ID_GROUP, VENC_MAX_GRP_NUM, 1, false, true, true},
    {HI_ID_VENC, 1, VENC_MAX_CHN_NUM, false, false, true},
    {HI_ID_VO, VO_MAX_DEV_NUM, VO_MAX_CHN_NUM, false, true, true},
    {HI_ID_VDA, 1, VDA_MAX_CHN_NUM, false, true, true},
    {HI_ID_PCIV, 1, PCIV_MAX_CHN_NUM, false, true, true},
};

int32_t check_addr(const mpp_chn_t& c, addr_role role)
{
    for (const addr_rule& r : k_addr_rules) {
        if (r.mod != c.mod_id)
            continue;
        bool allowed = role == ROLE_SOURCE ? r.source : role == ROLE_DEST ? r.dest : r.mem;
        if (!allowed)
            return hi_err(HI_ID_SYS, HI_ERR_ILLEGAL_PARAM);
        if (c.dev_id < 0 || c.dev_id >= r.devs)
            return hi_err(HI_ID_SYS, HI_ERR_INVALID_DEVID);
        int32_t chns = (c.mod_id == HI_ID_VPSS && role != ROLE_SOURCE) ? 1 : r.chns;
        if (c.chn_id < 0 || c.chn_id >= chns)
            return hi_err(HI_ID_SYS, HI_ERR_INVALID_CHNID);
        return 0;
    }
    return hi_err(HI_ID_SYS, HI_ERR_ILLEGAL_PARAM);
}

// The zones of the board's memory: the default one and "ddr1".
bool known_zone(const char* name)
{
    return name[0] == '\0' || std::strcmp(name, MMZ_DDR1) == 0;
}

sim_binding* find_by_dest(sim_media& m, const mpp_chn_t& dest)
{
    for (sim_binding& b : m.bindings)
        if (sim_same_chn(b.dest, dest))
            return &b;
    return nullptr;
}

}  // namespace

media_access::media_access(mode md) : lock_(g_mutex), m_(&g_media), mode_(md) {}

media_access::~media_access()
{
    if (mode_ == change)
        g_generation.fetch_add(1, std::memory_order_release);
}

uint64_t sim_media_generation()
{
    return g_generation.load(std::memory_order_acquire);
}

int32_t sim_media_ready(int32_t module)
{
    return sim_sys_initialised() ? 0 : hi_err(module, HI_ERR_SYS_NOTREADY);
}

int32_t sim_media_op(sim_op op, int32_t module, bool id_valid, uint32_t id_err)
{
    if (int32_t r = sim_fail(op))
        return r;
    if (!id_valid)
        return hi_err(module, id_err);
    return sim_media_ready(module);
}

int64_t sim_media_now_us()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int sim_media_open(std::string* err)
{
    // Read before taking the core: the file may be slow, the lock is not needed for it.
    sim_board_conf conf = sim_board_conf_load(sim_board_path("board.conf"));
    {
        media_access m;
        reset(*m);
        m->board = std::move(conf);
    }
    // Threads last: they read the core.
    if (int r = sim_venc_jpeg_open(err))
        return r;
    if (int r = sim_venc_producer_open(err))
        return r;
    sim_vdec_engine_open();
    if (int r = sim_vda_motion_open(err))
        return r;
    return sim_media_json_open(err);
}

void sim_media_close()
{
    // Threads first: they read the core.
    sim_media_json_close();
    sim_vda_motion_close();
    sim_venc_producer_close();
    sim_vdec_engine_close();
    sim_venc_jpeg_close();
    media_access m;
    reset(*m);
}

vpss_grp_param_t sim_vpss_default_param()
{
    vpss_grp_param_t p{};
    constexpr uint32_t k_strength[8] = {32, 32, 16, 24, 24, 16, 16, 8};
    std::copy(std::begin(k_strength), std::end(k_strength), p.strength);
    p.motion_adapt = 1;
    return p;
}

int sim_vi_input_of_dev(int dev)
{
    constexpr int k_input[VIU_MAX_DEV_NUM] = {0, 1, 4, 5, 7, 6, 3, 2};
    return dev >= 0 && dev < VIU_MAX_DEV_NUM ? k_input[dev] : -1;
}

// ---- read-back ---------------------------------------------------------------

namespace {

// Entry k of one of the core's tables, copied under the lock; an empty
// entry for a k out of the table's range.
template <class T, size_t N>
T read_entry(std::array<T, N> sim_media::*table, int k)
{
    media_access m(media_access::read);
    return k >= 0 && static_cast<size_t>(k) < N ? ((*m).*table)[static_cast<size_t>(k)] : T{};
}

}  // namespace

sim_vi_dev sim_media_vi_dev(int dev)
{
    return read_entry(&sim_media::vi_dev, dev);
}

sim_vi_chn sim_media_vi_chn(int chn)
{
    return read_entry(&sim_media::vi_chn, chn);
}

sim_vpss_grp sim_media_vpss_grp(int grp)
{
    return read_entry(&sim_media::vpss, grp);
}

sim_venc_grp sim_media_venc_grp(int grp)
{
    return read_entry(&sim_media::venc_grp, grp);
}

sim_vdec_chn sim_media_vdec_chn(int chn)
{
    return read_entry(&sim_media::vdec, chn);
}

sim_venc_chn sim_media_venc_chn(int chn)
{
    return read_entry(&sim_media::venc_chn, chn);
}

sim_vo_dev sim_media_vo_dev(int dev)
{
    return read_entry(&sim_media::vo, dev);
}

sim_pciv_chn sim_media_pciv_chn(int chn)
{
    return read_entry(&sim_media::pciv, chn);
}

uint64_t sim_media_pictures(const mpp_chn_t& dest)
{
    media_access m(media_access::read);
    return sim_flow_pictures(*m, dest, sim_media_now_us());
}

sim_vda_chn sim_media_vda_chn(int chn)
{
    return read_entry(&sim_media::vda, chn);
}

sim_rgn sim_media_rgn(int32_t handle)
{
    media_access m(media_access::read);
    return handle >= 0 && handle < RGN_HANDLE_MAX ? m->rgn[handle] : sim_rgn{};
}

std::vector<sim_binding> sim_media_bindings()
{
    media_access m(media_access::read);
    return m->bindings;
}

std::vector<mpp_chn_t> sim_media_dests_of(const mpp_chn_t& src)
{
    media_access m(media_access::read);
    std::vector<mpp_chn_t> dests;
    for (const sim_binding& b : m->bindings)
        if (sim_same_chn(b.src, src))
            dests.push_back(b.dest);
    return dests;
}

std::vector<sim_mem_conf> sim_media_mem_confs()
{
    media_access m(media_access::read);
    return m->mem;
}

sim_camera_conf sim_media_camera(int input)
{
    media_access m(media_access::read);
    return m->board.camera(int64_t{sim_cam_base()} + input);
}

// ---- system family: routing and memory zones --------------------------------

int32_t HI_MPI_SYS_Bind(const mpp_chn_t* src, const mpp_chn_t* dest)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_SYS_Bind))
        return r;
    if (src == nullptr || dest == nullptr)
        return hi_err(HI_ID_SYS, HI_ERR_NULL_PTR);
    if (int32_t r = check_addr(*src, ROLE_SOURCE))
        return r;
    if (int32_t r = check_addr(*dest, ROLE_DEST))
        return r;
    if (int32_t r = sim_media_ready(HI_ID_SYS))
        return r;
    media_access m;
    if (find_by_dest(*m, *dest) != nullptr)
        return hi_err(HI_ID_SYS, HI_ERR_EXIST);
    sim_flow_settle_all(*m, sim_media_now_us());
    m->bindings.push_back({*src, *dest});
    return 0;
}

int32_t HI_MPI_SYS_UnBind(const mpp_chn_t* src, const mpp_chn_t* dest)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_SYS_UnBind))
        return r;
    if (src == nullptr || dest == nullptr)
        return hi_err(HI_ID_SYS, HI_ERR_NULL_PTR);
    if (int32_t r = check_addr(*src, ROLE_SOURCE))
        return r;
    if (int32_t r = check_addr(*dest, ROLE_DEST))
        return r;
    if (int32_t r = sim_media_ready(HI_ID_SYS))
        return r;
    media_access m;
    sim_binding* b = find_by_dest(*m, *dest);
    if (b == nullptr || !sim_same_chn(b->src, *src))
        return hi_err(HI_ID_SYS, HI_ERR_UNEXIST);
    sim_flow_settle_all(*m, sim_media_now_us());
    m->bindings.erase(m->bindings.begin() + (b - m->bindings.data()));
    return 0;
}

int32_t HI_MPI_SYS_GetBindbyDest(const mpp_chn_t* dest, mpp_chn_t* src)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_SYS_GetBindbyDest))
        return r;
    if (src == nullptr || dest == nullptr)
        return hi_err(HI_ID_SYS, HI_ERR_NULL_PTR);
    if (int32_t r = check_addr(*dest, ROLE_DEST))
        return r;
    if (int32_t r = sim_media_ready(HI_ID_SYS))
        return r;
    media_access m;
    const sim_binding* b = find_by_dest(*m, *dest);
    if (b == nullptr)
        return hi_err(HI_ID_SYS, HI_ERR_UNEXIST);
    *src = b->src;
    return 0;
}

int32_t HI_MPI_SYS_SetMemConf(const mpp_chn_t* chn, const char* mmz_name)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_SYS_SetMemConf))
        return r;
    if (chn == nullptr)
        return hi_err(HI_ID_SYS, HI_ERR_NULL_PTR);
    if (int32_t r = check_addr(*chn, ROLE_MEM))
        return r;
    const char* zone = mmz_name != nullptr ? mmz_name : MMZ_DEFAULT;
    if (strnlen(zone, MAX_MMZ_NAME_LEN) == MAX_MMZ_NAME_LEN || !known_zone(zone))
        return hi_err(HI_ID_SYS, HI_ERR_ILLEGAL_PARAM);
    if (int32_t r = sim_media_ready(HI_ID_SYS))
        return r;
    media_access m;
    auto it = std::find_if(m->mem.begin(), m->mem.end(),
                           [&](const sim_mem_conf& e) { return sim_same_chn(e.chn, *chn); });
    if (it == m->mem.end())
        it = m->mem.insert(m->mem.end(), sim_mem_conf{*chn, {}});
    std::memset(it->zone, 0, sizeof(it->zone));
    std::strcpy(it->zone, zone);
    return 0;
}

int32_t HI_MPI_SYS_GetMemConf(const mpp_chn_t* chn, char* mmz_name)
{
    if (int32_t r = sim_fail(SIM_OP_HI_MPI_SYS_GetMemConf))
        return r;
    if (chn == nullptr || mmz_name == nullptr)
        return hi_err(HI_ID_SYS, HI_ERR_NULL_PTR);
    if (int32_t r = check_addr(*chn, ROLE_MEM))
        return r;
    if (int32_t r = sim_media_ready(HI_ID_SYS))
        return r;
    media_access m;
    // A channel never configured lives in the default zone.
    std::memset(mmz_name, 0, MAX_MMZ_NAME_LEN);
    for (const sim_mem_conf& e : m->mem)
        if (sim_same_chn(e.chn, *chn))
            std::memcpy(mmz_name, e.zone, MAX_MMZ_NAME_LEN);
    return 0;
}
