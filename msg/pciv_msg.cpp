#include "msg/pciv_msg.h"

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cstring>

#include "cal/cal_log.h"
#include "platform/mcc.h"
#include "platform/os.h"

std::atomic<int> pciv_msg_port_table[PCIV_MSG_MAX_TARGET + 1][PCIV_MSG_PORTS];

namespace {

constexpr int k_msg_priority = 2;
constexpr int k_handshake_port = 1000;

bool valid_port(int target, int port)
{
    return target >= 0 && target <= PCIV_MSG_MAX_TARGET && port >= PCIV_MSG_BASE_PORT &&
           port <= PCIV_MSG_MAX_PORT;
}

std::atomic<int>& port_entry(int target, int port)
{
    return pciv_msg_port_table[target][port - PCIV_MSG_BASE_PORT];
}

// True for a valid port address; anything else gets the invalid-port trace.
bool check_port(int target, int port)
{
    if (valid_port(target, port))
        return true;
    TRACE("invalid pci msg port(%d,%d)!\n", target, port);
    return false;
}

}  // namespace

int pciv_open_msg(int target, int port)
{
    if (!check_port(target, port))
        return -1;
    std::atomic<int>& entry = port_entry(target, port);
    if (entry.load() > 0) {
        TRACE("pci msg port(%d,%d) have open!\n", target, port);
        return -1;
    }
    int fd = mcc_open(MCC_DEV_NAME, O_RDWR);
    if (fd < 0) {
        TRACE("open pci msg dev fail!");
        return -1;
    }
    mcc_handle_attr attr{};
    attr.target_id = target;
    attr.port = port;
    attr.priority = k_msg_priority;
    if (mcc_ioctl(fd, HI_MCC_IOC_CONNECT, &attr) != 0) {
        TRACE("HI_MCC_IOC_CONNECT err, target:%d, port:%d\n", target, port);
        mcc_close(fd);
        return -1;
    }
    entry.store(fd);
    TRACE("success!! target_id:%d port:%d\n", target, port);
    return 0;
}

int pciv_close_msg(int target, int port)
{
    if (!check_port(target, port))
        return -1;
    std::atomic<int>& entry = port_entry(target, port);
    int fd = entry.load();
    if (fd <= 0)
        return 0;
    TRACE("target_id:%d port:%d\n", target, port);
    mcc_close(fd);
    entry.store(-1);
    return 0;
}

int pciv_wait_msg(int target, int port, int)
{
    int fd = valid_port(target, port) ? port_entry(target, port).load() : -1;
    if (fd <= 0 || fd >= FD_SETSIZE) {
        TRACE("[sock_wait] select error :");
        return 0;
    }
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    int r = select(fd + 1, &set, nullptr, nullptr, nullptr);
    if (r > 0)
        return 1;
    if (r == 0)
        TRACE("[sock_wait] Time out error");
    else
        TRACE("[sock_wait] select error :");
    return 0;
}

int pciv_read_msg(int target, int port, void* buf)
{
    if (!check_port(target, port))
        return -1;
    int fd = port_entry(target, port).load();
    if (fd <= 0) {
        TRACE("you should open msg port before read message!");
        return -1;
    }
    ssize_t r = read(fd, buf, PCIV_MSG_MAX_SIZE);
    if (r <= 0)
        return -1;
    if (r < PCIV_MSG_HEAD_SIZE) {
        TRACE("fail!! r:%d < sizeof(head)\n", static_cast<int>(r));
        return -1;
    }
    // The byte count is what arrived; the sender's length is not trusted.
    uint32_t len = static_cast<uint32_t>(r - PCIV_MSG_HEAD_SIZE);
    std::memcpy(static_cast<unsigned char*>(buf) + 8, &len, sizeof(len));
    return 0;
}

int pciv_write_msg(int target, int port, const void* msg)
{
    if (!check_port(target, port))
        return -1;
    int fd = port_entry(target, port).load();
    if (fd <= 0) {
        TRACE("you should open msg port before send message !");
        return -1;
    }
    uint32_t len;
    std::memcpy(&len, static_cast<const unsigned char*>(msg) + 8, sizeof(len));
    // A longer payload could not be received in one read, and would take
    // bytes from beyond the sender's message buffer.
    if (len > PCIV_MSG_MAX_PAYLOAD) {
        TRACE("pciv_write_msg len err:%u > %d\n", len, PCIV_MSG_MAX_PAYLOAD);
        return -1;
    }
    ssize_t w = write(fd, msg, PCIV_MSG_HEAD_SIZE + len);
    if (w != static_cast<ssize_t>(PCIV_MSG_HEAD_SIZE + len)) {
        TRACE("pciv_write_msg write_len err:%d\n", static_cast<int>(w));
        return -1;
    }
    return 0;
}

int pciv_wait_connect(int target)
{
    int fd = mcc_open(MCC_DEV_NAME, O_RDWR);
    if (fd < 0) {
        TRACE("open pci msg dev fail!");
        return -1;
    }
    TRACE("target_id:%d  fd:%d\n", target, fd);
    mcc_handle_attr attr{};
    if (mcc_ioctl(fd, HI_MCC_IOC_ATTR_INIT, &attr) != 0) {
        TRACE("initialization for attr failed!");
        mcc_close(fd);
        return -1;
    }
    attr.target_id = target;
    TRACE("start check pci target id:%d  ... ... ... \n", target);
    // No limit: start-up waits as long as the master is absent. The driver's
    // check itself waits a little while the target is unreachable.
    while (mcc_ioctl(fd, HI_MCC_IOC_CHECK, &attr) != 0)
        os_usleep(0);
    TRACE("have checked pci target id:%d ok ! \n", target);
    attr.port = k_handshake_port;
    attr.priority = 0;
    mcc_ioctl(fd, HI_MCC_IOC_CONNECT, &attr);
    mcc_close(fd);
    return 0;
}

int pciv_scan_slave(int* local_id, int* remote_ids, int* count)
{
    int fd = mcc_open(MCC_DEV_NAME, O_RDWR);
    if (fd < 0) {
        TRACE("open mcc dev fail");
        return -1;
    }
    mcc_handle_attr attr{};
    mcc_ioctl(fd, HI_MCC_IOC_ATTR_INIT, &attr);
    *local_id = mcc_ioctl(fd, HI_MCC_IOC_GET_LOCAL_ID, &attr);
    TRACE("pci local id is %d \n", *local_id);
    if (mcc_ioctl(fd, HI_MCC_IOC_GET_REMOTE_ID, &attr) != 0) {
        TRACE("get pci remote id fail ");
        mcc_close(fd);
        return -1;
    }
    int n = 0;
    while (n < MCC_MAX_REMOTE_IDS && attr.remote_id[n] != -1) {
        remote_ids[n] = attr.remote_id[n];
        TRACE("get pci remote id : %d \n", remote_ids[n]);
        ++n;
    }
    *count = n;
    attr.target_id = 5;
    attr.port = 0;
    attr.priority = 0;
    mcc_ioctl(fd, HI_MCC_IOC_CONNECT, &attr);
    TRACE("port:%d\n", attr.port);
    mcc_close(fd);
    return 0;
}
