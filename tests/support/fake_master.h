// A minimal master for in-process tests and benchmarks, on raw sockets: it
// listens on <board>/chip0.sock, takes each port connection by its 12-byte
// hello when a call asks for one, and maps the first 16 MiB of chip0.mem.
#pragma once

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
    using bytes = std::vector<unsigned char>;

    explicit fake_master(const std::string& board_dir);
    ~fake_master();

    // Closes the listening socket and every connection, then listens again.
    void restart();
    // Accepts what waits, reading each hello; a handshake (port 1000) is
    // recorded and closed.
    void accept_pending();
    std::vector<hello_t> hellos();

    bool readable(int port, int timeout_ms);
    bytes recv_msg(int port, int timeout_ms = 5000);  // empty when none came
    int send(int port, const void* data, size_t len);

    // Sends every message of the port back from a thread; keeps copies.
    void echo(int port);
    std::vector<bytes> echoed(int port);

    unsigned char* mem(uint32_t offset) { return mem_ + offset; }
    static uint32_t bus(uint32_t offset) { return (1u << 28) | offset; }  // chip 0

private:
    void listen_now();
    void close_all();
    // The connection of a port, accepting as they arrive; -1 after the limit.
    int conn(int port, int timeout_ms = 5000);

    std::string sock_path_;
    int listen_fd_ = -1;
    unsigned char* mem_ = nullptr;
    std::mutex mutex_;
    std::map<int, int> conns_;  // port -> connection
    std::vector<hello_t> hellos_;
    std::map<int, std::vector<bytes>> echoed_;
    std::atomic<bool> echo_stop_{false};
    std::vector<std::thread> echo_threads_;
};
