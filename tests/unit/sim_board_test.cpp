// The simulated board itself: opening a board, fault rules, and the OS
// services it redirects into the chip's files (clock, shell, system log,
// scheduling, message queues).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "platform/os.h"
#include "platform/sim/board.h"
#include "platform/sim/fault.h"
#include "tests/support/test_board.h"

namespace {

using ::testing::ElementsAre;

TEST(sim_board_open, refuses_an_unusable_board_and_gives_each_chip_its_own_directory)
{
    temp_board_dir board;
    std::ofstream(board.file("plain")) << "x";
    std::string err;
    for (auto [dir, chip] : {std::pair<std::string, int>{"relative/dir", 1}, {board.path() + "/none", 1},
                             {board.file("plain"), 1}, {board.path(), 0}, {board.path(), 15}})
        EXPECT_EQ(sim_board_open(dir.c_str(), chip, "", &err), -1) << dir << " " << chip;
    EXPECT_FALSE(file_exists(board.file("chip1")));

    ASSERT_EQ(sim_board_open((board.path() + "//").c_str(), 2, "", &err), 0) << err;
    EXPECT_EQ(sim_chip_path("shell.log"), board.path() + "/chip2/shell.log");
    sim_board_close();

    // The chip sockets' paths must fit a socket address (107 bytes): a
    // directory that leaves no room for <dir>/chip31.sock is refused before
    // anything is made in it; one byte less is a board. Trailing slashes
    // do not count.
    const std::string base = board.path() + "/";
    const size_t room = 107 - std::string("/chip31.sock").size() - base.size();
    const std::string fits = base + std::string(room, 'f'), too_long = base + std::string(room + 1, 'l');
    ASSERT_EQ(mkdir(fits.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(too_long.c_str(), 0755), 0);
    EXPECT_EQ(sim_board_open(too_long.c_str(), 1, "", &err), -1);
    EXPECT_THAT(err, ::testing::HasSubstr("is too long: " + too_long + "/chip31.sock must fit in 107 bytes"));
    EXPECT_FALSE(file_exists(too_long + "/chip1"));
    ASSERT_EQ(sim_board_open((fits + "///").c_str(), 1, "", &err), 0) << err;
    sim_board_close();
    setenv("TARVO_BOARD", too_long.c_str(), 1);
    setenv("TARVO_CHIP_ID", "1", 1);
    unsetenv("TARVO_SIM_FAIL");
    char* argv[] = {const_cast<char*>("tarvo3532"), nullptr};
    EXPECT_EXIT(_exit(platform_init(1, argv) == 0 ? 0 : 2), ::testing::ExitedWithCode(2), "is too long");
    EXPECT_FALSE(file_exists(too_long + "/chip1"));
}

class sim_board_test : public board_test {};

TEST_F(sim_board_test, a_failing_call_has_no_effect_and_only_the_nth_call_fails_when_asked)
{
    reopen("system@2=5,,system@4=0X1c");
    const int errors[] = {0, 5, 0, 0x1c, 0};
    for (int i = 0; i < 5; ++i) {
        errno = 0;
        EXPECT_EQ(os_system(std::to_string(i + 1).c_str()), errors[i] != 0 ? -1 : 0) << i;
        EXPECT_EQ(errors[i] != 0 ? errno : 0, errors[i]) << i;  // errno tells only for a failure
    }
    EXPECT_THAT(read_lines(chip_file("shell.log")), ElementsAre("1", "3", "5"));

    // New rules count calls afresh; malformed rules are refused and the
    // rules before them stay.
    reopen("system@2=5");
    EXPECT_EQ(os_system("a"), 0);
    std::string err;
    for (const char* bad : {"system", "=5", "system=", "system=0", "system=0x", "system=xyz", "system=123456789",
                            "system@0=5", "system@=5", "system@two=5", "System=5", "system =5", "system=5,nope=1"})
        EXPECT_EQ(sim_fault_set(bad, &err), -1) << bad;
    EXPECT_EQ(os_system("b"), -1);
}

TEST_F(sim_board_test, the_clock_is_an_offset_kept_in_the_chips_file)
{
    struct timeval tv{2114380800, 123456};  // 2037, within a 32-bit clock
    ASSERT_EQ(os_settimeofday(&tv), 0);
    std::string offset = read_file(chip_file("clock"));
    EXPECT_NEAR(std::atof(offset.c_str()) / 1e6, 2114380800.0 - static_cast<double>(time(nullptr)), 2.0);

    // A slave started again on the board keeps its clock; a bad time is
    // refused and changes nothing.
    reopen("");
    EXPECT_NEAR(static_cast<double>(os_time(nullptr)), 2114380800.0, 2.0);
    std::vector<struct timeval> bad{{0, 1000000}, {-1, 0}};
    if constexpr (sizeof(time_t) == 8)
        bad.push_back({std::numeric_limits<time_t>::max(), 0});  // from a master's 64-bit microseconds
    for (const struct timeval& tv : bad) {
        EXPECT_EQ(os_settimeofday(&tv), -1) << tv.tv_sec;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(read_file(chip_file("clock")), offset);
}

TEST_F(sim_board_test, a_clock_file_the_clock_cannot_keep_is_reported_and_the_clock_starts_at_the_hosts_time)
{
    const std::string reason = "holds no clock offset the chip can keep";
    for (const char* text : {"9223372036854775807\n", "-9223372036854775808\n", "99999999999999999999999999\n",
                             "-1000000000000000000\n", "12x\n", "1234567890123456789012345678901234567890\n"}) {
        std::ofstream(chip_file("clock")) << text;
        stderr_capture err;
        reopen("");
        EXPECT_THAT(err.text(), ::testing::HasSubstr(reason)) << text;
        EXPECT_NEAR(static_cast<double>(os_time(nullptr)), static_cast<double>(time(nullptr)), 2.0) << text;
        struct timeval tv;
        os_gettimeofday(&tv);
        EXPECT_NEAR(static_cast<double>(tv.tv_sec), static_cast<double>(time(nullptr)), 2.0) << text;
        EXPECT_EQ(read_file(chip_file("clock")), "0\n") << text;
    }
    // An empty file is a fresh chip's; a clock at the year 9999 (where
    // time_t holds it) is one the clock keeps.
    for (const char* text : {"", "0\n"}) {
        std::ofstream(chip_file("clock")) << text;
        stderr_capture err;
        reopen("");
        EXPECT_THAT(err.text(), ::testing::Not(::testing::HasSubstr(reason))) << text;
    }
    if constexpr (sizeof(time_t) == 8) {
        struct timeval late{static_cast<time_t>(253402300799LL), 0};
        ASSERT_EQ(os_settimeofday(&late), 0);
        std::string offset = read_file(chip_file("clock"));
        stderr_capture err;
        reopen("");
        EXPECT_THAT(err.text(), ::testing::Not(::testing::HasSubstr(reason)));
        EXPECT_EQ(read_file(chip_file("clock")), offset);
    }
}

TEST_F(sim_board_test, shell_commands_and_syslog_become_the_chips_files)
{
    std::string marker = board_.file("ran");
    EXPECT_EQ(os_system(("touch " + marker).c_str()), 0);
    EXPECT_FALSE(file_exists(marker));
    EXPECT_THAT(read_lines(chip_file("shell.log")), ElementsAre("touch " + marker));
    os_syslog(LOG_DEBUG, "tarvo3532 v1.1 start!!\n");
    os_syslog(LOG_USER | LOG_ERR, "two\nlines\n\n");
    EXPECT_THAT(read_lines(chip_file("var/log/message")), ElementsAre("7 tarvo3532 v1.1 start!!", "3 two lines"));
}

TEST_F(sim_board_test, scheduling_is_recorded_and_applied_only_when_the_environment_asks)
{
    EXPECT_EQ(os_sched_setscheduler(SCHED_OTHER, 7), 0);  // not applied, so not refused
    EXPECT_THAT(read_lines(chip_file("sched.log")), ElementsAre(std::to_string(gettid()) + " SCHED_OTHER 7"));
    setenv("TARVO_SIM_SCHED", "1", 1);
    reopen("");
    unsetenv("TARVO_SIM_SCHED");
    EXPECT_EQ(os_sched_setscheduler(SCHED_OTHER, 7), -1);  // the system refuses it
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(os_sched_setscheduler(SCHED_OTHER, 0), 0);
}

TEST_F(sim_board_test, a_queue_belongs_to_one_chip_is_found_again_and_goes_with_the_board)
{
    constexpr key_t key = 0x656e6372;
    int id = os_msgget(key, IPC_CREAT);
    reopen("");
    EXPECT_EQ(os_msgget(key, 0), id);
    reopen("", 3);
    int chip3 = os_msgget(key, IPC_CREAT);
    long host3 = host_key(chip_file("msgq"), key);
    EXPECT_NE(chip3, id);
    EXPECT_NE(host3, key) << "the system's own key must not be used on the host";

    EXPECT_EQ(sim_board_release_queues(board_.path().c_str()), 2);
    EXPECT_EQ(queued(id) + queued(chip3), -2);
    // A slave that still runs on the board makes itself a new queue.
    EXPECT_EQ(queued(os_msgget(key, IPC_CREAT)), 0);
    EXPECT_NE(host_key(chip_file("msgq"), key), host3);
}

}  // namespace
