// The host-slave channel: start-up against a master, the DMA-info
// handlers, the statistics, and the transfers as the master sees them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "msg/cal_hsc.h"
#include "platform/os.h"
#include "tests/support/fake_master.h"
#include "tests/support/test_board.h"

namespace {

using ::testing::HasSubstr;
using u32s = std::vector<uint32_t>;
constexpr uint32_t MiB = 1u << 20;

u32s words(const fake_master::bytes& m, size_t from, size_t n)
{
    u32s w(n);
    if (m.size() >= from + 4 * n)
        std::memcpy(w.data(), m.data() + from, 4 * n);
    return w;
}

class cal_hsc_test : public board_test {
protected:
    void SetUp() override
    {
        board_test::SetUp();
        cal_.size = sizeof(cal_t);
        cal_.slave_cam = 32;
    }
    void TearDown() override
    {
        if (cal_.hsc != nullptr)
            cal_hsc_delete(cal_.hsc);
        master_.reset();
        board_test::TearDown();
    }
    void start()
    {
        if (!master_)
            master_.emplace(board_.path());
        cal_.hsc = cal_hsc_new(&cal_);
    }
    // Windows 0 .. 3 at 0, 2, 4 and 6 MiB of the master's memory; the
    // master answers every notification.
    void set_windows()
    {
        hsc_msg_t msg{};
        msg.len = 20;
        u32s w = {2, fake_master::bus(0), fake_master::bus(2 * MiB), fake_master::bus(4 * MiB),
                  fake_master::bus(6 * MiB)};
        std::memcpy(msg.data, w.data(), 20);
        ASSERT_EQ(cal_hsc_set_dma_info(&cal_, &msg), 0);
        for (int port = MSGPORT_ENCR; port <= MSGPORT_ENCJPG; ++port)
            master_->echo(port);
    }
    fake_master::bytes note(int port)
    {
        auto all = master_->echoed(port);
        return all.empty() ? fake_master::bytes{} : all.back();
    }

    cal_t cal_{};
    std::optional<fake_master> master_;
};

TEST_F(cal_hsc_test, start_up_waits_for_the_master_opens_six_ports_then_announces)
{
    for (int n : {33, -1}) {
        cal_.slave_cam = n;
        EXPECT_EQ(cal_hsc_new(&cal_), nullptr);
    }
    cal_.slave_cam = 32;
    std::thread slave([this] { cal_.hsc = cal_hsc_new(&cal_); });
    usleep(50 * 1000);
    master_.emplace(board_.path());
    ASSERT_TRUE(master_->readable(MSGPORT_CAL, 5000));
    // A port opened before the announcement waits at the listening socket.
    master_->accept_pending();
    std::string ports;
    for (auto& h : master_->hellos())
        ports += std::to_string(h.port) + " ";
    EXPECT_EQ(ports, "1000 102 103 104 105 106 107 ");
    auto first = master_->recv_msg(MSGPORT_CAL);
    EXPECT_EQ(first.size(), 16u);
    EXPECT_EQ(words(first, 0, 4), (u32s{0, 0x20000, 0, 0}));
    slave.join();
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(cal_.hsc->phys_addr[k] >> 28, 2u);  // chip 1's memory
        EXPECT_NE(cal_.hsc->virt_addr[k], nullptr);
    }
}

