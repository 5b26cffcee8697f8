// `tarvo-master play`: recorded streams handed back to a slave for playback.
#include "master/play.h"

#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>
#include <utility>

#include "master/h264.h"
#include "master/internal.h"
#include "master/master.h"

namespace tmaster {

// ---- port 107 ----------------------------------------------------------------------

std::optional<reply_t> master::play_transfer(int chip, uint32_t cmd, std::span<const uint8_t> bytes, uint32_t second,
                                             milliseconds timeout)
{
    constexpr int k_window = 3;
    std::span<uint8_t> win = window(chip, k_window);
    if (bytes.size() > win.size())
        return std::nullopt;
    std::copy(bytes.begin(), bytes.end(), win.begin());

    struct {
        msg_head_t head;
        uint32_t bytes;
        uint32_t window;
        uint8_t master[12];
        uint32_t second;
    } m{};
    static_assert(sizeof(m) == MSG_HEAD_SIZE + 24);
    m.head = {0, cmd, 24, 0};
    m.bytes = static_cast<uint32_t>(bytes.size());
    m.window = k_window;
    m.second = second;
    std::unique_lock lk(mu_);
    play_replies_[chip].reset();
    if (send_locked(chip, PORT_DEC, std::span(reinterpret_cast<const uint8_t*>(&m), sizeof(m))) != 0)
        return std::nullopt;
    if (!cv_.wait_for(lk, timeout, [&] { return play_replies_[chip].has_value(); }))
        return std::nullopt;
    std::optional<reply_t> r = std::move(play_replies_[chip]);
    play_replies_[chip].reset();
    return r;
}

void master::on_play_reply(int chip, const msg_head_t& head, std::span<const uint8_t> payload)
{
    std::lock_guard lk(mu_);
    reply_t r;
    r.head = head;
    r.payload.assign(payload.begin(), payload.end());
    play_replies_[chip] = std::move(r);
    cv_.notify_all();
}

// ---- records -----------------------------------------------------------------------

std::vector<uint8_t> build_play_record(std::span<const play_frame> frames, int skip_show, uint32_t norec)
{
    size_t total = 0;
    for (const play_frame& f : frames)
        total += f.au.size();
    std::vector<uint8_t> out(PLAY_HEADER + total);
    play_record_t r{};
    const size_t n = std::min<size_t>(frames.size(), PLAY_MAX_FRAMES);
    r.num_vdec = static_cast<int32_t>(n);
    size_t off = 0;
    for (size_t i = 0; i < n; ++i) {
        const play_frame& f = frames[i];
        r.cam[i] = f.camera;
        r.len[i] = static_cast<int32_t>(f.au.size());
        r.off[i] = static_cast<int32_t>(off);
        r.width[i] = static_cast<int16_t>(f.width);
        r.height[i] = static_cast<int16_t>(f.height);
        r.show[i] = f.show ? 1 : 0;
        r.key[i] = f.key ? 1 : 0;
        r.fps[i] = f.fps;
        r.quality[i] = f.quality;
        std::memcpy(out.data() + offsetof(play_record_t, buf) + off, f.au.data(), f.au.size());
        off += f.au.size();
    }
    r.norec = norec;
    r.skip_show = skip_show;
    r.buf_off = static_cast<int32_t>(off);
    r.buf_size = static_cast<int32_t>(off);
    // The index without the first 4 bytes of buf (the data are already there).
    std::memcpy(out.data(), &r, offsetof(play_record_t, buf));
    return out;
}

std::vector<std::span<const uint8_t>> split_access_units(std::span<const uint8_t> s)
{
    std::vector<std::span<const uint8_t>> out;
    size_t begin = 0;
    bool have = false;
    int prev = -1;
    size_t i = 0;
    while (i + 3 < s.size()) {
        if (!(s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1)) {
            ++i;
            continue;
        }
        const size_t start = (i > 0 && s[i - 1] == 0) ? i - 1 : i;
        const int type = s[i + 3] & 0x1f;
        const bool opens = type == NAL_SPS || (type == NAL_SEI && prev != 8 && prev != NAL_SPS);
        if (opens) {
            if (have && start > begin)
                out.push_back(s.subspan(begin, start - begin));
            begin = start;
            have = true;
        }
        prev = type;
        i += 3;
    }
    if (have && s.size() > begin)
        out.push_back(s.subspan(begin));
    return out;
}

// ---- media.json --------------------------------------------------------------------

namespace {

std::string read_text(const std::string& path)
{
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

// The objects of a top-level list member, as text.
std::vector<std::string> list_items(const std::string& json, const std::string& member)
{
    std::vector<std::string> out;
    size_t p = json.find("\"" + member + "\": [");
    if (p == std::string::npos)
        return out;
    p = json.find('[', p);
    int depth = 0;
    size_t obj = 0;
    for (size_t i = p + 1; i < json.size(); ++i) {
        char c = json[i];
        if (c == '{') {
            if (depth++ == 0)
                obj = i;
        } else if (c == '}') {
            if (--depth == 0)
                out.push_back(json.substr(obj, i - obj + 1));
        } else if (c == ']' && depth == 0) {
            break;
        }
    }
    return out;
}

bool number(const std::string& obj, const std::string& key, uint64_t* v)
{
    size_t p = obj.find("\"" + key + "\": ");
    if (p == std::string::npos)
        return false;
    p += key.size() + 4;
    if (p >= obj.size() || obj[p] < '0' || obj[p] > '9')
        return false;
    *v = std::strtoull(obj.c_str() + p, nullptr, 10);
    return true;
}

}  // namespace

std::vector<media_vdec> read_media_vdec(const std::string& path)
{
    std::vector<media_vdec> out;
    for (const std::string& o : list_items(read_text(path), "vdec")) {
        media_vdec d;
        uint64_t v = 0;
        if (number(o, "chn", &v))
            d.chn = static_cast<int>(v);
        number(o, "pictures", &d.pictures);
        number(o, "refused", &d.refused);
        number(o, "undecoded", &d.undecoded);
        if (number(o, "width", &v))
            d.width = static_cast<uint32_t>(v);
        if (number(o, "height", &v))
            d.height = static_cast<uint32_t>(v);
        size_t last = o.find("\"last\": {");
        if (last != std::string::npos) {
            std::string l = o.substr(last + 8);
            d.have_last = number(l, "camera", &v);
            d.camera = static_cast<uint32_t>(v);
            number(l, "seq", &v);
            d.seq = static_cast<uint32_t>(v);
        }
        out.push_back(d);
    }
    return out;
}

media_venc_totals read_media_venc(const std::string& path)
{
    media_venc_totals t;
    for (const std::string& o : list_items(read_text(path), "venc")) {
        uint64_t v = 0;
        ++t.channels;
        if (number(o, "produced", &v))
            t.produced += v;
        if (number(o, "dropped", &v))
            t.dropped += v;
    }
    return t;
}

uint64_t read_media_user_frames(const std::string& path, int grp)
{
    for (const std::string& o : list_items(read_text(path), "vpss")) {
        uint64_t g = 0, u = 0;
        if (number(o, "grp", &g) && static_cast<int>(g) == grp && number(o, "user_frames", &u))
            return u;
    }
    return 0;
}

// ---- the slave's usage ----------------------------------------------------------------

namespace {

// utime + stime of one /proc stat line, in seconds; name gets the comm.
bool stat_cpu(const std::string& path, double* cpu_s, std::string* name)
{
    std::ifstream st(path);
    std::string line;
    if (!std::getline(st, line))
        return false;
    const size_t open = line.find('(');
    const size_t close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open)
        return false;
    *name = line.substr(open + 1, close - open - 1);
    std::istringstream in(line.substr(close + 1));
    std::string f[13];
    for (std::string& x : f)
        in >> x;
    if (!in)
        return false;
    const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
    *cpu_s = (std::stod(f[11]) + std::stod(f[12])) / tick;  // utime, stime
    return true;
}

}  // namespace

double proc_cpu_s(pid_t pid, bool own_only)
{
    const std::string dir = "/proc/" + std::to_string(pid);
    double sum = 0;
    std::string name;
    if (!own_only) {
        stat_cpu(dir + "/stat", &sum, &name);
        return sum;
    }
    for (const auto& [thread, t] : proc_thread_cpu_s(pid))
        if (thread.rfind("sim", 0) != 0)
            sum += t;
    return sum;
}

std::map<std::string, double> proc_thread_cpu_s(pid_t pid)
{
    std::map<std::string, double> out;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
        double t = 0;
        std::string name;
        if (stat_cpu(e.path().string() + "/stat", &t, &name))
            out[name] += t;
    }
    return out;
}

