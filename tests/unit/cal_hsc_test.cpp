// The host-slave channel: start-up against a master, the DMA-info
// handlers, the statistics, and the transfers as the master sees them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "msg/cal_hsc.h"
#include "platform/os.h"
#include "tests/support/fake_master.h"
#include "tests/support/test_board.h"

namespace {

using ::testing::HasSubstr;
constexpr uint32_t MiB = 1u << 20;

std::vector<uint32_t> words(const std::vector<unsigned char>& m, size_t from, size_t n)
{
    std::vector<uint32_t> w(n);
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
    void start(bool with_master = true)
    {
        if (with_master)
            master_ = std::make_unique<fake_master>(board_.path());
        cal_.hsc = cal_hsc_new(&cal_);
        ASSERT_NE(cal_.hsc, nullptr);
    }
    // The master's windows 0 .. 3 at 0, 2, 4 and 6 MiB of its memory; the
    // master answers every notification.
    void set_windows()
    {
        hsc_msg_t msg{};
        msg.len = 20;
        uint32_t w[5] = {2, fake_master::bus(0), fake_master::bus(2 * MiB), fake_master::bus(4 * MiB),
                         fake_master::bus(6 * MiB)};
        std::memcpy(msg.data, w, sizeof(w));
        ASSERT_EQ(cal_hsc_set_dma_info(&cal_, &msg), 0);
        for (int port = MSGPORT_ENCR; port <= MSGPORT_ENCJPG; ++port)
            master_->echo(port);
    }
    std::vector<unsigned char> note(int port)
    {
        auto all = master_->echoed(port);
        return all.empty() ? std::vector<unsigned char>{} : all.back();
    }

    cal_t cal_{};
    std::unique_ptr<fake_master> master_;
};

TEST_F(cal_hsc_test, start_up_waits_for_the_master_opens_six_ports_then_announces)
{
    cal_.slave_cam = 33;
    EXPECT_EQ(cal_hsc_new(&cal_), nullptr);
    cal_.slave_cam = -1;
    EXPECT_EQ(cal_hsc_new(&cal_), nullptr);
    cal_.slave_cam = 32;

    std::thread slave([this] { start(false); });
    usleep(50 * 1000);
    master_ = std::make_unique<fake_master>(board_.path());
    ASSERT_TRUE(master_->readable(MSGPORT_CAL, 5000));
    // Any port opened before the announcement is queued at the listening
    // socket by now.
    master_->accept_pending();
    auto hellos = master_->hellos();
    std::string ports;
    for (auto& h : hellos)
        ports += std::to_string(h.port) + " ";
    ASSERT_EQ(hellos.size(), 7u) << ports;
    EXPECT_EQ(hellos[0].port, 1000);
    for (int k = 1; k < 7; ++k)
        EXPECT_EQ(hellos[k].port, 101 + k);
    auto first = master_->recv_msg(MSGPORT_CAL);
    EXPECT_EQ(words(first, 0, 4), (std::vector<uint32_t>{0, 0x20000, 0, 0}));
    EXPECT_EQ(first.size(), 16u);
    slave.join();

    cal_hsc_t* hsc = cal_.hsc;
    EXPECT_EQ(hsc->num, 32);
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(hsc->phys_addr[k] >> 28, 2u);
        EXPECT_NE(hsc->virt_addr[k], nullptr);
        EXPECT_EQ(hsc->host_phys_addr[k].load(), 0u);
    }
}

