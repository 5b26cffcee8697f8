// The command loop: one reply per command with id and cmd kept, the rows'
// own argument extraction, the status reply, and what bad commands get.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>

#include "cal/cal.h"
#include "cal/cal_cmd.h"
#include "cal/startup.h"
#include "msg/cal_hsc.h"
#include "platform/hi_mpi_sys.h"
#include "platform/os.h"
#include "platform/sim/fault.h"
#include "tests/support/fake_master.h"
#include "tests/support/test_board.h"
#include "vin/chip.h"

namespace {

using ::testing::HasSubstr;

struct wire_msg {
    uint32_t id;
    uint32_t cmd;
    uint32_t len;
    int32_t result;
    std::vector<unsigned char> payload;
};

wire_msg parse(const std::vector<unsigned char>& m)
{
    wire_msg w{};
    if (m.size() < 16)
        return w;
    uint32_t head[4];
    std::memcpy(head, m.data(), 16);
    w.id = head[0];
    w.cmd = head[1];
    w.len = head[2];
    w.result = static_cast<int32_t>(head[3]);
    w.payload.assign(m.begin() + 16, m.end());
    return w;
}

template <class T>
T at(const std::vector<unsigned char>& p, size_t off)
{
    T v{};
    if (p.size() >= off + sizeof(T))
        std::memcpy(&v, p.data() + off, sizeof(T));
    return v;
}

// What the handlers of modules saw, for the rows that pass arguments on.
struct seen_t {
    int calls = 0;
    int cam = -100, a = 0, b = 0, c = 0, d = 0, e = 0, f = 0;
    double fps = 0;
} g_seen;

class cal_cmd_test : public board_test {
protected:
    // Cameras of the board (board.conf), read when the board opens.
    virtual const char* board_conf() const { return nullptr; }

    void SetUp() override
    {
        if (const char* conf = board_conf()) {
            std::FILE* f = std::fopen(board_.file("board.conf").c_str(), "w");
            std::fputs(conf, f);
            std::fclose(f);
        }
        board_test::SetUp();
        g_seen = {};
        heartbit = 0;
        _init_mem();
        master_ = std::make_unique<fake_master>(board_.path());
        cal_ = cal_new();
        cal_->slave_cam = 8;
        cal_->cam_base = 8;
        cal_->hsc = cal_hsc_new(cal_);
        ASSERT_NE(cal_->hsc, nullptr);
        ASSERT_EQ(parse(master_->recv_msg(MSGPORT_CAL)).cmd, 0x20000u);
    }
    void TearDown() override
    {
        cal_cmd_handlers = {};
        cal_hsc_delete(cal_->hsc);
        cal_->hsc = nullptr;
        kel_thread_delete(cal_->thread_encr);
        kel_thread_delete(cal_->thread_encn);
        delete cal_;
        master_.reset();
        board_test::TearDown();
    }

    // Sends one command, runs one turn of the loop, returns the reply.
    wire_msg command(uint32_t id, uint32_t cmd, std::vector<unsigned char> payload = {})
    {
        std::vector<unsigned char> m(16 + payload.size());
        uint32_t head[4] = {id, cmd, static_cast<uint32_t>(payload.size()), 0x7777};
        std::memcpy(m.data(), head, 16);
        if (!payload.empty())
            std::memcpy(m.data() + 16, payload.data(), payload.size());
        master_->send(MSGPORT_CAL, m.data(), m.size());
        hsc_msg_t msg;
        EXPECT_EQ(cal_cmd_turn(cal_, &msg), 0);
        return parse(master_->recv_msg(MSGPORT_CAL));
    }

    static std::vector<unsigned char> words(std::initializer_list<int32_t> w, size_t size = 0)
    {
        std::vector<unsigned char> p(std::max(size, w.size() * 4));
        if (w.size() > 0)
            std::memcpy(p.data(), w.begin(), w.size() * 4);
        return p;
    }

