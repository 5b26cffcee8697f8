// The master emulator against fake slaves written here: raw sockets that
// speak the hello and message format, and window contents crafted in
// chip0.mem.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <sstream>

#include "master/master.h"
#include "master_test_util.h"

using namespace mtest;

namespace {

constexpr milliseconds WAIT{5000};
constexpr milliseconds QUIET{300};  // long enough to show that nothing comes

class master_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(dir_.path().empty());
        board_ = dir_.path() + "/board";  // missing: the master creates it
        opts_.board = board_;
        opts_.keep_notifications = true;
        opts_.hello_timeout = milliseconds(500);
        opts_.end_grace = milliseconds(300);
    }
    void open_master()
    {
        m_ = std::make_unique<master>(opts_);
        ASSERT_EQ(m_->open(), 0) << m_->error();
    }
    // Opens the master and connects a fake slave's six ports to it.
    void open_with(fake_slave& s)
    {
        open_master();
        ASSERT_TRUE(s.connect_all(board_));
        ASSERT_TRUE(m_->wait_ports(s.chip, WAIT));
    }
    // On the board the slave writes a window before it notifies, and the
    // master reads it before it answers; over sockets the thread sanitizer
    // cannot see that order, and a call into the master (which takes its
    // lock) shows it. Tests call this between writing a window and sending
    // the notification, and before writing a window that was answered.
    void handover() const { (void)m_->pending_acks(); }

    bool has_note(const std::string& part, milliseconds timeout = WAIT) const
    {
        auto end = steady::now() + timeout;
        do {
            for (const std::string& n : m_->notes()) {
                if (n.find(part) != std::string::npos)
                    return true;
            }
            std::this_thread::sleep_for(milliseconds(5));
        } while (steady::now() < end);
        return false;
    }

    temp_dir dir_;
    std::string board_;
    master_options opts_;
    std::unique_ptr<master> m_;
};

// Answers the master's commands on a fake slave's port 102 from a thread.
class responder {
public:
    using handler = std::function<std::optional<std::vector<uint8_t>>(const std::vector<uint8_t>& request)>;

    responder(fake_port& port, handler h) : port_(port), h_(std::move(h)), t_([this] { run(); }) {}
    ~responder()
    {
        stop_ = true;
        t_.join();
    }
private:
    void run()
    {
        while (!stop_) {
            std::optional<std::vector<uint8_t>> req = port_.recv(milliseconds(20));
            if (!req || req->empty())
                continue;
            if (std::optional<std::vector<uint8_t>> rep = h_(*req))
                port_.send(*rep);
        }
    }

    fake_port& port_;
    handler h_;
    std::atomic<bool> stop_{false};
    std::thread t_;
};

// The request sent back with result 0, as a slave answers most commands.
std::optional<std::vector<uint8_t>> echo(const std::vector<uint8_t>& req)
{
    return req;
}

std::vector<uint8_t> record_note(uint32_t window, uint32_t bytes, uint32_t frames)
{
    record_note_t n{window, bytes, frames, 0};
    return make_msg(0, NOTE_RECORD, bytes_of(n));
}

// ---- board -------------------------------------------------------------------

TEST_F(master_test, board_has_a_sparse_memory_file_and_a_listening_socket)
{
    open_master();
    struct stat st{};
    ASSERT_EQ(stat((board_ + "/chip0.mem").c_str(), &st), 0);
    EXPECT_EQ(static_cast<uint64_t>(st.st_size), 256ull << 20);
    EXPECT_LT(static_cast<uint64_t>(st.st_blocks) * 512, 1ull << 20);  // sparse
    ASSERT_EQ(stat((board_ + "/chip0.sock").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));

    // A window is the shared memory file itself, at the offset its bus
    // address names.
    std::span<uint8_t> w = m_->window(2, 3);
    ASSERT_EQ(w.size(), WINDOW_SIZE);
    w[5] = 0xA5;
    uint32_t off = master::window_address(2, 3) & 0x0FFFFFFFu;
    EXPECT_EQ(master::window_address(2, 3) >> 28, 1u);
    int fd = ::open((board_ + "/chip0.mem").c_str(), O_RDONLY);
    uint8_t b = 0;
    ASSERT_EQ(pread(fd, &b, 1, off + 5), 1);
    ::close(fd);
    EXPECT_EQ(b, 0xA5);

    // Windows are disjoint and within chip 0 for every slave chip.
    std::vector<uint32_t> starts;
    for (int chip = 1; chip <= MAX_SLAVE_CHIP; ++chip) {
        for (int k = 0; k < NUM_WINDOWS; ++k)
            starts.push_back(master::window_offset(chip, k));
    }
    std::sort(starts.begin(), starts.end());
    EXPECT_EQ(std::adjacent_find(starts.begin(), starts.end(),
                                 [](uint32_t a, uint32_t b) { return b - a < WINDOW_SIZE; }),
              starts.end());
    EXPECT_TRUE(in_chip_range(0, bus_address(0, starts.back()), WINDOW_SIZE));

    m_->close();
    EXPECT_NE(stat((board_ + "/chip0.sock").c_str(), &st), 0);
}

