// Start-up: the command line, the refusals before anything is touched, the
// whole sequence on a board in a forked child, the buffer pools, and the
// time zone and clock settings.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "cal/cal.h"
#include "cal/cal_time.h"
#include "cal/startup.h"
#include "platform/os.h"
#include "platform/sim/sys_sim.h"
#include "tests/support/slave_child.h"
#include "tests/support/test_board.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

cal_t parsed(std::vector<std::string> words)
{
    words.insert(words.begin(), "tarvo3532");
    arg_list args(words);
    cal_t cal{};
    _parse_args(&cal, args.argv());
    return cal;
}

TEST(parse_args, role_is_master_only_for_the_exact_word_and_numbers_are_decimal)
{
    EXPECT_EQ(parsed({"master", "0", "4", "4"}).master, 1);
    for (const char* role : {"Master", "master ", "masters", "slave", ""})
        EXPECT_EQ(parsed({role, "0", "4", "4"}).master, 0) << role;

    cal_t c = parsed({"slave", "08", "010", "four"});
    EXPECT_EQ(c.cam_base, 8);  // a leading zero is not octal
    EXPECT_EQ(c.slave_cam, 10);
    EXPECT_EQ(c.num_vin, 0);  // not a number
    // What strtol takes: a sign, leading blanks, digits before other text;
    // and no range check.
    c = parsed({"slave", "-3", " 40", "8cams"});
    EXPECT_EQ(c.cam_base, -3);
    EXPECT_EQ(c.slave_cam, 40);
    EXPECT_EQ(c.num_vin, 8);
}

// Runs tarvo_main in a forked child and returns its exit status.
int run_main(const slave_env& env, std::vector<std::string> words, std::string* out, std::string* err)
{
    temp_board_dir logs;
    slave_child child(env, logs.file("console"), [words] {
        arg_list args(words);
        return tarvo_main(args.argc(), args.argv());
    });
    int status = child.finish();
    *out = child.out();
    *err = child.err();
    return status;
}

TEST(startup_refusal, bad_command_line_board_or_fault_rules_end_with_status_2_before_the_board_is_touched)
{
    temp_board_dir board;
    const std::vector<std::string> good{"tarvo3532", "slave", "0", "4", "4"};
    struct refusal {
        slave_env env;
        std::vector<std::string> words;
        std::string message;
    } cases[] = {
        {{board.path(), "1", "", ""}, {"tarvo3532"}, "usage: tarvo3532 <role> <cam_base> <slave_cam> <num_vin>"},
        {{board.path(), "1", "", ""}, {"tarvo3532", "master", "0", "4"}, "usage: "},
        {{"", "1", "", ""}, good, "TARVO_BOARD is not set"},
        {{board.path() + "/missing", "1", "", ""}, good, "board directory " + board.path() + "/missing does not exist"},
        {{"relative/board", "1", "", ""}, good, "absolute path"},
        {{board.path(), "15", "", ""}, good, "TARVO_CHIP_ID must be 1 to 14"},
        {{board.path(), "1x", "", ""}, good, "TARVO_CHIP_ID must be 1 to 14"},
        {{board.path(), "1", "HI_MPI_SYS_Init=a0028010,HI_MPI_VB_Inti=1", ""}, good,
         "unknown operation 'HI_MPI_VB_Inti'"},
    };
    for (const refusal& c : cases) {
        std::string out, err;
        EXPECT_EQ(run_main(c.env, c.words, &out, &err), 2) << c.message;
        EXPECT_THAT(err, HasSubstr(c.message));
        EXPECT_EQ(out, "");
    }
    EXPECT_FALSE(file_exists(board.file("chip1")));
}

// Each needle must appear after the one before it.
void expect_in_order(const std::string& text, const std::vector<std::string>& needles)
{
    size_t at = 0;
    for (const std::string& n : needles) {
        size_t p = text.find(n, at);
        ASSERT_NE(p, std::string::npos) << "missing, or out of order: " << n << "\n--- console:\n" << text;
        at = p + n.size();
    }
}

