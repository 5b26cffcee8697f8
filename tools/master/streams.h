// The streams a recorder receives, checked and written to files.
//
// A stream is one camera's recording (REC), low recording (REC LOW), low
// network (NET LOW), recording copy or network stream of one slave. Record
// buffers carry REC and REC LOW frames (told apart by the entry's `low`);
// network batches carry the others, told apart by the stream number:
// camera for NET, camera + num_vin for NET LOW, camera + 2 * num_vin for the
// recording copy.
//
// What is checked, stream by stream, counted from the stream's first key
// frame (frames before it are not kept):
//  - the frame SEI of every access unit: its camera is the stream's camera
//    (a frame of any other camera is foreign and not kept), its encoder
//    channel the stream's, its sequence number one above the previous one
//    (else frames were lost, repeated or reordered);
//  - the record index: each frame's second (mmd_time, sec_of_day, mmd_mday,
//    against the master's clock), its frame index below the system frame
//    rate, its slot index (frame rate x second of the day + frame index)
//    increasing, its key flag equal to "the first NAL unit is an SPS", its
//    picture settings the configured ones; per buffer: at most 479 frames,
//    one minute of the clock, frames within 1 s (main slot) or 4 s (low
//    slot) of the first, main and low frames never mixed;
//  - the network descriptors: date and time against the master's clock,
//    time increasing, key flag, sizes and rate, the stream number naming a
//    stream of the slave whose camera the SEI carries.
// Every finding is a violation of its stream (or of the recorder when it
// names no stream) and is listed in the summary.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "master/h264.h"
#include "master/mp4.h"
#include "master/parse.h"

namespace tmaster {

struct notification;

enum class stream_type : uint8_t { rec, reclow, netlow, copy, net };
const char* stream_type_name(stream_type t);  // "rec", "reclow", "netlow", "copy", "net"

struct stream_key {
    int chip;
    int camera;  // recorder-wide
    stream_type type;
    auto operator<=>(const stream_key&) const = default;
};

// The settings a stream was configured with.
struct stream_setting {
    uint16_t width = 0;
    uint16_t height = 0;
    uint8_t fps = 0;
    uint8_t quality = 0;
    uint8_t attr = 0;
};

struct slave_plan {
    int chip = 1;
    int cam_base = 0;
    int cameras = 8;
    int num_vin = 8;
};

// A privacy mask the recorder sets: a rectangle in fractions of the picture.
struct mask_plan {
    int camera = 0;  // recorder-wide
    double x = 0, y = 0, w = 0, h = 0;
};

// A camera that differs from the recorder's defaults.
struct camera_plan {
    int camera = 0;  // recorder-wide
    // Its capture format (HSCC_CAL_SetVincaps); 0 x 0: no input, so no
    // stream of it is expected.
    uint16_t xres = 1920;
    uint16_t yres = 1080;
    bool rec = true;  // REC and its copy switched on
};

struct record_plan {
    std::vector<slave_plan> slaves;
    std::vector<camera_plan> cameras;  // the cameras not listed take the defaults
    int md_threshold = 10;         // every camera's motion threshold; -1: not set
    std::vector<mask_plan> masks;  // set after the cameras' formats
    int sys_fps = 30;  // the update's system frame rate
    stream_setting rec{1920, 1080, 30, 2, 1};
    stream_setting rec_low{704, 576, 15, 2, 1};
    stream_setting net_low{352, 288, 15, 2, 1};
    bool copy = true;  // the recording copy is switched on
    std::string out;   // output folder; empty: no files
    // The time overlay on REC: the glyph strip is sent and the overlay
    // switched on with this date order and clock.
    bool overlay = true;
    int date_fmt = 0;
    int hour12 = 0;
    // Every camera's JPEG switch (run-video kind 2) at set-up.
    bool jpeg_switch = true;

    camera_plan camera(int cam) const;  // its override, or the defaults
    bool has_input(int cam) const;      // a capture format of some size
};

// Appends access units to an Annex B file, in the order given.
class h264_file {
public:
    int open(const std::string& path, std::string* err);
    int append(std::span<const uint8_t> au);  // 0, or -1 when the write failed
    void close();
    bool is_open() const { return f_ != nullptr; }

private:
    struct closer {
        void operator()(FILE* f) const { std::fclose(f); }
    };
    std::unique_ptr<FILE, closer> f_;
};

inline constexpr size_t PROBLEMS_KEPT = 50;  // listed per stream; all are counted

// A list of problems: every one counted, the first PROBLEMS_KEPT kept.
struct problem_list {
    uint64_t count = 0;
    std::vector<std::string> kept;
    void add(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
};

// One stream's checks and counts.
class stream_check {
public:
    stream_check(stream_key key, stream_setting want, uint32_t chn) : key_(key), want_(want), chn_(chn) {}

