// Slaves on the development host: two boards at once share no queue, file
// or clock, and a started slave leaves the host as it found it.
#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "cal/cal.h"
#include "cal/startup.h"
#include "platform/os.h"
#include "tests/support/slave_child.h"
#include "tests/support/test_board.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

struct note_msg {
    long type;
    char body[52];
};

// Waits in the child until the parent creates <board>/go.
bool wait_for_go()
{
    std::string go = std::string(std::getenv("TARVO_BOARD")) + "/go";
    for (int i = 0; i < 3000; ++i) {
        if (file_exists(go))
            return true;
        usleep(10000);
    }
    return false;
}

// A queue key of the tests' own, the same on both boards.
constexpr key_t k_note_key = 0x6e6f7465;

// In the child, once both slaves run: its own clock, zone and a message on
// the note queue, each marked with the slave's name.
int act_as(const std::string& name, uint64_t seconds, const std::string& tz)
{
    if (!wait_for_go())
        return 91;
    _set_time(g_cal, seconds, seconds * 1000000);
    _set_tz(g_cal, tz.c_str());
    note_msg m{67, {}};
    std::snprintf(m.body, sizeof(m.body), "%s", name.c_str());
    int id = os_msgget(k_note_key, IPC_CREAT);
    if (id < 0 || os_msgsnd(id, &m, sizeof(m.body), 0) != 0)
        return 92;
    return 0;
}

long recorded_host_key(const std::string& msgq, unsigned key)
{
    for (const std::string& line : read_lines(msgq)) {
        unsigned k = 0, h = 0;
        if (std::sscanf(line.c_str(), "%x %x", &k, &h) == 2 && k == key)
            return h;
    }
    return -1;
}

TEST(isolation, two_boards_at_once_share_no_queue_file_or_clock)
{
    temp_board_dir a, b, logs;
    master_stub master_a(a.path()), master_b(b.path());
    const uint64_t t_a = 946684800;   // 2000-01-01
    const uint64_t t_b = 2114380800;  // 2037-01-01
    slave_child child_a({a.path(), "1", "", ""}, logs.file("a"), [&] {
        return run_slave_then({"tarvo3532", "slave", "0", "4", "4"}, [&] { return act_as("A", t_a, "CST-8"); });
    });
    slave_child child_b({b.path(), "1", "", ""}, logs.file("b"), [&] {
        return run_slave_then({"tarvo3532", "slave", "4", "4", "4"}, [&] { return act_as("B", t_b, "UTC0"); });
    });
    ASSERT_TRUE(child_a.wait_for([&] { return has_gui_record(a.file("chip1/sched.log")); })) << child_a.out();
    ASSERT_TRUE(child_b.wait_for([&] { return has_gui_record(b.file("chip1/sched.log")); })) << child_b.out();
    // Both run now: let them act together.
    std::fclose(std::fopen(a.file("go").c_str(), "w"));
    std::fclose(std::fopen(b.file("go").c_str(), "w"));
    EXPECT_EQ(child_a.finish(), 0) << child_a.err();
    EXPECT_EQ(child_b.finish(), 0) << child_b.err();

    // Queues: every host queue is its own board's, and holds its own message.
    std::vector<long> keys;
    for (const temp_board_dir* d : {&a, &b})
        for (unsigned key : {0x656e6372u, 0x656e636eu, static_cast<unsigned>(k_note_key)})
            keys.push_back(recorded_host_key(d->file("chip1/msgq"), key));
    for (size_t i = 0; i < keys.size(); ++i) {
        ASSERT_NE(keys[i], -1) << i;
        for (size_t j = 0; j < i; ++j)
            EXPECT_NE(keys[i], keys[j]);
    }
    for (int i : {2, 5}) {
        int id = msgget(static_cast<key_t>(keys[i]), 0);
        ASSERT_GE(id, 0);
        note_msg m{};
        ASSERT_EQ(msgrcv(id, &m, sizeof(m.body), 0, IPC_NOWAIT), static_cast<ssize_t>(sizeof(m.body)));
        EXPECT_STREQ(m.body, i == 2 ? "A" : "B");
        EXPECT_EQ(msgrcv(id, &m, sizeof(m.body), 0, IPC_NOWAIT), -1) << "a message of the other board";
    }

    // Clocks: each board keeps the offset its own slave set.
    double now = static_cast<double>(time(nullptr));
    EXPECT_NEAR(std::atof(read_file(a.file("chip1/clock")).c_str()) / 1e6, static_cast<double>(t_a) - now, 5.0);
    EXPECT_NEAR(std::atof(read_file(b.file("chip1/clock")).c_str()) / 1e6, static_cast<double>(t_b) - now, 5.0);

    // Files: each board has its own zone, start line and shell commands once.
    EXPECT_EQ(read_file(a.file("chip1/etc/TZ")), "CST-8\n");
    EXPECT_EQ(read_file(b.file("chip1/etc/TZ")), "UTC0\n");
    for (const temp_board_dir* d : {&a, &b}) {
        auto syslog = read_lines(d->file("chip1/var/log/message"));
        EXPECT_EQ(std::count(syslog.begin(), syslog.end(), "7 tarvo3532 v1.1 start!!"), 1);
        auto shell = read_lines(d->file("chip1/shell.log"));
        EXPECT_EQ(std::count(shell.begin(), shell.end(), "killall syslogd"), 1);
    }
    EXPECT_THAT(child_a.out(), HasSubstr("cam_base:0 slave_cam:4"));
    EXPECT_THAT(child_b.out(), HasSubstr("cam_base:4 slave_cam:4"));
}

