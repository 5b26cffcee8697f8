// Motion detection and privacy masks of a real slave, driven by the master
// emulator.
//
// Without streams: four cameras from recorder camera 8 (camera 9 standing
// still), their thresholds and masks set by command, and the reports that
// arrive on port 105 about twice a second per camera once the slave's first
// 10 s are over; a moving camera's report shows the band of columns the bar
// swept and nothing else. A master that stops answering on port 105 stops
// only the reports.
//
// With streams: two cameras recording with snapshots. A mask blacks out its
// rectangle in the camera's next snapshot and nothing else; an empty
// rectangle brings the picture back. While port 105 goes unanswered,
// records, network frames, snapshots and commands go on.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "master/master.h"
#include "master/record.h"
#include "tests/support/jpeg_decode.h"
#include "tests/support/test_board.h"

using namespace tmaster;

namespace {

// The sanitizers slow every thread of the slave several times over: there a
// report may come late, so fewer are asked for within a window.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t FEW = 3;
#else
constexpr size_t FEW = 5;
#endif

constexpr milliseconds START_WAIT{30000};
constexpr milliseconds REPLY_WAIT{5000};
using steady = std::chrono::steady_clock;

// Waits until pred holds, at most `limit`.
template <typename P>
bool wait_until(P pred, milliseconds limit)
{
    const auto end = steady::now() + limit;
    while (!pred()) {
        if (steady::now() >= end)
            return false;
        std::this_thread::sleep_for(milliseconds(20));
    }
    return true;
}

// Cells of a report: 32 columns (bit k of a row word), 18 rows.
constexpr int MD_CELL_ROWS = 18;

std::string columns_text(uint32_t cols)
{
    std::string s;
    for (int k = 0; k < 32; ++k)
        s += (cols >> k & 1u) ? '#' : '.';
    return s;
}

// Where a moving camera's report may show motion. The bar is an eighth of
// the 512-pixel motion picture wide (64 pixels, up to 5 cells of 16 when it
// straddles cell edges) and crosses the 448 pixels it can travel in 4 s, so
// between two results (0.5 s) it moves 56 pixels: the cells it left and the
// cells it entered form one band of at most 120 pixels (9 cells, 10 with a
// partial cell at each end). When the bar starts a new sweep between the two
// results, the band is two pieces: the cells it left at the right end
// (ending in column 28 or later) and those it entered at the left (starting
// in column 3 or earlier), at most 5 cells each. Cells wholly inside the
// area the bar crossed differ by 64 or more and are moved in every row, so
// at least three columns are moved from top to bottom.
struct bar_band {
    bool ok = false;
    std::string why;
    uint32_t any = 0;  // columns with a moved cell in some row
    int end = -1;      // the band's right end (of its left piece when it wrapped)
};

bar_band bar_band_of(const std::array<uint32_t, MD_ROWS>& rows)
{
    bar_band b;
    uint32_t all = 0xFFFFFFFFu;
    for (int k = 0; k < MD_CELL_ROWS; ++k) {
        b.any |= rows[k];
        all &= rows[k];
    }
    std::vector<std::pair<int, int>> runs;  // first and last column of each run
    for (int k = 0; k < 32; ++k) {
        if (!(b.any >> k & 1u))
            continue;
        if (runs.empty() || runs.back().second != k - 1)
            runs.emplace_back(k, k);
        else
            runs.back().second = k;
    }
    const std::string cols = " (columns " + columns_text(b.any) + ", moved in every row " + columns_text(all) + ")";
    if (std::popcount(all) < 3) {
        b.why = "fewer than 3 columns moved in every row" + cols;
        return b;
    }
    if (runs.size() == 1) {
        const int width = runs[0].second - runs[0].first + 1;
        b.ok = width <= 10;
        b.why = b.ok ? "" : "a band of " + std::to_string(width) + " columns" + cols;
        b.end = runs[0].second;
        return b;
    }
    if (runs.size() == 2) {
        const auto [l0, l1] = runs[0];
        const auto [r0, r1] = runs[1];
        b.ok = l0 <= 3 && r1 >= 28 && l1 - l0 < 5 && r1 - r0 < 5;
        b.why = b.ok ? "" : "two pieces that are no bar starting a new sweep" + cols;
        b.end = l1;
        return b;
    }
    b.why = std::to_string(runs.size()) + " separate bands" + cols;
    return b;
}

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
    // left half moves again. Camera 8 moves to threshold 10: from its next
    // result on it reports only the columns the bar swept, and over one sweep
    // that band travels to the right across the picture.
    EXPECT_EQ(mask(11, 0.0, 0.0, 0.0, 1.0), 0);
    EXPECT_EQ(m_->set_md(1, {8, 10}, REPLY_WAIT), 0);
    // A report built just before the command may still be on its way.
    const auto t1 = steady::now() + milliseconds(600);
    std::this_thread::sleep_for(milliseconds(5000));
    uint32_t left = 0, right = 0;
    size_t bands_of_8 = 0;
    std::set<int> band_ends;
    int last_end = -1;
    for (const report& r : since(t1)) {
        if (r.camera == 11)
            for (int k = 0; k < 18; ++k) {
                left |= r.rows[k] & 0xFFFFu;
                right |= r.rows[k] & 0xFFFF0000u;
            }
        if (r.camera != 8)
            continue;
        for (int k = 18; k < MD_ROWS; ++k)
            EXPECT_EQ(r.rows[k], 0u) << k;
        const bar_band b = bar_band_of(r.rows);
        EXPECT_TRUE(b.ok) << b.why;
        if (!b.ok)
            continue;
        // One result is 15 pictures (0.5 s) after the other: the bar has
        // gone on by 3.5 cells, or come round again from the left edge.
        if (last_end >= 0) {
            const int step = (b.end - last_end + 32) % 32;
            EXPECT_GE(step, 1) << columns_text(b.any);
            EXPECT_LE(step, 10) << columns_text(b.any);
        }
        last_end = b.end;
        band_ends.insert(b.end);
        ++bands_of_8;
    }
    EXPECT_NE(left, 0u);
    EXPECT_NE(right, 0u);
    // About two reports a second for 4.4 s, the band elsewhere each time.
    EXPECT_GE(bands_of_8, FEW);
    EXPECT_GE(band_ends.size(), FEW - 1);

