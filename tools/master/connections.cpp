// The master's connections: the board, the listening socket and the event
// thread that accepts slaves' ports, takes their hellos and reads every
// message; the slave processes it starts; the views of what it knows.
#include "master/master.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "master/internal.h"

namespace tmaster {

namespace {

constexpr size_t NOTES_KEPT = 256;

std::string vformat(const char* fmt, va_list ap)
{
    char line[512];
    std::vsnprintf(line, sizeof(line), fmt, ap);
    return line;
}

// Reads one packet; returns its length (the packet's own, so a value above
// the buffer's size means it was cut), 0 at the peer's end, -1 when nothing
// is there, -2 on an error.
ssize_t read_packet(int fd, std::span<uint8_t> buf)
{
    iovec iov{buf.data(), buf.size()};
    msghdr mh{};
    mh.msg_iov = &iov;
    mh.msg_iovlen = 1;
    ssize_t n;
    do {
        n = recvmsg(fd, &mh, MSG_DONTWAIT | MSG_TRUNC);
    } while (n < 0 && errno == EINTR);
    if (n < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK ? -1 : -2;
    return n;
}

}  // namespace

bool slave_info::all_ports_open() const
{
    return std::all_of(ports.begin(), ports.end(), [](const port_info& p) { return p.open; });
}

master::master(master_options opts) : opts_(std::move(opts)) {}

master::~master()
{
    close();
}


// ---- notes -----------------------------------------------------------------

void master::add_note_locked(std::string text)
{
    double t = std::chrono::duration<double>(steady::now() - t0_).count();
    char stamp[32];
    std::snprintf(stamp, sizeof(stamp), "[+%.3f] ", t);
    text.insert(0, stamp);
    if (opts_.notes_to != nullptr) {
        std::fprintf(opts_.notes_to, "tarvo-master: %s\n", text.c_str());
        std::fflush(opts_.notes_to);
    }
    if (notes_.size() == NOTES_KEPT)
        notes_.pop_front();
    notes_.push_back(std::move(text));
    ++note_count_;
}

void master::note(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string text = vformat(fmt, ap);
    va_end(ap);
    std::lock_guard lk(mu_);
    add_note_locked(std::move(text));
}

void master::note_locked(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string text = vformat(fmt, ap);
    va_end(ap);
    add_note_locked(std::move(text));
}

std::vector<std::string> master::notes() const
{
    std::lock_guard lk(mu_);
    return {notes_.begin(), notes_.end()};
}

uint64_t master::note_count() const
{
    std::lock_guard lk(mu_);
    return note_count_;
}

// ---- lifecycle -------------------------------------------------------------

int master::open()
{
    if (open_)
        return 0;
    t0_ = steady::now();
    if (board_.open(opts_.board, &error_) != 0)
        return -1;
    unique_fd fd(board_.listen_socket(&error_));
    if (!fd) {
        board_.close();
        return -1;
    }
    wake_fd_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake_fd_) {
        error_ = std::string("eventfd: ") + std::strerror(errno);
        board_.close();
        return -1;
    }
    listen_fd_ = std::move(fd);
    open_ = true;
    note("board %s: chip0.sock listening, chip0.mem mapped", opts_.board.c_str());
    start_events();
    return 0;
}

void master::close()
{
    if (!open_)
        return;
    stop_status_poll();
    end_slaves();
    stop_events();
    {
        std::lock_guard lk(mu_);
        close_connections_locked();
        for (auto& [id, c] : cmds_)
            c.lost = true;
        cv_.notify_all();
    }
    pending_.clear();
    listen_fd_.reset();
    unlink(board_.path("chip0.sock").c_str());
    wake_fd_.reset();
    board_.close();
    open_ = false;
}

int master::restart()
{
    if (!open_) {
        error_ = "the master is not open";
        return -1;
    }
    stop_events();
    // The listening socket goes first, so that slaves reconnecting at once
    // find no master until it listens again.
    listen_fd_.reset();
    unlink(board_.path("chip0.sock").c_str());
    {
        std::lock_guard lk(mu_);
        close_connections_locked();
        for (auto& [id, c] : cmds_)
            c.lost = true;
        cv_.notify_all();
        add_note_locked("restart: listening socket and every connection closed");
    }
    pending_.clear();
    listen_fd_.reset(board_.listen_socket(&error_));
    if (!listen_fd_)
        return -1;
    note("restart: chip0.sock listening again");
    start_events();
    return 0;
}

int master::start_events()
{
    stop_events_ = false;
    events_ = std::thread(&master::event_loop, this);
    return 0;
}

void master::stop_events()
{
    if (!events_.joinable())
        return;
    stop_events_ = true;
    uint64_t one = 1;
    ssize_t n = write(wake_fd_.get(), &one, sizeof(one));
    (void)n;
    events_.join();
}

void master::close_connections_locked()
{
    for (auto& [chip, rec] : slaves_) {
        for (int k = 0; k < NUM_PORTS; ++k) {
            rec.fd[k].reset();
            rec.info.ports[k].open = false;
        }
    }
}

master::slave_rec& master::rec_locked(int chip)
{
    auto [it, inserted] = slaves_.try_emplace(chip);
    if (inserted) {
        it->second.info.chip = chip;
        for (int k = 0; k < NUM_WINDOWS; ++k)
            it->second.info.windows[k] = window_address(chip, k);
    }
    return it->second;
}

// ---- slave processes ---------------------------------------------------------

pid_t master::start_slave(const slave_config& cfg)
{
    if (!open_) {
        error_ = "the master is not open";
        return -1;
    }
    if (cfg.chip < 1 || cfg.chip > MAX_SLAVE_CHIP) {
        error_ = "slave chip ids are 1.." + std::to_string(MAX_SLAVE_CHIP);
        return -1;
    }
    {
        std::lock_guard lk(mu_);
        auto it = slaves_.find(cfg.chip);
        if (it != slaves_.end() && it->second.info.started && !it->second.reaped) {
            error_ = "chip " + std::to_string(cfg.chip) + " already runs a slave";
            return -1;
        }
    }
    pid_t pid = spawn_slave(cfg, board_.dir(), &error_);
    if (pid < 0) {
        note("chip %d: %s", cfg.chip, error_.c_str());
        return -1;
    }
    std::lock_guard lk(mu_);
    slave_info& s = rec_locked(cfg.chip).info;
    rec_locked(cfg.chip).reaped = false;
    s.started = true;
    s.config = cfg;
    s.pid = pid;
    s.exit_status = -1;
    note_locked("chip %d: started %s %s %d %d %d (pid %d), console chip%d.console", cfg.chip,
                cfg.binary.c_str(), cfg.role.c_str(), cfg.cam_base, cfg.slave_cam, cfg.num_vin,
                static_cast<int>(pid), cfg.chip);
    return pid;
}

void master::check_processes_locked()
{
    for (auto& [chip, rec] : slaves_) {
        slave_info& s = rec.info;
        if (!s.started || s.exit_status >= 0)
            continue;
        int st = peek_process(s.pid);
        if (st >= 0) {
            s.exit_status = st;
            note_locked("chip %d: slave pid %d %s", chip, static_cast<int>(s.pid), describe_status(st).c_str());
        }
    }
}

void master::end_slaves()
{
    std::vector<std::pair<int, pid_t>> running;
    {
        std::lock_guard lk(mu_);
        check_processes_locked();
        for (auto& [chip, rec] : slaves_) {
            if (rec.info.started && !rec.reaped)
                running.emplace_back(chip, rec.info.pid);
        }
    }
    for (auto [chip, pid] : running) {
        int st = end_process(pid, opts_.end_grace);
        int removed = release_chip_queues(board_.dir(), chip);
        std::lock_guard lk(mu_);
        slave_rec& rec = rec_locked(chip);
        rec.reaped = true;
        if (st >= 0)
            rec.info.exit_status = st;
        note_locked("chip %d: slave pid %d ended (%s); %d message queue(s) removed", chip,
                    static_cast<int>(pid), st >= 0 ? describe_status(st).c_str() : "not ours to wait for",
                    removed);
    }
}

// ---- waiting -----------------------------------------------------------------

bool master::wait_for(int chip, const std::function<bool(const slave_info&)>& pred, milliseconds timeout)
{
    // A slave that ends before it opens a port closes none, so its end is
    // looked for here too, every 100 ms of the wait.
    const auto deadline = steady::now() + timeout;
    std::unique_lock lk(mu_);
    auto met = [&] {
        auto it = slaves_.find(chip);
        return it != slaves_.end() && pred(it->second.info);
    };
    for (;;) {
        check_processes_locked();
        if (met())
            return true;
        const auto now = steady::now();
        if (now >= deadline)
            return false;
        if (cv_.wait_for(lk, std::min<steady::duration>(deadline - now, milliseconds(100)), met))
            return true;
    }
}

bool master::wait_ports(int chip, milliseconds timeout)
{
    return wait_for(chip, [](const slave_info& s) { return s.all_ports_open(); }, timeout);
}

bool master::wait_announcement(int chip, milliseconds timeout)
{
    return wait_for(chip, [](const slave_info& s) { return s.announcements > 0; }, timeout);
}

// ---- windows -----------------------------------------------------------------

uint32_t master::window_offset(int chip, int k)
{
    return static_cast<uint32_t>((chip - 1) * NUM_WINDOWS + k) * WINDOW_SIZE;
}

uint32_t master::window_address(int chip, int k)
{
    return bus_address(0, window_offset(chip, k));
}

std::span<uint8_t> master::window(int chip, int k) const
{
    std::span<uint8_t> mem = board_.memory();
    if (chip < 1 || chip > MAX_SLAVE_CHIP || k < 0 || k >= NUM_WINDOWS || mem.empty())
        return {};
    return mem.subspan(window_offset(chip, k), WINDOW_SIZE);
}

window_set master::windows_of(int chip) const
{
    window_set ws;
    for (int k = 0; k < NUM_WINDOWS; ++k)
        ws[k] = window(chip, k);
    return ws;
}

// ---- sending -----------------------------------------------------------------

int master::send_locked(int chip, int port, std::span<const uint8_t> bytes)
{
    auto it = slaves_.find(chip);
    if (it == slaves_.end() || !is_slave_port(port) || !it->second.fd[port_slot(port)]) {
        errno = ENOTCONN;
        return -1;
    }
    ssize_t n = send(it->second.fd[port_slot(port)].get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n != static_cast<ssize_t>(bytes.size())) {
        if (n >= 0)
            errno = EMSGSIZE;
        return -1;
    }
    return 0;
}

int master::send_raw(int chip, int port, std::span<const uint8_t> bytes)
{
    std::lock_guard lk(mu_);
    return send_locked(chip, port, bytes);
}

// ---- the event thread ----------------------------------------------------------

void master::event_loop()
{
    std::vector<pollfd> pfds;
    std::vector<ready_fd> meta;
    while (!stop_events_) {
        pfds.clear();
        meta.clear();
        pfds.push_back({wake_fd_.get(), POLLIN, 0});
        meta.push_back({wake_fd_.get(), -1, 0});
        pfds.push_back({listen_fd_.get(), POLLIN, 0});
        meta.push_back({listen_fd_.get(), -1, 0});
        {
            std::lock_guard lk(mu_);
            for (const auto& [chip, rec] : slaves_) {
                for (int k = 0; k < NUM_PORTS; ++k) {
                    if (rec.fd[k]) {
                        pfds.push_back({rec.fd[k].get(), POLLIN, 0});
                        meta.push_back({rec.fd[k].get(), chip, PORT_CAL + k});
                    }
                }
            }
        }
        int timeout_ms = -1;
        steady::time_point now = steady::now();
        for (const pending_conn& p : pending_) {
            pfds.push_back({p.fd.get(), POLLIN, 0});
            meta.push_back({p.fd.get(), 0, 0});
            auto left = std::chrono::ceil<milliseconds>(p.deadline - now).count();
            int ms = static_cast<int>(std::max<long long>(0, left));
            timeout_ms = timeout_ms < 0 ? ms : std::min(timeout_ms, ms);
        }

        int n = poll(pfds.data(), pfds.size(), timeout_ms);
        if (n < 0) {
            if (errno != EINTR) {
                note("poll failed: %s", std::strerror(errno));
                std::this_thread::sleep_for(milliseconds(10));
            }
            continue;
        }
        if (stop_events_)
            break;
        // Order matters. A slave connects a port and sends its hello before
        // it writes on another port, so every connection and hello made
        // before a message that poll reported must be taken first: accept,
        // then every waiting hello, then one message per readable port.
        // A hello taken here may replace (and close) a port of the snapshot;
        // read_port skips such a one.
        if (pfds[1].revents != 0)
            accept_all();
        std::vector<int> waiting;
        for (const pending_conn& p : pending_)
            waiting.push_back(p.fd.get());
        for (int fd : waiting)
            read_hello(fd);
        for (size_t i = 2; i < pfds.size(); ++i) {
            if (pfds[i].revents != 0 && meta[i].chip > 0)
                read_port(meta[i]);
        }
        now = steady::now();
        for (auto it = pending_.begin(); it != pending_.end();) {
            if (it->deadline > now) {
                ++it;
                continue;
            }
            note("a connection said no hello within %lld ms; dropped",
                 static_cast<long long>(opts_.hello_timeout.count()));
            it = pending_.erase(it);
        }
        if (pfds[0].revents != 0) {
            uint64_t v;
            ssize_t r = read(wake_fd_.get(), &v, sizeof(v));
            (void)r;
        }
        std::lock_guard lk(mu_);
        cv_.notify_all();
    }
}

void master::accept_all()
{
    for (;;) {
        int fd = accept4(listen_fd_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                note("accept failed: %s", std::strerror(errno));
            return;
        }
        pending_.push_back({unique_fd(fd), steady::now() + opts_.hello_timeout});
    }
}

void master::read_hello(int fd)
{
    auto it = std::find_if(pending_.begin(), pending_.end(), [fd](const pending_conn& p) { return p.fd.get() == fd; });
    if (it == pending_.end())
        return;
    std::array<uint8_t, 64> buf{};
    ssize_t n = read_packet(fd, buf);
    if (n == -1)
        return;  // nothing yet
    unique_fd conn = std::move(it->fd);  // closed on every refusal below
    pending_.erase(it);
    if (n <= 0) {
        note("a connection closed before its hello; dropped");
        return;
    }
    if (n != static_cast<ssize_t>(sizeof(hello_t))) {
        note("bad hello of %zd bytes (12 expected); connection dropped", n);
        return;
    }
    hello_t h = load_at<hello_t>(buf, 0);
    if (h.magic != HELLO_MAGIC) {
        note("bad hello: magic %08x; connection dropped", h.magic);
        return;
    }
    if (h.chip < 1 || h.chip > MAX_SLAVE_CHIP) {
        note("bad hello: chip %u is no slave chip; connection dropped", h.chip);
        return;
    }
    int chip = static_cast<int>(h.chip);
    if (h.port == PORT_HANDSHAKE) {
        // The slave's reachability handshake: answered by closing it.
        std::lock_guard lk(mu_);
        ++rec_locked(chip).info.handshakes;
        note_locked("chip %d: handshake on port 1000, closed", chip);
        return;
    }
    if (h.port > static_cast<uint32_t>(PORT_DEC) || !is_slave_port(static_cast<int>(h.port))) {
        note("bad hello: chip %d port %u is no port of a slave; connection dropped", chip, h.port);
        return;
    }
    int port = static_cast<int>(h.port);
    std::lock_guard lk(mu_);
    slave_rec& rec = rec_locked(chip);
    unique_fd& slot = rec.fd[port_slot(port)];
    port_info& pi = rec.info.ports[port_slot(port)];
    if (slot) {
        note_locked("chip %d port %s: a new connection replaces the old one", chip, port_name(port));
    } else {
        note_locked("chip %d port %s connected", chip, port_name(port));
    }
    slot = std::move(conn);  // a replaced connection closes here
    pi.open = true;
    ++pi.connections;
    pi.connected_at = steady::now();
    if (!hold_)
        flush_acks_locked();
}

void master::read_port(const ready_fd& r)
{
    {
        // Replaced by a new connection in this round: the descriptor is gone.
        std::lock_guard lk(mu_);
        auto it = slaves_.find(r.chip);
        if (it == slaves_.end() || it->second.fd[port_slot(r.port)].get() != r.fd)
            return;
    }
    std::array<uint8_t, PACKET_MAX> buf;
    ssize_t n = read_packet(r.fd, buf);
    if (n == -1)
        return;
    if (n <= 0) {
        std::lock_guard lk(mu_);
        slave_rec& rec = rec_locked(r.chip);
        int slot = port_slot(r.port);
        if (rec.fd[slot].get() == r.fd) {
            rec.fd[slot].reset();
            rec.info.ports[slot].open = false;
        }
        note_locked("chip %d port %s closed by the slave", r.chip, port_name(r.port));
        check_processes_locked();
        return;
    }
    size_t len = static_cast<size_t>(n);
    if (len > buf.size()) {
        note("chip %d port %d: a packet of %zu bytes, cut to %zu", r.chip, r.port, len, buf.size());
        len = buf.size();
    }
    if (len < MSG_HEAD_SIZE) {
        note("chip %d port %d: a %zu-byte message, shorter than a header; ignored", r.chip, r.port, len);
        return;
    }
    std::span<const uint8_t> pkt(buf.data(), len);
    msg_head_t head = load_at<msg_head_t>(pkt, 0);
    std::span<const uint8_t> payload = pkt.subspan(MSG_HEAD_SIZE);
    if (head.len != payload.size())
        note("chip %d port %d: message %#x says len %u but carries %zu payload bytes", r.chip, r.port,
             head.cmd, head.len, payload.size());
    switch (r.port) {
    case PORT_CAL:
        on_cal_message(r.chip, head, payload);
        break;
    case PORT_ENCR:
    case PORT_ENCN:
    case PORT_VIN:
    case PORT_ENCJPG:
        on_notification_message(r.chip, r.port, head, payload);
        break;
    case PORT_DEC:
        on_play_reply(r.chip, head, payload);
        break;
    default:
        note("chip %d port %d: unexpected message %#x id %u; no playback transfer was asked for", r.chip,
             r.port, head.cmd, head.id);
        break;
    }
}


// ---- views -----------------------------------------------------------------------

std::optional<slave_info> master::slave(int chip) const
{
    std::lock_guard lk(mu_);
    auto it = slaves_.find(chip);
    if (it == slaves_.end())
        return std::nullopt;
    slave_info s = it->second.info;
    s.acks_pending = static_cast<size_t>(
        std::count_if(acks_.begin(), acks_.end(), [chip](const pending_ack& a) { return a.chip == chip; }));
    return s;
}

std::vector<int> master::chips() const
{
    std::lock_guard lk(mu_);
    std::vector<int> v;
    for (const auto& [chip, rec] : slaves_)
        v.push_back(chip);
    return v;
}

void master::print_summary(FILE* out) const
{
    for (int chip : chips()) {
        if (std::optional<slave_info> s = slave(chip))
            std::fputs(format_summary(*s).c_str(), out);
    }
    std::fflush(out);
}


}  // namespace tmaster