TEST_F(cal_hsc_test, commands_are_read_and_answered_with_the_dma_info)
{
    start();
    uint32_t cmd[4] = {9, 0x20003, 0, 0};
    master_->send(MSGPORT_CAL, cmd, sizeof(cmd));
    hsc_msg_t msg;
    ASSERT_EQ(cal_hsc_read_msg(&cal_, &msg), 0);
    EXPECT_EQ(msg.id, 9u);
    EXPECT_EQ(cal_hsc_get_dma_info(&cal_, &msg), 0);
    ASSERT_EQ(cal_hsc_write_msg(&cal_, &msg), 0);
    master_->recv_msg(MSGPORT_CAL);  // the announcement
    auto reply = master_->recv_msg(MSGPORT_CAL);
    const uint32_t* phys = cal_.hsc->phys_addr;
    EXPECT_EQ(words(reply, 0, 9),
              (std::vector<uint32_t>{9, 0x20003, 20, 0, 0, phys[0], phys[1], phys[2], phys[3]}));
    EXPECT_THAT(read_file(chip_file("var/log/message")), HasSubstr("r:0 cmd:00020003"));

    // Word 0 of the request does not move the window base; a short request
    // sets nothing.
    uint32_t set[5] = {2, 0x10000000, 0x10200000, 0x10400000, 0x10600000};
    std::memcpy(msg.data, set, sizeof(set));
    msg.len = 20;
    EXPECT_EQ(cal_hsc_set_dma_info(&cal_, &msg), 0);
    EXPECT_EQ(cal_.hsc->dma_index.load(), 0);
    EXPECT_EQ(cal_.hsc->host_phys_addr[3].load(), 0x10600000u);
    EXPECT_EQ(std::memcmp(msg.data, set, sizeof(set)), 0);
    msg.len = 8;
    set[1] = 0;
    std::memcpy(msg.data, set, sizeof(set));
    EXPECT_EQ(cal_hsc_set_dma_info(&cal_, &msg), -1);
    EXPECT_EQ(cal_.hsc->host_phys_addr[0].load(), 0x10000000u);
}

TEST_F(cal_hsc_test, statistics_print_once_per_ten_second_slot)
{
    cal_hsc_t hsc{};
    hsc.size = sizeof(cal_hsc_t);
    timeval tv{1000005, 0};
    os_settimeofday(&tv);
    stdout_capture out;
    _calc_dma(&hsc, 0, 100, 0);  // last_time starts at 0: a line at once
    _calc_dma(&hsc, 1000, 0, 0);
    _calc_dma(&hsc, 2000, 0, 0);
    _calc_dma(&hsc, 3000, 0, 0);
    tv.tv_sec = 1000012;
    os_settimeofday(&tv);
    _calc_dma(&hsc, 4000, 0, 0);
    _calc_dma(&hsc, 0, 0, 7);
    std::string text = out.text();
    EXPECT_THAT(text, HasSubstr("> ebuf:0,0 nbuf:1,100 jpg:0,0 total:1,100 (0,10)\n"));
    EXPECT_THAT(text, HasSubstr("> ebuf:4,10000 nbuf:0,0 jpg:0,0 total:4,10000 (0,1000)\n"));
    EXPECT_EQ(text.find("jpg:1"), std::string::npos);
    EXPECT_EQ(hsc.cnt[2], 1);
    EXPECT_EQ(hsc.bytes[2], 7);
}

