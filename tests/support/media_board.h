// Test support for the media families and the bring-up.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "cal/cal.h"
#include "platform/hi_mpi_sys.h"
#include "platform/sim/media_core.h"
#include "tests/support/test_board.h"

inline bool operator==(const mpp_chn_t& a, const mpp_chn_t& b)
{
    return sim_same_chn(a, b);
}

// A board whose media system is initialised as start-up leaves it, with a
// core (no modules) for eight cameras for the bring-up.
class media_board_test : public board_test {
protected:
    void SetUp() override { reopen_media(""); }

    // Reopens the board with fault rules, then initialises the media system.
    void reopen_media(const char* fail_rules)
    {
        reopen(fail_rules);
        vb_conf_t vb{};
        vb.max_pool_cnt = 1;
        vb.comm_pool[0] = {4096, 4, ""};
        mpp_sys_conf_t sys{64};
        ASSERT_TRUE(HI_MPI_VB_SetConf(&vb) == 0 && HI_MPI_VB_Init() == 0 && HI_MPI_SYS_SetConf(&sys) == 0 &&
                    HI_MPI_SYS_Init() == 0);
        cal_.size = sizeof(cal_t);
        cal_.slave_cam = 8;
    }

    cal_t cal_{};
};

// The messages of the trace lines in console text: what follows "> ".
inline std::vector<std::string> trace_messages(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (size_t mark = line.find("> "); mark != std::string::npos)
            out.push_back(line.substr(mark + 2));
    return out;
}

inline bool has_message(const std::vector<std::string>& messages, const std::string& m)
{
    return std::find(messages.begin(), messages.end(), m) != messages.end();
}
