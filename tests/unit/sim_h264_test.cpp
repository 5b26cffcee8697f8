// The simulated encoder's output: scene loops that decode at the channel's
// size and hold its bit rate, their cache, the live SEI, and the stream a
// channel fed by a live capture chain produces (its order, sequence, drops)
// with media.json describing it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/hi_mpi_venc.h"
#include "platform/hi_mpi_vi.h"
#include "platform/hi_mpi_vpss.h"
#include "platform/sim/h264_loop.h"
#include "platform/sim/h264_sei.h"
#include "platform/sim/scene.h"
#include "platform/sim/media_json.h"
#include "platform/sim/venc_producer.h"
#include "tests/support/h264_decode.h"
#include "tests/support/media_board.h"
#include "vin/chip.h"

#ifdef TARVO_SIM_OPENH264
#endif

namespace {

using namespace std::chrono_literals;

// ---- the scene --------------------------------------------------------------------

TEST(sim_scene_test, luma_stays_in_range_and_the_bar_sweeps_on_a_moving_camera_only)
{
    const int w = 176, h = 144;
    std::vector<uint8_t> y(w * h), c(w * h / 2);
    sim_picture pic{w, h, y.data(), w, c.data(), c.data() + 1, w, 2};  // NV12
    auto bar_columns = [&] {
        std::vector<int> cols;
        for (int x = 0; x < w; ++x)
            if (y[(h - 1) * w + x] >= 230)
                cols.push_back(x);
        return cols;
    };
    ASSERT_TRUE(sim_scene_render(12, sim_scene::moving, 1000000, pic));
    auto cols = bar_columns();
    ASSERT_EQ(cols.size(), static_cast<size_t>(w / 8));
    EXPECT_EQ(cols.front(), (w - w / 8) / 4);  // a quarter of the way at 1 s
    for (int i = 0; i < w * h; ++i) {
        bool bar = (i % w) >= cols.front() && (i % w) <= cols.back();
        ASSERT_TRUE(bar ? y[i] >= 230 : (y[i] >= 48 && y[i] <= 160)) << i;
    }
    // The number is drawn: the upper left quarter has strokes at 160.
    int strokes = 0;
    for (int r = 0; r < h / 2; ++r)
        for (int x = 0; x < w / 2; ++x)
            strokes += y[r * w + x] == SIM_SCENE_LUMA_MAX && !(x >= cols.front() && x <= cols.back());
    EXPECT_GT(strokes, 50);

    ASSERT_TRUE(sim_scene_render(12, sim_scene::moving, 3000000, pic));
    EXPECT_EQ(bar_columns().front(), 3 * (w - w / 8) / 4);
    ASSERT_TRUE(sim_scene_render(12, sim_scene::still, 3000000, pic));
    EXPECT_EQ(bar_columns().front(), (w - w / 8) / 2);
    EXPECT_FALSE(sim_scene_render(12, sim_scene::absent, 0, pic));
}

TEST(sim_scene_test, a_textured_camera_keeps_its_grain_in_range_and_in_place)
{
    const int w = 176, h = 144;
    std::vector<uint8_t> a(w * h * 3 / 2), b(w * h * 3 / 2);
    sim_picture pa{w, h, a.data(), w, a.data() + w * h, a.data() + w * h + w * h / 4, w / 2, 1};
    sim_picture pb{w, h, b.data(), w, b.data() + w * h, b.data() + w * h + w * h / 4, w / 2, 1};
    // Still: the bar stands in the middle, so every other sample is the
    // same in both pictures.
    ASSERT_TRUE(sim_scene_painter(12, sim_scene::still, w, h, true).render(0, pa));
    ASSERT_TRUE(sim_scene_painter(12, sim_scene::still, w, h, true).render(3000000, pb));
    EXPECT_EQ(a, b);
    sim_picture plain = pb;
    ASSERT_TRUE(sim_scene_render(12, sim_scene::still, 0, plain));
    int steps_textured = 0, steps_plain = 0;
    for (int i = 1; i < w * h; ++i) {
        if (a[i] >= 230)
            continue;  // the bar
        ASSERT_GE(a[i], SIM_SCENE_LUMA_MIN) << i;
        ASSERT_LE(a[i], SIM_SCENE_LUMA_MAX) << i;
        steps_textured += std::abs(a[i] - a[i - 1]) > 4;
        steps_plain += std::abs(b[i] - b[i - 1]) > 4;
    }
    // Grain nearly everywhere; the plain scene changes only at its edges.
    EXPECT_GT(steps_textured, w * h / 2);
    EXPECT_LT(steps_plain, w * h / 10);

    std::vector<std::string> problems;
    sim_board_conf c = sim_board_conf_parse(
        "camera 3 1920x1080 p 30 moving textured\ncamera 4 704x576 p 25 still\ncamera 5 704x576 p 25 still grainy\n",
        &problems);
    EXPECT_TRUE(c.camera(3).textured);
    EXPECT_EQ(c.camera(3).scene, sim_scene::moving);
    EXPECT_FALSE(c.camera(4).textured);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_NE(problems[0].find("board.conf:3:"), std::string::npos) << problems[0];
    EXPECT_EQ(c.cameras.count(5), 0u);
}

// ---- the SEI ------------------------------------------------------------------------

TEST(sim_sei_test, fields_survive_emulation_prevention)
{
    // Zero runs followed by 0 .. 3 in every field.
    const sim_sei in{0, 0x00000300, 0x00010000, 0x0000000200000001ull};
    std::array<uint8_t, SIM_SEI_MAX> buf;
    size_t n = sim_sei_write(in, buf);
    ASSERT_GT(n, 4u + 1 + 2 + 36 + 1);  // escapes were added
    for (size_t i = 4; i + 2 < n; ++i)
        ASSERT_FALSE(buf[i] == 0 && buf[i + 1] == 0 && buf[i + 2] < 3) << i;
    EXPECT_TRUE(buf[4] == 6 && buf[5] == 5 && buf[6] == 36 && buf[n - 1] == 0x80);
    auto out = sim_sei_find(std::span<const uint8_t>(buf.data(), n));
    ASSERT_TRUE(out.has_value());
    EXPECT_TRUE(out->camera == in.camera && out->chn == in.chn && out->seq == in.seq && out->pts == in.pts);
}

#ifdef TARVO_SIM_OPENH264

sim_loop_key small_key(uint32_t kbps = 300)
{
    sim_loop_key k;
    k.camera = 9;
    k.width = 176;
    k.height = 144;
    k.gop = 12;
    k.kbps = kbps;
    k.mfps = 15000;
    return k;
}

std::vector<uint8_t> au_bytes(const sim_h264_loop& loop, size_t i)
{
    std::vector<uint8_t> v;
    for (int p = 0; p < sim_loop_au::PARTS; ++p)
        v.insert(v.end(), loop.data.begin() + loop.aus[i].off[p], loop.data.begin() + loop.aus[i].off[p] + loop.aus[i].len[p]);
    return v;
}

class sim_loop_test : public board_test {};

TEST_F(sim_loop_test, a_loop_decodes_at_its_size_holds_its_rate_and_comes_from_the_cache_the_second_time)
{
    const std::string cache = board_.file("cache");
    for (uint32_t kbps : {300u, 40u}) {  // above and below what the scene needs
        sim_loop_made made;
        auto loop = sim_h264_loop_make(small_key(kbps), cache, &made);
        ASSERT_NE(loop, nullptr);
        EXPECT_FALSE(made.from_cache);
        ASSERT_EQ(loop->aus.size(), 60u);  // 4 s at 15 fps, whole GOPs of 12
        h264_decoder dec;
        size_t bytes = 0;
        for (size_t i = 0; i < loop->aus.size(); ++i) {
            EXPECT_EQ(loop->aus[i].idr != 0, i % 12 == 0) << i;
            std::vector<uint8_t> au = au_bytes(*loop, i);
            bytes += au.size() + 44;  // with the live SEI
            ASSERT_EQ(dec.decode(au), std::make_pair(176, 144)) << i;
        }
        // Any 10 s of the replay: whole loops and part of one; the IDR-heavy
        // first frames of a loop make the worst part.
        double loop_kbit = bytes * 8 / 1000.0, worst = 0, best = 1e18;
        for (size_t start = 0; start < loop->aus.size(); ++start) {
            double kbit = 0;
            for (size_t k = 0; k < 150; ++k)
                kbit += (au_bytes(*loop, (start + k) % 60).size() + 44) * 8 / 1000.0;
            worst = std::max(worst, kbit / 10);
            best = std::min(best, kbit / 10);
        }
        EXPECT_NEAR(loop_kbit / 4, kbps, kbps * 0.2);
        EXPECT_LE(worst, kbps * 1.2);
        EXPECT_GE(best, kbps * 0.8);

        sim_loop_made again;
        auto cached = sim_h264_loop_make(small_key(kbps), cache, &again);
        ASSERT_NE(cached, nullptr);
        EXPECT_TRUE(again.from_cache);
        EXPECT_EQ(cached->data, loop->data);
        std::printf("loop %ux%u %u kbit/s: %zu bytes, encoded in %lld ms\n", loop->key.width, loop->key.height, kbps,
                    loop->data.size(), static_cast<long long>(made.encode_us / 1000));
    }
}

// ---- channels fed by a live capture chain ---------------------------------------------

constexpr int k_vi_chn = 0;   // device 0, capture input 0
constexpr int k_vpss = 3;
constexpr int k_venc = 5;

venc_chn_attr_t small_attr(uint32_t buf_size, uint32_t fps = 30)
{
    venc_chn_attr_t a{};
    a.payload_type = PT_H264;
    a.h264 = {64, 64, buf_size, 2, 1, 0, 1, 0, 0, 64, 64};
    a.rc = {VENC_RC_MODE_H264AVBR, 6, 5, 30, fps, 200, 2};
    return a;
}

// One received access unit: its packs joined, their types and time stamp.
struct received {
    std::vector<uint8_t> bytes;
    std::vector<int32_t> types;
    uint64_t pts = 0;
    bool wrapped = false;
    sim_sei sei{};
};

class sim_channel_test : public media_board_test {
protected:
    void SetUp() override
    {
        media_board_test::SetUp();
        sim_set_cam_base(8);
    }

