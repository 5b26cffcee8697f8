// Test support: temporary board directories and the simulated board opened
// on them, captured console output, and small file helpers.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "platform/sim/board.h"

// Builds under the sanitizers run the slave several times slower: tests
// that judge rates or timings there relax them or only print them.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool k_asan = true;
#else
inline constexpr bool k_asan = false;
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool k_sanitized = true;
#else
inline constexpr bool k_sanitized = false;
#endif

// A fresh, empty directory under the temporary directory, removed with its
// content and its message queues when the object goes.
class temp_board_dir {
public:
    temp_board_dir();
    ~temp_board_dir();
    temp_board_dir(const temp_board_dir&) = delete;
    temp_board_dir& operator=(const temp_board_dir&) = delete;

    const std::string& path() const { return path_; }
    // Links the board's cache/ to one shared by every test of this build
    // tree, so the simulated encoder makes each scene loop once, not once per
    // test. Loops are written under a temporary name and renamed, so boards
    // running at the same time can share it.
    void share_cache() const;
    std::string file(const std::string& rel) const { return path_ + "/" + rel; }
    // Adds a test failure for every sanitizer report in a slave's console
    // (chip<k>.console); the destructor calls it.
    void expect_no_sanitizer_report() const;

private:
    std::string path_;
};

// Fixture: a temporary board opened as chip 1 for this process.
class board_test : public ::testing::Test {
protected:
    void SetUp() override { reopen(""); }
    void TearDown() override { sim_board_close(); }

    // Reopens the board with fault rules (TARVO_SIM_FAIL syntax).
    void reopen(const char* fail_rules, int chip = 1);

    std::string chip_file(const std::string& rel) const
    {
        return board_.file("chip" + std::to_string(chip_) + "/" + rel);
    }

    temp_board_dir board_;
    int chip_ = 1;
};

std::string read_file(const std::string& path);
std::vector<std::string> read_lines(const std::string& path);
inline bool file_exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Messages waiting on a host queue; -1 when there is no such queue.
int queued(int msgid);
// The host key that a chip's msgq file maps a system key to; -1 when none.
long host_key(const std::string& msgq, unsigned key);

// Captures standard output of this process (traces, cal_log) while alive.
class stdout_capture {
public:
    stdout_capture()
    {
        std::fflush(stdout);
        testing::internal::CaptureStdout();
    }
    ~stdout_capture() { text(); }

    // Stops capturing (once) and returns everything written meanwhile.
    std::string text()
    {
        if (active_) {
            std::fflush(stdout);
            text_ = testing::internal::GetCapturedStdout();
            active_ = false;
        }
        return text_;
    }

private:
    bool active_ = true;
    std::string text_;
};

// The same for standard error (the platform's own reports).
class stderr_capture {
public:
    stderr_capture()
    {
        std::fflush(stderr);
        testing::internal::CaptureStderr();
    }
    ~stderr_capture() { text(); }

    std::string text()
    {
        if (active_) {
            std::fflush(stderr);
            text_ = testing::internal::GetCapturedStderr();
            active_ = false;
        }
        return text_;
    }

private:
    bool active_ = true;
    std::string text_;
};

// Points standard output at standard error, so that a death test sees the
// process's console lines (cal_log writes to standard output).
inline void stdout_to_stderr()
{
    std::fflush(stdout);
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

// The statement must log the fatal message at level 3 and abort.
#define EXPECT_FATAL(statement, message)                                                       \
    EXPECT_EXIT({ stdout_to_stderr(); statement; }, ::testing::KilledBySignal(SIGABRT), \
                "ERROR!! " message)
