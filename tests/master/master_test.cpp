// The master emulator against fake slaves written here: raw sockets that
// speak the hello and message format, and window contents crafted in
// chip0.mem.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <random>

#include "master/master.h"
#include "master/overlay.h"
#include "master/record.h"
#include "master_test_util.h"

using namespace mtest;

namespace {

constexpr milliseconds WAIT{5000};
constexpr milliseconds QUIET{300};  // long enough to show that nothing comes

// One connection of a fake slave to chip 0.
class fake_port {
public:
    ~fake_port() { close(); }

    // Connects and sends `hello` as the first packet unless it is empty.
    bool connect(const std::string& board, std::span<const uint8_t> hello)
    {
        close();
        fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::snprintf(a.sun_path, sizeof(a.sun_path), "%s/chip0.sock", board.c_str());
        if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0)
            return false;
        return hello.empty() || send(hello);
    }
    bool send(std::span<const uint8_t> b) const
    {
        return ::send(fd_, b.data(), b.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(b.size());
    }
    bool send_msg(uint32_t id, uint32_t cmd, std::span<const uint8_t> payload) const
    {
        msg_head_t h{id, cmd, static_cast<uint32_t>(payload.size()), 0};
        std::vector<uint8_t> m(bytes_of(h).begin(), bytes_of(h).end());
        m.insert(m.end(), payload.begin(), payload.end());
        return send(m);
    }
    // One packet; empty on time-out and at the peer's end.
    std::vector<uint8_t> recv(milliseconds timeout = WAIT) const
    {
        std::vector<uint8_t> buf(PACKET_MAX);
        pollfd p{fd_, POLLIN, 0};
        ssize_t n = poll(&p, 1, static_cast<int>(timeout.count())) > 0 ? ::recv(fd_, buf.data(), buf.size(), 0) : -1;
        buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return buf;
    }
    bool closed_by_peer() const
    {
        pollfd p{fd_, POLLIN, 0};
        char c;
        return poll(&p, 1, static_cast<int>(WAIT.count())) > 0 && ::recv(fd_, &c, 1, 0) == 0;
    }
    void close()
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

class master_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = (std::filesystem::temp_directory_path() / "tmaster-XXXXXX").string();
        ASSERT_NE(mkdtemp(dir_.data()), nullptr);
        board_ = dir_ + "/board";  // missing: the master creates it
        master_options o;
        o.board = board_;
        o.keep_notifications = true;
        o.hello_timeout = milliseconds(500);
        o.end_grace = milliseconds(300);
        m_ = std::make_unique<master>(o);
        ASSERT_EQ(m_->open(), 0) << m_->error();
    }
    void TearDown() override
    {
        m_.reset();
        std::filesystem::remove_all(dir_);
    }
    // A slave writes a window before it notifies; the thread sanitizer cannot
    // see that order over sockets, and a call that takes the master's lock shows it.
    void handover() const { (void)m_->pending_acks(); }

    // Connects the six ports of a fake slave on chip 1.
    void connect_slave()
    {
        for (uint32_t p = PORT_CAL; p <= PORT_DEC; ++p)
            ASSERT_TRUE(port(static_cast<int>(p)).connect(board_, bytes_of(hello_t{HELLO_MAGIC, 1, p})));
        ASSERT_TRUE(m_->wait_ports(1, WAIT));
    }
    fake_port& port(int p) { return ports_[port_slot(p)]; }

    std::string dir_;
    std::string board_;
    std::unique_ptr<master> m_;
    std::array<fake_port, NUM_PORTS> ports_;
};

TEST_F(master_test, board_is_a_sparse_memory_file_holding_the_windows_and_a_socket)
{
    struct stat st{};
    ASSERT_EQ(stat((board_ + "/chip0.mem").c_str(), &st), 0);
    EXPECT_EQ(static_cast<uint64_t>(st.st_size), 256ull << 20);
    EXPECT_LT(static_cast<uint64_t>(st.st_blocks) * 512, 1ull << 20);  // sparse
    EXPECT_TRUE(std::filesystem::is_socket(board_ + "/chip0.sock"));

    // A window is the shared memory file itself, at the offset its bus address names.
    uint32_t addr = master::window_address(MAX_SLAVE_CHIP, 3);
    m_->window(MAX_SLAVE_CHIP, 3)[5] = 0xA5;
    std::ifstream mem(board_ + "/chip0.mem", std::ios::binary);
    mem.seekg((addr & 0x0FFFFFFFu) + 5);
    EXPECT_EQ(mem.get(), 0xA5);
}

