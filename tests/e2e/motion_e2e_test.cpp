// Motion detection and privacy masks of a real slave, driven by the master
// emulator: four cameras from recorder camera 8 (camera 9 standing still),
// their thresholds and masks set by command, and the reports that arrive on
// port 105 about twice a second per camera once the slave's first 10 s are
// over. A master that stops answering on port 105 stops only the reports.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "master/master.h"
#include "tests/support/test_board.h"

using namespace tmaster;

namespace {

constexpr milliseconds START_WAIT{30000};
constexpr milliseconds REPLY_WAIT{5000};
using steady = std::chrono::steady_clock;

struct report {
    steady::time_point at;
    int camera;
    std::array<uint32_t, MD_ROWS> rows;
};

class motion_e2e : public ::testing::Test {
protected:
    void SetUp() override
    {
        board_.share_cache();
        std::ofstream(board_.file("board.conf")) << "camera 9 1920x1080 p 30 still\n";
        master_options o;
        o.board = board_.path();
        m_ = std::make_unique<master>(o);
        ASSERT_EQ(m_->open(), 0) << m_->error();
        m_->on_notification([this](const notification& n, std::span<const uint8_t>) {
            const auto* r = std::get_if<motion_report>(&n.parsed);
            if (n.kind != note_kind::motion || r == nullptr)
                return;
            report x{steady::now(), static_cast<int>(r->note.cam), {}};
            std::copy(std::begin(r->note.rows), std::end(r->note.rows), x.rows.begin());
            std::lock_guard lk(mu_);
            reports_.push_back(x);
        });
        slave_config c;
        c.binary = TARVO_SLAVE_BINARY;
        c.chip = 1;
        c.cam_base = 8;
        c.slave_cam = 4;
        c.num_vin = 4;
        ASSERT_GT(m_->start_slave(c), 0) << m_->error();
        ASSERT_TRUE(m_->wait_announcement(1, START_WAIT)) << console();
    }
    void TearDown() override { m_->close(); }

    std::string console() const { return read_file(board_.path() + "/chip1.console"); }

    std::vector<report> since(steady::time_point t)
    {
        std::lock_guard lk(mu_);
        std::vector<report> out;
        for (const report& r : reports_)
            if (r.at >= t)
                out.push_back(r);
        return out;
    }
    size_t count()
    {
        std::lock_guard lk(mu_);
        return reports_.size();
    }
    void wait_for_reports(milliseconds limit)
    {
        const auto end = steady::now() + limit;
        while (count() == 0 && steady::now() < end)
            std::this_thread::sleep_for(milliseconds(50));
    }
    std::optional<int32_t> mask(int cam, double x, double y, double w, double h)
    {
        return m_->set_privacy(1, {cam, 1, x, y, w, h}, REPLY_WAIT);
    }

    temp_board_dir board_;
    std::unique_ptr<master> m_;
    std::mutex mu_;
    std::vector<report> reports_;
};

TEST_F(motion_e2e, thresholds_masks_and_a_master_that_stops_answering)
{
    EXPECT_EQ(m_->set_md(1, {8, 0}, REPLY_WAIT), 0);
    EXPECT_EQ(m_->set_md(1, {9, 10}, REPLY_WAIT), 0);
    EXPECT_EQ(m_->set_md(1, {10, 256}, REPLY_WAIT), 0);
    EXPECT_EQ(m_->set_md(1, {11, 10}, REPLY_WAIT), 0);
    EXPECT_EQ(m_->set_md(1, {12, 10}, REPLY_WAIT), -1);  // not one of the slave's cameras
    EXPECT_EQ(m_->set_md(1, {7, 10}, REPLY_WAIT), -1);
    // Camera 11's left half is masked: its sub channel's cover hides the bar
    // there from motion detection.
    EXPECT_EQ(mask(11, 0.0, 0.0, 0.5, 1.0), 0);
    EXPECT_EQ(mask(12, 0.0, 0.0, 0.5, 1.0), -1);

    wait_for_reports(milliseconds(20000));
    ASSERT_GT(count(), 0u) << console();
    const auto t0 = steady::now();
    std::this_thread::sleep_for(milliseconds(3000));
    std::map<int, int> per_cam;
    for (const report& r : since(t0)) {
        ++per_cam[r.camera];
        switch (r.camera) {
        case 8:  // threshold 0: every cell
            for (int k = 0; k < MD_ROWS; ++k)
                EXPECT_EQ(r.rows[k], k < 18 ? 0xFFFFFFFFu : 0u) << k;
            break;
        case 9:  // still
        case 10:  // threshold 256
            for (uint32_t w : r.rows)
                EXPECT_EQ(w, 0u) << r.camera;
            break;
        case 11:  // camera 3 of the slave; nothing moves under its mask
            for (int k = 0; k < MD_ROWS; ++k)
                EXPECT_EQ(r.rows[k] & 0xFFFFu, 0u) << k;
            break;
        default: ADD_FAILURE() << "report of camera " << r.camera;
        }
    }
    // About two a second each (a loaded host may send fewer in a window).
    for (int cam = 8; cam <= 11; ++cam) {
        EXPECT_GE(per_cam[cam], 3) << cam;
        EXPECT_LE(per_cam[cam], 8) << cam;
    }

    // An empty rectangle takes the mask away: within a sweep of the bar the
    // left half moves again.
    EXPECT_EQ(mask(11, 0.0, 0.0, 0.0, 1.0), 0);
    const auto t1 = steady::now() + milliseconds(200);
    std::this_thread::sleep_for(milliseconds(4600));
    uint32_t left = 0, right = 0;
    for (const report& r : since(t1))
        if (r.camera == 11)
            for (int k = 0; k < 18; ++k) {
                left |= r.rows[k] & 0xFFFFu;
                right |= r.rows[k] & 0xFFFF0000u;
            }
    EXPECT_NE(left, 0u);
    EXPECT_NE(right, 0u);

    // The master stops answering on port 105: at most the report it holds
    // arrives, while commands are still answered.
    m_->hold_acks_on(PORT_VIN, true);
    std::this_thread::sleep_for(milliseconds(500));
    const size_t held = count();
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(m_->get_status(1, REPLY_WAIT).has_value());
        EXPECT_EQ(m_->set_md(1, {8, 0}, REPLY_WAIT), 0);
        std::this_thread::sleep_for(milliseconds(250));
    }
    EXPECT_EQ(count(), held);
    // Answering again lets the reports go on.
    m_->hold_acks_on(PORT_VIN, false);
    std::this_thread::sleep_for(milliseconds(1500));
    EXPECT_GT(count(), held + 2);
}

}  // namespace
