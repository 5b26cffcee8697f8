// Median and 99th percentile of a set of round trips, as counters of the
// benchmark and as one printed line: "<what> over <n> <unit>: median ..."
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
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