// ---- connections ---------------------------------------------------------------

TEST_F(master_test, connections_without_a_good_hello_are_dropped)
{
    open_master();
    fake_port quiet_close;
    ASSERT_TRUE(quiet_close.connect(board_, {}));
    quiet_close.close();
    EXPECT_TRUE(has_note("closed before its hello"));

    struct bad_hello {
        const char* what;
        uint32_t magic, chip, port;
        size_t size;
    };
    const bad_hello cases[] = {
        {"bad magic", 0x3143434E, 1, 102, 12}, {"short", HELLO_MAGIC, 1, 102, 8},
        {"long", HELLO_MAGIC, 1, 102, 13},     {"chip 0", HELLO_MAGIC, 0, 102, 12},
        {"chip 15", HELLO_MAGIC, 15, 102, 12}, {"port 101", HELLO_MAGIC, 1, 101, 12},
        {"port 108", HELLO_MAGIC, 1, 108, 12}, {"port 2^32-1", HELLO_MAGIC, 1, 0xFFFFFFFFu, 12},
    };
    for (const bad_hello& c : cases) {
        SCOPED_TRACE(c.what);
        std::array<uint32_t, 4> words = {c.magic, c.chip, c.port, 0};
        fake_port p;
        ASSERT_TRUE(p.connect(board_, bytes_of(words).first(c.size)));
        EXPECT_TRUE(p.closed_by_peer(WAIT));
    }
    EXPECT_TRUE(has_note("bad hello"));

    fake_port silent;
    ASSERT_TRUE(silent.connect(board_, {}));
    EXPECT_TRUE(silent.closed_by_peer(WAIT));
    EXPECT_TRUE(has_note("no hello within"));

    EXPECT_TRUE(m_->chips().empty());

    // The master still serves a proper slave.
    fake_slave s;
    ASSERT_TRUE(s.connect_all(board_));
    EXPECT_TRUE(m_->wait_ports(1, WAIT));
}

TEST_F(master_test, handshake_is_closed_and_a_new_connection_replaces_the_old_one)
{
    fake_slave s;
    open_with(s);
    fake_port hs;
    ASSERT_TRUE(hs.connect(board_, 1, PORT_HANDSHAKE));
    EXPECT_TRUE(hs.closed_by_peer(WAIT));
    ASSERT_TRUE(m_->wait_for(1, [](const slave_info& i) { return i.handshakes == 1; }, WAIT));
    EXPECT_TRUE(m_->slave(1)->all_ports_open());

    fake_port again;
    ASSERT_TRUE(again.connect(board_, 1, PORT_CAL));
    EXPECT_TRUE(s.port(PORT_CAL).closed_by_peer(WAIT));
    ASSERT_TRUE(m_->wait_for(1, [](const slave_info& i) { return i.ports[0].connections == 2; }, WAIT));
    EXPECT_EQ(m_->slave(1)->ports[1].connections, 1u);
    responder r(again, echo);
    EXPECT_TRUE(m_->command(1, 0x20202, {}, WAIT));
}

