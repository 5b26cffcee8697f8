// Simulated regions: overlay regions (a bitmap over an encoder group's
// pictures) and cover regions (a solid rectangle over a capture channel's
// pictures). A region is created, attached to one channel, given display
// attributes and, for an overlay, bitmaps; it keeps all of them until it is
// destroyed, which the hardware refuses while it is attached. The pictures
// themselves are painted by whoever renders them (picture_flow.h tells
// which covers lie on a capture channel); the bitmaps reach the board
// directory through the media state writer.
#include <atomic>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/hi_mpi_rgn.h"
#include "platform/hi_mpi_venc.h"
#include "platform/hi_mpi_vi.h"
#include "platform/sim/media_state.h"

namespace {

constexpr int32_t k_mod = HI_ID_RGN;
constexpr uint32_t k_alpha_max = 128;

// Numbers the bitmaps board-wide, so a region made again under the same
// handle never repeats an earlier bitmap's number.
std::atomic<uint64_t> g_bitmap_gen{0};

bool handle_valid(int32_t handle)
{
    return handle >= 0 && handle < RGN_HANDLE_MAX;
}

int32_t attr_error(const rgn_attr_t* attr)
{
    if (attr == nullptr)
        return hi_err(k_mod, HI_ERR_NULL_PTR);
    if (attr->type == COVER_RGN)
        return 0;
    if (attr->type != OVERLAY_RGN)
        return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    const rgn_overlay_attr_t& o = attr->overlay;
    if (o.pixel_format != PIXEL_FORMAT_RGB_1555 || o.bg_color > 0xFFFF)
        return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    if (o.size.width < 2 || o.size.width > RGN_OVERLAY_MAX_WIDTH || o.size.width % 2 != 0 || o.size.height < 2 ||
        o.size.height > RGN_OVERLAY_MAX_HEIGHT || o.size.height % 2 != 0)
        return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    return 0;
}

// Where a region of the type may be attached: overlays on encoder groups,
// covers on capture channels.
int32_t chn_error(int32_t type, const mpp_chn_t* chn)
{
    if (chn == nullptr)
        return hi_err(k_mod, HI_ERR_NULL_PTR);
    if (type == OVERLAY_RGN)
        return chn->mod_id == HI_ID_GROUP && chn->dev_id >= 0 && chn->dev_id < VENC_MAX_GRP_NUM && chn->chn_id == 0
                   ? 0
                   : hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    return chn->mod_id == HI_ID_VI && chn->dev_id == 0 && chn->chn_id >= 0 && chn->chn_id < VIU_MAX_CHN_NUM
               ? 0
               : hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
}

int32_t chn_attr_error(int32_t type, const rgn_chn_attr_t* attr)
{
    if (attr == nullptr)
        return hi_err(k_mod, HI_ERR_NULL_PTR);
    if (attr->type != type || (attr->show != 0 && attr->show != 1))
        return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    if (type == OVERLAY_RGN) {
        const rgn_overlay_chn_attr_t& o = attr->overlay;
        return o.x >= 0 && o.y >= 0 && o.bg_alpha <= k_alpha_max && o.fg_alpha <= k_alpha_max
                   ? 0
                   : hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    }
    const rgn_cover_chn_attr_t& c = attr->cover;
    return c.x >= 0 && c.y >= 0 && c.width > 0 && c.height > 0 && c.width <= SIM_CAM_MAX_SIZE &&
                   c.height <= SIM_CAM_MAX_SIZE && c.color <= 0xFFFFFF
               ? 0
               : hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
}

// The checks of every operation on one existing region, in the hardware's
// order: the injected fault, the handle, the system, the region's
// existence; then check (the arguments against the region) and fn, under
// the core's lock.
template <class Check, class Fn>
int32_t on_rgn(sim_op op, int32_t handle, media_access::mode md, Check&& check, Fn&& fn)
{
    if (int32_t r = sim_media_op(op, k_mod, handle_valid(handle), HI_ERR_INVALID_DEVID))
        return r;
    media_access m(md);
    sim_rgn& g = m->rgn[handle];
    if (!g.created)
        return hi_err(k_mod, HI_ERR_UNEXIST);
    if (int32_t r = check(g))
        return r;
    return fn(g);
}

// The region is attached to chn.
int32_t attached_to(const sim_rgn& g, const mpp_chn_t* chn)
{
    if (int32_t r = chn_error(g.attr.type, chn))
        return r;
    return g.attached && sim_same_chn(g.chn, *chn) ? 0 : hi_err(k_mod, HI_ERR_UNEXIST);
}

}  // namespace

int32_t HI_MPI_RGN_Create(int32_t handle, const rgn_attr_t* attr)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_RGN_Create, k_mod, handle_valid(handle), HI_ERR_INVALID_DEVID))
        return r;
    if (int32_t r = attr_error(attr))
        return r;
    media_access m;
    sim_rgn& g = m->rgn[handle];
    if (g.created)
        return hi_err(k_mod, HI_ERR_EXIST);
    g = {};
    g.created = true;
    g.attr = *attr;
    if (attr->type == COVER_RGN)
        std::memset(g.attr.reserved, 0, sizeof(g.attr.reserved));
    return 0;
}

