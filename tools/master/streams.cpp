#include "master/streams.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <fstream>
#include <ctime>
#include <set>

#include "master/board.h"
#include "master/master.h"

namespace tmaster {

namespace {

// A frame's time may lie this far from the master's clock: the slave itself
// refuses frames more than 60 s from its own.
constexpr double CLOCK_SLACK_S = 90;
constexpr int MAIN_SLOT_GAP_S = 1;
constexpr int LOW_SLOT_GAP_S = 4;

std::string format(const char* fmt, va_list ap)
{
    char line[320];
    std::vsnprintf(line, sizeof(line), fmt, ap);
    return line;
}

std::string formatf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string formatf(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string s = format(fmt, ap);
    va_end(ap);
    return s;
}

// The master's wall clock in microseconds since the epoch.
int64_t wall_us()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The MP4 twin of a stream's .h264 file.
std::string mp4_name(const std::string& h264)
{
    return h264.substr(0, h264.size() - std::strlen(".h264")) + ".mp4";
}

struct local_day {
    uint32_t sec_of_day;
    int mday;
};

local_day local_of(time_t t)
{
    tm b{};
    localtime_r(&t, &b);
    return {static_cast<uint32_t>(b.tm_hour * 3600 + b.tm_min * 60 + b.tm_sec), b.tm_mday};
}

std::string json_string(const std::string& s)
{
    std::string out = "\"";
    for (char c : s) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char esc[8];
                std::snprintf(esc, sizeof(esc), "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
                out += esc;
            } else {
                out += c;
            }
        }
    }
    return out + "\"";
}

std::string json_number(double v)
{
    if (!std::isfinite(v))
        return "0";
    char t[40];
    std::snprintf(t, sizeof(t), "%.3f", v);
    return t;
}

}  // namespace

const char* stream_type_name(stream_type t)
{
    switch (t) {
    case stream_type::rec: return "rec";
    case stream_type::reclow: return "reclow";
    case stream_type::netlow: return "netlow";
    case stream_type::copy: return "copy";
    case stream_type::net: return "net";
    }
    return "?";
}

// ---- files and problem lists -------------------------------------------------------

int h264_file::open(const std::string& path, std::string* err)
{
    f_.reset(std::fopen(path.c_str(), "wb"));
    if (!f_) {
        *err = path + ": " + std::strerror(errno);
        return -1;
    }
    return 0;
}

int h264_file::append(std::span<const uint8_t> au)
{
    if (!f_)
        return -1;
    return std::fwrite(au.data(), 1, au.size(), f_.get()) == au.size() ? 0 : -1;
}

void h264_file::close()
{
    f_.reset();
}

void problem_list::add(const char* fmt, ...)
{
    ++count;
    if (kept.size() >= PROBLEMS_KEPT)
        return;
    va_list ap;
    va_start(ap, fmt);
    kept.push_back(format(fmt, ap));
    va_end(ap);
}

// ---- one stream --------------------------------------------------------------------

bool stream_check::take(std::span<const uint8_t> au, bool key_flag, double arrival_s)
{
    int first = first_nal_type(au);
    bool key = first == NAL_SPS;
    if (key != key_flag)
        problems_.add("frame after seq %u: key flag %d, but its first NAL unit is of type %d", last_seq,
                      key_flag ? 1 : 0, first);
    std::optional<frame_sei> sei = find_frame_sei(au);
    if (sei && sei->camera != static_cast<uint32_t>(key_.camera)) {
        ++foreign;
        problems_.add("a frame of camera %u (channel %u, seq %u) in the stream of camera %d", sei->camera,
                      sei->chn, sei->seq, key_.camera);
        return false;
    }
    if (!started) {
        if (!key) {
            ++before_key;
            return false;
        }
        started = true;
        first_arrival = arrival_s;
    } else if (sei && have_seq_) {
        uint32_t expected = last_seq + 1;
        if (sei->seq == expected) {
            // in order
        } else if (sei->seq > expected) {
            lost += sei->seq - expected;
            ++gaps;
            problems_.add("lost %u frame(s): seq %u..%u", sei->seq - expected, expected, sei->seq - 1);
            // The master cannot decode a frame whose references it lacks:
            // after a gap a stream must go on at a key frame.
            if (!key) {
                ++gaps_off_key;
                problems_.add("seq %u goes on after the gap without a key frame", sei->seq);
            }
        } else if (sei->seq == last_seq) {
            ++repeated;
            problems_.add("seq %u repeated", sei->seq);
            return false;
        } else {
            ++reordered;
            problems_.add("seq %u after seq %u", sei->seq, last_seq);
            return false;
        }
        last_seq = sei->seq;
        last_pts = sei->pts;
    }
    if (sei && !have_seq_) {
        // The sequence is counted from the first frame that carries one.
        have_seq_ = true;
        first_seq = last_seq = sei->seq;
        first_pts = last_pts = sei->pts;
    }
    if (!sei) {
        ++no_sei;
        problems_.add("a frame without the frame SEI after seq %u", last_seq);
    } else if (sei->chn != chn_) {
        problems_.add("seq %u names encoder channel %u; the stream's is %u", sei->seq, sei->chn, chn_);
    }
    last_sei = sei.has_value();
    ++frames;
    key_frames += key ? 1 : 0;
    bytes += au.size();
    last_arrival = arrival_s;
    return true;
}

