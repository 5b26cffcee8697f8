#include "master/record.h"

#include "master/motion.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "master/internal.h"
#include "master/master.h"
#include "master/overlay.h"
#include "master/report.h"

namespace tmaster {

namespace {

using std::chrono::seconds;

uint64_t wall_usec()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
}

double wall_seconds()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Collects the failures of the set-up commands.
struct command_log {
    std::vector<std::string> failed;
    void check(std::optional<int32_t> r, const char* what, int cam)
    {
        if (r && *r == 0)
            return;
        char line[160];
        if (r)
            std::snprintf(line, sizeof(line), "%s camera %d: result %d", what, cam, *r);
        else
            std::snprintf(line, sizeof(line), "%s camera %d: no reply", what, cam);
        failed.emplace_back(line);
    }
};

enc_video_t enc_video(uint32_t kind, int cam, const stream_setting& s)
{
    enc_video_t v{};
    v.kind = kind;
    v.fps = static_cast<float>(s.fps);
    v.width = static_cast<int16_t>(s.width);
    v.height = static_cast<int16_t>(s.height);
    v.cam = static_cast<uint8_t>(cam);
    v.quality = s.quality;
    v.attr = s.attr;
    return v;
}

bool interrupted(const record_options& o)
{
    return o.interrupt != nullptr && *o.interrupt != 0;
}

void progress_line(const record_options& o, const recorder& rec, const char* phase, double t)
{
    recorder::progress_t p = rec.progress();
    say_progress(o.progress, "-- %s t+%.0fs: %zu of %zu streams begun, %llu frames, %.1f MB, %llu violation(s)\n", phase, t, p.started,
        p.expected, static_cast<unsigned long long>(p.frames), static_cast<double>(p.bytes) / 1e6,
        static_cast<unsigned long long>(p.violations));
}

// Each camera's overlay bitmap, read back from the board, as a PNG:
// <out>/slave<chip>/cam<NN>-overlay.png.
void save_overlays(const record_options& o, const master& m)
{
    for (const slave_plan& p : o.plan.slaves) {
        std::ifstream in(m.board().path("chip" + std::to_string(p.chip) + "/media.json"));
        std::stringstream text;
        text << in.rdbuf();
        for (const region_bitmap& r : overlay_regions(text.str())) {
            const int cam = p.cam_base + r.handle - 64;
            if (r.handle < 64 || r.handle >= 64 + p.cameras)
                continue;  // not a time overlay
            std::ifstream raw(m.board().path(r.file), std::ios::binary);
            std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(raw)), std::istreambuf_iterator<char>());
            char name[48];
            std::snprintf(name, sizeof(name), "/slave%d/cam%02d-overlay.png", p.chip, cam);
            std::string err;
            if (write_bitmap_png(o.plan.out + name, bytes, r.width, r.height, &err) != 0)
                say_progress(o.progress, "-- %s\n", err.c_str());
            else
                say_progress(o.progress, "-- chip %d camera %d: overlay at %d,%d saved as %s\n", p.chip, cam, r.x, r.y, name + 1);
        }
    }
}

// Every slave's status, once: what the report plots (heartbeats and the
// cameras' measured frame rates).
void poll_status(master& m, const record_plan& plan, std::vector<status_sample>& out)
{
    for (const slave_plan& p : plan.slaves) {
        status_sample& x = out.emplace_back();
        x.chip = p.chip;
        x.at = wall_seconds();
        if (std::optional<status_t> st = m.get_status(p.chip, std::chrono::milliseconds(1000))) {
            x.ok = true;
            x.st = *st;
        }
    }
}

void write_summary_file(record_summary& s)
{
    if (s.out.empty())
        return;
    std::ofstream f(s.out + "/summary.json");
    f << summary_json(s);
    if (!f) {
        s.rc = s.rc != 0 ? s.rc : 1;
        s.error = s.out + "/summary.json: not written";
    }
}

}  // namespace