int32_t HI_MPI_RGN_Destroy(int32_t handle)
{
    return on_rgn(
        SIM_OP_HI_MPI_RGN_Destroy, handle, media_access::change,
        [](const sim_rgn& g) { return g.attached ? hi_err(k_mod, HI_ERR_NOT_PERM) : 0; },
        [](sim_rgn& g) {
            g = {};
            return 0;
        });
}

int32_t HI_MPI_RGN_AttachToChn(int32_t handle, const mpp_chn_t* chn, const rgn_chn_attr_t* attr)
{
    return on_rgn(
        SIM_OP_HI_MPI_RGN_AttachToChn, handle, media_access::change,
        [chn, attr](const sim_rgn& g) {
            if (int32_t r = chn_error(g.attr.type, chn))
                return r;
            if (int32_t r = chn_attr_error(g.attr.type, attr))
                return r;
            return g.attached ? hi_err(k_mod, HI_ERR_EXIST) : 0;
        },
        [chn, attr](sim_rgn& g) {
            g.attached = true;
            g.chn = *chn;
            g.chn_attr = *attr;
            return 0;
        });
}

int32_t HI_MPI_RGN_DetachFrmChn(int32_t handle, const mpp_chn_t* chn)
{
    return on_rgn(
        SIM_OP_HI_MPI_RGN_DetachFrmChn, handle, media_access::change,
        [chn](const sim_rgn& g) { return attached_to(g, chn); },
        [](sim_rgn& g) {
            g.attached = false;
            g.chn = {};
            g.chn_attr = {};
            return 0;
        });
}

int32_t HI_MPI_RGN_SetDisplayAttr(int32_t handle, const mpp_chn_t* chn, const rgn_chn_attr_t* attr)
{
    return on_rgn(
        SIM_OP_HI_MPI_RGN_SetDisplayAttr, handle, media_access::change,
        [chn, attr](const sim_rgn& g) {
            if (int32_t r = attached_to(g, chn))
                return r;
            return chn_attr_error(g.attr.type, attr);
        },
        [attr](sim_rgn& g) {
            g.chn_attr = *attr;
            return 0;
        });
}

int32_t HI_MPI_RGN_GetDisplayAttr(int32_t handle, const mpp_chn_t* chn, rgn_chn_attr_t* attr)
{
    return on_rgn(
        SIM_OP_HI_MPI_RGN_GetDisplayAttr, handle, media_access::read,
        [chn, attr](const sim_rgn& g) {
            if (attr == nullptr)
                return hi_err(k_mod, HI_ERR_NULL_PTR);
            return attached_to(g, chn);
        },
        [attr](sim_rgn& g) {
            *attr = g.chn_attr;
            return 0;
        });
}

namespace {

// What the bitmap checks read of a region.
struct sim_region_view {
    bool created;
    int32_t type;
    uint32_t width, height;
};

}  // namespace

int32_t HI_MPI_RGN_SetBitMap(int32_t handle, const bitmap_t* bitmap)
{
    if (int32_t r = sim_media_op(SIM_OP_HI_MPI_RGN_SetBitMap, k_mod, handle_valid(handle), HI_ERR_INVALID_DEVID))
        return r;
    if (bitmap == nullptr || bitmap->data == nullptr)
        return hi_err(k_mod, HI_ERR_NULL_PTR);
    if (bitmap->pixel_format != PIXEL_FORMAT_RGB_1555 || bitmap->width == 0 || bitmap->height == 0 ||
        bitmap->width > RGN_OVERLAY_MAX_WIDTH || bitmap->height > RGN_OVERLAY_MAX_HEIGHT)
        return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
    // The bitmap is checked against its region before a byte of it is read:
    // its pixels are width x height as given, and a caller's buffer is only
    // known to hold that much once the size is one the region accepts.
    auto refusal = [&](const sim_region_view& g) -> int32_t {
        if (!g.created)
            return hi_err(k_mod, HI_ERR_UNEXIST);
        if (g.type != OVERLAY_RGN)
            return hi_err(k_mod, HI_ERR_NOT_SUPPORT);
        if (bitmap->width > g.width || bitmap->height > g.height)
            return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
        return 0;
    };
    auto view = [](const sim_rgn& g) {
        return sim_region_view{g.created, g.attr.type, g.attr.overlay.size.width, g.attr.overlay.size.height};
    };
    {
        media_access m(media_access::read);
        if (int32_t r = refusal(view(m->rgn[handle])))
            return r;
    }
    // The copy is made outside the core; the region is checked again once
    // the core is taken, as it may have changed meanwhile.
    const auto* p = static_cast<const uint8_t*>(bitmap->data);
    std::vector<uint8_t> pixels(p, p + size_t{bitmap->width} * bitmap->height * 2);
    media_access m;
    sim_rgn& g = m->rgn[handle];
    if (int32_t r = refusal(view(g)))
        return r;
    g.bitmap_format = bitmap->pixel_format;
    g.bitmap_width = bitmap->width;
    g.bitmap_height = bitmap->height;
    g.bitmap = std::move(pixels);
    g.bitmap_gen = ++g_bitmap_gen;
    return 0;
}
