// The encoder thread's frame routing: the slot a frame's time stamp gives
// it, the record buffers it goes into and when they are handed over, the
// network frames, and how a stream resumes at a key frame after any loss.
// Frames are crafted as the encoder delivers them (SPS-first key frames, P
// frames, packs wrapped in two pieces); what is posted is taken off the two
// queues and checked as the master will see it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/ipc.h>
#include <sys/msg.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cal/cal.h"
#include "cal/cal_buf.h"
#include "cal/cal_log.h"
#include "cal/cal_time.h"
#include "cal/cal_tx.h"
#include "enc/cal_enc.h"
#include "platform/hi_mpi_venc.h"
#include "platform/os.h"
#include "platform/sim/fault.h"
#include "tests/support/core_board.h"
#include "tests/support/media_board.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr int N = 8;          // cameras of the core board, recorder cameras 8 .. 15
constexpr int CAM_BASE = 8;
constexpr int NUM_VIN = 16;
constexpr int LOW_SLOT = 2 * N;

// 2026-11-23 12:00:00 UTC; the tests run in UTC.
const time_t T0 = [] {
    struct tm tm {};
    tm.tm_year = 126;
    tm.tm_mon = 10;
    tm.tm_mday = 23;
    tm.tm_hour = 12;
    return timegm(&tm);
}();
constexpr int NOON = 12 * 3600;

// Time stamp (us) of a frame s seconds and ms milliseconds after T0.
uint64_t at(int64_t s, int ms)
{
    return static_cast<uint64_t>((T0 + s) * 1000000 + ms * 1000 + 500);
}
uint64_t msec_at(int64_t s, int ms) { return at(s, ms) / 1000; }
// Time stamp (us) of a frame in slot k (F = 30) of second s after T0.
uint64_t slot30(int64_t s, int k)
{
    return static_cast<uint64_t>((T0 + s) * 1000000 + k * 33333 + 1000);
}

// One frame as the encoder's stream buffer holds it. A key frame is SPS,
// PPS, IDR slice; a P frame one slice. A wrapped frame's last pack has its
// second piece at the start of the ring (another allocation here).
struct frame {
    std::vector<unsigned char> bytes;  // the frame in order
    std::vector<unsigned char> ring_end, ring_start;
    std::vector<venc_pack_t> packs;
    venc_stream_t st{};

    frame(uint64_t pts, bool key, size_t size, bool wrap, unsigned seed) : bytes(size)
    {
        for (size_t j = 0; j < size; ++j)
            bytes[j] = static_cast<unsigned char>(seed * 31 + j * 7 + j / 251);
        std::vector<std::pair<int, size_t>> nal;  // type, length
        if (key && size >= 14)
            nal = {{H264E_NALU_SPS, 10}, {H264E_NALU_PPS, 4}, {H264E_NALU_ISLICE, size - 14}};
        else
            nal = {{key ? H264E_NALU_SPS : H264E_NALU_PSLICE, size}};
        const size_t split = wrap ? size - nal.back().second / 2 : size;
        ring_end.assign(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(split));
        ring_start.assign(bytes.begin() + static_cast<ptrdiff_t>(split), bytes.end());
        size_t off = 0;
        for (auto [type, len] : nal) {
            venc_pack_t p{};
            p.pts = pts;
            p.data_type = type;
            p.addr[0] = ring_end.data() + off;
            p.len[0] = static_cast<uint32_t>(std::min(len, split - std::min(split, off)));
            if (p.len[0] < len) {
                p.addr[1] = ring_start.data() + (off + p.len[0] - split);
                p.len[1] = static_cast<uint32_t>(len - p.len[0]);
            }
            off += len;
            packs.push_back(p);
        }
        packs.back().frame_end = 1;
        st.pack = packs.data();
        st.pack_count = static_cast<uint32_t>(packs.size());
    }
};

// A network frame taken off the queue; its block goes back to the pool.
struct posted_nbuf {
    int stream = 0;
    nbuf_desc_t desc{};
    posted_nbuf() = default;
    posted_nbuf(const posted_nbuf&) = delete;
    posted_nbuf& operator=(const posted_nbuf&) = delete;
    ~posted_nbuf() { nbuf_free(desc.data, static_cast<int>(desc.len)); }
    std::vector<unsigned char> bytes() const { return {desc.data, desc.data + desc.len}; }
};

struct ebuf_deleter {
    void operator()(ebuf_t* e) const { ebuf_free(e); }
};
using ebuf_ptr = std::unique_ptr<ebuf_t, ebuf_deleter>;

// The bytes of entry i of a record buffer.
std::vector<unsigned char> entry_bytes(const ebuf_t* e, int i)
{
    uint32_t off = 0;
    for (int k = 0; k < i; ++k)
        off += e->mmd[k].len;
    return {e->buf + off, e->buf + off + e->mmd[i].len};
}

