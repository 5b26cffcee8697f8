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

void _init_mem();
void low_power(int master, int num_vin);
int _set_tz(cal_t* cal, const char* tz);
int _set_time(cal_t* cal, uint64_t seconds, uint64_t usec);
