// The time overlay: the line for every date order and both clocks, the
// glyph rows, the region's place on the REC picture and its life with the
// REC rebuilds, and the drawing handed to the region.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <ctime>
#include <string>

#include "platform/hi_mpi_rgn.h"
#include "tests/support/enc_board.h"

namespace {

struct tm at(int year, int mon, int day, int h, int m, int s)
{
    struct tm t{};
    t.tm_year = year - 1900;
    t.tm_mon = mon - 1;
    t.tm_mday = day;
    t.tm_hour = h;
    t.tm_min = m;
    t.tm_sec = s;
    return t;
}

std::string line(const struct tm& t, int date_fmt, int hour12)
{
    char out[ENC_OSD_LINE_MAX + 1];
    int n = _enc_osd_line(&t, date_fmt, hour12, out);
    EXPECT_EQ(n, static_cast<int>(std::string(out).size()));
    return out;
}

TEST(enc_osd_line, every_date_order_and_both_clocks)
{
    const struct tm t = at(2024, 3, 5, 14, 7, 9);
    EXPECT_EQ(line(t, 0, 0), "2024/03/05 14:07:09");
    EXPECT_EQ(line(t, 7, 2), "2024/03/05 14:07:09");  // other values: year first, 24 hours
    EXPECT_EQ(line(t, 1, 1), "03/05/2024 PM 02:07:09");
    EXPECT_EQ(line(t, 2, 0), "05/03/2024 14:07:09");
    EXPECT_EQ(line(t, 2, 1), "05/03/2024 PM 02:07:09");
    EXPECT_EQ(line(at(2024, 3, 5, 0, 15, 0), 1, 1), "03/05/2024 AM 12:15:00");
    EXPECT_EQ(line(at(2024, 3, 5, 12, 0, 0), 0, 1), "2024/03/05 PM 12:00:00");
    EXPECT_EQ(line(at(2024, 3, 5, 11, 59, 59), 0, 1), "2024/03/05 AM 11:59:59");
    EXPECT_EQ(line(at(2024, 3, 5, 12, 0, 0), 0, 1).size(), 22u);  // 352 pixels
    // A year the line has no room for is cut, never written past it.
    EXPECT_EQ(line(at(INT_MAX - 1900, 1, 1, 0, 0, 0), 1, 1).size(), 22u);
}

class enc_osd_test : public enc_board_test {
protected:
    // Glyph g's rows hold the byte g + 1 (so cells can be told apart), and
    // the two pixels after "M" (glyph 15's first) 0x7E.
    void send_font()
    {
        for (int r = 0; r < CAL_ENC_FONT_GLYPHS; ++r) {
            std::array<unsigned char, CAL_ENC_FONT_BYTES> row{};
            for (int g = 0; g < 16; ++g)
                std::fill_n(row.begin() + 32 * g, 32, static_cast<unsigned char>(g + 1));
            std::fill_n(row.begin() + 32 * 15, 4, 0x7E);
            ASSERT_EQ(command(HSCC_CAL_SetTimeFont + static_cast<uint32_t>(r), row), 0);
        }
    }
    int set_timestamp(int32_t on, int32_t fmt, int32_t h12)
    {
        int32_t p[3] = {on, fmt, h12};
        return command(HSCC_CAL_SetTimestamp, p);
    }
    static const mpp_chn_t* grp(int ch)
    {
        static mpp_chn_t g;
        g = {HI_ID_GROUP, ch, 0};
        return &g;
    }
};

TEST_F(enc_osd_test, font_rows_19_is_the_last_and_short_commands_read_no_further_than_they_came)
{
    std::array<unsigned char, 512> row;
    row.fill(3);
    EXPECT_EQ(_enc_copy_timefont(&cal_, row.data(), 19), 0);
    EXPECT_EQ(enc()->timefont[19][511], 3);
    EXPECT_EQ(_enc_copy_timefont(&cal_, row.data(), 20), -1);
    EXPECT_EQ(_enc_copy_timefont(&cal_, row.data(), -1), -1);
    EXPECT_EQ(command(HSCC_CAL_SetTimeFont + 19, row), 0);
    // 0x20394 is no font command.
    EXPECT_EQ(cal_cmd_find_row(&cal_, HSCC_CAL_SetTimeFont + 20), nullptr);

    // A command with 10 bytes: the rest of the message buffer holds
    // something else, which must not become glyphs.
    std::memset(&msg_, 0xEE, sizeof(msg_));
    msg_.cmd = HSCC_CAL_SetTimeFont + 4;
    msg_.len = 10;
    std::memset(msg_.data, 1, 10);
    EXPECT_EQ(cal_cmd_dispatch(&cal_, &msg_), 0);
    EXPECT_EQ(enc()->timefont[4][9], 1);
    EXPECT_EQ(enc()->timefont[4][10], 0);
    EXPECT_EQ(enc()->timefont[4][511], 0);
    msg_.len = 0;
    EXPECT_EQ(cal_cmd_dispatch(&cal_, &msg_), 0);
    EXPECT_EQ(enc()->timefont[4][0], 0);
}

TEST_F(enc_osd_test, the_region_sits_at_20_and_the_bottom_of_the_rec_picture)
{
    ASSERT_EQ(_enc_init_osd_insert(&cal_, 2, 1920, 1080), 0);
    rgn_chn_attr_t a{};
    ASSERT_EQ(HI_MPI_RGN_GetDisplayAttr(66, grp(2), &a), 0);
    EXPECT_EQ(a.overlay.x, 20);
    EXPECT_EQ(a.overlay.y, 1048);
    EXPECT_EQ(a.overlay.bg_alpha, 128u);
    sim_rgn r = sim_media_rgn(66);
    EXPECT_EQ(r.attr.overlay.size.width, 352u);
    EXPECT_EQ(r.attr.overlay.bg_color, 0x7C1Fu);
    EXPECT_EQ(enc()->osd_attached[2], 1);
    // Made again over the old one: 576 lines.
    ASSERT_EQ(_enc_init_osd_insert(&cal_, 2, 704, 576), 0);
    ASSERT_EQ(HI_MPI_RGN_GetDisplayAttr(66, grp(2), &a), 0);
    EXPECT_EQ(a.overlay.y, 544);
    ASSERT_EQ(_enc_init_osd_insert(&cal_, 3, 352, 289), 0);  // (289 - 30) / 4 * 4
    ASSERT_EQ(HI_MPI_RGN_GetDisplayAttr(67, grp(3), &a), 0);
    EXPECT_EQ(a.overlay.y, 256);
    EXPECT_EQ(_enc_exit_osd_insert(&cal_, 2), 0);
    EXPECT_FALSE(sim_media_rgn(66).created);
    EXPECT_EQ(enc()->osd_attached[2], 0);
}

TEST_F(enc_osd_test, the_overlay_follows_the_rec_rebuilds_and_goes_when_switched_off)
{
    {
        stdout_capture quiet;
        ASSERT_EQ(chip_init_slave(&cal_), 0);
    }
    EXPECT_EQ(set_timestamp(1, 0, 0), 0);
    EXPECT_FALSE(sim_media_rgn(64).created);  // nothing until the update
    set_video(ENC_KIND_REC, 8, 1920, 1080, 30);
    run_video(ENC_KIND_REC, 8, 1);
    _update_chip(&cal_, 0, 0);
    sim_rgn r = sim_media_rgn(64);
    ASSERT_TRUE(r.created && r.attached);
    EXPECT_EQ(r.chn_attr.overlay.y, 1048);
    // Off by command: the region stays until the next update that rebuilds REC.
    EXPECT_EQ(set_timestamp(0, 0, 0), 0);
    _update_chip(&cal_, 0, 0);
    EXPECT_TRUE(sim_media_rgn(64).created);
    run_video(ENC_KIND_REC, 8, 1);
    _update_chip(&cal_, 0, 0);
    EXPECT_FALSE(sim_media_rgn(64).created);
    EXPECT_EQ(enc()->osd_attached[0], 0);
}

TEST_F(enc_osd_test, drawing_puts_each_glyph_in_its_cell_and_hands_the_picture_to_the_region)
{
    send_font();
    ASSERT_EQ(set_timestamp(1, 1, 1), 0);
    ASSERT_EQ(_enc_init_osd_insert(&cal_, 0, 1920, 1080), 0);
    struct tm t = at(2024, 3, 5, 14, 7, 9);
    const time_t secs = mktime(&t);
    _draw_enc_osd(enc(), secs);
    const std::string want = "03/05/2024 PM 02:07:09";
    const unsigned char* bmp = enc()->osd_bmp[0];
    for (int i = 0; i < 22; ++i) {
        const char c = want[static_cast<size_t>(i)];
        const int g = c == '/' ? 10 : c == ':' ? 11 : c == 'P' ? 13 : c == 'M' ? 14 : c == ' ' ? -1 : c - '0';
        for (int row : {0, 19})
            EXPECT_EQ(bmp[row * 704 + 32 * i + 5], g < 0 ? 0 : g + 1) << "cell " << i << " row " << row;
    }
    // "M" is 18 pixels wide: its cell and 2 pixels of the next.
    EXPECT_EQ(bmp[32 * 13 + 3], 0x7E);
    EXPECT_EQ(bmp[32 * 13 + 4], 0);
    sim_rgn r = sim_media_rgn(64);
    ASSERT_EQ(r.bitmap.size(), static_cast<size_t>(CAL_ENC_OSD_BYTES));
    EXPECT_TRUE(std::equal(r.bitmap.begin(), r.bitmap.end(), bmp));
    // A camera without a region gets nothing drawn.
    EXPECT_EQ(enc()->osd_bmp[1][5], 0);
}

TEST_F(enc_osd_test, any_timestamp_values_keep_drawing_safe)
{
    send_font();
    ASSERT_EQ(_enc_init_osd_insert(&cal_, 0, 1920, 1080), 0);
    for (int32_t v : {INT_MIN, -1, 0, 1, 2, 3, INT_MAX}) {
        EXPECT_EQ(set_timestamp(v, v, v), 0);
        _draw_enc_osd(enc(), 0);
        _draw_enc_osd(enc(), static_cast<time_t>(-1));
    }
    // A short command is refused and changes nothing.
    int32_t two[2] = {1, 1};
    EXPECT_EQ(command(HSCC_CAL_SetTimestamp, two), -1);
}

}  // namespace
