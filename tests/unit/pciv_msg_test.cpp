// Message ports over the simulated driver: address rules, open and closed
// ports, the read length rule, the wait for the master and the chip scan.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <sstream>
#include <thread>

#include "msg/pciv_msg.h"
#include "platform/mcc.h"
#include "platform/sim/fault.h"
#include "tests/support/fake_master.h"
#include "tests/support/test_board.h"

namespace {

using ::testing::HasSubstr;

class pciv_msg_test : public board_test {};

TEST_F(pciv_msg_test, port_addresses_outside_the_table_are_refused)
{
    stdout_capture out;
    EXPECT_EQ(pciv_open_msg(31, 231), 0);  // unreachable target: bound, retried in the background
    char msg[548] = {};
    for (auto [t, p] : {std::pair{32, 100}, {0, 232}, {0, 99}, {-1, 102}}) {
        EXPECT_EQ(pciv_open_msg(t, p), -1);
        EXPECT_EQ(pciv_close_msg(t, p), -1);
        EXPECT_EQ(pciv_read_msg(t, p, msg), -1);
        EXPECT_EQ(pciv_write_msg(t, p, msg), -1);
    }
    EXPECT_THAT(out.text(), HasSubstr("invalid pci msg port(0,232)!\n"));
}

TEST_F(pciv_msg_test, closed_ports_and_failed_opens)
{
    char buf[548] = {};
    reopen("mcc_open@1=5,HI_MCC_IOC_CONNECT@1=5");
    stdout_capture out;
    EXPECT_EQ(pciv_read_msg(0, 102, buf), -1);
    EXPECT_EQ(pciv_write_msg(0, 102, buf), -1);
    EXPECT_EQ(pciv_close_msg(0, 102), 0);    // closing a closed port does nothing
    EXPECT_EQ(pciv_wait_msg(0, 102, 0), 0);  // nothing to wait on: no hang
    EXPECT_EQ(pciv_open_msg(0, 102), -1);    // the device does not open
    EXPECT_EQ(pciv_open_msg(0, 102), -1);    // the connect request fails
    EXPECT_EQ(pciv_msg_port_table[0][2].load(), 0);
    EXPECT_EQ(pciv_open_msg(0, 102), 0);
    EXPECT_EQ(pciv_open_msg(0, 102), -1);
    EXPECT_EQ(pciv_close_msg(0, 102), 0);
    EXPECT_EQ(pciv_msg_port_table[0][2].load(), -1);
    std::string text = out.text();
    for (const char* line : {"you should open msg port before read message!\n", "open pci msg dev fail!\n",
                             "HI_MCC_IOC_CONNECT err, target:0, port:102\n", "pci msg port(0,102) have open!\n"})
        EXPECT_THAT(text, HasSubstr(line));
}

TEST_F(pciv_msg_test, read_trusts_the_byte_count_and_write_sends_header_plus_len)
{
    fake_master master(board_.path());
    ASSERT_EQ(pciv_open_msg(0, 103), 0);
    uint32_t head[150] = {7, 0x20003, 100, 0};
    ASSERT_EQ(master.send(103, head, 40), 40);  // len says 100, 40 bytes come
    EXPECT_EQ(pciv_wait_msg(0, 103, 0), 1);
    ASSERT_EQ(pciv_read_msg(0, 103, head), 0);
    EXPECT_EQ(head[0], 7u);
    EXPECT_EQ(head[2], 24u);
    ASSERT_EQ(master.send(103, head, 16), 16);
    ASSERT_EQ(pciv_read_msg(0, 103, head), 0);
    EXPECT_EQ(head[2], 0u);
    ASSERT_EQ(master.send(103, head, 600), 600);  // cut to the 548 a read takes
    ASSERT_EQ(pciv_read_msg(0, 103, head), 0);
    EXPECT_EQ(head[2], 532u);

    stdout_capture out;
    ASSERT_EQ(master.send(103, head, 10), 10);
    EXPECT_EQ(pciv_read_msg(0, 103, head), -1);
    EXPECT_THAT(out.text(), HasSubstr("fail!! r:10 < sizeof(head)\n"));

    head[2] = 0;
    ASSERT_EQ(pciv_write_msg(0, 103, head), 0);
    EXPECT_EQ(master.recv_msg(103).size(), 16u);
    head[2] = 533;  // more than a read could ever take: nothing is sent
    EXPECT_EQ(pciv_write_msg(0, 103, head), -1);
    EXPECT_FALSE(master.readable(103, 50));
}

TEST_F(pciv_msg_test, wait_connect_waits_for_the_master_without_spinning_then_shakes_hands_and_scan_finds_it)
{
    int result = -1;
    std::thread t([&] { result = pciv_wait_connect(0); });
    usleep(100 * 1000);
    fake_master master(board_.path());
    t.join();
    EXPECT_EQ(result, 0);
    EXPECT_LT(sim_fault_calls(SIM_OP_HI_MCC_IOC_CHECK), 30u);  // the driver waits between checks
    master.accept_pending();
    ASSERT_EQ(master.hellos().size(), 1u);
    EXPECT_EQ(master.hellos()[0].port, 1000);

    int local = -1, remote[36], count = -1;
    ASSERT_EQ(pciv_scan_slave(&local, remote, &count), 0);
    EXPECT_TRUE(local == 1 && count == 1 && remote[0] == 0);
}

TEST_F(pciv_msg_test, an_injected_check_failure_waits_like_a_real_one_and_is_reported_once_a_second_with_a_count)
{
    reopen("HI_MCC_IOC_CHECK=A0018006");
    int fd = mcc_open(MCC_DEV_NAME, O_RDWR);
    ASSERT_GE(fd, 0);
    mcc_handle_attr attr{};
    attr.target_id = 0;
    stderr_capture err;
    const auto t0 = std::chrono::steady_clock::now();
    int calls = 0;
    while (std::chrono::steady_clock::now() - t0 < std::chrono::milliseconds(1100)) {
        EXPECT_EQ(mcc_ioctl(fd, HI_MCC_IOC_CHECK, &attr), -1);
        EXPECT_EQ(errno, 0xA0018006);
        ++calls;
    }
    mcc_close(fd);
    // A failed check waits 10 ms, injected or not: about 110 calls, not the
    // hundreds of thousands of a loop that spins.
    EXPECT_LE(calls, 111);
    std::vector<std::string> lines;
    std::istringstream text(err.text());
    for (std::string line; std::getline(text, line);)
        if (line.find("HI_MCC_IOC_CHECK") != std::string::npos)
            lines.push_back(line);
    ASSERT_EQ(lines.size(), 2u) << err.text();
    EXPECT_EQ(lines[0], "sim: HI_MCC_IOC_CHECK call 1 fails with 0xa0018006");
    EXPECT_THAT(lines[1], ::testing::MatchesRegex("sim: HI_MCC_IOC_CHECK call [0-9]+ fails with 0xa0018006 "
                                                  "\\([0-9]+ more failures not reported\\)"));
}

}  // namespace
