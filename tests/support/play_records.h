// Test support for playback end to end: a recorded camera stream cut into
// playback records as a master builds them, and the wait for a decoder
// channel to show what was sent.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "master/h264.h"
#include "master/play.h"
#include "master/record.h"
#include "tests/support/test_board.h"

// A suite whose tests play back one recording: a slave of Cameras cameras
// records REC at Width x Height and Fps for 6 s once for the whole suite;
// each test plays it on a board of its own.
template <int Cameras, uint16_t Width, uint16_t Height, int Fps>
class recorded_playback_test : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        recorded_ = new temp_board_dir;
        recorded_->share_cache();
        tmaster::record_options o;
        o.board = recorded_->path();
        o.slave = TARVO_SLAVE_BINARY;
        o.plan.slaves.push_back({1, 0, Cameras, Cameras});
        o.plan.rec = {Width, Height, Fps, 2, 1};
        o.plan.out = recorded_->file("rec");
        o.seconds = 6;
        summary_ = tmaster::record(o).rc;
    }
    static void TearDownTestSuite()
    {
        delete recorded_;
        recorded_ = nullptr;
    }

    tmaster::play_options options(const temp_board_dir& board) const
    {
        tmaster::play_options o;
        o.board = board.path();
        o.slave = TARVO_SLAVE_BINARY;
        o.recording = recorded_->file("rec");
        o.cameras = Cameras;
        o.slave_cam = Cameras;
        o.num_vin = Cameras;
        o.width = Width;
        o.height = Height;
        return o;
    }

    static inline temp_board_dir* recorded_ = nullptr;
    static inline int summary_ = -1;
};

// One camera's access units from its first key frame on.
struct recorded_stream {
    std::vector<uint8_t> bytes;
    std::vector<std::span<const uint8_t>> aus;
    std::vector<uint32_t> seq;
};

inline recorded_stream read_stream(const std::string& path)
{
    recorded_stream r;
    const std::string text = read_file(path);
    r.bytes.assign(text.begin(), text.end());
    for (std::span<const uint8_t> au : tmaster::split_access_units(r.bytes)) {
        if (r.aus.empty() && tmaster::first_nal_type(au) != tmaster::NAL_SPS)
            continue;
        r.aus.push_back(au);
        std::optional<tmaster::frame_sei> sei = tmaster::find_frame_sei(au);
        r.seq.push_back(sei ? sei->seq : 0);
    }
    return r;
}

// Records of `per` frames of one camera, frames [from, to) of its stream.
inline std::vector<std::vector<uint8_t>> records_of(const recorded_stream& st, int camera, uint16_t width,
                                                   uint16_t height, size_t from, size_t to, size_t per)
{
    std::vector<std::vector<uint8_t>> out;
    std::vector<tmaster::play_frame> frames;
    for (size_t i = from; i < to; ++i) {
        tmaster::play_frame f;
        f.camera = camera;
        f.key = tmaster::first_nal_type(st.aus[i]) == tmaster::NAL_SPS;
        f.width = width;
        f.height = height;
        f.fps = 30;
        f.quality = 2;
        f.au = st.aus[i];
        frames.push_back(f);
        if (frames.size() == per || i + 1 == to) {
            out.push_back(tmaster::build_play_record(frames, 0, 0));
            frames.clear();
        }
    }
    return out;
}

// Decoder channel chn as media.json shows it; chn -1 when it has none.
inline tmaster::media_vdec media_channel(const std::string& media, int chn)
{
    for (const tmaster::media_vdec& d : tmaster::read_media_vdec(media))
        if (d.chn == chn)
            return d;
    return {};
}

// Waits until decoder channel chn shows `pictures` pictures and last
// sequence number seq; the channel as last seen.
inline tmaster::media_vdec wait_channel(const std::string& media, int chn, uint64_t pictures, uint32_t seq,
                                        std::chrono::milliseconds limit)
{
    tmaster::media_vdec seen;
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        seen = media_channel(media, chn);
        if (seen.pictures == pictures && seen.have_last && seen.seq == seq)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return seen;
}