void stream_check::position(uint32_t day, uint64_t pos, const char* what)
{
    if (have_pos_ && day == pos_day_ && pos <= pos_)
        problems_.add("seq %u: %s %llu, not above the previous frame's %llu", last_seq, what,
                      static_cast<unsigned long long>(pos), static_cast<unsigned long long>(pos_));
    have_pos_ = true;
    pos_day_ = day;
    pos_ = pos;
}

void stream_check::settings(uint16_t width, uint16_t height, uint8_t fps, int quality, int attr)
{
    if (width != want_.width || height != want_.height || fps != want_.fps)
        problems_.add("seq %u: %ux%u at %u fps; configured %ux%u at %u fps", last_seq, width, height, fps,
                      want_.width, want_.height, want_.fps);
    if (quality >= 0 && quality != want_.quality)
        problems_.add("seq %u: quality %d; configured %u", last_seq, quality, want_.quality);
    if (attr >= 0 && attr != want_.attr)
        problems_.add("seq %u: attribute %d; configured %u", last_seq, attr, want_.attr);
}

// ---- index and descriptor checks ------------------------------------------------------

void check_entry_time(const record_frame& f, int sys_fps, double now_s, std::vector<std::string>& out)
{
    const mmd_t& e = f.entry;
    if (sys_fps > 0 && e.frame_idx >= sys_fps)
        out.push_back(formatf("frame index %u; the frame rate is %d", e.frame_idx, sys_fps));
    if (std::fabs(static_cast<double>(f.time) - now_s) > CLOCK_SLACK_S)
        out.push_back(formatf("mmd_time %u lies %.0f s from the master's clock", f.time,
                              static_cast<double>(f.time) - now_s));
    // The second of the day and the day are those of the frame's slot,
    // which may round up into the second after mmd_time.
    local_day a = local_of(static_cast<time_t>(f.time));
    local_day b = local_of(static_cast<time_t>(f.time) + 1);
    bool same = (e.sec_of_day == a.sec_of_day && f.mday == a.mday) ||
                (e.sec_of_day == b.sec_of_day && f.mday == b.mday);
    if (!same)
        out.push_back(formatf("sec_of_day %u day %u do not match mmd_time %u (%u, day %d)", e.sec_of_day,
                              f.mday, f.time, a.sec_of_day, a.mday));
}

std::vector<std::string> check_record_buffer(const record_batch& b)
{
    std::vector<std::string> out;
    if (b.num_mmd > EBUF_MAX_FRAMES)
        out.push_back(formatf("a record buffer of %d frames; at most %d", b.num_mmd, EBUF_MAX_FRAMES));
    if (b.frames.empty())
        return out;
    const record_frame& f0 = b.frames.front();
    int gap = f0.entry.low ? LOW_SLOT_GAP_S : MAIN_SLOT_GAP_S;
    bool minute = false, span = false, mixed = false;
    for (const record_frame& f : b.frames) {
        if (!minute && f.time / 60 != f0.time / 60) {
            minute = true;
            out.push_back(formatf("a record buffer across a minute: mmd_time %u and %u", f0.time, f.time));
        }
        uint32_t d = f.time > f0.time ? f.time - f0.time : f0.time - f.time;
        if (!span && d > static_cast<uint32_t>(gap)) {
            span = true;
            out.push_back(formatf("a record buffer spanning %u s (mmd_time %u to %u); at most %d", d, f0.time,
                                  f.time, gap));
        }
        if (!mixed && f.entry.low != f0.entry.low) {
            mixed = true;
            out.push_back("a record buffer holding main and low frames");
        }
    }
    return out;
}

