// tarvo-master: the master emulator as a command.
//
//   tarvo-master demo  --slave <binary> --board <dir> [--slaves N] [--seconds S]
//   tarvo-master serve --board <dir> [--slave <binary> --slaves N] [--seconds S]
//   tarvo-master record --slave <binary> --board <dir> --out <dir> [--slaves N]
//                       [--cameras C] [--seconds S] [--first-key-wait S]
//   tarvo-master layout --slave <binary> --board <dir> --png <file> [--cells 1|4|9|16]
//                       [--cameras C] [--cam-base B] [--first K] [--narrow] [--zoom x,y,w,h]
//                       [--pciv]
//   tarvo-master play --slave <binary> --board <dir> --from <dir> [--cameras C]
//                     [--skip-show N] [--seconds S]
//
// demo starts N slaves, shows each one's announcement and the DMA-info round
// trips, polls status for S seconds and prints the summary. serve plays
// chip 0 for slaves started by it or by hand: it gives every slave that
// connects its windows, answers its notifications and polls its status for
// S seconds (0: until interrupted), then prints the summary. record starts
// N slaves, configures them as a recorder does, waits until every stream has
// begun, records S seconds into one .h264 and one .mp4 file per camera and
// stream under the output folder, checks everything that arrives, prints
// the summary (also written to <out>/summary.json) and writes report.html.
// layout starts one slave of C cameras (default 4) from camera B, lays out a
// screen of 1, 4, 9 or 16 cells with cameras K, K + 1, ... (cells of other
// slaves included), zooms a single cell, optionally sets up PCI video
// channels (main live for the first camera, spot for the second,
// picture-in-picture on the first sub-capture group) and draws the slave's
// part of the screen from its media.json as a PNG. play starts one slave,
// hands it the main recording streams of chip 1's first C cameras that
// record wrote under --from as playback records on port 107, and compares
// the pictures the board decoded with the frames sent.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "master/master.h"
#include "master/play.h"
#include "master/record.h"
#include "master/screen.h"

using namespace tmaster;

namespace {

volatile std::sig_atomic_t g_stop = 0;

void on_signal(int)
{
    g_stop = 1;
}

struct cli {
    std::string mode;
    std::string slave;
    std::string board;
    int slaves = 1;
    int seconds = 5;
    bool seconds_given = false;
    int port_wait_s = 20;
    std::string out;
    int cameras = 8;
    int first_key_wait_s = 60;
    // layout
    std::string png;
    int cells = 4;
    int cam_base = 0;
    int first = -1;
    bool narrow = false;
    bool pciv = false;
    std::optional<std::array<int, 4>> zoom;
    bool cameras_given = false;
    std::string from;
    int skip_show = 0;
    int md_threshold = 10;
    std::vector<tmaster::mask_plan> masks;
    bool no_masks = false;
};

int usage(const char* why)
{
    if (why != nullptr)
        std::fprintf(stderr, "tarvo-master: %s\n", why);
    std::fprintf(stderr,
                 "usage: tarvo-master demo  --slave <binary> --board <dir> [--slaves N] [--seconds S]\n"
                 "       tarvo-master serve --board <dir> [--slave <binary> --slaves N] [--seconds S]\n"
                 "       tarvo-master record --slave <binary> --board <dir> --out <dir> [--slaves N]\n"
                 "                           [--cameras C] [--seconds S] [--first-key-wait S]\n"
                 "       tarvo-master play --slave <binary> --board <dir> --from <dir> [--cameras C]\n"
                 "                         [--skip-show N] [--seconds S]\n"
                 "  --from DIR      play: the folder record wrote\n"
                 "  --skip-show N   play: skip-show mode, every N-th frame marked to be shown\n"
                 "  --slaves N      slaves on chips 1..N, chip k with cameras 8(k-1)..8k-1 (default 1)\n"
                 "  --seconds S     how long to poll status (default 5; serve: 0 runs until interrupted);\n"
                 "                  record: how long to record once every stream has begun (default 30);\n"
                 "                  play: send the recording again until S seconds passed (default: once)\n"
                 "  --cameras C     record: cameras per slave, chip k with cameras C(k-1).. (default 8)\n"
                 "  --out DIR       record: the folder for the .h264 files and summary.json\n"
                 "  --first-key-wait S  record: how long streams may take to begin (default 60)\n"
                 "  --md-threshold T  record: every camera's motion threshold, 0..256, -1 not set (default 10)\n"
                 "  --mask CAM:x,y,w,h  record: a privacy mask on a camera, in fractions of the picture (repeatable);\n"
                 "                  none: no mask (default: one on each slave's first camera)\n"
                 "       tarvo-master layout --slave <binary> --board <dir> --png <file> [--cells 1|4|9|16]\n"
                 "                           [--cameras C] [--cam-base B] [--first K] [--narrow] [--zoom x,y,w,h]\n"
                 "                           [--pciv]\n"
                 "  --port-wait S   how long to wait for a slave's ports (default 20)\n"
                 "  layout: --cells the screen's cells (9: one of them 1280 x 720); --first the first\n"
                 "          cell's camera (default B); --narrow: odd cameras captured 704 wide, every\n"
                 "          camera narrow; --zoom crops a single cell; --pciv sets up PCI video\n");
    return 2;
}

bool parse_int(const char* text, int lo, int hi, int* out)
{
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi)
        return false;
    *out = static_cast<int>(v);
    return true;
}