class enc_stream_test : public core_board_test {
protected:
    void SetUp() override
    {
        core_board_test::SetUp();
        cal_set_tz_env("UTC0");
        enc_ = std::make_unique<cal_enc_t>();
        enc_->size = sizeof(cal_enc_t);
        enc_->cal = cal_;
        enc_->num = N;
        set_rate(30);
        for (int ch = 0; ch < CAL_ENC_MAX_CAM; ++ch)
            for (cal_enc_stream_t* s : {&enc_->rec[ch], &enc_->net[ch], &enc_->rec_low[ch], &enc_->net_low[ch]})
                s->cam = ch;
        set_clock(T0 + 1);
    }

    void TearDown() override
    {
        for (ebuf_t*& e : enc_->ebuf)
            ebuf_free(std::exchange(e, nullptr));
        take_ebufs();
        take_nbufs();
        EXPECT_EQ(ebuf_get_cnt(), 0);
        EXPECT_EQ(nbuf_get_cnt(), 0);
        EXPECT_EQ(nbuf_get_total_size(), 0);
        core_board_test::TearDown();
    }

    void set_rate(int fps)
    {
        enc_->fps = fps;
        enc_->period = 1000000 / fps;
    }

    static void set_clock(time_t t)
    {
        struct timeval tv {t, 0};
        ASSERT_EQ(os_settimeofday(&tv), 0);
    }

    // Switches a stream on as the on command leaves it: waiting for a key frame.
    cal_enc_stream_t& on(cal_enc_stream_t& s, int w, int h, int fps, int quality = 2, int attr = 0x5a)
    {
        s.on = 1;
        s.wait_key = 1;
        s.width = w;
        s.height = h;
        s.fps = fps;
        s.quality = quality;
        s.attr = attr;
        return s;
    }

    int feed(int v, uint64_t pts, bool key, size_t size = 200, bool wrap = false)
    {
        last_ = std::make_unique<frame>(pts, key, size, wrap, seed_++);
        return _parse_enc_ebuf(enc_.get(), v, &last_->st);
    }

    std::vector<ebuf_ptr> take_ebufs()
    {
        std::vector<ebuf_ptr> out;
        tx_msg_t msg;
        while (os_msgrcv(cal_->msgid_encr, &msg, TX_MSG_BODY_SIZE, 0, IPC_NOWAIT) >= 0)
            out.emplace_back(msg.encr.ebuf);
        return out;
    }

    std::vector<std::unique_ptr<posted_nbuf>> take_nbufs()
    {
        std::vector<std::unique_ptr<posted_nbuf>> out;
        tx_msg_t msg;
        while (os_msgrcv(cal_->msgid_encn, &msg, TX_MSG_BODY_SIZE, 0, IPC_NOWAIT) >= 0)
        {
            auto p = std::make_unique<posted_nbuf>();
            p->stream = msg.encn.stream;
            p->desc = msg.encn.desc;
            out.push_back(std::move(p));
        }
        return out;
    }

    // Level-7 traces so far (they go to the system log only).
    std::vector<std::string> traces() { return trace_messages(read_file(chip_file("var/log/message"))); }
    int count_traces(const std::string& prefix)
    {
        int n = 0;
        for (const std::string& m : traces())
            n += m.rfind(prefix, 0) == 0;
        return n;
    }

    std::unique_ptr<cal_enc_t> enc_;
    std::unique_ptr<frame> last_;
    unsigned seed_ = 1;
};

// ---- timing ---------------------------------------------------------------------