size_t proc_status_kb(pid_t pid, const std::string& field)
{
    std::ifstream st("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(st, line);)
        if (line.rfind(field, 0) == 0)
            return static_cast<size_t>(std::strtoull(line.c_str() + field.size(), nullptr, 10));
    return 0;
}

size_t proc_rss_kb(pid_t pid)
{
    return proc_status_kb(pid, "VmRSS:");
}

// ---- the command -------------------------------------------------------------------

namespace {

std::vector<uint8_t> read_bytes(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), {});
}

// Samples the slave while it plays: its VmRSS once a second, and the
// pictures its decoder channels counted (media.json) ten times a second,
// keeping the moments the total changed.
class usage_sampler {
public:
    usage_sampler(pid_t pid, std::string media) : pid_(pid), media_(std::move(media))
    {
        thread_ = std::thread([this] { run(); });
    }
    ~usage_sampler() { stop(nullptr); }
    usage_sampler(const usage_sampler&) = delete;
    usage_sampler& operator=(const usage_sampler&) = delete;

    void stop(play_summary* s)
    {
        {
            std::lock_guard lk(mu_);
            stop_ = true;
        }
        cv_.notify_all();
        if (thread_.joinable())
            thread_.join();
        if (s == nullptr)
            return;
        s->rss_kb = rss_kb_;
        for (size_t kb : rss_kb_)
            s->slave_rss_kb_max = std::max(s->slave_rss_kb_max, kb);
        if (!steps_.empty())
            s->pictures = steps_.back().second;
        // Both ends are moments the board published its counters: the
        // first change after the start (not the start itself), the last.
        if (steps_.size() >= 3) {
            const auto& first = steps_[1];
            const double dt = std::chrono::duration<double>(steps_.back().first - first.first).count();
            if (dt > 0)
                s->pictures_per_s = static_cast<double>(steps_.back().second - first.second) / dt;
        }
    }

private:
    void run()
    {
        std::unique_lock lk(mu_);
        for (int tick = 0; !stop_; ++tick) {
            lk.unlock();
            if (tick % 10 == 0)
                rss_kb_.push_back(proc_rss_kb(pid_));
            uint64_t total = 0;
            for (const media_vdec& d : read_media_vdec(media_))
                total += d.pictures;
            if (steps_.empty() || steps_.back().second != total)
                steps_.emplace_back(steady::now(), total);
            lk.lock();
            cv_.wait_for(lk, std::chrono::milliseconds(100), [this] { return stop_; });
        }
    }

