#include "master/mp4.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

#include <cstring>
#include <utility>
#include <vector>

#include "master/h264.h"

namespace tmaster {

namespace {

constexpr AVRational k_usec{1, 1000000};
constexpr AVRational k_90khz{1, 90000};
constexpr int64_t k_moved_us = 1000;  // how far a frame without a later time is moved
constexpr int k_nal_pps = 8;

std::string av_text(int averr)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(averr, text, sizeof(text));
    return text;
}

}  // namespace

mp4_file::mp4_file(mp4_file&& o) noexcept
{
    *this = std::move(o);
}

mp4_file& mp4_file::operator=(mp4_file&& o) noexcept
{
    if (this != &o) {
        close();
        path_ = std::move(o.path_);
        error_ = std::move(o.error_);
        width_ = o.width_;
        height_ = o.height_;
        fps_ = o.fps_;
        ctx_ = std::exchange(o.ctx_, nullptr);
        pkt_ = std::exchange(o.pkt_, nullptr);
        failed_ = o.failed_;
        first_us_ = o.first_us_;
        last_ts_ = o.last_ts_;
        frames_ = o.frames_;
        moved_ = o.moved_;
    }
    return *this;
}

void mp4_file::open(std::string path, int width, int height, int fps)
{
    close();
    path_ = std::move(path);
    width_ = width;
    height_ = height;
    fps_ = fps;
    error_.clear();
    failed_ = false;
    last_ts_ = -1;
    frames_ = 0;
    moved_ = 0;
}

int mp4_file::fail(const char* what, int averr)
{
    failed_ = true;
    error_ = path_ + ": " + what;
    if (averr < 0)
        error_ += ": " + av_text(averr);
    return -1;
}

int mp4_file::start(std::span<const uint8_t> au)
{
    // The file's header carries the stream's SPS and PPS (as start-code
    // separated units, which the MP4 muxer turns into its own record).
    std::vector<uint8_t> extra;
    bool sps = false, pps = false;
    for_each_nal(au, [&](std::span<const uint8_t> nal) {
        const int type = nal[0] & 0x1f;
        if ((type == NAL_SPS && !sps) || (type == k_nal_pps && !pps)) {
            static constexpr uint8_t start_code[] = {0, 0, 0, 1};
            extra.insert(extra.end(), std::begin(start_code), std::end(start_code));
            extra.insert(extra.end(), nal.begin(), nal.end());
            (type == NAL_SPS ? sps : pps) = true;
        }
        return !(sps && pps);
    });
    if (!sps || !pps)
        return fail("the first frame holds no SPS and PPS", 0);

    av_log_set_level(AV_LOG_ERROR);
    int r = avformat_alloc_output_context2(&ctx_, nullptr, "mp4", path_.c_str());
    if (r < 0 || ctx_ == nullptr)
        return fail("no MP4 muxer", r);
    AVStream* st = avformat_new_stream(ctx_, nullptr);
    if (st == nullptr)
        return fail("no stream", AVERROR(ENOMEM));
    st->time_base = k_90khz;
    AVCodecParameters* par = st->codecpar;
    par->codec_type = AVMEDIA_TYPE_VIDEO;
    par->codec_id = AV_CODEC_ID_H264;
    par->width = width_;
    par->height = height_;
    par->extradata = static_cast<uint8_t*>(av_mallocz(extra.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (par->extradata == nullptr)
        return fail("no memory", AVERROR(ENOMEM));
    std::memcpy(par->extradata, extra.data(), extra.size());
    par->extradata_size = static_cast<int>(extra.size());
    if ((r = avio_open(&ctx_->pb, path_.c_str(), AVIO_FLAG_WRITE)) < 0)
        return fail("cannot create", r);
    if ((r = avformat_write_header(ctx_, nullptr)) < 0)
        return fail("header", r);
    pkt_ = av_packet_alloc();
    if (pkt_ == nullptr)
        return fail("no memory", AVERROR(ENOMEM));
    return 0;
}

int mp4_file::append(std::span<const uint8_t> au, int64_t time_us, bool key)
{
    if (failed_ || path_.empty())
        return -1;
    if (ctx_ == nullptr) {
        if (!key)
            return 0;  // nothing before the first key frame can be shown
        if (start(au) != 0)
            return -1;
        first_us_ = time_us;
    }
    const AVRational tb = ctx_->streams[0]->time_base;
    int64_t ts = av_rescale_q(time_us - first_us_, k_usec, tb);
    if (ts <= last_ts_) {
        ts = last_ts_ + std::max<int64_t>(1, av_rescale_q(k_moved_us, k_usec, tb));
        ++moved_;
    }
    av_packet_unref(pkt_);
    pkt_->data = const_cast<uint8_t*>(au.data());
    pkt_->size = static_cast<int>(au.size());
    pkt_->pts = ts;
    pkt_->dts = ts;
    pkt_->duration = fps_ > 0 ? av_rescale_q(1, AVRational{1, fps_}, tb) : 0;
    pkt_->flags = key ? AV_PKT_FLAG_KEY : 0;
    pkt_->stream_index = 0;
    int r = av_write_frame(ctx_, pkt_);
    // The packet only lent the frame's bytes.
    pkt_->data = nullptr;
    pkt_->size = 0;
    if (r < 0)
        return fail("write", r);
    last_ts_ = ts;
    ++frames_;
    return 0;
}

int mp4_file::close()
{
    int rc = 0;
    if (ctx_ != nullptr) {
        if (!failed_ && frames_ > 0) {
            int r = av_write_trailer(ctx_);
            if (r < 0)
                rc = fail("index", r);
        }
        if (ctx_->pb != nullptr)
            avio_closep(&ctx_->pb);
        avformat_free_context(ctx_);
        ctx_ = nullptr;
    }
    av_packet_free(&pkt_);
    return failed_ ? -1 : rc;
}

}  // namespace tmaster