TEST_F(master_test, connections_are_taken_by_their_hello_alone)
{
    struct bad_hello {
        const char* what;
        uint32_t magic, chip, port;
        size_t size;
    };
    const bad_hello cases[] = {
        {"none", 0, 0, 0, 0},                  {"bad magic", 0x3143434E, 1, 102, 12},
        {"short", HELLO_MAGIC, 1, 102, 8},     {"long", HELLO_MAGIC, 1, 102, 13},
        {"chip 0", HELLO_MAGIC, 0, 102, 12},   {"chip 15", HELLO_MAGIC, 15, 102, 12},
        {"port 101", HELLO_MAGIC, 1, 101, 12}, {"port 108", HELLO_MAGIC, 1, 108, 12},
    };
    for (const bad_hello& c : cases) {
        SCOPED_TRACE(c.what);
        std::array<uint32_t, 4> words = {c.magic, c.chip, c.port, 0};
        fake_port p;
        ASSERT_TRUE(p.connect(board_, bytes_of(words).first(c.size)));
        EXPECT_TRUE(p.closed_by_peer());  // at once, or after the hello time-out
    }

    connect_slave();
    fake_port hs;
    ASSERT_TRUE(hs.connect(board_, bytes_of(hello_t{HELLO_MAGIC, 1, PORT_HANDSHAKE})));
    EXPECT_TRUE(hs.closed_by_peer());
    EXPECT_TRUE(m_->wait_for(1, [](const slave_info& i) { return i.handshakes == 1; }, WAIT));

    // A new connection for a port replaces the old one, and messages go to it.
    fake_port again;
    ASSERT_TRUE(again.connect(board_, bytes_of(hello_t{HELLO_MAGIC, 1, PORT_CAL})));
    EXPECT_TRUE(port(PORT_CAL).closed_by_peer());
    ASSERT_TRUE(m_->wait_for(1, [](const slave_info& i) { return i.ports[0].connections == 2; }, WAIT));
    ASSERT_EQ(m_->send_raw(1, PORT_CAL, std::array<uint8_t, 16>{}), 0);
    EXPECT_EQ(again.recv().size(), 16u);

    // The first message on 102 is recorded with the ports open before it, so
    // a slave that announces with three ports open is told apart.
    std::array<fake_port, 3> early;
    for (uint32_t k = 0; k < 3; ++k)
        ASSERT_TRUE(early[k].connect(board_, bytes_of(hello_t{HELLO_MAGIC, 4, PORT_CAL + k})));
    ASSERT_TRUE(early[0].send_msg(0, CMD_ANNOUNCE, {}));
    ASSERT_TRUE(m_->wait_announcement(4, WAIT));
    EXPECT_EQ(m_->slave(4)->ports_open_at_first, 0x7u);
}

TEST_F(master_test, replies_are_matched_by_id_and_cmd_and_the_rest_is_stray)
{
    EXPECT_FALSE(m_->command(1, 0x20202, {}, WAIT));  // no slave at all: fails at once
    connect_slave();
    const fake_port& cal = port(PORT_CAL);
    auto get = std::async(std::launch::async, [&] { return m_->get_dma_info(1, WAIT); });
    msg_head_t h = load_prefix<msg_head_t>(cal.recv());
    ASSERT_EQ(h.cmd, CMD_GET_DMA_INFO);
    cal.send_msg(h.id + 1000, h.cmd, {});    // no such command
    cal.send_msg(h.id, CMD_GET_STATUS, {});  // the right id, another cmd
    dma_info_t d{0, {0x20000000, 0x20200000, 0x20400000, 0x20600000}};
    cal.send_msg(h.id, h.cmd, bytes_of(d));
    std::optional<dma_info_t> got = get.get();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->addr[3], 0x20600000u);
    EXPECT_EQ(m_->slave(1)->stray_replies, 2u);

    // HSCC_CAL_SetDmaInfo names the slave's own windows, under a new id.
    auto set = std::async(std::launch::async, [&] { return m_->set_dma_info(1, WAIT); });
    std::vector<uint8_t> req = cal.recv();
    ASSERT_EQ(req.size(), 16u + 20u);
    EXPECT_EQ(load_prefix<msg_head_t>(req).cmd, CMD_SET_DMA_INFO);
    EXPECT_GT(load_prefix<msg_head_t>(req).id, h.id);
    d = load_at<dma_info_t>(req, 16);
    for (int k = 0; k < NUM_WINDOWS; ++k)
        EXPECT_EQ(d.addr[k], master::window_address(1, k));
    cal.send(req);
    EXPECT_EQ(set.get(), 0);

    // A reply after the time-out finds no command.
    EXPECT_FALSE(m_->command(1, 0x20202, {}, milliseconds(100)));
    ASSERT_TRUE(cal.send(cal.recv()));
    EXPECT_TRUE(m_->wait_for(1, [](const slave_info& i) { return i.stray_replies == 3; }, WAIT));
}

