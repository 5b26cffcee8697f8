#include "cal/cal_tx.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "msg/cal_hsc.h"
#include "platform/os.h"
#include "runtime/kel_thread.h"

namespace {

// The record buffer a transfer is working on. Freed when the transfer is
// done, and also if the thread is cancelled in the middle of it.
struct ebuf_hold {
    ebuf_t* ebuf;
    ~ebuf_hold() { ebuf_free(ebuf); }
};

// The frames gathered for one network transfer. Whatever is still in it when
// the thread ends (a stop, or a cancel while it waits) goes back to the pool.
struct encn_batch {
    int streams[TX_ENCN_MAX_FRAMES];
    nbuf_desc_t descs[TX_ENCN_MAX_FRAMES];
    int count = 0;
    int total = 0;  // sum of descriptor + data bytes

    ~encn_batch() { release(); }

    void release()
    {
        for (int k = 0; k < count; ++k)
            nbuf_free(descs[k].data, static_cast<int>(descs[k].len));
        count = 0;
        total = 0;
    }

    void append(int stream, const nbuf_desc_t& desc)
    {
        streams[count] = stream;
        descs[count] = desc;
        ++count;
        total += NBUF_DESC_WIRE_SIZE + static_cast<int>(desc.len);
    }

    // One transfer of the whole batch. The transfer frees the blocks as it
    // copies them, so the batch forgets them first: a cancel while it waits
    // for the master must not free them again. A refused transfer sent
    // nothing and left the blocks here: they are released and the frames
    // are lost.
    void hand_over(cal_t* cal)
    {
        const int n = count;
        const int bytes = total;
        count = 0;
        total = 0;
        if (cal_hsc_send_nbuf(cal, streams, descs, n, bytes) != 0) {
            count = n;
            release();
        }
    }
};

}  // namespace

int cal_notify_ebuf(cal_t* cal, ebuf_t* ebuf)
{
    tx_msg_t msg{};
    msg.type = MSG_CMD_ENC_DATA;
    msg.encr.ebuf = ebuf;
    int r = os_msgsnd(cal->msgid_encr, &msg, TX_MSG_BODY_SIZE, 0);
    if (r < 0) {
        CAL_LOG(3, "msgsnd error.. msgid_encr:%d r:%d %s\n", cal->msgid_encr, r, strerror(errno));
        TRACE("r:%d\n", r);
        ebuf_free(ebuf);
        return r;
    }
    return 0;
}

int cal_notify_nbuf(cal_t* cal, int cam, const nbuf_desc_t& desc, int offset)
{
    tx_msg_t msg{};
    msg.type = MSG_CMD_ENC_DATA;
    msg.encn.stream = cam + cal->cam_base + offset;
    msg.encn.desc = desc;
    int r = os_msgsnd(cal->msgid_encn, &msg, TX_MSG_BODY_SIZE, 0);
    if (r < 0) {
        CAL_LOG(3, "msgsnd error.. msgid_encn:%d r:%d %s\n", cal->msgid_encn, r, strerror(errno));
        TRACE("r:%d\n", r);
        nbuf_free(desc.data, static_cast<int>(desc.len));
        return r;
    }
    return 0;
}

int tx_encr_thread(void* arg)
{
    cal_t* cal = static_cast<cal_t*>(arg);
    CAL_CHECK_OBJ(cal, cal_t, "enc is NULL\n");
    kel_thread_t* dt = cal->thread_encr;
    cal_thread_priority(0, "tx_encr_thread");
    kel_thread_reset_heart(dt);
    kel_thread_set_stable(dt, 1);
    TRACE("enter!!");

    while (kel_thread_want_exit(dt) == 0) {
        // Waits for the next buffer: a stop takes effect after it.
        tx_msg_t msg;
        if (os_msgrcv(cal->msgid_encr, &msg, TX_MSG_BODY_SIZE, 0, MSG_NOERROR) < 0) {
            TRACE("msgrcv error!! error:%s\n", strerror(errno));
            os_usleep(100000);
            continue;
        }
        if (msg.type == MSG_CMD_ENC_DATA) {
            {
                // Sent or not, the buffer's frames are done with.
                ebuf_hold hold{msg.encr.ebuf};
                cal_hsc_send_ebuf(cal, hold.ebuf);
            }
            os_usleep(10000);
        }
        kel_thread_inc_heart(dt);
    }
    TRACE("exit!!");
    return 0;
}

int tx_encn_thread(void* arg)
{
    cal_t* cal = static_cast<cal_t*>(arg);
    CAL_CHECK_OBJ(cal, cal_t, "enc is NULL\n");
    kel_thread_t* dt = cal->thread_encn;
    cal_thread_priority(0, "tx_encn_thread");
    kel_thread_reset_heart(dt);
    kel_thread_set_stable(dt, 1);
    TRACE("enter!!");

    encn_batch batch;
    time_t prev = os_time(nullptr);
    while (kel_thread_want_exit(dt) == 0) {
        for (int attempt = 0; attempt < TX_ENCN_MAX_FRAMES; ++attempt) {
            tx_msg_t msg;
            if (os_msgrcv(cal->msgid_encn, &msg, TX_MSG_BODY_SIZE, 0, IPC_NOWAIT) < 0) {
                // The queue ran dry: what was gathered goes now.
                if (batch.count > 0)
                    batch.hand_over(cal);
                os_usleep(100000);
                break;
            }
            if (msg.type == MSG_CMD_ENC_DATA) {
                // A frame too big even for an empty batch goes alone.
                if (batch.count == TX_ENCN_MAX_FRAMES ||
                    (batch.count > 0 &&
                     static_cast<int64_t>(batch.total) + msg.encn.desc.len > TX_ENCN_MAX_BYTES))
                    batch.hand_over(cal);
                batch.append(msg.encn.stream, msg.encn.desc);
            }
            time_t t = os_time(nullptr);
            if (t != prev)
                os_usleep(10000);
            prev = t;
        }
        kel_thread_inc_heart(dt);
    }
    batch.release();
    TRACE("exit!!");
    return 0;
}
