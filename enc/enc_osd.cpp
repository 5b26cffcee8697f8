// The time overlay: the date and time, drawn once a second with the
// master's glyphs into one picture per camera, laid by the platform's
// region engine over the bottom left of the camera's REC pictures.
#include <cstdio>
#include <cstring>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "cal/cal_time.h"
#include "enc/cal_enc.h"
#include "platform/hi_mpi_rgn.h"

namespace {

cal_enc_t* enc_of(cal_t* cal)
{
    CAL_CHECK_OBJ(cal, cal_t, "cal is NULL\n");
    CAL_CHECK_OBJ(cal->enc, cal_enc_t, "enc is NULL\n");
    return cal->enc;
}

constexpr int k_glyph_slash = 10;
constexpr int k_glyph_colon = 11;
constexpr int k_glyph_a = 12;
constexpr int k_glyph_p = 13;
constexpr int k_glyph_m = 14;
constexpr int k_osd_row_bytes = ENC_OSD_WIDTH * 2;
static_assert(k_osd_row_bytes * ENC_OSD_HEIGHT == CAL_ENC_OSD_BYTES);
static_assert(ENC_OSD_HEIGHT == CAL_ENC_FONT_GLYPHS);
static_assert(ENC_OSD_LINE_MAX * 16 == ENC_OSD_WIDTH);

// The glyph of a character, or -1 for one that is not drawn (the spaces).
int glyph_of(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    switch (c) {
    case '/':
        return k_glyph_slash;
    case ':':
        return k_glyph_colon;
    case 'A':
        return k_glyph_a;
    case 'P':
        return k_glyph_p;
    case 'M':
        return k_glyph_m;
    default:
        return -1;
    }
}

mpp_chn_t osd_group(int ch)
{
    return {HI_ID_GROUP, ch, 0};
}

}  // namespace

int _enc_set_timestamp(cal_t* cal, int on, int date_fmt, int hour12)
{
    cal_enc_t* enc = enc_of(cal);
    enc->osd_on = on;
    enc->date_fmt = date_fmt;
    enc->hour12 = hour12;
    return 0;
}

int _enc_copy_timefont(cal_t* cal, const unsigned char* data, int index)
{
    cal_enc_t* enc = enc_of(cal);
    if (index < 0 || index >= CAL_ENC_FONT_GLYPHS)
        return -1;
    std::memcpy(enc->timefont[index], data, CAL_ENC_FONT_BYTES);
    return 0;
}

int _enc_init_osd_insert(cal_t* cal, int ch, int, int height)
{
    cal_enc_t* enc = enc_of(cal);
    if (ch < 0 || ch >= enc->num)
        return -1;
    const int handle = ENC_OSD_HANDLE_BASE + ch;
    const mpp_chn_t grp = osd_group(ch);
    // A region left from before goes first.
    HI_MPI_RGN_DetachFrmChn(handle, &grp);
    HI_MPI_RGN_Destroy(handle);

    rgn_attr_t attr{};
    attr.type = OVERLAY_RGN;
    attr.overlay = {PIXEL_FORMAT_RGB_1555, ENC_OSD_BG_COLOR, {ENC_OSD_WIDTH, ENC_OSD_HEIGHT}};
    if (HI_MPI_RGN_Create(handle, &attr) != 0) {
        HI_MPI_RGN_Destroy(handle);
        return -1;
    }
    rgn_chn_attr_t chn{};
    chn.show = 1;
    chn.type = OVERLAY_RGN;
    chn.overlay.x = ENC_OSD_X;
    chn.overlay.y = ((height - 30) / 4) * 4;
    chn.overlay.bg_alpha = 128;
    chn.overlay.fg_alpha = 0;
    if (HI_MPI_RGN_AttachToChn(handle, &grp, &chn) != 0 || HI_MPI_RGN_SetDisplayAttr(handle, &grp, &chn) != 0)
        return -1;
    enc->osd_attached[ch] = 1;
    return 0;
}

int _enc_exit_osd_insert(cal_t* cal, int ch)
{
    cal_enc_t* enc = enc_of(cal);
    if (ch < 0 || ch >= enc->num)
        return 0;
    const int handle = ENC_OSD_HANDLE_BASE + ch;
    const mpp_chn_t grp = osd_group(ch);
    HI_MPI_RGN_DetachFrmChn(handle, &grp);
    HI_MPI_RGN_Destroy(handle);
    enc->osd_attached[ch] = 0;
    return 0;
}

int _enc_osd_line(const struct tm* tm, int date_fmt, int hour12, char* out)
{
    const int year = tm->tm_year + 1900, month = tm->tm_mon + 1, day = tm->tm_mday;
    // Fields out of their usual range (a year past 9999) are cut at the
    // line's width rather than written past it.
    char date[40], time[48], line[96];
    if (date_fmt == 1)
        std::snprintf(date, sizeof(date), "%02d/%02d/%04d", month, day, year);
    else if (date_fmt == 2)
        std::snprintf(date, sizeof(date), "%02d/%02d/%04d", day, month, year);
    else
        std::snprintf(date, sizeof(date), "%04d/%02d/%02d", year, month, day);
    if (hour12 == 1) {
        const int h = tm->tm_hour % 12 == 0 ? 12 : tm->tm_hour % 12;
        std::snprintf(time, sizeof(time), "%s %02d:%02d:%02d", tm->tm_hour > 11 ? "PM" : "AM", h, tm->tm_min,
                      tm->tm_sec);
    } else {
        std::snprintf(time, sizeof(time), "%02d:%02d:%02d", tm->tm_hour, tm->tm_min, tm->tm_sec);
    }
    std::snprintf(line, sizeof(line), "%s %s", date, time);
    const size_t n = strnlen(line, ENC_OSD_LINE_MAX);
    std::memcpy(out, line, n);
    out[n] = '\0';
    return static_cast<int>(n);
}

void _draw_enc_osd(cal_enc_t* enc, time_t secs)
{
    CAL_CHECK_OBJ(enc, cal_enc_t, "enc is NULL\n");
    struct tm tm;
    cal_localtime(&tm, &secs);
    char line[ENC_OSD_LINE_MAX + 1];
    const int len = _enc_osd_line(&tm, enc->date_fmt, enc->hour12, line);

    std::memset(enc->osd_bmp, 0, sizeof(enc->osd_bmp));
    for (int i = 0; i < len; ++i) {
        const int g = glyph_of(line[i]);
        if (g < 0)
            continue;
        // "M" is 18 pixels wide: it takes the first 2 pixels of glyph 15.
        // The last character of the widest line stays within the picture.
        const int bytes = g == k_glyph_m && i < ENC_OSD_LINE_MAX - 1 ? ENC_GLYPH_M_BYTES : ENC_GLYPH_BYTES;
        for (int ch = 0; ch < enc->num; ++ch) {
            if (!enc->osd_attached[ch])
                continue;
            for (int r = 0; r < ENC_OSD_HEIGHT; ++r)
                std::memcpy(enc->osd_bmp[ch] + r * k_osd_row_bytes + ENC_GLYPH_BYTES * i,
                            enc->timefont[r] + ENC_GLYPH_BYTES * g, static_cast<size_t>(bytes));
        }
    }
    for (int ch = 0; ch < enc->num; ++ch) {
        if (!enc->osd_attached[ch])
            continue;
        const bitmap_t bm{PIXEL_FORMAT_RGB_1555, ENC_OSD_WIDTH, ENC_OSD_HEIGHT, enc->osd_bmp[ch]};
        HI_MPI_RGN_SetBitMap(ENC_OSD_HANDLE_BASE + ch, &bm);  // an error only costs this second's picture
    }
}