double desc_time_s(const nbuf_desc_t& d)
{
    if (d.mon < 1 || d.mon > 12 || d.mday < 1 || d.mday > 31 || d.msec >= 86400000u)
        return -1;
    tm b{};
    b.tm_year = d.year - 1900;
    b.tm_mon = d.mon - 1;
    b.tm_mday = d.mday;
    b.tm_isdst = -1;
    time_t t = mktime(&b);
    if (t == static_cast<time_t>(-1))
        return -1;
    return static_cast<double>(t) + d.msec / 1000.0;
}

int64_t record_time_us(const record_frame& f, int sys_fps)
{
    const int64_t period = sys_fps > 0 ? 1000000 / sys_fps : 0;
    return static_cast<int64_t>(f.time) * 1000000 + f.entry.frame_idx * period;
}

void check_desc_time(const nbuf_desc_t& d, double now_s, std::vector<std::string>& out)
{
    const double t = desc_time_s(d);
    if (t < 0) {
        out.push_back(formatf("date %u-%u-%u msec %u", d.year, d.mon, d.mday, d.msec));
        return;
    }
    if (std::fabs(std::floor(t) - now_s) > CLOCK_SLACK_S)
        out.push_back(formatf("time %04u-%02u-%02u +%u ms lies %.0f s from the master's clock", d.year, d.mon,
                              d.mday, d.msec, std::floor(t) - now_s));
}

// ---- the recorder ------------------------------------------------------------------------

camera_plan record_plan::camera(int cam) const
{
    for (const camera_plan& c : cameras) {
        if (c.camera == cam)
            return c;
    }
    camera_plan c;
    c.camera = cam;
    return c;
}

bool record_plan::has_input(int cam) const
{
    const camera_plan c = camera(cam);
    return c.xres > 0 && c.yres > 0;
}

size_t record_summary::snapshots_of(int chip, int camera, double from, double to) const
{
    size_t n = 0;
    for (const snapshot_record& r : snapshots)
        n += r.chip == chip && r.camera == camera && r.arrival >= from && r.arrival <= to;
    return n;
}

recorder::recorder(record_plan plan) : plan_(std::move(plan))
{
    for (const slave_plan& p : plan_.slaves) {
        for (int c = 0; c < p.cameras; ++c) {
            // A camera without input sends nothing; one without REC sends
            // neither REC nor its copy.
            const camera_plan cam = plan_.camera(p.cam_base + c);
            if (!plan_.has_input(cam.camera))
                continue;
            if (cam.rec)
                snapshots_begun_[{p.chip, cam.camera}] = false;
            for (stream_type t : {stream_type::rec, stream_type::reclow, stream_type::netlow, stream_type::copy}) {
                if (t == stream_type::copy && !plan_.copy)
                    continue;
                if ((t == stream_type::rec || t == stream_type::copy) && !cam.rec)
                    continue;
                stream_key k{p.chip, p.cam_base + c, t};
                auto [it, _] = streams_.try_emplace(
                    k, stream_state{stream_check(k, setting_of(t), chn_of(p, k.camera, t)), {}, {}, true, {}, {}});
                char name[64];
                std::snprintf(name, sizeof(name), "slave%d/cam%02d-%s.h264", p.chip, k.camera, stream_type_name(t));
                it->second.rel = name;
            }
        }
    }
}

stream_setting recorder::setting_of(stream_type t) const
{
    switch (t) {
    case stream_type::rec:
    case stream_type::copy:
    case stream_type::net: return plan_.rec;
    case stream_type::reclow: return plan_.rec_low;
    case stream_type::netlow: return plan_.net_low;
    }
    return {};
}