TEST_F(master_test, first_message_on_102_is_recorded_with_the_ports_open_before_it)
{
    open_master();
    fake_slave s;
    s.chip = 3;
    // Connections, hellos and the announcement all at once, as a slave
    // sends them: the master must still see the six ports before it.
    ASSERT_TRUE(s.connect_all(board_));
    ASSERT_TRUE(s.port(PORT_CAL).send_msg(0, CMD_ANNOUNCE, {}));
    ASSERT_TRUE(m_->wait_announcement(3, WAIT));
    slave_info i = *m_->slave(3);
    EXPECT_TRUE(i.first_seen);
    EXPECT_EQ(i.first_head.cmd, CMD_ANNOUNCE);
    EXPECT_EQ(i.ports_open_at_first, 0x3Fu);
    EXPECT_GE(i.first_after_ports.count(), 0);

    // A slave that announces with only three ports open is told apart.
    fake_slave early;
    early.chip = 4;
    for (int p = PORT_CAL; p <= PORT_ENCN; ++p)
        ASSERT_TRUE(early.port(p).connect(board_, 4, static_cast<uint32_t>(p)));
    ASSERT_TRUE(early.port(PORT_CAL).send_msg(0, CMD_ANNOUNCE, {}));
    ASSERT_TRUE(m_->wait_announcement(4, WAIT));
    EXPECT_EQ(m_->slave(4)->ports_open_at_first, 0x7u);
}

// ---- commands ------------------------------------------------------------------

TEST_F(master_test, replies_are_matched_by_id_and_cmd)
{
    fake_slave s;
    open_with(s);

    std::vector<uint32_t> ids;
    responder r(s.port(PORT_CAL), [&](const std::vector<uint8_t>& req) -> std::optional<std::vector<uint8_t>> {
        msg_head_t h = head_of(req);
        ids.push_back(h.id);
        if (h.cmd != CMD_GET_DMA_INFO)
            return req;
        // A reply for no command, then one with the right id but another
        // cmd: both ignored. Then the real one.
        s.port(PORT_CAL).send_msg(h.id + 1000, h.cmd, {});
        s.port(PORT_CAL).send_msg(h.id, CMD_GET_STATUS, {});
        dma_info_t d{0, {0x20000000, 0x20200000, 0x20400000, 0x20600000}};
        return make_msg(h.id, h.cmd, bytes_of(d));
    });

    reply_t rep;
    std::optional<dma_info_t> d = m_->get_dma_info(1, WAIT, &rep);
    ASSERT_TRUE(d);
    EXPECT_EQ(rep.head.len, 20u);
    EXPECT_EQ(d->dma_index, 0u);
    EXPECT_EQ(d->addr[3], 0x20600000u);
    EXPECT_EQ(m_->slave(1)->stray_replies, 2u);
    EXPECT_TRUE(m_->slave(1)->have_dma_info);

    std::array<uint8_t, 8> payload = {1, 2, 3, 4, 5, 6, 7, 8};
    std::optional<reply_t> e = m_->command(1, 0x20301, payload, WAIT);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->head.cmd, 0x20301u);
    EXPECT_EQ(e->payload, std::vector<uint8_t>(payload.begin(), payload.end()));
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_GT(ids[1], ids[0]);
}

TEST_F(master_test, commands_fail_cleanly_without_a_reply_or_a_connection)
{
    open_master();
    EXPECT_FALSE(m_->command(1, 0x20202, {}, WAIT));  // no slave at all: at once
    EXPECT_TRUE(has_note("not connected", milliseconds(0)));

    fake_slave s;
    ASSERT_TRUE(s.connect_all(board_));
    ASSERT_TRUE(m_->wait_ports(1, WAIT));
    auto t0 = steady::now();
    EXPECT_FALSE(m_->command(1, 0x20202, {}, milliseconds(200)));
    EXPECT_GE(steady::now() - t0, milliseconds(200));
    EXPECT_TRUE(has_note("no reply within"));

    // The late reply finds no command and changes nothing.
    std::optional<std::vector<uint8_t>> req = s.port(PORT_CAL).recv(WAIT);
    ASSERT_TRUE(req && !req->empty());
    s.port(PORT_CAL).send(*req);
    ASSERT_TRUE(m_->wait_for(1, [](const slave_info& i) { return i.stray_replies == 1; }, WAIT));
    EXPECT_EQ(m_->set_dma_info(9, milliseconds(100)), -1);
}

