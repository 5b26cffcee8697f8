// Video output of a real slave of four cameras (recorder cameras 8 to 11),
// driven by the master emulator and checked against the slave's media.json:
// the layout cases, the zoom, and the PCI video paths with their pictures.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <thread>

#include "master/master.h"
#include "master/screen.h"
#include "tests/support/test_board.h"

using namespace tmaster;

namespace {

constexpr milliseconds START_WAIT{30000};
constexpr milliseconds REPLY_WAIT{5000};
constexpr int chip = 1;
constexpr int n = 4;
constexpr int VO = 15, VPSS = 8, VI = 16, PCIV = 26;

class vout_e2e : public ::testing::Test {
protected:
    void SetUp() override
    {
        board_.share_cache();
        master_options o;
        o.board = board_.path();
        m_ = std::make_unique<master>(o);
        ASSERT_EQ(m_->open(), 0) << m_->error();
        slave_config c;
        c.binary = TARVO_SLAVE_BINARY;
        c.chip = chip;
        c.cam_base = 8;
        c.slave_cam = n;
        c.num_vin = n;
        ASSERT_GT(m_->start_slave(c), 0) << m_->error();
        ASSERT_TRUE(m_->wait_announcement(chip, START_WAIT)) << console();
    }
    void TearDown() override { m_->close(); }

    std::string console() const { return read_file(board_.path() + "/chip1.console"); }

    int32_t send(uint32_t cmd, const std::vector<uint8_t>& payload)
    {
        std::optional<reply_t> r = m_->command(chip, cmd, payload, REPLY_WAIT);
        EXPECT_TRUE(r) << std::hex << cmd;
        return r ? r->head.result : -99;
    }

    // media.json once it satisfies pred (the board rewrites it within
    // 100 ms of a change); the last one read when it never does in 10 s.
    media_state state_when(const std::function<bool(const media_state&)>& pred)
    {
        media_state last;
        const auto deadline = steady::now() + std::chrono::seconds(10);
        do {
            std::string err;
            if (std::optional<media_state> s = read_media_state(board_.path(), chip, &err)) {
                last = *s;
                if (pred(last))
                    break;
            }
            std::this_thread::sleep_for(milliseconds(50));
        } while (steady::now() < deadline);
        return last;
    }

