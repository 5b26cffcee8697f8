// Snapshots and the time overlay end to end: one slave of 8 cameras
// recorded by the master emulator. Every camera whose REC runs sends about
// one JPEG per second, each decoding to the camera's capture size; a camera
// whose REC is off and one without input send none; the descriptors' JPEG
// switch follows run-video kind 2; no transfer holds more than 9 pictures or
// 2096127 bytes. The overlay read back from the board shows the master's
// glyphs spelling the slave's date and time at the bottom left of the REC
// picture. On textured cameras, whose pictures are as large as a real
// camera's, a pass beyond 2096127 bytes goes as two transfers.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <optional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#ifdef TARVO_SIM_LIBJPEG
#include <jpeglib.h>
#endif

#include "master/master.h"
#include "master/overlay.h"
#include "master/record.h"
#include "tests/support/test_board.h"

using namespace tmaster;

namespace {

constexpr int SECONDS = 16;
// Snapshots per camera in the recording window, and pictures taken with the
// JPEG switch off and on. The sanitizers slow the slave's threads several
// times over: there a pass takes longer than a second.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int SNAPSHOTS_AT_LEAST = SECONDS / 4;
constexpr size_t EACH_SWITCH_AT_LEAST = 1;
// The encoder thread draws the overlay between its reads; on a loaded host
// under the thread sanitizer it can run seconds behind.
constexpr time_t OVERLAY_LAG_S = 15;
#else
constexpr int SNAPSHOTS_AT_LEAST = SECONDS - 3;
constexpr size_t EACH_SWITCH_AT_LEAST = 3;
constexpr time_t OVERLAY_LAG_S = 4;
#endif

std::vector<uint8_t> slurp(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

// Width and height of a JPEG that decodes whole; {0, 0} when it does not.
std::pair<int, int> jpeg_size(const std::vector<uint8_t>& j)
{
#ifdef TARVO_SIM_LIBJPEG
    struct failing_error_mgr {
        jpeg_error_mgr base;
        jmp_buf back;
    };
    jpeg_decompress_struct d{};
    failing_error_mgr err{};
    d.err = jpeg_std_error(&err.base);
    err.base.error_exit = [](j_common_ptr c) { longjmp(reinterpret_cast<failing_error_mgr*>(c->err)->back, 1); };
    err.base.emit_message = [](j_common_ptr c, int level) {
        if (level < 0)  // a warning: corrupt data the library went past
            longjmp(reinterpret_cast<failing_error_mgr*>(c->err)->back, 1);
    };
    std::pair<int, int> size{0, 0};
    std::vector<uint8_t> row;
    if (setjmp(err.back) == 0) {
        jpeg_create_decompress(&d);
        jpeg_mem_src(&d, j.data(), static_cast<unsigned long>(j.size()));
        if (jpeg_read_header(&d, TRUE) == JPEG_HEADER_OK && jpeg_start_decompress(&d)) {
            row.resize(static_cast<size_t>(d.output_width) * d.output_components);
            JSAMPROW rows[1] = {row.data()};
            while (d.output_scanline < d.output_height)
                jpeg_read_scanlines(&d, rows, 1);
            jpeg_finish_decompress(&d);
            size = {static_cast<int>(d.output_width), static_cast<int>(d.output_height)};
        }
    } else {
        size = {0, 0};
    }
    jpeg_destroy_decompress(&d);
    return size;
#else
    (void)j;
    return {0, 0};
#endif
}

std::string expected_line(time_t t)
{
    struct tm tm;
    localtime_r(&t, &tm);
    char date[16], clock[16], line[40];
    std::strftime(date, sizeof(date), "%m/%d/%Y", &tm);
    const int h = tm.tm_hour % 12 == 0 ? 12 : tm.tm_hour % 12;
    std::snprintf(clock, sizeof(clock), "%s %02d:%02d:%02d", tm.tm_hour > 11 ? "PM" : "AM", h, tm.tm_min, tm.tm_sec);
    std::snprintf(line, sizeof(line), "%s %s", date, clock);
    return line;
}

// Cameras of the run: 1 has its REC off, 2 no input (0 x 0), 3 a smaller
// capture format; the others are as a recorder sets them.
constexpr int REC_OFF = 1;
constexpr int NO_INPUT = 2;
constexpr int SMALL = 3;
constexpr int SMALL_W = 704;
constexpr int SMALL_H = 576;
// Every JPEG switch is off at set-up and goes on in this second.
constexpr int SWITCH_ON_AT = 7;

double wall_now()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

TEST(snapshot_e2e, cameras_with_rec_send_a_jpeg_a_second_of_their_size_and_burn_in_the_time)
{
    temp_board_dir board;
    board.share_cache();
    temp_board_dir out;
    record_options o;
    o.board = board.path();
    o.slave = TARVO_SLAVE_BINARY;
    o.plan.out = out.path();
    o.plan.slaves = {{1, 0, 8, 8}};
    o.plan.cameras = {{REC_OFF, 1920, 1080, false}, {NO_INPUT, 0, 0, true}, {SMALL, SMALL_W, SMALL_H, true}};
    o.plan.jpeg_switch = false;
    o.plan.date_fmt = 1;
    o.plan.hour12 = 1;
    o.seconds = SECONDS;
    o.first_key_wait = std::chrono::milliseconds(120000);
    o.progress = stderr;
    // The JPEG switch of every camera goes on while the snapshots run.
    double switch_asked = 0, switch_done = 0;
    std::vector<std::string> switch_failed;
    o.every_second = [&](master& m, int second) {
        if (second != SWITCH_ON_AT)
            return;
        switch_asked = wall_now();
        for (uint32_t cam = 0; cam < 8; ++cam) {
            auto r = m.run_enc_video(1, {KIND_JPEG, cam, 1, 0}, std::chrono::milliseconds(5000));
            if (!r || *r != 0)
                switch_failed.push_back("camera " + std::to_string(cam));
        }
        switch_done = wall_now();
    };

    record_summary s = record(o);
    const time_t ended = std::time(nullptr);
    ASSERT_EQ(s.rc, 0) << s.error;
    EXPECT_TRUE(switch_failed.empty()) << "run-video JPEG on refused for " << switch_failed.front();
    ASSERT_GT(switch_done, 0);

    // Every camera whose REC runs on an input: about one snapshot a second
    // (the window begins after every such camera's first); the others none
    // at all.
    std::map<int, std::vector<const snapshot_record*>> per_cam;
    for (const snapshot_record& r : s.snapshots) {
        EXPECT_EQ(r.chip, 1);
        per_cam[r.camera].push_back(&r);
    }
    const double window = s.ended_at - s.began_at;
    size_t fewest = SIZE_MAX, most = 0;
    for (int cam = 0; cam < 8; ++cam) {
        SCOPED_TRACE("camera " + std::to_string(cam));
        const size_t n = s.snapshots_of(1, cam, s.began_at, s.ended_at);
        if (cam == REC_OFF || cam == NO_INPUT) {
            EXPECT_EQ(per_cam[cam].size(), 0u);
            continue;
        }
        fewest = std::min(fewest, n);
        most = std::max(most, n);
        EXPECT_GE(n, static_cast<size_t>(SNAPSHOTS_AT_LEAST));
        EXPECT_LE(static_cast<double>(n), window + 1);
        const std::pair<int, int> want = cam == SMALL ? std::make_pair(SMALL_W, SMALL_H) : std::make_pair(1920, 1080);
        size_t off = 0, on = 0;
        for (const snapshot_record* r : per_cam[cam]) {
            EXPECT_EQ(jpeg_size(slurp(out.path() + "/" + r->file)), want) << r->file;
            // The switch as it was when the picture was stored (the slave's
            // clock follows the master's to well within a second).
            if (r->arrival < switch_asked || r->time + 1.5 < switch_asked) {
                EXPECT_EQ(r->jpg_on, 0u) << r->file << " taken before the switch went on";
                off += r->jpg_on == 0;
            } else if (r->time >= switch_done + 1.0) {
                EXPECT_EQ(r->jpg_on, 1u) << r->file << " taken after the switch went on";
                on += r->jpg_on == 1;
            }
        }
        EXPECT_GE(off, EACH_SWITCH_AT_LEAST);
        EXPECT_GE(on, EACH_SWITCH_AT_LEAST);
    }

    std::fprintf(stderr, "-- snapshots in the %.1f s window: %zu to %zu per recording camera\n", window, fewest,
                 most);

    // No transfer beyond the batch limits.
    ASSERT_FALSE(s.snapshot_transfers.empty());
    for (const snapshot_transfer& t : s.snapshot_transfers) {
        EXPECT_GE(t.pictures, 1u);
        EXPECT_LE(t.pictures, 9u);
        EXPECT_LE(t.bytes, 2096127u);
    }

    // The overlay: every camera's region at 20, 1048, its bitmap the
    // master's glyphs for the slave's clock within the last seconds.
    std::string err;
    const std::vector<uint8_t> strip = render_time_font(FONT_FILE, &err);
    ASSERT_FALSE(strip.empty()) << err;
    std::stringstream json;
    json << std::ifstream(board.file("chip1/media.json")).rdbuf();
    const std::vector<region_bitmap> regions = overlay_regions(json.str());
    ASSERT_FALSE(regions.empty()) << json.str();
    for (const region_bitmap& r : regions) {
        SCOPED_TRACE("region " + std::to_string(r.handle));
        EXPECT_EQ(r.x, 20);
        EXPECT_EQ(r.y, 1048);
        const std::string shown = read_overlay_line(slurp(board.file(r.file)), r.width, r.height, strip);
        bool recent = false;
        for (time_t t = ended - OVERLAY_LAG_S; t <= ended + 1 && !recent; ++t)
            recent = shown == expected_line(t);
        EXPECT_TRUE(recent) << "shown \"" << shown << "\", expected about \"" << expected_line(ended) << "\"";
        EXPECT_TRUE(std::ifstream(out.path() + "/slave1/cam0" + std::to_string(r.handle - 64) + "-overlay.png").good());
    }
}

}  // namespace

namespace {

// A pass's pictures, as the master's notifications carried them.
struct sent_batch {
    std::vector<int> cameras;
    std::vector<uint32_t> lens;
    uint32_t bytes = 0;
    bool bad = false;
};

TEST(snapshot_e2e, a_pass_whose_pictures_exceed_a_batch_goes_as_two_transfers)
{
    // Textured cameras: a 1920 x 1080 snapshot of about 0.32 MB, so the
    // eight of a pass pass 2096127 bytes.
    temp_board_dir board;
    board.share_cache();
    {
        std::ofstream conf(board.file("board.conf"));
        for (int cam = 0; cam < 8; ++cam)
            conf << "camera " << cam << " 1920x1080 p 30 moving textured\n";
    }
    master_options mo;
    mo.board = board.path();
    master m(mo);
    ASSERT_EQ(m.open(), 0) << m.error();
    std::mutex mu;
    std::vector<sent_batch> got;
    m.on_notification([&](const notification& n, std::span<const uint8_t>) {
        const auto* b = std::get_if<jpeg_batch>(&n.parsed);
        if (b == nullptr)
            return;
        sent_batch x;
        x.bytes = b->bytes;
        x.bad = b->check.rejected || !b->check.problems.empty() || b->pictures.size() != b->count;
        for (const jpeg_picture& p : b->pictures) {
            x.cameras.push_back(static_cast<int>(p.stream));
            x.lens.push_back(p.desc.len);
        }
        std::lock_guard lk(mu);
        got.push_back(std::move(x));
    });

    // Every camera's REC on (at 352 x 288, the cheapest stream to encode)
    // with its JPEG switch.
    slave_config cfg;
    cfg.binary = TARVO_SLAVE_BINARY;
    ASSERT_GT(m.start_slave(cfg), 0) << m.error();
    ASSERT_TRUE(m.wait_ports(1, std::chrono::milliseconds(20000)));
    ASSERT_TRUE(m.wait_announcement(1, std::chrono::milliseconds(5000)));
    const std::chrono::milliseconds wait(5000);
    ASSERT_EQ(m.set_dma_info(1, wait), 0);
    for (int cam = 0; cam < 8; ++cam) {
        EXPECT_EQ(m.set_vincaps(1, {cam, 1920, 1080, 1, 30.0, 0, 0}, wait), std::optional<int32_t>(0));
        enc_video_t v{};
        v.kind = KIND_REC;
        v.fps = 15;
        v.width = 352;
        v.height = 288;
        v.cam = static_cast<uint8_t>(cam);
        v.quality = 2;
        v.attr = 1;
        EXPECT_EQ(m.set_enc_video(1, v, wait), std::optional<int32_t>(0));
        const uint32_t c = static_cast<uint32_t>(cam);
        EXPECT_EQ(m.run_enc_video(1, {KIND_REC, c, 1, 0}, wait), std::optional<int32_t>(0));
        EXPECT_EQ(m.run_enc_video(1, {KIND_JPEG, c, 1, 0}, wait), std::optional<int32_t>(0));
    }
    update_video_t u{};
    u.sync = 1;
    u.fps = 30;
    u.t = static_cast<uint64_t>(wall_now() * 1e6);
    EXPECT_EQ(m.update_enc_video(1, u, wait), std::optional<int32_t>(0));

    // A pass takes the cameras in order: a camera number that does not grow
    // begins the next one. Wait for three whole passes after the first.
    auto passes_of = [](const std::vector<sent_batch>& t) {
        std::vector<std::vector<sent_batch>> passes;
        int last = -1;
        for (const sent_batch& x : t) {
            if (passes.empty() || x.cameras.empty() || x.cameras.front() <= last)
                passes.emplace_back();
            passes.back().push_back(x);
            last = x.cameras.empty() ? -1 : x.cameras.back();
        }
        return passes;
    };
    auto snapshot = [&] {
        std::lock_guard lk(mu);
        return got;
    };
    const auto t0 = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - t0 < std::chrono::seconds(60) && passes_of(snapshot()).size() < 5)
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    m.end_slaves();
    m.close();