    // The master stops answering on port 105: once the slave waits for the
    // answer to a report, no other comes, while commands are still answered.
    m_->hold_acks_on(PORT_VIN, true);
    ASSERT_TRUE(wait_until([&] { return m_->pending_acks() > 0; }, milliseconds(5000)));
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


// ---- with streams running ----------------------------------------------------

// Camera 0's mask: x 0.375, y 0.25, w 0.25, h 0.5 of its 1920 x 1080 main
// picture. The slave truncates each edge to pixels and clears the two low
// bits: 720, trunc(270) = 270 -> 268, 480, 540.
constexpr double MASK_X = 0.375, MASK_Y = 0.25, MASK_W = 0.25, MASK_H = 0.5;
constexpr int MASK_NX = 720, MASK_NY = 268, MASK_NW = 480, MASK_NH = 540;
// Luma of a black cover is 16; the scene has none below 48. An 8 x 8 block
// of the decoded picture is dark below 32 on average, and "not black" from
// 40 on. JPEG blocks blur a hard edge over a few pixels: the rectangle's
// edges are looked at apart from the rest.
constexpr double DARK = 32, NOT_BLACK = 40;
constexpr int BLEED = 4;
constexpr int SNAP_W = 1920, SNAP_H = 1080;

struct snapshot {
    int camera;
    std::vector<uint8_t> jpeg;
};

// Two cameras from 0, REC and its network copy on, snapshots on, motion
// threshold 10; the recorder checks that every REC and copy frame arrives.
class motion_streams_e2e : public ::testing::Test {
protected:
    static constexpr int CAMERAS = 2;

    motion_streams_e2e() : rec_(plan()) {}

    static record_plan plan()
    {
        record_plan p;
        p.slaves = {{1, 0, CAMERAS, 8}};
        p.overlay = false;
        return p;
    }

