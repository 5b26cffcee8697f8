// Slaves on the development host: two boards at once share no queue, file
// or clock, and a started slave leaves the host as it found it.
#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
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

constexpr key_t k_note_key = 0x6e6f7465;  // the tests' own, the same on both boards

// In the child, once the parent says both slaves run: its own clock, zone
// and a note on its queue, each marked with the slave's name.
int act_as(const char* name, uint64_t seconds, const char* tz)
{
    std::string go = std::string(std::getenv("TARVO_BOARD")) + "/go";
    for (int i = 0; i < 3000 && !file_exists(go); ++i)
        usleep(10000);
    _set_time(g_cal, seconds, seconds * 1000000);
    _set_tz(g_cal, tz);
    note_msg m{67, {}};
    std::snprintf(m.body, sizeof(m.body), "%s", name);
    int id = os_msgget(k_note_key, IPC_CREAT);
    return id >= 0 && os_msgsnd(id, &m, sizeof(m.body), 0) == 0 ? 0 : 92;
}

// A chip's queues: system key and host key, in order of creation.
std::vector<std::pair<unsigned, long>> queue_map(const std::string& msgq)
{
    std::vector<std::pair<unsigned, long>> map;
    for (const std::string& line : read_lines(msgq)) {
        unsigned k = 0, h = 0;
        if (std::sscanf(line.c_str(), "%x %x", &k, &h) == 2)
            map.emplace_back(k, h);
    }
    return map;
}

TEST(isolation, two_boards_at_once_share_no_queue_file_or_clock)
{
    temp_board_dir a, b, logs;
    master_stub master_a(a.path()), master_b(b.path());
    const uint64_t t_a = 946684800, t_b = 2114380800;  // 2000 and 2037
    slave_child child_a({a.path(), "1", "", ""}, logs.file("a"), [&] {
        return run_slave_then({"tarvo3532", "slave", "0", "4", "4"}, [&] { return act_as("A", t_a, "CST-8"); });
    });
    slave_child child_b({b.path(), "1", "", ""}, logs.file("b"), [&] {
        return run_slave_then({"tarvo3532", "slave", "4", "4", "4"}, [&] { return act_as("B", t_b, "UTC0"); });
    });
    ASSERT_TRUE(child_a.wait_for([&] { return has_gui_record(a.file("chip1/sched.log")); })) << child_a.out();
    ASSERT_TRUE(child_b.wait_for([&] { return has_gui_record(b.file("chip1/sched.log")); })) << child_b.out();
    std::fclose(std::fopen(a.file("go").c_str(), "w"));
    std::fclose(std::fopen(b.file("go").c_str(), "w"));
    EXPECT_EQ(child_a.finish(), 0) << child_a.err();
    EXPECT_EQ(child_b.finish(), 0) << child_b.err();

    // Queues: no host queue is shared, and each note is in its own board's.
    auto map_a = queue_map(a.file("chip1/msgq")), map_b = queue_map(b.file("chip1/msgq"));
    ASSERT_EQ(map_a.size(), 3u);
    ASSERT_EQ(map_b.size(), 3u);
    for (auto [key, host] : map_a)
        for (auto [key_b, host_b] : map_b)
            EXPECT_NE(host, host_b);
    for (auto [map, name] : {std::pair{&map_a, "A"}, {&map_b, "B"}}) {
        ASSERT_EQ(map->back().first, static_cast<unsigned>(k_note_key));
        int id = msgget(static_cast<key_t>(map->back().second), 0);
        note_msg m{};
        ASSERT_EQ(msgrcv(id, &m, sizeof(m.body), 0, IPC_NOWAIT), static_cast<ssize_t>(sizeof(m.body)));
        EXPECT_STREQ(m.body, name);
        EXPECT_EQ(msgrcv(id, &m, sizeof(m.body), 0, IPC_NOWAIT), -1) << "a note of the other board";
    }

    // Clocks and files: each board has what its own slave did, once.
    double now = static_cast<double>(time(nullptr));
    EXPECT_NEAR(std::atof(read_file(a.file("chip1/clock")).c_str()) / 1e6, static_cast<double>(t_a) - now, 5.0);
    EXPECT_NEAR(std::atof(read_file(b.file("chip1/clock")).c_str()) / 1e6, static_cast<double>(t_b) - now, 5.0);
    EXPECT_EQ(read_file(a.file("chip1/etc/TZ")), "CST-8\n");
    EXPECT_EQ(read_file(b.file("chip1/etc/TZ")), "UTC0\n");
    for (const temp_board_dir* d : {&a, &b}) {
        auto syslog = read_lines(d->file("chip1/var/log/message"));
        EXPECT_EQ(std::count(syslog.begin(), syslog.end(), "7 tarvo3532 v1.1 start!!"), 1);
        auto shell = read_lines(d->file("chip1/shell.log"));
        EXPECT_EQ(std::count(shell.begin(), shell.end(), "killall syslogd"), 1);
    }
    EXPECT_THAT(child_b.out(), HasSubstr("cam_base:4 slave_cam:4"));
}

