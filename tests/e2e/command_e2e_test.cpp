// The command loop of a real slave process, driven by the master emulator:
// every code answered once and in order, unknown codes echoed, the status
// turn counter, and commands that are broken on purpose.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>

#include "master/master.h"
#include "tests/support/test_board.h"

using namespace tmaster;

namespace {

constexpr milliseconds START_WAIT{30000};
constexpr milliseconds REPLY_WAIT{5000};

class command_e2e : public ::testing::Test {
protected:
    void SetUp() override
    {
        master_options o;
        o.board = board_.path();
        m_ = std::make_unique<master>(o);
        ASSERT_EQ(m_->open(), 0) << m_->error();
        slave_config c;
        c.binary = TARVO_SLAVE_BINARY;
        c.chip = 1;
        c.cam_base = 8;
        ASSERT_GT(m_->start_slave(c), 0) << m_->error();
        ASSERT_TRUE(m_->wait_announcement(1, START_WAIT)) << console();
    }
    void TearDown() override { m_->close(); }

    std::string console() const { return read_file(board_.path() + "/chip1.console"); }

    static std::vector<uint8_t> payload_for(uint32_t code)
    {
        std::vector<uint8_t> p(128, 0);
        if (code == 0x20002)
            std::memcpy(p.data(), "CST-8", 6);
        return p;
    }

    temp_board_dir board_;
    std::unique_ptr<master> m_;
};

TEST_F(command_e2e, every_code_is_answered_once_in_order_with_id_and_cmd_kept)
{
    std::vector<uint32_t> codes = {0x20001, 0x20002, 0x20003, 0x20004, 0x20100, 0x20101, 0x20200, 0x20201,
                                   0x20202, 0x20300, 0x20301, 0x20302, 0x20303, 0x20305, 0x20306, 0x20307,
                                   0x20308, 0x2030a, 0x20401, 0x20402, 0x20403, 0x20404};
    for (uint32_t c = 0x20380; c <= 0x20393; ++c)
        codes.push_back(c);
    for (uint32_t code : codes) {
        std::vector<uint8_t> p = payload_for(code);
        if (code == 0x20300) {
            uint64_t us = 1800000000ull * 1000000;  // the slave's own clock moves, not the host's
            std::memcpy(p.data(), &us, 8);
        }
        std::optional<reply_t> r = m_->command(1, code, p, REPLY_WAIT);
        ASSERT_TRUE(r) << std::hex << code << "\n" << console();
        EXPECT_EQ(r->head.cmd, code);
    }
    // Unknown codes come back as they went, with result 0.
    for (uint32_t code : {0x20304u, 0x20309u, 0x20400u, 0x2FFFFu}) {
        std::vector<uint8_t> p = {1, 2, 3, 4, 5, 6, 7, 8, 9};
        std::optional<reply_t> r = m_->command(1, code, p, REPLY_WAIT);
        ASSERT_TRUE(r);
        EXPECT_EQ(r->head.cmd, code);
        EXPECT_EQ(r->head.result, 0);
        EXPECT_EQ(r->payload, p);
    }
    // No reply came twice or unasked.
    EXPECT_EQ(m_->slave(1)->stray_replies, 0u);
}

TEST_F(command_e2e, status_turns_count_one_per_command_and_cameras_report_their_rate)
{
    std::optional<status_t> a = m_->get_status(1, REPLY_WAIT);
    std::optional<status_t> b = m_->get_status(1, REPLY_WAIT);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(b->heartbit, a->heartbit + 1);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(a->fps[i], 30u) << i;
    EXPECT_GT(b->media_pts, a->media_pts);
    EXPECT_NEAR(static_cast<double>(a->clock), static_cast<double>(time(nullptr)), 2.0);
}

TEST_F(command_e2e, broken_commands_never_stop_the_loop)
{
    std::mt19937 rng(3532);
    std::vector<std::vector<uint8_t>> junk;
    junk.push_back(std::vector<uint8_t>(10, 0xFF));     // shorter than a header
    junk.push_back(std::vector<uint8_t>(4096, 0xA5));   // longer than any message
    for (int k = 0; k < 50; ++k) {                      // garbage of every size, known codes too
        std::vector<uint8_t> m(16 + rng() % 600);
        for (auto& b : m)
            b = static_cast<uint8_t>(rng());
        uint32_t code = 0x20000 + rng() % 0x500;
        std::memcpy(m.data() + 4, &code, 4);
        uint32_t claimed = rng();  // a length word that lies
        std::memcpy(m.data() + 8, &claimed, 4);
        junk.push_back(m);
    }
    for (auto& j : junk)
        ASSERT_EQ(m_->send_raw(1, 102, j), 0);
    std::optional<status_t> s = m_->get_status(1, REPLY_WAIT);
    ASSERT_TRUE(s) << console();
    ASSERT_EQ(peek_process(m_->slave(1)->pid), -1) << "the slave ended:\n" << console();
    // Short requests are refused, not run on zeros.
    std::optional<reply_t> r = m_->command(1, 0x20001, std::vector<uint8_t>(8, 0), REPLY_WAIT);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->head.result, -1);
}

}  // namespace
