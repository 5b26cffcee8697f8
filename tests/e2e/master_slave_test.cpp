// A real slave process driven by the master emulator on a temporary board:
// its ports, its announcement, the DMA-info round trips, the status poll and
// a master restart.
#include <gtest/gtest.h>

#include <algorithm>

#include "master/master.h"
#include "tests/support/test_board.h"

using namespace tmaster;

namespace {

constexpr milliseconds START_WAIT{30000};
constexpr milliseconds REPLY_WAIT{5000};
constexpr int CHIP = 2;

TEST(master_slave, slave_announces_after_its_six_ports_serves_commands_and_outlives_a_master_restart)
{
    temp_board_dir board;
    master_options o;
    o.board = board.path();
    master m(o);
    ASSERT_EQ(m.open(), 0) << m.error();
    slave_config c;
    c.binary = TARVO_SLAVE_BINARY;
    c.chip = CHIP;
    c.cam_base = 8;
    ASSERT_GT(m.start_slave(c), 0) << m.error();
    auto console = [&] { return read_file(board.path() + "/chip2.console"); };
    ASSERT_TRUE(m.wait_announcement(CHIP, START_WAIT)) << console();
    slave_info s = *m.slave(CHIP);
    EXPECT_EQ(s.handshakes, 1u);
    EXPECT_EQ(s.first_head.cmd, CMD_ANNOUNCE);
    EXPECT_EQ(s.first_head.len, 0u);
    EXPECT_EQ(s.ports_open_at_first, 0x3Fu) << "the announcement came before all six ports were open";

    // HSCC_CAL_GetDmaInfo: len 20, word 0 = 0, four buffers in the slave's own memory.
    auto expect_dma_info = [&] {
        reply_t rep;
        std::optional<dma_info_t> d = m.get_dma_info(CHIP, REPLY_WAIT, &rep);
        ASSERT_TRUE(d) << "reply of " << rep.payload.size() << " payload bytes";
        EXPECT_EQ(rep.head.len, 20u);
        EXPECT_EQ(d->dma_index, 0u);
        for (uint32_t addr : d->addr)
            EXPECT_TRUE(in_chip_range(CHIP, addr, WINDOW_SIZE)) << std::hex << addr;
    };
    expect_dma_info();
    EXPECT_EQ(m.set_dma_info(CHIP, REPLY_WAIT), 0);

    m.start_status_poll(milliseconds(200));
    EXPECT_TRUE(m.wait_for(CHIP, [](const slave_info& i) { return i.status_polls >= 2; }, START_WAIT));
    m.stop_status_poll();
    EXPECT_EQ(m.slave(CHIP)->status_failures, 0u);

    // After a master restart every port comes back and commands are served;
    // the slave announces only at its start.
    ASSERT_EQ(m.restart(), 0) << m.error();
    auto reconnected = [](const slave_info& i) {
        return std::all_of(i.ports.begin(), i.ports.end(),
                           [](const port_info& p) { return p.open && p.connections == 2; });
    };
    ASSERT_TRUE(m.wait_for(CHIP, reconnected, START_WAIT)) << console();
    EXPECT_EQ(m.slave(CHIP)->announcements, 1u);
    expect_dma_info();
}

}  // namespace
