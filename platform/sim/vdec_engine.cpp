#include "platform/sim/vdec_engine.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/sim/h264_decode.h"
#include "platform/sim/h264_sei.h"
#include "platform/sim/media_state.h"

namespace {

constexpr int32_t k_mod = HI_ID_VDEC;

struct slot {
    uint32_t session = 0;  // grows with every reset
    std::deque<std::vector<uint8_t>> input;
    size_t bytes = 0;      // of input, and of the unit being decoded
    std::deque<video_frame_info_t> images;  // decoded, not yet fetched
    std::vector<uint32_t> out;              // fetched, not yet released
    std::unique_ptr<sim_h264_decoder> dec;  // NULL while the worker holds it
    bool fresh = true;     // the decoder must start again
};

class engine {
public:
    void open()
    {
        std::lock_guard lock(mutex_);
        for (slot& s : slots_)
            s = {};
        stop_ = false;
        thread_ = std::thread([this] { run(); });
    }

    void close()
    {
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
        }
        work_.notify_all();
        room_.notify_all();
        image_.notify_all();
        if (thread_.joinable())
            thread_.join();
        std::lock_guard lock(mutex_);
        for (slot& s : slots_)
            s = {};
    }

    void reset(int32_t chn)
    {
        std::lock_guard lock(mutex_);
        slot& s = slots_[chn];
        ++s.session;
        s.input.clear();
        s.bytes = 0;
        s.images.clear();
        s.out.clear();
        s.fresh = true;
        room_.notify_all();
    }

    int32_t send(int32_t chn, const uint8_t* data, uint32_t len, uint32_t buf_size, int32_t wait_ms)
    {
        std::unique_lock lock(mutex_);
        slot& s = slots_[chn];
        auto has_room = [&] { return stop_ || s.bytes + len <= buf_size; };
        if (wait_ms < 0)
            room_.wait(lock, has_room);
        else
            room_.wait_for(lock, std::chrono::milliseconds(wait_ms), has_room);
        if (stop_ || s.bytes + len > buf_size)
            return hi_err(k_mod, HI_ERR_BUF_FULL);
        s.input.emplace_back(data, data + len);
        s.bytes += len;
        work_.notify_one();
        return 0;
    }

    int32_t get(int32_t chn, video_frame_info_t* frame, int32_t wait_ms)
    {
        std::unique_lock lock(mutex_);
        slot& s = slots_[chn];
        auto ready = [&] { return stop_ || !s.images.empty(); };
        if (wait_ms < 0)
            image_.wait(lock, ready);
        else
            image_.wait_for(lock, std::chrono::milliseconds(wait_ms), ready);
        if (s.images.empty())
            return hi_err(k_mod, HI_ERR_BUF_EMPTY);
        *frame = s.images.front();
        s.images.pop_front();
        s.out.push_back(frame->id);
        return 0;
    }

    int32_t release(int32_t chn, uint32_t id)
    {
        std::lock_guard lock(mutex_);
        slot& s = slots_[chn];
        auto it = std::find(s.out.begin(), s.out.end(), id);
        if (it == s.out.end())
            return hi_err(k_mod, HI_ERR_ILLEGAL_PARAM);
        s.out.erase(it);
        work_.notify_one();
        return 0;
    }

    int pending(int32_t chn)
    {
        std::lock_guard lock(mutex_);
        return static_cast<int>(slots_[chn].input.size());
    }

private:
    // A channel with a unit to decode and room for its picture, taken in
    // turn after the one served last; -1 when none.
    int next_ready()
    {
        for (int i = 1; i <= VDEC_MAX_CHN_NUM; ++i) {
            int c = (last_ + i) % VDEC_MAX_CHN_NUM;
            const slot& s = slots_[c];
            if (!s.input.empty() && s.images.size() + s.out.size() < SIM_VDEC_MAX_HELD)
                return c;
        }
        return -1;
    }

