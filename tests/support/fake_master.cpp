#include "tests/support/fake_master.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint64_t k_chip_mem = 256ull << 20;
constexpr int k_handshake_port = 1000;

[[noreturn]] void die(const char* what)
{
    std::perror(what);
    std::abort();
}

uint32_t get_u32(const unsigned char* p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

}  // namespace

fake_master::fake_master(const std::string& board_dir) : sock_path_(board_dir + "/chip0.sock")
{
    std::string mem_path = board_dir + "/chip0.mem";
    mem_fd_ = open(mem_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (mem_fd_ < 0 || ftruncate(mem_fd_, static_cast<off_t>(k_chip_mem)) != 0)
        die("fake_master: chip0.mem");
    void* p = mmap(nullptr, mapped_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, mem_fd_, 0);
    if (p == MAP_FAILED)
        die("fake_master: mmap chip0.mem");
    mem_ = static_cast<unsigned char*>(p);
    listen_now();
}

fake_master::~fake_master()
{
    stop_echoes();
    close_all();
    munmap(mem_, mapped_bytes);
    close(mem_fd_);
}

void fake_master::listen_now()
{
    unlink(sock_path_.c_str());
    listen_fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", sock_path_.c_str());
    if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(listen_fd_, 64) != 0)
        die("fake_master: listen");
}

void fake_master::close_all()
{
    std::lock_guard lock(mutex_);
    for (auto& [port, fd] : conns_)
        close(fd);
    conns_.clear();
    if (listen_fd_ >= 0) {
        close(listen_fd_);
        unlink(sock_path_.c_str());
    }
    listen_fd_ = -1;
}

void fake_master::stop_echoes()
{
    echo_stop_ = true;
    for (auto& t : echo_threads_)
        t.join();
    echo_threads_.clear();
    echo_stop_ = false;
}

void fake_master::restart()
{
    stop_echoes();
    close_all();
    std::lock_guard lock(mutex_);
    listen_now();
}

void fake_master::accept_pending()
{
    std::lock_guard lock(mutex_);
    for (;;) {
        pollfd p{listen_fd_, POLLIN, 0};
        if (poll(&p, 1, 0) <= 0)
            return;
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            return;
        // The hello follows the connect at once; a probe closes without one.
        unsigned char hello[12];
        pollfd h{fd, POLLIN, 0};
        ssize_t n = poll(&h, 1, 1000) > 0 ? ::recv(fd, hello, sizeof(hello), 0) : -1;
        if (n != static_cast<ssize_t>(sizeof(hello))) {
            close(fd);
            continue;
        }
        hello_t rec{get_u32(hello), static_cast<int>(get_u32(hello + 4)), static_cast<int>(get_u32(hello + 8))};
        hellos_.push_back(rec);
        if (rec.port == k_handshake_port) {
            close(fd);
            continue;
        }
        auto it = conns_.find(rec.port);
        if (it != conns_.end())
            close(it->second);
        conns_[rec.port] = fd;
    }
}

int fake_master::conn(int port, int timeout_ms)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        accept_pending();
        {
            std::lock_guard lock(mutex_);
            auto it = conns_.find(port);
            if (it != conns_.end())
                return it->second;
        }
        if (std::chrono::steady_clock::now() >= end)
            return -1;
        usleep(1000);
    }
}

std::vector<fake_master::hello_t> fake_master::hellos()
{
    std::lock_guard lock(mutex_);
    return hellos_;
}

bool fake_master::readable(int port, int timeout_ms)
{
    auto start = std::chrono::steady_clock::now();
    int fd = conn(port, timeout_ms);
    if (fd < 0)
        return false;
    int left = timeout_ms - static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                 std::chrono::steady_clock::now() - start)
                                                 .count());
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, left < 0 ? 0 : left) > 0 && (p.revents & POLLIN) != 0;
}

ssize_t fake_master::recv(int port, void* out, size_t size, int timeout_ms)
{
    if (!readable(port, timeout_ms))
        return -1;
    return ::recv(conn(port, 0), out, size, MSG_DONTWAIT);
}

std::vector<unsigned char> fake_master::recv_msg(int port, int timeout_ms)
{
    std::vector<unsigned char> buf(4096);
    ssize_t n = recv(port, buf.data(), buf.size(), timeout_ms);
    buf.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return buf;
}

int fake_master::send(int port, const void* data, size_t len)
{
    int fd = conn(port, 5000);
    if (fd < 0)
        return -1;
    return static_cast<int>(::send(fd, data, len, MSG_NOSIGNAL));
}

void fake_master::echo(int port)
{
    echo_threads_.emplace_back([this, port] {
        unsigned char buf[4096];
        int fd = -1;  // restart() stops this thread before it closes connections
        while (!echo_stop_) {
            if (fd < 0) {
                fd = conn(port, 20);
                continue;
            }
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0)
                continue;
            ssize_t n = ::recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
            if (n <= 0) {
                usleep(1000);  // a closed connection stays readable
                continue;
            }
            {
                std::lock_guard lock(mutex_);
                echoed_[port].emplace_back(buf, buf + n);
            }
            ::send(fd, buf, static_cast<size_t>(n), MSG_NOSIGNAL);
        }
    });
}

std::vector<std::vector<unsigned char>> fake_master::echoed(int port)
{
    std::lock_guard lock(mutex_);
    return echoed_[port];
}