    // Capture channel 0 -> processing group 3 (channel 1) -> encoder group and channel 5.
    void start_chain(const venc_chn_attr_t& attr)
    {
        const vi_dev_attr_t dev = M_CHIP_VI_ATTR_7441_INTERLEAVED_1080P;
        const vi_chn_attr_t vi{{0, 0, 1920, 1080}, {1920, 1080}, VI_CAPSEL_BOTH, PIXEL_FORMAT_YUV_SEMIPLANAR_420,
                               0, 0, 0, -1, -1};
        const vpss_grp_attr_t grp{1920, 1080, PIXEL_FORMAT_YUV_SEMIPLANAR_420, 0, 0, 0, 0, 0, 0};
        const vpss_chn_attr_t chn{0, 0, {0, 0, 0, 0}, {0, 0, 0, 0}};
        mpp_chn_t vi_src{HI_ID_VI, 0, k_vi_chn}, vpss_in{HI_ID_VPSS, k_vpss, 0}, vpss_out{HI_ID_VPSS, k_vpss, 1},
            group{HI_ID_GROUP, k_venc, 0};
        ASSERT_TRUE(HI_MPI_VI_SetDevAttr(0, &dev) == 0 && HI_MPI_VI_EnableDev(0) == 0 &&
                    HI_MPI_VI_SetChnAttr(k_vi_chn, &vi) == 0 && HI_MPI_VI_EnableChn(k_vi_chn) == 0);
        ASSERT_TRUE(HI_MPI_VPSS_CreateGrp(k_vpss, &grp) == 0 && HI_MPI_VPSS_SetChnAttr(k_vpss, 1, &chn) == 0 &&
                    HI_MPI_VPSS_EnableChn(k_vpss, 1) == 0 && HI_MPI_VPSS_StartGrp(k_vpss) == 0);
        ASSERT_TRUE(HI_MPI_SYS_Bind(&vi_src, &vpss_in) == 0 && HI_MPI_SYS_Bind(&vpss_out, &group) == 0);
        venc_grp_frm_rate_t rate{static_cast<int32_t>(attr.rc.vi_frm_rate),
                                 static_cast<int32_t>(attr.rc.target_frm_rate)};
        ASSERT_TRUE(HI_MPI_VENC_CreateGroup(k_venc) == 0 && HI_MPI_VENC_SetGrpFrmRate(k_venc, &rate) == 0 &&
                    HI_MPI_VENC_CreateChn(k_venc, &attr) == 0 && HI_MPI_VENC_SetH264eRefMode(k_venc, 5) == 0 &&
                    HI_MPI_VENC_RegisterChn(k_venc, k_venc) == 0 && HI_MPI_VENC_StartRecvPic(k_venc) == 0);
    }