uint32_t recorder::chn_of(const slave_plan& p, int camera, stream_type t) const
{
    uint32_t c = static_cast<uint32_t>(camera - p.cam_base);
    uint32_t n = static_cast<uint32_t>(p.cameras);
    switch (t) {
    case stream_type::reclow: return c + 2 * n;
    case stream_type::netlow: return c + 3 * n;
    default: return c;  // REC, and its copies
    }
}

const slave_plan* recorder::slave_of(int chip) const
{
    for (const slave_plan& p : plan_.slaves) {
        if (p.chip == chip)
            return &p;
    }
    return nullptr;
}

int recorder::open(std::string* err)
{
    if (plan_.out.empty())
        return 0;
    if (make_dirs(plan_.out) != 0) {
        *err = plan_.out + ": " + std::strerror(errno);
        return -1;
    }
    std::lock_guard lk(mu_);
    for (const slave_plan& p : plan_.slaves) {
        std::string dir = plan_.out + "/slave" + std::to_string(p.chip) + "/snap";
        if (make_dirs(dir) != 0) {
            *err = dir + ": " + std::strerror(errno);
            return -1;
        }
    }
    for (auto& [k, s] : streams_) {
        if (s.file.open(plan_.out + "/" + s.rel, err) != 0)
            return -1;
        const stream_setting& w = s.check.want_;
        s.mp4.open(plan_.out + "/" + mp4_name(s.rel), w.width, w.height, w.fps);
    }
    return 0;
}

void recorder::finish()
{
    std::lock_guard lk(mu_);
    for (auto& [k, s] : streams_) {
        s.file.close();
        if (s.mp4.close() != 0)
            problems_.add("%s", s.mp4.error().c_str());
    }
}

recorder::stream_state* recorder::stream_locked(const stream_key& k)
{
    auto it = streams_.find(k);
    if (it != streams_.end())
        return &it->second;
    const slave_plan* p = slave_of(k.chip);
    if (p == nullptr)
        return nullptr;
    auto [n, _] = streams_.try_emplace(
        k, stream_state{stream_check(k, setting_of(k.type), chn_of(*p, k.camera, k.type)), {}, {}, false, {}, {}});
    n->second.check.problems().add("a %s stream of camera %d, which was not switched on", stream_type_name(k.type),
                                   k.camera);
    return &n->second;
}

void recorder::keep_locked(stream_state& s, std::span<const uint8_t> au, int64_t time_us, bool key)
{
    rate_point& r = s.rate[time_us / 1000000];
    r.second = time_us / 1000000;
    ++r.frames;
    r.bytes += au.size();
    if (!s.file.is_open())
        return;
    if (s.file.append(au) != 0 && !write_failed_) {
        write_failed_ = true;
        problems_.add("%s: write failed: %s", s.rel.c_str(), std::strerror(errno));
    }
    // An MP4 that failed once says so at the end and takes nothing more.
    if (!s.mp4.path().empty())
        s.mp4.append(au, time_us, key);
}

void recorder::take(const notification& n, std::span<const uint8_t> written)
{
    double now = static_cast<double>(std::time(nullptr));
    if (const auto* r = std::get_if<record_batch>(&n.parsed))
        take_record(n.chip, *r, written, now);
    else if (const auto* b = std::get_if<network_batch>(&n.parsed))
        take_network(n.chip, *b, written, now);
    else if (const auto* j = std::get_if<jpeg_batch>(&n.parsed))
        take_jpeg(n.chip, *j, written,
                  std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count());
}

