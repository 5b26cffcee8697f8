// CPU cost of the record path per megabyte: frames in the encoder's stream
// buffer go through the encoder thread's routing into record buffers, are
// handed over, and the record transmit thread has each buffer written by
// DMA into the master's window (a master in the same process acknowledges
// at once). Beside it, a plain memcpy of the same bytes from the same
// stream buffer, in the same run.
//
// The load is the recorder's: 8 cameras, main recording at 30 fps and
// 4714 kbit/s (a key frame each second), low recording at 15 fps and about
// 1 Mbit/s, 60 s of stream. Both figures are the process's CPU time
// (CLOCK_PROCESS_CPUTIME_ID), so the transmit thread, the simulated DMA and
// the in-process master count too; the two slave threads' own share is
// printed beside them.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/bench_env.h"
#include "cal/cal.h"
#include "cal/cal_buf.h"
#include "cal/cal_tx.h"
#include "enc/cal_enc.h"
#include "msg/cal_hsc.h"
#include "platform/hi_mpi_venc.h"
#include "platform/os.h"
#include "platform/sim/board.h"
#include "tests/support/fake_master.h"

namespace {

constexpr int k_cams = 8;
constexpr int k_seconds = 60;
constexpr int k_fps = 30;
constexpr uint32_t k_rec_key = 80000;    // with 29 P frames: 4714 kbit/s
constexpr uint32_t k_rec_p = 17560;
constexpr uint32_t k_low_key = 30000;    // with 14 P frames: about 1 Mbit/s
constexpr uint32_t k_low_p = 6800;
constexpr size_t k_ring = 8u << 20;      // the encoder's stream buffer
constexpr uint32_t MiB = 1u << 20;

double cpu_s(clockid_t id)
{
    struct timespec ts;
    clock_gettime(id, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// The process's system (kernel) CPU time so far: page faults of fresh
// buffers, the message relay's sockets.
double sys_cpu_s()
{
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_stime.tv_sec) + static_cast<double>(ru.ru_stime.tv_usec) * 1e-6;
}

clockid_t thread_clock(pthread_t t)
{
    clockid_t id;
    return pthread_getcpuclockid(t, &id) == 0 ? id : CLOCK_THREAD_CPUTIME_ID;
}

// The encoder's ring: frames follow each other, and a frame that reaches
// the end continues at the start, its last pack in two pieces.
class stream_ring {
public:
    stream_ring() : ring_(k_ring)
    {
        uint32_t x = 0x12345678;
        for (unsigned char& b : ring_) {
            x = x * 1664525u + 1013904223u;
            b = static_cast<unsigned char>(x >> 24);
        }
    }

    // The next frame: SPS, PPS and slice for a key frame, one slice else.
    const venc_stream_t& next(uint64_t pts, bool key, uint32_t size)
    {
        packs_.clear();
        if (key) {
            add(pts, H264E_NALU_SPS, 20);
            add(pts, H264E_NALU_PPS, 8);
            add(pts, H264E_NALU_ISLICE, size - 28);
        } else {
            add(pts, H264E_NALU_PSLICE, size);
        }
        st_.pack = packs_.data();
        st_.pack_count = static_cast<uint32_t>(packs_.size());
        return st_;
    }

private:
    void add(uint64_t pts, int32_t type, uint32_t len)
    {
        venc_pack_t p{};
        p.pts = pts;
        p.data_type = type;
        const uint32_t first = static_cast<uint32_t>(std::min<size_t>(len, k_ring - pos_));
        p.addr[0] = ring_.data() + pos_;
        p.len[0] = first;
        if (first < len) {
            p.addr[1] = ring_.data();
            p.len[1] = len - first;
        }
        pos_ = (pos_ + len) % k_ring;
        packs_.push_back(p);
    }

    std::vector<unsigned char> ring_;
    size_t pos_ = 0;
    std::vector<venc_pack_t> packs_;
    venc_stream_t st_{};
};

// Calls f (v, stream) for every frame of `seconds` of the load, second by
// second; before each second, at_second (s).
template <class F, class S>
uint64_t for_each_frame(stream_ring& ring, time_t base, int seconds, F f, S at_second)
{
    uint64_t bytes = 0;
    for (int s = 0; s < seconds; ++s) {
        at_second(s);
        for (int k = 0; k < k_fps; ++k) {
            const uint64_t pts = static_cast<uint64_t>(base + s) * 1000000 + static_cast<uint64_t>(k) * 33333 + 1000;
            for (int cam = 0; cam < k_cams; ++cam) {
                const uint32_t rec = k == 0 ? k_rec_key : k_rec_p;
                f(cam, ring.next(pts, k == 0, rec));
                bytes += rec;
                if (k % 2 == 0) {
                    const uint32_t low = k == 0 ? k_low_key : k_low_p;
                    f(2 * k_cams + cam, ring.next(pts, k == 0, low));
                    bytes += low;
                }
            }
        }
    }
    return bytes;
}

// A slave's record path in this process: the encoder module's state of 8
// cameras with REC and REC LOW, the record transmit thread, the windows of
// a master that acknowledges every record buffer at once.
class record_path {
public:
    record_path()
    {
        std::string err;
        if (mkdtemp(dir_) == nullptr || sim_board_open(dir_, 1, "", &err) != 0)
            return;
        board_open_ = true;
        master_ = std::make_unique<fake_master>(dir_);
        master_->echo(MSGPORT_ENCR);
        cal_ = cal_new();
        cal_->slave_cam = k_cams;
        cal_->num_vin = k_cams;
        cal_->hsc = cal_hsc_new(cal_);
        hsc_msg_t msg{};
        msg.len = 20;
        const uint32_t w[5] = {0, fake_master::bus(0), fake_master::bus(2 * MiB), fake_master::bus(4 * MiB),
                               fake_master::bus(6 * MiB)};
        std::memcpy(msg.data, w, sizeof(w));
        cal_hsc_set_dma_info(cal_, &msg);
        cal_start(cal_);

        enc_ = std::make_unique<cal_enc_t>();
        enc_->size = sizeof(cal_enc_t);
        enc_->cal = cal_;
        enc_->num = k_cams;
        enc_->fps = k_fps;
        enc_->period = 1000000 / k_fps;
        for (int ch = 0; ch < k_cams; ++ch) {
            enc_->rec[ch] = {};
            enc_->rec[ch].cam = ch, enc_->rec[ch].on = 1, enc_->rec[ch].wait_key = 1;
            enc_->rec[ch].width = 1920, enc_->rec[ch].height = 1080, enc_->rec[ch].fps = 30, enc_->rec[ch].quality = 2;
            enc_->rec_low[ch] = enc_->rec[ch];
            enc_->rec_low[ch].width = 704, enc_->rec_low[ch].height = 576, enc_->rec_low[ch].fps = 15;
        }
    }
    ~record_path()
    {
        if (cal_ != nullptr) {
            kel_thread_notify_stop(cal_->thread_encr);
            kel_thread_notify_stop(cal_->thread_encn);
            tx_msg_t wake{};
            wake.type = 1;
            os_msgsnd(cal_->msgid_encr, &wake, TX_MSG_BODY_SIZE, 0);
            cal_stop(cal_);
            cal_hsc_delete(cal_->hsc);
            kel_thread_delete(cal_->thread_encr);
            kel_thread_delete(cal_->thread_encn);
            delete cal_;
        }
        master_.reset();
        if (board_open_)
            sim_board_close();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    record_path(const record_path&) = delete;
    record_path& operator=(const record_path&) = delete;

    bool ok() const { return cal_ != nullptr; }
    cal_enc_t* enc() { return enc_.get(); }
    clockid_t tx_clock() const { return thread_clock(cal_->thread_encr->id); }

    // Hands the buffers being filled over and waits until the master has
    // acknowledged every buffer.
    void drain()
    {
        for (ebuf_t*& e : enc_->ebuf)
            if (e != nullptr)
                cal_notify_ebuf(cal_, std::exchange(e, nullptr));
        while (ebuf_get_cnt() > 0)
            usleep(1000);
    }

    // Record buffers and frames that reached the master so far.
    std::pair<size_t, int> received()
    {
        int frames = 0;
        const auto notes = master_->echoed(MSGPORT_ENCR);
        for (const auto& note : notes) {
            uint32_t n;
            std::memcpy(&n, note.data() + 16 + 8, 4);
            frames += static_cast<int>(n);
        }
        return {notes.size(), frames};
    }

private:
    char dir_[32] = "/tmp/tarvo-bench-XXXXXX";
    bool board_open_ = false;
    std::unique_ptr<fake_master> master_;
    cal_t* cal_ = nullptr;
    std::unique_ptr<cal_enc_t> enc_;
};

// One for the whole run: the simulated board's message ports are opened once
// per process.
std::unique_ptr<record_path> g_path;

void BM_record_path(benchmark::State& state)
{
    record_path& path = *g_path;
    if (!path.ok()) {
        state.SkipWithError("cannot open a board");
        return;
    }
    double path_s = 0, memcpy_s = 0, enc_s = 0, tx_s = 0, sys_s = 0;
    uint64_t bytes = 0, copied = 0;
    int frames_fed = 0;
    stream_ring ring;
    const time_t base = os_time(nullptr);
    std::fflush(stdout);
    for (auto _ : state) {
        const clockid_t tx_clock = path.tx_clock();
        const double p0 = cpu_s(CLOCK_PROCESS_CPUTIME_ID), e0 = cpu_s(CLOCK_THREAD_CPUTIME_ID),
                     t0 = cpu_s(tx_clock), s0 = sys_cpu_s();
        bytes = for_each_frame(
            ring, base, k_seconds,
            [&](int v, const venc_stream_t& st) {
                _parse_enc_ebuf(path.enc(), v, &st);
                ++frames_fed;
                // The master acknowledges at once, but the transmit thread
                // rests 10 ms per buffer: keep the pool far from its ceiling.
                while (ebuf_get_cnt() > 24)
                    usleep(1000);
            },
            [&](int s) {
                // The wall clock follows the stream's seconds.
                struct timeval tv {base + s, 0};
                os_settimeofday(&tv);
            });
        path.drain();
        path_s = cpu_s(CLOCK_PROCESS_CPUTIME_ID) - p0;
        enc_s = cpu_s(CLOCK_THREAD_CPUTIME_ID) - e0;
        tx_s = cpu_s(tx_clock) - t0;
        sys_s = sys_cpu_s() - s0;
        state.SetIterationTime(path_s);
    }

    // The same bytes from the same ring, copied once into a 1 MiB area.
    std::vector<unsigned char> dst(MiB);
    size_t off = 0;
    const double m0 = cpu_s(CLOCK_PROCESS_CPUTIME_ID);
    for_each_frame(
        ring, base, k_seconds,
        [&](int, const venc_stream_t& st) {
            for (uint32_t k = 0; k < st.pack_count; ++k)
                for (int i = 0; i < 2; ++i) {
                    const uint32_t len = st.pack[k].len[i];
                    if (off + len > dst.size())
                        off = 0;
                    std::memcpy(dst.data() + off, st.pack[k].addr[i], len);
                    off += len;
                    copied += len;
                }
            benchmark::DoNotOptimize(dst.data());
        },
        [](int) {});
    memcpy_s = cpu_s(CLOCK_PROCESS_CPUTIME_ID) - m0;

    const int frames_sent = path.received().second;
    const double mb = static_cast<double>(bytes) / 1e6;
    if (frames_sent != frames_fed || copied != bytes) {
        state.SkipWithError("frames were lost on the record path");
        std::printf("record path: %d frames fed, %d reached the master\n", frames_fed, frames_sent);
        return;
    }
    state.counters["MB"] = mb;
    state.counters["path_ms_per_MB"] = path_s * 1e3 / mb;
    state.counters["memcpy_ms_per_MB"] = memcpy_s * 1e3 / mb;
    state.counters["ratio"] = path_s / memcpy_s;
    std::printf("P2 record path over %.1f MB (%d frames): %.3f ms CPU per MB (encoder thread %.3f, record transmit "
                "thread %.3f; in the kernel %.3f); memcpy of the same bytes: %.3f ms CPU per MB; ratio %.1f\n",
                mb, frames_fed, path_s * 1e3 / mb, enc_s * 1e3 / mb, tx_s * 1e3 / mb, sys_s * 1e3 / mb,
                memcpy_s * 1e3 / mb, path_s / memcpy_s);
}
BENCHMARK(BM_record_path)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The record path's ceiling: the encoder module is fed as fast as the pool
// allows (it is kept just under its ceiling, so the transmit thread never
// waits for a buffer) and the master acknowledges at once. The transmit
// thread rests 10 ms after each buffer, which alone allows 100 buffers a
// second: the figure is set beside that bound and beside the buffers a
// second the 8-camera load needs.
void BM_record_ceiling(benchmark::State& state)
{
    record_path& path = *g_path;
    if (!path.ok()) {
        state.SkipWithError("cannot open a board");
        return;
    }
    const int seconds = bench_seconds(20);
    const int pool_high = EBUF_TOTAL_LIMIT / (EBUF_HEADER_SIZE + ENC_EBUF_NEED) - 4;
    stream_ring ring;
    const time_t base = os_time(nullptr);
    size_t buffers = 0;
    double wall_s = 0, mb = 0;
    for (auto _ : state) {
        const auto before = path.received();
        const double t0 = cpu_s(CLOCK_MONOTONIC);
        uint64_t fed = 0;
        bool done = false;
        for (int s = 0; !done; ++s) {
            struct timeval tv {base + s, 0};
            os_settimeofday(&tv);
            fed += for_each_frame(
                ring, base + s, 1,
                [&](int v, const venc_stream_t& st) {
                    _parse_enc_ebuf(path.enc(), v, &st);
                    while (ebuf_get_cnt() > pool_high)
                        usleep(500);
                },
                [](int) {});
            done = cpu_s(CLOCK_MONOTONIC) - t0 >= seconds;
        }
        wall_s = cpu_s(CLOCK_MONOTONIC) - t0;
        buffers = path.received().first - before.first;
        mb = static_cast<double>(fed) / 1e6;
        path.drain();
        state.SetIterationTime(wall_s);
    }
    // What the load of BM_record_path needs: its bytes in buffers of at
    // most 1 MiB each, per second of stream.
    const double needed = (k_cams * (k_rec_key + 29.0 * k_rec_p + k_low_key + 14.0 * k_low_p)) / ENC_EBUF_NEED;
    const double rate = static_cast<double>(buffers) / wall_s;
    state.counters["buffers_per_s"] = rate;
    state.counters["MB_per_s"] = mb / wall_s;
    std::printf("P5 record path ceiling over %.1f s: %.1f record buffers per second acknowledged at once (%.1f MB/s "
                "fed); bound of the transmit thread's 10 ms rest: 100 per second; the 8-camera load needs %.1f per "
                "second\n",
                wall_s, rate, mb / wall_s, needed);
}
BENCHMARK(BM_record_ceiling)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    g_path = std::make_unique<record_path>();
    benchmark::RunSpecifiedBenchmarks();
    g_path.reset();
    benchmark::Shutdown();
    return 0;
}
