// Commands on port 102: sending one and matching its reply, the calls a
// recorder makes, and the periodic status query.
#include "master/master.h"

#include <cerrno>
#include <cstring>
#include <type_traits>

#include "master/internal.h"

namespace tmaster {

std::optional<reply_t> master::command(int chip, uint32_t cmd, std::span<const uint8_t> payload,
                                       milliseconds timeout)
{
    if (payload.size() > PACKET_MAX - MSG_HEAD_SIZE) {
        note("chip %d: command %#x with %zu payload bytes is too long to send", chip, cmd, payload.size());
        return std::nullopt;
    }
    std::vector<uint8_t> pkt(MSG_HEAD_SIZE + payload.size());
    std::unique_lock lk(mu_);
    uint32_t id = next_id_++;
    msg_head_t head = make_head(id, cmd, static_cast<uint32_t>(payload.size()));
    std::memcpy(pkt.data(), &head, sizeof(head));
    if (!payload.empty())
        std::memcpy(pkt.data() + MSG_HEAD_SIZE, payload.data(), payload.size());

    pending_cmd pending{};
    pending.chip = chip;
    pending.cmd = cmd;
    auto it = cmds_.try_emplace(id, std::move(pending)).first;
    if (send_locked(chip, PORT_CAL, pkt) != 0) {
        int e = errno;
        cmds_.erase(it);
        note_locked("chip %d: command %#x id %u not sent: %s", chip, cmd, id,
                    e == ENOTCONN ? "port 102 is not connected" : std::strerror(e));
        return std::nullopt;
    }
    cv_.wait_for(lk, timeout, [&] { return it->second.done || it->second.lost; });
    pending_cmd pc = std::move(it->second);
    cmds_.erase(it);
    if (!pc.done) {
        if (pc.lost)
            note_locked("chip %d: command %#x id %u lost: connections closed", chip, cmd, id);
        else
            note_locked("chip %d: command %#x id %u: no reply within %lld ms", chip, cmd, id,
                        static_cast<long long>(timeout.count()));
        return std::nullopt;
    }
    return std::move(pc.reply);
}

int master::set_dma_info(int chip, milliseconds timeout, reply_t* out)
{
    dma_info_t info{};
    for (int k = 0; k < NUM_WINDOWS; ++k)
        info.addr[k] = window_address(chip, k);
    std::optional<reply_t> r = command(
        chip, CMD_SET_DMA_INFO, std::span(reinterpret_cast<const uint8_t*>(&info), sizeof(info)), timeout);
    if (!r)
        return -1;
    if (out != nullptr)
        *out = *r;
    std::lock_guard lk(mu_);
    if (r->head.result == 0)
        rec_locked(chip).info.windows_set = true;
    return r->head.result;
}

std::optional<dma_info_t> master::get_dma_info(int chip, milliseconds timeout, reply_t* out)
{
    std::optional<reply_t> r = command(chip, CMD_GET_DMA_INFO, {}, timeout);
    if (!r)
        return std::nullopt;
    if (out != nullptr)
        *out = *r;
    std::lock_guard lk(mu_);
    if (r->payload.size() < sizeof(dma_info_t)) {
        note_locked("chip %d: HSCC_CAL_GetDmaInfo reply of %zu payload bytes; 20 expected", chip,
                    r->payload.size());
        return std::nullopt;
    }
    dma_info_t info = load_at<dma_info_t>(r->payload, 0);
    slave_info& s = rec_locked(chip).info;
    s.have_dma_info = true;
    s.dma_info = info;
    return info;
}

template <typename T>
std::optional<int32_t> master::command_result(int chip, uint32_t cmd, const T& payload, milliseconds timeout)
{
    static_assert(std::is_trivially_copyable_v<T>);
    std::optional<reply_t> r =
        command(chip, cmd, std::span(reinterpret_cast<const uint8_t*>(&payload), sizeof(T)), timeout);
    if (!r)
        return std::nullopt;
    return r->head.result;
}

std::optional<int32_t> master::set_time(int chip, uint64_t usec, milliseconds timeout)
{
    return command_result(chip, CMD_SET_TIME, set_time_t{usec}, timeout);
}

std::optional<int32_t> master::set_vincaps(int chip, const vincaps_t& caps, milliseconds timeout)
{
    return command_result(chip, CMD_SET_VINCAPS, caps, timeout);
}

std::optional<int32_t> master::set_md(int chip, const set_md_t& md, milliseconds timeout)
{
    return command_result(chip, CMD_SET_MD, md, timeout);
}

std::optional<int32_t> master::set_privacy(int chip, const set_privacy_t& p, milliseconds timeout)
{
    return command_result(chip, CMD_SET_PRIVACY, p, timeout);
}

std::optional<int32_t> master::set_enc_video(int chip, const enc_video_t& v, milliseconds timeout)
{
    return command_result(chip, CMD_SET_ENC_VIDEO, v, timeout);
}

std::optional<int32_t> master::run_enc_video(int chip, const run_video_t& r, milliseconds timeout)
{
    return command_result(chip, CMD_RUN_ENC_VIDEO, r, timeout);
}

std::optional<int32_t> master::update_enc_video(int chip, const update_video_t& u, milliseconds timeout)
{
    return command_result(chip, CMD_UPDATE_ENC_VIDEO, u, timeout);
}

std::optional<status_t> master::get_status(int chip, milliseconds timeout)
{
    // A zeroed request: a 4-camera slave leaves part of it in its reply.
    std::array<uint8_t, sizeof(status_t)> req{};
    std::optional<reply_t> r = command(chip, CMD_GET_STATUS, req, timeout);
    std::lock_guard lk(mu_);
    slave_info& s = rec_locked(chip).info;
    if (!r || r->payload.size() < sizeof(status_t)) {
        ++s.status_failures;
        if (r)
            note_locked("chip %d: HSCC_CAL_GetStatus reply of %zu payload bytes; 56 expected", chip,
                        r->payload.size());
        return std::nullopt;
    }
    ++s.status_polls;
    s.have_status = true;
    s.status = load_at<status_t>(r->payload, 0);
    return s.status;
}

void master::on_cal_message(int chip, const msg_head_t& head, std::span<const uint8_t> payload)
{
    std::lock_guard lk(mu_);
    slave_rec& rec = rec_locked(chip);
    slave_info& s = rec.info;
    steady::time_point now = steady::now();
    if (!s.first_seen) {
        s.first_seen = true;
        s.first_head = head;
        s.first_at = now;
        steady::time_point latest{};
        for (int k = 0; k < NUM_PORTS; ++k) {
            if (s.ports[k].open) {
                s.ports_open_at_first |= 1u << k;
                latest = std::max(latest, s.ports[k].connected_at);
            }
        }
        s.first_after_ports = std::chrono::duration_cast<std::chrono::microseconds>(now - latest);
    }
    if (head.cmd == CMD_ANNOUNCE) {
        ++s.announcements;
        s.announced_at = now;
        note_locked("chip %d: announcement %#x (id %u, len %zu, result %d)", chip, head.cmd, head.id,
                    payload.size(), head.result);
        return;
    }
    auto it = cmds_.find(head.id);
    if (it == cmds_.end() || it->second.chip != chip || it->second.done) {
        ++s.stray_replies;
        note_locked("chip %d: reply id %u cmd %#x matches no command in flight; ignored", chip, head.id,
                    head.cmd);
        return;
    }
    if (it->second.cmd != head.cmd) {
        ++s.stray_replies;
        note_locked("chip %d: reply id %u carries cmd %#x, the command was %#x; ignored", chip, head.id,
                    head.cmd, it->second.cmd);
        return;
    }
    it->second.reply.head = head;
    it->second.reply.payload.assign(payload.begin(), payload.end());
    it->second.done = true;
    cv_.notify_all();
}


// ---- status polling ------------------------------------------------------------

void master::start_status_poll(milliseconds period)
{
    if (poller_.joinable())
        return;
    {
        std::lock_guard lk(mu_);
        stop_poll_ = false;
    }
    poller_ = std::thread(&master::poll_loop, this, period);
}

void master::stop_status_poll()
{
    if (!poller_.joinable())
        return;
    {
        std::lock_guard lk(mu_);
        stop_poll_ = true;
        cv_.notify_all();
    }
    poller_.join();
}

void master::poll_loop(milliseconds period)
{
    std::unique_lock lk(mu_);
    while (!stop_poll_) {
        steady::time_point next = steady::now() + period;
        check_processes_locked();
        std::vector<int> chips;
        for (const auto& [chip, rec] : slaves_) {
            if (rec.fd[port_slot(PORT_CAL)])
                chips.push_back(chip);
        }
        lk.unlock();
        for (int chip : chips)
            get_status(chip, std::min(period, milliseconds(1000)));
        lk.lock();
        cv_.wait_until(lk, next, [&] { return stop_poll_; });
    }
}


}  // namespace tmaster