// ---- the host left untouched -------------------------------------------------

struct file_state {
    bool exists = false;
    struct timespec mtime{};
    std::string content;
};

file_state state_of(const char* path)
{
    file_state s;
    struct stat st;
    if (stat(path, &st) == 0) {
        s.exists = true;
        s.mtime = st.st_mtim;
        if (S_ISREG(st.st_mode))
            s.content = read_file(path);
    }
    return s;
}

void expect_same(const file_state& before, const char* path)
{
    file_state after = state_of(path);
    EXPECT_EQ(after.exists, before.exists) << path;
    EXPECT_EQ(after.mtime.tv_sec, before.mtime.tv_sec) << path;
    EXPECT_EQ(after.mtime.tv_nsec, before.mtime.tv_nsec) << path;
    EXPECT_EQ(after.content, before.content) << path;
}

// The host's wall clock less its monotonic clock, in seconds: constant
// unless someone sets the wall clock.
double wall_minus_monotonic()
{
    struct timespec w, m;
    clock_gettime(CLOCK_REALTIME, &w);
    clock_gettime(CLOCK_MONOTONIC, &m);
    return static_cast<double>(w.tv_sec - m.tv_sec) + static_cast<double>(w.tv_nsec - m.tv_nsec) / 1e9;
}

// Every thread of this process still has normal scheduling.
bool all_threads_normal()
{
    DIR* d = opendir("/proc/self/task");
    if (d == nullptr)
        return false;
    bool ok = true;
    int seen = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.')
            continue;
        ++seen;
        if (sched_getscheduler(std::atoi(e->d_name)) != SCHED_OTHER)
            ok = false;
    }
    closedir(d);
    return ok && seen > 1;
}

TEST(isolation, a_started_slave_leaves_the_host_as_it_was)
{
    temp_board_dir board, logs, workdir;
    master_stub master(board.path());
    const char* watched[] = {"/etc/TZ", "/etc", "/var/log/message", "/var/log"};
    std::vector<file_state> before;
    for (const char* p : watched)
        before.push_back(state_of(p));
    double clock_before = wall_minus_monotonic();
    const char* host_tz = std::getenv("TZ");
    std::string tz_before = host_tz ? host_tz : "(unset)";

    slave_child child({board.path(), "1", "", workdir.path()}, logs.file("console"), [] {
        return run_slave_then({"tarvo3532", "master", "0", "4", "4"}, [] {
            if (!all_threads_normal())
                return 93;
            _set_time(g_cal, 946684800, 946684800ull * 1000000);
            _set_tz(g_cal, "CST-8");
            cal_thread_priority(0, "cal_recv_dec_thread");
            if (!all_threads_normal())
                return 94;
            return 0;
        });
    });
    EXPECT_EQ(child.finish(), 0) << child.out() << child.err();

    EXPECT_NEAR(wall_minus_monotonic(), clock_before, 1.0) << "the host clock moved";
    for (size_t i = 0; i < before.size(); ++i)
        expect_same(before[i], watched[i]);
    host_tz = std::getenv("TZ");
    EXPECT_EQ(host_tz ? host_tz : "(unset)", tz_before);
    // Nothing in the working directory either.
    DIR* d = opendir(workdir.path().c_str());
    ASSERT_NE(d, nullptr);
    std::vector<std::string> names;
    while (dirent* e = readdir(d))
        if (e->d_name[0] != '.')
            names.push_back(e->d_name);
    closedir(d);
    EXPECT_THAT(names, ElementsAre());

    // What the slave did went to the board instead.
    EXPECT_EQ(read_file(board.file("chip1/etc/TZ")), "CST-8\n");
    EXPECT_THAT(read_file(board.file("chip1/shell.log")), HasSubstr("syslogd -O /var/log/message\n"));
    EXPECT_THAT(read_file(board.file("chip1/sched.log")), HasSubstr(" SCHED_RR 99\n"));
    EXPECT_NEAR(std::atof(read_file(board.file("chip1/clock")).c_str()) / 1e6,
                946684800.0 - static_cast<double>(time(nullptr)), 5.0);
}

}  // namespace