    std::vector<std::vector<sent_batch>> passes = passes_of(snapshot());
    ASSERT_GE(passes.size(), 5u);
    passes.pop_back();  // perhaps cut short by the end
    int split = 0;
    for (size_t k = 0; k < passes.size(); ++k) {
        SCOPED_TRACE("pass " + std::to_string(k));
        const std::vector<sent_batch>& p = passes[k];
        uint64_t total = 0;
        for (size_t b = 0; b < p.size(); ++b) {
            EXPECT_FALSE(p[b].bad);
            EXPECT_LE(p[b].cameras.size(), 9u);
            EXPECT_LE(p[b].bytes, 2096127u);
            total += p[b].bytes;
            // A batch is handed over only when the next picture does not fit.
            // (Under the sanitizers passes run into each other in time, so
            // only the limits are judged there.)
            if (!k_sanitized && b + 1 < p.size() && !p[b + 1].lens.empty()) {
                EXPECT_GT(uint64_t{p[b].bytes} + p[b + 1].lens.front(), 2096127u);
            }
        }
        std::string line;
        for (const sent_batch& b : p)
            line += " " + std::to_string(b.cameras.size()) + " pictures " + std::to_string(b.bytes) + " bytes;";
        std::fprintf(stderr, "-- pass %zu:%s\n", k, line.c_str());
        if (total > 2096127u) {
            ++split;
            EXPECT_TRUE(k_sanitized || p.size() == 2u) << p.size();
        } else {
            EXPECT_TRUE(k_sanitized || p.size() == 1u) << p.size();
        }
    }
    // Passes of all eight pictures (about 2.6 MB) went as two transfers.
    // Under the sanitizers a camera's picture may miss its 300 ms, and six
    // pictures fit one transfer.
#if defined(__SANITIZE_THREAD__)
    // Under the thread sanitizer most pictures miss it: no split is owed.
    std::fprintf(stderr, "-- %d split pass(es)\n", split);
#elif defined(__SANITIZE_ADDRESS__)
    EXPECT_GE(split, 1);
#else
    EXPECT_GE(split, 3);
#endif
}

}  // namespace
