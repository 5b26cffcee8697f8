// Process start-up and the services it offers the command loop.
#pragma once

#include <cstdint>

struct cal_t;

// Turn counter of the command loop, reported by the status reply.
extern uint32_t heartbit;

// The process entry: returns only for a refused start (status 2).
int tarvo_main(int argc, char** argv);

// Fills the settings of the core from the four command-line arguments.
void _parse_args(cal_t* cal, char** argv);

// Refuses a command line the process cannot serve, with the reason on
// standard error: a number beyond an int, slave_cam or num_vin outside
// 0 .. 32, or a cam_base below 0 or so high that a stream number
// (cam_base + slave_cam - 1 + 2 * num_vin at most) would pass the int
// limit. Text that is no number stays 0, as _parse_args reads it.
// Returns 0 or -1; argv holds at least five entries.
int _check_args(char** argv);

void _init_mem();
void low_power(int master, int num_vin);
int _set_tz(cal_t* cal, const char* tz);
int _set_time(cal_t* cal, uint64_t seconds, uint64_t usec);
