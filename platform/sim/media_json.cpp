// The media state file of the simulated board.
#include "platform/sim/media_json.h"

#include <pthread.h>
#include <unistd.h>

#include <sys/stat.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/sim/board.h"
#include "platform/sim/media_state.h"
#include "platform/sim/picture_flow.h"
#include "platform/sim/venc_producer.h"
#include "platform/sim/vda_queue.h"
#include "platform/sim/venc_ring.h"

namespace {

// How often the writer looks for changes of the state, and how often it
// looks at the counters.
constexpr auto k_poll = std::chrono::milliseconds(50);
constexpr auto k_refresh = std::chrono::milliseconds(1000);

const char* b(bool v)
{
    return v ? "true" : "false";
}

void chn_addr(std::ostringstream& o, const mpp_chn_t& c)
{
    o << '[' << c.mod_id << ',' << c.dev_id << ',' << c.chn_id << ']';
}

// Joins list items with commas.
class list {
public:
    explicit list(std::ostringstream& o) : o_(o) {}
    std::ostringstream& next()
    {
        if (!first_)
            o_ << ',';
        first_ = false;
        o_ << "\n  ";
        return o_;
    }

private:
    std::ostringstream& o_;
    bool first_ = true;
};

// Output channels that were ever configured, and PCI video channels.
void render_vout(std::ostringstream& o, const sim_media& m, int64_t now_us)
{
    o << ",\n\"vo\": [";
    list vo(o);
    for (int32_t d = 0; d < VO_MAX_DEV_NUM; ++d) {
        for (int32_t c = 0; c < VO_MAX_CHN_NUM; ++c) {
            const sim_vo_chn& v = m.vo[d].chn[c];
            if (!v.attr_set && !v.enabled)
                continue;
            vo.next() << "{\"dev\": " << d << ", \"chn\": " << c << ", \"enabled\": " << b(v.enabled)
                      << ", \"paused\": " << b(v.paused) << ", \"x\": " << v.attr.rect.x << ", \"y\": " << v.attr.rect.y
                      << ", \"width\": " << v.attr.rect.width << ", \"height\": " << v.attr.rect.height
                      << ", \"pictures\": " << sim_flow_pictures(m, {HI_ID_VO, d, c}, now_us) << '}';
        }
    }
    o << "],\n\"pciv\": [";
    list pciv(o);
    for (int32_t c = 0; c < PCIV_MAX_CHN_NUM; ++c) {
        const sim_pciv_chn& p = m.pciv[c];
        if (!p.created)
            continue;
        pciv.next() << "{\"chn\": " << c << ", \"started\": " << b(p.started)
                    << ", \"width\": " << p.attr.pic_attr.width << ", \"height\": " << p.attr.pic_attr.height
                    << ", \"pictures\": " << sim_flow_pictures(m, {HI_ID_PCIV, 0, c}, now_us) << '}';
    }
    o << "]";
}

// The file under the chip's directory that holds region h's last bitmap.
std::string rgn_file(int32_t h)
{
    return "rgn/" + std::to_string(h) + ".raw";
}

void render_rgn(std::ostringstream& o, const sim_media& m)
{
    o << "],\n\"rgn\": [";
    list rgn(o);
    for (int32_t h = 0; h < RGN_HANDLE_MAX; ++h) {
        const sim_rgn& g = m.rgn[h];
        if (!g.created)
            continue;
        const bool overlay = g.attr.type == OVERLAY_RGN;
        const rgn_chn_attr_t& a = g.chn_attr;
        rgn.next() << "{\"handle\": " << h << ", \"type\": " << g.attr.type << ", \"attached\": ";
        if (g.attached)
            chn_addr(o, g.chn);
        else
            o << "null";
        o << ", \"show\": " << b(g.attached && a.show == 1);
        if (overlay)
            o << ", \"x\": " << a.overlay.x << ", \"y\": " << a.overlay.y
              << ", \"width\": " << g.attr.overlay.size.width << ", \"height\": " << g.attr.overlay.size.height
              << ", \"color\": " << g.attr.overlay.bg_color << ", \"layer\": " << a.overlay.layer
              << ", \"pixel_format\": " << g.attr.overlay.pixel_format << ", \"bg_alpha\": " << a.overlay.bg_alpha
              << ", \"fg_alpha\": " << a.overlay.fg_alpha;
        else
            o << ", \"x\": " << a.cover.x << ", \"y\": " << a.cover.y << ", \"width\": " << a.cover.width
              << ", \"height\": " << a.cover.height << ", \"color\": " << a.cover.color
              << ", \"layer\": " << a.cover.layer << ", \"pixel_format\": null";
        o << ", \"bitmap\": ";
        if (g.bitmap_gen != 0)
            o << "\"chip" << sim_chip_id() << '/' << rgn_file(h) << "\", \"bitmap_width\": " << g.bitmap_width
              << ", \"bitmap_height\": " << g.bitmap_height;
        else
            o << "null";
        o << '}';
    }
}

std::string render(const sim_media& m, int64_t now_us)
{
    std::ostringstream o;
    o.precision(6);
    o << "{\n\"binds\": [";
    list binds(o);
    for (const sim_binding& bd : m.bindings) {
        binds.next() << "{\"src\": ";
        chn_addr(o, bd.src);
        o << ", \"dst\": ";
        chn_addr(o, bd.dest);
        o << '}';
    }
    o << "],\n\"vi\": [";
    list vi(o);
    for (int32_t c = 0; c < VIU_MAX_CHN_NUM; ++c) {
        const sim_vi_chn& v = m.vi_chn[c];
        if (!v.enabled)
            continue;
        vi.next() << "{\"chn\": " << c << ", \"width\": " << v.attr.dest_size.width
                  << ", \"height\": " << v.attr.dest_size.height << ", \"fps\": " << sim_flow_vi_fps(m, c) << '}';
    }
    o << "],\n\"vpss\": [";
    list vpss(o);
    for (int32_t g = 0; g < VPSS_MAX_GRP_NUM; ++g) {
        const sim_vpss_grp& grp = m.vpss[g];
        if (!grp.created)
            continue;
        uint64_t pictures = sim_flow_vpss_pictures(m, g, now_us) + grp.decoded + grp.user_frames;
        vpss.next() << "{\"grp\": " << g << ", \"started\": " << b(grp.started) << ", \"chn\": [";
        bool first = true;
        for (int32_t c = 0; c < VPSS_MAX_CHN_NUM; ++c) {
            if (!grp.chn[c].enabled)
                continue;
            o << (first ? "" : ",") << c;
            first = false;
        }
        const vpss_crop_info_t& crop = grp.crop;
        o << "], \"crop\": {\"enable\": " << b(crop.enable != 0) << ", \"x\": " << crop.rect.x
          << ", \"y\": " << crop.rect.y << ", \"width\": " << crop.rect.width << ", \"height\": " << crop.rect.height
          << "}, \"pictures\": " << pictures << ", \"user_frames\": " << grp.user_frames << '}';
    }
    o << "],\n\"venc\": [";
    list venc(o);
    for (int32_t c = 0; c < VENC_MAX_CHN_NUM; ++c) {
        const sim_venc_chn& v = m.venc_chn[c];
        if (!v.created)
            continue;
        const bool h264 = v.attr.payload_type == PT_H264;
        const uint32_t w = h264 ? v.attr.h264.pic_width : v.attr.jpeg.pic_width;
        const uint32_t h = h264 ? v.attr.h264.pic_height : v.attr.jpeg.pic_height;
        const bool producing = sim_venc_producing(c);
        venc.next() << "{\"chn\": " << c << ", \"grp\": " << v.grp << ", \"registered\": " << b(v.grp >= 0)
                    << ", \"receiving\": " << b(v.receiving) << ", \"payload\": " << v.attr.payload_type
                    << ", \"width\": " << w << ", \"height\": " << h << ", \"gop\": " << (h264 ? v.attr.rc.gop : 0)
                    << ", \"bitrate_kbps\": " << (h264 ? v.attr.rc.bit_rate : 0)
                    << ", \"fps_in\": " << (h264 ? v.attr.rc.vi_frm_rate : 0)
                    << ", \"fps_target\": " << (h264 ? v.attr.rc.target_frm_rate : 0)
                    << ", \"produced\": " << v.ring->produced() << ", \"dropped\": " << v.ring->dropped()
                    << ", \"producing\": " << b(producing) << '}';
    }
    o << "],\n\"vdec\": [";
    list vdec(o);
    for (int32_t c = 0; c < VDEC_MAX_CHN_NUM; ++c) {
        const sim_vdec_chn& d = m.vdec[c];
        if (!d.created)
            continue;
        vdec.next() << "{\"chn\": " << c << ", \"receiving\": " << b(d.receiving) << ", \"pictures\": " << d.pictures
                    << ", \"refused\": " << d.refused << ", \"undecoded\": " << d.undecoded
                    << ", \"width\": " << d.width << ", \"height\": " << d.height << ", \"last\": ";
        if (d.last.valid)
            o << "{\"camera\": " << d.last.camera << ", \"chn\": " << d.last.chn << ", \"seq\": " << d.last.seq << '}';
        else
            o << "null";
        o << '}';
    }
    o << "],\n\"vda\": [";
    list vda(o);
    for (int32_t c = 0; c < VDA_MAX_CHN_NUM; ++c) {
        const sim_vda_chn& v = m.vda[c];
        if (!v.created)
            continue;
        vda.next() << "{\"chn\": " << c << ", \"receiving\": " << b(v.receiving)
                   << ", \"results\": " << v.queue->results() << ", \"dropped\": " << v.queue->dropped() << '}';
    }
    render_rgn(o, m);
    o << ']';
    render_vout(o, m, now_us);
    o << "\n}\n";
    return o.str();
}

// Writes text as path: a temporary file renamed over it.
void replace_file(const std::string& path, const std::string& text)
{
    const std::string tmp = path + ".tmp";
    FILE* f = std::fopen(tmp.c_str(), "w");
    if (f == nullptr)
        return;
    bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    ok = std::fclose(f) == 0 && ok;
    if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0)
        unlink(tmp.c_str());
}

