// Operating-system services of the simulated board. Nothing here changes
// the host: the wall clock is an offset kept in chip<T>/clock, shell
// commands are only recorded, the system log and /etc/TZ are files of the
// chip, scheduling requests are recorded (and applied only when
// TARVO_SIM_SCHED=1 asks for it), and message queue keys are mapped to
// queues created for this board and chip alone.
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/os.h"
#include "platform/sim/board.h"
#include "platform/sim/families.h"
#include "platform/sim/fault.h"

namespace {

std::atomic<int64_t> g_clock_offset_us{0};
std::mutex g_clock_mutex;  // serialises clock file rewrites

int g_syslog_fd = -1;
int g_shell_fd = -1;
int g_sched_fd = -1;
bool g_sched_apply = false;

// A queue message hands over memory written before the send (a buffer
// whose pointer it carries). The kernel orders the send before the receipt,
// but the language's memory model, and the thread checker with it, cannot
// see through the system call: a release on the queue's word before each
// send and an acquire after each receipt state that order.
std::array<std::atomic<uint32_t>, 64> g_queue_handoff;

std::atomic<uint32_t>& queue_handoff(int msqid)
{
    return g_queue_handoff[static_cast<unsigned>(msqid) % g_queue_handoff.size()];
}

struct queue_map {
    key_t key;       // the system's key
    key_t host_key;  // the queue's key on the host
};
std::mutex g_queue_mutex;
std::vector<queue_map> g_queues;

int64_t host_now_us()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

int open_append(const std::string& path, std::string* err)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0)
        *err = "cannot open " + path + ": " + std::strerror(errno);
    return fd;
}

// One line per write, so that lines from several threads never mix.
void append_line(int fd, const char* text, size_t len)
{
    if (fd < 0)
        return;
    char stack[1024];
    std::string heap;
    char* buf = stack;
    if (len + 1 > sizeof(stack)) {
        heap.resize(len + 1);
        buf = heap.data();
    }
    std::memcpy(buf, text, len);
    buf[len] = '\n';
    ssize_t r = write(fd, buf, len + 1);
    (void)r;
}

// Replaces a file's content in one step (write a sibling, rename it).
int replace_file(const std::string& path, const std::string& content)
{
    std::string tmp = path + ".tmp";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return -1;
    bool ok = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    close(fd);
    if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
        unlink(tmp.c_str());
        return -1;
    }
    return 0;
}

void write_clock_file()
{
    char text[32];
    std::snprintf(text, sizeof(text), "%" PRId64 "\n", g_clock_offset_us.load());
    replace_file(sim_chip_path("clock"), text);
}

// The clock holds what the kernel's would: times from the epoch to the end
// of the year 9999, which keeps the offset arithmetic far from overflow.
constexpr int64_t k_clock_max_us = 253402300799 * int64_t{1000000} + 999999;  // 9999-12-31 23:59:59.999999

// The offset written in text (decimal microseconds), or false when it is
// none or would put the clock at a time the clock cannot hold.
bool offset_for(int64_t now_us, const char* text, int64_t* offset)
{
    errno = 0;
    char* end = nullptr;
    long long v = std::strtoll(text, &end, 10);
    while (end != text && (*end == '\n' || *end == ' '))
        ++end;
    if (end == text || *end != '\0' || errno == ERANGE || v < -now_us || v > k_clock_max_us - now_us)
        return false;
    *offset = v;
    return true;
}

// The offset the chip's clock had when the process last ran. A file that
// does not hold one the clock can keep is reported and the clock starts at
// the host's time.
void load_clock_file()
{
    g_clock_offset_us = 0;
    const std::string path = sim_chip_path("clock");
    FILE* f = std::fopen(path.c_str(), "r");
    if (f != nullptr) {
        char text[32] = {};
        size_t n = std::fread(text, 1, sizeof(text) - 1, f);
        bool longer = std::fgetc(f) != EOF;
        std::fclose(f);
        text[n] = '\0';
        int64_t offset = 0;
        if (n > 0 && (longer || !offset_for(host_now_us(), text, &offset)))
            std::fprintf(stderr, "sim: %s holds no clock offset the chip can keep; the clock starts at the host's "
                                 "time\n", path.c_str());
        g_clock_offset_us = offset;
    }
    write_clock_file();
}

