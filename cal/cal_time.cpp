#include "cal/cal_time.h"

#include <sys/time.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

#include "platform/os.h"

namespace {
std::mutex g_localtime_mutex;

// "TZ=" and the zone text: the one string the environment holds for TZ,
// rewritten in place for every new zone, so that no zone text, however
// many the master sends, stays behind in memory.
char g_tz_env[3 + CAL_TZ_MAX + 1] = "TZ=";

// A reader of zone texts: each step takes one part, or fails and leaves the
// text refused.
struct tz_reader {
    std::string_view s;

    bool at(char c) const { return !s.empty() && s.front() == c; }
    bool take(char c)
    {
        if (!at(c))
            return false;
        s.remove_prefix(1);
        return true;
    }
    // 1 .. max_digits digits with a value up to max.
    bool number(int max_digits, int max)
    {
        int v = 0, n = 0;
        while (n < max_digits && !s.empty() && std::isdigit(static_cast<unsigned char>(s.front()))) {
            v = v * 10 + (s.front() - '0');
            s.remove_prefix(1);
            ++n;
        }
        return n > 0 && v <= max;
    }
    // A zone abbreviation: three or more letters, or <...> of three or more
    // letters, digits, '+' and '-'.
    bool name()
    {
        auto is_quoted = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-'; };
        bool quoted = take('<');
        size_t n = 0;
        while (n < s.size() && (quoted ? is_quoted(s[n]) : std::isalpha(static_cast<unsigned char>(s[n])) != 0))
            ++n;
        if (n < 3)
            return false;
        s.remove_prefix(n);
        return !quoted || take('>');
    }
    // [+-]hh[:mm[:ss]], hours up to max_hours.
    bool clock(int max_hours)
    {
        if (!take('+'))
            take('-');
        if (!number(2, max_hours))
            return false;
        for (int k = 0; k < 2 && take(':'); ++k)
            if (!number(2, 59))
                return false;
        return true;
    }
    // Jn, n or Mm.w.d, then an optional /time.
    bool date()
    {
        bool ok;
        if (take('J'))
            ok = number(3, 365);
        else if (take('M'))
            ok = number(2, 12) && take('.') && number(1, 5) && take('.') && number(1, 6);
        else
            ok = number(3, 365);
        return ok && (!take('/') || clock(167));
    }
    // std offset [dst [offset] [,start[/time],end[/time]]]
    bool posix_rule()
    {
        if (!name() || !clock(24))
            return false;
        if (s.empty())
            return true;
        if (!name())
            return false;
        if (!s.empty() && !at(','))
            if (!clock(24))
                return false;
        if (s.empty())
            return true;
        return take(',') && date() && take(',') && date() && s.empty();
    }
};

// A zone name looked up under the system's zone directory: components of
// letters, digits and "_+-." joined by '/', starting with a letter; no
// "..", and no leading '/' or ':' that would name any other file.
bool zone_name(std::string_view s)
{
    if (s.empty() || !std::isalpha(static_cast<unsigned char>(s.front())) || s.back() == '/' ||
        s.find("..") != std::string_view::npos || s.find("//") != std::string_view::npos)
        return false;
    for (char c : s)
        if (!std::isalnum(static_cast<unsigned char>(c)) && std::strchr("_+-./", c) == nullptr)
            return false;
    return true;
}

}  // namespace

struct tm* cal_localtime(struct tm* out, const time_t* t)
{
    std::lock_guard lock(g_localtime_mutex);
    const struct tm* local = t != nullptr ? localtime(t) : nullptr;
    if (local != nullptr) {
        *out = *local;
    } else {
        // A time beyond what the broken-down year can hold: the caller gets
        // the epoch, a date every user of the record can print and file.
        *out = tm{};
        out->tm_mday = 1;
        out->tm_year = 70;
        out->tm_wday = 4;
    }
    return out;
}

double cal_get_msec()
{
    struct timeval tv;
    os_gettimeofday(&tv);
    return static_cast<double>(tv.tv_sec) * 1000.0 + static_cast<double>(tv.tv_usec / 1000);
}

bool cal_tz_acceptable(const char* tz)
{
    if (tz == nullptr)
        return false;
    std::string_view s(tz, strnlen(tz, CAL_TZ_MAX + 1));
    if (s.empty() || s.size() > CAL_TZ_MAX)
        return false;
    tz_reader posix{s};
    return posix.posix_rule() || zone_name(s);
}

int cal_set_tz_env(const char* tz)
{
    if (!cal_tz_acceptable(tz))
        return -1;
    std::lock_guard lock(g_localtime_mutex);
    std::strcpy(g_tz_env + 3, tz);
    // putenv keeps the buffer itself: the environment never gets a copy.
    putenv(g_tz_env);
    tzset();
    return 0;
}
