// Round trip of HSCC_CAL_GetStatus: the master emulator sends the command to
// a real slave process on a temporary board and waits for its reply. The
// figure covers both message drivers, the slave's command loop (one read,
// eight capture queries, the clock and the media time stamp, one write) and
// the master's reply matching. Beside it, the host's thread wake-up floor.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <vector>

#include "bench/rtt_report.h"
#include "master/master.h"

namespace {

constexpr int k_queries = 10000;

void BM_status_round_trip(benchmark::State& state)
{
    char dir[] = "/tmp/tarvo-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        state.SkipWithError("cannot make a board directory");
        return;
    }
    std::vector<double> rtt_us;
    rtt_us.reserve(k_queries);
    {
        tmaster::master_options o;
        o.board = dir;
        tmaster::master m(o);
        tmaster::slave_config c;
        c.binary = TARVO_SLAVE_BINARY;
        c.chip = 1;
        if (m.open() != 0 || m.start_slave(c) <= 0 || !m.wait_announcement(1, std::chrono::seconds(30))) {
            state.SkipWithError("the slave did not come up");
            return;
        }
        for (auto _ : state) {
            auto t0 = std::chrono::steady_clock::now();
            auto s = m.get_status(1, std::chrono::seconds(5));
            auto t1 = std::chrono::steady_clock::now();
            if (!s) {
                state.SkipWithError("a status query got no reply");
                break;
            }
            rtt_us.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
        }
        m.close();
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    report_rtt(state, rtt_us, "P4 HSCC_CAL_GetStatus round trip", "queries");
}
BENCHMARK(BM_status_round_trip)->Iterations(k_queries)->Unit(benchmark::kMicrosecond);

// The host's floor in the same run: a status round trip takes at least two
// wake-ups (the slave's command thread, the master's event thread) and one
// more hand-off to the waiting caller.
BENCHMARK(bm_host_wakeup_round_trip)->Iterations(k_queries)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
