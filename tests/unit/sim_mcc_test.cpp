// The simulated message driver: hellos, whole packets both ways,
// reachability, background connection and reconnection, teardown.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <vector>

#include "platform/mcc.h"
#include "tests/support/fake_master.h"
#include "tests/support/test_board.h"

namespace {

class sim_mcc_test : public board_test {
protected:
    int bind_port(int port, int target = 0)
    {
        int fd = mcc_open(MCC_DEV_NAME, O_RDWR);
        mcc_handle_attr attr{};
        attr.target_id = target;
        attr.port = port;
        attr.priority = 2;
        EXPECT_EQ(mcc_ioctl(fd, HI_MCC_IOC_CONNECT, &attr), 0);
        return fd;
    }
    // One packet of the process's end, or -1 when none came within 2 s.
    ssize_t read_port(int fd, void* buf, size_t size)
    {
        pollfd p{fd, POLLIN, 0};
        return poll(&p, 1, 2000) > 0 ? read(fd, buf, size) : -1;
    }
};

TEST_F(sim_mcc_test, packets_travel_whole_both_ways_and_short_readers_get_the_start)
{
    fake_master master(board_.path());
    int fd = bind_port(105);
    master.accept_pending();  // connected and hello sent before CONNECT returned
    ASSERT_EQ(master.hellos().size(), 1u);
    EXPECT_EQ(master.hellos()[0].port, 105);

    std::vector<unsigned char> big(4096);
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<unsigned char>(i * 7);
    ASSERT_EQ(write(fd, big.data(), big.size()), 4096);
    EXPECT_EQ(master.recv_msg(105), big);

    ASSERT_EQ(master.send(105, big.data(), 4096), 4096);
    ASSERT_EQ(master.send(105, "next", 4), 4);
    unsigned char small[100];
    ASSERT_EQ(read_port(fd, small, sizeof(small)), 100);
    EXPECT_EQ(std::vector<unsigned char>(small, small + 100), std::vector<unsigned char>(big.begin(), big.begin() + 100));
    ASSERT_EQ(read_port(fd, small, sizeof(small)), 4);  // the rest of the long one is gone

    ASSERT_EQ(mcc_close(fd), 0);
    char c;
    EXPECT_EQ(recv(master.conn(105), &c, 1, 0), 0);  // the master sees the port close
}

TEST_F(sim_mcc_test, reachability_probe_sends_no_hello_and_an_absent_master_is_not_spun_on)
{
    int fd = mcc_open(MCC_DEV_NAME, O_RDWR);
    mcc_handle_attr attr{};
    ASSERT_EQ(mcc_ioctl(fd, HI_MCC_IOC_ATTR_INIT, &attr), 0);
    EXPECT_EQ(attr.remote_id[0], -1);
    auto start = std::chrono::steady_clock::now();
    EXPECT_NE(mcc_ioctl(fd, HI_MCC_IOC_CHECK, &attr), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(8));

    fake_master master(board_.path());
    EXPECT_EQ(mcc_ioctl(fd, HI_MCC_IOC_CHECK, &attr), 0);
    EXPECT_EQ(mcc_ioctl(fd, HI_MCC_IOC_GET_LOCAL_ID, &attr), 1);
    ASSERT_EQ(mcc_ioctl(fd, HI_MCC_IOC_GET_REMOTE_ID, &attr), 0);
    EXPECT_EQ(attr.remote_id[0], 0);
    EXPECT_EQ(attr.remote_id[1], -1);
    master.accept_pending();
    EXPECT_TRUE(master.hellos().empty());
    mcc_close(fd);

    EXPECT_EQ(mcc_open("/dev/other", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(sim_mcc_test, a_master_that_comes_late_or_restarts_is_connected_again_with_a_hello)
{
    int fd = bind_port(104);  // nobody listens yet: bound all the same
    fake_master master(board_.path());
    ASSERT_GE(master.conn(104), 0);

    master.restart();
    ASSERT_GE(master.conn(104), 0);
    auto hellos = master.hellos();
    ASSERT_EQ(hellos.size(), 2u);
    EXPECT_EQ(hellos[1].port, 104);
    EXPECT_EQ(hellos[1].chip, 1);

    ASSERT_EQ(write(fd, "ping", 4), 4);
    EXPECT_EQ(master.recv_msg(104).size(), 4u);
    ASSERT_EQ(master.send(104, "pong", 4), 4);
    char buf[8];
    EXPECT_EQ(read_port(fd, buf, sizeof(buf)), 4);
    mcc_close(fd);

    // The handshake connection, once the master has closed it, stays closed.
    int hs = bind_port(1000);
    master.accept_pending();
    usleep(50 * 1000);
    master.accept_pending();
    EXPECT_EQ(master.hellos().size(), 3u);
    mcc_close(hs);
}

TEST_F(sim_mcc_test, binding_limits_and_injected_failures)
{
    fake_master master(board_.path());
    std::vector<int> fds;
    for (int p = 0; p < 8; ++p)
        fds.push_back(bind_port(110 + p));
    int extra = mcc_open(MCC_DEV_NAME, O_RDWR);
    mcc_handle_attr attr{0, 120, 2, {}};
    EXPECT_EQ(mcc_ioctl(extra, HI_MCC_IOC_CONNECT, &attr), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(mcc_ioctl(fds[0], HI_MCC_IOC_CONNECT, &attr), -1);  // bound already
    mcc_close(fds[0]);
    EXPECT_EQ(mcc_ioctl(extra, HI_MCC_IOC_CONNECT, &attr), 0);
    EXPECT_EQ(mcc_close(-5), -1);

    reopen("HI_MCC_IOC_CONNECT=10");
    int fd = mcc_open(MCC_DEV_NAME, O_RDWR);
    attr.port = 121;
    EXPECT_EQ(mcc_ioctl(fd, HI_MCC_IOC_CONNECT, &attr), -1);
    EXPECT_EQ(master.conn(121, 50), -1);  // no effect
}

}  // namespace
