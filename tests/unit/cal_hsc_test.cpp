// The host-slave channel against an in-process master: the statistics, the
// refusals, and the JPEG and motion transfers. The start-up is shown end to
// end, the record and network transfers through the transmit threads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "platform/os.h"
#include "tests/support/core_board.h"

namespace {

using ::testing::HasSubstr;
using u32s = std::vector<uint32_t>;

// n little-endian words of a message from byte `from`; zeros when it is shorter.
u32s words(const fake_master::bytes& m, size_t from, size_t n)
{
    u32s w(n);
    if (m.size() >= from + 4 * n)
        std::memcpy(w.data(), m.data() + from, 4 * n);
    return w;
}

class cal_hsc_test : public core_board_test {
protected:
    // Windows 0 .. 3 at 0, 2, 4 and 6 MiB of the master's memory (word 0 of
    // the request does not move the base); the master answers every note.
    void set_windows()
    {
        hsc_msg_t msg{};
        msg.len = 20;
        u32s w = {2, fake_master::bus(0), fake_master::bus(2 << 20), fake_master::bus(4 << 20),
                  fake_master::bus(6 << 20)};
        std::memcpy(msg.data, w.data(), 20);
        ASSERT_EQ(cal_hsc_set_dma_info(cal_, &msg), 0);
        for (int port = MSGPORT_ENCR; port <= MSGPORT_ENCJPG; ++port)
            master_->echo(port);
    }
};

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
    EXPECT_EQ(text.find("jpg:1"), std::string::npos);  // counted in the new slot, not yet printed
}

TEST_F(cal_hsc_test, refused_before_the_windows_or_when_too_big_nothing_is_sent_and_the_caller_keeps_the_data)
{
    for (int n : {33, -1}) {  // more cameras than a channel serves, or a negative count
        cal_->slave_cam = n;
        EXPECT_EQ(cal_hsc_new(cal_), nullptr) << n;
    }
    cal_->slave_cam = 8;
    ebuf_t* e = ebuf_malloc(0);
    int ch[129] = {};
    nbuf_desc_t nd[129] = {};
    nd[0].len = 100;
    nd[0].data = nd[1].data = nd[2].data = nbuf_malloc(100);
    jpg_desc_t jd[11] = {{1, 0, 10, static_cast<unsigned char*>(std::malloc(10))}};
    EXPECT_EQ(cal_hsc_send_ebuf(cal_, e), -1);
    EXPECT_EQ(cal_hsc_send_nbuf(cal_, ch, nd, 1, 100), -1);
    EXPECT_EQ(cal_hsc_send_jpg(cal_, ch, jd, 1, 10), -1);
    for (int port : {MSGPORT_ENCR, MSGPORT_ENCN, MSGPORT_ENCJPG})
        EXPECT_FALSE(master_->readable(port, 50)) << port;

    set_windows();
    nd[1].len = nd[2].len = 1100000;  // never read: the batch is refused first
    stdout_capture out;
    EXPECT_EQ(cal_hsc_send_nbuf(cal_, ch, nd, 129, 0), -1);
    EXPECT_EQ(cal_hsc_send_nbuf(cal_, ch, nd + 1, 2, 2096000), -1);
    EXPECT_EQ(cal_hsc_send_jpg(cal_, ch, jd, 11, 0), -1);
    // A total other than what the items fill: 28 + 100 for the frame, 10
    // for the picture. More would ship stale window bytes, less cut them.
    for (int total : {127, 129, 0, 100})
        EXPECT_EQ(cal_hsc_send_nbuf(cal_, ch, nd, 1, total), -1) << total;
    for (int total : {9, 11, 2000})
        EXPECT_EQ(cal_hsc_send_jpg(cal_, ch, jd, 1, total), -1) << total;
    const std::string text = out.text();
    EXPECT_THAT(text, HasSubstr("refused.. n:2 bytes:2200056 > 2097152"));
    EXPECT_THAT(text, HasSubstr("refused.. n:1 total:129 but the items fill 128 bytes"));
    EXPECT_THAT(text, HasSubstr("refused.. n:1 total:2000 but the items fill 10 bytes"));
    EXPECT_TRUE(master_->echoed(MSGPORT_ENCN).empty() && master_->echoed(MSGPORT_ENCJPG).empty());
    EXPECT_EQ(nbuf_get_cnt() + ebuf_get_cnt(), 2);
    nbuf_free(nd[0].data, 100);  // all still the caller's to release
    std::free(jd[0].data);
    ebuf_free(e);
}

TEST_F(cal_hsc_test, jpeg_batch_and_motion_report_reach_the_master_byte_exact)
{
    set_windows();
    int ch[2] = {3, 4};
    jpg_desc_t d[2] = {{1, 1234, 5000, nullptr}, {0, 1235, 7000, nullptr}};
    for (int k = 0; k < 2; ++k) {
        d[k].data = static_cast<unsigned char*>(std::malloc(d[k].len));
        std::memset(d[k].data, 'p' + k, d[k].len);
    }
    ASSERT_EQ(cal_hsc_send_jpg(cal_, ch, d, 2, 12000), 0);  // the blocks are freed: leak checks see it
    EXPECT_TRUE(master_->mem(0)[4999] == 'p' && master_->mem(0)[5000] == 'q' && master_->mem(0)[11999] == 'q');
    auto m = master_->echoed(MSGPORT_ENCJPG).at(0);
    ASSERT_EQ(m.size(), 228u);
    EXPECT_EQ(words(m, 0, 9), (u32s{0, 0x60000, 212, 0, 0, 12000, 2, 3, 4}));  // window 0: the base did not move
    EXPECT_EQ(words(m, 68, 8), (u32s{1, 1234, 5000, 0, 0, 1235, 7000, 5000}));

    unsigned char body[128];
    for (int i = 0; i < 128; ++i)
        body[i] = static_cast<unsigned char>(i);
    EXPECT_EQ(cal_hsc_send_md(cal_, 17, body), 0);
    m = master_->echoed(MSGPORT_VIN).at(0);
    ASSERT_EQ(m.size(), 148u);
    EXPECT_EQ(words(m, 0, 5), (u32s{0, 0x50000, 132, 0, 17}));
    EXPECT_EQ(std::memcmp(m.data() + 20, body, 128), 0);
}

}  // namespace