void recorder::take_jpeg(int chip, const jpeg_batch& b, std::span<const uint8_t> written, double arrival)
{
    if (b.check.rejected)
        return;
    std::lock_guard lk(mu_);
    snapshot_transfer t{chip, arrival, b.count, b.bytes, {}};
    for (const jpeg_picture& p : b.pictures)
        t.cameras.push_back(static_cast<int>(p.stream));
    snapshot_transfers_.push_back(std::move(t));
    const std::string dir = plan_.out + "/slave" + std::to_string(chip) + "/snap/";
    for (const jpeg_picture& p : b.pictures) {
        if (static_cast<uint64_t>(p.desc.data) + p.desc.len > written.size())
            continue;
        if (auto it = snapshots_begun_.find({chip, static_cast<int>(p.stream)}); it != snapshots_begun_.end())
            it->second = true;
        snapshot_record& r = snapshots_.emplace_back();
        r = {chip, static_cast<int>(p.stream), p.desc.jpg_on, p.desc.time, p.desc.len, arrival, {}};
        if (plan_.out.empty())
            continue;
        char name[64];
        std::snprintf(name, sizeof(name), "cam%02u-%u.jpg", p.stream, p.desc.time);
        std::string path = dir + name;
        // A second picture of a camera within one second keeps the first.
        for (int k = 1; std::ifstream(path).good(); ++k) {
            std::snprintf(name, sizeof(name), "cam%02u-%u-%d.jpg", p.stream, p.desc.time, k);
            path = dir + name;
        }
        r.file = path.substr(plan_.out.size() + 1);
        std::ofstream f(path, std::ios::binary);
        f.write(reinterpret_cast<const char*>(written.data() + p.desc.data), p.desc.len);
        if (!f && !write_failed_) {
            write_failed_ = true;
            problems_.add("%s: write failed", path.c_str());
        }
        ++snapshots_kept_;
    }
}

void recorder::take_record(int chip, const record_batch& b, std::span<const uint8_t> written, double now_s)
{
    std::lock_guard lk(mu_);
    ++record_buffers_;
    for (const std::string& p : b.check.problems)
        problems_.add("chip %d: record buffer%s: %s", chip, b.check.rejected ? " rejected" : "", p.c_str());
    if (b.check.rejected)
        return;
    const slave_plan* p = slave_of(chip);
    if (p == nullptr) {
        problems_.add("chip %d: a record buffer from a slave that is not recording", chip);
        return;
    }
    std::vector<std::string> whole = check_record_buffer(b);
    std::set<stream_state*> in_buffer;
    std::vector<std::string> entry;
    for (size_t k = 0; k < b.frames.size(); ++k) {
        const record_frame& f = b.frames[k];
        const mmd_t& e = f.entry;
        if (e.cam < p->cam_base || e.cam >= p->cam_base + p->cameras) {
            problems_.add("chip %d: record entry %zu names camera %u, not one of this slave's", chip, k, e.cam);
            continue;
        }
        stream_state* s = stream_locked({chip, e.cam, e.low ? stream_type::reclow : stream_type::rec});
        in_buffer.insert(s);
        entry.clear();
        check_entry_time(f, plan_.sys_fps, now_s, entry);
        for (const std::string& t : entry)
            s->check.problems().add("entry %zu: %s", k, t.c_str());
        s->check.settings(e.width, e.height, e.fps, e.quality, f.attr);
        std::span<const uint8_t> au = written.subspan(f.offset, e.len);
        if (!s->check.take(au, e.key != 0, now_s))
            continue;
        s->check.position(f.mday, static_cast<uint64_t>(plan_.sys_fps) * e.sec_of_day + e.frame_idx, "slot index");
        keep_locked(*s, au, record_time_us(f, plan_.sys_fps), e.key != 0);
    }
    for (stream_state* s : in_buffer) {
        for (const std::string& t : whole)
            s->check.problems().add("%s", t.c_str());
    }
}

