// Picture flow bookkeeping of the simulated media core.
#include "platform/sim/picture_flow.h"

#include <algorithm>
#include <utility>

#include "platform/sim/board.h"

namespace {

const sim_binding* source_of(const sim_media& m, const mpp_chn_t& dest)
{
    for (const sim_binding& b : m.bindings)
        if (sim_same_chn(b.dest, dest))
            return &b;
    return nullptr;
}

// The capture channel feeding processing group grp's input, or -1.
int32_t vi_of_group(const sim_media& m, int32_t grp)
{
    const sim_binding* b = source_of(m, {HI_ID_VPSS, grp, 0});
    if (b == nullptr || b->src.mod_id != HI_ID_VI || b->src.chn_id < 0 || b->src.chn_id >= VIU_MAX_CHN_NUM)
        return -1;
    return b->src.chn_id;
}

}  // namespace

double sim_flow_vi_fps(const sim_media& m, int32_t chn)
{
    if (chn < 0 || chn >= VIU_MAX_CHN_NUM)
        return 0;
    int input = sim_vi_input_of_dev(vi_dev_of_chn(chn));
    double fps = m.board.camera(int64_t{sim_cam_base()} + input).delivered_fps();
    const vi_chn_attr_t& a = m.vi_chn[chn].attr;
    if (a.src_frame_rate > 0)
        fps = fps * a.frame_rate / a.src_frame_rate;
    return fps;
}

sim_flow_source sim_flow_venc_source(const sim_media& m, int32_t venc_chn)
{
    sim_flow_source s;
    if (venc_chn < 0 || venc_chn >= VENC_MAX_CHN_NUM)
        return s;
    const sim_venc_chn& c = m.venc_chn[venc_chn];
    if (!c.created || c.grp < 0)
        return s;
    const sim_binding* b = source_of(m, {HI_ID_GROUP, c.grp, 0});
    if (b == nullptr || b->src.mod_id != HI_ID_VPSS)
        return s;
    int32_t grp = b->src.dev_id, out = b->src.chn_id;
    if (grp < 0 || grp >= VPSS_MAX_GRP_NUM || out < 0 || out >= VPSS_MAX_CHN_NUM)
        return s;
    const sim_vpss_grp& g = m.vpss[grp];
    if (!g.created || !g.started || !g.chn[out].enabled)
        return s;
    int32_t vi = vi_of_group(m, grp);
    if (vi < 0 || !m.vi_chn[vi].enabled || !m.vi_dev[vi_dev_of_chn(vi)].enabled)
        return s;
    s.vi = vi;
    s.input = sim_vi_input_of_dev(vi_dev_of_chn(vi));
    s.camera = sim_cam_base() + s.input;
    s.scene = m.board.camera(s.camera).scene;
    s.textured = m.board.camera(s.camera).textured;
    s.fps = sim_flow_vi_fps(m, vi);
    s.live = s.fps > 0;
    return s;
}

double sim_flow_venc_fps(const sim_media& m, int32_t venc_chn, double src_fps)
{
    const venc_rc_attr_t& rc = m.venc_chn[venc_chn].attr.rc;
    if (rc.vi_frm_rate == 0 || rc.target_frm_rate == 0)
        return src_fps;
    // The channel keeps target of every vi_frm_rate pictures it receives, and
    // never more than its target rate. The group's own rates say the same
    // for the system's channels and are not applied a second time.
    return std::min(src_fps * rc.target_frm_rate / rc.vi_frm_rate, static_cast<double>(rc.target_frm_rate));
}

uint64_t sim_flow_vpss_pictures(const sim_media& m, int32_t grp, int64_t now_us)
{
    if (grp < 0 || grp >= VPSS_MAX_GRP_NUM)
        return 0;
    const sim_vpss_grp& g = m.vpss[grp];
    int32_t vi = vi_of_group(m, grp);
    if (!g.created || !g.started || vi < 0 || !m.vi_chn[vi].enabled)
        return 0;
    int64_t since = std::max(g.started_us, m.vi_chn[vi].enabled_us);
    double fps = sim_flow_vi_fps(m, vi);
    return now_us > since ? static_cast<uint64_t>(static_cast<double>(now_us - since) * fps / 1e6) : 0;
}

double sim_flow_src_fps(const sim_media& m, const mpp_chn_t& src)
{
    if (src.mod_id == HI_ID_VI) {
        const int32_t vi = src.chn_id;
        if (src.dev_id != 0 || vi < 0 || vi >= VIU_MAX_CHN_NUM || !m.vi_chn[vi].enabled ||
            !m.vi_dev[vi_dev_of_chn(vi)].enabled)
            return 0;
        return sim_flow_vi_fps(m, vi);
    }
    if (src.mod_id == HI_ID_VPSS) {
        const int32_t grp = src.dev_id, out = src.chn_id;
        if (grp < 0 || grp >= VPSS_MAX_GRP_NUM || out < 0 || out >= VPSS_MAX_CHN_NUM)
            return 0;
        const sim_vpss_grp& g = m.vpss[grp];
        if (!g.created || !g.started || !g.chn[out].enabled)
            return 0;
        const sim_binding* in = source_of(m, {HI_ID_VPSS, grp, 0});
        return in != nullptr && in->src.mod_id == HI_ID_VI ? sim_flow_src_fps(m, in->src) : 0;
    }
    return 0;
}

