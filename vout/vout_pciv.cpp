// The PCI video paths to the master's main, picture-in-picture and spot
// outputs. The master chooses each channel's number and attributes; this
// slave creates, starts, attaches, detaches, stops and destroys it. Each
// start or init first detaches what was attached, so a channel has at most
// one source.
#include <cstring>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "msg/cal_hsc.h"
#include "platform/hi_mpi_pciv.h"
#include "platform/hi_mpi_vi.h"
#include "vin/cal_vin.h"
#include "vout/cal_vout.h"
#include "vout/vout_bind.h"

namespace {

constexpr int32_t k_src_chn = 3;        // processing-group output channel the paths take
constexpr int32_t k_sub_width = 640;    // the sub capture channel's picture
constexpr int32_t k_sub_height = 360;

cal_vout_t* vout_of(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    CAL_CHECK_OBJ(cal->vout, cal_vout_t, "vout is NULL\n");
    return cal->vout;
}

// The path's payload when the message holds len bytes of it.
template <class T>
bool take(const hsc_msg_t* msg, uint32_t len, T* out)
{
    if (msg->len < len) {
        TRACE("cmd:%08x len:%u < %u refused\n", msg->cmd, msg->len, len);
        return false;
    }
    *out = T{};
    std::memcpy(out, msg->data, len);
    return true;
}

mpp_chn_t pciv_chn(int32_t p)
{
    return {HI_ID_PCIV, 0, p};
}

mpp_chn_t group_out(int64_t grp)
{
    return {HI_ID_VPSS, vout_id(grp), k_src_chn};
}

// The slave-local camera of a main or spot channel, or -1 (traced) when
// the channel's camera is not one of this slave's.
int local_cam(cal_t* cal, int32_t p)
{
    int c = cal_local_cam(cal, p);
    if (c < 0)
        TRACE("cam:%d is not one of this slave's %d from %d: refused\n", p, cal->slave_cam, cal->cam_base);
    return c;
}

// Detaches p; a failed unbind is traced and the path goes on.
void detach_traced(int32_t p)
{
    vout_detached_t d = vout_detach(pciv_chn(p));
    if (d.err != 0)
        TRACE("HI_MPI_SYS_UnBind failed with [%d] %#x!\n", p, vout_hex(d.err));
}

// Binds src to p; -1 (traced) when the platform refuses.
int bind_traced(const mpp_chn_t& src, int32_t p)
{
    if (int32_t r = vout_bind(src, pciv_chn(p))) {
        TRACE("VPSS_Bind_PCIV(PcivChn:%d) failed with %#x!\n", p, vout_hex(r));
        return -1;
    }
    return 0;
}

// Starts p; a channel that does not start is destroyed again (-1).
int start_or_destroy(int32_t p)
{
    if (int32_t r = HI_MPI_PCIV_Start(p)) {
        HI_MPI_PCIV_Destroy(p);
        TRACE("HI_MPI_PCIV_Start failed with %#x!\n", vout_hex(r));
        return -1;
    }
    return 0;
}

}  // namespace

int cal_m_vout_main_pcivinit_slave(cal_t* cal, hsc_msg_t* msg)
{
    vout_of(cal);
    vout_pciv_init_t cmd;
    if (!take(msg, sizeof(cmd), &cmd))
        return -1;
    const int32_t p = cmd.chn;
    const int c = local_cam(cal, p);
    if (c < 0)
        return -1;
    const int n = cal->slave_cam;
    detach_traced(p);
    if (int32_t r = HI_MPI_PCIV_Create(p, &cmd.attr)) {
        TRACE("HI_MPI_PCIV_Create failed with ch:%d %#x!\n", p, vout_hex(r));
        return -1;
    }
    // Live: the main-capture group; otherwise the camera's playback group.
    const mpp_chn_t src = cmd.live == 1 ? group_out(2 * n + c) : group_out(c);
    if (bind_traced(src, p) != 0)
        return -1;  // the channel stays created
    return start_or_destroy(p);
}

int cal_m_vout_mainpciv_slavestart(cal_t* cal, hsc_msg_t* msg)
{
    vout_of(cal);
    vout_pciv_start_t cmd;
    if (!take(msg, sizeof(cmd), &cmd))
        return -1;
    const int32_t p = cmd.arg;
    const int c = local_cam(cal, p);
    if (c < 0)
        return -1;
    const int n = cal->slave_cam;
    detach_traced(p);
    mpp_chn_t src = group_out(c);
    if (cmd.live == 1) {
        // A picture the sub capture channel fills comes from it; a larger
        // one from the main-capture group.
        if (cmd.width <= k_sub_width && cmd.height <= k_sub_height)
            src = {HI_ID_VI, 0, cal_cam_to_vi_chn(cal, c) + VIU_SUB_CHN_OFFSET};
        else
            src = group_out(2 * n + c);
    }
    return bind_traced(src, p);
}