TEST(startup_sequence, runs_in_order_and_leaves_its_records_on_the_board)
{
    temp_board_dir board, logs;
    master_stub master(board.path());
    slave_child child({board.path(), "3", "", ""}, logs.file("console"), [] {
        arg_list args({"tarvo3532", "master", "08", "4", "2"});
        return tarvo_main(args.argc(), args.argv());
    });
    std::string sched = board.file("chip3/sched.log");
    ASSERT_TRUE(child.wait_for([&] { return has_gui_record(sched); })) << child.out() << child.err();
    usleep(50000);  // the main thread stays up: it is the command loop now
    child.kill();
    EXPECT_EQ(child.finish(), 128 + SIGKILL);

    expect_in_order(child.out(), {"tarv3532.. errno:", "\ntarvo3532 v1.1 argc:5", "\n_init_mem           (",
                                  "> VB Init\n", "> WinVbCreate.. r:0\n", "> fill insmod!!\n",
                                  "> name:thread_encr success!!\n", "> name:thread_encn success!!\n",
                                  "> k:0 argv:tarvo3532\n", "> k:1 argv:master\n", "> k:2 argv:08\n",
                                  "> k:3 argv:4\n", "> k:4 argv:2\n", "> .. module new cal:",
                                  "> master:1 cam_base:8 slave_cam:4 num_vin:2\n", "> r1:0 r3:0",
                                  "\nlow_power           (", "> master:1 num_vin:2\n", "> sz_thread:gui r:0\n"});
    auto shell = read_lines(board.file("chip3/shell.log"));
    shell.resize(6);
    EXPECT_THAT(shell, ElementsAre("killall syslogd", "syslogd -O /var/log/message",
                                   "himm 0x20110150  0x03ff5 > /dev/null", "himm 0x20110188  0x10600 > /dev/null",
                                   "himm 0x20120150  0x03ff5 > /dev/null", "himm 0x20120188  0x10600 > /dev/null"));
    auto syslog = read_lines(board.file("chip3/var/log/message"));
    ASSERT_FALSE(syslog.empty());
    EXPECT_EQ(syslog[0], "7 tarvo3532 v1.1 start!!");
    // The main thread's own record is the last of the start-up.
    EXPECT_EQ(read_lines(sched).back(), std::to_string(child.pid()) + " SCHED_RR 2");
    EXPECT_EQ(read_file(board.file("chip3/clock")), "0\n");
    EXPECT_FALSE(file_exists(board.file("chip3/etc/TZ")));
    EXPECT_FALSE(file_exists(board.file("chip1")));
}

TEST(startup_sequence, a_failed_pool_initialisation_aborts_with_an_assertion)
{
    temp_board_dir board;
    std::string out, err;
    EXPECT_EQ(run_main({board.path(), "1", "HI_MPI_VB_Init=a0018010", ""}, {"tarvo3532", "slave", "0", "4", "4"},
                       &out, &err),
              128 + SIGABRT);
    EXPECT_THAT(out, HasSubstr("> ERROR!! ASSERTION!!\n"));
    EXPECT_THAT(out, Not(HasSubstr("fill insmod")));
    EXPECT_THAT(read_file(board.file("chip1/var/log/message")), HasSubstr("3 _init_mem       ("));
}

class init_mem_test : public board_test {};

TEST_F(init_mem_test, pools_system_and_window_pool_are_configured)
{
    _init_mem();
    sim_sys_state st = sim_sys_snapshot();
    ASSERT_TRUE(st.sys_initialised);
    EXPECT_EQ(st.vb_conf.max_pool_cnt, 128u);
    struct row {
        uint32_t size, count;
        std::string zone;
    } const pools[] = {{0x80000, 64, ""},     {0xCA800, 8, ""},     {0x3FC000, 40, ""},
                       {0x54600, 24, "ddr1"}, {0xCA800, 8, "ddr1"}, {0x2FD000, 28, "ddr1"}};
    for (int i = 0; i < VB_MAX_COMM_POOLS; ++i) {
        const vb_pool_conf_t& p = st.vb_conf.comm_pool[i];
        row r = i < 6 ? pools[i] : row{0, 0, ""};
        EXPECT_TRUE(p.blk_size == r.size && p.blk_cnt == r.count && p.mmz_name == r.zone) << "pool " << i;
    }
    EXPECT_EQ(st.sys_conf.align_width, 64u);
    EXPECT_TRUE(st.win_vb_created && st.win_vb.pool_count == 1 && st.win_vb.blk_size[0] == 0x200000 &&
                st.win_vb.blk_count[0] == 4);

    // A second run exits first and starts clean; the window pool exists
    // already, which is only traced.
    stdout_capture out;
    _init_mem();
    EXPECT_TRUE(sim_sys_snapshot().sys_initialised);
    EXPECT_THAT(out.text(), HasSubstr("> WinVbCreate.. r:" + std::to_string(hi_err(HI_ID_PCIV, HI_ERR_EXIST)) + "\n"));
}

