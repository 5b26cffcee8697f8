// The simulated media core: the state behind the capture, processing-group,
// encoder, output and system families, and its read-back for tests.
//
// Every family operation checks what the chip's library checks and changes
// this state under one mutex. Bindings are routing entries from a source
// channel to a destination channel; pictures follow them from sources to
// their destinations, so a destination has at most one source.
#pragma once

#include <array>
#include <memory>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/hi_comm.h"
#include "platform/hi_mpi_pciv.h"
#include "platform/hi_mpi_rgn.h"
#include "platform/hi_mpi_sys.h"
#include "platform/hi_mpi_vdec.h"
#include "platform/hi_mpi_vda.h"
#include "platform/hi_mpi_venc.h"
#include "platform/hi_mpi_vi.h"
#include "platform/hi_mpi_vo.h"
#include "platform/hi_mpi_vpss.h"
#include "platform/sim/board_conf.h"

// Address ranges of the families that route pictures but keep their own
// state elsewhere.
inline constexpr int VDEC_MAX_CHN_NUM = 64;
inline constexpr int VDA_MAX_CHN_NUM = 32;
inline constexpr int PCIV_MAX_CHN_NUM = 128;

struct sim_vi_dev {
    bool attr_set;
    bool enabled;
    vi_dev_attr_t attr;
};

struct sim_vi_chn {
    bool attr_set;
    bool enabled;
    bool to420;          // 4:2:2-to-4:2:0 conversion switched on
    vi_chn_attr_t attr;
    int64_t enabled_us;  // platform clock when enabled, for the frame count
};

struct sim_vpss_chn {
    bool attr_set;
    bool enabled;
    vpss_chn_attr_t attr;
};

struct sim_vpss_grp {
    bool created;
    bool started;
    int64_t started_us;  // platform clock when started, for the picture count
    vpss_grp_attr_t attr;
    vpss_grp_param_t param;
    std::array<sim_vpss_chn, VPSS_MAX_CHN_NUM> chn;
    vpss_crop_info_t crop;  // of the input picture; off when created
    uint64_t decoded;      // pictures a bound decoder channel delivered
    uint64_t user_frames;  // pictures handed in by HI_MPI_VPSS_UserSendFrame
    uint64_t resets;
};

struct sim_venc_grp {
    bool created = false;
    int32_t chn = -1;  // registered channel, -1 when none
    venc_grp_frm_rate_t frm_rate{-1, -1};  // {-1, -1}: no conversion
};

class sim_venc_ring;

struct sim_venc_chn {
    bool created = false;
    bool receiving = false;
    int32_t grp = -1;  // group it is registered with, -1 when none
    venc_chn_attr_t attr{};
    int32_t ref_mode = 0;
    venc_param_jpeg_t jpeg{};
    // Counts the starts of receiving; the producer begins a new sequence
    // (number 0, a key frame first) whenever it sees a new one.
    uint32_t session = 0;
    std::shared_ptr<sim_venc_ring> ring;  // the stream buffer, while created
};

// Pictures a destination (output channel, PCI video channel) has received:
// `base` up to `since_us`, and from then on the rate of its source while it
// runs. The count is settled (folded into base) before anything that
// changes the rate: its source, its running state.
struct sim_pic_count {
    uint64_t base = 0;
    int64_t since_us = 0;
};

struct sim_vo_chn {
    bool attr_set = false;
    bool enabled = false;
    bool paused = false;
    vo_chn_attr_t attr{};
    uint32_t clears = 0;  // buffer clearings
    sim_pic_count shown;  // pictures shown while enabled and not paused
};

// The SEI fields of the last access unit a decoder channel decoded.
struct sim_vdec_last {
    bool valid = false;
    uint32_t camera = 0;
    uint32_t chn = 0;
    uint32_t seq = 0;
};

