// The producer of the simulated JPEG channels.
#include "platform/sim/venc_jpeg.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/sim/jpeg_codec.h"
#include "platform/sim/media_state.h"
#include "platform/sim/cover_paint.h"
#include "platform/sim/picture_flow.h"
#include "platform/sim/scene.h"
#include "platform/sim/sim_worker.h"
#include "platform/sim/sys_sim.h"
#include "platform/sim/venc_ring.h"

namespace {

// The thread looks at the core at least this often.
constexpr int64_t k_max_sleep_us = 20000;

// What one receiving JPEG channel needs for its next picture, taken from
// the core.
struct jpeg_job {
    int32_t chn = -1;
    uint32_t session = 0;
    std::shared_ptr<sim_venc_ring> ring;
    int camera = 0;
    sim_scene scene = sim_scene::absent;
    bool textured = false;
    int width = 0, height = 0;
    int quality = 0;
    double src_fps = 0;  // pictures per second reaching the group
    double fps = 0;      // pictures per second the group passes on
    std::vector<sim_cover> covers;  // scaled to the picture
};

// Per channel: the start of receiving its times belong to.
struct jpeg_play {
    uint32_t session = 0;
    std::shared_ptr<sim_venc_ring> ring;
    int64_t next_us = 0;  // when the next picture is due
    uint32_t seq = 0;
};

class jpeg_producer {
public:
    void start()
    {
        pictures_ = 0;
        plays_ = {};
        painters_.clear();
        w_.start([this] { run(); });
    }

    void stop()
    {
        w_.join();
        plays_ = {};
        painters_.clear();
    }

    uint64_t pictures() const { return pictures_.load(std::memory_order_relaxed); }

private:
    void run()
    {
        pthread_setname_np(pthread_self(), "sim_venc_jpeg");
        std::unique_lock lock(w_.mutex);
        uint64_t seen = ~uint64_t{0};
        std::vector<jpeg_job> jobs;
        while (!w_.stop) {
            lock.unlock();
            const uint64_t gen = sim_media_generation();
            if (gen != seen) {
                seen = gen;
                jobs = plan();
            }
            const int64_t wake = produce(jobs);
            lock.lock();
            if (!w_.stop)
                w_.cv.wait_for(lock, std::chrono::microseconds(std::max<int64_t>(0, wake - sim_media_now_us())));
        }
    }

    std::vector<jpeg_job> plan()
    {
        std::vector<jpeg_job> jobs;
        media_access m(media_access::read);
        for (int32_t chn = 0; chn < VENC_MAX_CHN_NUM; ++chn) {
            const sim_venc_chn& c = m->venc_chn[chn];
            sim_flow_source src;
            if (c.created && c.receiving && c.attr.payload_type == PT_JPEG && c.grp >= 0)
                src = sim_flow_venc_source(*m, chn);
            if (!src.live) {
                plays_[chn] = {};  // its stream buffer is let go
                continue;
            }
            jpeg_job j;
            j.chn = chn;
            j.session = c.session;
            j.ring = c.ring;
            j.camera = src.camera;
            j.scene = src.scene;
            j.textured = src.textured;
            j.width = static_cast<int>(c.attr.jpeg.pic_width);
            j.height = static_cast<int>(c.attr.jpeg.pic_height);
            j.quality = static_cast<int>(c.jpeg.qfactor);
            j.src_fps = src.fps;
            const venc_grp_frm_rate_t& r = m->venc_grp[c.grp].frm_rate;
            j.fps = r.vi_frm_rate > 0 && r.target_frm_rate > 0
                        ? std::min(src.fps * r.target_frm_rate / r.vi_frm_rate, static_cast<double>(r.target_frm_rate))
                        : src.fps;
            const pic_size_t vi_size = sim_flow_vi_size(*m, src.vi);
            j.covers = sim_cover_scaled(sim_flow_vi_covers(*m, src.vi), static_cast<int>(vi_size.width),
                                        static_cast<int>(vi_size.height), j.width, j.height);
            jobs.push_back(std::move(j));
        }
        return jobs;
    }

    // Encodes every picture whose time has come; returns when the next one
    // is due (no later than the next look at the core).
    int64_t produce(const std::vector<jpeg_job>& jobs)
    {
        const int64_t now = sim_media_now_us();
        int64_t wake = now + k_max_sleep_us;
        for (const jpeg_job& j : jobs) {
            if (j.fps <= 0 || j.src_fps <= 0)
                continue;
            jpeg_play& p = plays_[j.chn];
            if (p.session != j.session || p.ring != j.ring) {
                p = {};
                p.session = j.session;
                p.ring = j.ring;
                p.next_us = now + static_cast<int64_t>(1e6 / j.src_fps);
            }
            if (p.next_us > now) {
                wake = std::min(wake, p.next_us);
                continue;
            }
            // While a picture waits unread, the next is not made.
            if (p.ring->stat().left_stream_frames == 0)
                encode(j, p, now);
            p.next_us = std::max(p.next_us + static_cast<int64_t>(1e6 / j.fps), now);
            wake = std::min(wake, p.next_us);
        }
        return wake;
    }

    void encode(const jpeg_job& j, jpeg_play& p, int64_t now)
    {
        const size_t luma = static_cast<size_t>(j.width) * j.height;
        const int cw = (j.width + 1) / 2, chh = (j.height + 1) / 2;
        const size_t chroma = static_cast<size_t>(cw) * chh;
        frame_.resize(luma + 2 * chroma);
        sim_picture pic{j.width, j.height, frame_.data(), j.width, frame_.data() + luma,
                        frame_.data() + luma + chroma, cw, 1};
        if (!painter(j).render(now, pic))
            return;
        sim_cover_paint(j.covers, pic);
        if (!sim_jpeg_encode(pic, j.quality, &jpeg_))
            return;
        const sim_pack_in pack{{std::span<const uint8_t>(jpeg_), {}}, JPEGE_PACK_PIC};
        p.ring->put(std::span(&pack, 1), sim_sys_pts_at(now), p.seq++);
        pictures_.fetch_add(1, std::memory_order_relaxed);
    }

    // The still part of a camera's scene is drawn once per size.
    const sim_scene_painter& painter(const jpeg_job& j)
    {
        auto key = std::make_tuple(j.camera, static_cast<int>(j.scene), j.textured, j.width, j.height);
        auto it = painters_.find(key);
        if (it == painters_.end())
            it = painters_.emplace(key, std::make_unique<sim_scene_painter>(j.camera, j.scene, j.width, j.height,
                                                                           j.textured))
                     .first;
        return *it->second;
    }

    sim_worker w_;
    std::atomic<uint64_t> pictures_{0};
    std::array<jpeg_play, VENC_MAX_CHN_NUM> plays_;
    std::map<std::tuple<int, int, bool, int, int>, std::unique_ptr<sim_scene_painter>> painters_;
    std::vector<uint8_t> frame_, jpeg_;
};

jpeg_producer g_jpeg;

}  // namespace

int sim_venc_jpeg_open(std::string*)
{
    g_jpeg.start();
    return 0;
}

void sim_venc_jpeg_close()
{
    g_jpeg.stop();
}

uint64_t sim_venc_jpeg_pictures()
{
    return g_jpeg.pictures();
}
