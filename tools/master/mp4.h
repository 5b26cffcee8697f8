// Writes one H.264 stream as an MP4 file (muxed by libavformat) whose frame
// times are the ones the slave gave the frames: the record index's second
// and frame index, or the network descriptor's date and milliseconds. A
// player then shows the recording at its real speed, pauses and gaps
// included.
#pragma once

#include <cstdint>
#include <span>
#include <string>

struct AVFormatContext;
struct AVPacket;

namespace tmaster {

class mp4_file {
public:
    mp4_file() = default;
    mp4_file(const mp4_file&) = delete;
    mp4_file& operator=(const mp4_file&) = delete;
    mp4_file(mp4_file&& o) noexcept;
    mp4_file& operator=(mp4_file&& o) noexcept;
    ~mp4_file() { close(); }

    // Names the file; nothing is written before the first frame, whose
    // SPS and PPS the file's header needs. `fps` gives each frame its
    // duration: the last frame's is nowhere else, and without it the
    // file's edit list may end where the last frame begins and hide it.
    void open(std::string path, int width, int height, int fps);
    // One access unit (Annex B) at `time_us` (microseconds, any origin).
    // The first frame must be a key frame holding SPS and PPS. A time not
    // after the previous frame's is moved 1 ms past it, so the file stays
    // playable. 0, or -1 with error() set; after an error the file takes
    // no more frames.
    int append(std::span<const uint8_t> au, int64_t time_us, bool key);
    // Writes the index and closes the file; a file that never got a frame
    // is not created. 0, or -1 with error() set.
    int close();

    const std::string& error() const { return error_; }
    const std::string& path() const { return path_; }
    uint64_t frames() const { return frames_; }
    uint64_t moved() const { return moved_; }  // times moved past the previous one

private:
    int start(std::span<const uint8_t> au);
    int fail(const char* what, int averr);

    std::string path_;
    std::string error_;
    int width_ = 0;
    int height_ = 0;
    int fps_ = 0;
    AVFormatContext* ctx_ = nullptr;
    AVPacket* pkt_ = nullptr;
    bool failed_ = false;
    int64_t first_us_ = 0;
    int64_t last_ts_ = -1;  // in the stream's time base
    uint64_t frames_ = 0;
    uint64_t moved_ = 0;
};

}  // namespace tmaster