TEST_F(cal_hsc_test, commands_are_read_and_answered_and_the_windows_set)
{
    start();
    u32s cmd = {9, 0x20003, 0, 0};
    master_->send(MSGPORT_CAL, cmd.data(), 16);
    hsc_msg_t msg;
    ASSERT_EQ(cal_hsc_read_msg(&cal_, &msg), 0);
    EXPECT_EQ(cal_hsc_get_dma_info(&cal_, &msg), 0);
    ASSERT_EQ(cal_hsc_write_msg(&cal_, &msg), 0);
    master_->recv_msg(MSGPORT_CAL);  // the announcement
    const uint32_t* phys = cal_.hsc->phys_addr;
    EXPECT_EQ(words(master_->recv_msg(MSGPORT_CAL), 0, 9), (u32s{9, 0x20003, 20, 0, 0, phys[0], phys[1], phys[2], phys[3]}));
    EXPECT_THAT(read_file(chip_file("var/log/message")), HasSubstr("r:0 cmd:00020003"));

    // Word 0 does not move the window base; a short request sets nothing.
    u32s set = {2, 0x10000000, 0x10200000, 0x10400000, 0x10600000};
    std::memcpy(msg.data, set.data(), 20);
    msg.len = 20;
    EXPECT_EQ(cal_hsc_set_dma_info(&cal_, &msg), 0);
    EXPECT_EQ(cal_.hsc->dma_index.load(), 0);
    EXPECT_EQ(cal_.hsc->host_phys_addr[3].load(), 0x10600000u);
    EXPECT_EQ(words({msg.data, msg.data + 20}, 0, 5), set);  // the reply carries it back
    msg.len = 8;
    std::memset(msg.data, 0, 20);
    EXPECT_EQ(cal_hsc_set_dma_info(&cal_, &msg), -1);
    EXPECT_EQ(cal_.hsc->host_phys_addr[0].load(), 0x10000000u);
}

TEST_F(cal_hsc_test, statistics_print_once_per_ten_second_slot)
{
    cal_hsc_t hsc{};
    timeval tv{1000005, 0};
    os_settimeofday(&tv);
    stdout_capture out;
    _calc_dma(&hsc, 0, 100, 0);  // last_time starts at 0: a line at once
    for (int e : {1000, 2000, 3000})
        _calc_dma(&hsc, e, 0, 0);
    tv.tv_sec = 1000012;
    os_settimeofday(&tv);
    _calc_dma(&hsc, 4000, 0, 0);
    _calc_dma(&hsc, 0, 0, 7);
    std::string text = out.text();
    EXPECT_THAT(text, HasSubstr("> ebuf:0,0 nbuf:1,100 jpg:0,0 total:1,100 (0,10)\n"));
    EXPECT_THAT(text, HasSubstr("> ebuf:4,10000 nbuf:0,0 jpg:0,0 total:4,10000 (0,1000)\n"));
    EXPECT_EQ(text.find("jpg:1"), std::string::npos);
    EXPECT_EQ(hsc.cnt[2], 1);
}

TEST_F(cal_hsc_test, before_the_windows_nothing_is_sent_and_the_data_stays_with_the_caller)
{
    start();
    ebuf_t* e = ebuf_malloc(0);
    int ch = 1;
    nbuf_desc_t nd{};
    nd.len = 100;
    nd.data = nbuf_malloc(100);
    jpg_desc_t jd{1, 0, 10, static_cast<unsigned char*>(std::malloc(10))};
    EXPECT_EQ(cal_hsc_send_ebuf(&cal_, e), -1);
    EXPECT_EQ(cal_hsc_send_nbuf(&cal_, &ch, &nd, 1, 128), -1);
    EXPECT_EQ(cal_hsc_send_jpg(&cal_, &ch, &jd, 1, 10), -1);
    for (int port : {MSGPORT_ENCR, MSGPORT_ENCN, MSGPORT_ENCJPG})
        EXPECT_FALSE(master_->readable(port, 50));
    EXPECT_EQ(nbuf_get_cnt(), 1);
    nbuf_free(nd.data, 100);  // all still the caller's to release
    std::free(jd.data);
    ebuf_free(e);
}