using init_mem_death_test = init_mem_test;

TEST_F(init_mem_death_test, each_of_the_four_initialisation_steps_must_succeed)
{
    for (const char* rule : {"HI_MPI_VB_SetConf=a0018003", "HI_MPI_VB_Init=a0018010", "HI_MPI_SYS_SetConf=a0028003",
                             "HI_MPI_SYS_Init=a0028010"}) {
        reopen(rule);
        EXPECT_FATAL(_init_mem(), "ASSERTION!!") << rule;
    }
}

class settings_test : public board_test {
protected:
    cal_t cal_{};
};

TEST_F(settings_test, time_zone_reaches_environment_file_and_local_time_but_no_shell)
{
    stdout_capture out;
    time_t t = 0;
    struct tm tm{};
    EXPECT_EQ(_set_tz(&cal_, "UTC0"), 0);
    EXPECT_EQ(cal_localtime(&tm, &t)->tm_hour, 0);
    EXPECT_EQ(_set_tz(&cal_, "CST-8"), 0);
    EXPECT_EQ(cal_localtime(&tm, &t)->tm_hour, 8);
    EXPECT_STREQ(std::getenv("TZ"), "CST-8");
    EXPECT_EQ(read_file(chip_file("etc/TZ")), "CST-8\n");
    EXPECT_THAT(out.text(), HasSubstr("> tz:CST-8\n"));

    // The master's text is data: it never reaches a shell.
    std::string marker = board_.file("injected");
    std::string tz = "CST-8; touch " + marker + " #";
    _set_tz(&cal_, tz.c_str());
    EXPECT_EQ(read_file(chip_file("etc/TZ")), tz + "\n");
    EXPECT_FALSE(file_exists(marker));
    EXPECT_THAT(read_lines(chip_file("shell.log")), ElementsAre());
}

// The three numbers of _set_time's trace: old, new, difference.
std::vector<unsigned long long> time_trace(const std::string& text)
{
    std::vector<unsigned long long> v(3, ~0ull);
    size_t p = text.rfind("> ");
    if (p != std::string::npos)
        std::sscanf(text.c_str() + p + 2, "%llu %llu %llu", &v[0], &v[1], &v[2]);
    return v;
}

TEST_F(settings_test, setting_the_clock_to_its_own_time_traces_no_difference)
{
    for (int attempt = 0; attempt < 5; ++attempt) {
        unsigned long long now = static_cast<unsigned long long>(os_time(nullptr));
        stdout_capture out;
        _set_time(&cal_, now, now * 1000000 + 500000);
        auto v = time_trace(out.text());
        if (v[0] != now)
            continue;  // the second turned meanwhile
        EXPECT_EQ(v, (std::vector<unsigned long long>{now, now, 0}));
        return;
    }
    FAIL() << "the clock never stayed within one second";
}

TEST_F(settings_test, setting_the_clock_far_back_moves_only_the_boards_clock)
{
    const uint64_t y2000 = 946684800;
    double host_before = static_cast<double>(time(nullptr));
    double old = static_cast<double>(os_time(nullptr));
    stdout_capture out;
    EXPECT_EQ(_set_time(&cal_, y2000, y2000 * 1000000 + 250000), 0);
    auto v = time_trace(out.text());
    EXPECT_NEAR(static_cast<double>(v[0]), old, 1.0);
    EXPECT_EQ(v[1], y2000);
    EXPECT_NEAR(static_cast<double>(v[2]), old - static_cast<double>(y2000), 1.0);

    EXPECT_NEAR(static_cast<double>(os_time(nullptr)), static_cast<double>(y2000), 2.0);
    EXPECT_NEAR(cal_get_msec() / 1000.0, static_cast<double>(y2000), 2.0);
    EXPECT_NEAR(static_cast<double>(time(nullptr)), host_before, 5.0);
    EXPECT_NEAR(std::atof(read_file(chip_file("clock")).c_str()) / 1e6, static_cast<double>(y2000) - host_before,
                5.0);
}

}  // namespace
