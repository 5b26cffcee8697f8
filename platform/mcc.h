// The PCI message driver: character device "/dev/mcc_userdev".
//
// A descriptor of the device is bound to one message port (target chip,
// port number) with HI_MCC_IOC_CONNECT; afterwards read() delivers one whole
// message, write() sends one whole message and select() reports a waiting
// message. Opening, the control calls and closing go through the functions
// below so that a build without the chip can supply the driver; reads,
// writes and select are plain system calls on the descriptor.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr const char* MCC_DEV_NAME = "/dev/mcc_userdev";
inline constexpr int MCC_MAX_REMOTE_IDS = 36;

// Handle attribute record passed to every control call (156 bytes).
struct mcc_handle_attr {
    int32_t target_id;                       // peer chip
    int32_t port;                            // port number
    int32_t priority;                        // message priority
    int32_t remote_id[MCC_MAX_REMOTE_IDS];   // reachable chips, ends at -1
};
static_assert(sizeof(mcc_handle_attr) == 156);
static_assert(offsetof(mcc_handle_attr, port) == 4);
static_assert(offsetof(mcc_handle_attr, priority) == 8);
static_assert(offsetof(mcc_handle_attr, remote_id) == 12);

// Linux ioctl encoding, write direction, type 'M', record size 156.
constexpr unsigned long mcc_iow(unsigned nr)
{
    return (1ul << 30) | (static_cast<unsigned long>(sizeof(mcc_handle_attr)) << 16) |
           (static_cast<unsigned long>('M') << 8) | nr;
}

inline constexpr unsigned long HI_MCC_IOC_CONNECT = mcc_iow(1);     // bind to (target, port, priority)
inline constexpr unsigned long HI_MCC_IOC_CHECK = mcc_iow(2);       // 0 when target is reachable
inline constexpr unsigned long HI_MCC_IOC_GET_LOCAL_ID = mcc_iow(4);  // result: own chip id
inline constexpr unsigned long HI_MCC_IOC_GET_REMOTE_ID = mcc_iow(5); // fills remote_id[]
inline constexpr unsigned long HI_MCC_IOC_ATTR_INIT = mcc_iow(6);   // driver defaults

static_assert(HI_MCC_IOC_CONNECT == 0x409c4d01);
static_assert(HI_MCC_IOC_CHECK == 0x409c4d02);
static_assert(HI_MCC_IOC_GET_LOCAL_ID == 0x409c4d04);
static_assert(HI_MCC_IOC_GET_REMOTE_ID == 0x409c4d05);
static_assert(HI_MCC_IOC_ATTR_INIT == 0x409c4d06);

// open(2), ioctl(2) and close(2) of the driver's device.
int mcc_open(const char* path, int flags);
int mcc_ioctl(int fd, unsigned long request, mcc_handle_attr* attr);
int mcc_close(int fd);
