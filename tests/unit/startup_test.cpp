// Start-up: the command line, the refusals before anything is touched, the
// whole sequence on a board in a forked child, the buffer pools, and the
// time zone and clock settings.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
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

// ---- the command line -------------------------------------------------------

cal_t parsed(std::vector<std::string> words)
{
    words.insert(words.begin(), "tarvo3532");
    arg_list args(words);
    cal_t cal{};
    cal.size = sizeof(cal_t);
    _parse_args(&cal, args.argv());
    return cal;
}

TEST(parse_args, role_is_master_only_for_the_exact_word)
{
    EXPECT_EQ(parsed({"master", "0", "4", "4"}).master, 1);
    EXPECT_EQ(parsed({"Master", "0", "4", "4"}).master, 0);
    EXPECT_EQ(parsed({"master ", "0", "4", "4"}).master, 0);
    EXPECT_EQ(parsed({"masters", "0", "4", "4"}).master, 0);
    EXPECT_EQ(parsed({"slave", "0", "4", "4"}).master, 0);
    EXPECT_EQ(parsed({"", "0", "4", "4"}).master, 0);
}

TEST(parse_args, numbers_are_decimal_and_anything_else_is_zero)
{
    cal_t c = parsed({"slave", "08", "010", "4"});
    EXPECT_EQ(c.cam_base, 8);
    EXPECT_EQ(c.slave_cam, 10);
    EXPECT_EQ(c.num_vin, 4);
    c = parsed({"slave", "four", "0x10", ""});
    EXPECT_EQ(c.cam_base, 0);
    EXPECT_EQ(c.slave_cam, 0);
    EXPECT_EQ(c.num_vin, 0);
    // What strtol takes: a sign, leading blanks, digits before other text.
    c = parsed({"slave", "-3", " 16", "8cams"});
    EXPECT_EQ(c.cam_base, -3);
    EXPECT_EQ(c.slave_cam, 16);
    EXPECT_EQ(c.num_vin, 8);
    // No range check: 40 cameras are stored as given.
    EXPECT_EQ(parsed({"slave", "0", "40", "4"}).slave_cam, 40);
}

// ---- refusals -------------------------------------------------------------------

class startup_refusal : public ::testing::Test {
protected:
    int run(const slave_env& env, std::vector<std::string> words)
    {
        child_ = std::make_unique<slave_child>(env, logs_.file("console"), [words] {
            arg_list args(words);
            return tarvo_main(args.argc(), args.argv());
        });
        return child_->finish();
    }

    slave_env good_env() const { return {board_.path(), "1", "", ""}; }

    temp_board_dir board_;
    temp_board_dir logs_;
    std::unique_ptr<slave_child> child_;
};

TEST_F(startup_refusal, fewer_than_four_arguments_print_the_usage)
{
    for (std::vector<std::string> words : std::vector<std::vector<std::string>>{
             {"tarvo3532"}, {"tarvo3532", "master"}, {"tarvo3532", "master", "0", "4"}}) {
        EXPECT_EQ(run(good_env(), words), 2) << words.size();
        EXPECT_THAT(child_->err(), HasSubstr("usage: tarvo3532 <role> <cam_base> <slave_cam> <num_vin>"));
        EXPECT_EQ(child_->out(), "");
    }
    EXPECT_FALSE(file_exists(board_.file("chip1"))) << "a refused start touched the board";
}

TEST_F(startup_refusal, without_a_usable_board)
{
    std::vector<std::string> words{"tarvo3532", "slave", "0", "4", "4"};
    slave_env env = good_env();
    env.board = "";
    EXPECT_EQ(run(env, words), 2);
    EXPECT_THAT(child_->err(), HasSubstr("TARVO_BOARD is not set"));

    env.board = board_.path() + "/missing";
    EXPECT_EQ(run(env, words), 2);
    EXPECT_THAT(child_->err(), HasSubstr("board directory " + env.board + " does not exist"));

    env.board = "relative/board";
    EXPECT_EQ(run(env, words), 2);
    EXPECT_THAT(child_->err(), HasSubstr("absolute path"));

    env = good_env();
    env.chip = "15";
    EXPECT_EQ(run(env, words), 2);
    EXPECT_THAT(child_->err(), HasSubstr("TARVO_CHIP_ID must be 1 to 14"));
    env.chip = "1x";
    EXPECT_EQ(run(env, words), 2);
    EXPECT_EQ(child_->out(), "");
}

TEST_F(startup_refusal, an_unknown_fault_name_is_refused_before_the_board_is_touched)
{
    slave_env env = good_env();
    env.fail = "HI_MPI_SYS_Init=a0028010,HI_MPI_VB_Inti=1";
    EXPECT_EQ(run(env, {"tarvo3532", "slave", "0", "4", "4"}), 2);
    EXPECT_THAT(child_->err(), HasSubstr("unknown operation 'HI_MPI_VB_Inti'"));
    EXPECT_EQ(child_->out(), "");
    EXPECT_FALSE(file_exists(board_.file("chip1")));
}