TEST_F(enc_stream_test, time_stamps_are_quantised_to_slots_of_the_system_rate)
{
    cal_enc_stream_t& s = enc_->rec[3];
    s.cam = 3;
    const uint64_t t0 = static_cast<uint64_t>(T0) * 1000000;

    // F = 30: 40 ms lies in the slot 33333 .. 66666 us.
    EXPECT_EQ(_calc_timing(enc_.get(), &s, msec_at(0, 40), T0), 1);
    EXPECT_EQ(s.abs_us, t0 + 33333);
    EXPECT_EQ(s.abs_bi, 30 * NOON + 1);
    EXPECT_EQ(s.sec_of_day, NOON);
    EXPECT_EQ(s.tm.tm_hour, 12);
    EXPECT_EQ(s.frame_cnt, 1);
    // Two stamps in one slot: the second goes one period later.
    EXPECT_EQ(_calc_timing(enc_.get(), &s, msec_at(0, 50), T0), 2);
    EXPECT_EQ(s.abs_us, t0 + 66666);
    EXPECT_EQ(s.frame_cnt, 2);
    // 1 ms backwards: refused, and the timing starts again from that stamp.
    EXPECT_EQ(_calc_timing(enc_.get(), &s, msec_at(0, 49), T0), -1);
    EXPECT_TRUE(has_message(traces(), "warning!! msec64:" + std::to_string(msec_at(0, 49)) +
                                          " old_msec64:" + std::to_string(msec_at(0, 50))));
    EXPECT_EQ(s.abs_us, t0 + 33333);
    EXPECT_EQ(s.abs_bi, 30 * NOON + 1);
    EXPECT_EQ(s.last_msec, msec_at(0, 49));
    EXPECT_EQ(_calc_timing(enc_.get(), &s, msec_at(0, 100), T0), 3);

    // The last slot of a second is shorter (30 x 33333 < 1 s): a second frame
    // stamped in it carries into slot 0 of the next second.
    EXPECT_EQ(_calc_timing(enc_.get(), &s, msec_at(0, 999), T0), 29);
    EXPECT_EQ(_calc_timing(enc_.get(), &s, msec_at(0, 999), T0), 0);
    EXPECT_EQ(s.sec_of_day, NOON + 1);
    EXPECT_EQ(s.frame_cnt, 1);
    EXPECT_EQ(s.byte_cnt, 0);

    // 60 s from the wall clock is usable, 61 s is not.
    EXPECT_EQ(_calc_timing(enc_.get(), &s, msec_at(2, 0), T0 + 62), 0);
    EXPECT_EQ(_calc_timing(enc_.get(), &s, msec_at(3, 0), T0 + 64), -1);
    EXPECT_TRUE(has_message(traces(), "warning!! ch:3 cur_time:" + std::to_string(T0 + 64) +
                                          " sec:" + std::to_string(T0 + 3)));
    EXPECT_EQ(_calc_timing(enc_.get(), &s, msec_at(4, 0), T0 - 57), -1);
    EXPECT_EQ(s.abs_us, t0 + 4000000);  // a refused frame still takes its slot
}

TEST_F(enc_stream_test, f25_slots_a_rate_change_within_the_day_and_a_new_day)
{
    cal_enc_stream_t& s = enc_->net_low[0];
    EXPECT_EQ(_calc_timing(enc_.get(), &s, msec_at(0, 0), T0), 0);
    // A rate lowered during the day numbers the day's slots lower than the
    // last one given: that one frame is refused, the next is used.
    set_rate(25);
    EXPECT_EQ(_calc_timing(enc_.get(), &s, msec_at(1, 0), T0), -1);
    EXPECT_TRUE(has_message(traces(), "warning!! ch:0 abs_bi:" + std::to_string(25 * (NOON + 1)) +
                                          " old_abs_bi:" + std::to_string(30 * NOON)));
    // Slots of 40 ms.
    EXPECT_EQ(_calc_timing(enc_.get(), &s, msec_at(2, 39), T0), 0);
    EXPECT_EQ(_calc_timing(enc_.get(), &s, msec_at(2, 40), T0), 1);
    EXPECT_EQ(_calc_timing(enc_.get(), &s, msec_at(2, 999), T0), 24);
    EXPECT_EQ(s.abs_bi, 25 * (NOON + 2) + 24);

    // Midnight: the slot count starts again from 0 and the frame is used.
    const time_t eve = T0 + 12 * 3600 - 1;  // 23:59:59
    EXPECT_EQ(_calc_timing(enc_.get(), &s, static_cast<uint64_t>(eve) * 1000 + 980, eve), 24);
    EXPECT_EQ(_calc_timing(enc_.get(), &s, static_cast<uint64_t>(eve + 1) * 1000 + 10, eve), 0);
    EXPECT_TRUE(has_message(traces(), "new date!! mmd_secs:0 old mmd_secs:86399"));
    EXPECT_EQ(s.abs_bi, 0);
    EXPECT_EQ(s.tm.tm_mday, 24);
}

