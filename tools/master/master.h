// The master emulator: chip 0 of a simulated board, the slaves' client.
//
// It owns a board directory's chip 0 (memory file and listening socket),
// starts slave processes, accepts their port connections, gives each slave
// four DMA windows, sends commands and matches the replies, and answers the
// slaves' notifications after parsing what they wrote into the windows.
//
// All state lives in the object: several masters (on different boards) can
// run in one process, beside slave code under test. The object installs no
// signal handler; writes to a closed peer use MSG_NOSIGNAL.
//
// Threads: one event thread does all reading from the sockets (accepting,
// hellos, replies, notifications); callers' threads send commands and wait
// for their replies; an optional poller queries each slave's status.
//
// Sources: connections.cpp (board, sockets, event thread, processes),
// commands.cpp (port 102), notifications.cpp (ports 103 to 106 and their
// acknowledgements). Every descriptor is held by a unique_fd.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "master/board.h"
#include "master/fd.h"
#include "master/parse.h"
#include "master/process.h"
#include "master/stats.h"
#include "master/wire.h"

namespace tmaster {

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct master_options {
    std::string board;                       // absolute path of the board directory
    FILE* notes_to = nullptr;                // where notes are echoed as they happen
    bool keep_notifications = false;         // queue a copy of each for next_notification()
    size_t queue_limit = 4096;               // oldest queued copies are dropped beyond it
    milliseconds hello_timeout{2000};        // a connection must say hello within it
    milliseconds end_grace{2000};            // SIGTERM to SIGKILL
};

struct reply_t {
    msg_head_t head{};
    std::vector<uint8_t> payload;  // as received (head.len is what the slave wrote)
};

enum class note_kind { record, network, jpeg, motion, other };

// One notification from a slave, parsed.
struct notification {
    int chip = 0;
    int port = 0;
    note_kind kind = note_kind::other;
    msg_head_t head{};
    std::vector<uint8_t> payload;  // message payload as received
    std::vector<uint8_t> content;  // copy of the written window bytes (queued copies only)
    std::variant<std::monostate, record_batch, network_batch, jpeg_batch, motion_report> parsed;

    const findings* check() const;  // nullptr for a message that is no notification
    bool bad() const;
};

// Called on the event thread for every notification, before it is
// acknowledged; `written` is the window's live content the notification
// names. The callback must not block on the master's own commands.
using notification_fn = std::function<void(const notification& n, std::span<const uint8_t> written)>;

struct port_info {
    bool open = false;
    uint32_t connections = 0;  // hellos accepted for this port, reconnections included
    steady::time_point connected_at{};
};

// A snapshot of what the master knows of one slave.
struct slave_info {
    int chip = 0;

    bool started = false;  // by this master
    slave_config config;
    pid_t pid = -1;
    int exit_status = -1;  // wait status once ended; -1 while running

    std::array<port_info, NUM_PORTS> ports{};
    uint32_t handshakes = 0;

    // The first message the slave sent on port 102.
    bool first_seen = false;
    msg_head_t first_head{};
    steady::time_point first_at{};
    unsigned ports_open_at_first = 0;        // bit k: port 102 + k was open
    std::chrono::microseconds first_after_ports{0};  // after the latest of those connections
    uint32_t announcements = 0;
    steady::time_point announced_at{};

    std::array<uint32_t, NUM_WINDOWS> windows{};  // bus addresses of its windows
    bool windows_set = false;                    // HSCC_CAL_SetDmaInfo answered with 0
    bool have_dma_info = false;
    dma_info_t dma_info{};                       // its last HSCC_CAL_GetDmaInfo reply

    bool have_status = false;
    status_t status{};
    uint64_t status_polls = 0;
    uint64_t status_failures = 0;

    uint64_t acks_sent = 0;
    size_t acks_pending = 0;
    uint64_t stray_replies = 0;  // replies that matched no command
    slave_stats stats;

    bool all_ports_open() const;
};

class master {
public:
    explicit master(master_options opts);
    ~master();
    master(const master&) = delete;
    master& operator=(const master&) = delete;

    // Creates the board (directory, chip0.mem, chip0.sock) and starts the
    // event thread. Returns 0, or -1 with error().
    int open();
    // Ends the slaves it started (and removes their message queues), stops
    // its threads, closes every connection and removes chip0.sock.
    void close();
    // A master restart: closes the listening socket and every connection,
    // then listens again. Slaves, windows, statistics and pending
    // acknowledgements are kept; commands in flight fail.
    int restart();

    const std::string& error() const { return error_; }
    const board_files& board() const { return board_; }

    // Slave processes.
    pid_t start_slave(const slave_config& cfg);
    void end_slaves();

    // Waiting for a slave's state; false on time-out.
    bool wait_for(int chip, const std::function<bool(const slave_info&)>& pred, milliseconds timeout);
    bool wait_ports(int chip, milliseconds timeout);
    bool wait_announcement(int chip, milliseconds timeout);

    // Windows: bus address and raw bytes of window k of a slave.
    static uint32_t window_offset(int chip, int k);
    static uint32_t window_address(int chip, int k);
    std::span<uint8_t> window(int chip, int k) const;

