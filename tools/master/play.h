// `tarvo-master play`: a recorder playing back what it recorded. It reads
// the .h264 files `record` wrote, builds playback records from them
// (frames, lengths, offsets, key and show marks, skip-show, the no-record
// mask), hands them to a slave on port 107 as 0x70000 / 0x70001 transfers,
// measures how long the slave holds each answer, and compares the pictures
// the board decoded per camera (its media.json) with the frames sent.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace tmaster {

class master;

// ---- the playback record ------------------------------------------------------

inline constexpr int PLAY_MAX_FRAMES = 240;
inline constexpr size_t PLAY_HEADER = 12008;
inline constexpr uint32_t PLAY_ONE = 0x70000;
inline constexpr uint32_t PLAY_TWO = 0x70001;

// The record's index as the slave reads it, little-endian.
struct play_record_t {
    uint8_t reserved0[4];
    int32_t num_vdec;
    int32_t cam[PLAY_MAX_FRAMES];
    uint8_t reserved968[960];
    int32_t len[PLAY_MAX_FRAMES];
    uint8_t reserved2888[960];
    uint8_t reserved3848[1920];
    int16_t width[PLAY_MAX_FRAMES];
    int16_t height[PLAY_MAX_FRAMES];
    uint8_t show[PLAY_MAX_FRAMES];
    uint8_t key[PLAY_MAX_FRAMES];
    uint8_t quality[PLAY_MAX_FRAMES];
    uint8_t fps[PLAY_MAX_FRAMES];
    int32_t off[PLAY_MAX_FRAMES];
    uint8_t reserved8648[3284];
    uint32_t norec;
    int32_t year, mon, mday;
    uint8_t reserved11948[24];
    int32_t skip_show;
    uint8_t reserved11976[20];
    int32_t buf_off;
    int32_t buf_size;
    uint8_t buf[4];
};
static_assert(sizeof(play_record_t) == PLAY_HEADER);
static_assert(offsetof(play_record_t, len) == 1928);
static_assert(offsetof(play_record_t, width) == 5768);
static_assert(offsetof(play_record_t, show) == 6728);
static_assert(offsetof(play_record_t, key) == 6968);
static_assert(offsetof(play_record_t, fps) == 7448);
static_assert(offsetof(play_record_t, off) == 7688);
static_assert(offsetof(play_record_t, norec) == 11932);
static_assert(offsetof(play_record_t, skip_show) == 11972);
static_assert(offsetof(play_record_t, buf_off) == 11996);
static_assert(offsetof(play_record_t, buf) == 12004);

struct play_frame {
    int camera = 0;  // recorder-wide
    bool key = false;
    bool show = true;
    uint16_t width = 0;
    uint16_t height = 0;
    uint8_t fps = 0;
    uint8_t quality = 0;
    std::span<const uint8_t> au;
};

// The bytes of one record holding frames (at most 240), data back to back.
std::vector<uint8_t> build_play_record(std::span<const play_frame> frames, int skip_show, uint32_t norec);

// The access units of a recorded Annex B stream: each begins with an SPS
// (key frame) or with an SEI that follows no parameter set.
std::vector<std::span<const uint8_t>> split_access_units(std::span<const uint8_t> stream);

// ---- the command --------------------------------------------------------------

struct play_options {
    std::string board;      // absolute path; created when missing
    std::string slave;      // the slave program
    std::string recording;  // the folder `record` wrote
    int chip = 1;
    int cam_base = 0;
    int cameras = 4;        // played cameras cam_base ..
    int slave_cam = 8;
    int num_vin = 8;
    uint16_t width = 1920;   // the recorded main streams' picture size
    uint16_t height = 1080;
    int frames_per_record = 60;
    bool two_per_transfer = true;  // 0x70001 where two records fit
    int skip_show = 0;             // non-zero: only every show_every-th frame is marked
    int show_every = 2;
    int max_frames = 0;            // per camera; 0: all
    // The recording is sent again from its first key frames until it went
    // out `repeat` times and the sending lasted `at_least`.
    int repeat = 1;
    std::chrono::milliseconds at_least{0};
    std::chrono::milliseconds settle{15000};  // for the board to decode what was sent
    // Before sending: how long to watch the started slave idle (its own
    // threads' processor time then is their cost without playback).
    std::chrono::milliseconds idle{0};
    FILE* progress = nullptr;
};