TEST_F(master_test, set_dma_info_carries_the_slaves_four_windows)
{
    fake_slave s;
    s.chip = 2;
    open_with(s);
    std::vector<uint8_t> seen;
    responder r(s.port(PORT_CAL), [&](const std::vector<uint8_t>& req) {
        seen = req;
        return std::optional(req);
    });
    EXPECT_FALSE(m_->slave(2)->windows_set);
    EXPECT_EQ(m_->set_dma_info(2, WAIT), 0);
    ASSERT_EQ(seen.size(), 16u + 20u);
    EXPECT_EQ(head_of(seen).cmd, CMD_SET_DMA_INFO);
    EXPECT_EQ(head_of(seen).len, 20u);
    dma_info_t d = load_at<dma_info_t>(seen, 16);
    EXPECT_EQ(d.dma_index, 0u);
    for (int k = 0; k < NUM_WINDOWS; ++k)
        EXPECT_EQ(d.addr[k], (1u << 28) | master::window_offset(2, k));
    EXPECT_TRUE(m_->slave(2)->windows_set);
}

TEST_F(master_test, status_is_polled_and_the_last_one_kept)
{
    fake_slave s;
    open_with(s);
    status_t want{};
    want.heartbit = 41;
    want.fps[7] = 30;
    want.clock = 1715680000;
    want.media_pts = 0x123456789ull;
    want.heart_vdec = 7;
    want.heart_jpeg = 9;
    std::atomic<size_t> request_len{0};
    responder r(s.port(PORT_CAL), [&](const std::vector<uint8_t>& req) {
        request_len = req.size();
        return std::optional(make_msg(head_of(req).id, head_of(req).cmd, bytes_of(want)));
    });
    m_->start_status_poll(milliseconds(50));
    ASSERT_TRUE(m_->wait_for(1, [](const slave_info& i) { return i.status_polls >= 3; }, WAIT));
    m_->stop_status_poll();
    slave_info i = *m_->slave(1);
    EXPECT_EQ(request_len.load(), 16u + 56u);
    EXPECT_EQ(0, std::memcmp(&i.status, &want, sizeof(want)));
    EXPECT_EQ(i.status_failures, 0u);
}

// ---- notifications -------------------------------------------------------------

TEST_F(master_test, notifications_are_parsed_byte_exact_and_acknowledged)
{
    fake_slave s;
    s.chip = 2;
    open_with(s);

    std::atomic<int> calls{0};
    m_->on_notification([&](const notification& n, std::span<const uint8_t> written) {
        if (n.kind == note_kind::record) {
            EXPECT_EQ(written.size(), EBUF_HEAD_SIZE + 3000u);
        }
        ++calls;
    });

    // Record buffer in window 1.
    uint32_t bytes = write_record(m_->window(2, 1), {{8, 0, 0, 1, 1000, 1000}, {8, 1, 0, 0, 1000, 2000}});
    handover();
    ASSERT_TRUE(s.port(PORT_ENCR).send(record_note(1, bytes, 2)));
    std::optional<std::vector<uint8_t>> ack = s.port(PORT_ENCR).recv(WAIT);
    ASSERT_TRUE(ack);
    ASSERT_EQ(ack->size(), 16u);
    EXPECT_EQ(head_of(*ack).cmd, NOTE_RECORD);
    std::optional<notification> n = m_->next_notification(WAIT);
    ASSERT_TRUE(n);
    EXPECT_EQ(n->chip, 2);
    ASSERT_EQ(n->kind, note_kind::record);
    EXPECT_FALSE(n->bad());
    const record_batch& rb = std::get<record_batch>(n->parsed);
    ASSERT_EQ(rb.frames.size(), 2u);
    ASSERT_EQ(n->content.size(), bytes);
    std::span<const uint8_t> w = m_->window(2, 1);
    EXPECT_TRUE(std::equal(n->content.begin(), n->content.end(), w.begin()));
    EXPECT_EQ(n->content[rb.frames[1].offset + 5], static_cast<uint8_t>((7 + 5) & 0xff));

    // Network batch in window 2.
    bytes = write_network(m_->window(2, 2), {net_desc(100, 0, 1), net_desc(200, 33), net_desc(300, 66)});
    handover();
    network_note_t nn = net_note(bytes, {8, 16, 24});
    ASSERT_TRUE(s.port(PORT_ENCN).send_msg(0, NOTE_NETWORK, bytes_of(nn)));
    ASSERT_TRUE(s.port(PORT_ENCN).recv(WAIT));
    n = m_->next_notification(WAIT);
    ASSERT_TRUE(n && n->kind == note_kind::network);
    EXPECT_EQ(std::get<network_batch>(n->parsed).frames.size(), 3u);
    EXPECT_EQ(n->content.size(), 684u);

    slave_info i = *m_->slave(2);
    EXPECT_EQ(calls.load(), 2);
    EXPECT_EQ(i.acks_sent, 2u);
    EXPECT_EQ(i.stats.record.frames, 2u);
    EXPECT_EQ(i.stats.network.frames, 3u);
}

