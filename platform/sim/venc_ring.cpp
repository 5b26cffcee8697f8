// The stream buffer of a simulated encoder channel.
#include "platform/sim/venc_ring.h"

#include <cstring>

sim_venc_ring::sim_venc_ring(uint32_t size) : buf_(size) {}

void sim_venc_ring::signal_locked()
{
    ready_.set(frames_.size() > read_);
}

bool sim_venc_ring::put(std::span<const sim_pack_in> packs, uint64_t pts, uint32_t seq)
{
    uint64_t len = 0;
    for (const sim_pack_in& p : packs)
        len += p.part[0].size() + p.part[1].size();
    produced_.fetch_add(1, std::memory_order_relaxed);
    std::lock_guard lock(mutex_);
    // After a drop the pictures that referred to the dropped one cannot be
    // decoded: like an encoder that skips a picture and codes the next one
    // afresh, the ring takes nothing until the next IDR picture.
    const bool idr = !packs.empty() && packs[0].type == H264E_NALU_SPS;
    if (packs.size() > SIM_VENC_MAX_PACKS || len > buf_.size() - used_ || closed_ || (resync_ && !idr)) {
        resync_ = true;
        dropped_.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    resync_ = false;
    frame f{head_, static_cast<uint32_t>(len), pts, seq, static_cast<uint32_t>(packs.size()), {}};
    const uint32_t size = static_cast<uint32_t>(buf_.size());
    for (size_t i = 0; i < packs.size(); ++i) {
        uint32_t plen = 0;
        f.packs[i] = {head_, 0, packs[i].type};
        for (std::span<const uint8_t> part : packs[i].part) {
            if (part.empty())
                continue;
            // Copy up to the ring's end, then on from its start.
            size_t first = std::min<size_t>(part.size(), size - head_);
            std::memcpy(buf_.data() + head_, part.data(), first);
            std::memcpy(buf_.data(), part.data() + first, part.size() - first);
            head_ = static_cast<uint32_t>((head_ + part.size()) % size);
            plen += static_cast<uint32_t>(part.size());
        }
        f.packs[i].len = plen;
    }
    used_ += f.len;
    frames_.push_back(f);
    signal_locked();
    cv_.notify_all();
    return true;
}

venc_chn_stat_t sim_venc_ring::stat() const
{
    std::lock_guard lock(mutex_);
    venc_chn_stat_t s{};
    s.left_stream_bytes = used_;
    s.left_stream_frames = static_cast<uint32_t>(frames_.size() - read_);
    s.cur_packs = read_ < frames_.size() ? frames_[read_].pack_count : 0;
    return s;
}

uint32_t sim_venc_ring::get(venc_stream_t* stream, bool block)
{
    std::unique_lock lock(mutex_);
    if (block)
        cv_.wait(lock, [&] { return closed_ || frames_.size() > read_; });
    if (closed_ || frames_.size() <= read_)
        return HI_ERR_BUF_EMPTY;
    const frame& f = frames_[read_];
    if (stream->pack_count < f.pack_count)
        return HI_ERR_ILLEGAL_PARAM;
    const uint32_t size = static_cast<uint32_t>(buf_.size());
    for (uint32_t i = 0; i < f.pack_count; ++i) {
        const pack_pos& p = f.packs[i];
        venc_pack_t& out = stream->pack[i];
        out = {};
        uint32_t first = std::min(p.len, size - p.off);
        out.addr[0] = buf_.data() + p.off;
        out.len[0] = first;
        if (first < p.len) {
            out.addr[1] = buf_.data();
            out.len[1] = p.len - first;
        }
        for (int k = 0; k < 2; ++k)
            out.phy_addr[k] = out.len[k] != 0 ? static_cast<uint32_t>(reinterpret_cast<uintptr_t>(out.addr[k])) : 0;
        out.pts = f.pts;
        out.data_type = p.type;
        out.frame_end = i + 1 == f.pack_count;
    }
    stream->pack_count = f.pack_count;
    stream->seq = f.seq;
    ++read_;
    signal_locked();
    return 0;
}

uint32_t sim_venc_ring::release(const venc_stream_t* stream)
{
    std::lock_guard lock(mutex_);
    if (read_ == 0 || stream->seq != frames_.front().seq)
        return HI_ERR_ILLEGAL_PARAM;
    used_ -= frames_.front().len;
    frames_.pop_front();
    --read_;
    return 0;
}

void sim_venc_ring::close()
{
    std::lock_guard lock(mutex_);
    closed_ = true;
    cv_.notify_all();
}

void sim_venc_ring::clear()
{
    std::lock_guard lock(mutex_);
    frames_.clear();
    read_ = 0;
    used_ = 0;
    head_ = 0;
    signal_locked();
}