TEST_F(enc_stream_test, unusable_settings_and_frames_are_refused_without_harm)
{
    on(enc_->rec[0], 1920, 1080, 30);
    // No system frame rate: nothing to divide by, the frame is not used.
    enc_->fps = 0;
    enc_->period = 0;
    EXPECT_EQ(feed(0, at(0, 0), true), 0);
    enc_->fps = 30;
    EXPECT_EQ(feed(0, at(0, 0), true), 0);
    EXPECT_EQ(enc_->ebuf[0], nullptr);
    EXPECT_EQ(enc_->rec[0].wait_key, 1);
    set_rate(30);

    // Channels outside 0 .. 4n-1, no cameras, a frame without packs.
    EXPECT_EQ(feed(-1, at(0, 0), true), -1);
    EXPECT_EQ(feed(4 * N, at(0, 0), true), -1);
    EXPECT_TRUE(has_message(traces(), "warning!! v:32 num:8"));
    venc_stream_t empty{};
    EXPECT_EQ(_parse_enc_ebuf(enc_.get(), 0, &empty), 0);
    enc_->num = 0;
    EXPECT_EQ(feed(0, at(0, 0), true), -1);
    enc_->num = N;

    // A stream that is off drops its frames untimed.
    EXPECT_EQ(feed(2 * N + 1, at(0, 0), true), 0);
    EXPECT_EQ(enc_->rec_low[1].abs_us, 0u);

    // Pieces that claim more than 4 GiB together are refused, not summed
    // into an int.
    frame f(at(0, 100), true, 64, false, 9);
    f.packs[2].len[0] = 0xFFFFFFF0u;
    f.packs[2].addr[1] = f.ring_end.data();
    f.packs[2].len[1] = 0x20u;
    EXPECT_EQ(_parse_enc_ebuf(enc_.get(), 0, &f.st), -1);
    EXPECT_EQ(enc_->ebuf[0], nullptr);
    EXPECT_EQ(enc_->rec[0].wait_key, 1);

    // A module object that is not one is fatal.
    EXPECT_FATAL(_parse_enc_ebuf(nullptr, 0, &f.st), "enc is NULL");
    enc_->size = 4;
    EXPECT_FATAL(_check_ebuf(enc_.get(), 0, 10, static_cast<uint32_t>(T0)), "size != sizeof\\(cal_enc_t\\)");
    EXPECT_FATAL(_calc_timing(enc_.get(), &enc_->rec[0], 0, T0), "size != sizeof\\(cal_enc_t\\)");
    enc_->size = sizeof(cal_enc_t);
}

// ---- routing ----------------------------------------------------------------------

TEST_F(enc_stream_test, record_entries_carry_what_the_master_reads)
{
    on(enc_->rec[0], 1920, 1080, 30, 2, 0x5a);
    on(enc_->rec[1], 1280, 720, 15, 3, 0x01);
    on(enc_->rec_low[5], 704, 576, 15, 1, 0x77);

    // With 8 cameras, cameras 0 and 1 share slot 0; the low streams of all
    // cameras share slot 2n.
    ASSERT_EQ(feed(0, at(0, 40), true, 5000, true), 0);
    const frame f0 = std::move(*last_);
    ASSERT_EQ(feed(1, at(0, 41), true, 3000), 0);
    const frame f1 = std::move(*last_);
    ASSERT_EQ(feed(2 * N + 5, at(0, 70), true, 700, true), 0);
    const frame f2 = std::move(*last_);
    EXPECT_EQ(enc_->ebuf[1], nullptr);

    const ebuf_t* e = enc_->ebuf[0];
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->buf_size, 0x100000);
    ASSERT_EQ(e->num_mmd, 2);
    EXPECT_EQ(e->buf_off, 8000);
    struct want {
        int cam, fi, low, key, w, h, fps, q, attr;
    };
    auto check = [](const ebuf_t* e, int i, want w, uint32_t off, const frame& f) {
        const ebuf_mmd_t& m = e->mmd[i];
        EXPECT_EQ(m.cam, w.cam);
        EXPECT_EQ(m.frame_idx, w.fi);
        EXPECT_EQ(m.low, w.low);
        EXPECT_EQ(m.key, w.key);
        EXPECT_EQ(m.width, w.w);
        EXPECT_EQ(m.height, w.h);
        EXPECT_EQ(m.fps, w.fps);
        EXPECT_EQ(m.quality, w.q);
        EXPECT_EQ(m.reserved10, 0);
        EXPECT_EQ(m.const12, 2);
        EXPECT_EQ(m.const13, 2);
        EXPECT_EQ(m.sec_of_day, static_cast<uint32_t>(NOON));
        EXPECT_EQ(m.len, f.bytes.size());
        EXPECT_EQ(m.data, ptr32(e->buf + off));
        EXPECT_EQ(e->mmd_time[i], static_cast<uint32_t>(T0));
        EXPECT_EQ(e->mmd_mday[i], 23);
        EXPECT_EQ(e->mmd_attr[i], w.attr);
        EXPECT_EQ(entry_bytes(e, i), f.bytes);  // both pieces of every pack, in order
    };
    check(e, 0, {8, 1, 0, 1, 1920, 1080, 30, 2, 0x5a}, 0, f0);
    check(e, 1, {9, 1, 0, 1, 1280, 720, 15, 3, 0x01}, 5000, f1);
    ASSERT_NE(enc_->ebuf[LOW_SLOT], nullptr);
    ASSERT_EQ(enc_->ebuf[LOW_SLOT]->num_mmd, 1);
    check(enc_->ebuf[LOW_SLOT], 0, {13, 2, 1, 1, 704, 576, 15, 1, 0x77}, 0, f2);
    EXPECT_TRUE(take_nbufs().empty());

    // With another count, each camera has its own main slot.
    enc_->num = 4;
    on(enc_->rec[3], 640, 480, 30);
    ASSERT_EQ(feed(3, at(0, 40), true), 0);
    ASSERT_NE(enc_->ebuf[3], nullptr);
    EXPECT_EQ(enc_->ebuf[3]->mmd[0].cam, 3 + CAM_BASE);
    ASSERT_EQ(feed(2 * 4 + 3, at(0, 40), true), 0);  // off: nothing for the low slot of 4 cameras
    EXPECT_EQ(enc_->ebuf[8], nullptr);
}

