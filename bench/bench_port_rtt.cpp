// Round trip of one message on a port: the slave writes it, waits for the
// port and reads the answer of a master that echoes it. The master is in the
// same process on the same simulated board, so the figure is the message
// driver's own cost (both directions of the relay, four socket hops).
// Beside it, the host's own floor: a byte bounced between two threads over
// two pipes, two wake-ups per round trip. The port figures read against it.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/rtt_report.h"
#include "msg/cal_hsc.h"
#include "platform/sim/board.h"
#include "tests/support/fake_master.h"

namespace {

constexpr int k_round_trips = 10000;

void BM_port_round_trip(benchmark::State& state)
{
    char dir[] = "/tmp/tarvo-bench-XXXXXX";
    std::string err;
    if (mkdtemp(dir) == nullptr || sim_board_open(dir, 1, "", &err) != 0) {
        state.SkipWithError("cannot open a board");
        return;
    }
    std::vector<double> rtt_us;
    rtt_us.reserve(k_round_trips);
    {
        fake_master master(dir);
        master.echo(MSGPORT_CAL);
        // The traces of opening the port are not part of the figure.
        std::fflush(stdout);
        pciv_open_msg(0, MSGPORT_CAL);

        hsc_msg_t msg{};
        msg.cmd = 0x20003;
        for (auto _ : state) {
            auto t0 = std::chrono::steady_clock::now();
            pciv_write_msg(0, MSGPORT_CAL, &msg);
            pciv_wait_msg(0, MSGPORT_CAL, -1);
            pciv_read_msg(0, MSGPORT_CAL, &msg);
            auto t1 = std::chrono::steady_clock::now();
            rtt_us.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
            ++msg.id;
        }
        pciv_close_msg(0, MSGPORT_CAL);
    }
    sim_board_close();
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);

    report_rtt(state, rtt_us, "port round trip", "messages");
}
BENCHMARK(BM_port_round_trip)->Iterations(k_round_trips)->Unit(benchmark::kMicrosecond);

BENCHMARK(bm_host_wakeup_round_trip)->Iterations(k_round_trips)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
