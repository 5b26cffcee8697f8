// Test support for the video output module: a board brought up for a
// slave of four cameras from recorder camera 8 (or eight), with the video
// input and video output modules, and read-back of what feeds what.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>

#include "cal/cal_cmd.h"
#include "cal/cal_mod.h"
#include "msg/cal_hsc.h"
#include "platform/hi_mpi_pciv.h"
#include "platform/hi_mpi_vo.h"
#include "platform/sim/fault.h"
#include "tests/support/media_board.h"
#include "vin/cal_vin.h"
#include "vin/chip.h"
#include "vout/cal_vout.h"

// A PCI video attribute record the master could send.
inline pciv_attr_t vout_test_pciv_attr(uint32_t w, uint32_t h)
{
    pciv_attr_t a{};
    a.pic_attr = {w, h, {w, w}, 0, PIXEL_FORMAT_YUV_SEMIPLANAR_420};
    a.blk_size = w * h * 3 / 2;
    a.count = 4;
    for (uint32_t i = 0; i < a.count; ++i)
        a.phy_addr[i] = 0x10000000 + i * a.blk_size;
    a.remote_obj = {0, 7};
    return a;
}

class vout_board_test : public media_board_test {
protected:
    virtual int cameras() const { return 4; }

    void SetUp() override
    {
        media_board_test::SetUp();
        bring_up();
    }
    void TearDown() override
    {
        drop_modules();
        media_board_test::TearDown();
    }

    void bring_up()
    {
        cal_.slave_cam = cameras();
        cal_.cam_base = 8;
        cal_.num_vin = 16;
        ASSERT_EQ(chip_init_slave(&cal_), 0);
        cal_vin_mod.create(&cal_);
        cal_vout_mod.create(&cal_);
        ASSERT_NE(cal_.vout, nullptr);
    }
    void drop_modules()
    {
        if (cal_.vout != nullptr)
            cal_vout_mod.destroy(&cal_);
        if (cal_.vin != nullptr)
            cal_vin_mod.destroy(&cal_);
    }

    // Runs one command through the dispatcher: the payload's first len
    // bytes arrive (all of it by default), the rest of the message reads
    // zeros.
    template <class T>
    int command(uint32_t code, const T& payload, uint32_t len = sizeof(T))
    {
        std::memset(&msg_, 0, sizeof(msg_));
        msg_.id = 1;
        msg_.cmd = code;
        msg_.len = len;
        std::memcpy(msg_.data, &payload, std::min<size_t>(len, sizeof(T)));
        return cal_cmd_dispatch(&cal_, &msg_);
    }

    // Fault rules from now on (call counts restart).
    void fail(const char* rules)
    {
        std::string err;
        ASSERT_EQ(sim_fault_set(rules, &err), 0) << err;
    }

    // What feeds dest, if anything.
    static std::optional<mpp_chn_t> source_of(const mpp_chn_t& dest)
    {
        for (const sim_binding& b : sim_media_bindings())
            if (sim_same_chn(b.dest, dest))
                return b.src;
        return std::nullopt;
    }
    static std::optional<mpp_chn_t> vo_source(int chn) { return source_of({HI_ID_VO, VOUT_DEV, chn}); }
    static std::optional<mpp_chn_t> pciv_source(int chn) { return source_of({HI_ID_PCIV, 0, chn}); }
    static sim_vo_chn vo(int chn) { return sim_media_vo_dev(VOUT_DEV).chn[chn]; }

    hsc_msg_t msg_{};
};

inline std::ostream& operator<<(std::ostream& o, const mpp_chn_t& c)
{
    return o << "(" << c.mod_id << "," << c.dev_id << "," << c.chn_id << ")";
}