TEST_F(enc_stream_test, network_frames_and_their_stream_numbers)
{
    on(enc_->rec[3], 1920, 1080, 30, 2);
    on(enc_->net[3], 352, 288, 15);  // its frames are the REC frames
    enc_->copy_on[3] = 1;
    on(enc_->net_low[6], 352, 288, 15);
    on(enc_->net[2], 640, 360, 10);

    ASSERT_EQ(feed(3, at(5, 500), true, 4000, true), 0);
    const frame rec = std::move(*last_);
    ASSERT_EQ(feed(3 * N + 6, at(5, 510), true, 900, true), 0);
    const frame low = std::move(*last_);
    ASSERT_EQ(feed(N + 2, at(5, 520), true, 300), 0);
    const frame net = std::move(*last_);

    auto posted = take_nbufs();
    ASSERT_EQ(posted.size(), 4u);
    // Recording copy, then the network copy: both the record entry's bytes,
    // both described by the REC stream.
    EXPECT_EQ(posted[0]->stream, 3 + CAM_BASE + 2 * NUM_VIN);
    EXPECT_EQ(posted[1]->stream, 3 + CAM_BASE);
    for (int k = 0; k < 2; ++k) {
        const nbuf_desc_t& d = posted[k]->desc;
        EXPECT_EQ(posted[k]->bytes(), rec.bytes);
        EXPECT_EQ(posted[k]->bytes(), entry_bytes(enc_->ebuf[1], 0));
        EXPECT_EQ(d.year, 2026);
        EXPECT_EQ(d.mon, 11);
        EXPECT_EQ(d.mday, 23);
        EXPECT_EQ(d.msec, 1000u * (NOON + 5) + 15 * 33333 / 1000);
        EXPECT_EQ(d.reserved8, 0);
        EXPECT_EQ(d.key, 1);
        EXPECT_EQ(d.width, 1920);
        EXPECT_EQ(d.height, 1080);
        EXPECT_EQ(d.fps, 30);
        EXPECT_EQ(d.const17, 1);
        EXPECT_EQ(d.const18, 2);
        EXPECT_EQ(d.reserved19, 0);
        EXPECT_EQ(d.len, 4000u);
    }
    EXPECT_EQ(posted[2]->stream, 6 + CAM_BASE + NUM_VIN);
    EXPECT_EQ(posted[2]->bytes(), low.bytes);
    EXPECT_EQ(posted[2]->desc.width, 352);
    EXPECT_EQ(posted[2]->desc.fps, 15);
    EXPECT_EQ(posted[2]->desc.msec, 1000u * (NOON + 5) + 15 * 33333 / 1000);
    EXPECT_EQ(posted[3]->stream, 2 + CAM_BASE);
    EXPECT_EQ(posted[3]->bytes(), net.bytes);
    EXPECT_EQ(posted[3]->desc.width, 640);
    EXPECT_EQ(enc_->net_low[6].byte_cnt, 900);
    EXPECT_EQ(enc_->rec[3].byte_cnt, 4000);

    // P frames follow the key frame on every stream.
    ASSERT_EQ(feed(3, at(5, 540), false, 100), 0);
    ASSERT_EQ(feed(3 * N + 6, at(5, 600), false, 50), 0);
    posted = take_nbufs();
    ASSERT_EQ(posted.size(), 3u);
    EXPECT_EQ(posted[0]->desc.key, 0);
    EXPECT_EQ(posted[2]->desc.len, 50u);
}