std::string absolute(const std::string& path)
{
    if (path.empty() || path[0] == '/')
        return path;
    char cwd[4096];
    if (getcwd(cwd, sizeof(cwd)) == nullptr)
        return path;
    return std::string(cwd) + "/" + path;
}

int parse_cli(int argc, char** argv, cli* c)
{
    if (argc < 2)
        return usage(nullptr);
    c->mode = argv[1];
    if (c->mode != "demo" && c->mode != "serve" && c->mode != "record" && c->mode != "layout" &&
        c->mode != "play")
        return usage(("unknown command \"" + c->mode + "\"").c_str());
    for (int i = 2; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--narrow" || a == "--pciv") {
            (a == "--narrow" ? c->narrow : c->pciv) = true;
            continue;
        }
        if (i + 1 >= argc)
            return usage(("missing value after " + a).c_str());
        const char* v = argv[++i];
        if (a == "--slave")
            c->slave = absolute(v);
        else if (a == "--board")
            c->board = absolute(v);
        else if (a == "--slaves") {
            if (!parse_int(v, 0, MAX_SLAVE_CHIP, &c->slaves))
                return usage("--slaves takes 0..14");
        } else if (a == "--seconds") {
            if (!parse_int(v, 0, 86400, &c->seconds))
                return usage("--seconds takes 0..86400");
            c->seconds_given = true;
        } else if (a == "--out") {
            c->out = absolute(v);
        } else if (a == "--cameras") {
            if (!parse_int(v, 1, 16, &c->cameras))
                return usage("--cameras takes 1..16");
            c->cameras_given = true;
        } else if (a == "--png") {
            c->png = absolute(v);
        } else if (a == "--cells") {
            if (!parse_int(v, 1, 16, &c->cells) || (c->cells != 1 && c->cells != 4 && c->cells != 9 && c->cells != 16))
                return usage("--cells takes 1, 4, 9 or 16");
        } else if (a == "--cam-base") {
            if (!parse_int(v, 0, 31, &c->cam_base))
                return usage("--cam-base takes 0..31");
        } else if (a == "--first") {
            if (!parse_int(v, 0, 40, &c->first))
                return usage("--first takes 0..40");
        } else if (a == "--zoom") {
            std::array<int, 4> z{};
            if (std::sscanf(v, "%d,%d,%d,%d", &z[0], &z[1], &z[2], &z[3]) != 4)
                return usage("--zoom takes x,y,w,h");
            c->zoom = z;
        } else if (a == "--first-key-wait") {
            if (!parse_int(v, 1, 3600, &c->first_key_wait_s))
                return usage("--first-key-wait takes 1..3600");
        } else if (a == "--from") {
            c->from = absolute(v);
        } else if (a == "--skip-show") {
            if (!parse_int(v, 1, 240, &c->skip_show))
                return usage("--skip-show takes 1..240");
        } else if (a == "--md-threshold") {
            if (!parse_int(v, -1, 256, &c->md_threshold))
                return usage("--md-threshold takes -1..256");
        } else if (a == "--mask" && std::strcmp(v, "none") == 0) {
            c->no_masks = true;
        } else if (a == "--mask") {
            mask_plan k;
            if (std::sscanf(v, "%d:%lf,%lf,%lf,%lf", &k.camera, &k.x, &k.y, &k.w, &k.h) != 5 || !std::isfinite(k.x) ||
                !std::isfinite(k.y) || !std::isfinite(k.w) || !std::isfinite(k.h))
                return usage("--mask takes CAM:x,y,w,h (fractions of the picture)");
            c->masks.push_back(k);
        } else if (a == "--port-wait") {
            if (!parse_int(v, 1, 3600, &c->port_wait_s))
                return usage("--port-wait takes 1..3600");
        } else {
            return usage(("unknown option " + a).c_str());
        }
    }
    if (c->board.empty())
        return usage("--board is required");
    if (c->mode == "demo" && c->slave.empty())
        return usage("demo needs --slave");
    if (c->mode == "record") {
        if (c->slave.empty() || c->out.empty())
            return usage("record needs --slave and --out");
        if (c->slaves < 1)
            return usage("record needs at least one slave");
        if (!c->seconds_given)
            c->seconds = 30;
    }
    if (c->mode == "layout") {
        if (c->slave.empty() || c->png.empty())
            return usage("layout needs --slave and --png");
        if (!c->cameras_given)
            c->cameras = 4;
        if (c->first < 0)
            c->first = c->cam_base;
    }
    if (c->mode == "play" && (c->slave.empty() || c->from.empty()))
        return usage("play needs --slave and --from");
    if (!c->slave.empty() && access(c->slave.c_str(), X_OK) != 0)
        return usage(("cannot run " + c->slave + ": " + std::strerror(errno)).c_str());
    if (c->slave.empty())
        c->slaves = 0;
    return 0;
}

