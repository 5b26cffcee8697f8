// A real slave process driven by the master emulator on a temporary board:
// its ports, its announcement, the DMA-info round trip and a master restart.
#include <gtest/gtest.h>

#include <memory>

#include "master/master.h"
#include "tests/support/test_board.h"

using namespace tmaster;

namespace {

constexpr milliseconds START_WAIT{30000};
constexpr milliseconds REPLY_WAIT{5000};

class master_slave : public ::testing::Test {
protected:
    void SetUp() override
    {
        master_options o;
        o.board = board_.path();
        m_ = std::make_unique<master>(o);
        ASSERT_EQ(m_->open(), 0) << m_->error();
        slave_config c;
        c.binary = TARVO_SLAVE_BINARY;
        c.chip = chip_;
        c.cam_base = 8 * (chip_ - 1);
        ASSERT_GT(m_->start_slave(c), 0) << m_->error();
        ASSERT_TRUE(m_->wait_ports(chip_, START_WAIT)) << console();
    }
    void TearDown() override { m_->close(); }

    std::string console() const
    {
        return "console of chip " + std::to_string(chip_) + ":\n" +
               read_file(board_.path() + "/chip" + std::to_string(chip_) + ".console");
    }

    temp_board_dir board_;
    int chip_ = 2;
    std::unique_ptr<master> m_;
};

TEST_F(master_slave, slave_opens_six_ports_then_announces_as_its_first_message)
{
    ASSERT_TRUE(m_->wait_announcement(chip_, START_WAIT)) << console();
    slave_info s = *m_->slave(chip_);
    EXPECT_TRUE(s.all_ports_open());
    EXPECT_EQ(s.handshakes, 1u);
    for (const port_info& p : s.ports)
        EXPECT_EQ(p.connections, 1u);
    ASSERT_TRUE(s.first_seen);
    EXPECT_EQ(s.first_head.cmd, CMD_ANNOUNCE);
    EXPECT_EQ(s.first_head.id, 0u);
    EXPECT_EQ(s.first_head.len, 0u);
    EXPECT_EQ(s.first_head.result, 0);
    EXPECT_EQ(s.ports_open_at_first, 0x3Fu) << "the announcement came before all six ports were open";
    EXPECT_EQ(s.announcements, 1u);
}

TEST_F(master_slave, get_dma_info_reports_four_buffers_in_the_slaves_own_memory)
{
    reply_t rep;
    std::optional<dma_info_t> d = m_->get_dma_info(chip_, REPLY_WAIT, &rep);
    ASSERT_TRUE(d) << "reply of " << rep.payload.size() << " payload bytes";
    EXPECT_EQ(rep.head.len, 20u);
    EXPECT_EQ(rep.payload.size(), 20u);
    EXPECT_EQ(rep.head.cmd, CMD_GET_DMA_INFO);
    EXPECT_EQ(d->dma_index, 0u);
    for (int k = 0; k < NUM_WINDOWS; ++k) {
        EXPECT_TRUE(in_chip_range(chip_, d->addr[k], WINDOW_SIZE)) << "buffer " << k << std::hex << d->addr[k];
        for (int j = 0; j < k; ++j) {
            uint32_t gap = d->addr[k] > d->addr[j] ? d->addr[k] - d->addr[j] : d->addr[j] - d->addr[k];
            EXPECT_GE(gap, WINDOW_SIZE) << "buffers " << j << " and " << k << " overlap";
        }
    }

    reply_t set;
    EXPECT_EQ(m_->set_dma_info(chip_, REPLY_WAIT, &set), 0);
    EXPECT_EQ(set.head.cmd, CMD_SET_DMA_INFO);
}

TEST_F(master_slave, after_a_master_restart_the_slave_reconnects_and_serves_a_round_trip)
{
    ASSERT_TRUE(m_->wait_announcement(chip_, START_WAIT)) << console();
    ASSERT_EQ(m_->restart(), 0) << m_->error();
    ASSERT_TRUE(m_->wait_for(
        chip_,
        [](const slave_info& s) {
            for (const port_info& p : s.ports) {
                if (!p.open || p.connections != 2)
                    return false;
            }
            return true;
        },
        START_WAIT))
        << console();
    // The slave announces only at start.
    EXPECT_EQ(m_->slave(chip_)->announcements, 1u);

    reply_t rep;
    std::optional<dma_info_t> d = m_->get_dma_info(chip_, REPLY_WAIT, &rep);
    ASSERT_TRUE(d) << "reply of " << rep.payload.size() << " payload bytes";
    EXPECT_EQ(rep.head.len, 20u);
    EXPECT_TRUE(in_chip_range(chip_, d->addr[0], WINDOW_SIZE));
}

}  // namespace