TEST_F(enc_stream_test, a_failed_post_frees_the_block_once_and_the_stream_waits_for_a_key_frame)
{
    on(enc_->net_low[0], 352, 288, 15);
    on(enc_->rec[1], 1920, 1080, 30);
    on(enc_->net[1], 0, 0, 0);
    enc_->copy_on[1] = 1;
    std::string err;
    ASSERT_EQ(sim_fault_set("msgsnd=16", &err), 0) << err;
    {
        stdout_capture out;
        EXPECT_EQ(feed(3 * N, at(0, 0), true), 0);
        EXPECT_EQ(feed(1, at(0, 0), true), 0);
        EXPECT_THAT(out.text(), HasSubstr("msgsnd error.. msgid_encn:"));
    }
    ASSERT_EQ(sim_fault_set("", &err), 0);
    EXPECT_EQ(nbuf_get_cnt(), 0);
    EXPECT_EQ(enc_->net_low[0].wait_key, 1);
    EXPECT_EQ(enc_->net[1].wait_key, 1);
    EXPECT_EQ(enc_->copy_wait_key[1], 1);
    EXPECT_EQ(enc_->ebuf[0]->num_mmd, 1);  // the record keeps its frame

    EXPECT_EQ(feed(3 * N, at(0, 100), false), 0);
    EXPECT_EQ(feed(1, at(0, 100), false), 0);
    EXPECT_TRUE(take_nbufs().empty());
    EXPECT_EQ(feed(3 * N, at(0, 200), true), 0);
    EXPECT_EQ(feed(1, at(0, 200), true), 0);
    EXPECT_EQ(take_nbufs().size(), 3u);
}

// ---- hand-over ----------------------------------------------------------------------

TEST_F(enc_stream_test, the_shared_low_buffer_holds_479_frames)
{
    // Eight low streams at 30 frames a second: 480 frames in 2 s.
    for (int ch = 0; ch < N; ++ch)
        on(enc_->rec_low[ch], 704, 576, 30);
    for (int k = 0; k < 60; ++k)
        for (int ch = 0; ch < N; ++ch)
            ASSERT_EQ(feed(2 * N + ch, slot30(k / 30, k % 30), true, 100), 0) << k << " " << ch;
    auto posted = take_ebufs();
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0]->num_mmd, 479);
    EXPECT_EQ(posted[0]->buf_off, 47900);
    EXPECT_EQ(posted[0]->mmd[478].cam, 6 + CAM_BASE);
    ASSERT_EQ(enc_->ebuf[LOW_SLOT]->num_mmd, 1);
    EXPECT_EQ(enc_->ebuf[LOW_SLOT]->mmd[0].cam, 7 + CAM_BASE);
    EXPECT_EQ(enc_->ebuf[LOW_SLOT]->mmd[0].frame_idx, 29);
}

TEST_F(enc_stream_test, buffers_never_span_a_minute_nor_more_than_their_gap)
{
    set_clock(T0 + 30);
    on(enc_->rec[4], 1920, 1080, 30);
    on(enc_->rec_low[4], 704, 576, 15);
    // 12:00:59.9 and 12:01:00.0.
    ASSERT_EQ(feed(4, at(59, 800), true), 0);
    ASSERT_EQ(feed(4, at(59, 900), false), 0);
    ASSERT_EQ(feed(4, at(60, 0), false), 0);
    auto posted = take_ebufs();
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0]->num_mmd, 2);
    EXPECT_EQ(posted[0]->mmd_time[1], static_cast<uint32_t>(T0 + 59));
    EXPECT_EQ(enc_->ebuf[2]->num_mmd, 1);
    EXPECT_EQ(enc_->ebuf[2]->mmd[0].sec_of_day, static_cast<uint32_t>(NOON + 60));

    // Main slot: 1 s from the first frame still fits, 2 s does not.
    ASSERT_EQ(feed(4, at(61, 0), false), 0);
    EXPECT_TRUE(take_ebufs().empty());
    ASSERT_EQ(feed(4, at(62, 0), false), 0);
    posted = take_ebufs();
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0]->num_mmd, 2);

    // Low slot: 4 s fits, 5 s does not.
    ASSERT_EQ(feed(2 * N + 4, at(30, 0), true), 0);
    ASSERT_EQ(feed(2 * N + 4, at(34, 0), false), 0);
    EXPECT_TRUE(take_ebufs().empty());
    ASSERT_EQ(feed(2 * N + 4, at(35, 0), false), 0);
    posted = take_ebufs();
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0]->num_mmd, 2);
    EXPECT_EQ(enc_->ebuf[LOW_SLOT]->mmd_time[0], static_cast<uint32_t>(T0 + 35));
}