    pid_t pid_;
    std::string media_;
    std::mutex mu_;
    std::condition_variable cv_;
    bool stop_ = false;
    std::vector<size_t> rss_kb_;
    std::vector<std::pair<steady::time_point, uint64_t>> steps_;
    std::thread thread_;
};

struct cam_stream {
    std::vector<uint8_t> bytes;
    std::vector<std::span<const uint8_t>> aus;
    size_t next = 0;
};

}  // namespace

pid_t start_playback(master& m, const play_options& o, std::string* err)
{
    slave_config cfg;
    cfg.binary = o.slave;
    cfg.chip = o.chip;
    cfg.cam_base = o.cam_base;
    cfg.slave_cam = o.slave_cam;
    cfg.num_vin = o.num_vin;
    const pid_t pid = m.start_slave(cfg);
    if (pid < 0) {
        *err = m.error();
        return -1;
    }
    if (!m.wait_ports(o.chip, milliseconds(20000)) || !m.wait_announcement(o.chip, milliseconds(5000))) {
        *err = "the slave's ports did not open";
        return -1;
    }
    if (m.set_dma_info(o.chip, milliseconds(3000)) != 0) {
        *err = "HSCC_CAL_SetDmaInfo failed";
        return -1;
    }
    if (play_command(m, o.chip, PLAY_START, 1) != 0) {
        *err = "HSCC_CAL_3531_decstart: no reply or refused";
        return -1;
    }
    return pid;
}

int play_command(master& m, int chip, uint32_t cmd, int32_t word0)
{
    // Three words: the flush's third one names a camera (0 here).
    const int32_t payload[3] = {word0, 0, 0};
    std::optional<reply_t> r = m.command(
        chip, cmd, std::span(reinterpret_cast<const uint8_t*>(payload), sizeof(payload)), milliseconds(5000));
    return r ? static_cast<int>(r->head.result) : -1;
}

