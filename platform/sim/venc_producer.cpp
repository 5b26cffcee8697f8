// The producer of the simulated encoder channels and the maker of their
// scene loops.
#include "platform/sim/venc_producer.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <condition_variable>
#include <deque>
#include <functional>
#include <tuple>
#include <vector>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/sim/board.h"
#include "platform/sim/h264_loop.h"
#include "platform/sim/h264_sei.h"
#include "platform/sim/media_state.h"
#include "platform/sim/picture_flow.h"
#include "platform/sim/sim_worker.h"
#include "platform/sim/sys_sim.h"
#include "platform/sim/venc_ring.h"

namespace {

// The producer looks at the core at least this often for changes.
constexpr int64_t k_max_sleep_us = 20000;

struct key_less {
    bool operator()(const sim_loop_key& a, const sim_loop_key& b) const
    {
        auto tie = [](const sim_loop_key& k) {
            return std::tie(k.camera, k.scene, k.textured, k.width, k.height, k.gop, k.kbps, k.mfps, k.covers, k.cover_rects);
        };
        return tie(a) < tie(b);
    }
};

// ---- loops --------------------------------------------------------------------

struct loop_entry {
    std::shared_ptr<const sim_h264_loop> loop;
    bool failed = false;
};

class loop_maker {
public:
    void start(std::string cache_dir, std::function<void()> on_ready)
    {
        cache_dir_ = std::move(cache_dir);
        on_ready_ = std::move(on_ready);
        encoded_ = 0;
        cached_ = 0;
        w_.start([this] { run(); });
    }

    void stop()
    {
        w_.join();
        loops_.clear();
        queue_.clear();
    }

    // The loop of key, or nullptr while it is being made (it is asked for
    // the first time here) or cannot be made.
    std::shared_ptr<const sim_h264_loop> get(const sim_loop_key& key)
    {
        std::lock_guard lock(w_.mutex);
        auto [it, added] = loops_.try_emplace(key);
        if (added) {
            queue_.push_back(key);
            w_.cv.notify_all();
        }
        return it->second.loop;
    }

    // Lets go of the ready loops that no channel plays (they stay in the
    // cache directory).
    void keep_only(const std::vector<sim_loop_key>& in_use)
    {
        std::lock_guard lock(w_.mutex);
        std::erase_if(loops_, [&](const auto& e) {
            return e.second.loop != nullptr && std::find(in_use.begin(), in_use.end(), e.first) == in_use.end();
        });
    }

    sim_venc_loop_counts counts() const { return {encoded_.load(), cached_.load()}; }

private:
    void run()
    {
        pthread_setname_np(pthread_self(), "sim_venc_loop");
        // Encoding is the one costly thing the simulator does: it yields the
        // processor to the slave's own threads (this thread's nice value only).
        setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 10);
        std::unique_lock lock(w_.mutex);
        while (true) {
            w_.cv.wait(lock, [this] { return w_.stop || !queue_.empty(); });
            if (w_.stop)
                return;
            sim_loop_key key = queue_.front();
            queue_.pop_front();
            lock.unlock();
            sim_loop_made made;
            auto loop = sim_h264_loop_make(key, cache_dir_, &made);
            if (loop != nullptr)
                (made.from_cache ? cached_ : encoded_).fetch_add(1);
            if (loop != nullptr && !made.from_cache)
                std::fprintf(stderr, "sim: encoded %s in %lld ms\n", key.file_name().c_str(),
                             static_cast<long long>(made.encode_us / 1000));
            lock.lock();
            loop_entry& e = loops_[key];
            e.loop = std::move(loop);
            e.failed = e.loop == nullptr;
            lock.unlock();
            on_ready_();
            lock.lock();
        }
    }

    std::string cache_dir_;
    std::function<void()> on_ready_;
    sim_worker w_;
    std::map<sim_loop_key, loop_entry, key_less> loops_;
    std::deque<sim_loop_key> queue_;
    std::atomic<uint32_t> encoded_{0}, cached_{0};
};

