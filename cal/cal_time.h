// Time helpers shared by every thread.
#pragma once

#include <ctime>

// Breaks t down to local time into out, under the process-wide local-time
// mutex, so that no two threads share the C library's static result.
struct tm* cal_localtime(struct tm* out, const time_t* t);

// The wall clock in milliseconds: seconds * 1000.0 + microseconds / 1000.
double cal_get_msec();

// Sets TZ in the environment and re-reads it, under the same mutex as the
// local-time conversions that read it.
void cal_set_tz_env(const char* tz);
