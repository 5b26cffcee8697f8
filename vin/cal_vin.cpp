#include "vin/cal_vin.h"

#include "cal/cal.h"
#include "cal/cal_log.h"

int cal_cam_to_vi_chn(cal_t* cal, int c)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    // One camera per capture device, in the order the board wires them.
    static constexpr int k_vi_chn[CAL_VIN_MAP_CAMS] = {0, 2, 14, 12, 4, 6, 10, 8};
    const int n = cal->slave_cam;
    if (c < 0 || c > n)
        return 0;
    if (c == n)
        return c;
    return c < CAL_VIN_MAP_CAMS ? k_vi_chn[c] : 0;
}
