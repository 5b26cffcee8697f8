#include "tests/support/fake_master.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr size_t k_mapped = 16u << 20;

bool wait_in(int fd, int timeout_ms)
{
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeout_ms) > 0 && (p.revents & POLLIN) != 0;
}

}  // namespace

fake_master::fake_master(const std::string& board_dir) : sock_path_(board_dir + "/chip0.sock")
{
    int fd = open((board_dir + "/chip0.mem").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    void* p = MAP_FAILED;
    if (fd >= 0 && ftruncate(fd, 256 << 20) == 0)
        p = mmap(nullptr, k_mapped, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED) {
        std::perror("fake_master: chip0.mem");
        std::abort();
    }
    close(fd);  // the mapping stays
    mem_ = static_cast<unsigned char*>(p);
    listen_now();
}

fake_master::~fake_master()
{
    close_all();
    munmap(mem_, k_mapped);
}

void fake_master::listen_now()
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", sock_path_.c_str());
    listen_fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(listen_fd_, 64) != 0) {
        std::perror("fake_master: listen");
        std::abort();
    }
}

void fake_master::close_all()
{
    echo_stop_ = true;
    for (auto& t : echo_threads_)
        t.join();
    echo_threads_.clear();
    echo_stop_ = false;
    std::lock_guard lock(mutex_);
    for (auto& [port, fd] : conns_)
        close(fd);
    conns_.clear();
    close(listen_fd_);
    unlink(sock_path_.c_str());
}

void fake_master::restart()
{
    close_all();
    listen_now();
}

void fake_master::accept_pending()
{
    std::lock_guard lock(mutex_);
    while (wait_in(listen_fd_, 0)) {
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        uint32_t h[3];  // little-endian on every host this runs on
        if (fd < 0 || !wait_in(fd, 1000) || ::recv(fd, h, sizeof(h), 0) != sizeof(h)) {
            close(fd);  // a reachability probe: no hello
            continue;
        }
        int port = static_cast<int>(h[2]);
        hellos_.push_back({h[0], static_cast<int>(h[1]), port});
        if (port == 1000) {
            close(fd);
            continue;
        }
        if (auto old = conns_.find(port); old != conns_.end())
            close(old->second);
        conns_[port] = fd;
    }
}

int fake_master::conn(int port, int timeout_ms)
{
    for (int waited = 0;; ++waited) {
        accept_pending();
        {
            std::lock_guard lock(mutex_);
            if (auto c = conns_.find(port); c != conns_.end())
                return c->second;
        }
        if (waited >= timeout_ms)
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
    int fd = conn(port, timeout_ms);
    return fd >= 0 && wait_in(fd, timeout_ms);
}

fake_master::bytes fake_master::recv_msg(int port, int timeout_ms)
{
    bytes buf(4096);
    ssize_t n = readable(port, timeout_ms) ? ::recv(conn(port, 0), buf.data(), buf.size(), MSG_DONTWAIT) : -1;
    buf.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return buf;
}

int fake_master::send(int port, const void* data, size_t len)
{
    int fd = conn(port);
    return fd < 0 ? -1 : static_cast<int>(::send(fd, data, len, MSG_NOSIGNAL));
}

void fake_master::echo(int port)
{
    echo_threads_.emplace_back([this, port] {
        unsigned char buf[4096];
        int fd = -1;  // close_all() stops this thread before closing connections
        while (!echo_stop_) {
            if (fd < 0 || !wait_in(fd, 20)) {
                fd = fd < 0 ? conn(port, 20) : fd;
                continue;
            }
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

std::vector<fake_master::bytes> fake_master::echoed(int port)
{
    std::lock_guard lock(mutex_);
    return echoed_[port];
}