record_plan recorder_plan(int slaves, int cameras, bool slave_masks)
{
    record_plan plan;
    for (int k = 1; k <= slaves; ++k) {
        plan.slaves.push_back({k, cameras * (k - 1), cameras, cameras});
        if (slave_masks)
            plan.masks.push_back({cameras * (k - 1), 0.6, 0.05, 0.35, 0.2});
    }
    return plan;
}

std::vector<std::string> configure_recorder(master& m, const slave_plan& p, const record_plan& plan,
                                            std::chrono::milliseconds timeout)
{
    command_log log;
    int chip = p.chip;
    log.check(m.set_time(chip, wall_usec(), timeout), "HSCC_CAL_SetTime", -1);
    for (int c = 0; c < p.cameras; ++c) {
        int cam = p.cam_base + c;
        const camera_plan cp = plan.camera(cam);
        vincaps_t caps{};
        caps.cam = cam;
        caps.xres = cp.xres;
        caps.yres = cp.yres;
        caps.prog = 1;
        caps.fps = 30.0;
        log.check(m.set_vincaps(chip, caps, timeout), "HSCC_CAL_SetVincaps", cam);
    }
    for (int c = 0; c < p.cameras && plan.md_threshold >= 0; ++c) {
        int cam = p.cam_base + c;
        log.check(m.set_md(chip, {cam, plan.md_threshold}, timeout), "HSCC_CAL_SetMd", cam);
    }
    for (const mask_plan& k : plan.masks) {
        if (k.camera < p.cam_base || k.camera >= p.cam_base + p.cameras)
            continue;
        log.check(m.set_privacy(chip, {k.camera, 1, k.x, k.y, k.w, k.h}, timeout), "HSCC_CAL_SetPrivacy", k.camera);
    }
    for (int c = 0; c < p.cameras; ++c) {
        int cam = p.cam_base + c;
        log.check(m.set_enc_video(chip, enc_video(KIND_REC, cam, plan.rec), timeout), "set-video REC", cam);
        log.check(m.set_enc_video(chip, enc_video(KIND_REC_LOW, cam, plan.rec_low), timeout), "set-video REC LOW", cam);
        log.check(m.set_enc_video(chip, enc_video(KIND_NET_LOW, cam, plan.net_low), timeout), "set-video NET LOW", cam);
    }
    for (int c = 0; c < p.cameras; ++c) {
        uint32_t cam = static_cast<uint32_t>(p.cam_base + c);
        const bool rec = plan.camera(p.cam_base + c).rec;
        if (rec)
            log.check(m.run_enc_video(chip, {KIND_REC, cam, 1, 0}, timeout), "run-video REC", p.cam_base + c);
        log.check(m.run_enc_video(chip, {KIND_NET_LOW, cam, 1, 0}, timeout), "run-video NET LOW", p.cam_base + c);
        if (plan.copy && rec)
            log.check(m.run_enc_video(chip, {KIND_COPY, cam, 1, 0}, timeout), "run-video copy", p.cam_base + c);
        log.check(m.run_enc_video(chip, {KIND_REC_LOW, cam, 1, 0}, timeout), "run-video REC LOW", p.cam_base + c);
    }
    // Snapshots carry the JPEG switch; the overlay needs its glyphs and the
    // switch before the update that builds REC.
    for (int c = 0; c < p.cameras; ++c) {
        uint32_t cam = static_cast<uint32_t>(p.cam_base + c);
        const uint32_t on = plan.jpeg_switch ? 1 : 0;
        log.check(m.run_enc_video(chip, {KIND_JPEG, cam, on, 0}, timeout), "run-video JPEG", p.cam_base + c);
    }
    if (plan.overlay) {
        std::string err;
        std::vector<uint8_t> strip = render_time_font(FONT_FILE, &err);
        if (strip.empty())
            log.failed.push_back("glyph strip: " + err);
        for (int r = 0; !strip.empty() && r < FONT_ROWS; ++r) {
            auto reply = m.command(chip, CMD_SET_TIME_FONT + static_cast<uint32_t>(r),
                                   std::span<const uint8_t>(strip.data() + r * FONT_ROW_BYTES, FONT_ROW_BYTES),
                                   timeout);
            log.check(reply ? std::optional<int32_t>(reply->head.result) : std::nullopt, "HSCC_CAL_SetTimeFont", r);
        }
        timestamp_t ts{1, plan.date_fmt, plan.hour12};
        auto reply = m.command(chip, CMD_SET_TIMESTAMP,
                               std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(&ts), sizeof(ts)), timeout);
        log.check(reply ? std::optional<int32_t>(reply->head.result) : std::nullopt, "HSCC_CAL_SetTimestamp", -1);
    }
    update_video_t u{};
    u.sync = 1;
    u.fps = static_cast<int16_t>(plan.sys_fps);
    u.t = wall_usec();
    log.check(m.update_enc_video(chip, u, timeout), "HSCC_CAL_UpdatEncVideo", -1);
    return log.failed;
}

