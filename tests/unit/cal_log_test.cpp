// The log line format, its syslog copy and the trace prefix.
#include <gtest/gtest.h>

#include <string>

#include "cal/cal_log.h"
#include "tests/support/test_board.h"

namespace {

class cal_log_test : public board_test {};

TEST_F(cal_log_test, error_level_line_on_console_and_syslog)
{
    stdout_capture out;
    cal_log(3, "x", 5, "50%% done\n");
    EXPECT_EQ(out.text(), "x               (0005)> ERROR!! 50# done\n");
    auto lines = read_lines(chip_file("var/log/message"));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "3 x               (0005)> ERROR!! 50# done");
}

TEST_F(cal_log_test, other_levels_have_no_error_mark_and_debug_stays_off_console)
{
    stdout_capture out;
    cal_log(6, "info_fn", 1234, "name:%s pid:%d\n", "t", 7);
    cal_log(7, "debug_fn", 12, "r:%d cmd:%08x\n", 0, 0x20000);
    EXPECT_EQ(out.text(), "info_fn         (1234)> name:t pid:7\n");
    auto lines = read_lines(chip_file("var/log/message"));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "6 info_fn         (1234)> name:t pid:7");
    EXPECT_EQ(lines[1], "7 debug_fn        (0012)> r:0 cmd:00020000");
}

TEST_F(cal_log_test, percent_from_arguments_is_replaced_too)
{
    stdout_capture out;
    cal_log(6, "f", 1, "tz:%s\n", "%n%s%%");
    EXPECT_EQ(out.text(), "f               (0001)> tz:#n#s##\n");
}

TEST_F(cal_log_test, message_is_cut_at_255_characters)
{
    std::string long_text(400, 'a');
    stdout_capture out;
    cal_log(6, "f", 1, "%s\n", long_text.c_str());
    std::string prefix = "f               (0001)> ";
    // The cut also takes the line end: the console gets the line as it is.
    EXPECT_EQ(out.text(), prefix + std::string(255, 'a'));
    auto lines = read_lines(chip_file("var/log/message"));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "6 " + prefix + std::string(255, 'a'));
}

TEST_F(cal_log_test, a_message_without_line_end_is_written_as_it_is)
{
    stdout_capture out;
    cal_log(6, "f", 2, "no end");
    cal_log(3, "g", 3, "next\n");
    EXPECT_EQ(out.text(), "f               (0002)> no endg               (0003)> ERROR!! next\n");
    auto lines = read_lines(chip_file("var/log/message"));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "6 f               (0002)> no end");
}

TEST_F(cal_log_test, long_function_names_are_not_cut)
{
    stdout_capture out;
    cal_log(6, "a_function_name_longer_than_16", 7, "m\n");
    EXPECT_EQ(out.text(), "a_function_name_longer_than_16(0007)> m\n");
}

TEST_F(cal_log_test, trace_prefix_and_one_line_per_trace)
{
    stdout_capture out;
    int line = __LINE__ + 1;
    TRACE("k:%d argv:%s\n", 1, "slave");
    TRACE("VB Init");
    std::string text = out.text();
    char expect[200];
    std::snprintf(expect, sizeof(expect), "%-20s(%4d)> k:1 argv:slave\n%-20s(%4d)> VB Init\n",
                  "TestBody", line, "TestBody", line + 1);
    EXPECT_EQ(text, expect);
}

}  // namespace
