// Playback on the simulated board: a master records one camera for a few
// seconds, then plays the recording back to a fresh slave again and again
// for a while, faster than the board decodes (the slave holds its answers).
// Figures, each beside a reference measured in the same run:
//
// - the board's decode throughput (pictures per second, from its
//   media.json) beside OpenH264 decoding the same access units in this
//   process: the board's decoder thread should come close to it;
// - the slave's own processor time per played-back megabyte (its threads
//   not named sim*: intake, copies into dbufs, the decode thread's staging
//   copies) beside this process copying the same bytes twice with memcpy.
//
// At 1920x1080 (30 fps, 4714 kbit/s) and at 704x576 (25 fps, 1173 kbit/s).
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "master/h264.h"
#include "master/play.h"
#include "master/record.h"
#include "platform/sim/h264_decode.h"

namespace {

constexpr int k_record_s = 6;
constexpr auto k_play = std::chrono::seconds(20);
constexpr auto k_reference = std::chrono::seconds(4);
constexpr auto k_idle = std::chrono::seconds(5);

double cpu_s()
{
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

class temp_dir {
public:
    temp_dir()
    {
        char d[] = "/tmp/tarvo-bench-XXXXXX";
        if (mkdtemp(d) != nullptr)
            path_ = d;
    }
    ~temp_dir()
    {
        std::error_code ec;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ec);
    }
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// The recorded main stream of camera 0.
std::vector<uint8_t> read_recording(const std::string& board)
{
    std::vector<uint8_t> out;
    FILE* f = std::fopen((board + "/rec/slave1/cam00-rec.h264").c_str(), "rb");
    if (f == nullptr)
        return out;
    unsigned char buf[65536];
    for (size_t n; (n = std::fread(buf, 1, sizeof(buf), f)) > 0;)
        out.insert(out.end(), buf, buf + n);
    std::fclose(f);
    return out;
}

// Its access units from the first key frame on (they point into bytes).
std::vector<std::span<const uint8_t>> access_units(const std::vector<uint8_t>& bytes)
{
    std::vector<std::span<const uint8_t>> aus;
    for (std::span<const uint8_t> au : tmaster::split_access_units(bytes))
        if (!aus.empty() || tmaster::first_nal_type(au) == tmaster::NAL_SPS)
            aus.push_back(au);
    return aus;
}

// OpenH264 on the recorded access units, as the board's decoder thread
// gets them, for about k_reference: pictures per second.
double reference_pictures_per_s(const std::vector<std::span<const uint8_t>>& aus)
{
    uint64_t pictures = 0;
    const auto t0 = std::chrono::steady_clock::now();
    auto elapsed = [&] { return std::chrono::steady_clock::now() - t0; };
    while (elapsed() < k_reference) {
        std::unique_ptr<sim_h264_decoder> d = sim_h264_decoder_new();
        if (!d)
            return 0;
        for (std::span<const uint8_t> au : aus) {
            sim_h264_picture pic{};
            pictures += d->decode(au, &pic) ? 1 : 0;
        }
    }
    return static_cast<double>(pictures) / std::chrono::duration<double>(elapsed()).count();
}

// This process's processor time per megabyte to copy the bytes twice (the
// landing buffer into a dbuf, the frame into the staging room).
double memcpy_ms_per_mb(const std::vector<uint8_t>& bytes)
{
    std::vector<uint8_t> a(bytes.size()), b(bytes.size());
    double mb = 0;
    const double c0 = cpu_s();
    for (int i = 0; i < 20; ++i) {
        std::memcpy(a.data(), bytes.data(), bytes.size());
        std::memcpy(b.data(), a.data(), a.size());
        benchmark::DoNotOptimize(b.data());
        mb += static_cast<double>(bytes.size()) / 1e6;
    }
    return (cpu_s() - c0) * 1e3 / mb;
}

void BM_playback(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    const int fps = width == 1920 ? 30 : 25;
    temp_dir rec_board, play_board;
    if (rec_board.path().empty() || play_board.path().empty()) {
        state.SkipWithError("cannot make a board directory");
        return;
    }
    tmaster::play_summary s;
    double ref_pps = 0;
    for (auto _ : state) {
        tmaster::record_options r;
        r.board = rec_board.path();
        r.slave = TARVO_SLAVE_BINARY;
        r.plan.slaves.push_back({1, 0, 1, 1});
        r.plan.rec = {static_cast<uint16_t>(width), static_cast<uint16_t>(height), static_cast<uint8_t>(fps), 2, 1};
        r.plan.out = rec_board.path() + "/rec";
        r.seconds = k_record_s;
        if (tmaster::record(r).rc != 0) {
            state.SkipWithError("the recording failed");
            return;
        }
        tmaster::play_options p;
        p.board = play_board.path();
        p.slave = TARVO_SLAVE_BINARY;
        p.recording = r.plan.out;
        p.cameras = p.slave_cam = p.num_vin = 1;
        p.width = static_cast<uint16_t>(width);
        p.height = static_cast<uint16_t>(height);
        p.frames_per_record = fps;
        p.at_least = k_play;
        p.idle = k_idle;
        // OpenH264 alone before and after the playback; the faster run
        // counts (the other may have shared the processor with a build).
        const std::vector<uint8_t> rec = read_recording(rec_board.path());
        const std::vector<std::span<const uint8_t>> aus = access_units(rec);
        ref_pps = reference_pictures_per_s(aus);
        s = tmaster::play(p);
        ref_pps = std::max(ref_pps, reference_pictures_per_s(aus));
        state.SetIterationTime(s.seconds);
    }
    if (s.rc != 0 || s.cameras.empty() || s.cameras[0].pictures != s.cameras[0].frames_sent) {
        tmaster::print_play_summary(stdout, s);
        state.SkipWithError("the playback did not decode every frame");
        return;
    }

    const std::vector<uint8_t> bytes = read_recording(rec_board.path());
    const double mb = static_cast<double>(s.bytes) / 1e6;
    const double own_ms = mb > 0 ? s.slave_own_cpu_s * 1e3 / mb : 0;
    // The same threads idle for as long as the playback was measured.
    const double idle_s = s.idle_own_cpu_s * (s.cpu_window_s / std::chrono::duration<double>(k_idle).count());
    const double played_ms = mb > 0 ? std::max(0.0, s.slave_own_cpu_s - idle_s) * 1e3 / mb : 0;
    const double ref_ms = memcpy_ms_per_mb(bytes);

    state.counters["board_pps"] = s.pictures_per_s;
    state.counters["openh264_pps"] = ref_pps;
    state.counters["own_ms_per_MB"] = own_ms;
    state.counters["own_less_idle_ms_per_MB"] = played_ms;
    state.counters["memcpy2_ms_per_MB"] = ref_ms;
    std::printf("playback %dx%d: %.1f MB, %llu pictures in %.1f s; answers held up to %.0f ms\n", width, height, mb,
                static_cast<unsigned long long>(s.pictures), s.seconds, s.max_hold_ms);
    std::printf("  board decodes %.1f pictures/s; OpenH264 alone on the same stream %.1f pictures/s (%.0f %%)\n",
                s.pictures_per_s, ref_pps, ref_pps > 0 ? 100 * s.pictures_per_s / ref_pps : 0.0);
    std::printf("  slave's own threads %.2f ms CPU per MB, %.2f ms less what they take idle (whole slave %.2f ms per "
                "MB); two memcpy of the same bytes %.2f ms per MB\n",
                own_ms, played_ms, mb > 0 ? s.slave_cpu_s * 1e3 / mb : 0.0, ref_ms);
}
BENCHMARK(BM_playback)->Args({1920, 1080})->Args({704, 576})->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