TEST_F(master_test, notifications_are_parsed_and_acknowledged_bad_ones_too_unless_held)
{
    connect_slave();
    record_note_t rn{1, write_record(m_->window(1, 1), {{8, 0, 0, 1000, 1000}, {8, 1, 0, 1000, 2000}}), 2, 0};
    network_note_t nn = net_note(write_network(m_->window(1, 2), {net_desc(100, 0), net_desc(200, 33)}), {8, 16});
    jpeg_note_t jn{0, 3000, 1, {}, {{1, 1000, 3000, 0}}};
    motion_note_t mn{};
    handover();
    // Sends one notification and takes its acknowledgement and parsed copy.
    auto notify = [&](int p, uint32_t cmd, std::span<const uint8_t> payload) {
        EXPECT_TRUE(port(p).send_msg(5, cmd, payload));
        msg_head_t ack{5, cmd, 0, 0};
        EXPECT_EQ(port(p).recv(), std::vector<uint8_t>(bytes_of(ack).begin(), bytes_of(ack).end()));
        std::optional<notification> n = m_->next_notification(WAIT);
        EXPECT_TRUE(n && !n->bad());
        return n.value_or(notification{});
    };
    notification rec = notify(PORT_ENCR, NOTE_RECORD, bytes_of(rn));
    notification net = notify(PORT_ENCN, NOTE_NETWORK, bytes_of(nn));
    EXPECT_EQ(notify(PORT_ENCJPG, NOTE_JPEG, bytes_of(jn)).kind, note_kind::jpeg);
    EXPECT_EQ(notify(PORT_VIN, NOTE_MOTION, bytes_of(mn)).kind, note_kind::motion);
    // The caller gets the window bytes as written and the batches parsed out of them.
    ASSERT_EQ(rec.content.size(), rn.bytes);
    EXPECT_TRUE(std::equal(rec.content.begin(), rec.content.end(), m_->window(1, 1).begin()));
    EXPECT_EQ(net.content.size(), nn.bytes);
    EXPECT_EQ(m_->slave(1)->stats.network.frames, 2u);

    // A held acknowledgement keeps the slave waiting until the hold ends.
    m_->hold_acks(true);
    ASSERT_TRUE(port(PORT_VIN).send_msg(0, NOTE_MOTION, bytes_of(mn)));
    ASSERT_TRUE(m_->next_notification(WAIT));
    EXPECT_TRUE(port(PORT_VIN).recv(QUIET).empty());
    m_->hold_acks(false);
    EXPECT_FALSE(port(PORT_VIN).recv().empty());

    // Bad ones are answered all the same and counted.
    record_note_t too_long{1, WINDOW_SIZE + 1, 0, 0};
    ASSERT_TRUE(port(PORT_ENCR).send_msg(0, NOTE_RECORD, bytes_of(too_long)));
    ASSERT_TRUE(port(PORT_ENCJPG).send_msg(0, NOTE_RECORD, bytes_of(too_long)));  // another port's kind
    ASSERT_TRUE(port(PORT_VIN).send(std::vector<uint8_t>(10, 0)));  // no message at all: not answered
    EXPECT_FALSE(port(PORT_ENCR).recv().empty());
    EXPECT_FALSE(port(PORT_ENCJPG).recv().empty());
    EXPECT_TRUE(port(PORT_VIN).recv(QUIET).empty());
    slave_info i = *m_->slave(1);
    EXPECT_EQ(i.stats.record.rejected, 1u);
    EXPECT_EQ(i.stats.other_bad, 1u);
    ASSERT_FALSE(i.stats.last_bad.empty());
    EXPECT_NE(i.stats.last_bad.front().find("claims 2097153 bytes"), std::string::npos);
}

