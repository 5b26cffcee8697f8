// Median and 99th percentile of a set of round trips, as counters of the
// benchmark and as one printed line: "<what> over <n> <unit>: median ...";
// and the host's floor for any round trip between threads, which such
// figures are read against.
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

inline void report_rtt(benchmark::State& state, std::vector<double>& rtt_us, const char* what, const char* unit)
{
    if (rtt_us.empty())
        return;
    std::sort(rtt_us.begin(), rtt_us.end());
    double median = rtt_us[rtt_us.size() / 2];
    double p99 = rtt_us[rtt_us.size() * 99 / 100];
    state.counters["median_us"] = median;
    state.counters["p99_us"] = p99;
    std::printf("%s over %zu %s: median %.1f us, 99th percentile %.1f us\n", what, rtt_us.size(), unit, median,
                p99);
}

// The host's floor: a byte bounced between two threads over two pipes, two
// wake-ups per round trip.
inline void bm_host_wakeup_round_trip(benchmark::State& state)
{
    int there[2], back[2];
    if (pipe(there) != 0 || pipe(back) != 0) {
        state.SkipWithError("no pipes");
        return;
    }
    std::thread echo([&] {
        char c;
        while (read(there[0], &c, 1) == 1 && write(back[1], &c, 1) == 1) {
        }
    });
    std::vector<double> rtt_us;
    rtt_us.reserve(static_cast<size_t>(state.max_iterations));
    char c = 'x';
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        if (write(there[1], &c, 1) != 1 || read(back[0], &c, 1) != 1) {
            state.SkipWithError("pipe failed");
            break;
        }
        rtt_us.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
    }
    close(there[1]);  // ends the echo thread
    echo.join();
    for (int fd : {there[0], back[0], back[1]})
        close(fd);
    report_rtt(state, rtt_us, "host thread wake-up round trip", "bytes");
}
