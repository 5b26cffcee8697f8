// The log line format and its syslog copy (the trace prefix shows in the
// start-up sequence).
#include <gtest/gtest.h>

#include <string>

#include "cal/cal_log.h"
#include "tests/support/test_board.h"

namespace {

class cal_log_test : public board_test {};

TEST_F(cal_log_test, console_and_syslog_lines)
{
    const std::string long_func = "a_function_name_longer_than_16", a255(255, 'a');
    const struct {
        int level;
        const char* func;
        int line;
        std::string text, console, syslog;
    } cases[] = {
        {3, "x", 5, "50% done %n\n", "x               (0005)> ERROR!! 50# done #n\n",
         "3 x               (0005)> ERROR!! 50# done #n"},
        {7, "debug_fn", 12, "r:0\n", "", "7 debug_fn        (0012)> r:0"},
        // The cut also takes the line end: the console gets the line as it is.
        {6, "f", 1, std::string(400, 'a') + "\n", "f               (0001)> " + a255,
         "6 f               (0001)> " + a255},
        {6, long_func.c_str(), 7, "no end", long_func + "(0007)> no end", "6 " + long_func + "(0007)> no end"},
    };
    for (const auto& c : cases) {
        stdout_capture out;
        cal_log(c.level, c.func, c.line, "%s", c.text.c_str());
        EXPECT_EQ(out.text(), c.console);
        EXPECT_EQ(read_lines(chip_file("var/log/message")).back(), c.syslog);
    }
}

}  // namespace
