// The descriptor a simulated channel hands out for select(): readable while
// something waits in the channel.
#pragma once

// An eventfd whose counter is 0 or 1: written once when the first item
// comes to wait, drained when the last waiting one is taken. The owner
// calls set() under its own lock after every change of what waits.
class sim_ready_fd {
public:
    sim_ready_fd();
    ~sim_ready_fd();
    sim_ready_fd(const sim_ready_fd&) = delete;
    sim_ready_fd& operator=(const sim_ready_fd&) = delete;

    int fd() const { return fd_; }
    void set(bool waiting);

private:
    int fd_;
    bool readable_ = false;
};