    void SetUp() override
    {
        board_.share_cache();
        master_options o;
        o.board = board_.path();
        m_ = std::make_unique<master>(o);
        ASSERT_EQ(m_->open(), 0) << m_->error();
        m_->on_notification([this](const notification& n, std::span<const uint8_t> written) {
            rec_.take(n, written);
            std::lock_guard lk(mu_);
            switch (n.kind) {
            case note_kind::record: ++records_; break;
            case note_kind::network: ++networks_; break;
            case note_kind::motion: ++motions_; break;
            case note_kind::jpeg:
                if (const auto* b = std::get_if<jpeg_batch>(&n.parsed); b != nullptr && !b->check.rejected)
                    for (const jpeg_picture& p : b->pictures)
                        if (static_cast<uint64_t>(p.desc.data) + p.desc.len <= written.size())
                            snaps_.push_back({static_cast<int>(p.stream),
                                              {written.begin() + p.desc.data,
                                               written.begin() + p.desc.data + p.desc.len}});
                break;
            default: break;
            }
        });
        slave_config c;
        c.binary = TARVO_SLAVE_BINARY;
        c.chip = 1;
        c.cam_base = 0;
        c.slave_cam = CAMERAS;
        c.num_vin = 8;
        ASSERT_GT(m_->start_slave(c), 0) << m_->error();
        ASSERT_TRUE(m_->wait_ports(1, START_WAIT)) << console();
        ASSERT_TRUE(m_->wait_announcement(1, START_WAIT)) << console();
        ASSERT_EQ(m_->set_dma_info(1, REPLY_WAIT), 0);
        configure();
    }
    void TearDown() override { m_->close(); }

    std::string console() const { return read_file(board_.path() + "/chip1.console"); }

    // What a recorder sends for REC with its copy and snapshots, no more
    // (each encoded stream is one more loop for the board to make when a
    // mask changes the picture).
    void configure()
    {
        using std::chrono::system_clock;
        const auto now_us = static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(system_clock::now().time_since_epoch()).count());
        EXPECT_EQ(m_->set_time(1, now_us, REPLY_WAIT), 0);
        for (uint32_t cam = 0; cam < CAMERAS; ++cam) {
            vincaps_t caps{};
            caps.cam = static_cast<int32_t>(cam);
            caps.xres = SNAP_W;
            caps.yres = SNAP_H;
            caps.prog = 1;
            caps.fps = 30.0;
            EXPECT_EQ(m_->set_vincaps(1, caps, REPLY_WAIT), 0);
            EXPECT_EQ(m_->set_md(1, {static_cast<int32_t>(cam), 10}, REPLY_WAIT), 0);
            enc_video_t v{};
            v.kind = KIND_REC;
            v.fps = 30;
            v.width = SNAP_W;
            v.height = SNAP_H;
            v.cam = static_cast<uint8_t>(cam);
            v.quality = 2;
            v.attr = 1;
            EXPECT_EQ(m_->set_enc_video(1, v, REPLY_WAIT), 0);
            for (uint32_t kind : {KIND_REC, KIND_COPY, KIND_JPEG})
                EXPECT_EQ(m_->run_enc_video(1, {kind, cam, 1, 0}, REPLY_WAIT), 0) << kind;
        }
        update_video_t u{};
        u.sync = 1;
        u.fps = 30;
        u.t = now_us;
        EXPECT_EQ(m_->update_enc_video(1, u, REPLY_WAIT), 0);
    }

    struct counts {
        uint64_t records, networks, motions;
        size_t snaps;
    };
    counts now()
    {
        std::lock_guard lk(mu_);
        return {records_, networks_, motions_, snaps_.size()};
    }
    // The first snapshot of a camera from index `from` of the arrivals on,
    // waiting up to `limit` for it; empty when none came.
    std::vector<uint8_t> snapshot_of(int camera, size_t from, milliseconds limit)
    {
        std::vector<uint8_t> out;
        wait_until(
            [&] {
                std::lock_guard lk(mu_);
                for (size_t k = from; k < snaps_.size(); ++k)
                    if (snaps_[k].camera == camera) {
                        out = snaps_[k].jpeg;
                        return true;
                    }
                return false;
            },
            limit);
        return out;
    }
    // Holds the master's answers on the snapshot port until the slave waits
    // for one: from then on it takes no picture until they are let go.
    bool hold_snapshots()
    {
        m_->hold_acks_on(PORT_ENCJPG, true);
        return wait_until([&] { return m_->pending_acks() > 0; }, milliseconds(5000));
    }