void load_queue_map()
{
    g_queues.clear();
    FILE* f = std::fopen(sim_chip_path("msgq").c_str(), "r");
    if (f == nullptr)
        return;
    unsigned key, host;
    while (std::fscanf(f, "%x %x", &key, &host) == 2)
        g_queues.push_back({static_cast<key_t>(key), static_cast<key_t>(host)});
    std::fclose(f);
}

void save_queue_map()
{
    std::string text;
    char line[40];
    for (const queue_map& q : g_queues) {
        std::snprintf(line, sizeof(line), "%08x %08x\n", static_cast<unsigned>(q.key),
                      static_cast<unsigned>(q.host_key));
        text += line;
    }
    replace_file(sim_chip_path("msgq"), text);
}

// A host key whose queue this call created, so no other board has it.
key_t new_host_queue()
{
    for (;;) {
        uint32_t r = 0;
        if (getrandom(&r, sizeof(r), 0) != static_cast<ssize_t>(sizeof(r)))
            r = static_cast<uint32_t>(host_now_us()) ^ static_cast<uint32_t>(getpid());
        key_t k = static_cast<key_t>(0x10000000u | (r & 0x6fffffffu));
        if (msgget(k, IPC_CREAT | IPC_EXCL | 0600) >= 0)
            return k;
        if (errno != EEXIST)
            return -1;
    }
}

key_t host_key_for(key_t key)
{
    for (queue_map& q : g_queues) {
        if (q.key != key)
            continue;
        if (msgget(q.host_key, 0) >= 0)
            return q.host_key;
        // The queue is gone (the board's owner released it): make another.
        q.host_key = new_host_queue();
        save_queue_map();
        return q.host_key;
    }
    key_t host = new_host_queue();
    if (host != -1) {
        g_queues.push_back({key, host});
        save_queue_map();
    }
    return host;
}

const char* policy_name(int policy)
{
    switch (policy) {
    case SCHED_OTHER: return "SCHED_OTHER";
    case SCHED_RR: return "SCHED_RR";
    case SCHED_FIFO: return "SCHED_FIFO";
    default: return "SCHED_?";
    }
}

}  // namespace

int sim_os_open(std::string* err)
{
    if ((g_syslog_fd = open_append(sim_chip_path("var/log/message"), err)) < 0 ||
        (g_shell_fd = open_append(sim_chip_path("shell.log"), err)) < 0 ||
        (g_sched_fd = open_append(sim_chip_path("sched.log"), err)) < 0) {
        sim_os_close();
        return -1;
    }
    const char* apply = std::getenv("TARVO_SIM_SCHED");
    g_sched_apply = apply != nullptr && std::strcmp(apply, "1") == 0;
    load_clock_file();
    std::lock_guard lock(g_queue_mutex);
    load_queue_map();
    return 0;
}

void sim_os_close()
{
    for (int* fd : {&g_syslog_fd, &g_shell_fd, &g_sched_fd}) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
    std::lock_guard lock(g_queue_mutex);
    g_queues.clear();
}

int sim_board_release_queues(const char* dir)
{
    int removed = 0;
    for (int chip = 1; chip <= 14; ++chip) {
        std::string path = std::string(dir) + "/chip" + std::to_string(chip) + "/msgq";
        FILE* f = std::fopen(path.c_str(), "r");
        if (f == nullptr)
            continue;
        unsigned key, host;
        while (std::fscanf(f, "%x %x", &key, &host) == 2) {
            int id = msgget(static_cast<key_t>(host), 0);
            if (id >= 0 && msgctl(id, IPC_RMID, nullptr) == 0)
                ++removed;
        }
        std::fclose(f);
    }
    return removed;
}

time_t os_time(time_t* t)
{
    time_t now = static_cast<time_t>((host_now_us() + g_clock_offset_us.load()) / 1000000);
    if (t != nullptr)
        *t = now;
    return now;
}

int64_t os_monotonic_us()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

void os_usleep(uint32_t us)
{
    usleep(us);
}