struct play_camera {
    int camera = 0;
    uint64_t frames_sent = 0;  // from the first key frame on
    uint64_t shown_sent = 0;   // marked for display
    uint32_t last_seq_sent = 0;
    uint16_t width = 0, height = 0;
    // From the board's media.json (decoder channel camera - cam_base).
    uint64_t pictures = 0;
    bool have_last = false;
    uint32_t last_seq = 0;
    uint32_t dec_width = 0, dec_height = 0;
    uint64_t user_frames = 0;  // of the camera's playback group
};

struct play_summary {
    int rc = 0;
    std::string error;
    uint64_t transfers = 0, records = 0, bytes = 0;
    double seconds = 0;       // sending
    double max_hold_ms = 0;   // the longest answer
    uint64_t held = 0;        // answers held 50 ms or more
    uint64_t refused = 0;     // answers with a non-zero result
    size_t slave_rss_kb_max = 0;
    double slave_cpu_s = 0;   // the slave process's processor time while sending and settling
    double slave_own_cpu_s = 0;  // of it, the threads not named sim* (the slave's own work)
    double cpu_window_s = 0;     // over which the two above were measured (sending and settling)
    double idle_own_cpu_s = 0;   // the slave's own threads over options.idle, before sending
    std::vector<double> hold_ms;      // each answer's wait, in sending order
    std::vector<size_t> rss_kb;       // the slave's VmRSS once a second while sending
    // Decoding as the board's media.json showed it while sending and
    // settling: pictures of all channels, and their rate between the
    // first and the last change seen.
    uint64_t pictures = 0;
    double pictures_per_s = 0;
    std::vector<play_camera> cameras;
};

play_summary play(const play_options& o);

// The master's playback commands (payload word 0; words 1 and 2 are 0).
inline constexpr uint32_t PLAY_START = 0x20401;  // HSCC_CAL_3531_decstart: 0 stop, else start
inline constexpr uint32_t PLAY_FLUSH = 0x20402;  // HSCC_CAL_3531_flush
// Starts the slave of o.chip as play does (slave, ports, DMA windows,
// playback started); its pid, or -1 with err set.
pid_t start_playback(master& m, const play_options& o, std::string* err);
// Sends a playback command and waits for its answer: the answer's result,
// or -1 when none came.
int play_command(master& m, int chip, uint32_t cmd, int32_t word0);
void print_play_summary(FILE* out, const play_summary& s);

// The board's decoder channels and groups as media.json shows them: for
// channel k, its pictures, last SEI sequence and picture size.
struct media_vdec {
    int chn = -1;
    uint64_t pictures = 0;
    uint64_t refused = 0;    // streams the channel refused
    uint64_t undecoded = 0;  // units it took that gave no picture
    bool have_last = false;
    uint32_t camera = 0, seq = 0;
    uint32_t width = 0, height = 0;
};
std::vector<media_vdec> read_media_vdec(const std::string& media_json);
// user_frames of processing group grp; 0 when absent.
uint64_t read_media_user_frames(const std::string& media_json, int grp);

// Processor time of process pid in seconds (user + system, threads alive
// now): all threads, or only those whose name does not begin with "sim".
double proc_cpu_s(pid_t pid, bool own_only);
// Processor time of each live thread of process pid in seconds, by thread
// name (threads of one name summed).
std::map<std::string, double> proc_thread_cpu_s(pid_t pid);
// VmRSS of process pid in kB; 0 when unknown.
size_t proc_rss_kb(pid_t pid);
// A kB field of /proc/<pid>/status ("VmHWM:", "RssAnon:", ...); 0 when
// unknown.
size_t proc_status_kb(pid_t pid, const std::string& field);

// The board's encoder channels as media.json shows them, summed.
struct media_venc_totals {
    int channels = 0;
    uint64_t produced = 0;
    uint64_t dropped = 0;  // pictures the channels dropped for want of room
};
media_venc_totals read_media_venc(const std::string& media_json);

}  // namespace tmaster
