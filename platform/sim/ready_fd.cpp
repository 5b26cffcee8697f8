#include "platform/sim/ready_fd.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

sim_ready_fd::sim_ready_fd() : fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

sim_ready_fd::~sim_ready_fd()
{
    if (fd_ >= 0)
        ::close(fd_);
}

void sim_ready_fd::set(bool waiting)
{
    if (waiting == readable_ || fd_ < 0)
        return;
    uint64_t v = 1;
    ssize_t n = waiting ? write(fd_, &v, sizeof v) : read(fd_, &v, sizeof v);
    (void)n;
    readable_ = waiting;
}
