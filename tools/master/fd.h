// An owned file descriptor: closed exactly once, by its last owner. Moves
// only, so a descriptor handed from one table to another cannot be closed
// twice or leak on an early return.
#pragma once

#include <unistd.h>

#include <utility>

namespace tmaster {

class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(unique_fd&& o) noexcept : fd_(o.release()) {}
    unique_fd& operator=(unique_fd&& o) noexcept
    {
        if (this != &o)
            reset(o.release());
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }

    // Gives the descriptor up without closing it.
    int release() { return std::exchange(fd_, -1); }
    // Closes the descriptor held (if any) and takes `fd`.
    void reset(int fd = -1)
    {
        int old = std::exchange(fd_, fd);
        if (old >= 0)
            ::close(old);
    }

private:
    int fd_ = -1;
};

}  // namespace tmaster