TEST_F(cal_hsc_test, record_buffer_lands_whole_with_frame_offsets)
{
    start();
    set_windows();
    ebuf_t* e = ebuf_malloc(1000);
    std::memset(e, 0x5A, EBUF_HEADER_SIZE + 300);
    e->num_mmd = 2;
    e->buf_off = 300;
    e->buf_size = 1000;
    e->mmd[0].data = ptr32(e->buf);
    e->mmd[1].data = ptr32(e->buf + 100);
    ASSERT_EQ(cal_hsc_send_ebuf(&cal_, e), 0);
    fake_master::bytes expect(reinterpret_cast<unsigned char*>(e),
                              reinterpret_cast<unsigned char*>(e) + EBUF_HEADER_SIZE + 300);
    std::memset(&expect[40], 0, 4);  // frame 0 at offset 0 of buf
    expect[80] = 100;                // frame 1 at 100
    std::memset(&expect[81], 0, 3);
    EXPECT_EQ(std::memcmp(master_->mem(2 * MiB), expect.data(), expect.size()), 0);
    EXPECT_EQ(e->mmd[1].data, ptr32(e->buf + 100));  // the caller's record is untouched
    EXPECT_EQ(words(note(MSGPORT_ENCR), 0, 8), (u32s{0, 0x30000, 16, 0, 1, 22404, 2, 0}));

    e->num_mmd = 0;
    e->buf_off = 0;
    ASSERT_EQ(cal_hsc_send_ebuf(&cal_, e), 0);
    EXPECT_EQ(words(note(MSGPORT_ENCR), 16, 3), (u32s{1, 22104, 0}));
    ebuf_free(e);
}

TEST_F(cal_hsc_test, network_batch_lands_descriptor_then_data_and_frees_each_frame)
{
    start();
    set_windows();
    int ch[3] = {5, 300, 7};
    nbuf_desc_t d[3] = {};
    uint32_t addr[3];
    for (int k = 0; k < 3; ++k) {
        d[k].year = static_cast<uint16_t>(2024 + k);
        d[k].len = 100u * (k + 1);
        d[k].data = nbuf_malloc(static_cast<int>(d[k].len));
        std::memset(d[k].data, 'a' + k, d[k].len);
        addr[k] = ptr32(d[k].data);
    }
    ASSERT_EQ(cal_hsc_send_nbuf(&cal_, ch, d, 3, 684), 0);
    EXPECT_EQ(nbuf_get_cnt(), 0);
    EXPECT_EQ(nbuf_get_total_size(), 0);

    const unsigned char* w = master_->mem(4 * MiB);
    for (int k = 0, at = 0; k < 3; at += 28 + 100 * (k + 1), ++k) {
        EXPECT_EQ(w[at] | w[at + 1] << 8, 2024 + k);
        EXPECT_EQ(words({w + at, w + at + 28}, 20, 2), (u32s{100u * (k + 1), addr[k]}));
        EXPECT_EQ(w[at + 28], 'a' + k);
        EXPECT_EQ(w[at + 27 + 100 * (k + 1)], 'a' + k);
    }
    auto m = note(MSGPORT_ENCN);
    ASSERT_EQ(m.size(), 156u);
    EXPECT_EQ(words(m, 0, 8), (u32s{0, 0x40000, 140, 0, 2, 684, 3, 5 | 44 << 8 | 7 << 16}));
}

TEST_F(cal_hsc_test, jpeg_batch_lands_back_to_back_with_window_offsets_in_the_descriptors)
{
    start();
    set_windows();
    int ch[2] = {3, 4};
    jpg_desc_t d[2] = {{1, 1234, 5000, nullptr}, {0, 1235, 7000, nullptr}};
    for (int k = 0; k < 2; ++k) {
        d[k].data = static_cast<unsigned char*>(std::malloc(d[k].len));
        std::memset(d[k].data, 'p' + k, d[k].len);
    }
    ASSERT_EQ(cal_hsc_send_jpg(&cal_, ch, d, 2, 12000), 0);  // the blocks are freed: leak checks see it
    EXPECT_EQ(master_->mem(0)[4999], 'p');
    EXPECT_EQ(master_->mem(0)[5000], 'q');
    EXPECT_EQ(master_->mem(0)[11999], 'q');
    auto m = note(MSGPORT_ENCJPG);
    ASSERT_EQ(m.size(), 228u);
    EXPECT_EQ(words(m, 0, 9), (u32s{0, 0x60000, 212, 0, 0, 12000, 2, 3, 4}));
    EXPECT_EQ(words(m, 68, 8), (u32s{1, 1234, 5000, 0, 0, 1235, 7000, 5000}));
}

