// Start-up: the command line, the refusals before anything is touched, the
// whole sequence on a board in a forked child, and the buffer set-up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include "cal/cal.h"
#include "cal/startup.h"
#include "platform/sim/sys_sim.h"
#include "tests/support/slave_child.h"

namespace {

using ::testing::ElementsAre;

TEST(parse_args, role_is_master_only_for_the_exact_word_and_numbers_are_decimal)
{
    const std::pair<std::vector<std::string>, std::array<int, 4>> cases[] = {
        {{"tarvo3532", "master", "0", "4", "4"}, {1, 0, 4, 4}},
        // Decimal as strtol reads it: no octal, a sign, leading blanks, digits
        // before other text, 0 for no number; and no range check.
        {{"tarvo3532", "Master", "08", "010", "four"}, {0, 8, 10, 0}},
        {{"tarvo3532", "master ", "-3", " 40", "8cams"}, {0, -3, 40, 8}},
    };
    for (const auto& [words, expect] : cases) {
        arg_list args(words);
        cal_t cal{};
        _parse_args(&cal, args.argv());
        EXPECT_EQ((std::array{cal.master, cal.cam_base, cal.slave_cam, cal.num_vin}), expect) << words[1];
    }
}

TEST(startup_refusal, bad_command_line_board_or_fault_rules_end_with_status_2_before_the_board_is_touched)
{
    temp_board_dir board;
    setenv("TARVO_BOARD", board.path().c_str(), 1);
    setenv("TARVO_CHIP_ID", "1", 1);
    unsetenv("TARVO_SIM_FAIL");
    arg_list three({"tarvo3532", "master", "0", "4"}), four({"tarvo3532", "slave", "0", "4", "4"});
    EXPECT_EXIT(_exit(tarvo_main(three.argc(), three.argv())), ::testing::ExitedWithCode(2),
                "usage: tarvo3532 <role> <cam_base> <slave_cam> <num_vin>");
    // Each case changes one variable of that good environment (empty: unset).
    const struct {
        const char* name;
        std::string value;
        const char* message;
    } cases[] = {
        {"TARVO_BOARD", "", "TARVO_BOARD is not set"},
        {"TARVO_CHIP_ID", "1x", "TARVO_CHIP_ID must be 1 to 14"},
        {"TARVO_SIM_FAIL", "HI_MPI_SYS_Init=a0028010,HI_MPI_VB_Inti=1", "unknown operation 'HI_MPI_VB_Inti'"},
    };
    for (const auto& c : cases) {
        EXPECT_EXIT(
            {
                c.value.empty() ? unsetenv(c.name) : setenv(c.name, c.value.c_str(), 1);
                _exit(tarvo_main(four.argc(), four.argv()));
            },
            ::testing::ExitedWithCode(2), c.message);
    }
    EXPECT_FALSE(file_exists(board.file("chip1")));
}

TEST(startup_refusal, a_command_line_the_process_cannot_serve_ends_with_status_2_before_the_board_is_touched)
{
    // cam_base, slave_cam, num_vin; the highest stream number is
    // cam_base + slave_cam - 1 + 2 * num_vin and must be an int.
    const struct {
        std::vector<std::string> numbers;
        const char* message;  // nullptr: served
    } cases[] = {
        {{"0", "4", "4"}, nullptr},
        {{"nine", "0", "0"}, nullptr},  // no number: 0
        {{"2147483636", "4", "4"}, nullptr},
        {{"2147483637", "4", "4"}, "cam_base must be 0 to 2147483636 for 4 cameras and 4 inputs, not 2147483637"},
        {{"2147483647", "4", "4"}, "cam_base must be 0 to 2147483636"},
        {{"-1", "4", "4"}, "cam_base must be 0 to"},
        {{"4294967296", "4", "4"}, "cam_base '4294967296' is out of range"},
        {{"0", "99999999999999999999", "4"}, "slave_cam '99999999999999999999' is out of range"},
        {{"0", "33", "4"}, "slave_cam must be 0 to 32, not 33"},
        {{"0", "-1", "4"}, "slave_cam must be 0 to 32, not -1"},
        {{"0", "4", "-2147483648"}, "num_vin must be 0 to 32, not -2147483648"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> words = {"tarvo3532", "slave"};
        words.insert(words.end(), c.numbers.begin(), c.numbers.end());
        arg_list args(words);
        stderr_capture err;
        EXPECT_EQ(_check_args(args.argv()), c.message ? -1 : 0) << c.numbers[0];
        if (c.message) {
            EXPECT_THAT(err.text(), ::testing::HasSubstr(c.message));
        }
    }
    temp_board_dir board;
    setenv("TARVO_BOARD", board.path().c_str(), 1);
    setenv("TARVO_CHIP_ID", "1", 1);
    unsetenv("TARVO_SIM_FAIL");
    arg_list top({"tarvo3532", "slave", "2147483647", "4", "4"});
    EXPECT_EXIT(_exit(tarvo_main(top.argc(), top.argv())), ::testing::ExitedWithCode(2),
                "tarvo3532: cam_base must be 0 to");
    EXPECT_FALSE(file_exists(board.file("chip1")));
}

TEST(startup_sequence, runs_in_order_and_leaves_its_records_on_the_board)
{
    temp_board_dir board;
    slave_child child(board.path(), 3, {"tarvo3532", "master", "08", "4", "2"});
    ASSERT_EQ(child.finish(), 0) << child.console();
    const std::string console = child.console();
    size_t at = 0;
    for (const char* step : {"tarv3532.. errno:", "\ntarvo3532 v1.1 argc:5", "\n_init_mem           (", "> VB Init\n",
                             "> WinVbCreate.. r:0\n", "> fill insmod!!\n", "> name:thread_encr success!!\n",
                             "> name:thread_encn success!!\n", "> k:4 argv:2\n", "> start chip init slave \n", "> stViParam.s32ViChnCnt! 4\n", "> .. module new cal:",
                             "> master:1 cam_base:8 slave_cam:4 num_vin:2\n", "> r1:0 r3:0", "\nlow_power           (",
                             "> master:1 num_vin:2\n", "> sz_thread:gui r:0\n"}) {
        at = console.find(step, at);
        ASSERT_NE(at, std::string::npos) << "missing, or out of order: " << step << "\n--- console:\n" << console;
    }
    auto shell = read_lines(board.file("chip3/shell.log"));
    shell.resize(6);
    EXPECT_THAT(shell, ElementsAre("killall syslogd", "syslogd -O /var/log/message",
                                   "himm 0x20110150  0x03ff5 > /dev/null", "himm 0x20110188  0x10600 > /dev/null",
                                   "himm 0x20120150  0x03ff5 > /dev/null", "himm 0x20120188  0x10600 > /dev/null"));
    EXPECT_THAT(read_file(board.file("chip3/var/log/message")), ::testing::StartsWith("7 tarvo3532 v1.1 start!!\n"));
}

class startup_board_test : public board_test {};

TEST_F(startup_board_test, buffer_pools_system_and_window_pool_as_the_slave_needs_them)
{
    stdout_capture out;
    _init_mem();
    sim_sys_state s = sim_sys_snapshot();
    ASSERT_TRUE(s.vb_initialised && s.sys_initialised && s.win_vb_created);
    EXPECT_EQ(s.vb_conf.max_pool_cnt, 128u);
    struct pool {
        uint32_t size, count;
        const char* zone;
    };
    const pool pools[] = {{0x80000, 64, ""}, {0xCA800, 8, ""}, {0x3FC000, 40, ""},
                 {0x54600, 24, "ddr1"}, {0xCA800, 8, "ddr1"}, {0x2FD000, 28, "ddr1"}};
    for (size_t k = 0; k < std::size(s.vb_conf.comm_pool); ++k) {
        const auto& p = s.vb_conf.comm_pool[k];
        pool want = k < std::size(pools) ? pools[k] : pool{0, 0, ""};
        EXPECT_TRUE(p.blk_size == want.size && p.blk_cnt == want.count && std::string(p.mmz_name) == want.zone)
            << "pool " << k;
    }
    EXPECT_EQ(s.sys_conf.align_width, 64u);
    EXPECT_EQ(s.win_vb.pool_count, 1u);
    EXPECT_EQ(s.win_vb.blk_size[0], 0x200000u);
    EXPECT_EQ(s.win_vb.blk_count[0], 4u);
    EXPECT_THAT(out.text(), ::testing::HasSubstr("> WinVbCreate.. r:0\n"));
}

class startup_board_death_test : public board_test {};

TEST_F(startup_board_death_test, each_of_the_four_buffer_initialisation_steps_must_succeed)
{
    for (const char* rule : {"HI_MPI_VB_SetConf=a0018003", "HI_MPI_VB_Init=a0018010", "HI_MPI_SYS_SetConf=a0028003",
                             "HI_MPI_SYS_Init=a0028010"}) {
        reopen(rule);
        EXPECT_FATAL(_init_mem(), "ASSERTION!!") << rule;
    }
}

}  // namespace
