// Playback intake: each transfer the master announces on MSGPORT_DEC is
// pulled into the landing buffer, its records are copied into dbufs of
// their own and posted to the decode queue. Everything in a record that
// the slave relies on is checked before anything is copied: a record the
// master got wrong is refused with a trace, and nothing is read outside
// the pulled bytes or written outside the dbuf.
#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstring>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "dec/cal_dec.h"
#include "platform/os.h"
#include "runtime/kel_thread.h"

namespace {

cal_dec_t* dec_of(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    CAL_CHECK_OBJ(cal->dec, cal_dec_t, "dec is NULL\n");
    return cal->dec;
}

int32_t word_at(const unsigned char* p, size_t off)
{
    int32_t v;
    std::memcpy(&v, p + off, sizeof(v));
    return v;
}

// Whether the record at rec (avail bytes up to the end of the pulled ones)
// can be taken: whole, with at most 240 frames, each frame inside its data
// and short enough for the decoder's staging room.
bool record_acceptable(const unsigned char* rec, uint32_t avail, int idx)
{
    if (avail < static_cast<uint32_t>(DBUF_HEADER_SIZE)) {
        TRACE("refused.. record %d: %u bytes left, the index needs %d\n", idx, avail, DBUF_HEADER_SIZE);
        return false;
    }
    const int32_t buf_off = word_at(rec, offsetof(dbuf_t, buf_off));
    if (static_cast<uint32_t>(buf_off) > avail - DBUF_HEADER_SIZE) {
        TRACE("refused.. record %d: buf_off:%d past the %u bytes pulled\n", idx, buf_off, avail);
        return false;
    }
    const int32_t n = word_at(rec, offsetof(dbuf_t, num_vdec));
    if (n < 0 || n > DBUF_MAX_VDEC) {
        TRACE("refused.. record %d: num_vdec:%d\n", idx, n);
        return false;
    }
    for (int i = 0; i < n; ++i) {
        const int32_t off = word_at(rec, offsetof(dbuf_t, off) + 4 * static_cast<size_t>(i));
        const int32_t len = word_at(rec, offsetof(dbuf_t, len) + 4 * static_cast<size_t>(i));
        if (off < 0 || len < 0 || static_cast<int64_t>(off) + len > buf_off) {
            TRACE("refused.. record %d frame %d: off:%d len:%d outside buf_off:%d\n", idx, i, off, len, buf_off);
            return false;
        }
        if (len > DEC_MAX_FRAME) {
            TRACE("refused.. record %d frame %d: len:%d > %d\n", idx, i, len, DEC_MAX_FRAME);
            return false;
        }
    }
    return true;
}

// Copies one record into a dbuf of its own and posts it; false when it was
// refused or dropped.
bool take_record(cal_dec_t* dec, const unsigned char* rec, uint32_t avail, int idx)
{
    if (avail >= static_cast<uint32_t>(DBUF_HEADER_SIZE) && word_at(rec, offsetof(dbuf_t, buf_off)) < 0)
        CAL_FATAL("buf_off < 0\n");
    if (!record_acceptable(rec, avail, idx))
        return false;
    const int32_t n = word_at(rec, offsetof(dbuf_t, buf_off));
    dbuf_t* d = dbuf_malloc(n);
    if (d == nullptr) {
        TRACE("refused.. record %d: no memory for %d bytes\n", idx, n);
        return false;
    }
    std::memcpy(d, rec, DBUF_HEADER_SIZE + static_cast<size_t>(n));
    _mc_dec_notify_dbuf(dec->cal, d);
    return true;
}

}  // namespace

int dec_take_transfer(cal_dec_t* dec, const hsc_msg_t* msg, const unsigned char* landing)
{
    if (landing == nullptr)
        return 0;
    auto req = cal_payload<dec_xfer_req_t>(msg);
    const uint32_t bytes = req.bytes < HSC_BUF_SIZE ? req.bytes : HSC_BUF_SIZE;
    int posted = 0;
    if (msg->cmd == HSCC_DEC_Dbuf || msg->cmd == HSCC_DEC_Dbuf2)
        posted += take_record(dec, landing, bytes, 0);
    if (msg->cmd == HSCC_DEC_Dbuf2) {
        if (req.second >= bytes)
            TRACE("refused.. second record at %u of %u bytes\n", req.second, bytes);
        else
            posted += take_record(dec, landing + req.second, bytes - req.second, 1);
    }
    return posted;
}

int cal_recv_dec_thread(void* arg)
{
    auto* dec = static_cast<cal_dec_t*>(arg);
    CAL_CHECK_OBJ(dec, cal_dec_t, "dec is NULL\n");
    cal_thread_priority(0, "cal_recv_dec_thread");
    kel_thread_reset_heart(dec->thread_recv);
    kel_thread_set_stable(dec->thread_recv, 1);
    TRACE("enter thread .. \n");
    hsc_msg_t msg;
    while (kel_thread_want_exit(dec->thread_recv) == 0) {
        msg.id = msg.cmd = msg.len = 0;
        msg.result = 0;
        unsigned char* landing = nullptr;
        if (cal_hsc_read_dec(dec->cal, &msg, 0, &landing) == -1)
            os_usleep(1000);
        else
            dec_take_transfer(dec, &msg, landing);
        kel_thread_inc_heart(dec->thread_recv);
    }
    TRACE("EXIT!!\n");
    return 0;
}

int _mc_dec_notify_dbuf(cal_t* cal, dbuf_t* dbuf)
{
    cal_dec_t* dec = dec_of(cal);
    if (dbuf->buf_size < 0)
        CAL_FATAL("dbuf->buf_size is 0\n");
    dec->num_dbuf.fetch_add(1);
    dec_msg_t m{1, MSG_CMD_DBUF_WRITE, 0, 0, 0, dbuf};
    if (os_msgsnd(dec->msgid, &m, DEC_MSG_BODY_SIZE, 0) != 0) {
        TRACE("ERROR!! msgsnd MSG_CMD_DBUF_WRITE error:%s\n", strerror(errno));
        dec->num_dbuf.fetch_sub(1);
        dbuf_free(dbuf);
    }
    return 0;
}

int cal_dec_num_dbuf(cal_t* cal)
{
    cal_dec_t* dec = dec_of(cal);
    int n = dec->num_dbuf.load();
    if (n < 0) {
        CAL_LOG(7, "RESET num_dbuf:%d\n", n);
        // Only a count still negative is reset: an increment meanwhile stays.
        dec->num_dbuf.compare_exchange_strong(n, 0);
        return 0;
    }
    return n;
}