TEST_F(master_test, held_acknowledgements_keep_the_slave_waiting)
{
    fake_slave s;
    open_with(s);
    m_->hold_acks(true);

    uint32_t bytes = write_record(m_->window(1, 1), {{0, 0, 0, 1, 1000, 10}});
    handover();
    ASSERT_TRUE(s.port(PORT_ENCR).send(record_note(1, bytes, 1)));
    motion_note_t mn{};
    ASSERT_TRUE(s.port(PORT_VIN).send_msg(0, NOTE_MOTION, bytes_of(mn)));
    ASSERT_TRUE(m_->next_notification(WAIT));
    ASSERT_TRUE(m_->next_notification(WAIT));
    EXPECT_FALSE(s.port(PORT_ENCR).recv(QUIET));
    EXPECT_FALSE(s.port(PORT_VIN).recv(milliseconds(0)));
    EXPECT_EQ(m_->pending_acks(), 2u);
    EXPECT_EQ(m_->slave(1)->acks_pending, 2u);

    // While held, the window can be inspected as the slave left it.
    EXPECT_EQ(m_->window(1, 1)[EBUF_HEAD_SIZE + 3], 3);

    EXPECT_EQ(m_->release_acks(), 2);
    EXPECT_TRUE(s.port(PORT_ENCR).recv(WAIT));
    EXPECT_TRUE(s.port(PORT_VIN).recv(WAIT));
    EXPECT_EQ(m_->pending_acks(), 0u);

    // Still held for the next one, until the hold ends.
    ASSERT_TRUE(s.port(PORT_VIN).send_msg(0, NOTE_MOTION, bytes_of(mn)));
    ASSERT_TRUE(m_->next_notification(WAIT));
    EXPECT_FALSE(s.port(PORT_VIN).recv(QUIET));
    m_->hold_acks(false);
    EXPECT_TRUE(s.port(PORT_VIN).recv(WAIT));
}

TEST_F(master_test, bad_notifications_are_reported_answered_and_survived)
{
    fake_slave s;
    open_with(s);

    // A frame whose offset runs past buf_off.
    write_record(m_->window(1, 1), {{0, 0, 0, 1, 1000, 10}});
    mmd_t e = load_at<mmd_t>(m_->window(1, 1), offsetof(ebuf_head_t, mmd));
    e.data = 5;
    std::memcpy(m_->window(1, 1).data() + offsetof(ebuf_head_t, mmd), &e, sizeof(e));
    handover();
    ASSERT_TRUE(s.port(PORT_ENCR).send(record_note(1, EBUF_HEAD_SIZE + 10, 1)));
    // Claims beyond the window.
    ASSERT_TRUE(s.port(PORT_ENCR).send(record_note(1, WINDOW_SIZE + 1, 0)));
    // Too many frames for a network batch.
    network_note_t many = net_note(0, {});
    many.frames = 500;
    ASSERT_TRUE(s.port(PORT_ENCN).send_msg(0, NOTE_NETWORK, bytes_of(many)));
    // A message of another port's kind.
    ASSERT_TRUE(s.port(PORT_ENCJPG).send_msg(0, NOTE_RECORD, std::vector<uint8_t>(16, 0)));
    // Shorter than a header: not a message at all, and not answered.
    ASSERT_TRUE(s.port(PORT_VIN).send(std::vector<uint8_t>(10, 0)));

    for (int p : {PORT_ENCR, PORT_ENCR, PORT_ENCN, PORT_ENCJPG})
        EXPECT_TRUE(s.port(p).recv(WAIT)) << "answer on port " << p;
    EXPECT_TRUE(has_note("shorter than a header"));
    EXPECT_FALSE(s.port(PORT_VIN).recv(milliseconds(0)));

    slave_info i = *m_->slave(1);
    EXPECT_EQ(i.stats.record.bad, 2u);
    EXPECT_EQ(i.stats.record.rejected, 1u);
    EXPECT_EQ(i.stats.record.frames, 0u);
    EXPECT_EQ(i.stats.network.rejected, 1u);
    EXPECT_EQ(i.stats.other_bad, 1u);
    EXPECT_TRUE(std::any_of(i.stats.last_bad.begin(), i.stats.last_bad.end(),
                            [](const std::string& b) { return b.find("claims 2097153 bytes") != std::string::npos; }));

    // A good one afterwards is taken as usual.
    uint32_t bytes = write_record(m_->window(1, 1), {{0, 0, 0, 1, 1000, 10}});
    handover();
    ASSERT_TRUE(s.port(PORT_ENCR).send(record_note(1, bytes, 1)));
    ASSERT_TRUE(s.port(PORT_ENCR).recv(WAIT));
    ASSERT_TRUE(m_->wait_for(1, [](const slave_info& x) { return x.stats.record.frames == 1; }, WAIT));
}

