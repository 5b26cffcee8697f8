// A board with an in-process master and a core whose host-slave channel is
// connected to it: eight cameras from recorder camera 8. No module but the
// channel exists; the transmit threads are created, not started.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>

#include "cal/cal.h"
#include "msg/cal_hsc.h"
#include "tests/support/fake_master.h"
#include "tests/support/test_board.h"

class core_board_test : public board_test {
protected:
    // Cameras of the board (board.conf), written before the board opens.
    virtual const char* board_conf() const { return nullptr; }

    void SetUp() override
    {
        if (const char* conf = board_conf())
            std::ofstream(board_.file("board.conf")) << conf;
        board_test::SetUp();
        master_ = std::make_unique<fake_master>(board_.path());
        cal_ = cal_new();
        cal_->slave_cam = 8;
        cal_->cam_base = 8;
        cal_->num_vin = 16;
        cal_->hsc = cal_hsc_new(cal_);
        ASSERT_NE(cal_->hsc, nullptr);
    }
    void TearDown() override
    {
        cal_hsc_delete(cal_->hsc);
        cal_->hsc = nullptr;
        kel_thread_delete(cal_->thread_encr);
        kel_thread_delete(cal_->thread_encn);
        delete cal_;
        master_.reset();
        board_test::TearDown();
    }

    cal_t* cal_ = nullptr;
    std::unique_ptr<fake_master> master_;
};
