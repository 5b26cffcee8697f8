// The decoder module's life, its commands and its status report.
#include "dec/cal_dec.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "platform/os.h"
#include "runtime/kel_thread.h"

namespace {

cal_dec_t* dec_of(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    CAL_CHECK_OBJ(cal->dec, cal_dec_t, "dec is NULL\n");
    return cal->dec;
}

int send_exit(cal_dec_t* dec)
{
    dec_msg_t m{1, MSG_CMD_EXIT, 0, 0, 0, nullptr};
    int r = os_msgsnd(dec->msgid, &m, DEC_MSG_BODY_SIZE, 0);
    if (r != 0)
        TRACE("msgsnd MSG_CMD_EXIT error:%s\n", strerror(errno));
    return r;
}

void drain(int msgid)
{
    dec_msg_t m;
    while (os_msgrcv(msgid, &m, DEC_MSG_BODY_SIZE, 0, IPC_NOWAIT) >= 0) {
    }
}

// ---- rows ---------------------------------------------------------------------

// HSCC_CAL_3531_decstart.
struct dec_start_cmd_t {
    int32_t on;   // 0: stop playback; anything else: start
    int32_t arg;  // carried with the start
};
static_assert(sizeof(dec_start_cmd_t) == 8);

// HSCC_CAL_3531_flush: only word 2 is traced.
struct dec_flush_cmd_t {
    int32_t w0;
    int32_t w1;
    int32_t cam;
};
static_assert(offsetof(dec_flush_cmd_t, cam) == 8);
static_assert(sizeof(dec_flush_cmd_t) == 12);

int row_decstart(cal_t* cal, hsc_msg_t* msg)
{
    auto p = cal_payload<dec_start_cmd_t>(msg);
    TRACE("HSCC_CAL_3531_decstart cam:%d\n", p.on);
    return cal_mc_dec_cmd(cal, p.on == 0 ? 2 : 1, p.arg);
}

int row_flush(cal_t* cal, hsc_msg_t* msg)
{
    TRACE("HSCC_CAL_3531_flush cam:%d\n", cal_payload<dec_flush_cmd_t>(msg).cam);
    return cal_mc_dec_cmd(cal, 3, 0);
}

constexpr cal_cmd_row_t k_rows[] = {
    {HSCC_CAL_3531_decstart, HSCC_CAL_3531_decstart, sizeof(dec_start_cmd_t), true, row_decstart},
    {HSCC_CAL_3531_flush, HSCC_CAL_3531_flush, sizeof(dec_flush_cmd_t), true, row_flush},
};

}  // namespace

const cal_mod_t cal_dec_mod = {
    "dec",
    k_rows,
    [](cal_t* cal) { cal->dec = cal_dec_new(cal); },
    [](cal_t* cal) { return cal_dec_start(cal->dec); },
    [](cal_t* cal) { return cal_dec_stop(cal->dec); },
    [](cal_t* cal) {
        cal_dec_delete(cal->dec);
        cal->dec = nullptr;
    },
    [](const cal_t* cal) { return cal->dec != nullptr; },
    cal_m_dec_get_heart,
    nullptr,
};

cal_dec_t* cal_dec_new(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    if (static_cast<unsigned>(cal->slave_cam) > CAL_DEC_MAX_CHN)
        return nullptr;
    // 2 MiB of staging: from the heap, zeroed.
    cal_dec_t* dec = new (std::nothrow) cal_dec_t{};
    if (dec == nullptr)
        CAL_FATAL("malloc cal_dec_t failed!!\n");
    dec->cal = cal;
    dec->num = cal->slave_cam;
    dec->thread_vdec = kel_thread_new("cal_vdec_thread", KEL_THREAD_STACK);
    dec->thread_recv = kel_thread_new("cal_recv_dec_thread", KEL_THREAD_STACK);
    dec->size = sizeof(cal_dec_t);
    dec->skip_show = 0;

    if (pthread_mutex_init(&dec->muxex, nullptr) != 0)
        CAL_FATAL("dec->muxex pthread_mutex_init failed!!\n");

    dec->msgid = os_msgget(MSG_KEY_CE_DEC, IPC_CREAT);
    if (dec->msgid < 0)
        CAL_FATAL("msgget MSG_KEY_CE_DEC failed!!\n");
    // Whatever an earlier run left in the queue points into that run.
    drain(dec->msgid);

    for (int k = 0; k < CAL_DEC_MAX_CHN; ++k) {
        dec->chan[k].vdec_chn = k;
        dec->chan[k].vpss_grp = k;
    }
    TRACE("msgid:%d success\n", dec->msgid);
    return dec;
}

