// The encoder thread: one select over every encoder channel, one frame per
// ready channel per pass, updates applied between reads.
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/select.h>

#include <algorithm>
#include <memory>
#include <new>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "enc/cal_enc.h"
#include "platform/hi_mpi_sys.h"
#include "platform/hi_mpi_venc.h"
#include "platform/os.h"
#include "runtime/kel_thread.h"

namespace {

constexpr uint32_t k_idle_us = 10000;

// What one pass carries over to the next.
struct enc_pass_state {
    uint64_t osd_pts;  // platform time of the last overlay redraw
    time_t last_t;     // time(NULL) of the previous pass
    bool slept;        // a 10 ms sleep happened since the second began
};

// Reads one frame of channel v and routes it. false when a platform call
// or the pack allocation fails: the pass ends.
bool read_frame(cal_enc_t* enc, int v)
{
    venc_chn_stat_t stat{};
    if (HI_MPI_VENC_Query(v, &stat) != 0)
        return false;
    if (stat.cur_packs == 0)
        return true;  // the frame went before it was asked for
    // The pack records are freed once on every path out.
    std::unique_ptr<venc_pack_t[]> packs(new (std::nothrow) venc_pack_t[stat.cur_packs]);
    if (packs == nullptr)
        return false;
    venc_stream_t stream{packs.get(), stat.cur_packs, 0};
    if (HI_MPI_VENC_GetStream(v, &stream, true) != 0)
        return false;
    _parse_enc_ebuf(enc, v, &stream);
    return HI_MPI_VENC_ReleaseStream(v, &stream) == 0;
}

void pass(cal_enc_t* enc, enc_pass_state& st)
{
    cal_t* cal = enc->cal;

    enc_update_msg_t m;
    if (os_msgrcv(enc->msgid_ce_enc, &m, ENC_UPDATE_BODY_SIZE, 0, IPC_NOWAIT | MSG_NOERROR) >= 0 &&
        m.type == MSG_CMD_ENC_UPDATE) {
        _update_chip(cal, m.body.flag, m.body.t);
        st.osd_pts = 0;
    } else if (enc->update_pending.load() != 0) {
        pthread_mutex_lock(&enc->muxex);
        const int flag = enc->update_flag;
        const uint64_t t = enc->update_t;
        enc->update_pending.store(0);
        pthread_mutex_unlock(&enc->muxex);
        _update_chip(cal, flag, t);
        st.osd_pts = 0;
    }

    uint64_t cur = 0;
    HI_MPI_SYS_GetCurPts(&cur);
    if (cur / 1000000 != st.osd_pts / 1000000 && enc->osd_on) {
        st.osd_pts = cur;
        _draw_enc_osd(enc, static_cast<time_t>(cur / 1000000));
    }

    const int nchn = 4 * enc->num;
    fd_set ready;
    FD_ZERO(&ready);
    for (int v = 0; v < nchn; ++v) {
        int fd = enc->chn[v].fd;
        if (fd > 0 && fd < FD_SETSIZE)
            FD_SET(fd, &ready);
    }
    struct timeval limit = {1, 0};
    int r = select(std::min(enc->max_fd + 1, FD_SETSIZE), &ready, nullptr, nullptr, &limit);
    bool took = false;
    if (r <= 0 || enc->num == 0) {
        os_usleep(k_idle_us);
        st.slept = true;
    } else {
        bool failed = false;
        for (int v = 0; v < nchn && !failed; ++v) {
            int fd = enc->chn[v].fd;
            if (fd <= 0 || fd >= FD_SETSIZE || !FD_ISSET(fd, &ready))
                continue;
            failed = !read_frame(enc, v);
            took = took || !failed;
        }
        if (!failed && !took) {
            os_usleep(k_idle_us);
            st.slept = true;
        }
    }

    // At least one pause a second, so that a stream of frames never keeps
    // the thread from yielding.
    time_t t = os_time(nullptr);
    if (t != st.last_t) {
        if (st.slept)
            st.slept = false;
        else
            os_usleep(k_idle_us);
        st.last_t = t;
    }
    kel_thread_inc_heart(enc->thread_enc);
}

}  // namespace

int cal_enc_thread(void* arg)
{
    auto* enc = static_cast<cal_enc_t*>(arg);
    CAL_CHECK_OBJ(enc, cal_enc_t, "enc is NULL\n");
    cal_thread_priority(0, "cal_enc_thread");
    kel_thread_reset_heart(enc->thread_enc);
    kel_thread_set_stable(enc->thread_enc, 1);

    enc_pass_state st{};
    HI_MPI_SYS_GetCurPts(&st.osd_pts);
    while (kel_thread_want_exit(enc->thread_enc) == 0)
        pass(enc, st);
    CAL_LOG(7, "exit!!\n");
    return 0;
}