struct file_state {
    bool exists = false;
    long long mtime_ns = 0;
    std::string content;
    bool operator==(const file_state&) const = default;
};

file_state state_of(const char* path)
{
    struct stat st;
    if (stat(path, &st) != 0)
        return {};
    return {true, st.st_mtim.tv_sec * 1000000000ll + st.st_mtim.tv_nsec, S_ISREG(st.st_mode) ? read_file(path) : ""};
}

// Wall clock less monotonic clock: constant unless someone sets the clock.
double wall_minus_monotonic()
{
    struct timespec w, m;
    clock_gettime(CLOCK_REALTIME, &w);
    clock_gettime(CLOCK_MONOTONIC, &m);
    return static_cast<double>(w.tv_sec - m.tv_sec) + static_cast<double>(w.tv_nsec - m.tv_nsec) / 1e9;
}

std::vector<std::string> entries(const std::string& dir)
{
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.')
                names.push_back(e->d_name);
        closedir(d);
    }
    return names;
}

// Every thread of this process still has normal scheduling.
bool all_threads_normal()
{
    auto tasks = entries("/proc/self/task");
    return tasks.size() > 1 && std::all_of(tasks.begin(), tasks.end(), [](const std::string& t) {
               return sched_getscheduler(std::atoi(t.c_str())) == SCHED_OTHER;
           });
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

    slave_child child({board.path(), "1", "", workdir.path()}, logs.file("console"), [] {
        return run_slave_then({"tarvo3532", "master", "0", "4", "4"}, [] {
            if (!all_threads_normal())
                return 93;
            _set_time(g_cal, 946684800, 946684800ull * 1000000);
            _set_tz(g_cal, "CST-8");
            cal_thread_priority(0, "cal_recv_dec_thread");
            return all_threads_normal() ? 0 : 94;
        });
    });
    EXPECT_EQ(child.finish(), 0) << child.out() << child.err();

    EXPECT_NEAR(wall_minus_monotonic(), clock_before, 1.0) << "the host clock moved";
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_TRUE(state_of(watched[i]) == before[i]) << watched[i];
    EXPECT_THAT(entries(workdir.path()), ElementsAre());
    // What the slave did went to the board instead.
    EXPECT_EQ(read_file(board.file("chip1/etc/TZ")), "CST-8\n");
    EXPECT_THAT(read_file(board.file("chip1/shell.log")), HasSubstr("syslogd -O /var/log/message\n"));
    EXPECT_THAT(read_file(board.file("chip1/sched.log")), HasSubstr(" SCHED_RR 99\n"));
    EXPECT_NEAR(std::atof(read_file(board.file("chip1/clock")).c_str()) / 1e6,
                946684800.0 - static_cast<double>(time(nullptr)), 5.0);
}

}  // namespace