    void run()
    {
        pthread_setname_np(pthread_self(), "sim_vdec");
        // Decoding is the board's work, not the slave's: it yields the
        // processor to the slave's own threads (this thread's nice value only).
        setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 5);
        std::unique_lock lock(mutex_);
        for (;;) {
            int c = -1;
            work_.wait(lock, [&] { return stop_ || (c = next_ready()) >= 0; });
            if (stop_)
                return;
            last_ = c;
            slot& s = slots_[c];
            const uint32_t session = s.session;
            std::vector<uint8_t> au = std::move(s.input.front());
            s.input.pop_front();
            if (s.fresh || !s.dec) {
                s.dec = sim_h264_decoder_new();
                s.fresh = false;
            }
            std::unique_ptr<sim_h264_decoder> dec = std::move(s.dec);
            lock.unlock();

            sim_h264_picture pic{};
            const bool made = dec != nullptr && dec->decode(au, &pic);
            const std::optional<sim_sei> sei = made ? sim_sei_find(au) : std::nullopt;
            const bool bound = deliver(c, made, pic, sei);

            lock.lock();
            if (s.session != session)
                continue;  // reset meanwhile: the unit and the decoder are gone
            s.dec = std::move(dec);
            s.bytes -= std::min(s.bytes, au.size());
            room_.notify_all();
            if (made && !bound) {
                s.images.push_back(video_frame_info_t{pic.width, pic.height, PIXEL_FORMAT_YUV_SEMIPLANAR_420,
                                                      sei ? sei->pts : 0, next_id_++, c});
                image_.notify_all();
            }
        }
    }

    // Counts the unit on its channel and hands the picture to the group
    // bound to the channel; true when one is bound.
    static bool deliver(int32_t c, bool made, const sim_h264_picture& pic, const std::optional<sim_sei>& sei)
    {
        media_access m(media_access::read);
        sim_vdec_chn& ch = m->vdec[c];
        if (!ch.created)
            return true;  // destroyed meanwhile: the picture goes nowhere
        if (!made) {
            ++ch.undecoded;
            return true;
        }
        ++ch.pictures;
        ch.width = pic.width;
        ch.height = pic.height;
        if (sei)
            ch.last = {true, sei->camera, sei->chn, sei->seq};
        const mpp_chn_t src{HI_ID_VDEC, 0, c};
        for (const sim_binding& b : m->bindings) {
            if (!sim_same_chn(b.src, src))
                continue;
            if (b.dest.mod_id == HI_ID_VPSS && b.dest.dev_id >= 0 && b.dest.dev_id < VPSS_MAX_GRP_NUM) {
                sim_vpss_grp& g = m->vpss[b.dest.dev_id];
                if (g.created && g.started)
                    ++g.decoded;
            }
            return true;
        }
        return false;
    }

    std::mutex mutex_;
    std::condition_variable work_;   // the worker: units or room for pictures
    std::condition_variable room_;   // senders: buffer room
    std::condition_variable image_;  // fetchers: pictures
    std::array<slot, VDEC_MAX_CHN_NUM> slots_;
    int last_ = VDEC_MAX_CHN_NUM - 1;
    uint32_t next_id_ = 1;
    bool stop_ = true;
    std::thread thread_;
};

engine g_engine;

bool valid(int32_t chn)
{
    return chn >= 0 && chn < VDEC_MAX_CHN_NUM;
}

}  // namespace

void sim_vdec_engine_open()
{
    g_engine.open();
}

void sim_vdec_engine_close()
{
    g_engine.close();
}

void sim_vdec_engine_reset(int32_t chn)
{
    if (valid(chn))
        g_engine.reset(chn);
}

int32_t sim_vdec_engine_send(int32_t chn, const uint8_t* data, uint32_t len, uint32_t buf_size, int32_t wait_ms)
{
    return valid(chn) ? g_engine.send(chn, data, len, buf_size, wait_ms) : hi_err(k_mod, HI_ERR_INVALID_CHNID);
}

int32_t sim_vdec_engine_get(int32_t chn, video_frame_info_t* frame, int32_t wait_ms)
{
    return valid(chn) ? g_engine.get(chn, frame, wait_ms) : hi_err(k_mod, HI_ERR_INVALID_CHNID);
}

int32_t sim_vdec_engine_release(int32_t chn, uint32_t id)
{
    return valid(chn) ? g_engine.release(chn, id) : hi_err(k_mod, HI_ERR_INVALID_CHNID);
}

int sim_vdec_engine_pending(int32_t chn)
{
    return valid(chn) ? g_engine.pending(chn) : 0;
}