int os_gettimeofday(struct timeval* tv)
{
    int64_t us = host_now_us() + g_clock_offset_us.load();
    tv->tv_sec = static_cast<time_t>(us / 1000000);
    tv->tv_usec = static_cast<suseconds_t>(us % 1000000);
    return 0;
}

int os_settimeofday(const struct timeval* tv)
{
    if (int32_t code = sim_fail(SIM_OP_settimeofday)) {
        errno = code;
        return -1;
    }
    // Like the kernel, refuse what the clock cannot hold.
    if (tv == nullptr || tv->tv_usec < 0 || tv->tv_usec >= 1000000 || tv->tv_sec < 0 ||
        static_cast<int64_t>(tv->tv_sec) > k_clock_max_us / 1000000) {
        errno = EINVAL;
        return -1;
    }
    std::lock_guard lock(g_clock_mutex);
    int64_t target = static_cast<int64_t>(tv->tv_sec) * 1000000 + tv->tv_usec;
    g_clock_offset_us = target - host_now_us();
    write_clock_file();
    return 0;
}

int os_system(const char* cmd)
{
    if (int32_t code = sim_fail(SIM_OP_system)) {
        errno = code;
        return -1;
    }
    if (cmd == nullptr)
        return 1;  // "a shell is available"
    append_line(g_shell_fd, cmd, std::strlen(cmd));
    return 0;
}

void os_openlog(const char*, int, int)
{
    // The board's log has one file per chip; the identity is not recorded.
}

void os_syslog(int priority, const char* line)
{
    char buf[600];
    int n = std::snprintf(buf, sizeof(buf), "%d ", priority & 7);
    size_t len = std::strlen(line);
    while (len > 0 && line[len - 1] == '\n')
        --len;
    size_t room = sizeof(buf) - static_cast<size_t>(n);
    if (len > room)
        len = room;
    std::memcpy(buf + n, line, len);
    // One message, one line: an inner line break would split it.
    for (size_t i = 0; i < len; ++i)
        if (buf[n + i] == '\n')
            buf[n + i] = ' ';
    append_line(g_syslog_fd, buf, static_cast<size_t>(n) + len);
}

int os_write_etc_tz(const char* tz)
{
    if (int32_t code = sim_fail(SIM_OP_write_etc_tz)) {
        errno = code;
        return -1;
    }
    std::string content = tz;
    content += '\n';
    return replace_file(sim_chip_path("etc/TZ"), content);
}

int os_sched_setscheduler(int policy, int priority)
{
    if (int32_t code = sim_fail(SIM_OP_sched_setscheduler)) {
        errno = code;
        return -1;
    }
    char line[80];
    int n = std::snprintf(line, sizeof(line), "%d %s %d", static_cast<int>(gettid()), policy_name(policy),
                          priority);
    append_line(g_sched_fd, line, static_cast<size_t>(n));
    if (!g_sched_apply)
        return 0;
    struct sched_param param{};
    param.sched_priority = priority;
    int r = pthread_setschedparam(pthread_self(), policy, &param);
    if (r != 0) {
        errno = r;
        return -1;
    }
    return 0;
}

int os_msgget(key_t key, int flags)
{
    if (int32_t code = sim_fail(SIM_OP_msgget)) {
        errno = code;
        return -1;
    }
    key_t host;
    {
        std::lock_guard lock(g_queue_mutex);
        host = host_key_for(key);
    }
    if (host == -1)
        return -1;
    return msgget(host, flags);
}

int os_msgsnd(int msqid, const void* msgp, size_t msgsz, int msgflg)
{
    if (int32_t code = sim_fail(SIM_OP_msgsnd)) {
        errno = code;
        return -1;
    }
    queue_handoff(msqid).fetch_add(1, std::memory_order_release);
    return msgsnd(msqid, msgp, msgsz, msgflg);
}

ssize_t os_msgrcv(int msqid, void* msgp, size_t msgsz, long msgtyp, int msgflg)
{
    if (int32_t code = sim_fail(SIM_OP_msgrcv)) {
        errno = code;
        return -1;
    }
    ssize_t r = msgrcv(msqid, msgp, msgsz, msgtyp, msgflg);
    if (r >= 0)
        (void)queue_handoff(msqid).load(std::memory_order_acquire);
    return r;
}
