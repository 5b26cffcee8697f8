// Fuzz target: any transfer the master announces on the playback port and
// any bytes it leaves in the landing buffer, through the intake's
// take-transfer step; whatever was posted is then taken off the decode
// queue and freed, so memory stays flat from input to input.
//
// Input: word 0 bit 0 picks the message (0x70000 one record, 0x70001 two),
// bit 1 whether word 1 is the request's byte count as sent (any value, up
// to the clamp of the landing buffer) or is reduced to at most the landing
// bytes given (so most inputs stay small and fast); word 2 is the second
// record's offset; the rest is the landing buffer's content. The landing
// buffer is as large as the channel's (HSC_BUF_SIZE) and zeros past the
// input; only the bytes the exchange pulled are addressable, the rest is
// poisoned, so a read past them is a report of the address sanitizer.
#include <sanitizer/asan_interface.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "cal/cal_buf.h"
#include "dec/cal_dec.h"
#include "msg/cal_hsc.h"
#include "tests/fuzz/fuzz_board.h"

namespace {

constexpr size_t k_head = 12;

uint32_t word(const uint8_t* p)
{
    uint32_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}

// Whether the record at pos would hit an abort the intake is meant to
// take: a negative buf_off (always checked first) or a negative buf_size
// (checked when the record is posted). Such inputs are excluded up front,
// the second conservatively (also when the record would have been refused
// for another reason), and no other abort is masked.
bool mandated_abort(const uint8_t* landing, size_t pulled, uint32_t pos)
{
    if (pos >= pulled || pulled - pos < static_cast<size_t>(DBUF_HEADER_SIZE))
        return false;
    const uint8_t* rec = landing + pos;
    return static_cast<int32_t>(word(rec + offsetof(dbuf_t, buf_off))) < 0 ||
           static_cast<int32_t>(word(rec + offsetof(dbuf_t, buf_size))) < 0;
}

// The landing buffer: zeros, and poisoned while no input runs.
uint8_t* landing_buffer()
{
    static uint8_t* const buf = [] {
        auto* p = new uint8_t[HSC_BUF_SIZE]();
        ASAN_POISON_MEMORY_REGION(p, HSC_BUF_SIZE);
        return p;
    }();
    return buf;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    the_board();
    landing_buffer();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < k_head)
        return -1;
    const uint32_t flags = word(data);
    const uint8_t* given = data + k_head;
    const size_t given_len = size - k_head;

    dec_xfer_req_t req{};
    req.bytes = word(data + 4);
    if ((flags & 2) == 0)
        req.bytes %= static_cast<uint32_t>(given_len) + 1;
    req.window = 3;
    req.second = word(data + 8);

    hsc_msg_t msg;
    std::memset(&msg, 0, sizeof(msg));
    msg.cmd = (flags & 1) != 0 ? HSCC_DEC_Dbuf2 : HSCC_DEC_Dbuf;
    msg.len = sizeof(req);
    std::memcpy(msg.data, &req, sizeof(req));

    const size_t pulled = req.bytes < HSC_BUF_SIZE ? req.bytes : HSC_BUF_SIZE;
    const size_t copied = pulled < given_len ? pulled : given_len;
    uint8_t* landing = landing_buffer();
    ASAN_UNPOISON_MEMORY_REGION(landing, pulled);
    std::memcpy(landing, given, copied);
    // Back to zeros and unaddressable, whatever this input does.
    struct restore_t {
        uint8_t* p;
        size_t copied, pulled;
        ~restore_t()
        {
            std::memset(p, 0, copied);
            ASAN_POISON_MEMORY_REGION(p, pulled);
        }
    } restore{landing, copied, pulled};
    if (mandated_abort(landing, pulled, 0) ||
        (msg.cmd == HSCC_DEC_Dbuf2 && mandated_abort(landing, pulled, req.second)))
        return -1;

    fuzz_board& board = the_board();
    const int posted = dec_take_transfer(board.cal()->dec, &msg, landing);
    // Every record posted is on the queue once; freeing them all leaves
    // nothing held (the leak check at exit sees any dbuf lost). The pool's
    // byte count is not compared: a dbuf keeps the buf_size the master
    // wrote, and its release counts that, not what was allocated.
    if (posted < 0 || posted > 2 || board.drain_dec_queue() != posted)
        __builtin_trap();
    return 0;
}
