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

TEST(startup_sequence, runs_in_order_and_leaves_its_records_on_the_board)
{
    temp_board_dir board;
    slave_child child(board.path(), 3, {"tarvo3532", "master", "08", "4", "2"});
    ASSERT_EQ(child.finish(), 0) << child.console();
    const std::string console = child.console();
    size_t at = 0;
    for (const char* step : {"tarv3532.. errno:", "\ntarvo3532 v1.1 argc:5", "\n_init_mem           (", "> VB Init\n",
                             "> WinVbCreate.. r:0\n", "> fill insmod!!\n", "> name:thread_encr success!!\n",
                             "> name:thread_encn success!!\n", "> k:4 argv:2\n", "> .. module new cal:",
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
