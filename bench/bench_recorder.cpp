// Whole recorders on this host, real slave processes driven by the master
// emulator exactly as `tarvo-master record` drives them:
//
//   idle   a slave with its windows and clock but no stream, for 60 s: its
//          own CPU beside a thread that only wakes every 10 ms;
//   full   one slave, 8 cameras at full load (REC 1080p30, REC LOW, NET LOW,
//          the recording copy, snapshots, motion, a mask) for 10 minutes:
//          frames lost between encoder and master (SEI gaps), pictures the
//          encoders dropped (media.json), the slave's own threads' CPU share
//          beside the simulator's, the latency of network frames from the
//          encoder's time stamp to the master's file, and the slave's peak
//          resident memory beside the pool ceilings;
//   4x8    the 32-camera recorder (4 slaves of 8 cameras) for 10 minutes:
//          drops and CPU per slave.
//
// BENCH_SECONDS shortens the two recordings (and the idle minute) for a
// quick look. The board's encoded scene loops are kept between runs in
// <build>/bench-run/cache.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_env.h"
#include "master/master.h"
#include "master/play.h"
#include "master/record.h"

namespace {

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

constexpr double MiB_kb = 1024.0;
constexpr double k_pool_ceiling_mib = 48.0 + 16.0;  // record and network pools
double g_idle_rss_mib = 0;  // of the idle slave, measured first

// A board directory of its own for each run, sharing the loop cache.
std::string fresh_board(const std::string& name)
{
    namespace fs = std::filesystem;
    const fs::path root = fs::path(TARVO_BENCH_DIR);
    const fs::path board = root / name;
    std::error_code ec;
    fs::remove_all(board, ec);
    fs::create_directories(root / "cache", ec);
    fs::create_directories(board, ec);
    fs::create_symlink(root / "cache", board / "cache", ec);
    return board.string();
}

double seconds_since(steady::time_point t0)
{
    return std::chrono::duration<double>(steady::now() - t0).count();
}

// CPU of the calling thread in seconds.
double thread_cpu_s()
{
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// ---- idle ---------------------------------------------------------------------------

void BM_idle_slave(benchmark::State& state)
{
    const int seconds = bench_seconds(60);
    double own = 0, all = 0, ref = 0, wall = 0;
    size_t rss_kb = 0;
    std::vector<std::pair<double, std::string>> busiest;  // CPU seconds, thread name
    for (auto _ : state) {
        tmaster::master_options mo;
        mo.board = fresh_board("idle");
        tmaster::master m(mo);
        tmaster::slave_config c;
        c.binary = TARVO_SLAVE_BINARY;
        c.chip = 1;
        if (m.open() != 0 || m.start_slave(c) <= 0 || !m.wait_announcement(1, 30s) ||
            m.set_dma_info(1, 5s) != 0 || m.set_time(1, static_cast<uint64_t>(time(nullptr)) * 1000000, 5s) != 0) {
            state.SkipWithError("the slave did not come up");
            return;
        }
        const pid_t pid = m.slave(1)->pid;
        // Past its start-up: the delayed threads have begun their loops.
        std::this_thread::sleep_for(12s);
        const double own0 = tmaster::proc_cpu_s(pid, true), all0 = tmaster::proc_cpu_s(pid, false);
        const auto threads0 = tmaster::proc_thread_cpu_s(pid);
        // The reference sleeps beside it for the same time.
        const auto t0 = steady::now();
        const double r0 = thread_cpu_s();
        while (seconds_since(t0) < seconds)
            std::this_thread::sleep_for(10ms);
        ref = thread_cpu_s() - r0;
        wall = seconds_since(t0);
        own = tmaster::proc_cpu_s(pid, true) - own0;
        all = tmaster::proc_cpu_s(pid, false) - all0;
        rss_kb = tmaster::proc_rss_kb(pid);
        // Where an idle slave's time goes, thread by thread.
        for (const auto& [name, t] : tmaster::proc_thread_cpu_s(pid)) {
            auto was = threads0.find(name);
            const double used = t - (was == threads0.end() ? 0 : was->second);
            if (used > 0)
                busiest.emplace_back(used, name);
        }
        std::sort(busiest.rbegin(), busiest.rend());
        m.close();
        state.SetIterationTime(wall);
    }
    g_idle_rss_mib = static_cast<double>(rss_kb) / MiB_kb;
    state.counters["own_cpu_pct"] = 100 * own / wall;
    state.counters["ref_cpu_pct"] = 100 * ref / wall;
    std::printf("P3 idle slave over %.0f s: its own threads %.3f %% of a core (%.2f ms CPU per second), the whole "
                "process with the simulator %.3f %%; reference, a thread waking every 10 ms: %.3f %%; resident "
                "%.1f MiB\n",
                wall, 100 * own / wall, 1e3 * own / wall, 100 * all / wall, 100 * ref / wall,
                static_cast<double>(rss_kb) / MiB_kb);
    std::printf("P3 the idle slave's threads, ms CPU per second:");
    for (size_t k = 0; k < busiest.size() && k < 8; ++k)
        std::printf(" %s %.2f", busiest[k].second.c_str(), 1e3 * busiest[k].first / wall);
    std::printf("\n");
}
BENCHMARK(BM_idle_slave)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

// ---- recording ----------------------------------------------------------------------

struct slave_usage {
    pid_t pid = -1;
    double own0 = 0, all0 = 0, own = 0, all = 0;  // CPU seconds over the window
    size_t peak_kb = 0;                       // VmHWM at the window's end
    size_t anon_kb = 0, file_kb = 0, shmem_kb = 0;  // what was resident then
    tmaster::media_venc_totals venc0, venc;  // at the window's start and end
};

struct recorder_run {
    tmaster::record_summary summary;
    std::map<int, slave_usage> slaves;  // by chip
    double window_s = 0;
};

// Records `seconds` with `slaves` slaves of 8 cameras; the slaves' usage is
// taken from the first whole second of recording to the last.
recorder_run run_recorder(const char* name, int slaves, int seconds, bool files)
{
    recorder_run run;
    tmaster::record_options o;
    o.board = fresh_board(name);
    o.slave = TARVO_SLAVE_BINARY;
    o.plan = tmaster::recorder_plan(slaves, 8, true);
    // Without files the master only checks what arrives: it shares the host
    // with the slaves, and 32 cameras would write 40 MB a second.
    if (files)
        o.plan.out = o.board + "/out";
    o.seconds = seconds;
    o.first_key_wait = 600s;
    o.progress = stdout;
    o.progress_every_s = 60;
    steady::time_point t0;
    o.every_second = [&](tmaster::master& m, int second) {
        if (second != 1 && second != seconds - 1)
            return;
        for (int chip : m.chips()) {
            auto info = m.slave(chip);
            if (!info || info->pid <= 0)
                continue;
            slave_usage& u = run.slaves[chip];
            u.pid = info->pid;
            const double own = tmaster::proc_cpu_s(u.pid, true), all = tmaster::proc_cpu_s(u.pid, false);
            const auto venc = tmaster::read_media_venc(m.board().path("chip" + std::to_string(chip) + "/media.json"));
            if (second == 1) {
                u.own0 = own, u.all0 = all, u.venc0 = venc;
            } else {
                u.own = own - u.own0, u.all = all - u.all0, u.venc = venc;
                u.peak_kb = tmaster::proc_status_kb(u.pid, "VmHWM:");
                u.anon_kb = tmaster::proc_status_kb(u.pid, "RssAnon:");
                u.file_kb = tmaster::proc_status_kb(u.pid, "RssFile:");
                u.shmem_kb = tmaster::proc_status_kb(u.pid, "RssShmem:");
            }
        }
        if (second == 1)
            t0 = steady::now();
        else
            run.window_s = seconds_since(t0);
    };
    std::fflush(stdout);
    run.summary = tmaster::record(o);
    if (files) {
        std::error_code ec;
        std::filesystem::remove_all(o.plan.out, ec);
    }
    return run;
}

struct stream_losses {
    uint64_t lost = 0, gaps = 0, frames = 0, others = 0;
};

stream_losses losses_of(const tmaster::record_summary& s, int chip)
{
    stream_losses l;
    for (const tmaster::stream_summary& x : s.streams) {
        if (chip != 0 && x.key.chip != chip)
            continue;
        l.lost += x.lost;
        l.gaps += x.gaps;
        l.frames += x.frames;
        l.others += x.repeated + x.reordered + x.foreign + x.no_sei;
    }
    return l;
}

// Runs the recorder as the benchmark's one iteration; false (the benchmark
// skipped with the reason) when the recording or the usage failed.
bool record_for(benchmark::State& state, const char* name, int slaves, bool files, recorder_run& r)
{
    const int seconds = bench_seconds(600);
    for (auto _ : state) {
        r = run_recorder(name, slaves, seconds, files);
        state.SetIterationTime(r.window_s);
    }
    if (r.summary.rc != 0) {
        state.SkipWithError(("the recording failed: " + r.summary.error).c_str());
        return false;
    }
    if (r.slaves.size() != static_cast<size_t>(slaves) || r.window_s <= 0) {
        state.SkipWithError("the slaves' usage was not taken");
        return false;
    }
    return true;
}

void BM_full_load_8_cameras(benchmark::State& state)
{
    recorder_run r;
    if (!record_for(state, "full", 1, true, r))
        return;
    const slave_usage& u = r.slaves.begin()->second;
    const stream_losses l = losses_of(r.summary, 0);
    const uint64_t dropped = u.venc.dropped - u.venc0.dropped;
    const double own_pct = 100 * u.own / r.window_s, sim_pct = 100 * (u.all - u.own) / r.window_s;
    state.counters["lost"] = static_cast<double>(l.lost);
    state.counters["encoder_dropped"] = static_cast<double>(dropped);
    state.counters["own_cpu_pct"] = own_pct;
    state.counters["sim_cpu_pct"] = sim_pct;
    std::printf("P1 8 cameras at full load for %.0f s: %llu frames received, %llu lost by the slave (SEI gaps, in "
                "%llu runs), %llu repeated/reordered/foreign/unmarked; %llu pictures dropped by the encoders of "
                "%llu produced (media.json)\n",
                r.window_s, static_cast<unsigned long long>(l.frames), static_cast<unsigned long long>(l.lost),
                static_cast<unsigned long long>(l.gaps), static_cast<unsigned long long>(l.others),
                static_cast<unsigned long long>(dropped),
                static_cast<unsigned long long>(u.venc.produced - u.venc0.produced));
    std::printf("P1 the slave's own threads: %.2f %% of a core; beside them, the simulated board's sim* threads: "
                "%.2f %% (the host has %ld cores)\n",
                own_pct, sim_pct, sysconf(_SC_NPROCESSORS_ONLN));
    if (r.summary.net_latency_frames > 0) {
        state.counters["net_latency_p50_ms"] = r.summary.net_latency_p50_ms;
        state.counters["net_latency_p99_ms"] = r.summary.net_latency_p99_ms;
        std::printf("P4 network frames from the encoder's time stamp to the master's file over %llu frames: median "
                    "%.1f ms, 99th percentile %.1f ms; reference, one frame period at 30 fps: 33.3 ms\n",
                    static_cast<unsigned long long>(r.summary.net_latency_frames), r.summary.net_latency_p50_ms,
                    r.summary.net_latency_p99_ms);
    }
    const double peak_mib = static_cast<double>(u.peak_kb) / MiB_kb;
    state.counters["peak_rss_mib"] = peak_mib;
    std::printf("P7 the slave's peak resident memory at full load: %.1f MiB, the simulated board's encoded loops, "
                "pictures and mapped windows included (at the end: %.1f MiB private, %.1f MiB of files, %.1f MiB "
                "shared); the pool ceilings: %.0f MiB (record 48, network 16); an idle slave: %.1f MiB\n",
                peak_mib, static_cast<double>(u.anon_kb) / MiB_kb, static_cast<double>(u.file_kb) / MiB_kb,
                static_cast<double>(u.shmem_kb) / MiB_kb, k_pool_ceiling_mib, g_idle_rss_mib);
}
BENCHMARK(BM_full_load_8_cameras)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

void BM_recorder_4x8(benchmark::State& state)
{
    recorder_run r;
    if (!record_for(state, "4x8", 4, false, r))
        return;
    uint64_t lost = 0, dropped = 0;
    double own = 0, all = 0;
    for (const auto& [chip, u] : r.slaves) {
        const stream_losses l = losses_of(r.summary, chip);
        const uint64_t d = u.venc.dropped - u.venc0.dropped;
        lost += l.lost;
        dropped += d;
        own += u.own;
        all += u.all;
        std::printf("P6 slave %d (cameras %d..%d) over %.0f s: %llu frames received, %llu lost (SEI gaps), %llu "
                    "dropped by the encoders; own threads %.2f %% of a core, simulated board %.2f %%, peak resident "
                    "%.1f MiB\n",
                    chip, 8 * (chip - 1), 8 * chip - 1, r.window_s, static_cast<unsigned long long>(l.frames),
                    static_cast<unsigned long long>(l.lost), static_cast<unsigned long long>(d),
                    100 * u.own / r.window_s, 100 * (u.all - u.own) / r.window_s,
                    static_cast<double>(u.peak_kb) / MiB_kb);
    }
    state.counters["lost"] = static_cast<double>(lost);
    state.counters["encoder_dropped"] = static_cast<double>(dropped);
    state.counters["own_cpu_pct"] = 100 * own / r.window_s;
    std::printf("P6 4 x 8 cameras over %.0f s: %llu frames lost by the slaves, %llu dropped by the encoders; the "
                "slaves' own threads together %.2f %% of a core, their simulated boards %.2f %% (the host has %ld "
                "cores); %llu violations\n",
                r.window_s, static_cast<unsigned long long>(lost), static_cast<unsigned long long>(dropped),
                100 * own / r.window_s, 100 * (all - own) / r.window_s, sysconf(_SC_NPROCESSORS_ONLN),
                static_cast<unsigned long long>(r.summary.all_violations()));
}
BENCHMARK(BM_recorder_4x8)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