void recorder::take_network(int chip, const network_batch& b, std::span<const uint8_t> written, double now_s)
{
    std::lock_guard lk(mu_);
    ++network_batches_;
    for (const std::string& p : b.check.problems)
        problems_.add("chip %d: network batch%s: %s", chip, b.check.rejected ? " rejected" : "", p.c_str());
    if (b.check.rejected)
        return;
    const slave_plan* p = slave_of(chip);
    if (p == nullptr) {
        problems_.add("chip %d: a network batch from a slave that is not recording", chip);
        return;
    }
    std::vector<std::string> found;
    for (const network_frame& f : b.frames) {
        const nbuf_desc_t& d = f.desc;
        // The stream number's low 8 bits: camera + 0, + num_vin, + 2 num_vin.
        int rel = f.stream - p->cam_base;
        stream_type t;
        if (rel >= 0 && rel < p->cameras) {
            t = stream_type::net;
        } else if (rel - p->num_vin >= 0 && rel - p->num_vin < p->cameras) {
            t = stream_type::netlow;
            rel -= p->num_vin;
        } else if (rel - 2 * p->num_vin >= 0 && rel - 2 * p->num_vin < p->cameras) {
            t = stream_type::copy;
            rel -= 2 * p->num_vin;
        } else {
            problems_.add("chip %d: stream number %d names no stream of this slave", chip, f.stream);
            continue;
        }
        stream_state* s = stream_locked({chip, p->cam_base + rel, t});
        found.clear();
        check_desc_time(d, now_s, found);
        for (const std::string& x : found)
            s->check.problems().add("%s", x.c_str());
        s->check.settings(d.width, d.height, d.fps, -1, -1);
        std::span<const uint8_t> au = written.subspan(f.offset, d.len);
        if (!s->check.take(au, d.key != 0, now_s))
            continue;
        s->check.position(static_cast<uint32_t>(d.year) * 10000u + d.mon * 100u + d.mday, d.msec, "msec");
        const double at = desc_time_s(d);
        keep_locked(*s, au, static_cast<int64_t>(std::llround((at < 0 ? now_s : at) * 1e6)), d.key != 0);
        if (latency_from_ >= 0 && s->check.last_sei) {
            // The board stamps pictures on the master's clock, set by the update.
            const int64_t written_us = wall_us();
            const int64_t lat = written_us - static_cast<int64_t>(s->check.last_pts);
            if (static_cast<double>(written_us) >= latency_from_ * 1e6 && lat >= 0 && lat < INT32_MAX)
                net_latency_us_.push_back(static_cast<uint32_t>(lat));
        }
    }
}

void recorder::time_network_from(double wall_s)
{
    std::lock_guard lk(mu_);
    latency_from_ = wall_s;
}

recorder::progress_t recorder::progress() const
{
    std::lock_guard lk(mu_);
    progress_t p;
    p.violations = problems_.count;
    for (const auto& [k, s] : streams_) {
        if (s.configured) {
            ++p.expected;
            p.started += s.check.started ? 1 : 0;
        }
        p.frames += s.check.frames;
        p.bytes += s.check.bytes;
        p.violations += s.check.problems().count;
    }
    for (const auto& [k, begun] : snapshots_begun_) {
        ++p.expected;
        p.started += begun ? 1 : 0;
    }
    return p;
}

std::vector<std::pair<int, int>> recorder::snapshots_missing() const
{
    std::lock_guard lk(mu_);
    std::vector<std::pair<int, int>> out;
    for (const auto& [k, begun] : snapshots_begun_) {
        if (!begun)
            out.push_back(k);
    }
    return out;
}

record_summary recorder::summary() const
{
    std::lock_guard lk(mu_);
    record_summary r;
    if (!net_latency_us_.empty()) {
        // Nearest rank: the smallest latency that q of the frames do not exceed.
        std::vector<uint32_t> l = net_latency_us_;
        auto at = [&l](double q) {
            const size_t k = static_cast<size_t>(std::ceil(q * static_cast<double>(l.size()))) - 1;
            std::nth_element(l.begin(), l.begin() + static_cast<std::ptrdiff_t>(k), l.end());
            return static_cast<double>(l[k]) / 1000.0;
        };
        r.net_latency_frames = l.size();
        r.net_latency_p50_ms = at(0.5);
        r.net_latency_p99_ms = at(0.99);
    }
    r.out = plan_.out;
    r.record_buffers = record_buffers_;
    r.network_batches = network_batches_;
    r.snapshots = snapshots_;
    r.snapshot_transfers = snapshot_transfers_;
    r.violations = problems_.count;
    r.problems = problems_.kept;
    if (problems_.count > problems_.kept.size())
        r.problems.push_back(formatf("... and %llu more",
                                     static_cast<unsigned long long>(problems_.count - problems_.kept.size())));
    for (const auto& [k, s] : streams_) {
        const stream_check& c = s.check;
        stream_summary x;
        x.key = k;
        x.file = s.configured && !plan_.out.empty() ? s.rel : "";
        x.mp4 = s.mp4.frames() > 0 && s.mp4.error().empty() ? mp4_name(s.rel) : "";
        x.rate.reserve(s.rate.size());
        for (const auto& [sec, p] : s.rate)
            x.rate.push_back(p);
        x.want = c.want_;
        x.frames = c.frames;
        x.key_frames = c.key_frames;
        x.bytes = c.bytes;
        // Measured from the stream's first frame: by the frames' own time
        // stamps, or by their arrival when they carry none.
        double span = c.last_pts > c.first_pts ? static_cast<double>(c.last_pts - c.first_pts) / 1e6
                                               : c.last_arrival - c.first_arrival;
        if (c.frames > 0 && c.want_.fps > 0)
            span += 1.0 / c.want_.fps;
        x.seconds = span;
        if (span > 0) {
            x.frame_rate = static_cast<double>(c.frames) / span;
            x.kbps = static_cast<double>(c.bytes) * 8 / span / 1000;
        }
        x.before_key = c.before_key;
        x.lost = c.lost;
        x.gaps = c.gaps;
        x.gaps_off_key = c.gaps_off_key;
        x.repeated = c.repeated;
        x.reordered = c.reordered;
        x.foreign = c.foreign;
        x.no_sei = c.no_sei;
        x.first_seq = c.first_seq;
        x.last_seq = c.last_seq;
        x.violations = c.problems().count;
        x.problems = c.problems().kept;
        if (c.problems().count > c.problems().kept.size())
            x.problems.push_back(formatf("... and %llu more",
                                         static_cast<unsigned long long>(c.problems().count - c.problems().kept.size())));
        r.streams.push_back(std::move(x));
    }
    return r;
}

