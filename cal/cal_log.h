// The process logger and the console trace.
//
// cal_log (level, function, line, format, ...) writes "%-16s(%04d)> %s"
// ("%-16s(%04d)> ERROR!! %s" at level 3) to the console, except at level 7,
// and always to syslog at that level. Every '%' of the message becomes '#'
// and the message is cut at 255 characters.
//
// TRACE (format, ...) writes one console line "%-20s(%4d)> " + message with
// the calling function and line, and flushes standard output.
#pragma once

#include <cstdint>
#include <cstdlib>

int cal_log(int level, const char* func, int line, const char* fmt, ...) __attribute__((format(printf, 4, 5)));
void cal_trace(const char* func, int line, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

#define TRACE(...) cal_trace(__func__, __LINE__, __VA_ARGS__)
#define CAL_LOG(level, ...) cal_log((level), __func__, __LINE__, __VA_ARGS__)

// A fault the process cannot go on from: log at level 3, then abort.
#define CAL_FATAL(...)                                      \
    do {                                                    \
        cal_log(3, __func__, __LINE__, __VA_ARGS__);        \
        std::abort();                                       \
    } while (0)

// The object check of every module operation: a NULL object or one whose
// recorded size is not its type's size is fatal.
#define CAL_CHECK_OBJ(obj, type, null_msg)                              \
    do {                                                                \
        if ((obj) == nullptr)                                           \
            CAL_FATAL(null_msg);                                        \
        if ((obj)->size != static_cast<int>(sizeof(type)))              \
            CAL_FATAL("size != sizeof(" #type ")\n");                   \
    } while (0)

// The low 32 bits of an address, for the "%08x" fields of traces.
inline unsigned ptr32(const void* p)
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}
