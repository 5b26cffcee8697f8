// Time helpers shared by every thread.
#pragma once

#include <cstddef>
#include <ctime>

// Breaks t down to local time into out, under the process-wide local-time
// mutex, so that no two threads share the C library's static result.
// A time it cannot convert (its year beyond an int) gives 1970-01-01
// 00:00:00 rather than a fault.
struct tm* cal_localtime(struct tm* out, const time_t* t);

// The wall clock in milliseconds: seconds * 1000.0 + microseconds / 1000.
double cal_get_msec();

// The longest zone text applied. Real zone texts are far shorter: the
// longest zone names have about 32 characters, full POSIX rules about 50.
inline constexpr size_t CAL_TZ_MAX = 63;

// Whether a zone text (from the master) may be applied: at most CAL_TZ_MAX
// characters, and either a POSIX rule "std offset [dst [offset] [,rule]]"
// or a plain zone name (letters, digits, "_+-./", no "..", no leading '/'
// or ':'), which the C library looks up under the system's zone directory.
// Nothing else: a text naming a file elsewhere would make every later
// local-time conversion open that file.
bool cal_tz_acceptable(const char* tz);

// Sets TZ in the environment and re-reads it, under the same mutex as the
// local-time conversions that read it. Returns 0, or -1 with nothing
// changed for a text cal_tz_acceptable refuses. The environment's storage
// for TZ is one buffer, reused for every zone.
int cal_set_tz_env(const char* tz);
