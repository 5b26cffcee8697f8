// Helpers of the master emulator's tests: a temporary board directory, a
// fake slave speaking the port protocol over raw sockets, and builders that
// write crafted window contents.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "master/wire.h"

namespace mtest {

using namespace tmaster;
using std::chrono::milliseconds;

// A fresh directory under $TMPDIR (or /tmp), removed with its content.
class temp_dir {
public:
    temp_dir()
    {
        const char* base = std::getenv("TMPDIR");
        std::string tmpl = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tmaster-XXXXXX";
        if (mkdtemp(tmpl.data()) != nullptr)
            path_ = tmpl;
    }
    ~temp_dir()
    {
        std::error_code ec;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ec);
    }
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
};

inline std::vector<uint8_t> make_msg(uint32_t id, uint32_t cmd, std::span<const uint8_t> payload)
{
    msg_head_t h{id, cmd, static_cast<uint32_t>(payload.size()), 0};
    std::vector<uint8_t> m(sizeof(h) + payload.size());
    std::memcpy(m.data(), &h, sizeof(h));
    if (!payload.empty())
        std::memcpy(m.data() + sizeof(h), payload.data(), payload.size());
    return m;
}

template <typename T>
std::span<const uint8_t> bytes_of(const T& v)
{
    return {reinterpret_cast<const uint8_t*>(&v), sizeof(T)};
}

inline msg_head_t head_of(const std::vector<uint8_t>& m)
{
    return load_prefix<msg_head_t>(m);
}

// One connection of a fake slave to chip 0.
class fake_port {
public:
    fake_port() = default;
    ~fake_port() { close(); }
    fake_port(const fake_port&) = delete;
    fake_port& operator=(const fake_port&) = delete;

    // Connects to <board>/chip0.sock; sends `hello` as the first packet
    // unless it is empty.
    bool connect(const std::string& board, std::span<const uint8_t> hello)
    {
        close();
        fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::string p = board + "/chip0.sock";
        std::memcpy(a.sun_path, p.c_str(), p.size() + 1);
        if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
            close();
            return false;
        }
        return hello.empty() || send(hello);
    }

    bool connect(const std::string& board, uint32_t chip, uint32_t port)
    {
        hello_t h{HELLO_MAGIC, chip, port};
        return connect(board, bytes_of(h));
    }

    bool send(std::span<const uint8_t> b) const
    {
        return fd_ >= 0 && ::send(fd_, b.data(), b.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(b.size());
    }

    bool send_msg(uint32_t id, uint32_t cmd, std::span<const uint8_t> payload) const
    {
        return send(make_msg(id, cmd, payload));
    }

    // One packet, or nullopt on time-out; an empty vector at the peer's end.
    std::optional<std::vector<uint8_t>> recv(milliseconds timeout) const
    {
        pollfd p{fd_, POLLIN, 0};
        if (fd_ < 0 || poll(&p, 1, static_cast<int>(timeout.count())) <= 0)
            return std::nullopt;
        std::vector<uint8_t> buf(PACKET_MAX);
        ssize_t n = ::recv(fd_, buf.data(), buf.size(), 0);
        buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return buf;
    }

    // True when the master closed the connection within the time-out.
    bool closed_by_peer(milliseconds timeout) const
    {
        auto end = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < end) {
            auto r = recv(milliseconds(20));
            if (r && r->empty())
                return true;
        }
        return false;
    }

    void close()
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
    }
    int fd() const { return fd_; }

private:
    int fd_ = -1;
};

// A fake slave: the six ports of one chip.
struct fake_slave {
    int chip = 1;
    std::array<fake_port, NUM_PORTS> ports;

    bool connect_all(const std::string& board)
    {
        for (int k = 0; k < NUM_PORTS; ++k) {
            if (!ports[k].connect(board, static_cast<uint32_t>(chip), static_cast<uint32_t>(PORT_CAL + k)))
                return false;
        }
        return true;
    }
    fake_port& port(int p) { return ports[port_slot(p)]; }
};

// ---- crafted window contents ------------------------------------------------

struct frame_spec {
    uint8_t cam;
    uint8_t idx;
    uint8_t low;
    uint8_t key;
    uint32_t time;
    uint32_t len;
};

// Writes a record buffer into `w` the way a slave's transfer leaves it: the
// header, then the frames' bytes back to back, each frame's data field being
// its offset in the data area. Frame k's bytes are (k * 7 + i) & 0xff.
// Returns the bytes written (header + data).
inline uint32_t write_record(std::span<uint8_t> w, const std::vector<frame_spec>& frames)
{
    ebuf_head_t h{};
    uint32_t off = 0;
    for (size_t k = 0; k < frames.size(); ++k) {
        const frame_spec& f = frames[k];
        mmd_t& e = h.mmd[k];
        e.cam = f.cam;
        e.frame_idx = f.idx;
        e.low = f.low;
        e.key = f.key;
        e.width = f.low ? 352 : 1920;
        e.height = f.low ? 288 : 1080;
        e.fps = 30;
        e.quality = 3;
        e.const12 = 2;
        e.const13 = 2;
        e.sec_of_day = f.time % 86400;
        e.data = off;
        e.len = f.len;
        h.mmd_time[k] = f.time;
        h.mmd_mday[k] = 14;
        h.mmd_attr[k] = static_cast<uint8_t>(0x40 + k);
        for (uint32_t i = 0; i < f.len; ++i)
            w[EBUF_HEAD_SIZE + off + i] = static_cast<uint8_t>((k * 7 + i) & 0xff);
        off += f.len;
    }
    h.num_mmd = static_cast<int32_t>(frames.size());
    h.buf_off = static_cast<int32_t>(off);
    h.buf_size = 0x100000;
    std::memcpy(w.data(), &h, sizeof(h));
    return EBUF_HEAD_SIZE + off;
}

inline nbuf_desc_t net_desc(uint32_t len, uint32_t msec, uint16_t key = 0, uint8_t fps = 30)
{
    nbuf_desc_t d{};
    d.year = 2024;
    d.mon = 5;
    d.mday = 14;
    d.msec = msec;
    d.key = key;
    d.width = 704;
    d.height = 576;
    d.fps = fps;
    d.const17 = 1;
    d.const18 = 2;
    d.len = len;
    d.data = 0xdeadbeef;
    return d;
}

// Writes descriptors and data back to back; frame k's bytes are (k + i) & 0xff.
inline uint32_t write_network(std::span<uint8_t> w, const std::vector<nbuf_desc_t>& descs)
{
    uint32_t off = 0;
    for (size_t k = 0; k < descs.size(); ++k) {
        std::memcpy(w.data() + off, &descs[k], sizeof(nbuf_desc_t));
        off += sizeof(nbuf_desc_t);
        for (uint32_t i = 0; i < descs[k].len; ++i)
            w[off + i] = static_cast<uint8_t>((k + i) & 0xff);
        off += descs[k].len;
    }
    return off;
}

inline network_note_t net_note(uint32_t bytes, const std::vector<uint8_t>& streams, uint32_t window = 2)
{
    network_note_t n{};
    n.window = window;
    n.bytes = bytes;
    n.frames = static_cast<uint32_t>(streams.size());
    for (size_t k = 0; k < streams.size() && k < NET_MAX_FRAMES; ++k)
        n.stream[k] = streams[k];
    return n;
}

}  // namespace mtest
