// Helpers the master's own source files share; not part of its interface.
#pragma once

#include <cstdint>

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

}  // namespace tmaster
