// The motion thread of the simulated board.
#include "platform/sim/vda_motion.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/sim/media_state.h"
#include "platform/sim/picture_flow.h"
#include "platform/sim/scene.h"
#include "platform/sim/sim_worker.h"
#include "platform/sim/sys_sim.h"
#include "platform/sim/vda_queue.h"

namespace {

// The thread looks at the core at least this often for changes.
constexpr int64_t k_max_sleep_us = 20000;

// What the thread follows on one channel.
struct watch {
    bool on = false;
    uint32_t session = 0;
    std::shared_ptr<sim_vda_queue> queue;
    int camera = -1;
    sim_scene scene = sim_scene::absent;
    bool textured = false;
    int32_t vi = -1;
    double fps = 0;
    int64_t start_us = 0;   // host clock of the channel's picture 0
    uint32_t interval = 1;
    int width = 0, height = 0, cell = 16;
    uint64_t next = 0;      // picture of the next result
    std::vector<sim_cover> covers;
    int chn_w = 0, chn_h = 0;
    std::unique_ptr<sim_scene_painter> painter;
    std::vector<uint8_t> ref, cur;  // luma of the reference and current pictures
};

class motion {
public:
    void start()
    {
        watches_ = {};
        w_.start([this] { run(); });
    }

    void stop()
    {
        w_.join();
        watches_ = {};
    }

private:
    void run()
    {
        pthread_setname_np(pthread_self(), "sim_vda");
        std::unique_lock lock(w_.mutex);
        while (!w_.stop) {
            lock.unlock();
            plan();
            const int64_t wake = produce();
            lock.lock();
            if (!w_.stop)
                w_.cv.wait_until(lock, std::chrono::steady_clock::time_point(std::chrono::microseconds(wake)));
        }
    }

    // Looks at every channel: whether it receives pictures now, from where.
    void plan()
    {
        media_access m(media_access::read);
        for (int32_t chn = 0; chn < VDA_MAX_CHN_NUM; ++chn) {
            const sim_vda_chn& c = m->vda[chn];
            watch& w = watches_[chn];
            sim_flow_vda_source src;
            if (c.created && c.receiving)
                src = sim_flow_vda_source_of(*m, chn);
            if (!src.live) {
                w.on = false;
                w.queue.reset();
                continue;
            }
            const int64_t start = std::max(c.receiving_us, src.since_us);
            const int cell = c.attr.mb_size == VDA_MB_16PIXEL ? 16 : 8;
            const int width = static_cast<int>(c.attr.width), height = static_cast<int>(c.attr.height);
            if (!w.on || w.session != c.session || w.queue != c.queue || w.vi != src.vi || w.fps != src.fps ||
                w.start_us != start || w.camera != src.camera || w.scene != src.scene ||
                w.textured != src.textured || w.width != width || w.height != height) {
                // A new run of pictures: the first result compares with its
                // picture 0.
                if (w.camera != src.camera || w.scene != src.scene || w.textured != src.textured ||
                    w.width != width || w.height != height)
                    w.painter =
                        std::make_unique<sim_scene_painter>(src.camera, src.scene, width, height, src.textured);
                w.on = true;
                w.session = c.session;
                w.queue = c.queue;
                w.vi = src.vi;
                w.fps = src.fps;
                w.start_us = start;
                w.camera = src.camera;
                w.scene = src.scene;
                w.textured = src.textured;
                w.width = width;
                w.height = height;
                w.cell = cell;
                w.interval = std::max<uint32_t>(1, c.attr.vda_intvl);
                w.next = w.interval;
                w.ref.clear();
            }
            w.covers = sim_flow_vi_covers(*m, src.vi);
            const pic_size_t size = sim_flow_vi_size(*m, src.vi);
            w.chn_w = static_cast<int>(size.width);
            w.chn_h = static_cast<int>(size.height);
        }
    }

    int64_t due_of(const watch& w, uint64_t picture) const
    {
        return w.start_us + static_cast<int64_t>(static_cast<double>(picture) * 1e6 / w.fps);
    }

    void draw(watch& w, int64_t t_us, std::vector<uint8_t>* luma)
    {
        const size_t n = static_cast<size_t>(w.width) * w.height;
        luma->resize(n + static_cast<size_t>(w.width) * w.height / 2);
        sim_picture pic{w.width, w.height, luma->data(), w.width, luma->data() + n, luma->data() + n + 1, w.width, 2};
        w.painter->render(t_us, pic);
        sim_cover_paint_luma(w.covers, w.chn_w, w.chn_h, luma->data(), w.width, w.height, w.width);
    }

    // Makes every result whose picture has come; returns when the next is
    // due (no later than the next look at the core).
    int64_t produce()
    {
        const int64_t now = sim_media_now_us();
        int64_t wake = now + k_max_sleep_us;
        for (watch& w : watches_) {
            if (!w.on || w.queue == nullptr)
                continue;
            // Far behind (the host stalled): results of pictures long gone
            // are skipped rather than made in a burst.
            const uint64_t pictures = static_cast<uint64_t>(static_cast<double>(now - w.start_us) * w.fps / 1e6);
            // The reference is then the picture one interval before the
            // next result, as it would have been without the stall.
            if (pictures > w.next + 4 * w.interval) {
                w.next = pictures / w.interval * w.interval;
                w.ref.clear();
            }
            if (w.ref.empty())
                draw(w, due_of(w, w.next - w.interval), &w.ref);
            while (true) {
                const int64_t due = due_of(w, w.next);
                if (due > now) {
                    wake = std::min(wake, due);
                    break;
                }
                draw(w, due, &w.cur);
                const int cells_h = w.height / w.cell;
                const int stride = static_cast<int>(w.queue->stride());
                std::vector<uint8_t> cells(static_cast<size_t>(stride) * cells_h, 0);
                sim_vda_cells(w.cur.data(), w.ref.data(), w.width, w.height, w.cell, cells.data(), stride);
                w.queue->put(std::move(cells), sim_sys_pts_at(due));
                std::swap(w.ref, w.cur);
                w.next += w.interval;
            }
        }
        return wake;
    }

    sim_worker w_;
    std::array<watch, VDA_MAX_CHN_NUM> watches_;  // the thread's own
};

motion g_motion;

}  // namespace

void sim_vda_cells(const uint8_t* cur, const uint8_t* ref, int w, int h, int cell, uint8_t* out, int stride)
{
    const int cells_w = w / cell, cells_h = h / cell;
    for (int cy = 0; cy < cells_h; ++cy) {
        for (int cx = 0; cx < cells_w; ++cx) {
            uint32_t sum = 0;
            for (int y = cy * cell; y < (cy + 1) * cell; ++y) {
                const uint8_t* a = cur + static_cast<ptrdiff_t>(y) * w + cx * cell;
                const uint8_t* b = ref + static_cast<ptrdiff_t>(y) * w + cx * cell;
                for (int x = 0; x < cell; ++x)
                    sum += static_cast<uint32_t>(std::abs(a[x] - b[x]));
            }
            out[static_cast<ptrdiff_t>(cy) * stride + cx] =
                static_cast<uint8_t>(std::min<uint32_t>(255, sum / static_cast<uint32_t>(cell * cell)));
        }
    }
}

int sim_vda_motion_open(std::string*)
{
    g_motion.start();
    return 0;
}

void sim_vda_motion_close()
{
    g_motion.stop();
}