TEST_F(enc_stream_test, frame_sizes_at_the_limits_of_the_record_buffer)
{
    on(enc_->rec[0], 1920, 1080, 30);
    // Exactly 0x100000 bytes fill an empty buffer alone.
    ASSERT_EQ(feed(0, at(0, 0), true, 0x100000), 0);
    ASSERT_NE(enc_->ebuf[0], nullptr);
    EXPECT_EQ(enc_->ebuf[0]->buf_off, 0x100000);
    EXPECT_EQ(entry_bytes(enc_->ebuf[0], 0), last_->bytes);
    // The next frame, however small, needs a new buffer.
    ASSERT_EQ(feed(0, at(0, 40), false, 10), 0);
    auto posted = take_ebufs();
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0]->num_mmd, 1);
    // A buffer holding a frame is handed over for a frame of 0x100000.
    ASSERT_EQ(feed(0, at(0, 80), false, 0x100000, true), 0);
    ASSERT_EQ(take_ebufs().size(), 1u);
    EXPECT_EQ(entry_bytes(enc_->ebuf[0], 0), last_->bytes);

    // 0x100001 fits no buffer: the current one goes, the frame is dropped
    // and the stream waits for a key frame.
    ASSERT_EQ(feed(0, at(0, 120), false, 0x100001), 0);
    EXPECT_EQ(take_ebufs().size(), 1u);
    EXPECT_EQ(enc_->ebuf[0], nullptr);
    EXPECT_EQ(enc_->rec[0].wait_key, 1);
    ASSERT_EQ(feed(0, at(0, 160), false), 0);
    EXPECT_EQ(enc_->ebuf[0], nullptr);
    // 2074023 is still taken in: the same.
    ASSERT_EQ(feed(0, at(0, 200), true, 2074023), 0);
    EXPECT_EQ(enc_->ebuf[0], nullptr);
    EXPECT_EQ(enc_->rec[0].wait_key, 1);

    // 2074024 is refused before any buffer is touched.
    ASSERT_EQ(feed(0, at(0, 240), true, 100), 0);
    ASSERT_EQ(feed(0, at(0, 280), false, 2074024), -1);
    EXPECT_EQ(count_traces("Over ebuffer!! 2074024 don't send data by pci express"), 1);
    EXPECT_EQ(enc_->ebuf[0]->num_mmd, 1);
    EXPECT_EQ(enc_->rec[0].wait_key, 1);
    EXPECT_EQ(feed(0, at(0, 320), false), 0);
    EXPECT_EQ(enc_->ebuf[0]->num_mmd, 1);
    // Resumes at the next key frame.
    EXPECT_EQ(feed(0, at(0, 360), true), 0);
    EXPECT_EQ(enc_->ebuf[0]->num_mmd, 2);
    EXPECT_EQ(enc_->rec[0].wait_key, 0);
    EXPECT_TRUE(take_ebufs().empty());

    // Network frames have their own limit.
    on(enc_->net_low[2], 352, 288, 15);
    EXPECT_EQ(feed(3 * N + 2, at(0, 400), true, 2096099), 0);
    EXPECT_EQ(take_nbufs().size(), 1u);
    EXPECT_EQ(feed(3 * N + 2, at(0, 440), true, 2096100), -1);
    EXPECT_EQ(count_traces("Over nbuffer!! 2096100 don't send data by pci express"), 1);
    EXPECT_EQ(enc_->net_low[2].wait_key, 1);
}

// ---- pool ceilings ----------------------------------------------------------------

TEST_F(enc_stream_test, at_the_record_pool_ceiling_frames_wait_and_the_period_is_traced_once)
{
    on(enc_->rec[2], 1920, 1080, 30);
    on(enc_->net[2], 0, 0, 0);
    enc_->copy_on[2] = 1;
    ASSERT_EQ(feed(2, at(0, 0), true), 0);
    ASSERT_NE(enc_->ebuf[1], nullptr);
    take_nbufs();

    // The transmit thread falls behind: the pool reaches its ceiling.
    ebuf_ptr hog(ebuf_malloc(EBUF_TOTAL_LIMIT - ebuf_get_total_size() - EBUF_HEADER_SIZE));
    ASSERT_EQ(ebuf_get_total_size(), EBUF_TOTAL_LIMIT);
    // Two seconds on, the buffer is handed over and none replaces it. The
    // transmit thread holds it for now.
    ASSERT_EQ(feed(2, at(2, 0), false), 0);
    auto held = take_ebufs();
    EXPECT_EQ(held.size(), 1u);
    EXPECT_EQ(enc_->ebuf[1], nullptr);
    EXPECT_EQ(enc_->rec[2].wait_key, 1);
    EXPECT_EQ(enc_->copy_wait_key[2], 1);
    EXPECT_TRUE(take_nbufs().empty());
    for (int k = 1; k < 4; ++k) {
        ASSERT_EQ(feed(2, at(2, 100 * k), k % 2 == 1), 0);
        EXPECT_EQ(enc_->ebuf[1], nullptr);
    }
    EXPECT_EQ(count_traces("no buffer!! "), 1);
    EXPECT_TRUE(has_message(traces(), "no buffer!! t:" + std::to_string(T0 + 2) +
                                          " ebuf_total_size:" + std::to_string(EBUF_TOTAL_LIMIT) + " ebuf_cnt:2"));

    // Buffers come back: P frames still wait; the next key frame resumes the
    // recording, its copies and the network stream.
    held.clear();
    hog.reset();
    ASSERT_EQ(feed(2, at(2, 500), false), 0);
    EXPECT_EQ(enc_->ebuf[1], nullptr);
    ASSERT_EQ(feed(2, at(2, 600), true), 0);
    ASSERT_NE(enc_->ebuf[1], nullptr);
    EXPECT_EQ(enc_->ebuf[1]->num_mmd, 1);
    EXPECT_EQ(take_nbufs().size(), 2u);
    ASSERT_EQ(feed(2, at(2, 700), false), 0);
    EXPECT_EQ(enc_->ebuf[1]->num_mmd, 2);
    EXPECT_EQ(count_traces("no buffer!! "), 1);
    EXPECT_EQ(count_traces("restore no buffer!! "), 1);
    EXPECT_TRUE(has_message(traces(), "restore no buffer!! t:" + std::to_string(T0 + 2) + " ebuf_total_size:" +
                                          std::to_string(0x100000 + EBUF_HEADER_SIZE) + " ebuf_cnt:1"));
}

