// The slave as a fuzz target sees it: a simulated board in a fresh
// temporary directory (nothing of the host changes), an in-process master
// on its sockets, the media system as start-up leaves it, and a core of
// eight cameras from recorder camera 8 with every module created and the
// chip brought up. No worker thread runs: each input goes straight to the
// function under test, as the thread that owns it would hand it over.
#pragma once

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "cal/cal.h"
#include "cal/cal_buf.h"
#include "cal/startup.h"
#include "dec/cal_dec.h"
#include "platform/os.h"
#include "platform/sim/board.h"
#include "tests/support/fake_master.h"

class fuzz_board {
public:
    // Opens the board and builds the core; exits the process when the board
    // cannot be opened (the fuzzer has nothing to run then).
    fuzz_board()
    {
        std::string templ = (std::filesystem::temp_directory_path() / "tarvo-fuzz-XXXXXX").string();
        if (mkdtemp(templ.data()) == nullptr) {
            std::perror("mkdtemp");
            std::exit(2);
        }
        dir_ = templ;
        // Scene loops of the simulated encoder are made once per checkout.
        std::error_code ec;
        std::filesystem::create_directories(TARVO_FUZZ_CACHE_DIR, ec);
        std::filesystem::create_directory_symlink(TARVO_FUZZ_CACHE_DIR, dir_ + "/cache", ec);
        std::string err;
        if (sim_board_open(dir_.c_str(), 1, nullptr, &err) != 0) {
            std::fprintf(stderr, "fuzz: cannot open the board in %s: %s\n", dir_.c_str(), err.c_str());
            std::exit(2);
        }
        master_ = std::make_unique<fake_master>(dir_);
        _init_mem();
        cal_ = cal_new();
        cal_->slave_cam = 8;
        cal_->cam_base = 8;
        cal_->num_vin = 16;
        g_cal = cal_;
        cal_mod_new(cal_);
        if (cal_->hsc == nullptr || cal_->dec == nullptr) {
            std::fprintf(stderr, "fuzz: the core has no channel or no decoder\n");
            std::exit(2);
        }
    }

    ~fuzz_board()
    {
        drain_dec_queue();
        cal_delete(cal_);
        g_cal = nullptr;
        master_.reset();
        sim_board_close();
        sim_board_release_queues(dir_.c_str());
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    fuzz_board(const fuzz_board&) = delete;
    fuzz_board& operator=(const fuzz_board&) = delete;

    cal_t* cal() const { return cal_; }

    // Empties the decode queue: every dbuf posted is freed, control
    // messages are dropped. The number of dbufs freed.
    int drain_dec_queue()
    {
        int freed = 0;
        dec_msg_t m;
        while (os_msgrcv(cal_->dec->msgid, &m, DEC_MSG_BODY_SIZE, 0, IPC_NOWAIT) >= 0) {
            if (m.code == MSG_CMD_DBUF_WRITE) {
                dbuf_free(m.dbuf);
                cal_->dec->num_dbuf.fetch_sub(1);
                ++freed;
            }
        }
        return freed;
    }

private:
    std::string dir_;
    std::unique_ptr<fake_master> master_;
    cal_t* cal_ = nullptr;
};

// The one board of the fuzz process, closed when the fuzzer exits.
inline fuzz_board& the_board()
{
    static fuzz_board board;
    return board;
}
