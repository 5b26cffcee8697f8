// The end-of-run leak check of a slave built with the address sanitizer:
// SIGTERM runs it over the live slave and still ends the slave by SIGTERM;
// in other builds the switch changes nothing.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include "master/master.h"
#include "tests/support/test_board.h"

using namespace tmaster;

namespace {

TEST(leak_check_e2e, sigterm_runs_the_check_on_a_sanitized_slave_and_still_ends_it_by_that_signal)
{
    temp_board_dir board;
    ASSERT_EQ(setenv("TARVO_SIM_LEAK_CHECK", "1", 1), 0);
    master_options o;
    o.board = board.path();
    o.end_grace = milliseconds(20000);
    master m(o);
    ASSERT_EQ(m.open(), 0) << m.error();
    slave_config c;
    c.binary = TARVO_SLAVE_BINARY;
    c.chip = 1;
    ASSERT_GT(m.start_slave(c), 0) << m.error();
    unsetenv("TARVO_SIM_LEAK_CHECK");
    auto console = [&] { return read_file(board.path() + "/chip1.console"); };
    ASSERT_TRUE(m.wait_announcement(1, milliseconds(30000))) << console();
    ASSERT_TRUE(m.get_status(1, milliseconds(5000)));

    m.end_slaves();
    const int st = m.slave(1)->exit_status;
    ASSERT_TRUE(WIFSIGNALED(st)) << describe_status(st);
    EXPECT_EQ(WTERMSIG(st), SIGTERM);
    const std::string text = console();
    if (k_asan)
        EXPECT_NE(text.find("sim: leak check: no leaks"), std::string::npos) << text.substr(text.size() > 3000 ? text.size() - 3000 : 0);
    else
        EXPECT_EQ(text.find("sim: leak check"), std::string::npos);
}

}  // namespace
