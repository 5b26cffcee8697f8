#include "cal/cal_time.h"

#include <sys/time.h>

#include <cstdlib>
#include <mutex>

#include "platform/os.h"

namespace {
std::mutex g_localtime_mutex;
}

struct tm* cal_localtime(struct tm* out, const time_t* t)
{
    std::lock_guard lock(g_localtime_mutex);
    *out = *localtime(t);
    return out;
}

double cal_get_msec()
{
    struct timeval tv;
    os_gettimeofday(&tv);
    return static_cast<double>(tv.tv_sec) * 1000.0 + static_cast<double>(tv.tv_usec / 1000);
}

void cal_set_tz_env(const char* tz)
{
    std::lock_guard lock(g_localtime_mutex);
    setenv("TZ", tz, 1);
    tzset();
}
