// Fault injection of the simulated board.
//
// TARVO_SIM_FAIL holds comma-separated rules NAME=CODE (every call of NAME
// fails with CODE) or NAME@N=CODE (only the N-th call, counting from 1).
// CODE is hexadecimal, with or without 0x. Every simulated operation calls
// sim_fail() first and, when it answers non-zero, fails with that code and
// has no other effect.
#pragma once

#include <cstdint>
#include <string>

enum sim_op : int {
#define SIM_OP(name) SIM_OP_##name,
#include "platform/sim/sim_ops.def"
#undef SIM_OP
    SIM_OP_COUNT
};

// Replaces the rule set; returns 0, or -1 with the reason in err (an
// unknown name, a malformed rule or a zero code). Call counts restart.
int sim_fault_set(const char* rules, std::string* err);

// Counts one call of op; returns 0 or the code this call must fail with.
int32_t sim_fail(sim_op op);

// Calls of op so far (for tests).
uint32_t sim_fault_calls(sim_op op);

// The operation's name, or nullptr for an id out of range.
const char* sim_op_name(sim_op op);
