// The command loop: the main thread's last duty. It reads one command from
// the master on MSGPORT_CAL, runs the row its code names, puts the result
// into the message and writes the message back. Every command is answered
// exactly once, in order; unknown codes too.
//
// The loop owns the rows of the core (DMA windows, time zone, status, clock,
// video loss); every other row comes from the table of the module it
// belongs to (cal/cal_mod.h). A code whose module has not joined yet is
// traced as the loop always traces it and answered 0.
#pragma once

#include <cstdint>

#include "cal/cal_mod.h"

struct cal_t;
struct hsc_msg_t;

// Payload bytes of the status reply.
inline constexpr uint32_t CAL_STATUS_LEN = 56;

// One turn: count heartbit, read one command (a failed read costs a 10 ms
// pause and returns -1), dispatch it and write the reply; returns 0.
int cal_cmd_turn(cal_t* cal, hsc_msg_t* msg);

// Turns for ever.
[[noreturn]] void cal_cmd_loop(cal_t* cal);

// Runs the row of msg's code on msg in place and returns the result that
// goes back to the master (0 for an unknown code).
int cal_cmd_dispatch(cal_t* cal, hsc_msg_t* msg);

// The row of a code: the core's or that of a module in the process; NULL
// for any other code.
const cal_cmd_row_t* cal_cmd_find_row(const cal_t* cal, uint32_t code);

// Builds the status reply in msg (HSCC_CAL_GetStatus).
int cal_cmd_get_status(cal_t* cal, hsc_msg_t* msg);