    temp_board_dir board_;
    std::unique_ptr<master> m_;
    recorder rec_;
    std::mutex mu_;
    uint64_t records_ = 0, networks_ = 0, motions_ = 0;
    std::vector<snapshot> snaps_;
};

#ifdef TARVO_SIM_LIBJPEG

// 8 x 8 blocks (on the JPEG grid) wholly inside (x0, y0) .. (x1, y1), or
// wholly outside it, whose mean luma is below / at least `level`: the
// first one found, as text; empty when there is none.
std::string block_where(const luma_picture& p, bool inside, int x0, int y0, int x1, int y1, bool below,
                        double level)
{
    for (int by = 0; by + 8 <= p.height; by += 8)
        for (int bx = 0; bx + 8 <= p.width; bx += 8) {
            const bool in = bx >= x0 && bx + 8 <= x1 && by >= y0 && by + 8 <= y1;
            const bool out = bx + 8 <= x0 || bx >= x1 || by + 8 <= y0 || by >= y1;
            if (inside ? !in : !out)
                continue;
            const double m = p.mean(bx, by, bx + 8, by + 8);
            if (below ? m < level : m >= level)
                return "block at " + std::to_string(bx) + "," + std::to_string(by) + " has mean luma " +
                       std::to_string(m);
        }
    return "";
}

// Not black anywhere: the scene as it is.
void expect_no_black(const luma_picture& p, const char* when)
{
    SCOPED_TRACE(when);
    ASSERT_EQ(p.width, SNAP_W);
    ASSERT_EQ(p.height, SNAP_H);
    EXPECT_EQ(block_where(p, false, 0, 0, 0, 0, true, NOT_BLACK), "");
}

// Black inside the computed rectangle, not black outside it, and its edges
// where the slave placed them.
void expect_masked(const luma_picture& p)
{
    ASSERT_EQ(p.width, SNAP_W);
    ASSERT_EQ(p.height, SNAP_H);
    const int x0 = MASK_NX, y0 = MASK_NY, x1 = MASK_NX + MASK_NW, y1 = MASK_NY + MASK_NH;
    EXPECT_EQ(block_where(p, true, x0 + BLEED, y0 + BLEED, x1 - BLEED, y1 - BLEED, false, DARK), "");
    EXPECT_EQ(block_where(p, false, x0 - BLEED, y0 - BLEED, x1 + BLEED, y1 + BLEED, true, NOT_BLACK), "");
    // Each edge: where the mean over a long stretch of the rectangle's side
    // crosses from not dark to dark.
    auto col = [&](int x) { return p.mean(x, y0 + 16, x + 1, y1 - 16); };
    auto row = [&](int y) { return p.mean(x0 + 16, y, x1 - 16, y + 1); };
    int left = -1, right = -1, top = -1, bottom = -1;
    for (int x = x0 - 32; x < x0 + 32; ++x)
        if (left < 0 && col(x) < DARK)
            left = x;
    for (int x = x1 + 32; x > x1 - 32; --x)
        if (right < 0 && col(x - 1) < DARK)
            right = x;
    for (int y = y0 - 32; y < y0 + 32; ++y)
        if (top < 0 && row(y) < DARK)
            top = y;
    for (int y = y1 + 32; y > y1 - 32; --y)
        if (bottom < 0 && row(y - 1) < DARK)
            bottom = y;
    EXPECT_NEAR(left, x0, 1);
    EXPECT_NEAR(right, x1, 1);
    EXPECT_NEAR(top, y0, 1);
    EXPECT_NEAR(bottom, y1, 1);
}

luma_picture decoded(const std::vector<uint8_t>& jpeg)
{
    luma_picture p;
    EXPECT_TRUE(decode_jpeg_luma(jpeg, &p)) << jpeg.size() << " bytes";
    return p;
}

#endif