// Sleeps up to `ms`, in short steps so that an interrupt ends it.
void nap(int ms)
{
    for (int t = 0; t < ms && !g_stop; t += 50)
        std::this_thread::sleep_for(milliseconds(50));
}

bool wait_interruptible(master& m, int chip, bool (master::*wait)(int, milliseconds), int seconds)
{
    auto deadline = steady::now() + std::chrono::seconds(seconds);
    while (!g_stop && steady::now() < deadline) {
        if ((m.*wait)(chip, milliseconds(100)))
            return true;
    }
    return false;
}

std::string ports_text(const slave_info& s)
{
    std::string t;
    for (int k = 0; k < NUM_PORTS; ++k) {
        t += ' ';
        t += std::to_string(PORT_CAL + k);
        if (!s.ports[k].open)
            t += "(closed)";
    }
    return t;
}

// The demo's steps for one slave: ports, announcement, the two round trips.
bool show_slave(master& m, int chip, int port_wait_s)
{
    std::printf("-- chip %d: waiting up to %d s for its six ports\n", chip, port_wait_s);
    if (!wait_interruptible(m, chip, &master::wait_ports, port_wait_s)) {
        std::optional<slave_info> s = m.slave(chip);
        std::printf("-- chip %d: its ports did not all open (%s)\n", chip,
                    s ? ports_text(*s).c_str() : " none connected");
        return false;
    }
    if (!wait_interruptible(m, chip, &master::wait_announcement, 5)) {
        std::printf("-- chip %d: all six ports open but no announcement\n", chip);
        return false;
    }
    slave_info s = *m.slave(chip);
    std::printf("-- chip %d: ports%s connected\n", chip, ports_text(s).c_str());
    std::printf("-- chip %d: announcement: id %u cmd 0x%08x len %u result %d; %s on port 102, "
                "%d of 6 ports open before it, %.3f ms after the last\n",
                chip, s.first_head.id, s.first_head.cmd, s.first_head.len, s.first_head.result,
                s.first_head.cmd == CMD_ANNOUNCE ? "the first message" : "NOT the first message",
                __builtin_popcount(s.ports_open_at_first), static_cast<double>(s.first_after_ports.count()) / 1000.0);

    reply_t r;
    std::optional<dma_info_t> info = m.get_dma_info(chip, milliseconds(3000), &r);
    if (info) {
        bool inside = true;
        for (uint32_t a : info->addr)
            inside = inside && in_chip_range(chip, a, WINDOW_SIZE);
        std::printf("-- chip %d: HSCC_CAL_GetDmaInfo (0x20003) id %u -> result %d len %u: dma_index %u, "
                    "local buffers 0x%08x 0x%08x 0x%08x 0x%08x (%s chip %d's memory)\n",
                    chip, r.head.id, r.head.result, r.head.len, info->dma_index, info->addr[0], info->addr[1],
                    info->addr[2], info->addr[3], inside ? "inside" : "NOT inside", chip);
    } else {
        std::printf("-- chip %d: HSCC_CAL_GetDmaInfo (0x20003): no usable reply\n", chip);
    }

    r = reply_t{};
    int result = m.set_dma_info(chip, milliseconds(3000), &r);
    if (r.payload.size() < sizeof(dma_info_t)) {
        std::printf("-- chip %d: HSCC_CAL_SetDmaInfo (0x20001): no usable reply\n", chip);
        return false;
    }
    dma_info_t echo = load_at<dma_info_t>(r.payload, 0);
    std::printf("-- chip %d: HSCC_CAL_SetDmaInfo (0x20001) id %u with windows 0x%08x 0x%08x 0x%08x 0x%08x "
                "-> result %d len %u, payload back: %u 0x%08x 0x%08x 0x%08x 0x%08x\n",
                chip, r.head.id, master::window_address(chip, 0), master::window_address(chip, 1),
                master::window_address(chip, 2), master::window_address(chip, 3), result, r.head.len,
                echo.dma_index, echo.addr[0], echo.addr[1], echo.addr[2], echo.addr[3]);
    return info && result == 0;
}