// ---- the whole sequence ---------------------------------------------------------

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
    // The main thread stays up (it becomes the command loop).
    usleep(50000);
    child.kill();
    EXPECT_EQ(child.finish(), 128 + SIGKILL);

    std::string out = child.out();
    expect_in_order(out, {
                             "tarv3532.. errno:",
                             "\ntarvo3532 v1.1 argc:5\n",
                             "> VB Init\n",
                             "> WinVbCreate.. r:0\n",
                             "> fill insmod!!\n",
                             "> name:thread_encr success!!\n",
                             "> name:thread_encn success!!\n",
                             "> k:0 argv:tarvo3532\n",
                             "> k:1 argv:master\n",
                             "> k:2 argv:08\n",
                             "> k:3 argv:4\n",
                             "> k:4 argv:2\n",
                             "> .. module new cal:",
                             "> master:1 cam_base:8 slave_cam:4 num_vin:2\n",
                             "> r1:0 r3:0\n",
                             "> master:1 num_vin:2\n",
                             "> sz_thread:gui r:0\n",
                         });
    // Every trace line carries the function in 20 columns and the line in 4.
    EXPECT_THAT(out, HasSubstr("\n_init_mem           ("));
    EXPECT_THAT(out, HasSubstr("\nlow_power           ("));

    auto shell = read_lines(board.file("chip3/shell.log"));
    ASSERT_GE(shell.size(), 6u);
    EXPECT_THAT(std::vector<std::string>(shell.begin(), shell.begin() + 6),
                ElementsAre("killall syslogd", "syslogd -O /var/log/message", "himm 0x20110150  0x03ff5 > /dev/null",
                            "himm 0x20110188  0x10600 > /dev/null", "himm 0x20120150  0x03ff5 > /dev/null",
                            "himm 0x20120188  0x10600 > /dev/null"));
    auto syslog = read_lines(board.file("chip3/var/log/message"));
    ASSERT_FALSE(syslog.empty());
    EXPECT_EQ(syslog[0], "7 tarvo3532 v1.1 start!!");
    // The main thread's own record, last of the start-up.
    auto records = read_lines(sched);
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back(), std::to_string(child.pid()) + " SCHED_RR 2");
    EXPECT_EQ(read_file(board.file("chip3/clock")), "0\n");
    auto queues = read_lines(board.file("chip3/msgq"));
    ASSERT_EQ(queues.size(), 2u);
    EXPECT_EQ(queues[0].substr(0, 9), "656e6372 ");
    EXPECT_EQ(queues[1].substr(0, 9), "656e636e ");
    EXPECT_FALSE(file_exists(board.file("chip3/etc/TZ")));
    EXPECT_FALSE(file_exists(board.file("chip1")));
}

TEST(startup_sequence, a_failed_pool_initialisation_aborts_with_an_assertion)
{
    temp_board_dir board, logs;
    slave_child child({board.path(), "1", "HI_MPI_VB_Init=a0018010", ""}, logs.file("console"), [] {
        arg_list args({"tarvo3532", "slave", "0", "4", "4"});
        return tarvo_main(args.argc(), args.argv());
    });
    EXPECT_EQ(child.finish(), 128 + SIGABRT);
    EXPECT_THAT(child.out(), HasSubstr("> ERROR!! ASSERTION!!\n"));
    EXPECT_THAT(child.out(), Not(HasSubstr("fill insmod")));
    EXPECT_THAT(read_file(board.file("chip1/var/log/message")), HasSubstr("3 _init_mem       ("));
}

// ---- buffer pools ---------------------------------------------------------------

class init_mem_test : public board_test {};

TEST_F(init_mem_test, pools_system_and_window_pool_are_configured)
{
    stdout_capture out;
    _init_mem();
    sim_sys_state st = sim_sys_snapshot();
    ASSERT_TRUE(st.sys_initialised);
    ASSERT_TRUE(st.vb_initialised);
    EXPECT_EQ(st.vb_conf.max_pool_cnt, 128u);
    struct row {
        uint32_t size, count;
        std::string zone;
    };
    const row pools[] = {{0x80000, 64, ""},  {0xCA800, 8, ""},     {0x3FC000, 40, ""},
                         {0x54600, 24, "ddr1"}, {0xCA800, 8, "ddr1"}, {0x2FD000, 28, "ddr1"}};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(st.vb_conf.comm_pool[i].blk_size, pools[i].size) << i;
        EXPECT_EQ(st.vb_conf.comm_pool[i].blk_cnt, pools[i].count) << i;
        EXPECT_EQ(std::string(st.vb_conf.comm_pool[i].mmz_name), pools[i].zone) << i;
    }
    for (int i = 6; i < VB_MAX_COMM_POOLS; ++i)
        EXPECT_EQ(st.vb_conf.comm_pool[i].blk_cnt, 0u) << i;
    EXPECT_EQ(st.sys_conf.align_width, 64u);
    ASSERT_TRUE(st.win_vb_created);
    EXPECT_EQ(st.win_vb.pool_count, 1u);
    EXPECT_EQ(st.win_vb.blk_size[0], 0x200000u);
    EXPECT_EQ(st.win_vb.blk_count[0], 4u);
    EXPECT_THAT(out.text(), HasSubstr("> WinVbCreate.. r:0\n"));
}