struct sim_vdec_chn {
    bool created = false;
    bool receiving = false;
    vdec_chn_attr_t attr{};
    vdec_prtcl_param_t prtcl{};
    uint64_t pictures = 0;   // decoded
    uint64_t refused = 0;    // sends refused (not receiving, too long)
    uint64_t undecoded = 0;  // access units that completed no picture
    uint32_t width = 0;      // of the last picture
    uint32_t height = 0;
    sim_vdec_last last;
};

struct sim_vo_dev {
    bool enabled = false;
    bool layer_enabled = false;
    bool in_batch = false;  // between SetAttrBegin and SetAttrEnd
    uint32_t batches = 0;   // batches ended
    std::array<sim_vo_chn, VO_MAX_CHN_NUM> chn{};
};

struct sim_pciv_chn {
    bool created = false;
    bool started = false;
    pciv_attr_t attr{};      // as the creator gave it
    sim_pic_count received;  // pictures delivered while started
};

class sim_vda_queue;

// A motion-detection channel; its results wait in its queue.
struct sim_vda_chn {
    bool created = false;
    bool receiving = false;
    vda_chn_attr_t attr{};
    uint32_t session = 0;        // counts the starts of receiving
    int64_t receiving_us = 0;    // host clock of the last start
    std::shared_ptr<sim_vda_queue> queue;
};

// A region: its attributes, where it is attached with which display
// attributes, and the last bitmap it was given (overlays). bitmap_gen is a
// board-wide number of the bitmap (0: none yet), so the media state writer
// knows which files to renew.
struct sim_rgn {
    bool created = false;
    rgn_attr_t attr{};
    bool attached = false;
    mpp_chn_t chn{};
    rgn_chn_attr_t chn_attr{};
    int32_t bitmap_format = 0;
    uint32_t bitmap_width = 0;
    uint32_t bitmap_height = 0;
    std::vector<uint8_t> bitmap;  // rows of bitmap_width × 2 bytes
    uint64_t bitmap_gen = 0;
};

struct sim_binding {
    mpp_chn_t src;
    mpp_chn_t dest;
};

struct sim_mem_conf {
    mpp_chn_t chn;
    char zone[MAX_MMZ_NAME_LEN];
};

// Group parameters a new group starts with.
vpss_grp_param_t sim_vpss_default_param();

// Capture input carried by device d: devices 0, 1, 7, 6, 2, 3, 5, 4 carry
// inputs 0 .. 7. Input c carries recorder-wide camera sim_cam_base() + c.
int sim_vi_input_of_dev(int dev);

// ---- read-back (copies taken under the core's mutex) -----------------------

sim_vi_dev sim_media_vi_dev(int dev);
sim_vi_chn sim_media_vi_chn(int chn);
sim_vpss_grp sim_media_vpss_grp(int grp);
sim_venc_grp sim_media_venc_grp(int grp);
sim_venc_chn sim_media_venc_chn(int chn);
sim_vo_dev sim_media_vo_dev(int dev);
sim_pciv_chn sim_media_pciv_chn(int chn);
// Pictures an output channel or PCI video channel has received so far.
uint64_t sim_media_pictures(const mpp_chn_t& dest);
sim_vdec_chn sim_media_vdec_chn(int chn);
sim_vda_chn sim_media_vda_chn(int chn);
sim_rgn sim_media_rgn(int32_t handle);

// All bindings, in the order they were made.
std::vector<sim_binding> sim_media_bindings();
// Destinations fed by src.
std::vector<mpp_chn_t> sim_media_dests_of(const mpp_chn_t& src);

// Memory-zone entries, in the order first configured; zone "" is the default.
std::vector<sim_mem_conf> sim_media_mem_confs();

// The camera configuration (from board.conf) of capture input c.
sim_camera_conf sim_media_camera(int input);

inline bool sim_same_chn(const mpp_chn_t& a, const mpp_chn_t& b)
{
    return a.mod_id == b.mod_id && a.dev_id == b.dev_id && a.chn_id == b.chn_id;
}