// A region's bitmap, taken from the core to be written out.
struct rgn_bitmap {
    int32_t handle;
    std::string pixels;
};

class json_writer {
public:
    void start()
    {
        path_ = sim_chip_path("media.json");
        stop_ = false;
        last_.clear();
        written_gen_.fill(0);
        thread_ = std::thread([this] { run(); });
    }

    void stop()
    {
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
        }
        cv_.notify_all();
        if (thread_.joinable())
            thread_.join();
    }

private:
    void run()
    {
        pthread_setname_np(pthread_self(), "sim_media_json");
        uint64_t seen = ~uint64_t{0};
        auto written = std::chrono::steady_clock::now();
        std::unique_lock lock(mutex_);
        while (!stop_) {
            lock.unlock();
            const auto now = std::chrono::steady_clock::now();
            const uint64_t gen = sim_media_generation();
            // Counters move without changes of the state: a look every
            // second catches them (the file is rewritten only if they did).
            if (gen != seen || now - written >= k_refresh) {
                seen = gen;
                std::string text;
                std::vector<rgn_bitmap> bitmaps;
                {
                    media_access m(media_access::read);
                    text = render(*m, sim_media_now_us());
                    take_bitmaps(*m, &bitmaps);
                }
                // The bitmaps first: media.json never names a file not there.
                write_bitmaps(bitmaps);
                if (text != last_) {
                    replace_file(path_, text);
                    last_ = std::move(text);
                }
                written = now;
            }
            lock.lock();
            cv_.wait_for(lock, k_poll, [this] { return stop_; });
        }
    }

    void take_bitmaps(const sim_media& m, std::vector<rgn_bitmap>* out)
    {
        for (int32_t h = 0; h < RGN_HANDLE_MAX; ++h) {
            const sim_rgn& g = m.rgn[h];
            if (!g.created || g.bitmap_gen == 0 || g.bitmap_gen == written_gen_[h])
                continue;
            written_gen_[h] = g.bitmap_gen;
            out->push_back({h, std::string(g.bitmap.begin(), g.bitmap.end())});
        }
    }

    static void write_bitmaps(const std::vector<rgn_bitmap>& bitmaps)
    {
        if (bitmaps.empty())
            return;
        mkdir(sim_chip_path("rgn").c_str(), 0755);
        for (const rgn_bitmap& bm : bitmaps)
            replace_file(sim_chip_path(rgn_file(bm.handle)), bm.pixels);
    }

    std::string path_;
    std::string last_;
    std::array<uint64_t, RGN_HANDLE_MAX> written_gen_{};
    std::mutex mutex_;
    std::condition_variable cv_;
    bool stop_ = false;
    std::thread thread_;
};

json_writer g_writer;

}  // namespace

int sim_media_json_open(std::string*)
{
    g_writer.start();
    return 0;
}

void sim_media_json_close()
{
    g_writer.stop();
}

std::string sim_media_json_text()
{
    media_access m(media_access::read);
    return render(*m, sim_media_now_us());
}