// ---- restart -------------------------------------------------------------------

// A fake slave whose driver reconnects every 10 ms after the master closes a
// port, as a slave's does, and answers every command with an echo.
class reconnecting_slave {
public:
    explicit reconnecting_slave(std::string board) : board_(std::move(board)), t_([this] { run(); }) {}
    ~reconnecting_slave()
    {
        stop_ = true;
        t_.join();
    }
    std::atomic<int> reconnects{0};
    std::atomic<int> acks{0};
    std::atomic<bool> send_motion{false};  // sends one motion report on port 105

private:
    void run()
    {
        while (!stop_) {
            for (int k = 0; k < NUM_PORTS; ++k) {
                fake_port& p = s_.ports[k];
                if (p.fd() < 0) {
                    if (p.connect(board_, 1, static_cast<uint32_t>(PORT_CAL + k)))
                        ++reconnects;
                    continue;
                }
                if (k == port_slot(PORT_VIN) && send_motion.exchange(false)) {
                    motion_note_t mn{};
                    p.send_msg(0, NOTE_MOTION, bytes_of(mn));
                }
                std::optional<std::vector<uint8_t>> m = p.recv(milliseconds(0));
                if (!m)
                    continue;
                if (m->empty())
                    p.close();
                else if (k == 0)
                    p.send(*m);
                else
                    ++acks;
            }
            std::this_thread::sleep_for(milliseconds(10));
        }
    }

    std::string board_;
    fake_slave s_;
    std::atomic<bool> stop_{false};
    std::thread t_;
};

TEST_F(master_test, after_a_restart_a_reconnecting_slave_serves_again)
{
    open_master();
    reconnecting_slave s(board_);
    ASSERT_TRUE(m_->wait_ports(1, WAIT));
    ASSERT_TRUE(m_->command(1, 0x20202, {}, WAIT));

    // An acknowledgement held over the restart reaches the new connection.
    m_->hold_acks(true);
    s.send_motion = true;
    ASSERT_TRUE(m_->next_notification(WAIT));

    ASSERT_EQ(m_->restart(), 0) << m_->error();
    EXPECT_FALSE(m_->slave(1)->ports[0].open);
    ASSERT_TRUE(m_->wait_ports(1, WAIT));
    EXPECT_TRUE(m_->wait_for(1, [](const slave_info& i) { return i.ports[5].connections == 2; }, WAIT));
    EXPECT_EQ(s.reconnects.load(), 12);

    std::optional<reply_t> r = m_->command(1, 0x20202, {}, WAIT);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->head.cmd, 0x20202u);

    m_->hold_acks(false);
    auto end = steady::now() + WAIT;
    while (s.acks.load() == 0 && steady::now() < end)
        std::this_thread::sleep_for(milliseconds(5));
    EXPECT_EQ(s.acks.load(), 1);
}

// ---- slave processes -------------------------------------------------------------

class slave_process_test : public master_test {
protected:
    std::string script(const std::string& name, const std::string& body)
    {
        std::string path = dir_.file(name);
        std::ofstream(path) << "#!/bin/sh\n" << body;
        chmod(path.c_str(), 0755);
        return path;
    }
    std::string console(int chip)
    {
        std::ifstream f(board_ + "/chip" + std::to_string(chip) + ".console");
        std::stringstream ss;
        ss << f.rdbuf();
        return ss.str();
    }
    bool console_has(int chip, const std::string& part)
    {
        auto end = steady::now() + WAIT;
        while (steady::now() < end) {
            if (console(chip).find(part) != std::string::npos)
                return true;
            std::this_thread::sleep_for(milliseconds(10));
        }
        return false;
    }
};

