// A master that misbehaves, on a recording slave: one that stops
// acknowledging for a minute, and one that is killed and replaced by a new
// master on the same board.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "cal/cal_buf.h"
#include "master/master.h"
#include "master/process.h"
#include "master/record.h"
#include "tests/support/test_board.h"

using namespace tmaster;

namespace {

constexpr int CAMERAS = 2;
constexpr int HOLD_FROM = 5;   // seconds of recording
constexpr int HOLD_S = 60;
constexpr int AFTER_S = 25;    // recorded after the master answers again

long rss_kib(pid_t pid)
{
    std::ifstream f("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(f, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    return -1;
}

TEST(fault_master_e2e, a_master_silent_for_a_minute_leaves_memory_under_the_pools_and_streams_resume_at_key_frames)
{
    temp_board_dir board;
    board.share_cache();
    record_options o;
    o.board = board.path();
    o.slave = TARVO_SLAVE_BINARY;
    o.plan.slaves = {{1, 0, CAMERAS, 8}};
    o.seconds = HOLD_FROM + HOLD_S + AFTER_S;
    o.first_key_wait = std::chrono::milliseconds(120000);
    o.progress = stderr;
    long rss_at_hold = -1, rss_top = -1;
    double released_at = 0;
    o.every_second = [&](master& m, int second) {
        const pid_t pid = m.slave(1)->pid;
        const long rss = rss_kib(pid);
        if (second == HOLD_FROM) {
            rss_at_hold = rss;
            m.hold_acks(true);
        } else if (second > HOLD_FROM && second < HOLD_FROM + HOLD_S) {
            rss_top = std::max(rss_top, rss);
        } else if (second == HOLD_FROM + HOLD_S) {
            m.hold_acks(false);
            released_at = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
        }
    };
    record_summary s = record(o);
    ASSERT_EQ(s.rc, 0) << s.error;
    ASSERT_GT(released_at, 0);

    // Memory: what the slave held beyond its state at the hold stays within
    // the record and network pools' ceilings, with room for the snapshots
    // and the allocator. The sanitizers keep freed memory aside, so there
    // the figure is only printed.
    const double grew_mib = static_cast<double>(rss_top - rss_at_hold) / 1024;
    const double ceiling_mib = static_cast<double>(EBUF_TOTAL_LIMIT + NBUF_TOTAL_LIMIT) / (1 << 20) + 16;
    std::printf("   VmRSS %.1f MiB at the hold, at most %.1f MiB during it (+%.1f; allowed +%.0f)\n",
                static_cast<double>(rss_at_hold) / 1024, static_cast<double>(rss_top) / 1024, grew_mib, ceiling_mib);
    if (!k_sanitized) {
        EXPECT_LE(grew_mib, ceiling_mib);
    }

    // Every stream lost frames while the pools were full (the hold bit), and
    // after each gap went on at a key frame with its sequence complete.
    uint64_t lost = 0;
    for (const stream_summary& x : s.streams) {
        std::string problems;
        for (const std::string& p : x.problems)
            problems += "\n  " + p;
        SCOPED_TRACE(std::string(stream_type_name(x.key.type)) + " of camera " + std::to_string(x.key.camera) + ":" +
                     problems);
        lost += x.lost;
        EXPECT_EQ(x.gaps_off_key, 0u);
        EXPECT_EQ(x.repeated, 0u);
        EXPECT_EQ(x.reordered, 0u);
        EXPECT_EQ(x.foreign, 0u);
        EXPECT_EQ(x.no_sei, 0u);
        // Streams run again: at least the frames of most of the time after
        // the release.
        EXPECT_GE(static_cast<double>(x.frames), (AFTER_S - 10) * x.want.fps * (k_sanitized ? 0.3 : 0.8));
    }
    EXPECT_GT(lost, 0u) << "the hold never filled a pool, so it showed nothing";
    for (int c = 0; c < CAMERAS; ++c)
        EXPECT_GE(s.snapshots_of(1, c, released_at + 5, s.ended_at), k_sanitized ? 3u : 12u) << "camera " << c;
}

// The slave the killed master started, by its parent's children list.
pid_t child_of(pid_t parent)
{
    std::ifstream f("/proc/" + std::to_string(parent) + "/task/" + std::to_string(parent) + "/children");
    pid_t p = -1;
    f >> p;
    return p;
}

TEST(fault_master_e2e, a_killed_master_is_replaced_and_the_same_slave_records_for_the_new_one)
{
    temp_board_dir board;
    board.share_cache();
    temp_board_dir out;
    // The first master: the emulator's recorder as a program of its own.
    std::vector<std::string> args = {TARVO_MASTER_BINARY, "record", "--slave", TARVO_SLAVE_BINARY, "--board",
                                     board.path(), "--out", out.path(), "--slaves", "1", "--cameras",
                                     std::to_string(CAMERAS), "--seconds", "600", "--first-key-wait", "120"};
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    const pid_t first = fork();
    ASSERT_GE(first, 0);
    if (first == 0) {
        std::freopen((board.path() + "/master1.log").c_str(), "w", stdout);
        std::freopen((board.path() + "/master1.log").c_str(), "a", stderr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    auto master_log = [&] { return read_file(board.path() + "/master1.log"); };
    // Recording has begun when the first master says so.
    bool recording = false;
    for (int k = 0; k < 1500 && !recording; ++k) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        recording = master_log().find("every stream has begun") != std::string::npos;
    }
    const pid_t slave = child_of(first);
    if (!recording || slave <= 0) {
        kill(first, SIGKILL);
        waitpid(first, nullptr, 0);
        FAIL() << "the first master did not begin recording:\n" << master_log();
    }
    std::this_thread::sleep_for(std::chrono::seconds(3));
    ASSERT_EQ(kill(first, SIGKILL), 0);
    waitpid(first, nullptr, 0);

    // The new master on the same board; the slave is not restarted.
    master_options mo;
    mo.board = board.path();
    master m(mo);
    ASSERT_EQ(m.open(), 0) << m.error();
    const auto console = [&] { return read_file(board.path() + "/chip1.console"); };
    ASSERT_TRUE(m.wait_ports(1, milliseconds(30000))) << console();
    EXPECT_EQ(kill(slave, 0), 0) << "the slave is gone";
    EXPECT_EQ(m.slave(1)->announcements, 0u) << "the slave started again";
    ASSERT_TRUE(m.get_status(1, milliseconds(5000)));

    // Nothing is recorded before the windows and streams are set again;
    // then every stream of both cameras delivers.
    ASSERT_EQ(m.set_dma_info(1, milliseconds(5000)), 0);
    record_plan plan;
    for (const std::string& f : configure_recorder(m, {1, 0, CAMERAS, 8}, plan, milliseconds(5000)))
        ADD_FAILURE() << f;
    // A transfer the killed master left unanswered still holds its thread:
    // the slave waits for the answer on that port without limit. A port of
    // a running stream that brings nothing within 3 s is answered once,
    // as a master that takes over a board does.
    std::this_thread::sleep_for(std::chrono::seconds(3));
    const slave_stats early = m.slave(1)->stats;
    const std::pair<int, const kind_stats*> ports[] = {
        {PORT_ENCR, &early.record}, {PORT_ENCN, &early.network}, {PORT_ENCJPG, &early.jpeg}};
    for (const auto& [port, kind] : ports) {
        if (kind->notes != 0)
            continue;
        std::printf("   port %d brought nothing: answered once\n", port);
        const uint8_t answer[16] = {};
        ASSERT_EQ(m.send_raw(1, port, answer), 0);
    }
    const bool flowing = m.wait_for(
        1,
        [](const slave_info& s) {
            return s.stats.record.frames >= 300 && s.stats.network.frames >= 300 && s.stats.jpeg.frames >= 4;
        },
        milliseconds(k_sanitized ? 90000 : 45000));
    const slave_info s = *m.slave(1);
    EXPECT_TRUE(flowing) << "record " << s.stats.record.frames << ", network " << s.stats.network.frames
                         << ", snapshots " << s.stats.jpeg.frames << "\n"
                         << console().substr(console().size() > 2000 ? console().size() - 2000 : 0);
    EXPECT_EQ(s.stats.record.bad + s.stats.network.bad + s.stats.jpeg.bad, 0u);
    EXPECT_EQ(kill(slave, 0), 0);
    // The slave is this board's to end: the new master did not start it.
    kill(slave, SIGTERM);
    m.close();
    release_chip_queues(board.path(), 1);
}

}  // namespace