void progress_line(master& m, int second)
{
    for (int chip : m.chips()) {
        std::optional<slave_info> s = m.slave(chip);
        if (!s)
            continue;
        const slave_stats& t = s->stats;
        std::printf("-- t+%ds chip %d: heartbit %u; records %llu, network %llu frames, snapshots %llu, "
                    "motion %llu\n",
                    second, chip, s->have_status ? s->status.heartbit : 0u,
                    static_cast<unsigned long long>(t.record.frames),
                    static_cast<unsigned long long>(t.network.frames),
                    static_cast<unsigned long long>(t.jpeg.frames),
                    static_cast<unsigned long long>(t.motion.frames));
    }
    std::fflush(stdout);
}

void list_board_files(const master& m)
{
    const std::string& dir = m.board().dir();
    auto row = [](const std::string& name, const std::string& what) {
        std::printf("   %-16s %s\n", name.c_str(), what.c_str());
    };
    std::printf("== board files in %s\n", dir.c_str());
    row("chip0.sock", "chip 0's listening socket (the master's)");
    row("chip0.mem", "chip 0's memory: slave k's four windows from offset (k - 1) * 8 MiB");
    for (int chip : m.chips()) {
        std::string t = "chip" + std::to_string(chip);
        row(t + ".console", "its console");
        row(t + ".mem", "its memory (local transfer buffers)");
        row(t + "/", "var/log/message, shell.log, sched.log, clock, etc/TZ, msgq");
    }
}

void start_slaves(master& m, const cli& c)
{
    for (int k = 1; k <= c.slaves; ++k) {
        slave_config cfg;
        cfg.binary = c.slave;
        cfg.chip = k;
        cfg.cam_base = 8 * (k - 1);
        cfg.slave_cam = 8;
        cfg.num_vin = 8;
        if (m.start_slave(cfg) < 0)
            std::printf("-- chip %d: %s\n", k, m.error().c_str());
    }
}

int run_demo(master& m, const cli& c)
{
    start_slaves(m, c);
    bool ok = true;
    for (int k = 1; k <= c.slaves && !g_stop; ++k)
        ok = show_slave(m, k, c.port_wait_s) && ok;

    std::printf("-- polling status once per second for %d s\n", c.seconds);
    m.start_status_poll(milliseconds(1000));
    for (int s = 1; s <= c.seconds && !g_stop; ++s) {
        nap(1000);
        progress_line(m, s);
    }
    m.stop_status_poll();
    return ok ? 0 : 1;
}

