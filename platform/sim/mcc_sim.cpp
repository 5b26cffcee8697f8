// The simulated message driver (see mcc_sim.h).
//
// Each bound descriptor has its own relay thread, so a port whose peer does
// not read stalls only itself. The relay polls the driver's end of the
// local pair, the board connection and a wake-up event; all its sends are
// non-blocking with a poll that the wake-up interrupts, so closing a
// descriptor never waits on the master.
#include "platform/sim/mcc_sim.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/mcc.h"
#include "platform/os.h"
#include "platform/sim/board.h"
#include "platform/sim/families.h"
#include "platform/sim/fault.h"

namespace {

constexpr int k_max_target = SIM_MCC_MAX_TARGET;
constexpr int k_handshake_port = 1000;
constexpr size_t k_relay_stack = 128 * 1024;

struct binding {
    int user_fd = -1;   // the process's end
    int drv_fd = -1;    // the driver's end
    int wake_fd = -1;   // eventfd that stops the relay
    bool bound = false;
    bool relay_running = false;
    pthread_t relay{};
    // Set before the relay starts, read-only afterwards.
    std::string sock_path;
    int chip = 0;
    int port = 0;
    int board_fd = -1;  // owned by the relay once it runs
    std::atomic<bool> connected{false};
};

std::mutex g_mutex;
std::vector<std::unique_ptr<binding>> g_bindings;
int g_bound = 0;

binding* find_binding(int fd)
{
    for (auto& b : g_bindings)
        if (b->user_fd == fd)
            return b.get();
    return nullptr;
}

int fail_errno(int code)
{
    errno = code;
    return -1;
}

bool make_addr(const std::string& path, sockaddr_un* addr)
{
    if (path.size() >= sizeof(addr->sun_path))
        return false;
    std::memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    std::memcpy(addr->sun_path, path.c_str(), path.size() + 1);
    return true;
}

std::string chip_sock_path(int target)
{
    return sim_board_path("chip" + std::to_string(target) + ".sock");
}

// True when the socket accepts a connection. The probe is closed at once,
// before any hello, which the master ignores.
bool reachable(const std::string& path)
{
    sockaddr_un addr;
    if (!make_addr(path, &addr))
        return false;
    int s = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (s < 0)
        return false;
    int r = connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    bool ok = r == 0 || errno == EAGAIN;  // EAGAIN: listening, backlog full
    close(s);
    return ok;
}

void put_u32(unsigned char* out, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<unsigned char>(v >> (8 * i));
}

// Opens a port connection: connect, then the hello (magic, own chip, port).
int connect_port(const binding& b)
{
    sockaddr_un addr;
    if (!make_addr(b.sock_path, &addr))
        return -1;
    int s = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (s < 0)
        return -1;
    // A master that stops accepting must not hold the relay for long.
    timeval tv{0, 200000};
    setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    unsigned char hello[12];
    put_u32(hello, SIM_MCC_HELLO_MAGIC);
    put_u32(hello + 4, static_cast<uint32_t>(b.chip));
    put_u32(hello + 8, static_cast<uint32_t>(b.port));
    if (connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        send(s, hello, sizeof(hello), MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof(hello))) {
        close(s);
        return -1;
    }
    return s;
}

enum class fwd { sent, gone, stop };

// Sends one packet whole, waiting for room; a wake-up abandons it.
fwd forward(int fd, const unsigned char* data, size_t len, int wake_fd)
{
    for (;;) {
        if (send(fd, data, len, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
            return fwd::sent;
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            return fwd::gone;
        pollfd p[2] = {{fd, POLLOUT, 0}, {wake_fd, POLLIN, 0}};
        if (poll(p, 2, -1) < 0 && errno != EINTR)
            return fwd::gone;
        if (p[1].revents != 0)
            return fwd::stop;
        if ((p[0].revents & (POLLHUP | POLLERR)) != 0)
            return fwd::gone;
    }
}

// Reads one packet. Returns its length, 0 for an empty packet or nothing
// to read, -1 when the peer has gone.
ssize_t take_packet(int fd, short revents, unsigned char* buf)
{
    ssize_t r = recv(fd, buf, SIM_MCC_MAX_PACKET, MSG_DONTWAIT);
    if (r > 0)
        return r;
    if (r < 0)
        return (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) ? 0 : -1;
    // A zero-length read is the end of the connection only with a hang-up.
    return (revents & (POLLHUP | POLLRDHUP)) != 0 ? -1 : 0;
}

void* relay_main(void* arg)
{
    binding* b = static_cast<binding*>(arg);
    std::array<unsigned char, SIM_MCC_MAX_PACKET> buf;
    int board = b->board_fd;
    // The master may close the handshake connection; that one is not
    // reopened, or the master would see a second handshake.
    bool retry = true;
    auto drop_board = [&] {
        close(board);
        board = -1;
        b->connected = false;
        retry = b->port != k_handshake_port;
    };
    bool running = true;
    while (running) {
        if (board < 0 && retry) {
            board = connect_port(*b);
            b->connected = board >= 0;
        }
        pollfd p[3] = {{b->wake_fd, POLLIN, 0}, {b->drv_fd, POLLIN | POLLRDHUP, 0}, {board, POLLIN | POLLRDHUP, 0}};
        if (poll(p, 3, board < 0 && retry ? SIM_MCC_RETRY_MS : -1) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if (p[0].revents != 0)
            break;
        if (p[1].revents != 0) {
            ssize_t n = take_packet(b->drv_fd, p[1].revents, buf.data());
            if (n < 0)
                break;  // the process closed its end
            // Without a connection the packet is lost, as on the bus.
            if (n > 0 && board >= 0) {
                fwd f = forward(board, buf.data(), static_cast<size_t>(n), b->wake_fd);
                if (f == fwd::stop)
                    break;
                if (f == fwd::gone) {
                    drop_board();
                    continue;
                }
            }
        }
        if (board >= 0 && p[2].revents != 0) {
            ssize_t n = take_packet(board, p[2].revents, buf.data());
            if (n < 0) {
                // The master closed the connection: reconnect, hello again.
                drop_board();
                continue;
            }
            if (n > 0 && forward(b->drv_fd, buf.data(), static_cast<size_t>(n), b->wake_fd) != fwd::sent)
                running = false;
        }
    }
    if (board >= 0)
        close(board);
    b->connected = false;
    return nullptr;
}

// Stops a binding's relay and closes the driver's side. Caller holds g_mutex.
void shut_binding(binding* b)
{
    if (b->relay_running) {
        uint64_t one = 1;
        ssize_t w = write(b->wake_fd, &one, sizeof(one));
        (void)w;
        pthread_join(b->relay, nullptr);
        b->relay_running = false;
    }
    if (b->bound)
        --g_bound;
    b->bound = false;
    for (int* fd : {&b->wake_fd, &b->drv_fd}) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
}

int do_connect(int fd, mcc_handle_attr* attr)
{
    binding* b;
    {
        std::lock_guard lock(g_mutex);
        b = find_binding(fd);
        if (b == nullptr || b->drv_fd < 0)
            return fail_errno(EBADF);
        if (b->bound)
            return fail_errno(EISCONN);
        if (attr->target_id < 0 || attr->target_id > k_max_target)
            return fail_errno(EINVAL);
        if (g_bound >= SIM_MCC_MAX_BOUND)
            return fail_errno(EMFILE);
        sockaddr_un addr;
        b->sock_path = chip_sock_path(attr->target_id);
        if (!make_addr(b->sock_path, &addr))
            return fail_errno(ENAMETOOLONG);
        b->chip = sim_chip_id();
        b->port = attr->port;
        b->bound = true;
        ++g_bound;
    }
    // Synchronous when the target is there; otherwise the relay keeps trying.
    b->board_fd = connect_port(*b);
    b->connected = b->board_fd >= 0;

    pthread_attr_t pa;
    pthread_attr_init(&pa);
    pthread_attr_setstacksize(&pa, k_relay_stack);
    int r = pthread_create(&b->relay, &pa, relay_main, b);
    pthread_attr_destroy(&pa);
    std::lock_guard lock(g_mutex);
    if (r != 0) {
        if (b->board_fd >= 0)
            close(b->board_fd);
        b->board_fd = -1;
        b->connected = false;
        b->bound = false;
        --g_bound;
        return fail_errno(r);
    }
    b->relay_running = true;
    return 0;
}

// A failed check waits before it answers: the caller retries at once, and
// the wait keeps it from spinning.
void check_pause()
{
    os_usleep(SIM_MCC_RETRY_MS * 1000);
}

}  // namespace

int sim_mcc_open(std::string*)
{
    return 0;
}

void sim_mcc_close()
{
    // Descriptors the process still holds stay in the table, dead: their
    // reads see the end of the connection, and mcc_close releases them.
    std::lock_guard lock(g_mutex);
    for (auto& b : g_bindings)
        shut_binding(b.get());
}

int sim_mcc_connected_count()
{
    std::lock_guard lock(g_mutex);
    int n = 0;
    for (auto& b : g_bindings)
        n += b->connected ? 1 : 0;
    return n;
}

int mcc_open(const char* path, int flags)
{
    if (int32_t code = sim_fail(SIM_OP_mcc_open))
        return fail_errno(code);
    if (path == nullptr || std::strcmp(path, MCC_DEV_NAME) != 0 || !sim_board_is_open())
        return fail_errno(ENOENT);
    if ((flags & O_ACCMODE) != O_RDWR)
        return fail_errno(EACCES);
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0)
        return -1;
    int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake < 0) {
        int e = errno;
        close(sv[0]);
        close(sv[1]);
        return fail_errno(e);
    }
    auto b = std::make_unique<binding>();
    b->user_fd = sv[0];
    b->drv_fd = sv[1];
    b->wake_fd = wake;
    std::lock_guard lock(g_mutex);
    g_bindings.push_back(std::move(b));
    return sv[0];
}

int mcc_ioctl(int fd, unsigned long request, mcc_handle_attr* attr)
{
    sim_op op;
    switch (request) {
    case HI_MCC_IOC_CONNECT: op = SIM_OP_HI_MCC_IOC_CONNECT; break;
    case HI_MCC_IOC_CHECK: op = SIM_OP_HI_MCC_IOC_CHECK; break;
    case HI_MCC_IOC_GET_LOCAL_ID: op = SIM_OP_HI_MCC_IOC_GET_LOCAL_ID; break;
    case HI_MCC_IOC_GET_REMOTE_ID: op = SIM_OP_HI_MCC_IOC_GET_REMOTE_ID; break;
    case HI_MCC_IOC_ATTR_INIT: op = SIM_OP_HI_MCC_IOC_ATTR_INIT; break;
    default: return fail_errno(ENOTTY);
    }
    if (int32_t code = sim_fail(op)) {
        // An injected failure costs what the real one costs.
        if (request == HI_MCC_IOC_CHECK)
            check_pause();
        return fail_errno(code);
    }
    if (attr == nullptr)
        return fail_errno(EFAULT);
    {
        std::lock_guard lock(g_mutex);
        binding* b = find_binding(fd);
        if (b == nullptr || b->drv_fd < 0)
            return fail_errno(EBADF);
    }

    switch (request) {
    case HI_MCC_IOC_CONNECT:
        return do_connect(fd, attr);
    case HI_MCC_IOC_CHECK:
        if (attr->target_id >= 0 && attr->target_id <= k_max_target && reachable(chip_sock_path(attr->target_id)))
            return 0;
        check_pause();
        return fail_errno(EHOSTUNREACH);
    case HI_MCC_IOC_GET_LOCAL_ID:
        return sim_chip_id();
    case HI_MCC_IOC_GET_REMOTE_ID: {
        int n = 0;
        for (int t = 0; t <= 14 && n < MCC_MAX_REMOTE_IDS - 1; ++t)
            if (t != sim_chip_id() && reachable(chip_sock_path(t)))
                attr->remote_id[n++] = t;
        for (int i = n; i < MCC_MAX_REMOTE_IDS; ++i)
            attr->remote_id[i] = -1;
        return 0;
    }
    default:  // HI_MCC_IOC_ATTR_INIT
        attr->target_id = 0;
        attr->port = 0;
        attr->priority = 0;
        for (int32_t& id : attr->remote_id)
            id = -1;
        return 0;
    }
}

int mcc_close(int fd)
{
    if (int32_t code = sim_fail(SIM_OP_mcc_close))
        return fail_errno(code);
    std::unique_ptr<binding> gone;
    {
        std::lock_guard lock(g_mutex);
        for (auto it = g_bindings.begin(); it != g_bindings.end(); ++it) {
            if ((*it)->user_fd == fd) {
                gone = std::move(*it);
                g_bindings.erase(it);
                shut_binding(gone.get());
                break;
            }
        }
    }
    if (!gone)
        return fail_errno(EBADF);
    return close(fd);
}