TEST_F(slave_process_test, slaves_get_their_arguments_environment_and_console_and_end_with_the_master)
{
    setenv("TARVO_STRAY_SETTING", "x", 1);
    std::string env_line =
        "echo \"board=$TARVO_BOARD chip=$TARVO_CHIP_ID fail=${TARVO_SIM_FAIL-unset} "
        "sched=${TARVO_SIM_SCHED-unset} stray=${TARVO_STRAY_SETTING-unset}\"\n";
    std::string plain = script("plain.sh", "echo \"args: $*\"\n" + env_line + "echo to-stderr >&2\nexec sleep 30\n");
    std::string stubborn = script("stubborn.sh", "trap '' TERM\necho ready\nexec sleep 30\n");
    open_master();

    slave_config a;
    a.binary = plain;
    a.chip = 2;
    a.cam_base = 8;
    a.fail_rules = "HI_MPI_VENC_CreateGroup@2=a0078009";
    a.sim_sched = true;
    pid_t pa = m_->start_slave(a);
    ASSERT_GT(pa, 0) << m_->error();
    slave_config b;
    b.binary = stubborn;
    b.chip = 3;
    ASSERT_GT(m_->start_slave(b), 0) << m_->error();

    EXPECT_LT(m_->start_slave(a), 0);  // chip 2 runs already
    slave_config bad;
    bad.binary = dir_.file("missing");
    bad.chip = 5;
    EXPECT_LT(m_->start_slave(bad), 0);
    bad.chip = 15;
    EXPECT_LT(m_->start_slave(bad), 0);

    ASSERT_TRUE(console_has(2, "to-stderr"));
    EXPECT_NE(console(2).find("args: slave 8 8 8\n"), std::string::npos) << console(2);
    EXPECT_NE(console(2).find("board=" + board_ + " chip=2 fail=HI_MPI_VENC_CreateGroup@2=a0078009 sched=1 "
                              "stray=unset"),
              std::string::npos)
        << console(2);
    ASSERT_TRUE(console_has(3, "ready"));

    // A host queue the slave of chip 2 would have made.
    key_t key = static_cast<key_t>(0x10000000 | (std::random_device{}() & 0x0fffffff));
    int q = msgget(key, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(q, 0);
    mkdir((board_ + "/chip2").c_str(), 0755);
    std::ofstream(board_ + "/chip2/msgq") << "00004e52 " << std::hex << key << "\n";

    m_->end_slaves();
    slave_info ia = *m_->slave(2);
    slave_info ib = *m_->slave(3);
    ASSERT_TRUE(WIFSIGNALED(ia.exit_status));
    EXPECT_EQ(WTERMSIG(ia.exit_status), SIGTERM);
    ASSERT_TRUE(WIFSIGNALED(ib.exit_status));
    EXPECT_EQ(WTERMSIG(ib.exit_status), SIGKILL);
    EXPECT_EQ(msgget(key, 0), -1);
    EXPECT_TRUE(has_note("1 message queue(s) removed"));
    unsetenv("TARVO_STRAY_SETTING");
}

TEST(release_queues, removes_the_listed_host_queues_only)
{
    temp_dir d;
    ASSERT_EQ(mkdir(d.file("chip4").c_str(), 0755), 0);
    std::mt19937 rng{std::random_device{}()};
    key_t k1 = static_cast<key_t>(0x10000000 | (rng() & 0x0fffffff));
    key_t k2 = static_cast<key_t>(0x10000000 | (rng() & 0x0fffffff));
    int q1 = msgget(k1, IPC_CREAT | IPC_EXCL | 0600);
    int q2 = msgget(k2, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(q1, 0);
    ASSERT_GE(q2, 0);
    std::ofstream(d.file("chip4/msgq")) << std::hex << "00004e52 " << k1 << "\n00004e53 0\n";
    EXPECT_EQ(release_chip_queues(d.path(), 4), 1);
    EXPECT_EQ(msgget(k1, 0), -1);
    EXPECT_EQ(msgget(k2, 0), q2);
    EXPECT_EQ(release_chip_queues(d.path(), 5), 0);  // no such chip
    msgctl(q2, IPC_RMID, nullptr);
}

}  // namespace