// ---- playing ------------------------------------------------------------------

// What the producer plays on one channel.
struct play {
    uint32_t session = 0;  // the channel's start of receiving this sequence belongs to
    bool on = false;       // receiving with a live source
    sim_loop_key key;
    int camera = 0;
    double fps = 0;
    std::shared_ptr<const sim_h264_loop> loop;
    std::shared_ptr<sim_venc_ring> ring;
    uint32_t pos = 0;        // next access unit of the loop
    uint32_t seq = 0;        // sequence number of the next access unit
    bool playing = false;    // on with a loop: start_us and base hold
    int64_t start_us = 0;    // monotonic time of access unit `base`
    uint32_t base = 0;
};

class producer {
public:
    void start()
    {
        changed_ = true;
        seen_gen_ = 0;
        plays_ = {};
        maker_.start(sim_board_path("cache"), [this] {
            {
                std::lock_guard lock(w_.mutex);
                changed_ = true;
            }
            w_.cv.notify_all();
        });
        w_.start([this] { run(); });
    }

    void stop()
    {
        w_.join();
        maker_.stop();
        plays_ = {};
        for (auto& p : producing_)
            p = false;
    }

    bool producing(int32_t chn) const
    {
        return chn >= 0 && chn < VENC_MAX_CHN_NUM && producing_[chn].load(std::memory_order_relaxed);
    }

    sim_venc_loop_counts counts() const { return maker_.counts(); }

private:
    void run()
    {
        pthread_setname_np(pthread_self(), "sim_venc");
        std::unique_lock lock(w_.mutex);
        while (!w_.stop) {
            uint64_t gen = sim_media_generation();
            bool replan = changed_ || gen != seen_gen_;
            changed_ = false;
            lock.unlock();
            if (replan) {
                seen_gen_ = gen;
                plan();
            }
            int64_t wake = produce();
            lock.lock();
            if (!w_.stop && !changed_)
                w_.cv.wait_until(lock, to_time_point(wake));
        }
    }

    static std::chrono::steady_clock::time_point to_time_point(int64_t mono_us)
    {
        // sim_media_now_us reads the same clock as steady_clock on Linux.
        return std::chrono::steady_clock::time_point(std::chrono::microseconds(mono_us));
    }

    // Looks at every channel: what it plays now.
    void plan()
    {
        const int64_t now = sim_media_now_us();
        std::vector<sim_loop_key> in_use;
        media_access m(media_access::read);
        for (int32_t chn = 0; chn < VENC_MAX_CHN_NUM; ++chn) {
            const sim_venc_chn& c = m->venc_chn[chn];
            play& p = plays_[chn];
            if (!c.created || !c.receiving || c.attr.payload_type != PT_H264) {
                p.on = false;
                p.playing = false;
                p.ring.reset();
                p.loop.reset();
                producing_[chn] = false;
                continue;
            }
            if (c.session != p.session || c.ring != p.ring) {
                // A new start of receiving: a new sequence from an IDR picture.
                p = {};
                p.session = c.session;
                p.ring = c.ring;
            }
            sim_flow_source src = sim_flow_venc_source(*m, chn);
            double fps = src.live ? sim_flow_venc_fps(*m, chn, src.fps) : 0;
            p.on = src.live && fps > 0;
            if (!p.on) {
                p.playing = false;
                producing_[chn] = false;
                continue;
            }
            const venc_attr_h264_t& h = c.attr.h264;
            sim_loop_key key;
            key.camera = src.camera;
            key.scene = src.scene;
            key.textured = src.textured;
            key.width = h.pic_width;
            key.height = h.pic_height;
            key.gop = c.attr.rc.gop;
            key.kbps = c.attr.rc.bit_rate;
            key.mfps = static_cast<uint32_t>(std::lround(fps * 1000));
            // The covers of the capture channel, as the encoded picture shows them.
            const std::vector<sim_cover> covers = sim_flow_vi_covers(*m, src.vi);
            const pic_size_t vi_size = sim_flow_vi_size(*m, src.vi);
            const int vw = static_cast<int>(vi_size.width), vh = static_cast<int>(vi_size.height);
            key.covers = sim_cover_digest(covers, vw, vh, static_cast<int>(key.width), static_cast<int>(key.height));
            key.cover_rects = sim_cover_scaled(covers, vw, vh, static_cast<int>(key.width), static_cast<int>(key.height));
            if (!(key == p.key) || p.loop == nullptr) {
                // A new configuration keeps the old loop playing until its own
                // is ready, then starts it from its first (IDR) picture.
                auto loop = maker_.get(key);
                if (loop != nullptr || p.loop == nullptr) {
                    p.key = key;
                    p.loop = std::move(loop);
                    p.pos = 0;
                }
            }
            const bool was_playing = p.playing;
            p.playing = p.loop != nullptr;
            if (p.playing && (!was_playing || p.fps != fps)) {
                // The cadence starts (again) now.
                p.start_us = now;
                p.base = p.seq;
            }
            p.fps = fps;
            p.camera = src.camera;
            in_use.push_back(p.key);
            producing_[chn] = p.loop != nullptr;
        }
        maker_.keep_only(in_use);
    }

