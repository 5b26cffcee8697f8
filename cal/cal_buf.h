// Stream buffers and their hand-off between threads.
#pragma once

#include <cstdint>

// Messages of the queues MSG_KEY_ENCR and MSG_KEY_ENCN: a type word and a
// 52-byte body; every send and receive uses the full body size.
inline constexpr int TX_MSG_BODY_SIZE = 52;
inline constexpr long MSG_CMD_ENC_DATA = 67;

struct tx_msg_t {
    long type;
    unsigned char body[TX_MSG_BODY_SIZE];
};