// ---- the summary -----------------------------------------------------------------------

uint64_t record_summary::all_violations() const
{
    uint64_t n = violations;
    for (const stream_summary& s : streams)
        n += s.violations;
    return n;
}

const stream_summary* record_summary::find(int chip, int camera, stream_type t) const
{
    for (const stream_summary& s : streams) {
        if (s.key == stream_key{chip, camera, t})
            return &s;
    }
    return nullptr;
}

std::string summary_json(const record_summary& s)
{
    std::string j = "{\n";
    j += "  \"rc\": " + std::to_string(s.rc) + ",\n";
    j += "  \"error\": " + json_string(s.error) + ",\n";
    j += "  \"out\": " + json_string(s.out) + ",\n";
    j += "  \"seconds\": " + std::to_string(s.seconds) + ",\n";
    j += "  \"waited_s\": " + json_number(s.waited_s) + ",\n";
    j += "  \"record_buffers\": " + std::to_string(s.record_buffers) + ",\n";
    j += "  \"network_batches\": " + std::to_string(s.network_batches) + ",\n";
    j += "  \"snapshots\": " + std::to_string(s.snapshots.size()) + ",\n";
    j += "  \"network_latency\": {\"frames\": " + std::to_string(s.net_latency_frames) +
         ", \"p50_ms\": " + json_number(s.net_latency_p50_ms) + ", \"p99_ms\": " + json_number(s.net_latency_p99_ms) +
         "},\n";
    j += "  \"snapshot_transfers\": " + std::to_string(s.snapshot_transfers.size()) + ",\n";
    j += "  \"violations\": " + std::to_string(s.all_violations()) + ",\n";
    j += "  \"problems\": [";
    for (size_t i = 0; i < s.problems.size(); ++i)
        j += (i ? ", " : "") + json_string(s.problems[i]);
    j += "],\n  \"motion_reports\": " + std::to_string(s.motion_reports) + ",\n";
    j += "  \"motion_log\": " + json_string(s.motion_log) + ",\n";
    j += "  \"report\": " + json_string(s.report) + ",\n";
    j += "  \"motion_maps\": [";
    for (size_t i = 0; i < s.motion_maps.size(); ++i)
        j += (i ? ", " : "") + json_string(s.motion_maps[i]);
    j += "],\n  \"streams\": [";
    for (size_t i = 0; i < s.streams.size(); ++i) {
        const stream_summary& x = s.streams[i];
        j += i ? ",\n    {" : "\n    {";
        j += "\"chip\": " + std::to_string(x.key.chip);
        j += ", \"camera\": " + std::to_string(x.key.camera);
        j += ", \"stream\": " + json_string(stream_type_name(x.key.type));
        j += ", \"file\": " + json_string(x.file);
        j += ", \"mp4\": " + json_string(x.mp4);
        j += ", \"width\": " + std::to_string(x.want.width);
        j += ", \"height\": " + std::to_string(x.want.height);
        j += ", \"fps\": " + std::to_string(x.want.fps);
        j += ", \"frames\": " + std::to_string(x.frames);
        j += ", \"key_frames\": " + std::to_string(x.key_frames);
        j += ", \"bytes\": " + std::to_string(x.bytes);
        j += ", \"seconds\": " + json_number(x.seconds);
        j += ", \"frame_rate\": " + json_number(x.frame_rate);
        j += ", \"kbps\": " + json_number(x.kbps);
        j += ", \"first_seq\": " + std::to_string(x.first_seq);
        j += ", \"last_seq\": " + std::to_string(x.last_seq);
        j += ", \"before_key\": " + std::to_string(x.before_key);
        j += ", \"lost\": " + std::to_string(x.lost);
        j += ", \"gaps\": " + std::to_string(x.gaps);
        j += ", \"gaps_off_key\": " + std::to_string(x.gaps_off_key);
        j += ", \"repeated\": " + std::to_string(x.repeated);
        j += ", \"reordered\": " + std::to_string(x.reordered);
        j += ", \"foreign\": " + std::to_string(x.foreign);
        j += ", \"no_sei\": " + std::to_string(x.no_sei);
        j += ", \"violations\": " + std::to_string(x.violations);
        j += ", \"problems\": [";
        for (size_t k = 0; k < x.problems.size(); ++k)
            j += (k ? ", " : "") + json_string(x.problems[k]);
        j += "]}";
    }
    j += s.streams.empty() ? "]\n}\n" : "\n  ]\n}\n";
    return j;
}