double sim_flow_dest_fps(const sim_media& m, const mpp_chn_t& dest)
{
    const sim_binding* b = source_of(m, dest);
    return b != nullptr ? sim_flow_src_fps(m, b->src) : 0;
}

namespace {

// The count of dest in m, const or not as m is.
template <class Media>
auto* count_of(Media& m, const mpp_chn_t& dest, bool* running)
{
    decltype(&m.vo[0].chn[0].shown) none = nullptr;
    if (dest.mod_id == HI_ID_VO && dest.dev_id >= 0 && dest.dev_id < VO_MAX_DEV_NUM && dest.chn_id >= 0 &&
        dest.chn_id < VO_MAX_CHN_NUM) {
        auto& c = m.vo[dest.dev_id].chn[dest.chn_id];
        *running = c.enabled && !c.paused;
        return &c.shown;
    }
    if (dest.mod_id == HI_ID_PCIV && dest.dev_id == 0 && dest.chn_id >= 0 && dest.chn_id < PCIV_MAX_CHN_NUM) {
        auto& c = m.pciv[dest.chn_id];
        *running = c.created && c.started;
        return &c.received;
    }
    return none;
}

}  // namespace

sim_pic_count* sim_flow_count_of(sim_media& m, const mpp_chn_t& dest, bool* running)
{
    return count_of(m, dest, running);
}

uint64_t sim_flow_pictures(const sim_media& m, const mpp_chn_t& dest, int64_t now_us)
{
    bool running = false;
    const sim_pic_count* c = count_of(m, dest, &running);
    if (c == nullptr)
        return 0;
    if (!running || now_us <= c->since_us)
        return c->base;
    double fps = sim_flow_dest_fps(m, dest);
    return c->base + static_cast<uint64_t>(static_cast<double>(now_us - c->since_us) * fps / 1e6);
}

void sim_flow_settle(sim_media& m, const mpp_chn_t& dest, int64_t now_us)
{
    bool running = false;
    sim_pic_count* c = sim_flow_count_of(m, dest, &running);
    if (c == nullptr)
        return;
    c->base = sim_flow_pictures(m, dest, now_us);
    c->since_us = now_us;
}

void sim_flow_settle_all(sim_media& m, int64_t now_us)
{
    for (int32_t d = 0; d < VO_MAX_DEV_NUM; ++d)
        for (int32_t c = 0; c < VO_MAX_CHN_NUM; ++c)
            if (m.vo[d].chn[c].enabled && !m.vo[d].chn[c].paused)
                sim_flow_settle(m, {HI_ID_VO, d, c}, now_us);
    for (int32_t c = 0; c < PCIV_MAX_CHN_NUM; ++c)
        if (m.pciv[c].started)
            sim_flow_settle(m, {HI_ID_PCIV, 0, c}, now_us);
}

sim_flow_vda_source sim_flow_vda_source_of(const sim_media& m, int32_t vda_chn)
{
    sim_flow_vda_source s;
    if (vda_chn < 0 || vda_chn >= VDA_MAX_CHN_NUM)
        return s;
    const sim_binding* b = source_of(m, {HI_ID_VDA, 0, vda_chn});
    if (b == nullptr || b->src.mod_id != HI_ID_VI || b->src.chn_id < 0 || b->src.chn_id >= VIU_MAX_CHN_NUM)
        return s;
    const int32_t vi = b->src.chn_id;
    if (!m.vi_chn[vi].enabled || !m.vi_dev[vi_dev_of_chn(vi)].enabled)
        return s;
    s.vi = vi;
    s.camera = sim_cam_base() + sim_vi_input_of_dev(vi_dev_of_chn(vi));
    s.scene = m.board.camera(s.camera).scene;
    s.textured = m.board.camera(s.camera).textured;
    s.fps = sim_flow_vi_fps(m, vi);
    s.since_us = m.vi_chn[vi].enabled_us;
    s.live = s.fps > 0;
    return s;
}

std::vector<sim_cover> sim_flow_vi_covers(const sim_media& m, int32_t chn)
{
    std::vector<sim_cover> out;
    const mpp_chn_t vi{HI_ID_VI, 0, chn};
    for (const sim_rgn& r : m.rgn) {
        if (!r.created || !r.attached || r.attr.type != COVER_RGN || !sim_same_chn(r.chn, vi) || r.chn_attr.show == 0)
            continue;
        const rgn_cover_chn_attr_t& c = r.chn_attr.cover;
        out.push_back({c.x, c.y, static_cast<int>(c.width), static_cast<int>(c.height), c.color,
                       static_cast<int>(c.layer)});
    }
    return out;
}

pic_size_t sim_flow_vi_size(const sim_media& m, int32_t chn)
{
    if (chn < 0 || chn >= VIU_MAX_CHN_NUM)
        return {0, 0};
    return m.vi_chn[chn].attr.dest_size;
}