    // One access unit with the key flag its index or descriptor gives.
    // Returns true when the frame belongs to the stream from its first key
    // frame on and is to be kept.
    bool take(std::span<const uint8_t> au, bool key_flag, double arrival_s);
    // The frame's position: increasing within one day.
    void position(uint32_t day, uint64_t pos, const char* what);
    // The frame's picture settings against the configured ones.
    void settings(uint16_t width, uint16_t height, uint8_t fps, int quality, int attr);

    problem_list& problems() { return problems_; }
    const problem_list& problems() const { return problems_; }

    stream_key key_;
    stream_setting want_;
    uint32_t chn_;  // the encoder channel its SEI names
    bool started = false;
    uint64_t frames = 0;  // kept
    uint64_t key_frames = 0;
    uint64_t bytes = 0;
    uint64_t before_key = 0;  // frames before the first key frame
    uint64_t lost = 0;
    uint64_t gaps = 0;          // runs of lost frames
    uint64_t gaps_off_key = 0;  // gaps after which the stream went on without a key frame
    uint64_t repeated = 0;
    uint64_t reordered = 0;
    uint64_t foreign = 0;  // frames of another camera
    uint64_t no_sei = 0;
    uint32_t first_seq = 0;
    uint32_t last_seq = 0;
    uint64_t first_pts = 0;
    uint64_t last_pts = 0;
    bool last_sei = false;  // the frame last kept carried the frame SEI (its pts is last_pts)
    double first_arrival = 0;
    double last_arrival = 0;

private:
    problem_list problems_;
    bool have_seq_ = false;
    bool have_pos_ = false;
    uint32_t pos_day_ = 0;
    uint64_t pos_ = 0;
};

// A stream's frames and bytes in one second of the frames' own time.
struct rate_point {
    int64_t second = 0;  // seconds since the epoch
    uint32_t frames = 0;
    uint64_t bytes = 0;
};

struct stream_summary {
    stream_key key{};
    std::string file;  // relative to the output folder; empty when none
    std::string mp4;   // the same frames as MP4, at their own times; empty when none
    std::vector<rate_point> rate;  // second by second, seconds without frames left out
    stream_setting want;
    uint64_t frames = 0, key_frames = 0, bytes = 0;
    double seconds = 0;     // from the first kept frame to the last, one period included
    double frame_rate = 0;  // frames / seconds
    double kbps = 0;        // kbit/s over the same time
    uint64_t before_key = 0, lost = 0, repeated = 0, reordered = 0, foreign = 0, no_sei = 0;
    uint64_t gaps = 0, gaps_off_key = 0;  // runs of lost frames; those not followed by a key frame
    uint32_t first_seq = 0, last_seq = 0;
    uint64_t violations = 0;
    std::vector<std::string> problems;
};

// One snapshot as the recorder received it.
struct snapshot_record {
    int chip = 0;
    int camera = 0;        // recorder-wide, the batch's stream number
    uint32_t jpg_on = 0;   // the descriptor's JPEG switch
    uint32_t time = 0;     // the descriptor's time (slave clock)
    uint32_t len = 0;
    double arrival = 0;    // master's wall clock, seconds since the epoch
    std::string file;      // relative to the output folder; empty when none
};

// One snapshot transfer (a 0x60000 notification).
struct snapshot_transfer {
    int chip = 0;
    double arrival = 0;  // master's wall clock, seconds since the epoch
    uint32_t pictures = 0;
    uint32_t bytes = 0;
    std::vector<int> cameras;  // in the batch's order
};

// One HSCC_CAL_GetStatus poll of a slave during the recording.
struct status_sample {
    int chip = 0;
    double at = 0;    // master's wall clock, seconds since the epoch
    bool ok = false;  // answered; st holds the reply
    status_t st{};
};

struct record_summary {
    int rc = 0;          // 0: set up, recorded and every stream delivered
    std::string error;   // why rc is not 0
    std::string out;
    int seconds = 0;     // counted after every stream had begun
    double waited_s = 0; // for the streams' first key frames
    uint64_t record_buffers = 0;
    uint64_t network_batches = 0;
    std::vector<stream_summary> streams;
    uint64_t violations = 0;            // of the recorder itself
    std::vector<std::string> problems;  // its own, then nothing of the streams'
    uint64_t motion_reports = 0;
    std::string motion_log;               // relative to out; empty when none
    std::vector<std::string> motion_maps;  // heat maps, relative to out
    std::vector<snapshot_record> snapshots;  // in arrival order
    std::vector<snapshot_transfer> snapshot_transfers;
    // The recording window after every stream had begun, on the master's
    // wall clock (seconds since the epoch); 0 when it never began.
    double began_at = 0;
    double ended_at = 0;
    std::vector<slave_plan> slaves;      // as planned
    std::vector<mask_plan> masks;        // as set
    std::vector<status_sample> status;   // once a second while recording
    std::string report;                  // the report page, relative to out; empty when none
    // Network frames (NET, NET LOW, the recording copy) received in the
    // recording window: the time from the encoder's time stamp (the frame
    // SEI) to the frame in the master's file, on the master's wall clock.
    uint64_t net_latency_frames = 0;
    double net_latency_p50_ms = 0;
    double net_latency_p99_ms = 0;