TEST_F(motion_streams_e2e, a_mask_blacks_the_next_snapshot_and_a_silent_motion_port_stops_only_the_reports)
{
    // Every stream has begun and both cameras have sent a snapshot.
    ASSERT_TRUE(wait_until(
        [&] {
            const record_summary s = rec_.summary();
            for (int cam = 0; cam < CAMERAS; ++cam)
                for (stream_type t : {stream_type::rec, stream_type::copy}) {
                    const stream_summary* st = s.find(1, cam, t);
                    if (st == nullptr || st->frames == 0)
                        return false;
                }
            return now().snaps >= 2 * CAMERAS;
        },
        milliseconds(120000)))
        << console();

#ifdef TARVO_SIM_LIBJPEG
    expect_no_black(decoded(snapshot_of(0, 0, REPLY_WAIT)), "before the mask");

    // While the slave waits for the answer to one batch, the mask is set;
    // every picture of the next batch is taken after it.
    ASSERT_TRUE(hold_snapshots());
    // show 0: the word is only traced, the mask is shown all the same.
    EXPECT_EQ(m_->set_privacy(1, {0, 0, MASK_X, MASK_Y, MASK_W, MASK_H}, REPLY_WAIT), 0);
    size_t next = now().snaps;
    m_->hold_acks_on(PORT_ENCJPG, false);
    {
        SCOPED_TRACE("the first snapshot after the mask");
        expect_masked(decoded(snapshot_of(0, next, milliseconds(5000))));
        // The other camera has no mask.
        expect_no_black(decoded(snapshot_of(1, next, milliseconds(5000))), "camera 1 beside the mask");
    }

    // An empty rectangle removes it, from the next snapshot on.
    ASSERT_TRUE(hold_snapshots());
    EXPECT_EQ(m_->set_privacy(1, {0, 1, MASK_X, MASK_Y, 0.0, MASK_H}, REPLY_WAIT), 0);
    next = now().snaps;
    m_->hold_acks_on(PORT_ENCJPG, false);
    expect_no_black(decoded(snapshot_of(0, next, milliseconds(5000))), "after the empty rectangle");
#endif

    // Motion reports come from 10 s after the slave's start.
    ASSERT_TRUE(wait_until([&] { return now().motions > 2; }, milliseconds(20000))) << console();

    // The master stops answering on port 105. Once the slave waits for that
    // answer no report comes, while records, network frames, snapshots and
    // commands go on and the threads that make them keep beating.
    m_->hold_acks_on(PORT_VIN, true);
    ASSERT_TRUE(wait_until([&] { return m_->pending_acks() > 0; }, milliseconds(5000)));
    const counts before = now();
    const std::optional<status_t> s0 = m_->get_status(1, REPLY_WAIT);
    ASSERT_TRUE(s0.has_value());
    for (int i = 0; i < 8; ++i) {
        std::this_thread::sleep_for(milliseconds(500));
        EXPECT_EQ(m_->set_md(1, {1, 10}, REPLY_WAIT), 0);
    }
    const std::optional<status_t> s1 = m_->get_status(1, REPLY_WAIT);
    ASSERT_TRUE(s1.has_value());
    const counts held = now();
    EXPECT_EQ(held.motions, before.motions);
    // Each camera fills a record buffer a second and the copy goes out in
    // batches; a snapshot pass takes about a second.
    EXPECT_GE(held.records, before.records + 2);
    EXPECT_GE(held.networks, before.networks + 2);
    EXPECT_GE(held.snaps, before.snaps + 2);
    EXPECT_GT(s1->heartbit, s0->heartbit);
    EXPECT_GE(s1->heart_jpeg, s0->heart_jpeg + 2);
    for (int cam = 0; cam < CAMERAS; ++cam)
        EXPECT_GT(s1->fps[cam], 0u) << "capture of camera " << cam;

    // Answering again lets the reports go on: the one held and the results
    // the motion channels kept meanwhile.
    m_->hold_acks_on(PORT_VIN, false);
    EXPECT_TRUE(wait_until([&] { return now().motions > held.motions + 2; }, milliseconds(5000)));

    // Nothing of REC or its copy was lost, repeated or reordered on the way.
    m_->close();  // no notification after this
    const record_summary s = rec_.summary();
    for (int cam = 0; cam < CAMERAS; ++cam)
        for (stream_type t : {stream_type::rec, stream_type::copy}) {
            SCOPED_TRACE("camera " + std::to_string(cam) + " " + stream_type_name(t));
            const stream_summary* st = s.find(1, cam, t);
            ASSERT_NE(st, nullptr);
            for (const std::string& p : st->problems)
                ADD_FAILURE() << p;
            EXPECT_EQ(st->lost + st->repeated + st->reordered + st->foreign + st->no_sei, 0u);
            EXPECT_GT(st->frames, 0u);
        }
}

}  // namespace