    cal_t* cal_ = nullptr;
    std::unique_ptr<fake_master> master_;
};

TEST_F(cal_cmd_test, every_code_is_answered_once_in_order_with_id_and_cmd_kept)
{
    std::vector<uint32_t> codes = {0x20001, 0x20002, 0x20003, 0x20004, 0x20100, 0x20101, 0x20200, 0x20201,
                                   0x20202, 0x20300, 0x20301, 0x20302, 0x20303, 0x20305, 0x20306, 0x20307,
                                   0x20308, 0x2030a, 0x20401, 0x20402, 0x20403, 0x20404};
    for (uint32_t c = 0x20380; c <= 0x20393; ++c)
        codes.push_back(c);
    uint32_t id = 100;
    for (uint32_t code : codes) {
        // A payload long enough for every row; the time zone is text.
        std::vector<unsigned char> p(128, 0);
        if (code == 0x20002)
            std::memcpy(p.data(), "CST-8", 6);
        if (code == 0x20300) {
            uint64_t now_us = static_cast<uint64_t>(os_time(nullptr)) * 1000000;
            std::memcpy(p.data(), &now_us, 8);
        }
        wire_msg r = command(id, code, p);
        EXPECT_EQ(r.id, id) << std::hex << code;
        EXPECT_EQ(r.cmd, code);
        ++id;
    }
    // Nothing else is waiting: exactly one reply each.
    EXPECT_FALSE(master_->readable(MSGPORT_CAL, 50));
}

TEST_F(cal_cmd_test, unknown_codes_and_codes_awaiting_their_module_come_back_unchanged_with_result_0)
{
    for (uint32_t code : {0x20304u, 0x20309u, 0x20400u, 0x2FFFFu, 0x20000u, 0x20201u, 0x20308u, 0x20385u}) {
        auto payload = words({11, 22, 33, 44, 55, 66, 77, 88, 99, 1, 2, 3});
        wire_msg r = command(5, code, payload);
        EXPECT_EQ(r.cmd, code);
        EXPECT_EQ(r.result, 0) << std::hex << code;
        EXPECT_EQ(r.len, payload.size());
        EXPECT_EQ(r.payload, payload);
    }
}

TEST_F(cal_cmd_test, rows_hand_their_arguments_to_the_module_handlers)
{
    cal_cmd_handlers.vin_set_caps = [](cal_t*, int cam, int xres, int yres, int prog, double fps, int type) {
        g_seen = {g_seen.calls + 1, cam, xres, yres, prog, type, 0, 0, fps};
        return 7;
    };
    auto caps = words({9, 1280, 720, 1, 0, 0, 0, 3});
    double fps = 25.0;
    std::memcpy(caps.data() + 16, &fps, 8);
    wire_msg r = command(1, HSCC_CAL_SetVincaps, caps);
    EXPECT_EQ(r.result, 7);
    EXPECT_EQ(g_seen.cam, 1);  // camera cam_base + 1 is the slave's camera 1
    EXPECT_EQ(g_seen.a, 1280);
    EXPECT_EQ(g_seen.b, 720);
    EXPECT_EQ(g_seen.c, 1);
    EXPECT_EQ(g_seen.d, 3);
    EXPECT_DOUBLE_EQ(g_seen.fps, 25.0);

    cal_cmd_handlers.vout_set_zoom = [](cal_t*, int cam, int w2, int w3, int x, int y, int w, int h) {
        g_seen = {g_seen.calls + 1, cam, w2, w3, x, y, w, h, 0};
        return -1;
    };
    r = command(2, HSCC_CAL_SetZoom, words({10, 99, 2, 3, 40, 50, 60, 70}));
    EXPECT_EQ(r.result, -1);
    EXPECT_EQ(g_seen.cam, 2);
    EXPECT_EQ((std::vector<int>{g_seen.a, g_seen.b, g_seen.c, g_seen.d, g_seen.e, g_seen.f}),
              (std::vector<int>{2, 3, 40, 50, 60, 70}));

    cal_cmd_handlers.vin_set_md = [](cal_t*, int cam, int threshold) {
        g_seen = {g_seen.calls + 1, cam, threshold, 0, 0, 0, 0, 0, 0};
        return 0;
    };
    command(3, HSCC_CAL_SetMd, words({8, 42}));
    EXPECT_EQ(g_seen.cam, 0);
    EXPECT_EQ(g_seen.a, 42);

    // The decoder's action: 2 for camera word 0, 1 otherwise; flush is 3.
    cal_cmd_handlers.dec_cmd = [](cal_t*, int action, int arg) {
        g_seen = {g_seen.calls + 1, action, arg, 0, 0, 0, 0, 0, 0};
        return 99;
    };
    r = command(4, HSCC_CAL_3531_decstart, words({0, 6}));
    EXPECT_EQ(r.result, 0);  // the loop does not take the decoder's result
    EXPECT_EQ(g_seen.cam, 2);
    EXPECT_EQ(g_seen.a, 6);
    command(5, HSCC_CAL_3531_decstart, words({5, 1}));
    EXPECT_EQ(g_seen.cam, 1);
    command(6, HSCC_CAL_3531_flush, words({0, 0, 3}));
    EXPECT_EQ(g_seen.cam, 3);
    EXPECT_EQ(g_seen.a, 0);

    // One handler for the 20 font codes, told its slot.
    cal_cmd_handlers.enc_copy_timefont = [](cal_t*, const unsigned char* payload, int slot) {
        g_seen = {g_seen.calls + 1, slot, payload[0], 0, 0, 0, 0, 0, 0};
        return 5;
    };
    r = command(7, 0x20393, {0xAB});
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(g_seen.cam, 19);
    EXPECT_EQ(g_seen.a, 0xAB);
    command(8, 0x20380, {0x01});
    EXPECT_EQ(g_seen.cam, 0);

    // StartPcivVo for the spot output calls nothing and answers 0.
    cal_cmd_handlers.vout_pippciv_start = [](cal_t*, hsc_msg_t*) { return ++g_seen.calls, 4; };
    int before = g_seen.calls;
    EXPECT_EQ(command(9, HSCC_CAL_StartPcivVo, words({1})).result, 0);
    EXPECT_EQ(g_seen.calls, before);
    EXPECT_EQ(command(10, HSCC_CAL_StartPcivVo, words({0})).result, 4);
}

TEST_F(cal_cmd_test, rows_trace_their_payload_fields)
{
    std::vector<unsigned char> v(16, 0);
    float fps = 12.5f;
    int16_t w = 704, h = -1;
    std::memcpy(v.data() + 4, &fps, 4);
    std::memcpy(v.data() + 8, &w, 2);
    std::memcpy(v.data() + 10, &h, 2);
    v[12] = 13;
    std::vector<unsigned char> u(16, 0);
    int16_t a = -3, b = 4;
    uint64_t big = 0xF000000000000001ull;
    std::memcpy(u.data(), &a, 2);
    std::memcpy(u.data() + 2, &b, 2);
    std::memcpy(u.data() + 8, &big, 8);

    stdout_capture out;
    command(1, HSCC_CAL_SetEncVideo, v);
    command(2, HSCC_CAL_UpdatEncVideo, u);
    command(3, HSCC_CAL_SetVl, words({17}));
    command(4, HSCC_CAL_3531_avcres, {0xFE, 0xFF});
    std::string text = out.text();
    EXPECT_THAT(text, HasSubstr("HSCC_CAL_SetEncVideo.. ch:13 xres:704 yres:-1 fps:12.5 use_main:0\n"));
    EXPECT_THAT(text, HasSubstr("HSCC_CAL_UpdatEncVideo.. -3 4 17293822569102704641\n"));
    EXPECT_THAT(text, HasSubstr("HSCC_CAL_SetVl cam:17\n"));
    EXPECT_THAT(text, HasSubstr("HSCC_CAL_3531_avcres avc_cnt:-2\n"));
    // The loop's own lines go to syslog only.
    EXPECT_THAT(text, ::testing::Not(HasSubstr("--1--")));
    std::string log = read_file(chip_file("var/log/message"));
    EXPECT_THAT(log, HasSubstr("id:1 cmd:00020301 len:16 --1--"));
    EXPECT_THAT(log, HasSubstr("id:1 cmd:00020301 len:16 --2--"));
}

TEST_F(cal_cmd_test, status_reply_carries_turns_frame_rates_clock_and_media_time)
{
    ASSERT_EQ(chip_init_slave(cal_), 0);
    auto request = words({}, 56);
    std::memset(request.data(), 0xEE, request.size());
    wire_msg s1 = command(1, HSCC_CAL_GetStatus, request);
    wire_msg s2 = command(2, HSCC_CAL_GetStatus, request);
    ASSERT_EQ(s1.len, 56u);
    ASSERT_EQ(s1.payload.size(), 56u);
    EXPECT_EQ(s1.result, 0);
    EXPECT_EQ(at<uint32_t>(s2.payload, 0), at<uint32_t>(s1.payload, 0) + 1);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(at<uint32_t>(s1.payload, 4 + 4 * i), 30u) << i;
    uint32_t clock = at<uint32_t>(s1.payload, 36);
    EXPECT_LE(std::abs(static_cast<long>(clock) - static_cast<long>(os_time(nullptr))), 2);
    uint64_t pts = 0;
    HI_MPI_SYS_GetCurPts(&pts);
    EXPECT_GT(at<uint64_t>(s2.payload, 40), at<uint64_t>(s1.payload, 40));
    EXPECT_LE(at<uint64_t>(s2.payload, 40), pts);
    EXPECT_EQ(at<int32_t>(s1.payload, 48), 0);
    EXPECT_EQ(at<int32_t>(s1.payload, 52), 0);
}

// Cameras 0 .. 3 of the recorder at 25, 12, 15 and 10 frames per second.
class cal_cmd_status_test : public cal_cmd_test {
protected:
    const char* board_conf() const override
    {
        return "# four cameras of their own rates\n"
               "camera 0 1920x1080 p 25\ncamera 1 1920x1080 p 12\n"
               "camera 2 1280x720 p 15\ncamera 3 1920x1080 p 10\n";
    }
};

TEST_F(cal_cmd_status_test, with_eight_cameras_a_failed_query_repeats_the_camera_before)
{
    // The board's cameras 0 .. 3 feed the inputs of a slave whose first
    // camera is 0.
    std::string err;
    ASSERT_EQ(sim_fault_set("HI_MPI_VI_Query@3=a0108005", &err), 0) << err;
    ASSERT_EQ(chip_init_slave(cal_), 0);
    wire_msg s = command(1, HSCC_CAL_GetStatus);
    ASSERT_EQ(s.payload.size(), 56u);
    EXPECT_EQ(at<uint32_t>(s.payload, 4), 25u);
    EXPECT_EQ(at<uint32_t>(s.payload, 8), 12u);
    EXPECT_EQ(at<uint32_t>(s.payload, 12), 12u);  // camera 2's query failed
    EXPECT_EQ(at<uint32_t>(s.payload, 16), 10u);
    EXPECT_EQ(at<uint32_t>(s.payload, 20), 30u);
}

TEST_F(cal_cmd_status_test, with_four_cameras_reads_channels_0_4_8_12_and_keeps_the_rest)
{
    cal_->slave_cam = 4;
    ASSERT_EQ(chip_init_slave(cal_), 0);
    auto request = words({}, 56);
    for (size_t i = 0; i < request.size(); ++i)
        request[i] = static_cast<unsigned char>(i);
    wire_msg s = command(1, HSCC_CAL_GetStatus, request);
    ASSERT_EQ(s.payload.size(), 56u);
    // The bring-up puts the four cameras on channels 0, 2, 14 and 12; of
    // 0, 4, 8 and 12 only 0 (camera 0) and 12 (camera 3) capture, and a
    // failed query repeats the value before it.
    EXPECT_EQ(at<uint32_t>(s.payload, 4), 25u);
    EXPECT_EQ(at<uint32_t>(s.payload, 8), 25u);
    EXPECT_EQ(at<uint32_t>(s.payload, 12), 25u);
    EXPECT_EQ(at<uint32_t>(s.payload, 16), 10u);
    for (size_t i = 20; i < 36; ++i)
        EXPECT_EQ(s.payload[i], i) << i;
}

TEST_F(cal_cmd_test, short_and_broken_commands_are_refused_or_skipped_and_the_loop_goes_on)
{
    // SetDmaInfo with 8 of its 20 bytes: refused, windows untouched.
    wire_msg r = command(1, HSCC_CAL_SetDmaInfo, words({0, 0x10000000}));
    EXPECT_EQ(r.result, -1);
    EXPECT_EQ(cal_->hsc->host_phys_addr[0].load(), 0u);
    EXPECT_EQ(command(2, HSCC_CAL_SetTz, {}).result, -1);
    EXPECT_EQ(command(3, HSCC_CAL_SetTime, words({1})).result, -1);

    // A 10-byte message is no command: a 10 ms pause, no reply.
    unsigned char junk[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    master_->send(MSGPORT_CAL, junk, sizeof(junk));
    hsc_msg_t msg;
    uint32_t turns = heartbit;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(cal_cmd_turn(cal_, &msg), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(10));
    EXPECT_EQ(heartbit, turns + 1);
    EXPECT_FALSE(master_->readable(MSGPORT_CAL, 20));

    // An oversized packet is cut to one message and answered as what it is.
    std::vector<unsigned char> big(4096, 0x5A);
    uint32_t head[4] = {77, 0x2FFFF, 4080, 0};
    std::memcpy(big.data(), head, 16);
    master_->send(MSGPORT_CAL, big.data(), big.size());
    ASSERT_EQ(cal_cmd_turn(cal_, &msg), 0);
    wire_msg cut = parse(master_->recv_msg(MSGPORT_CAL));
    EXPECT_EQ(cut.id, 77u);
    EXPECT_EQ(cut.len, 532u);
    EXPECT_EQ(cut.payload.size(), 532u);

    // A short request never sees an earlier command's bytes.
    cal_cmd_handlers.vin_set_md = [](cal_t*, int cam, int threshold) {
        g_seen = {1, cam, threshold, 0, 0, 0, 0, 0, 0};
        return 0;
    };
    command(4, HSCC_CAL_SetMd, words({9, 5}));
    auto p = words({9, 5});
    p.resize(8);
    command(5, HSCC_CAL_SetMd, p);
    EXPECT_EQ(g_seen.a, 5);
    EXPECT_EQ(command(6, HSCC_CAL_GetDmaInfo).len, 20u);
}

TEST_F(cal_cmd_test, time_zone_text_is_written_as_data_and_never_reaches_a_shell)
{
    const char* tz = "CST-8; touch /tmp/tarvo-pwned";
    std::vector<unsigned char> p(tz, tz + std::strlen(tz));  // no NUL: ends with the payload
    EXPECT_EQ(command(1, HSCC_CAL_SetTz, p).result, 0);
    EXPECT_STREQ(getenv("TZ"), tz);
    EXPECT_EQ(read_file(chip_file("etc/TZ")), std::string(tz) + "\n");
    EXPECT_THAT(read_file(chip_file("shell.log")), ::testing::Not(HasSubstr("CST-8")));
    EXPECT_FALSE(file_exists("/tmp/tarvo-pwned"));
}

TEST_F(cal_cmd_test, set_time_is_answered_0_and_moves_the_board_clock)
{
    uint64_t target = 1000000000ull * 1000000 + 250000;  // 2001-09-09
    std::vector<unsigned char> p(8);
    std::memcpy(p.data(), &target, 8);
    wire_msg r = command(1, HSCC_CAL_SetTime, p);
    EXPECT_EQ(r.result, 0);
    EXPECT_LE(std::abs(static_cast<long>(os_time(nullptr)) - 1000000000L), 2);
    long long offset = std::stoll(read_file(chip_file("clock")));
    EXPECT_LT(offset, -700000000LL * 1000000);
}

}  // namespace