play_summary play(const play_options& o)
{
    play_summary s;
    auto fail = [&](std::string why) {
        s.rc = 1;
        s.error = std::move(why);
        return s;
    };

    // The recorded main streams, each from its first key frame on.
    std::vector<cam_stream> streams(static_cast<size_t>(o.cameras));
    for (int c = 0; c < o.cameras; ++c) {
        char name[96];
        std::snprintf(name, sizeof(name), "/slave%d/cam%02d-rec.h264", o.chip, o.cam_base + c);
        cam_stream& cs = streams[static_cast<size_t>(c)];
        cs.bytes = read_bytes(o.recording + name);
        for (std::span<const uint8_t> au : split_access_units(cs.bytes)) {
            if (cs.aus.empty() && first_nal_type(au) != NAL_SPS)
                continue;
            cs.aus.push_back(au);
            if (o.max_frames > 0 && static_cast<int>(cs.aus.size()) >= o.max_frames)
                break;
        }
        if (cs.aus.empty())
            return fail(std::string("no key frame in ") + o.recording + name);
        play_camera pc;
        pc.camera = o.cam_base + c;
        s.cameras.push_back(pc);
    }

    master_options mo;
    mo.board = o.board;
    master m(mo);
    if (m.open() != 0)
        return fail(m.error());
    std::string err;
    const pid_t pid = start_playback(m, o, &err);
    if (pid < 0)
        return fail(err);
    say_progress(o.progress, "-- chip %d: playback started, %d camera(s)\n", o.chip, o.cameras);

    if (o.idle.count() > 0) {
        const double idle0 = proc_cpu_s(pid, true);
        std::this_thread::sleep_for(o.idle);
        s.idle_own_cpu_s = proc_cpu_s(pid, true) - idle0;
    }
    const std::string media = m.board().path("chip" + std::to_string(o.chip) + "/media.json");
    const double cpu0 = proc_cpu_s(pid, false);
    const double own0 = proc_cpu_s(pid, true);
    const auto t0 = steady::now();
    usage_sampler sampler(pid, media);
    // Frames in recording order: one of each camera in turn.
    std::vector<std::vector<uint8_t>> pending;  // built records not yet sent
    auto send = [&](bool last) -> bool {
        while (!pending.empty() && (pending.size() >= 2 || last || !o.two_per_transfer)) {
            std::vector<uint8_t> bytes = std::move(pending.front());
            pending.erase(pending.begin());
            uint32_t cmd = PLAY_ONE, second = 0;
            if (o.two_per_transfer && !pending.empty() && bytes.size() + pending.front().size() <= WINDOW_SIZE) {
                second = static_cast<uint32_t>(bytes.size());
                bytes.insert(bytes.end(), pending.front().begin(), pending.front().end());
                pending.erase(pending.begin());
                cmd = PLAY_TWO;
            }
            const auto a = steady::now();
            std::optional<reply_t> r = m.play_transfer(o.chip, cmd, bytes, second, milliseconds(10000));
            const double ms = std::chrono::duration<double, std::milli>(steady::now() - a).count();
            if (!r)
                return false;
            ++s.transfers;
            s.records += cmd == PLAY_TWO ? 2 : 1;
            s.bytes += bytes.size();
            s.max_hold_ms = std::max(s.max_hold_ms, ms);
            s.held += ms >= 50 ? 1 : 0;
            s.hold_ms.push_back(ms);
            s.refused += r->head.result != 0 ? 1 : 0;
        }
        return true;
    };

    std::vector<play_frame> frames;
    size_t frames_bytes = 0;
    uint64_t index = 0;
    int round = 1;
    for (bool more = true; more;) {
        more = false;
        if (std::all_of(streams.begin(), streams.end(), [](const cam_stream& cs) { return cs.next >= cs.aus.size(); }) &&
            (round < o.repeat || steady::now() - t0 < o.at_least)) {
            ++round;
            for (cam_stream& cs : streams)
                cs.next = 0;
        }
        for (size_t c = 0; c < streams.size(); ++c) {
            cam_stream& cs = streams[c];
            if (cs.next >= cs.aus.size())
                continue;
            more = true;
            std::span<const uint8_t> au = cs.aus[cs.next++];
            if (frames.size() == PLAY_MAX_FRAMES || static_cast<int>(frames.size()) == o.frames_per_record ||
                PLAY_HEADER + frames_bytes + au.size() > WINDOW_SIZE / 2) {
                pending.push_back(build_play_record(frames, o.skip_show, 0));
                frames.clear();
                frames_bytes = 0;
                if (!send(false))
                    return fail("a playback transfer got no answer");
            }
            play_frame f;
            f.camera = o.cam_base + static_cast<int>(c);
            f.key = first_nal_type(au) == NAL_SPS;
            f.show = o.skip_show == 0 || (index++ % static_cast<uint64_t>(std::max(1, o.show_every))) == 0;
            f.width = o.width;
            f.height = o.height;
            f.fps = 30;
            f.quality = 2;
            f.au = au;
            frames.push_back(f);
            frames_bytes += au.size();
            play_camera& pc = s.cameras[c];
            ++pc.frames_sent;
            pc.shown_sent += f.show ? 1 : 0;
            if (std::optional<frame_sei> sei = find_frame_sei(au))
                pc.last_seq_sent = sei->seq;
        }
    }
    if (!frames.empty())
        pending.push_back(build_play_record(frames, o.skip_show, 0));
    if (!send(true))
        return fail("a playback transfer got no answer");
    s.seconds = std::chrono::duration<double>(steady::now() - t0).count();
    say_progress(o.progress, "-- %llu transfer(s), %llu record(s), %.1f MB in %.1f s; longest answer %.0f ms\n",
        static_cast<unsigned long long>(s.transfers), static_cast<unsigned long long>(s.records),
        static_cast<double>(s.bytes) / 1e6, s.seconds, s.max_hold_ms);

    // The board finishes what it holds: wait until every camera decoded as
    // many pictures as it was sent frames up to the last SEI sent, or the
    // pictures stop moving.
    const auto settle0 = steady::now();
    uint64_t seen = ~uint64_t{0};
    auto moved_at = steady::now();
    while (steady::now() - settle0 < o.settle) {
        std::vector<media_vdec> v = read_media_vdec(media);
        uint64_t total = 0;
        size_t done = 0;
        for (const media_vdec& d : v) {
            total += d.pictures;
            if (d.chn >= 0 && d.chn < o.cameras && d.have_last &&
                d.seq == s.cameras[static_cast<size_t>(d.chn)].last_seq_sent &&
                d.pictures >= s.cameras[static_cast<size_t>(d.chn)].frames_sent)
                ++done;
        }
        if (total != seen) {
            seen = total;
            moved_at = steady::now();
        }
        if (done == s.cameras.size() || steady::now() - moved_at > std::chrono::seconds(3))
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    s.slave_cpu_s = proc_cpu_s(pid, false) - cpu0;
    s.slave_own_cpu_s = proc_cpu_s(pid, true) - own0;
    s.cpu_window_s = std::chrono::duration<double>(steady::now() - t0).count();
    sampler.stop(&s);
    for (const media_vdec& d : read_media_vdec(media)) {
        if (d.chn < 0 || d.chn >= o.cameras)
            continue;
        play_camera& pc = s.cameras[static_cast<size_t>(d.chn)];
        pc.pictures = d.pictures;
        pc.have_last = d.have_last;
        pc.last_seq = d.seq;
        pc.dec_width = d.width;
        pc.dec_height = d.height;
        pc.user_frames = read_media_user_frames(media, d.chn);
    }
    m.close();
    return s;
}

void print_play_summary(FILE* out, const play_summary& s)
{
    std::fprintf(out, "== played back: %llu transfer(s), %llu record(s), %.1f MB in %.1f s\n",
                 static_cast<unsigned long long>(s.transfers), static_cast<unsigned long long>(s.records),
                 static_cast<double>(s.bytes) / 1e6, s.seconds);
    std::fprintf(out, "   answers: longest %.0f ms, %llu held 50 ms or more, %llu refused\n", s.max_hold_ms,
                 static_cast<unsigned long long>(s.held), static_cast<unsigned long long>(s.refused));
    const double mb = static_cast<double>(s.bytes) / 1e6;
    std::fprintf(out, "   slave: %.2f s of processor (%.2f s per MB), largest resident size %zu kB\n", s.slave_cpu_s,
                 mb > 0 ? s.slave_cpu_s / mb : 0.0, s.slave_rss_kb_max);
    std::fprintf(out, "   slave's own threads (not sim*): %.2f s (%.1f ms per MB); board decoded %llu pictures, %.1f per s\n",
                 s.slave_own_cpu_s, mb > 0 ? 1000 * s.slave_own_cpu_s / mb : 0.0,
                 static_cast<unsigned long long>(s.pictures), s.pictures_per_s);
    for (const play_camera& c : s.cameras)
        std::fprintf(out,
                     "   camera %2d: %llu frames sent (%llu to show), last seq %u; decoded %llu, last seq %s%u, "
                     "%ux%u, shown by the group %llu\n",
                     c.camera, static_cast<unsigned long long>(c.frames_sent),
                     static_cast<unsigned long long>(c.shown_sent), c.last_seq_sent,
                     static_cast<unsigned long long>(c.pictures), c.have_last ? "" : "none ", c.last_seq,
                     c.dec_width, c.dec_height, static_cast<unsigned long long>(c.user_frames));
    if (s.rc != 0)
        std::fprintf(out, "== playback did not complete: %s\n", s.error.c_str());
}

}  // namespace tmaster
