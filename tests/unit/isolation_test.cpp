// Slaves on the development host: two boards at once share no queue, file
// or clock, and the slaves leave the host as they found it.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/msg.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "cal/cal.h"
#include "cal/cal_buf.h"
#include "cal/startup.h"
#include "platform/os.h"
#include "tests/support/slave_child.h"

namespace {

constexpr key_t k_note_key = 0x6e6f7465;  // the tests' own, the same on both boards

// Every thread of this process still has normal scheduling.
bool all_threads_normal()
{
    int threads = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        ++threads;
        if (sched_getscheduler(std::atoi(task.path().filename().c_str())) != SCHED_OTHER)
            return false;
    }
    return threads > 1;
}

// In a child, once both slaves run: its own clock, zone, a top priority and
// a note on its queue marked with its name; its threads keep their policy.
int act_as(const temp_board_dir& own, const temp_board_dir& other, char name, uint64_t seconds, const char* tz)
{
    std::fclose(std::fopen(own.file("up").c_str(), "w"));
    for (int i = 0; i < 3000 && !file_exists(other.file("up")); ++i)
        usleep(10000);
    _set_time(g_cal, seconds, seconds * 1000000);
    _set_tz(g_cal, tz);
    cal_thread_priority(0, "cal_recv_dec_thread");
    tx_msg_t m{};
    m.type = MSG_CMD_ENC_DATA;
    m.body[0] = static_cast<unsigned char>(name);
    int id = os_msgget(k_note_key, IPC_CREAT);
    return id >= 0 && os_msgsnd(id, &m, TX_MSG_BODY_SIZE, 0) == 0 && all_threads_normal() ? 0 : 92;
}

// A host path as seen from outside: its modification time and, for a
// file, its content.
std::string state_of(const char* path)
{
    std::error_code ec;
    auto mtime = std::filesystem::last_write_time(path, ec).time_since_epoch().count();
    return ec ? "missing" : std::to_string(mtime) + (std::filesystem::is_regular_file(path, ec) ? read_file(path) : "");
}

// Wall clock less monotonic clock: constant unless someone sets the clock.
double wall_minus_monotonic()
{
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch() - steady_clock::now().time_since_epoch()).count();
}

TEST(isolation, two_slaves_at_once_share_no_queue_file_or_clock_and_leave_the_host_as_it_was)
{
    const char* watched[] = {"/etc/TZ", "/etc", "/var/log/message", "/var/log"};
    std::vector<std::string> before;
    for (const char* p : watched)
        before.push_back(state_of(p));
    double clock_before = wall_minus_monotonic();

    temp_board_dir a, b, workdir;
    const uint64_t t_a = 946684800, t_b = 2114380800;  // 2000 and 2037
    slave_child child_a(a.path(), 1, {"tarvo3532", "master", "0", "4", "4"},
                        [&] { return act_as(a, b, 'A', t_a, "CST-8"); }, workdir.path());
    slave_child child_b(b.path(), 1, {"tarvo3532", "slave", "4", "4", "4"},
                        [&] { return act_as(b, a, 'B', t_b, "UTC0"); }, workdir.path());
    EXPECT_EQ(child_a.finish(), 0) << child_a.console();
    EXPECT_EQ(child_b.finish(), 0) << child_b.console();

    EXPECT_NEAR(wall_minus_monotonic(), clock_before, 1.0) << "the host clock moved";
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_EQ(state_of(watched[i]), before[i]) << watched[i];
    EXPECT_TRUE(std::filesystem::is_empty(workdir.path()));

    // The same system keys on both boards are different host queues, and
    // each note is in its own board's.
    for (key_t key : {MSG_KEY_ENCR, MSG_KEY_ENCN, k_note_key})
        EXPECT_NE(host_key(a.file("chip1/msgq"), key), host_key(b.file("chip1/msgq"), key)) << key;
    double now = static_cast<double>(time(nullptr));
    for (auto [board, name, seconds, tz] : {std::tuple{&a, 'A', t_a, "CST-8\n"}, {&b, 'B', t_b, "UTC0\n"}}) {
        int id = msgget(static_cast<key_t>(host_key(board->file("chip1/msgq"), k_note_key)), 0);
        tx_msg_t m{};
        ASSERT_EQ(msgrcv(id, &m, TX_MSG_BODY_SIZE, 0, IPC_NOWAIT), TX_MSG_BODY_SIZE);
        EXPECT_EQ(m.body[0], name);
        EXPECT_EQ(msgrcv(id, &m, TX_MSG_BODY_SIZE, 0, IPC_NOWAIT), -1) << "a note of the other board";
        double offset = std::atof(read_file(board->file("chip1/clock")).c_str()) / 1e6;
        EXPECT_NEAR(offset, static_cast<double>(seconds) - now, 5.0);
        EXPECT_EQ(read_file(board->file("chip1/etc/TZ")), tz);
    }
}

}  // namespace