TEST_F(init_mem_test, a_second_run_starts_from_a_clean_system_and_window_pool_failure_only_traces)
{
    _init_mem();
    // The window pool exists already: traced, start-up goes on.
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
    // The exits before them are not checked.
    reopen("HI_MPI_SYS_Exit=a0028010,HI_MPI_VB_Exit=a0018010");
    _init_mem();
    EXPECT_TRUE(sim_sys_snapshot().sys_initialised);
}

// ---- time zone and clock -------------------------------------------------------

class settings_test : public board_test {
protected:
    cal_t cal_{};
};

TEST_F(settings_test, time_zone_reaches_environment_file_and_local_time)
{
    stdout_capture out;
    EXPECT_EQ(_set_tz(&cal_, "UTC0"), 0);
    time_t t = 0;
    struct tm tm{};
    EXPECT_EQ(cal_localtime(&tm, &t)->tm_hour, 0);
    EXPECT_EQ(_set_tz(&cal_, "CST-8"), 0);
    EXPECT_STREQ(std::getenv("TZ"), "CST-8");
    EXPECT_EQ(read_file(chip_file("etc/TZ")), "CST-8\n");
    EXPECT_EQ(cal_localtime(&tm, &t)->tm_hour, 8);
    EXPECT_THAT(out.text(), HasSubstr("> tz:CST-8\n"));
}

TEST_F(settings_test, the_masters_zone_text_never_reaches_a_shell)
{
    std::string marker = board_.file("injected");
    std::string tz = "CST-8; touch " + marker + " #";
    EXPECT_EQ(_set_tz(&cal_, tz.c_str()), 0);
    EXPECT_EQ(read_file(chip_file("etc/TZ")), tz + "\n");
    EXPECT_FALSE(file_exists(marker));
    EXPECT_THAT(read_lines(chip_file("shell.log")), ElementsAre());
}

unsigned long long traced_number(const std::string& text, int index)
{
    size_t p = text.rfind("> ");
    unsigned long long v[3] = {};
    if (p == std::string::npos || std::sscanf(text.c_str() + p + 2, "%llu %llu %llu", &v[0], &v[1], &v[2]) != 3)
        return ~0ull;
    return v[index];
}

TEST_F(settings_test, setting_the_clock_to_its_own_time_traces_no_difference)
{
    for (int attempt = 0; attempt < 5; ++attempt) {
        time_t now = os_time(nullptr);
        stdout_capture out;
        EXPECT_EQ(_set_time(&cal_, now, static_cast<uint64_t>(now) * 1000000 + 500000), 0);
        std::string text = out.text();
        if (traced_number(text, 0) != static_cast<unsigned long long>(now))
            continue;  // the second turned meanwhile
        EXPECT_EQ(traced_number(text, 1), static_cast<unsigned long long>(now));
        EXPECT_EQ(traced_number(text, 2), 0u);
        return;
    }
    FAIL() << "the clock never stayed within one second";
}

TEST_F(settings_test, setting_the_clock_far_back_moves_only_the_boards_clock)
{
    const uint64_t y2000 = 946684800;
    time_t host_before = time(nullptr);
    time_t old = os_time(nullptr);
    stdout_capture out;
    EXPECT_EQ(_set_time(&cal_, y2000, y2000 * 1000000 + 250000), 0);
    std::string text = out.text();
    EXPECT_NEAR(static_cast<double>(traced_number(text, 0)), static_cast<double>(old), 1.0);
    EXPECT_EQ(traced_number(text, 1), y2000);
    EXPECT_NEAR(static_cast<double>(traced_number(text, 2)), static_cast<double>(old - static_cast<time_t>(y2000)),
                1.0);

    EXPECT_NEAR(static_cast<double>(os_time(nullptr)), static_cast<double>(y2000), 2.0);
    EXPECT_NEAR(static_cast<double>(time(nullptr)), static_cast<double>(host_before), 5.0);
    long long offset = std::atoll(read_file(chip_file("clock")).c_str());
    EXPECT_NEAR(static_cast<double>(offset) / 1e6, static_cast<double>(y2000) - static_cast<double>(host_before), 5.0);
    EXPECT_NEAR(cal_get_msec() / 1000.0, static_cast<double>(y2000), 2.0);
}

}  // namespace