void print_record_summary(FILE* out, const record_summary& s)
{
    std::fprintf(out, "%-5s %-4s %-7s %-10s %4s %8s %6s %9s %7s %7s %5s %5s %5s %5s %5s\n", "chip", "cam", "stream",
                 "size", "fps", "frames", "key", "kbit/s", "fps got", "seconds", "lost", "rep", "reord", "forgn",
                 "viol");
    for (const stream_summary& x : s.streams) {
        char size[24];
        std::snprintf(size, sizeof(size), "%ux%u", x.want.width, x.want.height);
        std::fprintf(out, "%-5d %-4d %-7s %-10s %4u %8llu %6llu %9.1f %7.2f %7.2f %5llu %5llu %5llu %5llu %5llu\n",
                     x.key.chip, x.key.camera, stream_type_name(x.key.type), size, x.want.fps,
                     static_cast<unsigned long long>(x.frames), static_cast<unsigned long long>(x.key_frames), x.kbps,
                     x.frame_rate, x.seconds, static_cast<unsigned long long>(x.lost),
                     static_cast<unsigned long long>(x.repeated), static_cast<unsigned long long>(x.reordered),
                     static_cast<unsigned long long>(x.foreign), static_cast<unsigned long long>(x.violations));
    }
    for (const stream_summary& x : s.streams) {
        if (x.problems.empty())
            continue;
        std::fprintf(out, "-- chip %d camera %d %s:\n", x.key.chip, x.key.camera, stream_type_name(x.key.type));
        for (const std::string& p : x.problems)
            std::fprintf(out, "     %s\n", p.c_str());
    }
    if (!s.problems.empty()) {
        std::fprintf(out, "-- the recorder:\n");
        for (const std::string& p : s.problems)
            std::fprintf(out, "     %s\n", p.c_str());
    }
    std::fprintf(out, "== %llu motion report(s)%s%s; %zu heat map(s)\n", static_cast<unsigned long long>(s.motion_reports),
                 s.motion_log.empty() ? "" : " in ", s.motion_log.c_str(), s.motion_maps.size());
    std::fprintf(out, "== %llu record buffer(s), %llu network batch(es), %llu violation(s)\n",
                 static_cast<unsigned long long>(s.record_buffers), static_cast<unsigned long long>(s.network_batches),
                 static_cast<unsigned long long>(s.all_violations()));
    if (s.net_latency_frames > 0)
        std::fprintf(out, "== network frames from encoder to file: median %.1f ms, 99th percentile %.1f ms (%llu frames)\n",
                     s.net_latency_p50_ms, s.net_latency_p99_ms, static_cast<unsigned long long>(s.net_latency_frames));
}

}  // namespace tmaster