int run_serve(master& m, const cli& c)
{
    start_slaves(m, c);
    m.start_status_poll(milliseconds(1000));
    auto end = steady::now() + std::chrono::seconds(c.seconds);
    int second = 0;
    while (!g_stop && (c.seconds == 0 || steady::now() < end)) {
        for (int chip : m.chips()) {
            std::optional<slave_info> s = m.slave(chip);
            if (s && s->ports[port_slot(PORT_CAL)].open && !s->windows_set) {
                m.get_dma_info(chip, milliseconds(1000));
                m.set_dma_info(chip, milliseconds(1000));
            }
        }
        nap(1000);
        progress_line(m, ++second);
    }
    m.stop_status_poll();
    return 0;
}

int run_record(const cli& c)
{
    record_options o;
    o.board = c.board;
    o.slave = c.slave;
    // Without --mask, one mask per slave; --mask none: no mask at all.
    o.plan = recorder_plan(c.slaves, c.cameras, c.masks.empty() && !c.no_masks);
    o.plan.out = c.out;
    o.plan.md_threshold = c.md_threshold;
    if (!c.masks.empty())
        o.plan.masks = c.masks;
    o.seconds = c.seconds;
    o.first_key_wait = std::chrono::seconds(c.first_key_wait_s);
    o.port_wait = std::chrono::seconds(c.port_wait_s);
    o.progress = stdout;
    o.interrupt = &g_stop;
    std::printf("== tarvo-master record on board %s: %d slave(s) of %d camera(s), %d s, into %s\n", c.board.c_str(),
                c.slaves, c.cameras, c.seconds, c.out.c_str());
    std::fflush(stdout);
    record_summary s = record(o);
    std::printf("== summary\n");
    print_record_summary(stdout, s);
    if (s.rc != 0)
        std::printf("== the recording did not complete: %s\n", s.error.c_str());
    std::printf("== files: %s/slave<chip>/cam<NN>-<rec|reclow|netlow|copy>.{h264,mp4}, summary: %s/summary.json\n",
                c.out.c_str(), c.out.c_str());
    if (!s.report.empty())
        std::printf("== report: %s/%s\n", c.out.c_str(), s.report.c_str());
    std::printf("== slave consoles and logs: %s/chip<k>.console, %s/chip<k>/\n", c.board.c_str(), c.board.c_str());
    return s.rc != 0 ? s.rc : s.all_violations() != 0 ? 1 : 0;
}

void print_result(const char* what, const std::optional<reply_t>& r)
{
    if (r)
        std::printf("-- %s -> result %d\n", what, r->head.result);
    else
        std::printf("-- %s -> no reply\n", what);
}

