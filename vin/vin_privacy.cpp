// Privacy masks: one solid black cover region on a camera's main capture
// channel and one on its sub capture channel, from a rectangle given in
// fractions of the picture. The platform's regions are the only state.
#include <climits>
#include <cmath>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "platform/hi_mpi_rgn.h"
#include "platform/hi_mpi_vi.h"
#include "vin/cal_vin.h"

namespace {

unsigned hex(int32_t r)
{
    return static_cast<unsigned>(r);
}

// trunc(size x fraction), held to the range of int, then rounded down to a
// multiple of 4 by clearing the two lowest bits.
int to_pixels(int size, double fraction)
{
    double v = std::trunc(static_cast<double>(size) * fraction);
    if (v >= static_cast<double>(INT_MAX))
        v = INT_MAX;
    if (v <= static_cast<double>(INT_MIN))
        v = INT_MIN;
    return static_cast<int>(v) & ~3;
}

struct rect {
    int x, y, w, h;
    bool empty() const { return w == 0 || h == 0; }
};

rect rect_of(int width, int height, double x, double y, double w, double h)
{
    return {to_pixels(width, x), to_pixels(height, y), to_pixels(width, w), to_pixels(height, h)};
}

// Removes whatever region `handle` was on chn; both steps fail harmlessly
// when there was none.
void remove_region(int handle, const mpp_chn_t& chn)
{
    if (int32_t r = HI_MPI_RGN_DetachFrmChn(handle, &chn))
        TRACE("HI_MPI_RGN_DetachFrmChn failed with %#x!\n", hex(r));
    if (int32_t r = HI_MPI_RGN_Destroy(handle))
        TRACE("HI_MPI_RGN_Destroy failed with %#x!\n", hex(r));
}

// Creates region `handle` as a black cover of r on chn, in layer `layer`.
// Failures are traced; a failed attachment destroys the region again.
void place_region(int handle, const mpp_chn_t& chn, const rect& r, int layer)
{
    rgn_attr_t attr{};
    attr.type = COVER_RGN;
    rgn_chn_attr_t ca{};
    ca.show = 1;  // the show word of the command never hides a mask
    ca.type = COVER_RGN;
    ca.cover.x = r.x;
    ca.cover.y = r.y;
    ca.cover.width = static_cast<uint32_t>(r.w);
    ca.cover.height = static_cast<uint32_t>(r.h);
    ca.cover.color = 0;
    ca.cover.layer = static_cast<uint32_t>(layer);
    if (int32_t e = HI_MPI_RGN_Create(handle, &attr))
        TRACE("HI_MPI_RGN_Create failed with %#x!\n", hex(e));
    if (int32_t e = HI_MPI_RGN_AttachToChn(handle, &chn, &ca)) {
        HI_MPI_RGN_Destroy(handle);
        TRACE("HI_MPI_RGN_AttachToChn failed with %#x!\n", hex(e));
    }
    if (int32_t e = HI_MPI_RGN_SetDisplayAttr(handle, &chn, &ca))
        TRACE("HI_MPI_RGN_SetDisplayAttr failed with %#x!\n", hex(e));
}

}  // namespace

int cal_vin_privacy_handle(const cal_vin_t* vin, int c, bool sub)
{
    if (!sub)
        return c;
    return vin->num <= CAL_VIN_PRIVACY_SUB_OFFSET ? c + CAL_VIN_PRIVACY_SUB_OFFSET
                                                  : c + 2 * CAL_VIN_PRIVACY_SUB_OFFSET;
}

int _m_vin_set_privacy_subch(cal_t* cal, int c, int show, double x, double y, double w, double h)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    cal_vin_t* vin = cal->vin;
    CAL_CHECK_OBJ(vin, cal_vin_t, "vin is NULL\n");
    TRACE("enter..");
    const rect r = rect_of(CAL_VIN_SUB_WIDTH, CAL_VIN_SUB_HEIGHT, x, y, w, h);
    const int v = cal_vin_cam_chn(cal, c) + VIU_SUB_CHN_OFFSET;
    const mpp_chn_t chn{HI_ID_VI, 0, v};
    const int handle = cal_vin_privacy_handle(vin, c, true);
    remove_region(handle, chn);
    TRACE("ch:%d nx:%d ny:%d nw:%d nh:%d show:%d!\n", v, r.x, r.y, r.w, r.h, show);
    if (r.empty())
        return 0;
    place_region(handle, chn, r, c);
    TRACE("success..");
    return 0;
}

int cal_vin_set_privacy(cal_t* cal, hsc_msg_t* msg)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    cal_vin_t* vin = cal->vin;
    CAL_CHECK_OBJ(vin, cal_vin_t, "vin is NULL\n");
    TRACE("enter..");
    const auto p = cal_payload<vin_set_privacy_cmd_t>(msg);
    const int c = cal_local_cam(cal, p.cam);
    if (c < 0 || c >= vin->num) {
        TRACE("cam:%d is not one of this slave's cameras (cam_base:%d num:%d): refused\n", p.cam, cal->cam_base,
              vin->num);
        return -1;
    }
    if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.w) || !std::isfinite(p.h)) {
        TRACE("cam:%d rectangle is not a set of numbers: refused\n", p.cam);
        return -1;
    }
    // Type-3 inputs of 480 or 576 lines are captured 1920 wide although
    // the stored width is the master's 960.
    const int width = vin->xres[c] <= 960 && vin->type[c] == 3 ? 1920 : vin->xres[c];
    const rect r = rect_of(width, vin->yres[c], p.x, p.y, p.w, p.h);
    const int v = cal_vin_cam_chn(cal, c);
    const mpp_chn_t chn{HI_ID_VI, 0, v};
    const int handle = cal_vin_privacy_handle(vin, c, false);
    remove_region(handle, chn);
    TRACE("ch:%d nx:%d ny:%d nw:%d nh:%d show:%d!\n", v, r.x, r.y, r.w, r.h, p.show);
    _m_vin_set_privacy_subch(cal, c, p.show, p.x, p.y, p.w, p.h);
    if (r.empty())
        return 0;
    place_region(handle, chn, r, c);
    return 0;
}
