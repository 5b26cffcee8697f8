// Every operation of the simulated board failed on every call, one at a
// time, on a recording slave: the slave either stops at start-up with the
// abort its start-up gives for that step, or keeps running and answers every
// command a recorder sends; a failing message driver leaves it running
// without its ports, as its start-up has it. A crash, a hang, a silent exit
// or a sanitizer report (checked by the board) is a fault.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "master/master.h"
#include "master/record.h"
#include "tests/support/test_board.h"

using namespace tmaster;

namespace {

constexpr const char* k_ops[] = {
#define SIM_OP(name) #name,
#include "platform/sim/sim_ops.def"
#undef SIM_OP
};
constexpr int k_num_ops = static_cast<int>(std::size(k_ops));

// The operations whose failure the start-up cannot go on from: the pools and
// the media system (_init_mem's "ASSERTION!!").
const std::set<std::string> k_abort_ops = {
    "HI_MPI_SYS_SetConf", "HI_MPI_SYS_Init", "HI_MPI_VB_SetConf", "HI_MPI_VB_Init", "HI_MPI_PCIV_Malloc", "msgget",
};

// The message driver's operations: the slave cannot reach the master, and
// its start-up goes on without the ports (the reachability check is retried
// without limit). It keeps running, and its console shows the step that
// failed.
const std::map<std::string, std::string> k_no_master_ops = {
    {"mcc_open", "open pci msg dev fail!"},
    {"HI_MCC_IOC_ATTR_INIT", "initialization for attr failed!"},
    {"HI_MCC_IOC_CHECK", "start check pci target id:0"},
    {"HI_MCC_IOC_CONNECT", "HI_MCC_IOC_CONNECT err, target:0, port:102"},
};

constexpr int k_shards = 6;
constexpr int k_per_round = 6;  // slaves on the board at once (chips 1..6)
constexpr const char* k_code = "a0028003";

struct outcome {
    std::string op;
    bool aborted = false;
    std::string fault;  // empty: one of the two allowed outcomes
};

std::string tail(const std::string& s, size_t n = 1500)
{
    return s.size() > n ? s.substr(s.size() - n) : s;
}

// One round: each op on a slave of its own, all at once.
std::vector<outcome> run_round(const std::vector<std::string>& ops)
{
    temp_board_dir board;
    board.share_cache();
    master_options mo;
    mo.board = board.path();
    master m(mo);
    std::vector<outcome> out(ops.size());
    if (m.open() != 0) {
        for (size_t i = 0; i < ops.size(); ++i)
            out[i] = {ops[i], false, "the master did not open: " + m.error()};
        return out;
    }
    for (size_t i = 0; i < ops.size(); ++i) {
        out[i].op = ops[i];
        slave_config c;
        c.binary = TARVO_SLAVE_BINARY;
        c.chip = static_cast<int>(i) + 1;
        c.cam_base = static_cast<int>(i);
        c.slave_cam = 1;
        c.num_vin = 1;
        c.fail_rules = ops[i] + "=" + k_code;
        if (m.start_slave(c) < 0)
            out[i].fault = "not started: " + m.error();
    }
    record_plan plan;
    for (size_t i = 0; i < ops.size(); ++i) {
        const int chip = static_cast<int>(i) + 1;
        if (!out[i].fault.empty() || k_no_master_ops.count(ops[i]))
            continue;
        auto console = [&] { return tail(read_file(board.path() + "/chip" + std::to_string(chip) + ".console")); };
        const bool up = m.wait_for(chip, [](const slave_info& s) { return s.announcements > 0 || s.exit_status >= 0; },
                                   milliseconds(30000));
        const slave_info s = *m.slave(chip);
        if (s.exit_status >= 0) {
            const std::string text = console();
            if (!WIFSIGNALED(s.exit_status) || WTERMSIG(s.exit_status) != SIGABRT)
                out[i].fault = "ended by " + describe_status(s.exit_status) + ", not an abort:\n" + text;
            else if (s.announcements > 0)
                out[i].fault = "aborted after announcing itself:\n" + text;
            else if (text.find("> ERROR!! ") == std::string::npos)
                out[i].fault = "aborted without a level-3 line:\n" + text;
            else
                out[i].aborted = true;
            continue;
        }
        if (!up) {
            out[i].fault = "neither announced itself nor ended:\n" + console();
            continue;
        }
        // Answers: every command of a recorder's set-up gets a reply (a
        // refusal is an answer), then the status while the streams run.
        if (!m.get_dma_info(chip, milliseconds(5000)))
            out[i].fault = "no reply to HSCC_CAL_GetDmaInfo";
        m.set_dma_info(chip, milliseconds(5000));
        slave_plan p{chip, chip - 1, 1, 1};
        for (const std::string& f : configure_recorder(m, p, plan, milliseconds(5000)))
            if (f.find("no reply") != std::string::npos)
                out[i].fault += f + "\n";
    }
    // Let the streams, the snapshots and motion run on the failing operation.
    std::this_thread::sleep_for(std::chrono::seconds(3));
    for (size_t i = 0; i < ops.size(); ++i) {
        const int chip = static_cast<int>(i) + 1;
        if (!out[i].fault.empty() || out[i].aborted)
            continue;
        if (auto it = k_no_master_ops.find(ops[i]); it != k_no_master_ops.end()) {
            const slave_info s = *m.slave(chip);
            const std::string text = read_file(board.path() + "/chip" + std::to_string(chip) + ".console");
            if (s.exit_status >= 0)
                out[i].fault = "ended: " + describe_status(s.exit_status) + "\n" + tail(text);
            else if (s.announcements > 0)
                out[i].fault = "announced itself without its message driver";
            else if (text.find(it->second) == std::string::npos)
                out[i].fault = "no \"" + it->second + "\" on its console:\n" + tail(text);
            continue;
        }
        if (!m.get_status(chip, milliseconds(5000)))
            out[i].fault += "no reply to HSCC_CAL_GetStatus while recording\n";
        const int st = m.slave(chip)->exit_status;
        if (st >= 0)
            out[i].fault += "ended while recording: " + describe_status(st) + "\n";
        if (!out[i].fault.empty())
            out[i].fault += tail(read_file(board.path() + "/chip" + std::to_string(chip) + ".console"));
    }
    m.close();
    return out;
}

class fault_sim_fail_e2e : public ::testing::TestWithParam<int> {};

TEST_P(fault_sim_fail_e2e, each_operation_failing_aborts_at_start_up_or_leaves_a_slave_that_answers)
{
    std::vector<std::string> mine;
    for (int k = GetParam(); k < k_num_ops; k += k_shards)
        mine.emplace_back(k_ops[k]);
    for (size_t at = 0; at < mine.size(); at += k_per_round) {
        std::vector<std::string> round(mine.begin() + static_cast<ptrdiff_t>(at),
                                       mine.begin() + static_cast<ptrdiff_t>(std::min(mine.size(), at + k_per_round)));
        for (const outcome& o : run_round(round)) {
            EXPECT_EQ(o.fault, "") << o.op << " failing on every call";
            EXPECT_EQ(o.aborted, k_abort_ops.count(o.op) > 0)
                << o.op << (o.aborted ? " stopped the slave at start-up" : " did not stop the slave at start-up");
        }
    }
}

INSTANTIATE_TEST_SUITE_P(shard, fault_sim_fail_e2e, ::testing::Range(0, k_shards));

TEST(fault_sim_fail_list, every_listed_operation_is_one_the_board_knows)
{
    auto known = [](const std::string& op) { return std::find(std::begin(k_ops), std::end(k_ops), op) != std::end(k_ops); };
    for (const std::string& op : k_abort_ops)
        EXPECT_TRUE(known(op)) << op;
    for (const auto& [op, trace] : k_no_master_ops)
        EXPECT_TRUE(known(op)) << op;
}

}  // namespace
