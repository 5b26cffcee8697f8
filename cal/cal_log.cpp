#include "cal/cal_log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/os.h"

int cal_log(int level, const char* func, int line, const char* fmt, ...)
{
    char msg[256];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(msg, sizeof(msg), fmt, ap);
    va_end(ap);

    // The finished line must never be taken for a format.
    for (char* p = std::strchr(msg, '%'); p != nullptr; p = std::strchr(p + 1, '%'))
        *p = '#';

    // Room for any function name the process has and the longest message.
    char out[512];
    int n;
    if (level == 3)
        n = std::snprintf(out, sizeof(out), "%-16s(%04d)> ERROR!! %s", func, line, msg);
    else
        n = std::snprintf(out, sizeof(out), "%-16s(%04d)> %s", func, line, msg);
    size_t len = n < 0 ? 0 : std::min(static_cast<size_t>(n), sizeof(out) - 1);

    // The console gets the line as it is: the message brings its own line end.
    if (level != 7) {
        std::fwrite(out, 1, len, stdout);
        std::fflush(stdout);
    }
    os_syslog(level, out);
    return 0;
}

void cal_trace(const char* func, int line, const char* fmt, ...)
{
    char buf[2048];
    int n = std::snprintf(buf, sizeof(buf), "%-20s(%4d)> ", func, line);
    if (n < 0)
        return;
    va_list ap;
    va_start(ap, fmt);
    int m = vsnprintf(buf + n, sizeof(buf) - static_cast<size_t>(n), fmt, ap);
    va_end(ap);
    size_t len = static_cast<size_t>(n) + (m < 0 ? 0 : static_cast<size_t>(m));
    if (len > sizeof(buf) - 2)
        len = sizeof(buf) - 2;  // a longer message is cut; the line still ends
    if (buf[len - 1] != '\n')
        buf[len++] = '\n';
    // One write per line keeps lines from different threads whole.
    std::fwrite(buf, 1, len, stdout);
    std::fflush(stdout);
}
