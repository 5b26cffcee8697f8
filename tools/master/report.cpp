#include "master/report.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>

extern char** environ;

namespace tmaster {

namespace {

namespace fs = std::filesystem;

void addf(std::string& out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

void addf(std::string& out, const char* fmt, ...)
{
    char line[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof(line), fmt, ap);
    va_end(ap);
    out += line;
}

std::string utc_text(double t)
{
    if (t <= 0)
        return "-";
    time_t s = static_cast<time_t>(t);
    tm b{};
    gmtime_r(&s, &b);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &b);
    return text;
}

// A path inside a single-quoted gnuplot string.
std::string gp_quote(const std::string& path)
{
    std::string q = "'";
    for (char c : path) {
        q += c;
        if (c == '\'')
            q += '\'';
    }
    return q + "'";
}

const char* stream_title(stream_type t)
{
    switch (t) {
    case stream_type::rec: return "REC";
    case stream_type::reclow: return "REC LOW";
    case stream_type::netlow: return "NET LOW";
    case stream_type::copy: return "recording copy";
    case stream_type::net: return "NET";
    }
    return "?";
}

// The page's own style: nothing is fetched.
constexpr const char* k_style = R"(
body { font-family: sans-serif; margin: 1.5em; color: #222; }
h1 { font-size: 1.5em; } h2 { margin-top: 2em; border-bottom: 2px solid #888; } h3 { margin: 0.2em 0; }
table { border-collapse: collapse; margin: 0.5em 0; font-size: 0.85em; }
td, th { border: 1px solid #bbb; padding: 2px 6px; text-align: right; }
th { background: #eee; } td.l, th.l { text-align: left; }
tr.bad td { background: #fdd; } .ok { color: #070; } .fail { color: #b00; font-weight: bold; }
.cards { display: flex; flex-wrap: wrap; gap: 12px; }
.card { border: 1px solid #bbb; padding: 8px; width: 580px; }
.card img.thumb { width: 280px; border: 1px solid #444; }
.card img.overlay { image-rendering: pixelated; max-width: 100%; background: #000; }
.card img.heat { width: 280px; }
.pics { display: flex; gap: 8px; align-items: flex-start; }
figure { margin: 0; } figcaption { font-size: 0.8em; color: #555; }
pre { background: #f4f4f4; padding: 6px; font-size: 0.8em; white-space: pre-wrap; }
)";

// Counts every picture of the page that loaded, for a person and for the
// browser test that reads the page back.
constexpr const char* k_image_check = R"(<p id="image-check">images: not checked</p>
<script>
window.addEventListener('load', function () {
  var all = document.images, ok = 0, missing = [];
  for (var i = 0; i < all.length; ++i) {
    if (all[i].complete && all[i].naturalWidth > 0) ++ok; else missing.push(all[i].getAttribute('src'));
  }
  document.getElementById('image-check').textContent =
    'images loaded: ' + ok + ' of ' + all.length + (missing.length ? '; missing: ' + missing.join(' ') : '');
  document.body.setAttribute('data-images', ok + '/' + all.length);
});
</script>
)";

class report_writer {
public:
    explicit report_writer(const record_summary& s) : s_(s), out_(s.out), dir_(s.out + "/report") {}

    report_result write();

private:
    bool has(const std::string& rel) const { return !rel.empty() && fs::exists(out_ + "/" + rel); }
    double origin() const;
    std::string write_rate_plot(const slave_plan& p, int cam);
    std::string write_status_plot(const slave_plan& p);
    int run_gnuplot();
    void head(std::string& h) const;
    void slave_section(std::string& h, const slave_plan& p, const std::map<std::pair<int, int>, std::string>& rates,
                       const std::map<int, std::string>& status) const;
    void streams_table(std::string& h, const slave_plan& p) const;
    void camera_card(std::string& h, const slave_plan& p, int cam, const std::string& rate_png) const;
    void status_block(std::string& h, const slave_plan& p, const std::string& png) const;

    const record_summary& s_;
    std::string out_;
    std::string dir_;
    std::string script_;
    std::vector<std::string> notes_;
};

// The plots' time 0: the start of the recording proper (frames that came
// while the streams were beginning lie before it).
double report_writer::origin() const
{
    if (s_.began_at > 0)
        return std::floor(s_.began_at);
    double first = 0;
    for (const stream_summary& x : s_.streams) {
        if (!x.rate.empty() && (first == 0 || x.rate.front().second < first))
            first = static_cast<double>(x.rate.front().second);
    }
    return first;
}

// One camera's streams, second by second: kbit/s and frames/s. A second
// without frames inside a stream's span is a 0, so gaps show.
std::string report_writer::write_rate_plot(const slave_plan& p, int cam)
{
    const double t0 = origin();
    std::string plot_kbps, plot_fps;
    for (const stream_summary& x : s_.streams) {
        if (x.key.chip != p.chip || x.key.camera != cam || x.rate.empty())
            continue;
        char name[80];
        std::snprintf(name, sizeof(name), "data/slave%d-cam%02d-%s.dat", p.chip, cam, stream_type_name(x.key.type));
        std::ofstream f(dir_ + "/" + name);
        f << "# second since the recording began, kbit/s, frames/s\n";
        size_t i = 0;
        for (int64_t sec = x.rate.front().second; sec <= x.rate.back().second; ++sec) {
            uint64_t bytes = 0, frames = 0;
            if (i < x.rate.size() && x.rate[i].second == sec) {
                bytes = x.rate[i].bytes;
                frames = x.rate[i].frames;
                ++i;
            }
            char line[96];
            std::snprintf(line, sizeof(line), "%.0f %.1f %llu\n", static_cast<double>(sec) - t0,
                          static_cast<double>(bytes) * 8 / 1000, static_cast<unsigned long long>(frames));
            f << line;
        }
        if (!f) {
            notes_.push_back(dir_ + "/" + name + ": not written");
            continue;
        }
        const std::string q = gp_quote(dir_ + "/" + name);
        // REC and its copy carry the same frames: the copy is drawn dashed
        // over a wider REC line, so both show.
        std::string title = std::string(" title '") + stream_title(x.key.type) + "'";
        if (x.key.type == stream_type::rec)
            title += " lw 3";
        else if (x.key.type == stream_type::copy)
            title += " dt 2";
        plot_kbps += (plot_kbps.empty() ? "plot " : ", ") + q + " using 1:2 with steps" + title;
        plot_fps += (plot_fps.empty() ? "plot " : ", ") + q + " using 1:3 with steps" + title;
    }
    if (plot_kbps.empty())
        return "";
    char png[64];
    std::snprintf(png, sizeof(png), "report/slave%d-cam%02d-rate.png", p.chip, cam);
    addf(script_, "set output %s\nset multiplot layout 2,1 title 'chip %d camera %d'\n", gp_quote(out_ + "/" + png).c_str(),
         p.chip, cam);
    script_ += "unset xlabel\nset ylabel 'kbit/s'\n" + plot_kbps + "\n";
    script_ += "set xlabel 's since the recording began'\nset ylabel 'frames/s'\n" + plot_fps + "\nunset multiplot\n";
    return png;
}

// A slave's polls: the frame rate it measured per camera, and how far each
// heartbeat moved from one poll to the next.
std::string report_writer::write_status_plot(const slave_plan& p)
{
    const double t0 = origin();
    char name[64];
    std::snprintf(name, sizeof(name), "data/slave%d-status.dat", p.chip);
    std::ofstream f(dir_ + "/" + name);
    f << "# s, heartbit, vdec and jpeg heartbeats moved since the last poll, fps of cameras 0..7\n";
    const status_sample* prev = nullptr;
    int rows = 0;
    for (const status_sample& x : s_.status) {
        if (x.chip != p.chip || !x.ok)
            continue;
        auto moved = [&](uint32_t now, uint32_t before) { return prev != nullptr ? now - before : 0u; };
        char line[256];
        int n = std::snprintf(line, sizeof(line), "%.1f %u %u %u", x.at - t0, moved(x.st.heartbit, prev ? prev->st.heartbit : 0),
                              moved(x.st.heart_vdec, prev ? prev->st.heart_vdec : 0),
                              moved(x.st.heart_jpeg, prev ? prev->st.heart_jpeg : 0));
        for (uint32_t fps : x.st.fps)
            n += std::snprintf(line + n, sizeof(line) - static_cast<size_t>(n), " %u", fps);
        f << line << "\n";
        prev = &x;
        ++rows;
    }
    if (!f || rows == 0)
        return "";
    const std::string q = gp_quote(dir_ + "/" + name);
    char png[48];
    std::snprintf(png, sizeof(png), "report/slave%d-status.png", p.chip);
    addf(script_, "set output %s\nset multiplot layout 2,1 title 'chip %d status polls'\n",
         gp_quote(out_ + "/" + png).c_str(), p.chip);
    script_ += "unset xlabel\nset ylabel 'frames/s measured'\nplot ";
    const int shown = std::min(p.cameras, 8);
    for (int c = 0; c < shown; ++c)
        addf(script_, "%s%s using 1:%d with lines title 'camera %d'", c ? ", " : "", q.c_str(), 5 + c, p.cam_base + c);
    script_ += "\nset xlabel 's since the recording began'\nset ylabel 'moved since last poll'\n";
    addf(script_, "plot %s using 1:2 with linespoints title 'heartbit', %s using 1:3 with linespoints title 'decoder', "
                  "%s using 1:4 with linespoints title 'snapshots'\nunset multiplot\n",
         q.c_str(), q.c_str(), q.c_str());
    return png;
}

int report_writer::run_gnuplot()
{
    if (script_.empty())
        return 0;
    const std::string path = dir_ + "/plots.gp";
    {
        std::ofstream f(path);
        f << "set terminal pngcairo size 560,320 font 'DejaVu Sans,8'\nset grid\nset key outside right\n"
             "set lmargin 10\nset rmargin 16\nset yrange [0:*]\nset offsets 0, 0, graph 0.12, 0\n"
          << script_;
        if (!f) {
            notes_.push_back(path + ": not written; no plots");
            return -1;
        }
    }
    const std::string log = dir_ + "/gnuplot.log";
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, STDOUT_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&fa, STDOUT_FILENO, STDERR_FILENO);
    std::string prog = "gnuplot";
    char* argv[] = {prog.data(), const_cast<char*>(path.c_str()), nullptr};
    pid_t pid = -1;
    int r = posix_spawnp(&pid, "gnuplot", &fa, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    if (r != 0) {
        notes_.push_back(std::string("gnuplot could not be started (") + std::strerror(r) + "); no plots");
        return -1;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        notes_.push_back("gnuplot failed; see " + log);
        return -1;
    }
    return 0;
}

void report_writer::head(std::string& h) const
{
    size_t cameras = 0;
    for (const slave_plan& p : s_.slaves)
        cameras += static_cast<size_t>(p.cameras);
    h += "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n<title>tarvo3532 recording</title>\n<style>";
    h += k_style;
    h += "</style></head><body>\n<h1>tarvo3532 recording</h1>\n";
    addf(h, "<p>%zu slave(s), %zu camera(s); recorded %d s from %s to %s, after %.1f s for the streams to begin.</p>\n",
         s_.slaves.size(), cameras, s_.seconds, utc_text(s_.began_at).c_str(), utc_text(s_.ended_at).c_str(),
         s_.waited_s);
    if (s_.rc == 0)
        h += "<p class=\"ok\">Every stream began and the recording completed.</p>\n";
    else
        addf(h, "<p class=\"fail\">The recording failed: %s</p>\n", html_escape(s_.error).c_str());
    uint64_t lost = 0, gaps = 0, frames = 0, bytes = 0;
    for (const stream_summary& x : s_.streams) {
        lost += x.lost;
        gaps += x.gaps;
        frames += x.frames;
        bytes += x.bytes;
    }
    h += "<table><tr><th class=\"l\">record buffers</th><th class=\"l\">network batches</th><th class=\"l\">frames</th>"
         "<th class=\"l\">MB</th><th class=\"l\">lost frames</th><th class=\"l\">gaps</th><th class=\"l\">violations</th>"
         "<th class=\"l\">snapshots</th><th class=\"l\">motion reports</th></tr>\n";
    addf(h, "<tr%s><td>%llu</td><td>%llu</td><td>%llu</td><td>%.1f</td><td>%llu</td><td>%llu</td><td>%llu</td>"
            "<td>%zu</td><td>%llu</td></tr></table>\n",
         lost + gaps + s_.all_violations() ? " class=\"bad\"" : "", static_cast<unsigned long long>(s_.record_buffers),
         static_cast<unsigned long long>(s_.network_batches), static_cast<unsigned long long>(frames),
         static_cast<double>(bytes) / 1e6, static_cast<unsigned long long>(lost), static_cast<unsigned long long>(gaps),
         static_cast<unsigned long long>(s_.all_violations()), s_.snapshots.size(),
         static_cast<unsigned long long>(s_.motion_reports));
    if (!s_.problems.empty()) {
        addf(h, "<h3>The recorder's findings (%llu)</h3><ul>\n", static_cast<unsigned long long>(s_.violations));
        for (const std::string& x : s_.problems)
            h += "<li>" + html_escape(x) + "</li>\n";
        h += "</ul>\n";
    }
    if (has("summary.json"))
        h += "<p>Everything above as data: <a href=\"summary.json\">summary.json</a>";
    if (has(s_.motion_log))
        h += "; every motion report: <a href=\"" + html_escape(s_.motion_log) + "\">" + html_escape(s_.motion_log) + "</a>";
    h += ".</p>\n";
    if (has("layout.png"))
        h += "<h2>Screen layout</h2>\n<figure><a href=\"layout.png\"><img src=\"layout.png\" alt=\"screen layout\" "
             "style=\"max-width: 960px\"></a><figcaption>the slave's part of the master's screen, drawn from the board's "
             "video output state</figcaption></figure>\n";
}

void report_writer::streams_table(std::string& h, const slave_plan& p) const
{
    h += "<table><tr><th class=\"l\">camera</th><th class=\"l\">stream</th><th>size</th><th>fps set</th><th>frames</th>"
         "<th>key</th><th>s</th><th>frames/s</th><th>kbit/s</th><th>SEI seq</th><th>lost</th><th>gaps</th>"
         "<th>gaps without key</th><th>repeated</th><th>reordered</th><th>foreign</th><th>violations</th>"
         "<th class=\"l\">files</th></tr>\n";
    for (const stream_summary& x : s_.streams) {
        if (x.key.chip != p.chip)
            continue;
        const bool bad = x.lost + x.gaps + x.repeated + x.reordered + x.foreign + x.violations > 0 || x.frames == 0;
        addf(h, "<tr%s><td class=\"l\">%d</td><td class=\"l\">%s</td><td>%ux%u</td><td>%u</td><td>%llu</td><td>%llu</td>"
                "<td>%.1f</td><td>%.2f</td><td>%.0f</td><td>%u..%u</td><td>%llu</td><td>%llu</td><td>%llu</td><td>%llu</td>"
                "<td>%llu</td><td>%llu</td><td>%llu</td><td class=\"l\">",
             bad ? " class=\"bad\"" : "", x.key.camera, stream_title(x.key.type), x.want.width, x.want.height, x.want.fps,
             static_cast<unsigned long long>(x.frames), static_cast<unsigned long long>(x.key_frames), x.seconds,
             x.frame_rate, x.kbps, x.first_seq, x.last_seq, static_cast<unsigned long long>(x.lost),
             static_cast<unsigned long long>(x.gaps), static_cast<unsigned long long>(x.gaps_off_key),
             static_cast<unsigned long long>(x.repeated), static_cast<unsigned long long>(x.reordered),
             static_cast<unsigned long long>(x.foreign), static_cast<unsigned long long>(x.violations));
        if (has(x.mp4))
            h += "<a href=\"" + html_escape(x.mp4) + "\">mp4</a> ";
        if (has(x.file))
            h += "<a href=\"" + html_escape(x.file) + "\">h264</a>";
        h += "</td></tr>\n";
    }
    h += "</table>\n";
    for (const stream_summary& x : s_.streams) {
        if (x.key.chip != p.chip || x.problems.empty())
            continue;
        addf(h, "<details open><summary>camera %d %s: %llu violation(s)</summary><ul>\n", x.key.camera,
             stream_title(x.key.type), static_cast<unsigned long long>(x.violations));
        for (const std::string& t : x.problems)
            h += "<li>" + html_escape(t) + "</li>\n";
        h += "</ul></details>\n";
    }
}

void report_writer::camera_card(std::string& h, const slave_plan& p, int cam, const std::string& rate_png) const
{
    const snapshot_record* latest = nullptr;
    size_t snapshots = 0;
    for (const snapshot_record& r : s_.snapshots) {
        if (r.chip != p.chip || r.camera != cam)
            continue;
        ++snapshots;
        if (has(r.file))
            latest = &r;
    }
    addf(h, "<div class=\"card\" id=\"chip%d-cam%02d\"><h3>camera %d</h3>\n", p.chip, cam, cam);
    for (const mask_plan& k : s_.masks) {
        if (k.camera == cam)
            addf(h, "<p>privacy mask at %.3g, %.3g, size %.3g x %.3g of the picture</p>\n", k.x, k.y, k.w, k.h);
    }
    h += "<div class=\"pics\">";
    if (latest != nullptr) {
        const std::string f = html_escape(latest->file);
        addf(h, "<figure><a href=\"%s\"><img class=\"thumb\" src=\"%s\" alt=\"latest snapshot\"></a>"
                "<figcaption>latest of %zu snapshot(s), slave time %s</figcaption></figure>",
             f.c_str(), f.c_str(), snapshots, utc_text(latest->time).c_str());
    } else {
        addf(h, "<p>no snapshot (%zu received)</p>", snapshots);
    }
    char rel[64];
    std::snprintf(rel, sizeof(rel), "slave%d/cam%02d-motion.png", p.chip, cam);
    if (has(rel))
        addf(h, "<figure><a href=\"%s\"><img class=\"heat\" src=\"%s\" alt=\"motion heat map\"></a>"
                "<figcaption>motion: share of reports in which each cell moved</figcaption></figure>",
             rel, rel);
    h += "</div>\n";
    std::snprintf(rel, sizeof(rel), "slave%d/cam%02d-overlay.png", p.chip, cam);
    if (has(rel))
        addf(h, "<figure><a href=\"%s\"><img class=\"overlay\" src=\"%s\" alt=\"time overlay\"></a>"
                "<figcaption>time overlay bitmap read back from the board</figcaption></figure>\n",
             rel, rel);
    if (!rate_png.empty() && has(rate_png))
        addf(h, "<figure><img src=\"%s\" alt=\"bit rate and frame rate\"></figure>\n", rate_png.c_str());
    h += "</div>\n";
}

void report_writer::status_block(std::string& h, const slave_plan& p, const std::string& png) const
{
    const status_sample* last = nullptr;
    size_t polls = 0, failed = 0;
    for (const status_sample& x : s_.status) {
        if (x.chip != p.chip)
            continue;
        ++polls;
        if (x.ok)
            last = &x;
        else
            ++failed;
    }
    addf(h, "<h3>Status polls</h3>\n<p>%zu poll(s), %zu unanswered.</p>\n", polls, failed);
    if (last != nullptr) {
        const status_t& st = last->st;
        addf(h, "<table><tr><th class=\"l\">last poll</th><th>heartbit</th><th>clock</th><th>media time s</th>"
                "<th>decoder beat</th><th>snapshot beat</th><th class=\"l\">frame rates</th></tr>\n"
                "<tr><td class=\"l\">%s</td><td>%u</td><td>%s</td><td>%.3f</td><td>%u</td><td>%u</td><td class=\"l\">",
             utc_text(last->at).c_str(), st.heartbit, utc_text(st.clock).c_str(),
             static_cast<double>(st.media_pts) / 1e6, st.heart_vdec, st.heart_jpeg);
        for (uint32_t f : st.fps)
            addf(h, "%u ", f);
        h += "</td></tr></table>\n";
    }
    if (!png.empty() && has(png))
        addf(h, "<figure><img src=\"%s\" alt=\"status polls\"></figure>\n", png.c_str());
}

void report_writer::slave_section(std::string& h, const slave_plan& p,
                                  const std::map<std::pair<int, int>, std::string>& rates,
                                  const std::map<int, std::string>& status) const
{
    addf(h, "<h2 id=\"chip%d\">Slave on chip %d: cameras %d .. %d</h2>\n", p.chip, p.chip, p.cam_base,
         p.cam_base + p.cameras - 1);
    auto st = status.find(p.chip);
    status_block(h, p, st == status.end() ? "" : st->second);
    h += "<h3>Streams</h3>\n";
    streams_table(h, p);
    h += "<h3>Cameras</h3>\n<div class=\"cards\">\n";
    for (int c = 0; c < p.cameras; ++c) {
        const int cam = p.cam_base + c;
        auto r = rates.find({p.chip, cam});
        camera_card(h, p, cam, r == rates.end() ? "" : r->second);
    }
    h += "</div>\n";
}

report_result report_writer::write()
{
    report_result res;
    res.page = out_ + "/report.html";
    std::error_code ec;
    fs::create_directories(dir_ + "/data", ec);
    if (ec) {
        res.rc = -1;
        res.notes.push_back(dir_ + ": " + ec.message());
        return res;
    }
    std::map<std::pair<int, int>, std::string> rates;
    std::map<int, std::string> status;
    for (const slave_plan& p : s_.slaves) {
        status[p.chip] = write_status_plot(p);
        for (int c = 0; c < p.cameras; ++c)
            rates[{p.chip, p.cam_base + c}] = write_rate_plot(p, p.cam_base + c);
    }
    run_gnuplot();

    std::string h;
    head(h);
    for (const slave_plan& p : s_.slaves)
        slave_section(h, p, rates, status);
    if (!notes_.empty()) {
        h += "<h2>Not in this report</h2><ul>\n";
        for (const std::string& n : notes_)
            h += "<li>" + html_escape(n) + "</li>\n";
        h += "</ul>\n";
    }
    h += k_image_check;
    h += "</body></html>\n";

    std::ofstream f(res.page);
    f << h;
    if (!f) {
        res.rc = -1;
        notes_.push_back(res.page + ": not written");
    }
    res.notes = notes_;
    return res;
}

}  // namespace

std::string html_escape(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&#39;"; break;
        default: out += c;
        }
    }
    return out;
}

report_result write_report(const record_summary& s)
{
    if (s.out.empty())
        return {-1, "", {"no output folder"}};
    return report_writer(s).write();
}

}  // namespace tmaster
