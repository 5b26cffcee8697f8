// The simulated encoder's output: scene loops that decode at the channel's
// size and hold its bit rate, their cache, the live SEI, and the stream a
// channel fed by a live capture chain produces (its order, sequence, drops)
// with media.json describing it.
#include <gtest/gtest.h>
#include <sys/select.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

#include "platform/hi_mpi_venc.h"
#include "platform/hi_mpi_vi.h"
#include "platform/hi_mpi_vpss.h"
#include "platform/sim/h264_loop.h"
#include "platform/sim/h264_sei.h"
#include "platform/sim/scene.h"
#include "platform/sim/venc_producer.h"
#include "tests/support/media_board.h"
#include "vin/chip.h"

#ifdef TARVO_SIM_OPENH264
#include <wels/codec_api.h>
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

// Decodes Annex B access units; the sizes of the pictures that came out.
class decoder {
public:
    decoder()
    {
        WelsCreateDecoder(&dec_);
        SDecodingParam p{};
        p.sVideoProperty.eVideoBsType = VIDEO_BITSTREAM_AVC;
        dec_->Initialize(&p);
    }
    ~decoder()
    {
        dec_->Uninitialize();
        WelsDestroyDecoder(dec_);
    }
    // The picture's size, {0, 0} when none came out.
    std::pair<int, int> decode(const std::vector<uint8_t>& au)
    {
        uint8_t* planes[3] = {};
        SBufferInfo info{};
        if (dec_->DecodeFrameNoDelay(au.data(), static_cast<int>(au.size()), planes, &info) != 0 ||
            info.iBufferStatus != 1)
            return {0, 0};
        return {info.UsrData.sSystemBuffer.iWidth, info.UsrData.sSystemBuffer.iHeight};
    }

private:
    ISVCDecoder* dec_ = nullptr;
};

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
        decoder dec;
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

#endif

}  // namespace
