// Channel building: the attributes a stream's settings give, and the groups,
// channels and bindings made on the simulated board.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>

#include "platform/hi_mpi_venc.h"
#include "platform/sim/fault.h"
#include "platform/sim/media_core.h"
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

namespace {

// Streams built on the simulated board: camera c's processing groups are
// n + c (sub capture) and 2n + c (main capture).
class enc_build_test : public enc_board_test {
protected:
    void SetUp() override
    {
        enc_board_test::SetUp();
        stdout_capture quiet;
        ASSERT_EQ(chip_init_slave(&cal_), 0);
    }

    // The source bound to encoder group v, or module -1 when none.
    mpp_chn_t source_of(int v)
    {
        for (const sim_binding& b : sim_media_bindings())
            if (sim_same_chn(b.dest, mpp_chn_t{HI_ID_GROUP, v, 0}))
                return b.src;
        return {-1, -1, -1};
    }
    // A stream fully built: group, channel registered with it, receiving,
    // bound, its descriptor noted.
    void expect_built(int v, mpp_chn_t src)
    {
        SCOPED_TRACE("channel " + std::to_string(v));
        EXPECT_TRUE(sim_media_venc_grp(v).created);
        EXPECT_EQ(sim_media_venc_grp(v).chn, v);
        EXPECT_TRUE(sim_media_venc_chn(v).receiving);
        EXPECT_EQ(source_of(v), src);
        EXPECT_GT(enc()->chn[v].fd, 0);
        EXPECT_GE(enc()->max_fd, enc()->chn[v].fd);
        EXPECT_EQ(enc()->chn[v].payload, 96);
    }
    void expect_absent(int v)
    {
        SCOPED_TRACE("channel " + std::to_string(v));
        EXPECT_FALSE(sim_media_venc_grp(v).created);
        EXPECT_FALSE(sim_media_venc_chn(v).created);
        EXPECT_EQ(source_of(v).mod_id, -1);
    }
    void describe(int cam)
    {
        set_video(ENC_KIND_REC, 8 + cam, 1920, 1080, 30, 2);
        set_video(ENC_KIND_NET, 8 + cam, 1920, 1080, 30, 2);
        set_video(ENC_KIND_NET_LOW, 8 + cam, 352, 288, 15, 1);
        set_video(ENC_KIND_REC_LOW, 8 + cam, 704, 576, 15, 1);
    }
    std::vector<std::string> build_lines()
    {
        std::vector<std::string> out;
        for (const std::string& l : syslog_lines())
            for (const char* w : {"success", "failure"})
                if (l.find(w) != std::string::npos)
                    out.push_back(l.substr(l.find("> ") + 2));
        return out;
    }
};

TEST_F(enc_build_test, update_builds_every_stream_that_is_on_in_camera_and_stream_order)
{
    for (int cam : {1, 0}) {
        describe(cam);
        for (uint32_t kind : {0u, 1u, 4u, 6u})
            run_video(kind, 8 + cam, 1);
    }
    ASSERT_EQ(_update_chip(&cal_, 0, 0), 0);
    EXPECT_THAT(build_lines(),
                ElementsAre("ch:0 recoding success!!", "ch:0 network high success..", "ch:0 network low success..",
                            "ch:0 rec low success..", "ch:1 recoding success!!", "ch:1 network high success..",
                            "ch:1 network low success..", "ch:1 rec low success.."));
    for (int c : {0, 1}) {
        expect_built(c, {HI_ID_VPSS, 16 + c, 1});
        expect_built(24 + c, {HI_ID_VPSS, 8 + c, 1});
        expect_built(16 + c, {HI_ID_VPSS, 8 + c, 2});
        expect_absent(8 + c);  // the main network stream has no channel
        EXPECT_EQ(enc()->rec[c].changed + enc()->net[c].changed + enc()->rec_low[c].changed, 0);
    }
    venc_chn_attr_t a{};
    ASSERT_EQ(HI_MPI_VENC_GetChnAttr(16, &a), 0);
    EXPECT_EQ(a.h264.pic_width, 704u);
    EXPECT_EQ(a.rc.bit_rate, _calc_bitrate(6, 704, 576, 15, 1) / 1000);

    // Off: torn down with its binding at the next update; the rest stays.
    const int fd0 = enc()->chn[0].fd;
    run_video(ENC_KIND_REC, 8, 0);
    ASSERT_EQ(_update_chip(&cal_, 0, 0), 0);
    expect_absent(0);
    expect_built(1, {HI_ID_VPSS, 17, 1});
    expect_built(16, {HI_ID_VPSS, 8, 2});
    EXPECT_GT(fd0, 0);
    EXPECT_EQ(enc()->chn[0].fd, -1);  // a destroyed channel's descriptor is forgotten

    // A second update with nothing changed touches nothing.
    const auto bindings = sim_media_bindings().size();
    ASSERT_EQ(_update_chip(&cal_, 0, 0), 0);
    EXPECT_EQ(sim_media_bindings().size(), bindings);
}

TEST_F(enc_build_test, a_rebuilt_stream_takes_its_new_settings_and_main_record_buffers_are_handed_over)
{
    describe(2);
    run_video(ENC_KIND_REC, 10, 1);
    ASSERT_EQ(_update_chip(&cal_, 0, 0), 0);
    enc()->ebuf[2] = ebuf_malloc(1000);
    enc()->ebuf[2 * 8] = ebuf_malloc(1000);
    set_video(ENC_KIND_REC, 10, 1280, 720, 25, 1);
    run_video(ENC_KIND_REC, 10, 1);
    ASSERT_EQ(_update_chip(&cal_, 0, 0), 0);
    venc_chn_attr_t a{};
    ASSERT_EQ(HI_MPI_VENC_GetChnAttr(2, &a), 0);
    EXPECT_EQ(a.h264.pic_width, 1280u);
    EXPECT_EQ(a.rc.target_frm_rate, 25u);
    expect_built(2, {HI_ID_VPSS, 18, 1});
    EXPECT_EQ(enc()->ebuf[2], nullptr);
    EXPECT_EQ(queued(cal_.msgid_encr), 1);
    EXPECT_NE(enc()->ebuf[2 * 8], nullptr);  // the low slot is handed over by the routing only
}

TEST_F(enc_build_test, an_existing_group_is_reconfigured_in_place)
{
    describe(3);
    ASSERT_EQ(_process_start(&cal_, 3, ENC_KIND_REC), 0);
    set_video(ENC_KIND_REC, 11, 704, 576, 12, 3);
    _process_start(&cal_, 3, ENC_KIND_REC);
    venc_chn_attr_t a{};
    ASSERT_EQ(HI_MPI_VENC_GetChnAttr(3, &a), 0);
    EXPECT_EQ(a.h264.pic_width, 704u);
    EXPECT_EQ(a.rc.gop, 12u);
    EXPECT_TRUE(sim_media_venc_chn(3).receiving);

    // Starting fails: the channel goes, traced.
    std::string err;
    ASSERT_EQ(sim_fault_set("HI_MPI_VENC_StartRecvPic=a0078009", &err), 0) << err;
    EXPECT_EQ(_process_start(&cal_, 3, ENC_KIND_REC), -1);
    EXPECT_FALSE(sim_media_venc_chn(3).created);
    EXPECT_FALSE(sim_media_venc_grp(3).created);
    EXPECT_TRUE(logged_line("VencChn:3 HI_MPI_VENC_StartRecvPic faild with0xa0078009!"));
}

TEST_F(enc_build_test, a_failed_step_tears_down_what_it_made)
{
    describe(0);
    const char* faults[] = {"HI_MPI_VENC_CreateGroup=a0078003", "HI_MPI_VENC_CreateChn=a007800c",
                            "HI_MPI_VENC_RegisterChn=a0078009", "HI_MPI_VENC_StartRecvPic=a0078009"};
    for (const char* f : faults) {
        SCOPED_TRACE(f);
        std::string err;
        ASSERT_EQ(sim_fault_set(f, &err), 0) << err;
        EXPECT_EQ(_process_start(&cal_, 0, ENC_KIND_REC), -1);
        EXPECT_FALSE(sim_media_venc_chn(0).created);
        EXPECT_FALSE(sim_media_venc_grp(0).created);
        EXPECT_EQ(enc()->chn[0].fd, -1);
        // The binding to the missing group is made all the same: the
        // descriptor query fails. It goes before the next case.
        sim_fault_set("", &err);
        mpp_chn_t src = source_of(0);
        if (src.mod_id != -1) {
            const mpp_chn_t dest{HI_ID_GROUP, 0, 0};
            HI_MPI_SYS_UnBind(&src, &dest);
        }
    }
    // A failed binding or descriptor: -1, the channel stays for the next teardown.
    std::string err;
    ASSERT_EQ(sim_fault_set("HI_MPI_SYS_Bind=a0028003", &err), 0) << err;
    EXPECT_EQ(_process_start(&cal_, 0, ENC_KIND_REC), -1);
    EXPECT_TRUE(logged_line("venc ch:0 binding failed with 0xa0028003!"));
    ASSERT_EQ(sim_fault_set("HI_MPI_VENC_GetFd=a0078005", &err), 0) << err;
    EXPECT_EQ(_enc_exit_chn(0), 0);
    EXPECT_EQ(_process_start(&cal_, 0, ENC_KIND_REC), -1);
    sim_fault_set("", &err);
    run_video(ENC_KIND_REC, 8, 1);
    EXPECT_EQ(_update_chip(&cal_, 0, 0), 0);
    EXPECT_THAT(build_lines(), ::testing::Contains("ch:0 recoding success!!"));
    // Kinds without a channel of their own.
    EXPECT_EQ(_process_start(&cal_, 0, ENC_KIND_NET), 0);
    EXPECT_EQ(_process_start(&cal_, 0, ENC_KIND_COPY), -1);
    EXPECT_EQ(_process_start(&cal_, 8, ENC_KIND_REC), -1);
}

TEST_F(enc_build_test, teardown_of_channels_that_are_not_there)
{
    EXPECT_EQ(_enc_exit_chn(5), -1);
    EXPECT_EQ(_enc_exit_chn(-1), -1);
    EXPECT_EQ(_enc_exit_chn(100000), -1);
    EXPECT_EQ(_enc_exit_jpeg_chn(enc(), 0), 0);
    EXPECT_EQ(cal_enc_exit_jpeg(&cal_), 0);
    describe(4);
    for (uint32_t kind : {0u, 4u, 6u})
        run_video(kind, 12, 1);
    ASSERT_EQ(_update_chip(&cal_, 0, 0), 0);
    EXPECT_EQ(cal_enc_stop(enc()), 0);
    for (int v : {4, 20, 28})
        expect_absent(v);
}

}  // namespace
