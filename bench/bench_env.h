// What a benchmark run may be told from its environment.
#pragma once

#include <cstdlib>

// The length of a long-running benchmark in seconds: BENCH_SECONDS when set
// (for a quick look while developing), the benchmark's own length else.
inline int bench_seconds(int full)
{
    const char* v = std::getenv("BENCH_SECONDS");
    if (v == nullptr || *v == '\0')
        return full;
    const long n = std::strtol(v, nullptr, 10);
    return n > 0 && n < 86400 ? static_cast<int>(n) : full;
}