int cal_m_vout_pip_pcivinit_slave(cal_t* cal, hsc_msg_t* msg)
{
    vout_of(cal);
    vout_pciv_init_t cmd;
    if (!take(msg, sizeof(cmd), &cmd))
        return -1;
    const int32_t p = cmd.chn;
    const int n = cal->slave_cam;
    if (int32_t r = HI_MPI_PCIV_Create(p, &cmd.attr)) {
        TRACE("HI_MPI_PCIV_Create failed with %#x!\n", vout_hex(r));
        return -1;
    }
    detach_traced(p);
    // The channel starts once with a group bound, then runs without a
    // source until a PIP start attaches one.
    const mpp_chn_t src = group_out(int64_t{p} - cal->num_vin + n);
    if (int32_t r = vout_bind(src, pciv_chn(p))) {
        TRACE("bind grp:%d failed with %#x!\n", src.dev_id, vout_hex(r));
        return -1;
    }
    if (start_or_destroy(p) != 0)
        return -1;
    const mpp_chn_t dest = pciv_chn(p);
    if (int32_t r = HI_MPI_SYS_UnBind(&src, &dest)) {
        TRACE("unbind pciv chn:%d failed with %#x!\n", p, vout_hex(r));
        return -1;
    }
    TRACE("slave init pciv chn %d bindchn:%d ok\n", p, n);
    return 0;
}

int cal_m_vout_pippciv_slavestart(cal_t* cal, hsc_msg_t* msg)
{
    vout_of(cal);
    vout_pciv_start_t cmd;
    if (!take(msg, VOUT_PCIV_PIP_START_LEN, &cmd))
        return -1;
    const int32_t p = cal->num_vin;
    const int32_t g = cmd.arg;
    vout_detached_t d = vout_detach(pciv_chn(p));
    if (d.err != 0) {
        TRACE("UnBind failed with %#x!\n", vout_hex(d.err));
        return -1;
    }
    if (int32_t r = vout_bind(group_out(g), pciv_chn(p))) {
        TRACE("bind failed with %#x!\n", vout_hex(r));
        return -1;
    }
    TRACE("slave start pciv chn %d %d %d ok\n", p, g, cal->num_vin);
    return 0;
}

int cal_m_vout_pippciv_slavestop(cal_t* cal, hsc_msg_t* msg)
{
    vout_of(cal);
    vout_pciv_stop_t cmd;
    if (!take(msg, VOUT_PCIV_PIP_STOP_LEN, &cmd))
        return -1;
    const int32_t p = cal->num_vin;
    vout_detached_t d = vout_detach(pciv_chn(p));
    if (d.err != 0) {
        TRACE("UnBind failed with %#x!\n", vout_hex(d.err));
        return -1;
    }
    // The PIP channel stays created and started; nothing destroys it.
    TRACE("slave stop pciv chn %d %d ok\n", p, d.found ? d.src.dev_id : 0);
    return 0;
}

int cal_m_vout_spot_pcivinit_slave(cal_t* cal, hsc_msg_t* msg)
{
    vout_of(cal);
    vout_pciv_init_t cmd;
    if (!take(msg, sizeof(cmd), &cmd))
        return -1;
    const int32_t p = cmd.chn;
    const int c = local_cam(cal, p);
    if (c < 0)
        return -1;
    if (int32_t r = HI_MPI_PCIV_Create(p, &cmd.attr)) {
        TRACE("HI_MPI_PCIV_Create failed with %#x!\n", vout_hex(r));
        return -1;
    }
    // The spot source is the camera's sub capture channel, counted from c
    // directly (not through the capture channel map).
    const int32_t vi = VIU_SUB_CHN_OFFSET + (cal->slave_cam == 8 ? 2 * c : 4 * c);
    if (bind_traced({HI_ID_VI, 0, vi}, p) != 0)
        return -1;
    return start_or_destroy(p);
}

int cal_m_vout_spot_pcivexit_slave(cal_t* cal, hsc_msg_t* msg)
{
    vout_of(cal);
    vout_pciv_stop_t cmd;
    if (!take(msg, sizeof(cmd), &cmd))
        return -1;
    const int32_t p = cmd.chn;
    if (int32_t r = HI_MPI_PCIV_Stop(p)) {
        // Still running: neither detached nor destroyed.
        TRACE("HI_MPI_PCIV_Stop chn:%d failed with %#x!\n", p, vout_hex(r));
        return -1;
    }
    vout_detached_t d = vout_detach(pciv_chn(p));
    if (!d.found)
        TRACE("pciv chn:%d has no source\n", p);
    else if (d.err != 0)
        TRACE("HI_MPI_SYS_UnBind failed with [%d] %#x!\n", 0, vout_hex(d.err));
    if (int32_t r = HI_MPI_PCIV_Destroy(p))
        TRACE("HI_MPI_PCIV_Destroy failed with %#x!\n", vout_hex(r));
    return 0;
}