TEST_F(master_test, slaves_get_their_arguments_environment_and_console_and_end_with_the_master)
{
    // Chip 3's slave ignores SIGTERM.
    std::string script = dir_ + "/slave.sh";
    std::ofstream(script) << "#!/bin/sh\n[ \"$TARVO_CHIP_ID\" = 3 ] && trap '' TERM\n"
                          << "echo \"$* board=$TARVO_BOARD chip=$TARVO_CHIP_ID fail=$TARVO_SIM_FAIL "
                             "sched=$TARVO_SIM_SCHED stray=${TARVO_STRAY-unset}\" >&2\nexec sleep 30\n";
    chmod(script.c_str(), 0755);
    setenv("TARVO_STRAY", "x", 1);
    slave_config a;
    a.binary = script;
    a.chip = 2;
    a.cam_base = 8;
    a.fail_rules = "HI_MPI_VENC_CreateGroup@2=a0078009";
    a.sim_sched = true;
    ASSERT_GT(m_->start_slave(a), 0) << m_->error();
    slave_config b = a;
    b.chip = 3;
    ASSERT_GT(m_->start_slave(b), 0) << m_->error();
    EXPECT_LT(m_->start_slave(a), 0);  // chip 2 runs already
    unsetenv("TARVO_STRAY");

    // A host queue chip 2's slave made and listed goes with it.
    key_t key = static_cast<key_t>(0x10000000 | (std::random_device{}() & 0x0fffffff));
    ASSERT_GE(msgget(key, IPC_CREAT | IPC_EXCL | 0600), 0);
    std::filesystem::create_directory(board_ + "/chip2");
    std::ofstream(board_ + "/chip2/msgq") << std::hex << "00004e52 " << key << "\n";

    auto console = [&](int chip) {
        std::ifstream f(board_ + "/chip" + std::to_string(chip) + ".console");
        return std::string(std::istreambuf_iterator<char>(f), {});
    };
    for (auto end = steady::now() + WAIT; steady::now() < end && (console(2).empty() || console(3).empty());)
        std::this_thread::sleep_for(milliseconds(10));  // their lines written, the trap set
    m_->end_slaves();
    EXPECT_EQ(console(2), "slave 8 8 8 board=" + board_ + " chip=2 fail=HI_MPI_VENC_CreateGroup@2=a0078009 "
                          "sched=1 stray=unset\n");
    int sa = m_->slave(2)->exit_status;
    int sb = m_->slave(3)->exit_status;
    EXPECT_TRUE(WIFSIGNALED(sa) && WTERMSIG(sa) == SIGTERM);
    EXPECT_TRUE(WIFSIGNALED(sb) && WTERMSIG(sb) == SIGKILL);
    EXPECT_EQ(msgget(key, 0), -1);
}

