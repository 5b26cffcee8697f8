// Channel building: the attributes a stream's settings give, and the groups,
// channels and bindings made on the simulated board.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>

#include "platform/hi_mpi_venc.h"
#include "platform/sim/fault.h"
#include "tests/support/enc_board.h"

namespace {

using ::testing::ElementsAre;

TEST(enc_bitrate, worked_examples_and_the_bounds_of_int)
{
    EXPECT_EQ(_calc_bitrate(0, 1920, 1080, 30, 2), 4714285);
    EXPECT_EQ(_calc_bitrate(6, 704, 576, 25, 1), 977777);
    EXPECT_EQ(_calc_bitrate(4, 1280, 720, 1, 3), 155555);
    // Any other quality is the default base; width 480 and below is 1.5 times.
    EXPECT_EQ(_calc_bitrate(0, 352, 288, 60, 0), _calc_bitrate(0, 352, 288, 60, 7));
    EXPECT_EQ(_calc_bitrate(0, 480, 288, 60, 0), 800000);
    // Reduction at 12 fps and above for 1280 x 720 and larger, not at 11.
    EXPECT_EQ(_calc_bitrate(0, 1280, 720, 12, 3), 977777);
    EXPECT_EQ(_calc_bitrate(0, 1280, 720, 11, 3), 1140740);
    EXPECT_EQ(_calc_bitrate(0, 32767, 32767, INT_MAX, 2), INT_MAX);
    EXPECT_EQ(_calc_bitrate(0, 32767, 32767, INT_MIN, 2), INT_MIN);
}

class enc_attr_test : public enc_board_test {
protected:
    venc_chn_attr_t attr(int v)
    {
        venc_chn_attr_t a{};
        EXPECT_EQ(_enc_chn_attr(&cal_, v, &a), 0);
        return a;
    }
};

TEST_F(enc_attr_test, gop_rates_and_sizes_follow_the_stream_and_its_camera)
{
    struct gop_case {
        int w, h;
        float fps;
        uint32_t gop;
    } gops[] = {{1280, 720, 12, 16}, {1280, 720, 11, 12}, {704, 576, 25, 12}, {1920, 1080, 1, 6}, {352, 288, 0, 6}};
    for (const gop_case& g : gops) {
        set_video(ENC_KIND_REC, 8, g.w, g.h, g.fps, 2);
        venc_chn_attr_t a = attr(0);
        EXPECT_EQ(a.rc.gop, g.gop) << g.w << "x" << g.h << "@" << g.fps;
    }
    set_video(ENC_KIND_REC, 8, 1920, 1080, 30, 2);
    venc_chn_attr_t a = attr(0);
    EXPECT_EQ(a.payload_type, 96);
    EXPECT_THAT((std::vector<uint32_t>{a.h264.max_pic_width, a.h264.max_pic_height, a.h264.buf_size, a.h264.profile,
                                       a.h264.pic_width, a.h264.pic_height}),
                ElementsAre(1920, 1080, 1920 * 1080 / 4 * 3, 2, 1920, 1080));
    EXPECT_EQ(a.h264.by_frame, 1);
    EXPECT_EQ(a.h264.main_stream, 1);
    EXPECT_THAT((std::vector<uint32_t>{uint32_t(a.rc.rc_mode), a.rc.stat_time, a.rc.vi_frm_rate, a.rc.target_frm_rate,
                                       a.rc.bit_rate, a.rc.fluctuate_level}),
                ElementsAre(13, 5, 60, 30, 4714, 2));

    // Interlaced input halves the input rate; the target follows it down.
    ASSERT_EQ(chip_init_slave(&cal_), 0);
    ASSERT_EQ(_vin_set_caps(&cal_, 0, 1920, 1080, 0, 50.0, 3), 0);
    a = attr(0);
    EXPECT_EQ(a.rc.vi_frm_rate, 25u);
    EXPECT_EQ(a.rc.target_frm_rate, 25u);

    // Low streams of a 1280-wide camera: halved again above 30.
    set_video(ENC_KIND_REC_LOW, 9, 704, 576, 30, 1);
    set_video(ENC_KIND_NET_LOW, 9, 352, 288, 30, 1);
    set_video(ENC_KIND_REC, 9, 1280, 720, 60, 1);
    struct rate_case {
        int prog;
        double fps;
        uint32_t in;
    } rates[] = {{1, 60.0, 30}, {0, 60.0, 30}, {1, 50.0, 25}, {1, 30.0, 30}};
    for (const rate_case& r : rates) {
        ASSERT_EQ(_vin_set_caps(&cal_, 1, 1280, 720, r.prog, r.fps, 0), 0);
        EXPECT_EQ(attr(2 * 8 + 1).rc.vi_frm_rate, r.in) << r.prog << " " << r.fps;
        EXPECT_EQ(attr(3 * 8 + 1).rc.vi_frm_rate, r.in) << r.prog << " " << r.fps;
        EXPECT_EQ(attr(1).rc.vi_frm_rate, r.prog ? uint32_t(r.fps) : uint32_t(r.fps) / 2);  // REC keeps it
    }
    EXPECT_EQ(attr(2 * 8 + 1).rc.bit_rate, 1173u);  // 704 x 576 at 30, quality 1

    // A stream the master never described: only the payload type is set.
    venc_chn_attr_t none{};
    none.rc.gop = 77;
    EXPECT_EQ(_enc_chn_attr(&cal_, 8 + 3, &none), 0);  // NET of camera 3
    EXPECT_EQ(none.payload_type, 0);
    EXPECT_EQ(none.rc.gop, 77u);
    EXPECT_EQ(_enc_chn_attr(&cal_, 32, &none), -1);
    EXPECT_EQ(_enc_chn_attr(&cal_, -1, &none), -1);
}

}  // namespace