TEST_F(enc_stream_test, at_the_network_pool_ceiling_network_frames_wait_and_records_go_on)
{
    on(enc_->net_low[1], 352, 288, 15);
    on(enc_->rec[1], 1920, 1080, 30);
    on(enc_->net[1], 0, 0, 0);
    enc_->copy_on[1] = 1;
    struct nbuf_hold {
        unsigned char* p = nbuf_malloc(NBUF_TOTAL_LIMIT);
        ~nbuf_hold() { nbuf_free(p, NBUF_TOTAL_LIMIT); }
    };
    auto hog = std::make_unique<nbuf_hold>();
    ASSERT_EQ(feed(3 * N + 1, at(0, 0), true), 0);
    EXPECT_EQ(count_traces("NO Nbuffer!! nbuf_total_size:16777216"), 1);
    EXPECT_EQ(enc_->net_low[1].wait_key, 1);
    ASSERT_EQ(feed(1, at(0, 0), true), 0);
    EXPECT_EQ(enc_->ebuf[0]->num_mmd, 1);
    EXPECT_EQ(enc_->net[1].wait_key, 1);
    EXPECT_EQ(enc_->copy_wait_key[1], 1);
    EXPECT_TRUE(take_nbufs().empty());

    hog.reset();
    ASSERT_EQ(feed(3 * N + 1, at(0, 100), false), 0);
    ASSERT_EQ(feed(1, at(0, 100), false), 0);
    EXPECT_TRUE(take_nbufs().empty());
    EXPECT_EQ(enc_->ebuf[0]->num_mmd, 2);
    ASSERT_EQ(feed(3 * N + 1, at(0, 200), true), 0);
    ASSERT_EQ(feed(1, at(0, 200), true), 0);
    auto posted = take_nbufs();
    ASSERT_EQ(posted.size(), 3u);
    EXPECT_EQ(posted[0]->stream, 1 + CAM_BASE + NUM_VIN);
    EXPECT_EQ(posted[1]->stream, 1 + CAM_BASE + 2 * NUM_VIN);
    EXPECT_EQ(posted[2]->stream, 1 + CAM_BASE);
    EXPECT_EQ(count_traces("NO Nbuffer!! "), 1);
}

TEST_F(enc_stream_test, a_timing_rejection_makes_the_stream_wait_for_a_key_frame)
{
    on(enc_->rec[0], 1920, 1080, 30);
    ASSERT_EQ(feed(0, at(0, 100), false), 0);  // no key frame yet
    EXPECT_EQ(enc_->ebuf[0], nullptr);
    ASSERT_EQ(feed(0, at(0, 200), true), 0);
    ASSERT_EQ(feed(0, at(0, 300), false), 0);
    ASSERT_EQ(feed(0, at(0, 299), false), 0);  // backwards
    ASSERT_EQ(feed(0, at(0, 400), false), 0);
    EXPECT_EQ(enc_->ebuf[0]->num_mmd, 2);
    ASSERT_EQ(feed(0, at(0, 500), true), 0);
    EXPECT_EQ(enc_->ebuf[0]->num_mmd, 3);
    EXPECT_THAT(std::vector<int>({enc_->ebuf[0]->mmd[0].frame_idx, enc_->ebuf[0]->mmd[1].frame_idx,
                                  enc_->ebuf[0]->mmd[2].frame_idx}),
                ElementsAre(6, 9, 15));
}

}  // namespace
