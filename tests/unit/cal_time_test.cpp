// Local-time conversion for every thread, and times it cannot convert.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <ctime>

#include "cal/cal_time.h"

namespace {

TEST(cal_localtime, a_time_whose_year_passes_an_int_gives_the_epoch_instead_of_a_fault)
{
    ASSERT_EQ(cal_set_tz_env("UTC0"), 0);
    struct tm out;
    const time_t ok = 86400 + 3661;
    ASSERT_EQ(cal_localtime(&out, &ok), &out);
    EXPECT_TRUE(out.tm_year == 70 && out.tm_mday == 2 && out.tm_hour == 1 && out.tm_min == 1 && out.tm_sec == 1);
    if constexpr (sizeof(time_t) == 8) {
        for (time_t bad : {static_cast<time_t>(INT64_MAX), static_cast<time_t>(INT64_MIN)}) {
            out.tm_year = 999;
            ASSERT_EQ(cal_localtime(&out, &bad), &out);
            EXPECT_TRUE(out.tm_year == 70 && out.tm_mon == 0 && out.tm_mday == 1 && out.tm_hour == 0) << bad;
        }
    }
}

}  // namespace