int run_layout(master& m, const cli& c)
{
    constexpr int chip = 1;
    slave_config cfg;
    cfg.binary = c.slave;
    cfg.chip = chip;
    cfg.cam_base = c.cam_base;
    cfg.slave_cam = c.cameras;
    cfg.num_vin = c.cameras;
    if (m.start_slave(cfg) < 0 || !m.wait_announcement(chip, std::chrono::seconds(c.port_wait_s))) {
        std::printf("-- chip %d: did not announce itself (%s)\n", chip, m.error().c_str());
        return 1;
    }
    const milliseconds wait{5000};
    layout_cmd l = c.cells == 9 ? nine_with_wide(c.first) : grid_layout(c.cells == 1 ? 1 : c.cells == 4 ? 2 : 4, c.first);
    if (c.narrow) {
        for (int k = 0; k < c.cameras; ++k) {
            const int cam = c.cam_base + k;
            vincaps_t caps{cam, k % 2 ? 704 : 1920, k % 2 ? 576 : 1080, k % 2 ? 0 : 1, 25.0, 0, k % 2 ? 0 : 3};
            m.set_vincaps(chip, caps, wait);
            if (cam < 32)
                l.narrow[cam] = true;
        }
    }
    print_result(("HSCC_CAL_SetLayout, " + std::to_string(l.cells.size()) + " cells from camera " +
                  std::to_string(c.first)).c_str(),
                 m.command(chip, CMD_SET_LAYOUT, layout_payload(l), wait));
    if (c.zoom) {
        const auto& z = *c.zoom;
        print_result("HSCC_CAL_SetZoom", m.command(chip, CMD_SET_ZOOM, zoom_payload(c.first, z[0], z[1], z[2], z[3]), wait));
    }
    if (c.pciv) {
        print_result("HSCC_CAL_InitPcivVo main, live",
                     m.command(chip, CMD_INIT_PCIV_VO, pciv_init_payload(2, c.cam_base, 1, 1920, 1080), wait));
        if (c.cameras > 1)
            print_result("HSCC_CAL_InitPcivVo spot",
                         m.command(chip, CMD_INIT_PCIV_VO, pciv_init_payload(1, c.cam_base + 1, 0, 640, 360), wait));
        print_result("HSCC_CAL_InitPcivVo picture-in-picture",
                     m.command(chip, CMD_INIT_PCIV_VO, pciv_init_payload(0, c.cameras, 0, 640, 360), wait));
        print_result("HSCC_CAL_StartPcivVo picture-in-picture",
                     m.command(chip, CMD_START_PCIV_VO, pciv_start_payload(0, c.cameras, 0, 0, 0), wait));
    }
    // The board writes its state within 100 ms of a change and every second
    // while counters move: two seconds show pictures counted.
    nap(2000);
    std::string err;
    std::optional<media_state> s = read_media_state(c.board, chip, &err);
    if (!s) {
        std::printf("-- %s\n", err.c_str());
        return 1;
    }
    std::vector<screen_part> parts = screen_parts(*s, c.cameras);
    for (const screen_part& p : parts) {
        std::printf("-- output channel %d at %d,%d %dx%d from %s", p.vo.chn, p.vo.x, p.vo.y, p.vo.width, p.vo.height,
                    p.via.c_str());
        if (p.source)
            std::printf(" (%d,%d,%d)", p.source->mod, p.source->dev, p.source->chn);
        if (p.capture)
            std::printf(", capture channel %d", p.capture->chn);
        if (p.crop.enable)
            std::printf(", zoomed to %d,%d %dx%d", p.crop.x, p.crop.y, p.crop.width, p.crop.height);
        std::printf(", %llu pictures\n", static_cast<unsigned long long>(p.vo.pictures));
    }
    for (const media_pciv& p : s->pciv)
        std::printf("-- PCI video channel %d %s %dx%d, %llu pictures\n", p.chn, p.started ? "started" : "stopped",
                    p.width, p.height, static_cast<unsigned long long>(p.pictures));
    if (draw_screen_png(parts, c.png, &err) != 0) {
        std::printf("-- %s\n", err.c_str());
        return 1;
    }
    std::printf("== %zu cell(s) of this slave drawn into %s\n", parts.size(), c.png.c_str());
    return 0;
}

int run_play(const cli& c)
{
    play_options o;
    o.board = c.board;
    o.slave = c.slave;
    o.recording = c.from;
    o.cameras = c.cameras;
    o.slave_cam = c.cameras;
    o.num_vin = c.cameras;
    o.skip_show = c.skip_show > 0 ? 1 : 0;
    o.show_every = c.skip_show;
    if (c.seconds_given)
        o.at_least = std::chrono::seconds(c.seconds);
    o.progress = stdout;
    std::printf("== tarvo-master play on board %s: %d camera(s) from %s\n", c.board.c_str(), c.cameras,
                c.from.c_str());
    std::fflush(stdout);
    play_summary s = play(o);
    print_play_summary(stdout, s);
    return s.rc;
}

}  // namespace

int main(int argc, char** argv)
{
    cli c;
    if (int r = parse_cli(argc, argv, &c); r != 0)
        return r;

    struct sigaction sa{};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    if (c.mode == "record")
        return run_record(c);
    if (c.mode == "play")
        return run_play(c);

    master_options o;
    o.board = c.board;
    o.notes_to = stdout;
    master m(o);
    if (m.open() != 0) {
        std::fprintf(stderr, "tarvo-master: %s\n", m.error().c_str());
        return 1;
    }
    std::printf("== tarvo-master %s on board %s\n", c.mode.c_str(), c.board.c_str());
    int rc = c.mode == "demo" ? run_demo(m, c) : c.mode == "layout" ? run_layout(m, c) : run_serve(m, c);

    std::printf("== summary\n");
    m.print_summary(stdout);
    list_board_files(m);
    std::printf("== ending the slaves\n");
    std::fflush(stdout);
    m.close();
    if (rc != 0)
        std::printf("== the demo did not complete: see the lines marked \"--\" above and the consoles\n");
    return rc;
}