TEST_F(cal_hsc_test, before_the_windows_nothing_is_sent_and_the_data_stays_with_the_caller)
{
    start();
    ebuf_t* e = ebuf_malloc(0);
    unsigned char* frame = nbuf_malloc(100);
    nbuf_desc_t nd{};
    nd.len = 100;
    nd.data = frame;
    int ch = 1;
    jpg_desc_t jd{1, 0, 10, static_cast<unsigned char*>(std::malloc(10))};
    EXPECT_EQ(cal_hsc_send_ebuf(&cal_, e), -1);
    EXPECT_EQ(cal_hsc_send_nbuf(&cal_, &ch, &nd, 1, 128), -1);
    EXPECT_EQ(cal_hsc_send_jpg(&cal_, &ch, &jd, 1, 10), -1);
    for (int port : {MSGPORT_ENCR, MSGPORT_ENCN, MSGPORT_ENCJPG})
        EXPECT_FALSE(master_->readable(port, 50));
    EXPECT_EQ(nbuf_get_cnt(), 1);
    nbuf_free(frame, 100);  // still ours
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

    std::vector<unsigned char> expect(reinterpret_cast<unsigned char*>(e),
                                      reinterpret_cast<unsigned char*>(e) + EBUF_HEADER_SIZE + 300);
    uint32_t off[2] = {0, 100};
    std::memcpy(&expect[40], &off[0], 4);
    std::memcpy(&expect[80], &off[1], 4);
    EXPECT_EQ(std::memcmp(master_->mem(2 * MiB), expect.data(), expect.size()), 0);
    EXPECT_EQ(e->mmd[1].data, ptr32(e->buf + 100));  // the caller's record is untouched
    EXPECT_EQ(words(note(MSGPORT_ENCR), 0, 8), (std::vector<uint32_t>{0, 0x30000, 16, 0, 1, 22404, 2, 0}));

    e->num_mmd = 0;
    e->buf_off = 0;
    ASSERT_EQ(cal_hsc_send_ebuf(&cal_, e), 0);
    EXPECT_EQ(words(note(MSGPORT_ENCR), 16, 3), (std::vector<uint32_t>{1, 22104, 0}));
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
    uint32_t at = 0;
    for (int k = 0; k < 3; ++k) {
        uint16_t year;
        uint32_t len, data;
        std::memcpy(&year, w + at, 2);
        std::memcpy(&len, w + at + 20, 4);
        std::memcpy(&data, w + at + 24, 4);
        EXPECT_EQ(year, 2024 + k);
        EXPECT_EQ(len, 100u * (k + 1));
        EXPECT_EQ(data, addr[k]);
        EXPECT_EQ(w[at + 28], 'a' + k);
        EXPECT_EQ(w[at + 28 + len - 1], 'a' + k);
        at += 28 + len;
    }
    EXPECT_EQ(at, 684u);
    auto m = note(MSGPORT_ENCN);
    ASSERT_EQ(m.size(), 156u);
    EXPECT_EQ(words(m, 0, 7), (std::vector<uint32_t>{0, 0x40000, 140, 0, 2, 684, 3}));
    EXPECT_EQ(std::vector<unsigned char>(m.begin() + 28, m.begin() + 32), (std::vector<unsigned char>{5, 44, 7, 0}));
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
    ASSERT_EQ(cal_hsc_send_jpg(&cal_, ch, d, 2, 12000), 0);  // the blocks are freed (leak checks see it)
    EXPECT_EQ(master_->mem(0)[4999], 'p');
    EXPECT_EQ(master_->mem(0)[5000], 'q');
    EXPECT_EQ(master_->mem(0)[11999], 'q');
    auto m = note(MSGPORT_ENCJPG);
    ASSERT_EQ(m.size(), 228u);
    EXPECT_EQ(words(m, 0, 9), (std::vector<uint32_t>{0, 0x60000, 212, 0, 0, 12000, 2, 3, 4}));
    EXPECT_EQ(words(m, 68, 8), (std::vector<uint32_t>{1, 1234, 5000, 0, 0, 1235, 7000, 5000}));
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
    EXPECT_EQ(words(m, 0, 5), (std::vector<uint32_t>{0, 0x50000, 132, 0, 17}));
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
    uint32_t cmd[5] = {3, 0x20001, 4, 0, 77};
    master_->send(MSGPORT_CAL, cmd, sizeof(cmd));
    hsc_msg_t msg;
    ASSERT_EQ(cal_hsc_read_msg(&cal_, &msg), 0);
    ASSERT_EQ(cal_hsc_write_msg(&cal_, &msg), 0);
    EXPECT_EQ(words(master_->recv_msg(MSGPORT_CAL), 0, 5), (std::vector<uint32_t>{3, 0x20001, 4, 0, 77}));
}

TEST_F(cal_hsc_test, a_port_that_cannot_open_stops_the_rest)
{
    reopen("HI_MCC_IOC_CONNECT@3=5");  // the handshake, 102, then 103 fails
    stdout_capture out;
    start();
    EXPECT_THAT(out.text(), HasSubstr("pciv_open_msg MSGPORT_ENCR failed.. r:-1"));
    EXPECT_GT(pciv_msg_port_table[0][2].load(), 0);
    EXPECT_EQ(pciv_msg_port_table[0][4].load(), 0);
    EXPECT_EQ(words(master_->recv_msg(MSGPORT_CAL), 0, 2), (std::vector<uint32_t>{0, 0x20000}));
}

TEST_F(cal_hsc_test, broken_objects_and_missing_buffers_are_fatal)
{
    EXPECT_FATAL(cal_hsc_delete(nullptr), "hsc is NULL");
    cal_hsc_t hsc{};
    EXPECT_FATAL(cal_hsc_delete(&hsc), "size != sizeof\\(cal_hsc_t\\)");
    reopen("HI_MPI_PCIV_Malloc=a026800c");
    EXPECT_FATAL(cal_hsc_new(&cal_), "PCIV_Malloc failed");
}

}  // namespace
