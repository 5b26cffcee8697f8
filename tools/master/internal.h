// Helpers the master's own source files share; not part of its interface.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "master/wire.h"

namespace tmaster {

inline msg_head_t make_head(uint32_t id, uint32_t cmd, uint32_t len)
{
    return msg_head_t{id, cmd, len, 0};
}

inline const char* port_name(int port)
{
    switch (port) {
    case PORT_CAL: return "102 (commands)";
    case PORT_ENCR: return "103 (records)";
    case PORT_ENCN: return "104 (network)";
    case PORT_VIN: return "105 (motion)";
    case PORT_ENCJPG: return "106 (snapshots)";
    case PORT_DEC: return "107 (playback)";
    default: return "?";
    }
}

// A progress line of a long-running command, written and flushed at once;
// nothing when no progress stream was asked for.
inline void say_progress(FILE* progress, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
inline void say_progress(FILE* progress, const char* fmt, ...)
{
    if (progress == nullptr)
        return;
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(progress, fmt, ap);
    va_end(ap);
    std::fflush(progress);
}

}  // namespace tmaster
