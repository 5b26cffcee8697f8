// Notifications on ports 103 to 106: parsing them, handing them to the
// caller, and the acknowledgements that let a slave go on.
#include "master/master.h"

#include <type_traits>

#include "master/internal.h"

namespace tmaster {

const findings* notification::check() const
{
    return std::visit(
        [](const auto& v) -> const findings* {
            if constexpr (std::is_same_v<std::decay_t<decltype(v)>, std::monostate>)
                return nullptr;
            else
                return &v.check;
        },
        parsed);
}

bool notification::bad() const
{
    const findings* f = check();
    return f == nullptr || f->bad();
}

// ---- acknowledgements and notifications ------------------------------------

int master::flush_acks_locked()
{
    int sent = 0;
    for (auto it = acks_.begin(); it != acks_.end();) {
        if (held_ports_.count(it->port) != 0) {
            ++it;  // that port's answers are held back
            continue;
        }
        msg_head_t h = make_head(it->head.id, it->head.cmd, 0);
        if (send_locked(it->chip, it->port, std::span(reinterpret_cast<const uint8_t*>(&h), sizeof(h))) != 0) {
            ++it;  // not connected now: it goes when the port is back
            continue;
        }
        ++rec_locked(it->chip).info.acks_sent;
        it = acks_.erase(it);
        ++sent;
    }
    if (sent > 0)
        cv_.notify_all();
    return sent;
}

void master::hold_acks(bool hold)
{
    std::lock_guard lk(mu_);
    hold_ = hold;
    if (!hold_)
        flush_acks_locked();
}

void master::hold_acks_on(int port, bool hold)
{
    std::lock_guard lk(mu_);
    if (hold)
        held_ports_.insert(port);
    else
        held_ports_.erase(port);
    if (!hold_)
        flush_acks_locked();
}

int master::release_acks()
{
    std::lock_guard lk(mu_);
    return flush_acks_locked();
}

size_t master::pending_acks() const
{
    std::lock_guard lk(mu_);
    return acks_.size();
}

void master::on_notification(notification_fn fn)
{
    std::lock_guard lk(mu_);
    callback_ = std::move(fn);
}

// GCC 12 at -O2 takes the notification's variant, moved whole into the
// optional, for partly uninitialised (a false -Wmaybe-uninitialized that
// fails the release build); the move is of a fully built element.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
std::optional<notification> master::next_notification(milliseconds timeout)
{
    std::unique_lock lk(mu_);
    if (!cv_.wait_for(lk, timeout, [&] { return !queue_.empty(); }))
        return std::nullopt;
    notification n = std::move(queue_.front());
    queue_.pop_front();
    return n;
}
#pragma GCC diagnostic pop

void master::on_notification_message(int chip, int port, const msg_head_t& head,
                                     std::span<const uint8_t> payload)
{
    notification n;
    n.chip = chip;
    n.port = port;
    n.head = head;
    n.payload.assign(payload.begin(), payload.end());
    window_set ws = windows_of(chip);
    std::span<const uint8_t> written;
    if (head.cmd == NOTE_RECORD && port == PORT_ENCR) {
        n.kind = note_kind::record;
        record_batch b = parse_record(payload, ws);
        written = written_bytes(ws, b.note.window, b.note.bytes);
        n.parsed = std::move(b);
    } else if (head.cmd == NOTE_NETWORK && port == PORT_ENCN) {
        n.kind = note_kind::network;
        network_batch b = parse_network(payload, ws);
        written = written_bytes(ws, b.window, b.bytes);
        n.parsed = std::move(b);
    } else if (head.cmd == NOTE_JPEG && port == PORT_ENCJPG) {
        n.kind = note_kind::jpeg;
        jpeg_batch b = parse_jpeg(payload, ws);
        written = written_bytes(ws, b.window, b.bytes);
        n.parsed = std::move(b);
    } else if (head.cmd == NOTE_MOTION && port == PORT_VIN) {
        n.kind = note_kind::motion;
        n.parsed = parse_motion(payload);
    }

    notification_fn fn;
    {
        std::lock_guard lk(mu_);
        fn = callback_;
    }
    if (fn)
        fn(n, written);

    std::lock_guard lk(mu_);
    slave_rec& rec = rec_locked(chip);
    std::visit(
        [&](const auto& v) {
            if constexpr (std::is_same_v<std::decay_t<decltype(v)>, std::monostate>)
                ++rec.info.stats.other_bad;
            else
                account(rec.info.stats, v);
        },
        n.parsed);
    if (const findings* f = n.check(); f == nullptr) {
        note_locked("chip %d port %s: message %#x is no notification of this port; answered all the same",
                    chip, port_name(port), head.cmd);
    } else if (f->bad()) {
        note_locked("chip %d port %s: %s %s (%zu finding(s))", chip, port_name(port),
                    f->rejected ? "rejected:" : "bad:", f->problems.front().c_str(), f->problems.size());
    }
    if (opts_.keep_notifications) {
        n.content.assign(written.begin(), written.end());
        queue_.push_back(std::move(n));
        if (queue_.size() > opts_.queue_limit)
            queue_.pop_front();
    }
    acks_.push_back({chip, port, head});
    if (!hold_)
        flush_acks_locked();
    cv_.notify_all();
}


}  // namespace tmaster
