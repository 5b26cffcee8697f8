// Slave processes on a board: starting one, ending it, and removing the host
// message queues it made.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace tmaster {

struct slave_config {
    std::string binary;       // the slave program
    int chip = 1;             // 1 .. 14
    std::string role = "slave";
    int cam_base = 0;
    int slave_cam = 8;
    int num_vin = 8;
    std::string fail_rules;   // TARVO_SIM_FAIL, empty for none
    bool sim_sched = false;   // TARVO_SIM_SCHED=1

    std::vector<std::string> argv() const;
};

// Starts the slave with its console (standard output and error) in
// <board>/chip<T>.console. The environment is this process's own without
// any TARVO_ variable, plus TARVO_BOARD, TARVO_CHIP_ID and, when given,
// TARVO_SIM_FAIL and TARVO_SIM_SCHED. Returns the pid, or -1 with *err.
pid_t spawn_slave(const slave_config& cfg, const std::string& board, std::string* err);

// Sends SIGTERM, waits up to `grace` for the process to end, then sends
// SIGKILL. Returns the wait status, or -1 when the process was not ours to
// wait for.
int end_process(pid_t pid, std::chrono::milliseconds grace);

// Non-blocking check: the wait status when the process has ended, -1 while
// it runs. The process is left to end_process to reap, so its pid cannot be
// reused (and signalled by mistake) before then.
int peek_process(pid_t pid);

// Describes a wait status: "exited with status 0", "killed by signal 9".
std::string describe_status(int status);

// Removes the host message queues listed in <board>/chip<T>/msgq (second
// column, hexadecimal host keys). Returns how many were removed.
int release_chip_queues(const std::string& board, int chip);

}  // namespace tmaster