    // Commands on port 102: a new id each, the reply matched by id and cmd.
    std::optional<reply_t> command(int chip, uint32_t cmd, std::span<const uint8_t> payload,
                                   milliseconds timeout);
    // HSCC_CAL_SetDmaInfo with the slave's four windows: the reply's result,
    // or -1 when none came. The reply is stored in *out when given.
    int set_dma_info(int chip, milliseconds timeout, reply_t* out = nullptr);
    std::optional<dma_info_t> get_dma_info(int chip, milliseconds timeout, reply_t* out = nullptr);
    std::optional<status_t> get_status(int chip, milliseconds timeout);

    // The calls a recorder makes to set up its streams. Each returns the
    // reply's result, or nullopt when no reply came.
    std::optional<int32_t> set_time(int chip, uint64_t usec, milliseconds timeout);
    std::optional<int32_t> set_vincaps(int chip, const vincaps_t& caps, milliseconds timeout);
    std::optional<int32_t> set_enc_video(int chip, const enc_video_t& v, milliseconds timeout);
    std::optional<int32_t> run_enc_video(int chip, const run_video_t& r, milliseconds timeout);
    std::optional<int32_t> update_enc_video(int chip, const update_video_t& u, milliseconds timeout);
    std::optional<int32_t> set_md(int chip, const set_md_t& md, milliseconds timeout);
    std::optional<int32_t> set_privacy(int chip, const set_privacy_t& p, milliseconds timeout);

    // Playback: writes bytes into the slave's window 3 and announces them on
    // port 107 as transfer cmd (0x70000 one record, 0x70001 two, the second
    // at `second`); returns the slave's answer, or nullopt when none came.
    // The slave holds its answer while its decoder is behind.
    std::optional<reply_t> play_transfer(int chip, uint32_t cmd, std::span<const uint8_t> bytes, uint32_t second,
                                         milliseconds timeout);

    // Sends bytes as one packet on a slave's port. 0, or -1.
    int send_raw(int chip, int port, std::span<const uint8_t> bytes);

    // Queries every connected slave's status once per period.
    void start_status_poll(milliseconds period = milliseconds(1000));
    void stop_status_poll();

    // Notifications.
    void on_notification(notification_fn fn);
    std::optional<notification> next_notification(milliseconds timeout);
    void hold_acks(bool hold);  // releasing the hold sends what waits
    int release_acks();         // sends every waiting acknowledgement; returns the count
    // Holds back (or lets go) the answers of one port only, on every slave;
    // the other ports are answered as before.
    void hold_acks_on(int port, bool hold);
    size_t pending_acks() const;

    std::optional<slave_info> slave(int chip) const;
    std::vector<int> chips() const;
    std::vector<std::string> notes() const;
    uint64_t note_count() const;

    void print_summary(FILE* out) const;

private:
    struct pending_conn {
        unique_fd fd;
        steady::time_point deadline;
    };
    struct pending_cmd {
        int chip;
        uint32_t cmd;
        bool done = false;
        bool lost = false;
        reply_t reply;
    };
    struct pending_ack {
        int chip;
        int port;
        msg_head_t head;
    };
    struct slave_rec {
        slave_info info;
        std::array<unique_fd, NUM_PORTS> fd;
        bool reaped = false;  // a started slave's process is waited for
    };
    struct ready_fd {
        int fd;
        int chip;  // 0 for a connection without hello
        int port;
    };

    void note(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void note_locked(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void add_note_locked(std::string text);

    slave_rec& rec_locked(int chip);
    int start_events();
    void stop_events();
    void close_connections_locked();
    void event_loop();
    void accept_all();
    void read_hello(int fd);
    void read_port(const ready_fd& r);
    void on_cal_message(int chip, const msg_head_t& head, std::span<const uint8_t> payload);
    void on_notification_message(int chip, int port, const msg_head_t& head, std::span<const uint8_t> payload);
    void on_play_reply(int chip, const msg_head_t& head, std::span<const uint8_t> payload);
    template <typename T>
    std::optional<int32_t> command_result(int chip, uint32_t cmd, const T& payload, milliseconds timeout);
    int send_locked(int chip, int port, std::span<const uint8_t> bytes);
    int flush_acks_locked();
    window_set windows_of(int chip) const;
    void poll_loop(milliseconds period);
    void check_processes_locked();

    master_options opts_;
    std::string error_;
    board_files board_;
    steady::time_point t0_;

    mutable std::mutex mu_;
    std::condition_variable cv_;
    bool open_ = false;
    unique_fd listen_fd_;
    unique_fd wake_fd_;
    std::vector<pending_conn> pending_;  // event thread only
    std::map<int, slave_rec> slaves_;
    std::map<uint32_t, pending_cmd> cmds_;
    uint32_t next_id_ = 1;
    std::deque<pending_ack> acks_;
    std::map<int, std::optional<reply_t>> play_replies_;  // per chip, while a transfer waits
    bool hold_ = false;
    std::set<int> held_ports_;
    std::deque<notification> queue_;
    std::deque<std::string> notes_;
    uint64_t note_count_ = 0;
    notification_fn callback_;

    std::thread events_;
    std::atomic<bool> stop_events_{false};
    std::thread poller_;
    bool stop_poll_ = false;
};

// The per-slave summary the demo prints at its end.
std::string format_summary(const slave_info& s);

const char* kind_name(stream_kind k);

}  // namespace tmaster