    static bool wait_for(const std::function<bool()>& done, std::chrono::milliseconds limit = 10s)
    {
        for (auto end = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < end;) {
            if (done())
                return true;
            std::this_thread::sleep_for(5ms);
        }
        return done();
    }

    // The next access unit as the slave takes it: select, query, get, release.
    static bool take(received* out)
    {
        int fd = HI_MPI_VENC_GetFd(k_venc);
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        timeval tv{2, 0};
        if (select(fd + 1, &set, nullptr, nullptr, &tv) != 1)
            return false;
        venc_chn_stat_t st{};
        if (HI_MPI_VENC_Query(k_venc, &st) != 0 || st.cur_packs == 0)
            return false;
        std::vector<venc_pack_t> packs(st.cur_packs);
        venc_stream_t s{packs.data(), st.cur_packs, 0};
        if (HI_MPI_VENC_GetStream(k_venc, &s, true) != 0)
            return false;
        *out = {};
        for (uint32_t i = 0; i < s.pack_count; ++i) {
            const venc_pack_t& p = packs[i];
            out->bytes.insert(out->bytes.end(), p.addr[0], p.addr[0] + p.len[0]);
            if (p.len[1] != 0) {
                out->wrapped = true;
                out->bytes.insert(out->bytes.end(), p.addr[1], p.addr[1] + p.len[1]);
            }
            out->types.push_back(p.data_type);
        }
        out->pts = packs[0].pts;
        auto sei = sim_sei_find(out->bytes);
        if (sei)
            out->sei = *sei;
        return HI_MPI_VENC_ReleaseStream(k_venc, &s) == 0 && sei.has_value();
    }
};

TEST_F(sim_channel_test, a_live_channel_produces_a_decodable_stream_in_order_and_the_loop_is_cached)
{
    // Room for about ten frames: a reader slowed by a loaded machine or a
    // sanitizer still keeps up, and the ring wraps within the 24 read.
    constexpr uint32_t k_ring = 16 * 1024;
    start_chain(small_attr(k_ring, 15));
    ASSERT_TRUE(wait_for([] { return sim_venc_producing(k_venc); }));
    h264_decoder dec;
    std::vector<received> aus(24);
    bool wrapped = false;
    for (size_t i = 0; i < aus.size(); ++i) {
        ASSERT_TRUE(take(&aus[i])) << i;
        const received& r = aus[i];
        EXPECT_TRUE(r.sei.camera == 8 && r.sei.chn == k_venc && r.sei.seq == i && r.sei.pts == r.pts) << i;
        const std::vector<int32_t> key{H264E_NALU_SPS, H264E_NALU_PPS, H264E_NALU_SEI, H264E_NALU_ISLICE},
            other{H264E_NALU_SEI, H264E_NALU_PSLICE};
        EXPECT_EQ(r.types, i % 6 == 0 ? key : other) << i;
        if (i > 0) {  // 15 of the camera's 30 pictures a second
            EXPECT_NEAR(static_cast<double>(r.pts - aus[i - 1].pts), 66667, 2);
        }
        wrapped |= r.wrapped;
        ASSERT_EQ(dec.decode(r.bytes), std::make_pair(64, 64)) << i;
    }
    EXPECT_TRUE(wrapped);  // the ring holds fewer than the 24 frames, so it wraps
    EXPECT_EQ(sim_venc_loops_made().encoded, 1u);

    // media.json tells the same.
    ASSERT_TRUE(wait_for([&] { return read_file(chip_file("media.json")).find("\"chn\": 5, \"grp\": 5") != std::string::npos; }));
    std::string json = read_file(chip_file("media.json"));
    for (const char* want : {"\"src\": [16,0,0], \"dst\": [8,3,0]", "\"src\": [8,3,1], \"dst\": [6,5,0]",
                             "{\"chn\": 0, \"width\": 1920, \"height\": 1080, \"fps\": 30}",
                             "{\"grp\": 3, \"started\": true, \"chn\": [1]",
                             "\"registered\": true, \"receiving\": true, \"payload\": 96, \"width\": 64, \"height\": 64, "
                             "\"gop\": 6, \"bitrate_kbps\": 200, \"fps_in\": 30, \"fps_target\": 15"})
        EXPECT_NE(json.find(want), std::string::npos) << want << "\n" << json;

    // Stopped and started again: a new sequence from a key frame, the loop
    // from the cache of a board opened afresh.
    const std::string board = board_.path();
    reopen_media("");
    sim_set_cam_base(8);
    start_chain(small_attr(k_ring, 15));
    ASSERT_TRUE(wait_for([] { return sim_venc_producing(k_venc); }));
    received r;
    ASSERT_TRUE(take(&r));
    EXPECT_EQ(r.sei.seq, 0u);
    EXPECT_EQ(r.types.front(), H264E_NALU_SPS);
    EXPECT_EQ(sim_venc_loops_made().encoded, 0u);
    EXPECT_EQ(sim_venc_loops_made().cached, 1u);
}

TEST_F(sim_channel_test, a_channel_not_collected_drops_and_counts_and_the_sequence_shows_the_gap)
{
    start_chain(small_attr(4096, 30));
    ASSERT_TRUE(wait_for([] { return sim_venc_producing(k_venc); }));
    auto counter = [](const std::string& json, const char* name) {
        size_t at = json.find(name);
        return at == std::string::npos ? 0ul : std::stoul(json.substr(at + std::strlen(name)));
    };
    ASSERT_TRUE(wait_for([&] { return counter(sim_media_json_text(), "\"dropped\": ") > 0; }));
    // Moving counters reach the file at least once a second with no other change.
    const std::string path = chip_file("media.json");
    const unsigned long seen = counter(read_file(path), "\"dropped\": ");
    EXPECT_TRUE(wait_for([&] { return counter(read_file(path), "\"dropped\": ") > seen; }, 1500ms));
    std::vector<received> got;
    for (received r; got.size() < 30 && take(&r);)
        got.push_back(r);
    ASSERT_EQ(got.size(), 30u);
    bool gap = false;
    for (size_t i = 1; i < got.size(); ++i) {
        ASSERT_GT(got[i].sei.seq, got[i - 1].sei.seq);
        gap |= got[i].sei.seq != got[i - 1].sei.seq + 1;
    }
    EXPECT_TRUE(gap);
    std::string json = sim_media_json_text();
    EXPECT_GT(counter(json, "\"dropped\": "), 0u);
    EXPECT_GE(counter(json, "\"produced\": "), got.back().sei.seq + 1);
}

TEST_F(sim_channel_test, media_json_is_replaced_whole_within_100_ms_of_a_change)
{
    const std::string path = chip_file("media.json");
    ASSERT_TRUE(wait_for([&] { return file_exists(path); }, 1s));
    std::atomic<bool> done{false};
    std::atomic<int> torn{0}, reads{0};
    std::thread reader([&] {
        while (!done) {
            std::string t = read_file(path);
            ++reads;
            if (t.size() < 2 || t.front() != '{' || t.substr(t.size() - 2) != "}\n")
                ++torn;
        }
    });
    for (int g = 0; g < 20; ++g) {  // changes while the file is read
        ASSERT_EQ(HI_MPI_VENC_CreateGroup(g), 0);
        std::this_thread::sleep_for(10ms);
    }
    venc_chn_attr_t attr = small_attr(4096);
    ASSERT_EQ(HI_MPI_VENC_CreateChn(9, &attr), 0);
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(wait_for([&] { return read_file(path).find("{\"chn\": 9, \"grp\": -1, \"registered\": false") != std::string::npos; }, 1s));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 100ms + 20ms);  // the poll of this test adds up to 5 ms
    done = true;
    reader.join();
    EXPECT_GT(reads.load(), 10);
    EXPECT_EQ(torn.load(), 0);
}