TEST_F(cal_hsc_test, motion_report_travels_in_the_message_and_oversized_batches_are_refused)
{
    start();
    set_windows();
    unsigned char body[128];
    for (int i = 0; i < 128; ++i)
        body[i] = static_cast<unsigned char>(i);
    EXPECT_EQ(cal_hsc_send_md(&cal_, 17, body), 0);
    auto m = note(MSGPORT_VIN);
    ASSERT_EQ(m.size(), 148u);
    EXPECT_EQ(words(m, 0, 5), (u32s{0, 0x50000, 132, 0, 17}));
    EXPECT_EQ(std::memcmp(m.data() + 20, body, 128), 0);

    int ch[129] = {};
    nbuf_desc_t nd[129] = {};
    jpg_desc_t jd[11] = {};
    nd[0].len = nd[1].len = 1100000;
    nd[0].data = nd[1].data = body;  // never read: the batch is refused first
    stdout_capture out;
    EXPECT_EQ(cal_hsc_send_nbuf(&cal_, ch, nd, 129, 0), -1);
    EXPECT_EQ(cal_hsc_send_nbuf(&cal_, ch, nd, 2, 2096000), -1);
    EXPECT_EQ(cal_hsc_send_jpg(&cal_, ch, jd, 11, 0), -1);
    EXPECT_THAT(out.text(), HasSubstr("refused.. n:2 bytes:2200056 > 2097152"));
    EXPECT_FALSE(master_->readable(MSGPORT_ENCN, 50));
    EXPECT_TRUE(master_->echoed(MSGPORT_ENCJPG).empty());
}

TEST_F(cal_hsc_test, a_restarted_master_is_served_again)
{
    start();
    master_->restart();
    for (int port = MSGPORT_CAL; port <= MSGPORT_DEC; ++port)
        ASSERT_GE(master_->conn(port), 0) << port;
    u32s cmd = {3, 0x20001, 4, 0, 77};
    master_->send(MSGPORT_CAL, cmd.data(), 20);
    hsc_msg_t msg;
    ASSERT_EQ(cal_hsc_read_msg(&cal_, &msg), 0);
    ASSERT_EQ(cal_hsc_write_msg(&cal_, &msg), 0);
    EXPECT_EQ(words(master_->recv_msg(MSGPORT_CAL), 0, 5), cmd);
}

TEST_F(cal_hsc_test, a_port_that_cannot_open_stops_the_rest_and_broken_objects_are_fatal)
{
    reopen("HI_MCC_IOC_CONNECT@3=5");  // the handshake, 102, then 103 fails
    stdout_capture out;
    start();
    EXPECT_THAT(out.text(), HasSubstr("pciv_open_msg MSGPORT_ENCR failed.. r:-1"));
    EXPECT_EQ(pciv_msg_port_table[0][4].load(), 0);
    EXPECT_EQ(words(master_->recv_msg(MSGPORT_CAL), 0, 2), (u32s{0, 0x20000}));

    EXPECT_FATAL(cal_hsc_delete(nullptr), "hsc is NULL");
    cal_hsc_t bad{};
    EXPECT_FATAL(cal_hsc_delete(&bad), "size != sizeof\\(cal_hsc_t\\)");
    reopen("HI_MPI_PCIV_Malloc=a026800c");
    EXPECT_FATAL(cal_hsc_new(&cal_), "PCIV_Malloc failed");
}

}  // namespace
