// Simulated message driver. A descriptor from mcc_open is one end of a
// local SOCK_SEQPACKET pair; the driver holds the other end and, once the
// descriptor is bound to (target, port), relays whole packets between it and
// a SOCK_SEQPACKET connection to <board>/chip<target>.sock, opened with the
// 12-byte hello. A lost connection is reopened every 10 ms (hello again);
// packets written meanwhile are dropped.
#pragma once

#include <cstdint>

inline constexpr uint32_t SIM_MCC_HELLO_MAGIC = 0x3143434D;
inline constexpr int SIM_MCC_MAX_PACKET = 4096;
inline constexpr int SIM_MCC_MAX_BOUND = 8;  // bound descriptors per process
inline constexpr int SIM_MCC_RETRY_MS = 10;
inline constexpr int SIM_MCC_MAX_TARGET = 31;  // highest chip a descriptor can name

// The longest socket path a board directory gives the driver (the highest
// target's); a board whose path makes it too long for a socket address is
// refused when it is opened.
inline constexpr const char* SIM_MCC_LONGEST_SOCK = "chip31.sock";

// Bound descriptors whose board connection is up (for tests).
int sim_mcc_connected_count();
