#include "cal/cal.h"

#include <sched.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "cal/cal_buf.h"
#include "cal/cal_log.h"
#include "cal/cal_mod.h"
#include "cal/cal_tx.h"
#include "dec/cal_dec.h"
#include "enc/cal_enc.h"
#include "msg/cal_hsc.h"
#include "platform/os.h"
#include "vin/cal_vin.h"
#include "vin/chip.h"
#include "vout/cal_vout.h"

namespace {

struct priority_row {
    const char* name;
    bool from_max;  // relative to the maximum instead of the minimum
    int delta;
};

// Scheduling of every thread of the process, by the name it announces.
constexpr priority_row k_priority_table[] = {
    {"gui", false, 1},
    {"cal_enc_thread", false, 0},
    {"tx_encr_thread", false, 0},
    {"tx_encn_thread", false, 0},
    {"cal_jpeg_thread", false, 0},
    {"cal_vin_thread", false, 0},
    {"dec_thread", false, 0},
    {"vout_thread", false, 4},
    {"cal_vdec_thread", true, -20},
    {"cal_adec_thread", true, 0},
    {"cal_recv_dec_thread", true, 0},
};

}  // namespace

// The modules of the process.
const cal_mod_t* cal_mods[CAL_MOD_COUNT] = {
    /* CAL_MOD_VOUT */ &cal_vout_mod,
    /* CAL_MOD_DEC */ &cal_dec_mod,
    /* CAL_MOD_ENC */ &cal_enc_mod,
    /* CAL_MOD_VIN */ &cal_vin_mod,
};

void cal_mod_set_time(cal_t* cal, uint64_t us)
{
    for (const cal_mod_t* m : cal_mods)
        if (m != nullptr && m->set_time != nullptr && m->present(cal))
            m->set_time(cal, us);
}

int _system_insmod()
{
    os_system("himm 0x20110150  0x03ff5 > /dev/null");
    os_system("himm 0x20110188  0x10600 > /dev/null");
    os_system("himm 0x20120150  0x03ff5 > /dev/null");
    os_system("himm 0x20120188  0x10600 > /dev/null");
    TRACE("fill insmod!!");
    return 0;
}

int cal_drain_queue(int msgid)
{
    tx_msg_t msg;
    int n = 0;
    while (os_msgrcv(msgid, &msg, TX_MSG_BODY_SIZE, 0, IPC_NOWAIT) >= 0)
        ++n;
    return n;
}

cal_t* cal_new()
{
    _system_insmod();

    cal_t* cal = new (std::nothrow) cal_t{};
    if (cal == nullptr)
        CAL_FATAL("cal == NULL\n");
    cal->size = sizeof(cal_t);

    cal->thread_encr = kel_thread_new("thread_encr", KEL_THREAD_STACK);
    cal->thread_encn = kel_thread_new("thread_encn", KEL_THREAD_STACK);

    cal->msgid_encr = os_msgget(MSG_KEY_ENCR, IPC_CREAT);
    if (cal->msgid_encr < 0)
        CAL_FATAL("msgget MSG_KEY_ENCR failed!!\n");
    cal->msgid_encn = os_msgget(MSG_KEY_ENCN, IPC_CREAT);
    if (cal->msgid_encn < 0)
        CAL_FATAL("msgget MSG_KEY_ENCN failed!!\n");

    // Whatever an earlier run left in the queues must never reach the threads.
    cal_drain_queue(cal->msgid_encr);
    cal_drain_queue(cal->msgid_encn);
    return cal;
}

void cal_mod_new(cal_t* cal)
{
    if (cal == nullptr) {
        TRACE("cal is NULL\n");
        return;
    }
    cal->hsc = cal_hsc_new(cal);
    for (cal_mod_id id : CAL_MOD_NEW_ORDER)
        if (const cal_mod_t* m = cal_mods[id])
            m->create(cal);
    chip_init_slave(cal);
    TRACE(".. module new cal:%08x\n", ptr32(cal));
}

int cal_start(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    // A module that has not joined, or declined to exist, starts as 0.
    int rm[CAL_MOD_COUNT] = {};
    int sum = 0;
    for (cal_mod_id id : CAL_MOD_START_ORDER)
        if (const cal_mod_t* m = cal_mod_live(cal, id))
            sum += rm[id] = m->start(cal);

    int r = kel_thread_start(cal->thread_encr, tx_encr_thread, cal);
    if (r < 0)
        CAL_FATAL("kel_thread_start for tx_encr_thread failed!!\n");
    sum += r;
    kel_thread_wait_stable(cal->thread_encr, 5000);

    r = kel_thread_start(cal->thread_encn, tx_encn_thread, cal);
    if (r < 0)
        CAL_FATAL("kel_thread_start for tx_encn_thread failed!!\n");
    sum += r;
    kel_thread_wait_stable(cal->thread_encn, 5000);

    TRACE("r1:%d r3:%d\n", rm[CAL_MOD_DEC], rm[CAL_MOD_VIN]);
    return sum;
}

int cal_stop(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    kel_thread_notify_stop(cal->thread_encr);
    kel_thread_notify_stop(cal->thread_encn);
    int r1 = kel_thread_stop(cal->thread_encr, 2000);
    int r2 = kel_thread_stop(cal->thread_encn, 2000);
    int sum = r1 + r2;
    for (cal_mod_id id : CAL_MOD_STOP_ORDER)
        if (const cal_mod_t* m = cal_mod_live(cal, id))
            sum += m->stop(cal);
    TRACE("r1:%d r2:%d\n", r1, r2);
    return sum;
}

void cal_delete(cal_t* cal)
{
    TRACE(".. cal:%08x\n", ptr32(cal));
    if (cal == nullptr)
        return;
    // A transmit or intake thread its stop had to cancel in a wait on the
    // master is still unwinding: it ends before the channel it reads goes.
    for (kel_thread_t* t = kel_thread_registry; t != nullptr; t = t->next)
        if (t->id == 0)
            kel_thread_wait_gone(t, 1000);
    // No channel exists when slave_cam was above 32.
    if (cal->hsc != nullptr)
        cal_hsc_delete(cal->hsc);
    chip_exit_slave(cal);
    for (cal_mod_id id : CAL_MOD_DELETE_ORDER)
        if (const cal_mod_t* m = cal_mod_live(cal, id))
            m->destroy(cal);
    kel_thread_delete(cal->thread_encr);
    kel_thread_delete(cal->thread_encn);
    delete cal;
}

int cal_thread_priority(int, const char* name)
{
    int r = -1;
    for (const priority_row& row : k_priority_table) {
        if (name == nullptr || std::strcmp(name, row.name) != 0)
            continue;
        int base = row.from_max ? sched_get_priority_max(SCHED_RR) : sched_get_priority_min(SCHED_RR);
        if (os_sched_setscheduler(SCHED_RR, base + row.delta) != 0) {
            if (std::strcmp(name, "cal_recv_dec_thread") == 0)
                CAL_LOG(3, "sched_setscheduler.. %s\n", strerror(errno));
            else
                TRACE("schedscheduler error:%s\n", strerror(errno));
        }
        r = 0;
        break;
    }
    TRACE("sz_thread:%s r:%d\n", name ? name : "(null)", r);
    return r;
}
