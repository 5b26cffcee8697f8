// The simulated message driver below the port layer: reachability without
// a hello, no spinning on an absent master, background connection and
// reconnection, the handshake connection, the binding limit.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

#include "platform/mcc.h"
#include "tests/support/fake_master.h"
#include "tests/support/test_board.h"

namespace {

class sim_mcc_test : public board_test {
protected:
    int bind_port(int port, int expect = 0)
    {
        int fd = mcc_open(MCC_DEV_NAME, O_RDWR);
        mcc_handle_attr attr{0, port, 2, {}};
        EXPECT_EQ(mcc_ioctl(fd, HI_MCC_IOC_CONNECT, &attr), expect) << port;
        return fd;
    }
};

TEST_F(sim_mcc_test, probes_send_no_hello_and_an_absent_master_is_not_spun_on)
{
    EXPECT_EQ(mcc_open("/dev/other", O_RDWR), -1);
    int fd = mcc_open(MCC_DEV_NAME, O_RDWR);
    mcc_handle_attr attr{};
    ASSERT_EQ(mcc_ioctl(fd, HI_MCC_IOC_ATTR_INIT, &attr), 0);
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
}

TEST_F(sim_mcc_test, late_and_restarted_masters_are_connected_with_a_hello_but_a_closed_handshake_stays_closed)
{
    int fd = bind_port(104);  // nobody listens yet: bound all the same
    fake_master master(board_.path());
    ASSERT_GE(master.conn(104), 0);
    master.restart();
    ASSERT_GE(master.conn(104), 0);
    ASSERT_EQ(write(fd, "ping", 4), 4);
    EXPECT_EQ(master.recv_msg(104).size(), 4u);

    int hs = bind_port(1000);
    master.accept_pending();  // reads its hello and closes it, as a master may
    usleep(50 * 1000);
    master.accept_pending();
    auto hellos = master.hellos();
    ASSERT_EQ(hellos.size(), 3u);
    EXPECT_EQ(hellos[1].magic, 0x3143434Du);
    EXPECT_EQ(hellos[1].chip, 1);
    EXPECT_EQ(hellos[1].port, 104);
    EXPECT_EQ(hellos[2].port, 1000);
    mcc_close(hs);
    mcc_close(fd);
}

TEST_F(sim_mcc_test, at_most_eight_bound_descriptors_and_one_binding_each)
{
    int first = bind_port(110);
    for (int p = 111; p < 118; ++p)
        bind_port(p);
    int extra = bind_port(120, -1);
    EXPECT_EQ(errno, EMFILE);
    mcc_handle_attr attr{0, 121, 2, {}};
    EXPECT_EQ(mcc_ioctl(first, HI_MCC_IOC_CONNECT, &attr), -1);
    mcc_close(first);
    EXPECT_EQ(mcc_ioctl(extra, HI_MCC_IOC_CONNECT, &attr), 0);
}

}  // namespace