TEST_F(master_test, a_recorder_is_set_up_command_by_command_and_a_refusal_is_reported)
{
    connect_slave();
    record_plan plan;
    plan.md_threshold = -1;  // motion is the next test's
    slave_plan sp{1, 8, 2, 8};
    auto done = std::async(std::launch::async, [&] { return configure_recorder(*m_, sp, plan, WAIT); });
    std::vector<std::pair<uint32_t, std::vector<uint8_t>>> got;
    const fake_port& cal = port(PORT_CAL);
    while (got.empty() || got.back().first != CMD_UPDATE_ENC_VIDEO) {
        std::vector<uint8_t> req = cal.recv();
        ASSERT_GE(req.size(), MSG_HEAD_SIZE);
        msg_head_t h = load_prefix<msg_head_t>(req);
        got.emplace_back(h.cmd, std::vector<uint8_t>(req.begin() + MSG_HEAD_SIZE, req.end()));
        // The slave refuses REC LOW of camera 9.
        bool refuse = h.cmd == CMD_RUN_ENC_VIDEO && load_at<run_video_t>(got.back().second, 0).kind == KIND_REC_LOW &&
                      load_at<run_video_t>(got.back().second, 0).cam == 9;
        h.result = refuse ? -1 : 0;
        std::memcpy(req.data(), &h, sizeof(h));
        ASSERT_TRUE(cal.send(req));
    }
    std::vector<std::string> failed = done.get();
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0], "run-video REC LOW camera 9: result -1");

    // The time first, the cameras' formats, the streams' settings, the
    // switches, the JPEG switches, the glyph rows and the overlay, the
    // update last.
    ASSERT_EQ(got.size(), 1u + 2 + 6 + 8 + 2 + 20 + 1 + 1);
    EXPECT_EQ(got[0].first, CMD_SET_TIME);
    uint64_t now = static_cast<uint64_t>(std::time(nullptr)) * 1000000;
    EXPECT_NEAR(static_cast<double>(load_at<set_time_t>(got[0].second, 0).usec), static_cast<double>(now), 5e6);
    vincaps_t caps = load_at<vincaps_t>(got[2].second, 0);
    EXPECT_EQ(got[2].first, CMD_SET_VINCAPS);
    EXPECT_EQ(caps.cam, 9);
    EXPECT_EQ(caps.xres, 1920);
    EXPECT_EQ(caps.yres, 1080);
    EXPECT_EQ(caps.prog, 1);
    EXPECT_EQ(caps.fps, 30.0);
    // set-video REC of camera 8, byte by byte.
    ASSERT_EQ(got[3].first, CMD_SET_ENC_VIDEO);
    const std::vector<uint8_t>& v = got[3].second;
    ASSERT_GE(v.size(), 17u);
    EXPECT_EQ(load_at<uint32_t>(v, 0), KIND_REC);
    EXPECT_EQ(load_at<float>(v, 4), 30.0f);
    EXPECT_EQ(load_at<int16_t>(v, 8), 1920);
    EXPECT_EQ(load_at<int16_t>(v, 10), 1080);
    EXPECT_EQ(v[12], 8);
    EXPECT_EQ(v[15], 2);
    EXPECT_EQ(v[16], plan.rec.attr);
    enc_video_t low = load_at<enc_video_t>(got[4].second, 0);
    enc_video_t net = load_at<enc_video_t>(got[5].second, 0);
    EXPECT_EQ(low.kind, KIND_REC_LOW);
    EXPECT_EQ(low.width, 704);
    EXPECT_EQ(low.fps, 15.0f);
    EXPECT_EQ(net.kind, KIND_NET_LOW);
    EXPECT_EQ(net.height, 288);
    std::vector<uint32_t> kinds;
    for (size_t k = 9; k < 17; ++k) {
        EXPECT_EQ(got[k].first, CMD_RUN_ENC_VIDEO);
        run_video_t r = load_at<run_video_t>(got[k].second, 0);
        EXPECT_EQ(r.onoff, 1u);
        EXPECT_EQ(r.cam, k < 13 ? 8u : 9u);
        kinds.push_back(r.kind);
    }
    EXPECT_EQ(kinds, (std::vector<uint32_t>{0, 4, 5, 6, 0, 4, 5, 6}));
    for (size_t k = 17; k < 19; ++k) {
        ASSERT_EQ(got[k].first, CMD_RUN_ENC_VIDEO);
        run_video_t r = load_at<run_video_t>(got[k].second, 0);
        EXPECT_EQ(r.kind, KIND_JPEG);
        EXPECT_EQ(r.onoff, 1u);
    }
    // The glyph rows, each 512 bytes, with ink in the digit cells.
    for (uint32_t r = 0; r < 20; ++r) {
        EXPECT_EQ(got[19 + r].first, CMD_SET_TIME_FONT + r);
        EXPECT_EQ(got[19 + r].second.size(), 512u);
    }
    size_t ink = 0;
    for (uint32_t r = 0; r < 20; ++r)
        for (size_t b = 0; b < 32; ++b)  // glyph "0"
            ink += got[19 + r].second[b] != 0;
    EXPECT_GT(ink, 20u);
    ASSERT_EQ(got[39].first, CMD_SET_TIMESTAMP);
    EXPECT_EQ(load_at<timestamp_t>(got[39].second, 0).on, 1);
    EXPECT_EQ(got.back().first, CMD_UPDATE_ENC_VIDEO);
    update_video_t u = load_at<update_video_t>(got.back().second, 0);
    EXPECT_EQ(u.sync, 1);
    EXPECT_EQ(u.fps, 30);
    EXPECT_NEAR(static_cast<double>(u.t), static_cast<double>(now), 5e6);
}

