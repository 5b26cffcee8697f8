// A minimal master for in-process tests and benchmarks, written from the
// board contract with raw sockets: it listens on <board>/chip0.sock, takes
// each port connection by its 12-byte hello, and owns chip0.mem, whose first
// 16 MiB it maps for the caller.
//
// Connections are accepted when a call asks for one (conn, accept_pending),
// so a test sees the order in which they reached the listening socket.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class fake_master {
public:
    struct hello_t {
        uint32_t magic;
        int chip;
        int port;
    };

    static constexpr uint32_t mapped_bytes = 16u << 20;

    explicit fake_master(const std::string& board_dir);
    ~fake_master();
    fake_master(const fake_master&) = delete;
    fake_master& operator=(const fake_master&) = delete;

    // Closes the listening socket and every connection, then listens again:
    // what a master restart looks like to the slave. Stops echo threads.
    void restart();

    // Accepts every connection waiting on the listening socket and reads its
    // hello. Handshake connections (port 1000) are recorded and closed.
    void accept_pending();
    // The connection of a port, accepting as connections arrive; -1 when
    // none came within the time limit.
    int conn(int port, int timeout_ms = 5000);
    std::vector<hello_t> hellos();

    // One whole message of the port (cut to size), or -1 when none came.
    ssize_t recv(int port, void* out, size_t size, int timeout_ms = 5000);
    std::vector<unsigned char> recv_msg(int port, int timeout_ms = 5000);
    // True when a message waits on the port within the time limit.
    bool readable(int port, int timeout_ms);
    int send(int port, const void* data, size_t len);

    // Answers every message of the port by sending it back unchanged, from
    // a thread of its own; keeps a copy of each.
    void echo(int port);
    std::vector<std::vector<unsigned char>> echoed(int port);

    // chip 0's memory at a byte offset (below mapped_bytes) and its bus address.
    unsigned char* mem(uint32_t offset) { return mem_ + offset; }
    static uint32_t bus(uint32_t offset) { return (1u << 28) | offset; }

private:
    void listen_now();
    void stop_echoes();
    void close_all();

    std::string sock_path_;
    int listen_fd_ = -1;
    int mem_fd_ = -1;
    unsigned char* mem_ = nullptr;
    std::mutex mutex_;
    std::map<int, int> conns_;  // port -> connection
    std::vector<hello_t> hellos_;
    std::map<int, std::vector<std::vector<unsigned char>>> echoed_;
    std::atomic<bool> echo_stop_{false};
    std::vector<std::thread> echo_threads_;
};
