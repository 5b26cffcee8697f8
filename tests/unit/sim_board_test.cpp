// The simulated board itself: opening a board, fault rules, and the OS
// services it redirects into the chip's files (clock, shell, system log,
// /etc/TZ, scheduling, message queues).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/msg.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "platform/hi_mpi_sys.h"
#include "platform/os.h"
#include "platform/sim/board.h"
#include "platform/sim/fault.h"
#include "platform/sim/sys_sim.h"
#include "tests/support/test_board.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(sim_board_open, refuses_an_unusable_board_and_gives_each_chip_its_own_directory)
{
    temp_board_dir board;
    std::ofstream(board.file("plain")) << "x";
    std::string err;
    EXPECT_EQ(sim_board_open("relative/dir", 1, "", &err), -1);
    EXPECT_THAT(err, HasSubstr("absolute path"));
    EXPECT_EQ(sim_board_open((board.path() + "/none").c_str(), 1, "", &err), -1);
    EXPECT_THAT(err, HasSubstr("does not exist"));
    EXPECT_EQ(sim_board_open(board.file("plain").c_str(), 1, "", &err), -1);
    EXPECT_EQ(sim_board_open(board.path().c_str(), 0, "", &err), -1);
    EXPECT_EQ(sim_board_open(board.path().c_str(), 15, "", &err), -1);
    EXPECT_THAT(err, HasSubstr("1 to 14"));
    EXPECT_EQ(sim_board_open(board.path().c_str(), 1, "no_such_op=1", &err), -1);
    EXPECT_FALSE(sim_board_is_open());
    EXPECT_FALSE(file_exists(board.file("chip1")));

    ASSERT_EQ(sim_board_open((board.path() + "//").c_str(), 2, "", &err), 0) << err;
    EXPECT_EQ(sim_chip_path("shell.log"), board.path() + "/chip2/shell.log");
    for (const char* f : {"chip2/etc", "chip2/var/log/message", "chip2/shell.log", "chip2/sched.log", "chip2/clock"})
        EXPECT_TRUE(file_exists(board.file(f))) << f;
    EXPECT_FALSE(file_exists(board.file("chip1")));
    sim_board_close();
}

class sim_fault_test : public board_test {};

TEST_F(sim_fault_test, a_failing_call_has_no_effect_and_only_the_nth_call_fails_when_asked)
{
    reopen("HI_MPI_SYS_SetConf=a0028003,system@2=5,,system@4=0X1c,settimeofday=0x16");
    mpp_sys_conf_t conf{64};
    EXPECT_EQ(static_cast<uint32_t>(HI_MPI_SYS_SetConf(&conf)), 0xa0028003u);
    EXPECT_EQ(static_cast<uint32_t>(HI_MPI_SYS_SetConf(&conf)), 0xa0028003u);
    EXPECT_FALSE(sim_sys_snapshot().sys_configured);

    int errors[5];
    for (int i = 0; i < 5; ++i) {
        errno = 0;
        EXPECT_EQ(os_system(std::to_string(i + 1).c_str()), i == 1 || i == 3 ? -1 : 0) << i;
        errors[i] = errno;
    }
    EXPECT_EQ(errors[1], 5);
    EXPECT_EQ(errors[3], 0x1c);
    EXPECT_THAT(read_lines(chip_file("shell.log")), ElementsAre("1", "3", "5"));

    struct timeval tv{1000, 0};
    EXPECT_EQ(os_settimeofday(&tv), -1);
    EXPECT_EQ(errno, 0x16);
    EXPECT_EQ(read_file(chip_file("clock")), "0\n");

    // New rules count calls afresh.
    reopen("system@2=5");
    EXPECT_EQ(os_system("a"), 0);
    EXPECT_EQ(os_system("b"), -1);
}

TEST_F(sim_fault_test, malformed_rules_are_refused_and_the_old_rules_stay)
{
    std::string err;
    ASSERT_EQ(sim_fault_set("system=5", &err), 0);
    for (const char* bad : {"system", "=5", "system=", "system=0", "system=0x", "system=xyz", "system=123456789",
                            "system@0=5", "system@=5", "system@two=5", "System=5", "system =5", "system=5,nope=1"}) {
        err.clear();
        EXPECT_EQ(sim_fault_set(bad, &err), -1) << bad;
        EXPECT_FALSE(err.empty()) << bad;
    }
    EXPECT_EQ(os_system("still failing"), -1);
}

class sim_os_test : public board_test {
protected:
    static double host_seconds() { return static_cast<double>(time(nullptr)); }
};