TEST_F(master_test, a_recorder_gives_a_camera_its_own_format_or_leaves_its_rec_off_and_the_jpeg_switch_as_planned)
{
    connect_slave();
    record_plan plan;
    plan.md_threshold = -1;
    plan.overlay = false;
    plan.jpeg_switch = false;
    plan.cameras = {{8, 704, 576, false}, {9, 0, 0, true}};
    slave_plan sp{1, 8, 2, 8};
    auto done = std::async(std::launch::async, [&] { return configure_recorder(*m_, sp, plan, WAIT); });
    std::vector<std::pair<uint32_t, std::vector<uint8_t>>> got;
    const fake_port& cal = port(PORT_CAL);
    while (got.empty() || got.back().first != CMD_UPDATE_ENC_VIDEO) {
        std::vector<uint8_t> req = cal.recv();
        ASSERT_GE(req.size(), MSG_HEAD_SIZE);
        msg_head_t h = load_prefix<msg_head_t>(req);
        got.emplace_back(h.cmd, std::vector<uint8_t>(req.begin() + MSG_HEAD_SIZE, req.end()));
        ASSERT_TRUE(cal.send(req));
    }
    EXPECT_TRUE(done.get().empty());
    std::vector<std::pair<int32_t, int32_t>> formats;
    std::vector<std::vector<uint32_t>> runs(2);  // per camera: kind, onoff
    for (const auto& [cmd, payload] : got) {
        if (cmd == CMD_SET_VINCAPS) {
            vincaps_t c = load_at<vincaps_t>(payload, 0);
            formats.emplace_back(c.xres, c.yres);
        } else if (cmd == CMD_RUN_ENC_VIDEO) {
            run_video_t r = load_at<run_video_t>(payload, 0);
            ASSERT_TRUE(r.cam == 8 || r.cam == 9);
            runs[r.cam - 8].push_back(r.kind * 10 + r.onoff);
        }
    }
    EXPECT_EQ(formats, (std::vector<std::pair<int32_t, int32_t>>{{704, 576}, {0, 0}}));
    // Camera 8: NET LOW and REC LOW on, no REC nor its copy; camera 9 all
    // of them. Both JPEG switches off.
    EXPECT_EQ(runs[0], (std::vector<uint32_t>{41, 61, 20}));
    EXPECT_EQ(runs[1], (std::vector<uint32_t>{1, 41, 51, 61, 20}));
}

TEST_F(master_test, a_recorder_sets_every_cameras_threshold_and_the_masks_of_its_own_cameras)
{
    connect_slave();
    record_plan plan;
    plan.md_threshold = 10;
    plan.masks = {{9, 0.5, 0.25, 0.25, 0.5}, {3, 0, 0, 1, 1}};  // camera 3 is another slave's
    slave_plan sp{1, 8, 2, 8};
    auto done = std::async(std::launch::async, [&] { return configure_recorder(*m_, sp, plan, WAIT); });
    std::vector<std::pair<uint32_t, std::vector<uint8_t>>> got;
    const fake_port& cal = port(PORT_CAL);
    while (got.empty() || got.back().first != CMD_UPDATE_ENC_VIDEO) {
        std::vector<uint8_t> req = cal.recv();
        ASSERT_GE(req.size(), MSG_HEAD_SIZE);
        msg_head_t h = load_prefix<msg_head_t>(req);
        got.emplace_back(h.cmd, std::vector<uint8_t>(req.begin() + MSG_HEAD_SIZE, req.end()));
        ASSERT_TRUE(cal.send(req));
    }
    EXPECT_TRUE(done.get().empty());
    // After the formats: a threshold per camera, then the one mask.
    ASSERT_GE(got.size(), 6u);
    for (int k : {3, 4}) {
        ASSERT_EQ(got[k].first, CMD_SET_MD);
        set_md_t md = load_at<set_md_t>(got[k].second, 0);
        EXPECT_EQ(md.cam, 8 + k - 3);
        EXPECT_EQ(md.threshold, 10);
    }
    ASSERT_EQ(got[5].first, CMD_SET_PRIVACY);
    set_privacy_t p = load_at<set_privacy_t>(got[5].second, 0);
    EXPECT_EQ(p.cam, 9);
    EXPECT_EQ(p.x, 0.5);
    EXPECT_EQ(p.h, 0.5);
    EXPECT_EQ(got[6].first, CMD_SET_ENC_VIDEO);
}