    // Puts every access unit whose time has come; returns when the next one
    // is due (no later than the next look at the core).
    int64_t produce()
    {
        const int64_t now = sim_media_now_us();
        int64_t wake = now + k_max_sleep_us;
        for (int32_t chn = 0; chn < VENC_MAX_CHN_NUM; ++chn) {
            play& p = plays_[chn];
            if (!p.on || !p.playing)
                continue;
            const double period = 1e6 / p.fps;
            while (true) {
                int64_t due = p.start_us + static_cast<int64_t>(std::llround((p.seq - p.base) * period));
                if (due > now) {
                    wake = std::min(wake, due);
                    break;
                }
                put(chn, p, due);
            }
        }
        return wake;
    }

    void put(int32_t chn, play& p, int64_t due_us)
    {
        const sim_h264_loop& loop = *p.loop;
        const sim_loop_au& au = loop.aus[p.pos];
        p.pos = (p.pos + 1) % static_cast<uint32_t>(loop.aus.size());
        const uint64_t pts = sim_sys_pts_at(due_us);
        std::array<uint8_t, SIM_SEI_MAX> sei;
        size_t sei_len = sim_sei_write({static_cast<uint32_t>(p.camera), static_cast<uint32_t>(chn), p.seq, pts}, sei);
        auto part = [&](sim_loop_au::part k) {
            return std::span<const uint8_t>(loop.data.data() + au.off[k], au.len[k]);
        };
        std::array<sim_pack_in, 4> packs;
        size_t n = 0;
        if (au.idr) {
            packs[n++] = {{part(sim_loop_au::SPS), {}}, H264E_NALU_SPS};
            packs[n++] = {{part(sim_loop_au::PPS), {}}, H264E_NALU_PPS};
        }
        packs[n++] = {{std::span<const uint8_t>(sei.data(), sei_len), {}}, H264E_NALU_SEI};
        packs[n++] = {{part(sim_loop_au::SLICE), {}}, au.idr ? H264E_NALU_ISLICE : H264E_NALU_PSLICE};
        p.ring->put(std::span(packs.data(), n), pts, p.seq);
        ++p.seq;
    }

    sim_worker w_;
    bool changed_ = true;
    uint64_t seen_gen_ = 0;
    std::array<play, VENC_MAX_CHN_NUM> plays_;  // the producer thread's own
    std::array<std::atomic<bool>, VENC_MAX_CHN_NUM> producing_{};
    loop_maker maker_;
};

producer g_producer;

}  // namespace

int sim_venc_producer_open(std::string*)
{
    g_producer.start();
    return 0;
}

void sim_venc_producer_close()
{
    g_producer.stop();
}

bool sim_venc_producing(int32_t chn)
{
    return g_producer.producing(chn);
}

sim_venc_loop_counts sim_venc_loops_made()
{
    return g_producer.counts();
}