record_summary record(record_options o)
{
    if (o.plan.slaves.empty())
        o.plan.slaves.push_back(slave_plan{});
    record_summary fail;
    fail.out = o.plan.out;
    fail.seconds = o.seconds;
    auto failed = [&](std::string why) {
        fail.rc = 1;
        fail.error = std::move(why);
        write_summary_file(fail);
        return fail;
    };

    recorder rec(o.plan);
    std::string err;
    if (rec.open(&err) != 0)
        return failed(err);

    master_options mo;
    mo.board = o.board;
    mo.notes_to = o.notes_to;
    master m(mo);
    if (m.open() != 0)
        return failed(m.error());
    motion_log motion;
    if (motion.open(o.plan.out.empty() ? "" : o.plan.out + "/motion.log", &err) != 0)
        return failed(err);
    m.on_notification([&rec, &motion](const notification& n, std::span<const uint8_t> written) {
        rec.take(n, written);
        motion.take(n);
    });

    std::string setup_error;
    for (const slave_plan& p : o.plan.slaves) {
        slave_config cfg;
        cfg.binary = o.slave;
        cfg.chip = p.chip;
        cfg.cam_base = p.cam_base;
        cfg.slave_cam = p.cameras;
        cfg.num_vin = p.num_vin;
        if (m.start_slave(cfg) < 0) {
            setup_error = "chip " + std::to_string(p.chip) + ": " + m.error();
            break;
        }
        say_progress(o.progress, "-- chip %d: started with cameras %d..%d\n", p.chip, p.cam_base, p.cam_base + p.cameras - 1);
    }
    for (size_t i = 0; setup_error.empty() && i < o.plan.slaves.size(); ++i) {
        const slave_plan& p = o.plan.slaves[i];
        if (!m.wait_ports(p.chip, o.port_wait) || !m.wait_announcement(p.chip, std::chrono::milliseconds(5000))) {
            setup_error = "chip " + std::to_string(p.chip) + ": its ports did not open or it did not announce itself";
            break;
        }
        if (m.set_dma_info(p.chip, std::chrono::milliseconds(3000)) != 0) {
            setup_error = "chip " + std::to_string(p.chip) + ": HSCC_CAL_SetDmaInfo failed";
            break;
        }
        std::vector<std::string> bad = configure_recorder(m, p, o.plan, std::chrono::milliseconds(5000));
        say_progress(o.progress, "-- chip %d: windows set; time, cameras and streams configured%s\n", p.chip,
            bad.empty() ? "" : " with failures:");
        for (const std::string& b : bad)
            say_progress(o.progress, "     %s\n", b.c_str());
        if (!bad.empty())
            setup_error = "chip " + std::to_string(p.chip) + ": " + bad.front() +
                          (bad.size() > 1 ? " (and " + std::to_string(bad.size() - 1) + " more)" : "");
    }

    // The board's encoder makes its loops first and the snapshots begin 5 s
    // after the slave: wait, bounded, until every configured stream has
    // delivered its first key frame and every recording camera a snapshot.
    auto t0 = steady::now();
    auto since = [](steady::time_point t) { return std::chrono::duration<double>(steady::now() - t).count(); };
    int next_line = o.progress_every_s;
    bool begun = false;
    if (setup_error.empty()) {
        say_progress(o.progress, "-- waiting up to %lld s for every stream's first key frame and snapshot\n",
            static_cast<long long>(std::chrono::duration_cast<seconds>(o.first_key_wait).count()));
        while (!interrupted(o) && steady::now() - t0 < o.first_key_wait) {
            recorder::progress_t p = rec.progress();
            if (p.started == p.expected) {
                begun = true;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (since(t0) >= next_line) {
                progress_line(o, rec, "waiting", since(t0));
                next_line += o.progress_every_s;
            }
        }
    }
    double waited = since(t0);
    double began_at = 0, ended_at = 0;
    std::vector<status_sample> polls;
    if (begun) {
        say_progress(o.progress, "-- every stream has begun after %.1f s; recording %d s\n", waited, o.seconds);
        auto t1 = steady::now();
        began_at = wall_seconds();
        rec.time_network_from(began_at);
        next_line = o.progress_every_s;
        int next_tick = 1;
        int next_poll = 0;
        while (!interrupted(o) && since(t1) < o.seconds) {
            if (since(t1) >= next_poll) {
                poll_status(m, o.plan, polls);
                ++next_poll;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (since(t1) >= next_line) {
                progress_line(o, rec, "recording", since(t1));
                next_line += o.progress_every_s;
            }
            if (o.every_second && since(t1) >= next_tick && next_tick < o.seconds)
                o.every_second(m, next_tick++);
        }
        ended_at = wall_seconds();
    }

    if (begun && o.plan.overlay && !o.plan.out.empty())
        save_overlays(o, m);
    say_progress(o.progress, "-- ending the slaves\n");
    m.end_slaves();
    m.close();  // no notification after this
    rec.finish();
    motion.close();

    record_summary s = rec.summary();
    s.motion_reports = motion.reports();
    if (!o.plan.out.empty()) {
        std::string heat_err;
        s.motion_maps = motion.write_heat_maps(o.plan.out, &heat_err);
        s.motion_log = "motion.log";
        if (!heat_err.empty())
            s.problems.push_back("motion heat map: " + heat_err);
    }
    s.seconds = o.seconds;
    s.waited_s = waited;
    s.began_at = began_at;
    s.ended_at = ended_at;
    s.slaves = o.plan.slaves;
    s.masks = o.plan.masks;
    s.status = std::move(polls);
    if (!setup_error.empty()) {
        s.rc = 1;
        s.error = setup_error;
    } else if (!begun) {
        s.rc = 1;
        recorder::progress_t p = rec.progress();
        s.error = interrupted(o) ? "interrupted"
                                 : std::to_string(p.expected - p.started) + " of " + std::to_string(p.expected) +
                                       " streams delivered no key frame or snapshot within the wait:";
        int listed = 0;
        for (const stream_summary& x : s.streams) {
            if (interrupted(o) || x.file.empty() || x.key_frames > 0)
                continue;
            if (++listed > 8) {
                s.error += " ...";
                break;
            }
            s.error += " chip " + std::to_string(x.key.chip) + " camera " + std::to_string(x.key.camera) + " " +
                       stream_type_name(x.key.type) + ";";
        }
        for (const auto& [chip, cam] : rec.snapshots_missing()) {
            if (interrupted(o) || ++listed > 8)
                break;
            s.error += " chip " + std::to_string(chip) + " camera " + std::to_string(cam) + " snapshots;";
        }
    } else if (interrupted(o)) {
        s.rc = 1;
        s.error = "interrupted";
    }
    if (!o.plan.out.empty())
        s.report = "report.html";
    write_summary_file(s);
    if (!s.report.empty()) {
        report_result r = write_report(s);
        for (const std::string& n : r.notes)
            say_progress(o.progress, "-- report: %s\n", n.c_str());
        if (r.rc != 0)
            s.report.clear();
    }
    return s;
}

}  // namespace tmaster