void cal_dec_delete(cal_dec_t* dec)
{
    CAL_CHECK_OBJ(dec, cal_dec_t, "dec is NULL\n");
    TRACE("..\n");
    kel_thread_notify_stop(dec->thread_recv);
    kel_thread_stop(dec->thread_recv, 5000);
    kel_thread_delete(dec->thread_recv);
    kel_thread_notify_stop(dec->thread_vdec);
    send_exit(dec);
    kel_thread_stop(dec->thread_vdec, 5000);
    kel_thread_delete(dec->thread_vdec);
    // The dbufs still queued are this process's: freed, not only forgotten.
    dec_msg_t m;
    while (os_msgrcv(dec->msgid, &m, DEC_MSG_BODY_SIZE, 0, IPC_NOWAIT) >= 0)
        if (m.code == MSG_CMD_DBUF_WRITE)
            dbuf_free(m.dbuf);
    pthread_mutex_destroy(&dec->muxex);
    delete dec;
}

int cal_dec_start(cal_dec_t* dec)
{
    CAL_CHECK_OBJ(dec, cal_dec_t, "dec is NULL\n");
    TRACE("enter\n");
    int r1 = kel_thread_start(dec->thread_vdec, cal_vdec_thread, dec);
    kel_thread_wait_stable(dec->thread_vdec, 5000);
    int r2 = kel_thread_start(dec->thread_recv, cal_recv_dec_thread, dec);
    kel_thread_wait_stable(dec->thread_recv, 5000);
    TRACE("exit.. r1:%d\n", r1);
    return r1 + r2;
}

int cal_dec_stop(cal_dec_t* dec)
{
    CAL_CHECK_OBJ(dec, cal_dec_t, "dec is NULL\n");
    TRACE("--1--\n");
    kel_thread_notify_stop(dec->thread_vdec);
    kel_thread_notify_stop(dec->thread_recv);
    TRACE("--2--\n");
    send_exit(dec);
    int r = kel_thread_stop(dec->thread_vdec, 5000);
    kel_thread_stop(dec->thread_recv, 5000);
    _dec_chip_exit(dec->cal);
    return r;
}

int cal_mc_dec_cmd(cal_t* cal, int cmd, int arg)
{
    cal_dec_t* dec = dec_of(cal);
    dec_msg_t m{1, 0, 0, 0, 0, nullptr};
    switch (cmd) {
    case 1:
        m.code = MSG_CMD_DEC_START;
        m.arg = arg;
        break;
    case 2: m.code = MSG_CMD_DEC_STOP; break;
    case 3:
        // Raised before the marker is queued: every dbuf ahead of it is
        // dropped, whenever the decode thread reaches it.
        dec->flush_pending.store(1);
        m.code = MSG_CMD_DEC_FLUSH;
        break;
    default: TRACE("cmd:%d\n", cmd); return -1;
    }
    if (os_msgsnd(dec->msgid, &m, DEC_MSG_BODY_SIZE, 0) != 0)
        TRACE("msgsnd cmd:%d error:%s\n", cmd, strerror(errno));
    return 0;
}

int cal_m_dec_get_heart(cal_t* cal, unsigned char* payload)
{
    cal_dec_t* dec = dec_of(cal);
    int32_t heart = kel_thread_heart(dec->thread_vdec);
    std::memcpy(payload + 48, &heart, sizeof(heart));
    return 0;
}
