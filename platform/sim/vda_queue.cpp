// The result buffers of a simulated motion-detection channel.
#include "platform/sim/vda_queue.h"

namespace {

// The unit pads every row of cells to a multiple of 16 bytes and leaves 16
// more, so a reader that ignores the stride reads the wrong cells.
uint32_t stride_of(uint32_t cells_w)
{
    return (cells_w + 15) / 16 * 16 + 16;
}

}  // namespace

sim_vda_queue::sim_vda_queue(uint32_t buffers, uint32_t cells_w, uint32_t cells_h)
    : buffers_(buffers),
      cells_w_(cells_w),
      cells_h_(cells_h),
      stride_(stride_of(cells_w))
{
}

void sim_vda_queue::signal_locked()
{
    ready_.set(held_.size() > read_);
}

bool sim_vda_queue::put(std::vector<uint8_t> cells, uint64_t pts)
{
    std::lock_guard lock(mutex_);
    results_.fetch_add(1, std::memory_order_relaxed);
    const uint32_t seq = seq_++;
    if (closed_ || held_.size() >= buffers_ || cells.size() < static_cast<size_t>(stride_) * cells_h_) {
        dropped_.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    held_.push_back({std::move(cells), pts, seq});
    signal_locked();
    cv_.notify_all();
    return true;
}

uint32_t sim_vda_queue::get(vda_data_t* data, bool block)
{
    std::unique_lock lock(mutex_);
    if (block)
        cv_.wait(lock, [&] { return closed_ || held_.size() > read_; });
    if (closed_ || held_.size() <= read_)
        return HI_ERR_BUF_EMPTY;
    result& r = held_[read_];
    *data = {};
    data->mb_width = cells_w_;
    data->mb_height = cells_h_;
    data->mb_sad_addr = r.cells.data();
    data->stride = stride_;
    data->pts = r.pts;
    data->sad_bits = VDA_MB_SAD_8BIT;
    data->seq = r.seq;
    ++read_;
    signal_locked();
    return 0;
}

uint32_t sim_vda_queue::release(const vda_data_t* data)
{
    std::lock_guard lock(mutex_);
    if (read_ == 0 || data->mb_sad_addr != held_.front().cells.data() || data->seq != held_.front().seq)
        return HI_ERR_ILLEGAL_PARAM;
    held_.pop_front();
    --read_;
    return 0;
}

void sim_vda_queue::close()
{
    std::lock_guard lock(mutex_);
    closed_ = true;
    cv_.notify_all();
}