    uint64_t all_violations() const;
    // Snapshots of a camera that arrived within [from, to].
    size_t snapshots_of(int chip, int camera, double from, double to) const;
    const stream_summary* find(int chip, int camera, stream_type t) const;
};

// Writes the summary as JSON.
std::string summary_json(const record_summary& s);
// Prints the summary as a table with every listed problem.
void print_record_summary(FILE* out, const record_summary& s);

// Receives the slaves' record buffers and network batches, checks them and
// writes each stream's frames to its file. Thread-safe: take() runs on the
// master's event thread, progress() and summary() on any other.
class recorder {
public:
    explicit recorder(record_plan plan);

    // Creates the output folder and one file per configured stream:
    // <out>/slave<chip>/cam<NN>-<rec|reclow|netlow|copy>.h264, and names
    // its MP4 twin (.mp4), written from the stream's first key frame on.
    int open(std::string* err);
    // The master's notification callback.
    void take(const notification& n, std::span<const uint8_t> written);
    void take_record(int chip, const record_batch& b, std::span<const uint8_t> written, double now_s);
    void take_network(int chip, const network_batch& b, std::span<const uint8_t> written, double now_s);
    // Keeps every snapshot as <out>/slave<chip>/snap/cam<NN>-<time>.jpg.
    void take_jpeg(int chip, const jpeg_batch& b, std::span<const uint8_t> written, double arrival);
    void finish();  // closes the files (the MP4 files get their index)
    // Network frames arriving from wall_s on (seconds since the epoch) are
    // timed from their encoder's time stamp to the master's file.
    void time_network_from(double wall_s);

    // A camera whose REC runs on an input sends snapshots too: they count as
    // one more stream, begun with its first snapshot.
    struct progress_t {
        size_t started = 0;   // configured streams past their first key frame or snapshot
        size_t expected = 0;  // configured streams
        uint64_t frames = 0;
        uint64_t bytes = 0;
        uint64_t violations = 0;
    };
    progress_t progress() const;
    record_summary summary() const;
    const record_plan& plan() const { return plan_; }
    // The cameras, {chip, camera}, whose snapshots have not begun.
    std::vector<std::pair<int, int>> snapshots_missing() const;

private:
    struct stream_state {
        stream_check check;
        h264_file file;
        std::string rel;
        bool configured = false;
        mp4_file mp4;
        std::map<int64_t, rate_point> rate;  // by second
    };
    const slave_plan* slave_of(int chip) const;
    stream_state* stream_locked(const stream_key& k);
    // Keeps a checked frame with its own time (microseconds since the epoch).
    void keep_locked(stream_state& s, std::span<const uint8_t> au, int64_t time_us, bool key);
    stream_setting setting_of(stream_type t) const;
    uint32_t chn_of(const slave_plan& p, int camera, stream_type t) const;

    record_plan plan_;
    mutable std::mutex mu_;
    std::map<stream_key, stream_state> streams_;
    problem_list problems_;
    uint64_t record_buffers_ = 0;
    uint64_t network_batches_ = 0;
    uint64_t snapshots_kept_ = 0;
    std::vector<snapshot_record> snapshots_;
    std::vector<snapshot_transfer> snapshot_transfers_;
    std::map<std::pair<int, int>, bool> snapshots_begun_;  // {chip, camera}: expected ones
    bool write_failed_ = false;
    double latency_from_ = -1;            // not timing while negative
    std::vector<uint32_t> net_latency_us_;  // of the timed network frames
};

// The checks of one record buffer as a whole (count, minute, span, mixing).
// Its findings go to every stream in it: they are returned.
std::vector<std::string> check_record_buffer(const record_batch& b);
// One entry's time fields, with the master's clock at `now_s`; the problems
// are appended.
void check_entry_time(const record_frame& f, int sys_fps, double now_s, std::vector<std::string>& out);
// One network descriptor's time fields against the master's clock.
void check_desc_time(const nbuf_desc_t& d, double now_s, std::vector<std::string>& out);
// The descriptor's time in seconds since the epoch (its date at local
// midnight plus its milliseconds), or -1 when its date is no date.
double desc_time_s(const nbuf_desc_t& d);
// A record entry's time in microseconds since the epoch: its second plus
// the frame index's slot of the system frame rate.
int64_t record_time_us(const record_frame& f, int sys_fps);

}  // namespace tmaster
