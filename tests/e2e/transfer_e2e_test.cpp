// The slave's transfer functions called directly, with the master emulator
// in the same process on the same board: each kind arrives in the master's
// windows and messages as sent, and the master's parsing finds nothing
// wrong with it.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <thread>

#include "cal/cal.h"
#include "cal/cal_buf.h"
#include "cal/cal_cmd.h"
#include "cal/cal_log.h"
#include "master/master.h"
#include "msg/cal_hsc.h"
#include "platform/sim/board.h"
#include "tests/support/test_board.h"

namespace {

using tmaster::milliseconds;
constexpr milliseconds WAIT{5000};

class transfer_e2e : public ::testing::Test {
protected:
    void SetUp() override
    {
        tmaster::master_options o;
        o.board = board_.path();
        o.keep_notifications = true;
        master_ = std::make_unique<tmaster::master>(o);
        ASSERT_EQ(master_->open(), 0) << master_->error();
        std::string err;
        ASSERT_EQ(sim_board_open(board_.path().c_str(), 1, "", &err), 0) << err;
        cal_ = cal_new();
        cal_->slave_cam = 8;
        cal_->cam_base = 8;
        cal_->hsc = cal_hsc_new(cal_);
        ASSERT_NE(cal_->hsc, nullptr);
        // The slave's ports are open on its side before the master has taken
        // the connections in; a command sent earlier would find no port.
        ASSERT_TRUE(master_->wait_for(1, [](const tmaster::slave_info& i) { return i.ports[0].open; }, WAIT));
        // The master gives its windows through the slave's command loop.
        std::thread loop([this] {
            hsc_msg_t msg;
            cal_cmd_turn(cal_, &msg);
        });
        EXPECT_EQ(master_->set_dma_info(1, WAIT), 0);
        loop.join();
    }
    void TearDown() override
    {
        master_->close();
        cal_hsc_delete(cal_->hsc);
        kel_thread_delete(cal_->thread_encr);
        kel_thread_delete(cal_->thread_encn);
        delete cal_;
        sim_board_close();
        EXPECT_EQ(ebuf_get_cnt(), 0);
        EXPECT_EQ(nbuf_get_cnt(), 0);
    }

    tmaster::notification next()
    {
        auto n = master_->next_notification(WAIT);
        EXPECT_TRUE(n.has_value());
        EXPECT_FALSE(n && n->bad()) << (n && n->check() ? n->check()->problems.front() : "");
        return n ? *n : tmaster::notification{};
    }

    temp_board_dir board_;
    std::unique_ptr<tmaster::master> master_;
    cal_t* cal_ = nullptr;
};

TEST_F(transfer_e2e, record_network_jpeg_and_motion_arrive_as_sent)
{
    // A record buffer of two frames of the slave's cameras 0 and 1.
    ebuf_t* e = ebuf_malloc(1000);
    std::memset(e, 0, EBUF_HEADER_SIZE);
    e->buf_size = 1000;
    for (int k = 0; k < 2; ++k) {
        ebuf_mmd_t& m = e->mmd[k];
        m.cam = static_cast<uint8_t>(8 + k);
        m.key = static_cast<uint8_t>(k == 0);
        m.width = 1920;
        m.height = 1080;
        m.fps = 30;
        m.const12 = m.const13 = 2;
        m.len = 300;
        m.data = ptr32(e->buf + e->buf_off);
        std::memset(e->buf + e->buf_off, 'r' + k, 300);
        e->mmd_time[k] = 1800000000;
        e->mmd_mday[k] = 15;
        e->buf_off += 300;
        e->num_mmd = k + 1;
    }
    ASSERT_EQ(cal_hsc_send_ebuf(cal_, e), 0);
    tmaster::notification n = next();
    ASSERT_EQ(n.port, 103);
    const auto& rec = std::get<tmaster::record_batch>(n.parsed);
    ASSERT_EQ(rec.frames.size(), 2u);
    EXPECT_EQ(rec.frames[1].entry.cam, 9);
    EXPECT_EQ(rec.frames[1].entry.data, 300u);
    EXPECT_EQ(n.content[rec.frames[1].offset], 's');
    EXPECT_EQ(std::memcmp(n.content.data() + 8, e->mmd, 32), 0);  // the entry before its data word
    ebuf_free(e);

    // A network batch of three frames.
    int streams[3] = {8, 17, 40};
    ::nbuf_desc_t d[3] = {};
    for (int k = 0; k < 3; ++k) {
        d[k].year = 2026;
        d[k].mon = 11;
        d[k].mday = 22;
        d[k].msec = 1000u * static_cast<uint32_t>(k);
        d[k].fps = 30;
        d[k].const17 = 1;
        d[k].const18 = 2;
        d[k].len = 100u * static_cast<uint32_t>(k + 1);
        d[k].data = nbuf_malloc(static_cast<int>(d[k].len));
        std::memset(d[k].data, 'a' + k, d[k].len);
    }
    ASSERT_EQ(cal_hsc_send_nbuf(cal_, streams, d, 3, 684), 0);
    n = next();
    ASSERT_EQ(n.port, 104);
    const auto& net = std::get<tmaster::network_batch>(n.parsed);
    EXPECT_EQ(net.bytes, 684u);
    ASSERT_EQ(net.frames.size(), 3u);
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(net.frames[k].stream, streams[k]);
        EXPECT_EQ(net.frames[k].desc.len, 100u * static_cast<uint32_t>(k + 1));
        EXPECT_EQ(n.content[net.frames[k].offset], 'a' + k);
    }

    // Two snapshots.
    int cams[2] = {8, 9};
    ::jpg_desc_t j[2] = {};
    for (int k = 0; k < 2; ++k) {
        j[k].jpg_on = 1;
        j[k].time = 1800000000;
        j[k].len = k == 0 ? 5000 : 7000;
        j[k].data = static_cast<unsigned char*>(std::malloc(j[k].len));
        std::memset(j[k].data, 'p' + k, j[k].len);
    }
    ASSERT_EQ(cal_hsc_send_jpg(cal_, cams, j, 2, 12000), 0);
    n = next();
    ASSERT_EQ(n.port, 106);
    const auto& jpg = std::get<tmaster::jpeg_batch>(n.parsed);
    ASSERT_EQ(jpg.pictures.size(), 2u);
    EXPECT_EQ(jpg.pictures[1].desc.data, 5000u);
    EXPECT_EQ(jpg.pictures[1].stream, 9u);
    EXPECT_EQ(n.content[11999], 'q');

    // A motion report: every cell of the first row moved.
    unsigned char body[128] = {};
    std::memset(body, 0xFF, 4);
    ASSERT_EQ(cal_hsc_send_md(cal_, 12, body), 0);
    n = next();
    ASSERT_EQ(n.port, 105);
    const auto& md = std::get<tmaster::motion_report>(n.parsed);
    EXPECT_EQ(md.note.cam, 12u);
    EXPECT_EQ(md.moved_cells, 32);
}

}  // namespace