TEST_F(sim_channel_test, a_channel_without_a_live_source_produces_nothing)
{
    start_chain(small_attr(4096, 15));
    ASSERT_TRUE(wait_for([] { return sim_venc_producing(k_venc); }));
    // The chain broken between the processing group and the encoder group.
    mpp_chn_t out{HI_ID_VPSS, k_vpss, 1}, group{HI_ID_GROUP, k_venc, 0};
    ASSERT_EQ(HI_MPI_SYS_UnBind(&out, &group), 0);
    ASSERT_TRUE(wait_for([] { return !sim_venc_producing(k_venc); }, 1s));
    venc_chn_stat_t before{}, after{};
    std::this_thread::sleep_for(50ms);
    ASSERT_EQ(HI_MPI_VENC_Query(k_venc, &before), 0);
    std::this_thread::sleep_for(200ms);
    ASSERT_EQ(HI_MPI_VENC_Query(k_venc, &after), 0);
    EXPECT_EQ(after.left_stream_frames, before.left_stream_frames);

    // An absent camera delivers nothing, whatever is bound.
    std::ofstream(board_.file("board.conf")) << "camera 8 1920x1080 p 30 absent\n";
    reopen_media("");
    sim_set_cam_base(8);
    start_chain(small_attr(4096, 15));
    std::this_thread::sleep_for(300ms);
    EXPECT_FALSE(sim_venc_producing(k_venc));
    EXPECT_NE(sim_media_json_text().find("{\"chn\": 0, \"width\": 1920, \"height\": 1080, \"fps\": 0}"), std::string::npos);
}

TEST_F(sim_channel_test, a_new_bit_rate_while_receiving_keeps_the_sequence_and_starts_its_loop_with_a_key_frame)
{
    venc_chn_attr_t attr = small_attr(16384, 15);
    start_chain(attr);
    ASSERT_TRUE(wait_for([] { return sim_venc_producing(k_venc); }));
    received r;
    for (uint32_t i = 0; i < 4; ++i) {
        ASSERT_TRUE(take(&r));
        ASSERT_EQ(r.sei.seq, i);
    }
    attr.rc.bit_rate = 120;
    ASSERT_EQ(HI_MPI_VENC_SetChnAttr(k_venc, &attr), 0);
    // The old loop goes on until the new one is made; the sequence has no
    // gap across the change and a key frame follows the new loop's making.
    uint32_t seq = 3;
    bool switched = false;
    for (int i = 0; i < 30 && !switched; ++i) {
        ASSERT_TRUE(take(&r));
        ASSERT_EQ(r.sei.seq, ++seq);
        switched = sim_venc_loops_made().encoded == 2 && r.types.front() == H264E_NALU_SPS;
    }
    EXPECT_TRUE(switched);
}

#endif

}  // namespace