TEST_F(sim_os_test, the_clock_is_an_offset_kept_in_the_chips_file)
{
    EXPECT_EQ(read_file(chip_file("clock")), "0\n");
    EXPECT_NEAR(static_cast<double>(os_time(nullptr)), host_seconds(), 2.0);

    struct timeval tv{2114380800, 123456};  // 2037-01-01, within a 32-bit clock
    ASSERT_EQ(os_settimeofday(&tv), 0);
    long long offset = std::atoll(read_file(chip_file("clock")).c_str());
    EXPECT_NEAR(static_cast<double>(offset) / 1e6, 2114380800.0 - host_seconds(), 2.0);
    struct timeval now{};
    os_gettimeofday(&now);
    EXPECT_NEAR(static_cast<double>(now.tv_sec), 2114380800.0, 2.0);

    // A slave started again on the board keeps its clock; a bad time is
    // refused and changes nothing.
    reopen("");
    EXPECT_EQ(std::atoll(read_file(chip_file("clock")).c_str()), offset);
    EXPECT_NEAR(static_cast<double>(os_time(nullptr)), 2114380800.0, 2.0);
    struct timeval bad{0, 1000000};
    EXPECT_EQ(os_settimeofday(&bad), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(std::atoll(read_file(chip_file("clock")).c_str()), offset);

    // A clock file a board brings along is taken up.
    sim_board_close();
    std::ofstream(chip_file("clock")) << "-86400000000\n";
    reopen("");
    EXPECT_NEAR(static_cast<double>(os_time(nullptr)), host_seconds() - 86400.0, 2.0);
}

TEST_F(sim_os_test, shell_syslog_and_time_zone_become_the_chips_files)
{
    std::string marker = board_.file("ran");
    EXPECT_EQ(os_system(("touch " + marker).c_str()), 0);
    EXPECT_FALSE(file_exists(marker));
    EXPECT_THAT(read_lines(chip_file("shell.log")), ElementsAre("touch " + marker));

    os_syslog(LOG_DEBUG, "tarvo3532 v1.1 start!!\n");
    os_syslog(LOG_USER | LOG_ERR, "two\nlines\n\n");
    EXPECT_THAT(read_lines(chip_file("var/log/message")), ElementsAre("7 tarvo3532 v1.1 start!!", "3 two lines"));

    os_write_etc_tz("CST-8");
    os_write_etc_tz("UTC0");
    EXPECT_EQ(read_file(chip_file("etc/TZ")), "UTC0\n");
}

TEST_F(sim_os_test, scheduling_is_recorded_and_applied_only_when_the_environment_asks)
{
    unsetenv("TARVO_SIM_SCHED");
    reopen("");
    EXPECT_EQ(os_sched_setscheduler(SCHED_RR, 5), 0);
    EXPECT_EQ(os_sched_setscheduler(SCHED_OTHER, 7), 0);  // not applied, so not refused
    std::string tid = std::to_string(gettid());
    EXPECT_THAT(read_lines(chip_file("sched.log")), ElementsAre(tid + " SCHED_RR 5", tid + " SCHED_OTHER 7"));
    EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);

    setenv("TARVO_SIM_SCHED", "1", 1);
    reopen("");
    unsetenv("TARVO_SIM_SCHED");
    EXPECT_EQ(os_sched_setscheduler(SCHED_OTHER, 7), -1);  // the system refuses it
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(os_sched_setscheduler(SCHED_OTHER, 0), 0);
    EXPECT_EQ(read_lines(chip_file("sched.log")).size(), 4u);
}

struct small_msg {
    long type;
    char body[8];
};

int queued(int msgid)
{
    struct msqid_ds ds{};
    return msgctl(msgid, IPC_STAT, &ds) == 0 ? static_cast<int>(ds.msg_qnum) : -1;
}

long host_key(const std::string& msgq, unsigned key)
{
    for (const std::string& line : read_lines(msgq)) {
        unsigned k = 0, h = 0;
        if (std::sscanf(line.c_str(), "%x %x", &k, &h) == 2 && k == key)
            return h;
    }
    return -1;
}

class sim_queue_test : public board_test {};

TEST_F(sim_queue_test, a_queue_belongs_to_one_board_and_chip_and_is_found_again)
{
    int id = os_msgget(0x656e6372, IPC_CREAT);
    small_msg m{1, "kept"};
    ASSERT_EQ(os_msgsnd(id, &m, sizeof(m.body), 0), 0);
    long host = host_key(chip_file("msgq"), 0x656e6372);
    EXPECT_NE(host, -1);
    EXPECT_NE(host, 0x656e6372) << "the system's own key must not be used on the host";

    reopen("");
    EXPECT_EQ(os_msgget(0x656e6372, 0), id);
    EXPECT_EQ(host_key(chip_file("msgq"), 0x656e6372), host);

    reopen("", 2);
    int chip2 = os_msgget(0x656e6372, IPC_CREAT);
    EXPECT_GE(chip2, 0);
    EXPECT_NE(chip2, id);
    temp_board_dir other;
    std::string err;
    ASSERT_EQ(sim_board_open(other.path().c_str(), 1, "", &err), 0) << err;
    int other1 = os_msgget(0x656e6372, IPC_CREAT);
    EXPECT_GE(other1, 0);
    EXPECT_NE(other1, id);
    EXPECT_NE(other1, chip2);
    EXPECT_EQ(queued(id), 1);
    EXPECT_EQ(queued(chip2) + queued(other1), 0);
    sim_board_close();
}

TEST_F(sim_queue_test, releasing_a_board_removes_its_queues)
{
    int a = os_msgget(0x656e6372, IPC_CREAT);
    int b = os_msgget(0x656e636e, IPC_CREAT);
    reopen("", 3);
    int c = os_msgget(0x656e6372, IPC_CREAT);
    long old_host = host_key(chip_file("msgq"), 0x656e6372);

    EXPECT_EQ(sim_board_release_queues(board_.path().c_str()), 3);
    EXPECT_EQ(queued(a) + queued(b) + queued(c), -3);
    EXPECT_EQ(sim_board_release_queues(board_.path().c_str()), 0);

    // A slave that still runs on the board makes itself a new queue.
    EXPECT_EQ(queued(os_msgget(0x656e6372, IPC_CREAT)), 0);
    EXPECT_NE(host_key(chip_file("msgq"), 0x656e6372), old_host);
}

}  // namespace
