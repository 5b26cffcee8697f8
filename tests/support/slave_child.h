// Test support: a slave started in a forked child on a board, as the master
// chip would start it, with its console in a file. Fork only: under
// qemu-user a test cannot exec another ARM program.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/test_board.h"

// argv for tarvo_main from words; the strings live as long as the object.
struct arg_list {
    explicit arg_list(std::vector<std::string> words) : words_(std::move(words))
    {
        for (std::string& w : words_)
            ptrs_.push_back(w.data());
        ptrs_.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(ptrs_.size()) - 1; }
    char** argv() { return ptrs_.data(); }

private:
    std::vector<std::string> words_;
    std::vector<char*> ptrs_;
};

// The child listens on <board>/chip0.sock as the least of masters, runs
// tarvo_main with the words on a thread of its own and, once start-up has
// raised the main loop's priority, exits with the result of `after` (90 when
// start-up never gets there). Killed when the object goes, if still alive.
class slave_child {
public:
    slave_child(const std::string& board, int chip, const std::vector<std::string>& words,
                const std::function<int()>& after = [] { return 0; }, const std::string& workdir = "");
    ~slave_child();

    // Waits for the exit status, or 128 + signal.
    int finish();
    // Its standard output and error.
    std::string console() const { return read_file(logs_.file("console")); }

private:
    temp_board_dir logs_;
    pid_t pid_ = -1;
    int status_ = -1;
};
