// Message ports: address rules, open and closed ports, the read length
// rule, the wait for the master and the chip scan.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <thread>

#include "msg/pciv_msg.h"
#include "tests/support/fake_master.h"
#include "tests/support/test_board.h"

namespace {

using ::testing::HasSubstr;

struct head_t {
    uint32_t id, cmd, len;
    int32_t result;
};

class pciv_msg_test : public board_test {
protected:
    void SetUp() override
    {
        board_test::SetUp();
        master_ = std::make_unique<fake_master>(board_.path());
    }
    std::unique_ptr<fake_master> master_;
};

TEST_F(pciv_msg_test, port_addresses_outside_the_table_are_refused)
{
    stdout_capture out;
    EXPECT_EQ(pciv_open_msg(31, 231), 0);  // unreachable target: bound, retried in the background
    for (auto [t, p] : {std::pair{32, 100}, {0, 232}, {0, 99}, {-1, 102}}) {
        EXPECT_EQ(pciv_open_msg(t, p), -1);
        EXPECT_EQ(pciv_close_msg(t, p), -1);
        char msg[548] = {};
        EXPECT_EQ(pciv_read_msg(t, p, msg), -1);
        EXPECT_EQ(pciv_write_msg(t, p, msg), -1);
    }
    std::string text = out.text();
    EXPECT_THAT(text, HasSubstr("success!! target_id:31 port:231"));
    EXPECT_THAT(text, HasSubstr("invalid pci msg port(32,100)!"));
    EXPECT_THAT(text, HasSubstr("invalid pci msg port(0,232)!"));
    EXPECT_THAT(text, HasSubstr("invalid pci msg port(0,99)!"));
}

TEST_F(pciv_msg_test, closed_and_reopened_ports)
{
    char buf[548] = {};
    stdout_capture out;
    EXPECT_EQ(pciv_read_msg(0, 102, buf), -1);
    EXPECT_EQ(pciv_write_msg(0, 102, buf), -1);
    EXPECT_EQ(pciv_close_msg(0, 102), 0);  // closing a closed port does nothing
    EXPECT_EQ(pciv_wait_msg(0, 102, 0), 0);  // nothing to wait on: no hang
    EXPECT_EQ(pciv_open_msg(0, 102), 0);
    EXPECT_EQ(pciv_open_msg(0, 102), -1);
    EXPECT_EQ(pciv_close_msg(0, 102), 0);
    EXPECT_EQ(pciv_msg_port_table[0][2].load(), -1);
    EXPECT_EQ(pciv_read_msg(0, 102, buf), -1);
    std::string text = out.text();
    EXPECT_THAT(text, HasSubstr("you should open msg port before read message!"));
    EXPECT_THAT(text, HasSubstr("you should open msg port before send message !"));
    EXPECT_THAT(text, HasSubstr("[sock_wait] select error :"));
    EXPECT_THAT(text, HasSubstr("pci msg port(0,102) have open!"));
    EXPECT_THAT(text, HasSubstr("target_id:0 port:102"));
}

TEST_F(pciv_msg_test, read_trusts_the_byte_count_and_write_sends_header_plus_len)
{
    ASSERT_EQ(pciv_open_msg(0, 103), 0);
    unsigned char buf[600];
    auto* head = reinterpret_cast<head_t*>(buf);

    // 40 bytes arrive although the sender wrote len 100.
    std::memset(buf, 0, sizeof(buf));
    head_t h{7, 0x20003, 100, 0};
    std::memcpy(buf, &h, sizeof(h));
    ASSERT_EQ(master_->send(103, buf, 40), 40);
    EXPECT_EQ(pciv_wait_msg(0, 103, 0), 1);
    std::memset(buf, 0xEE, sizeof(buf));
    ASSERT_EQ(pciv_read_msg(0, 103, buf), 0);
    EXPECT_EQ(head->id, 7u);
    EXPECT_EQ(head->len, 24u);

    ASSERT_EQ(master_->send(103, &h, 16), 16);
    ASSERT_EQ(pciv_read_msg(0, 103, buf), 0);
    EXPECT_EQ(head->len, 0u);

    // A longer packet is cut to the 548 bytes a read takes.
    std::vector<unsigned char> big(600, 1);
    ASSERT_EQ(master_->send(103, big.data(), big.size()), 600);
    ASSERT_EQ(pciv_read_msg(0, 103, buf), 0);
    EXPECT_EQ(head->len, 532u);

    stdout_capture out;
    ASSERT_EQ(master_->send(103, buf, 10), 10);
    EXPECT_EQ(pciv_read_msg(0, 103, buf), -1);
    EXPECT_THAT(out.text(), HasSubstr("fail!! r:10 < sizeof(head)"));

    head_t zero{1, 2, 0, 0};
    ASSERT_EQ(pciv_write_msg(0, 103, &zero), 0);
    EXPECT_EQ(master_->recv_msg(103).size(), 16u);
    head->len = 533;  // more than a read could ever take: nothing is sent
    EXPECT_EQ(pciv_write_msg(0, 103, buf), -1);
    EXPECT_FALSE(master_->readable(103, 50));
}

TEST_F(pciv_msg_test, wait_connect_waits_for_the_master_then_shakes_hands)
{
    master_.reset();  // no master yet
    int result = -1;
    std::thread t([&] { result = pciv_wait_connect(0); });
    usleep(100 * 1000);
    master_ = std::make_unique<fake_master>(board_.path());
    t.join();
    EXPECT_EQ(result, 0);
    master_->accept_pending();
    auto hellos = master_->hellos();
    ASSERT_EQ(hellos.size(), 1u);
    EXPECT_EQ(hellos[0].magic, 0x3143434Du);
    EXPECT_EQ(hellos[0].chip, 1);
    EXPECT_EQ(hellos[0].port, 1000);
}

TEST_F(pciv_msg_test, scan_lists_this_chip_and_the_reachable_ones)
{
    int local = -1, remote[36], count = -1;
    stdout_capture out;
    ASSERT_EQ(pciv_scan_slave(&local, remote, &count), 0);
    EXPECT_EQ(local, 1);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(remote[0], 0);
    EXPECT_THAT(out.text(), HasSubstr("get pci remote id : 0 "));
}

TEST_F(pciv_msg_test, driver_failures_leave_the_port_closed)
{
    reopen("mcc_open@1=5,HI_MCC_IOC_CONNECT@1=5");
    stdout_capture out;
    EXPECT_EQ(pciv_open_msg(0, 104), -1);
    EXPECT_EQ(pciv_open_msg(0, 104), -1);
    EXPECT_EQ(pciv_msg_port_table[0][4].load(), 0);
    EXPECT_EQ(pciv_open_msg(0, 104), 0);
    std::string text = out.text();
    EXPECT_THAT(text, HasSubstr("open pci msg dev fail!"));
    EXPECT_THAT(text, HasSubstr("HI_MCC_IOC_CONNECT err, target:0, port:104"));
}

}  // namespace
