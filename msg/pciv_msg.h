// PCI message ports: one descriptor of the message driver per (target chip,
// port number). The master is target 0. A message is a 16-byte header whose
// third word is the payload length, then the payload; a read takes one
// message of at most 548 bytes.
#pragma once

#include <atomic>
#include <cstdint>

inline constexpr int PCIV_MSG_MAX_TARGET = 31;
inline constexpr int PCIV_MSG_BASE_PORT = 100;
inline constexpr int PCIV_MSG_MAX_PORT = 231;
inline constexpr int PCIV_MSG_PORTS = 133;  // table entries per target: ports 100 .. 232
inline constexpr int PCIV_MSG_HEAD_SIZE = 16;
inline constexpr int PCIV_MSG_MAX_SIZE = 548;
inline constexpr int PCIV_MSG_MAX_PAYLOAD = PCIV_MSG_MAX_SIZE - PCIV_MSG_HEAD_SIZE;

// One descriptor per port; > 0 open, 0 (never opened) or -1 (closed) closed.
// Written when ports open or close, read by every thread that uses a port.
extern std::atomic<int> pciv_msg_port_table[PCIV_MSG_MAX_TARGET + 1][PCIV_MSG_PORTS];

int pciv_open_msg(int target, int port);
int pciv_close_msg(int target, int port);
// 1 when a message can be read; the timeout is not applied (no time limit).
int pciv_wait_msg(int target, int port, int timeout);
// One message into buf (at least 548 bytes); its length word is replaced by
// the bytes received minus the header.
int pciv_read_msg(int target, int port, void* buf);
// Sends the header and the payload length the header gives.
int pciv_write_msg(int target, int port, const void* msg);
// Waits without limit until the target is reachable.
int pciv_wait_connect(int target);
// This chip's id and the reachable chips (at most 36).
int pciv_scan_slave(int* local_id, int* remote_ids, int* count);