TEST_F(master_test, a_recorder_as_the_notification_callback_writes_what_a_slave_sends)
{
    connect_slave();
    record_plan plan;
    plan.slaves.push_back({1, 0, 2, 2});
    plan.out = dir_ + "/rec";
    recorder rec(plan);
    std::string err;
    ASSERT_EQ(rec.open(&err), 0) << err;
    m_->on_notification([&rec](const notification& n, std::span<const uint8_t> w) { rec.take(n, w); });

    // NET LOW of camera 1 (stream 1 + 2), two frames, as a slave writes them,
    // stamped by their encoder 400 and 200 ms before now.
    time_t now = std::time(nullptr);
    tm b{};
    localtime_r(&now, &b);
    uint32_t ms = static_cast<uint32_t>(b.tm_hour * 3600 + b.tm_min * 60 + b.tm_sec) * 1000;
    const uint64_t now_us = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
    std::vector<uint8_t> a0 = access_unit(1, 7, 0, true, 64, now_us - 400000),
                         a1 = access_unit(1, 7, 1, false, 64, now_us - 200000);
    rec.time_network_from(static_cast<double>(now - 1));
    auto desc = [&](const std::vector<uint8_t>& au, uint32_t t, uint16_t key) {
        return nbuf_desc_t{static_cast<uint16_t>(b.tm_year + 1900), static_cast<uint8_t>(b.tm_mon + 1),
                           static_cast<uint8_t>(b.tm_mday), t, 0, key, 352, 288, 15, 1, 2, 0,
                           static_cast<uint32_t>(au.size()), 0};
    };
    std::span<uint8_t> w = m_->window(1, 2);
    uint32_t off = 0;
    for (auto [au, d] : {std::pair{&a0, desc(a0, ms, 1)}, std::pair{&a1, desc(a1, ms + 66, 0)}}) {
        std::memcpy(w.data() + off, &d, sizeof(d));
        std::memcpy(w.data() + off + sizeof(d), au->data(), au->size());
        off += static_cast<uint32_t>(sizeof(d) + au->size());
    }
    handover();
    ASSERT_TRUE(port(PORT_ENCN).send_msg(0, NOTE_NETWORK, bytes_of(net_note(off, {3, 3}))));
    ASSERT_FALSE(port(PORT_ENCN).recv().empty());  // answered after the recorder took it
    m_->close();
    rec.finish();

    record_summary s = rec.summary();
    EXPECT_EQ(s.all_violations(), 0u) << summary_json(s);
    EXPECT_EQ(s.network_batches, 1u);
    EXPECT_EQ(s.find(1, 1, stream_type::netlow)->frames, 2u);
    // From the encoder's stamp to the file: of two frames the lower is the
    // median, the higher the 99th percentile.
    EXPECT_EQ(s.net_latency_frames, 2u);
    EXPECT_GE(s.net_latency_p99_ms, 400.0);
    EXPECT_LT(s.net_latency_p99_ms, 400.0 + 5000.0);
    EXPECT_LT(s.net_latency_p50_ms, s.net_latency_p99_ms);
    std::ifstream f(plan.out + "/slave1/cam01-netlow.h264", std::ios::binary);
    std::vector<uint8_t> got((std::istreambuf_iterator<char>(f)), {});
    std::vector<uint8_t> want = a0;
    want.insert(want.end(), a1.begin(), a1.end());
    EXPECT_EQ(got, want);
}

}  // namespace