    temp_board_dir board_;
    std::unique_ptr<master> m_;
};

bool shows(const media_state& s, int chn, media_chn src)
{
    const media_vo* v = s.vo_chn(8, chn);
    return v != nullptr && v->enabled && s.source_of({VO, 8, chn}) == std::optional<media_chn>(src);
}

TEST_F(vout_e2e, layouts_and_zoom_as_the_master_sees_them_on_the_board)
{
    // One cell through group 127, zoomed to an even rectangle.
    ASSERT_EQ(send(CMD_SET_LAYOUT, layout_payload(grid_layout(1, 9))), 0);
    ASSERT_EQ(send(CMD_SET_ZOOM, zoom_payload(9, 101, 51, 641, 361)), 0);
    media_state s = state_when([](const media_state& s) {
        const media_vpss* g = s.group(127);
        return g != nullptr && g->crop.enable && shows(s, 9, {VPSS, 127, 2});
    });
    ASSERT_TRUE(shows(s, 9, {VPSS, 127, 2})) << console();
    EXPECT_EQ(s.source_of({VPSS, 127, 0}), (media_chn{VI, 0, 4}));
    const media_crop crop = s.group(127)->crop;
    EXPECT_TRUE(crop.enable);
    EXPECT_EQ(crop.x, 100);
    EXPECT_EQ(crop.y, 50);
    EXPECT_EQ(crop.width, 640);
    EXPECT_EQ(crop.height, 360);
    EXPECT_EQ(s.vo_chn(8, 9)->width, 1920);

    // Four 960 x 540 cells from the main-capture groups; the zoom ends.
    ASSERT_EQ(send(CMD_SET_LAYOUT, layout_payload(grid_layout(2, 8))), 0);
    s = state_when([](const media_state& s) { return shows(s, 11, {VPSS, 2 * n + 3, 3}); });
    for (int c = 0; c < n; ++c) {
        EXPECT_TRUE(shows(s, 8 + c, {VPSS, 2 * n + c, 3})) << c;
        EXPECT_EQ(s.vo_chn(8, 8 + c)->width, 960);
        EXPECT_EQ(s.vo_chn(8, 8 + c)->height, 540);
    }
    EXPECT_EQ(s.source_of({VPSS, 127, 0}), std::nullopt);
    EXPECT_FALSE(s.group(127)->crop.enable);

    // Sixteen cells of cameras 0 .. 15: this slave's four from the
    // sub-capture groups, 480 x 270, the others' cells skipped.
    ASSERT_EQ(send(CMD_SET_LAYOUT, layout_payload(grid_layout(4, 0))), 0);
    s = state_when([](const media_state& s) { return shows(s, 11, {VPSS, n + 3, 2}); });
    for (int c = 0; c < n; ++c) {
        EXPECT_TRUE(shows(s, 8 + c, {VPSS, n + c, 2})) << c;
        EXPECT_EQ(s.vo_chn(8, 8 + c)->width, 480);
    }
    for (int cam : {0, 7, 12, 15})
        EXPECT_EQ(s.vo_chn(8, cam), nullptr) << cam;

    // Nine cells, camera 8's 1280 wide; camera 9 captured 704 wide and
    // camera 10 1280 wide, both narrow; camera 32 and another slave's 5.
    vincaps_t caps9{9, 704, 576, 0, 25.0, 0, 0}, caps10{10, 1280, 720, 1, 25.0, 0, 0};
    ASSERT_EQ(m_->set_vincaps(chip, caps9, REPLY_WAIT), 0);
    ASSERT_EQ(m_->set_vincaps(chip, caps10, REPLY_WAIT), 0);
    layout_cmd nine = nine_with_wide(8);
    nine.cells[5].cam = 32;
    nine.cells.push_back({5, 0, 720, 640, 360});
    nine.narrow[9] = nine.narrow[10] = true;
    ASSERT_EQ(send(CMD_SET_LAYOUT, layout_payload(nine)), 0);
    s = state_when([](const media_state& s) { return shows(s, 8, {VPSS, 2 * n, 3}); });
    EXPECT_TRUE(shows(s, 8, {VPSS, 2 * n, 3}));
    EXPECT_EQ(s.source_of({VPSS, 127, 0}), (media_chn{VI, 0, 0}));
    ASSERT_NE(s.vo_chn(8, 9), nullptr);
    EXPECT_EQ(s.vo_chn(8, 9)->x, 1280 + 80);
    EXPECT_EQ(s.vo_chn(8, 9)->width, 480);
    ASSERT_NE(s.vo_chn(8, 10), nullptr);
    EXPECT_EQ(s.vo_chn(8, 10)->x, 1280);
    EXPECT_EQ(s.vo_chn(8, 10)->width, 640);
    EXPECT_EQ(s.vo_chn(8, 32), nullptr);
    EXPECT_EQ(s.vo_chn(8, 5), nullptr);

    // Output 1 is refused, 2 and 3 leave the screen alone.
    for (int idx : {1, 2, 3}) {
        layout_cmd l = grid_layout(1, 8);
        l.vout_idx = idx;
        EXPECT_EQ(send(CMD_SET_LAYOUT, layout_payload(l)), idx == 1 ? -1 : 0) << idx;
    }
    // A short layout is refused.
    std::vector<uint8_t> shortp = layout_payload(grid_layout(2, 8));
    shortp.resize(44 + 12 * 3);
    EXPECT_EQ(send(CMD_SET_LAYOUT, shortp), -1);
    s = state_when([](const media_state&) { return true; });
    EXPECT_TRUE(shows(s, 8, {VPSS, 2 * n, 3}));
    EXPECT_EQ(s.vo_chn(8, 9)->width, 480);

    // What the master draws of it.
    std::vector<screen_part> parts = screen_parts(s, n);
    EXPECT_EQ(parts.size(), 4u);
    std::string err;
    ASSERT_EQ(draw_screen_png(parts, board_.path() + "/layout.png", &err), 0) << err;
    EXPECT_GT(read_file(board_.path() + "/layout.png").size(), 100u);
}

TEST_F(vout_e2e, pci_video_paths_attach_their_sources_and_count_pictures)
{
    // Main live for camera 8, playback for 9; spot for 10; PIP (channel 4).
    ASSERT_EQ(send(CMD_INIT_PCIV_VO, pciv_init_payload(2, 8, 1, 1920, 1080)), 0);
    ASSERT_EQ(send(CMD_INIT_PCIV_VO, pciv_init_payload(2, 9, 0, 1920, 1080)), 0);
    ASSERT_EQ(send(CMD_INIT_PCIV_VO, pciv_init_payload(3, 10, 0, 640, 360)), 0);
    ASSERT_EQ(send(CMD_INIT_PCIV_VO, pciv_init_payload(0, n, 0, 640, 360)), 0);
    std::vector<uint8_t> shortp = pciv_init_payload(2, 11, 1, 1920, 1080);
    shortp.resize(100);
    EXPECT_EQ(send(CMD_INIT_PCIV_VO, shortp), -1);

    media_state s = state_when([](const media_state& s) {
        const media_pciv* p = s.pciv_chn(8);
        return p != nullptr && p->pictures > 0 && s.pciv_chn(n) != nullptr;
    });
    ASSERT_NE(s.pciv_chn(8), nullptr) << console();
    EXPECT_TRUE(s.pciv_chn(8)->started);
    EXPECT_EQ(s.pciv_chn(8)->width, 1920);
    EXPECT_GT(s.pciv_chn(8)->pictures, 0u);
    EXPECT_EQ(s.source_of({PCIV, 0, 8}), (media_chn{VPSS, 2 * n, 3}));
    EXPECT_EQ(s.source_of({PCIV, 0, 9}), (media_chn{VPSS, 1, 3}));
    EXPECT_EQ(s.source_of({PCIV, 0, 10}), (media_chn{VI, 0, 16 + 4 * 2}));
    ASSERT_NE(s.pciv_chn(n), nullptr);
    EXPECT_TRUE(s.pciv_chn(n)->started);
    EXPECT_EQ(s.source_of({PCIV, 0, n}), std::nullopt);
    EXPECT_EQ(s.pciv_chn(11), nullptr);

    // Main start by size, PIP start, then exits.
    ASSERT_EQ(send(CMD_START_PCIV_VO, pciv_start_payload(2, 8, 1, 640, 360)), 0);
    ASSERT_EQ(send(CMD_START_PCIV_VO, pciv_start_payload(2, 9, 1, 704, 576)), 0);
    ASSERT_EQ(send(CMD_START_PCIV_VO, pciv_start_payload(0, 2 * n + 1, 0, 0, 0)), 0);
    s = state_when([](const media_state& s) {
        const media_pciv* p = s.pciv_chn(n);
        return p != nullptr && p->pictures > 0 && s.source_of({PCIV, 0, 9}) == media_chn{VPSS, 2 * n + 1, 3};
    });
    EXPECT_EQ(s.source_of({PCIV, 0, 8}), (media_chn{VI, 0, 16}));
    EXPECT_EQ(s.source_of({PCIV, 0, 9}), (media_chn{VPSS, 2 * n + 1, 3}));
    EXPECT_EQ(s.source_of({PCIV, 0, n}), (media_chn{VPSS, 2 * n + 1, 3}));
    EXPECT_GT(s.pciv_chn(n)->pictures, 0u);

    ASSERT_EQ(send(CMD_STOP_PCIV_VO, pciv_stop_payload(0, 0)), 0);
    ASSERT_EQ(send(CMD_STOP_PCIV_VO, pciv_stop_payload(0, 0)), 0);  // nothing attached
    ASSERT_EQ(send(CMD_STOP_PCIV_VO, pciv_stop_payload(2, 8)), 0);
    EXPECT_EQ(send(CMD_STOP_PCIV_VO, pciv_stop_payload(2, 8)), -1);  // gone
    s = state_when([](const media_state& s) { return s.pciv_chn(8) == nullptr; });
    EXPECT_EQ(s.pciv_chn(8), nullptr);
    EXPECT_EQ(s.source_of({PCIV, 0, 8}), std::nullopt);
    EXPECT_EQ(s.source_of({PCIV, 0, n}), std::nullopt);
    ASSERT_NE(s.pciv_chn(n), nullptr);
    EXPECT_TRUE(s.pciv_chn(n)->started);
}

}  // namespace
