// Fuzz target: any message on the command port through the dispatcher's
// handler table, with every module of the slave built.
//
// The input is the message as the master writes it on the port: the 16-byte
// header (id, cmd, len, result) and up to 532 payload bytes. The port
// delivers it as the command loop sees it: the length is what arrived (the
// sender's len is not trusted), the rest of the message reads zeros.
//
// No handler of the table sleeps or waits for a thread, so every code is
// fuzzed. The core keeps what each command set, as the slave does from one
// command to the next: a finding may need the corpus run before it to
// reproduce, not only the last input.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "cal/cal_cmd.h"
#include "msg/cal_hsc.h"
#include "tests/fuzz/fuzz_board.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    the_board();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // A write shorter than the header is not delivered.
    if (size < PCIV_MSG_HEAD_SIZE)
        return -1;
    const size_t n = size < sizeof(hsc_msg_t) ? size : sizeof(hsc_msg_t);
    hsc_msg_t msg;
    std::memset(&msg, 0, sizeof(msg));
    std::memcpy(&msg, data, n);
    msg.len = static_cast<uint32_t>(n - PCIV_MSG_HEAD_SIZE);

    fuzz_board& board = the_board();
    msg.result = cal_cmd_dispatch(board.cal(), &msg);
    // The reply goes back as the loop sends it: never longer than a message.
    if (msg.len > PCIV_MSG_MAX_PAYLOAD)
        __builtin_trap();
    // Start, stop and flush requests wait for a decode thread that does not
    // run here; the queue is emptied so it never fills.
    board.drain_dec_queue();
    return 0;
}
