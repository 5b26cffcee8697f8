// Test support: the process start-up run in a forked child on a board, as
// the master chip would start it, with its console captured to files.
// Fork only: under qemu-user a test cannot exec another ARM program.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

struct slave_env {
    std::string board;    // TARVO_BOARD; empty: unset
    std::string chip;     // TARVO_CHIP_ID; empty: unset
    std::string fail;     // TARVO_SIM_FAIL; empty: unset
    std::string workdir;  // the child's working directory; empty: unchanged
};

// A forked child that takes the environment, sends its standard output and
// error to <console>.out and .err, runs body and exits with its result.
// Killed when the object goes, unless it ended before.
class slave_child {
public:
    slave_child(const slave_env& env, const std::string& console, const std::function<int()>& body);
    ~slave_child() { kill(); }
    slave_child(const slave_child&) = delete;
    slave_child& operator=(const slave_child&) = delete;

    pid_t pid() const { return pid_; }
    // Polls pred every 10 ms for at most timeout_ms; false on time-out or
    // when the child ended without pred becoming true.
    bool wait_for(const std::function<bool()>& pred, int timeout_ms = 30000);
    // The child's exit status, or 128 + signal; killed after timeout_ms.
    int finish(int timeout_ms = 30000);
    void kill();
    std::string out() const;
    std::string err() const;

private:
    bool reap(int options);

    pid_t pid_ = -1;
    int status_ = -1;
    std::string console_;
};

// The least a master does for a slave's start-up to go through: it makes
// chip0.sock on the board, accepts every connection and reads whatever
// arrives, answering nothing. A forked process of its own, so that the test
// process stays single-threaded for the slaves it forks.
class master_stub {
public:
    explicit master_stub(const std::string& board);
    ~master_stub();
    master_stub(const master_stub&) = delete;
    master_stub& operator=(const master_stub&) = delete;

private:
    pid_t pid_ = -1;
    std::string path_;
};

// argv for tarvo_main from words; the strings live as long as the object.
struct arg_list {
    explicit arg_list(std::vector<std::string> words);
    int argc() const { return static_cast<int>(ptrs_.size()) - 1; }
    char** argv() { return ptrs_.data(); }

private:
    std::vector<std::string> words_;
    std::vector<char*> ptrs_;
};

// In the child: runs tarvo_main with the words on a thread of its own,
// waits until start-up has raised the main loop's priority, then runs
// after and returns its result; 90 when start-up does not get there.
int run_slave_then(const std::vector<std::string>& words, const std::function<int()>& after);

// Whether a sched.log holds the main loop's "<tid> SCHED_RR 2".
bool has_gui_record(const std::string& sched_log);
