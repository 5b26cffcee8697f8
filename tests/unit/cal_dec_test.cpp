// The decoder module on the simulated board: the intake's checks of what
// the master hands down (crafted records), the decode queue's order of
// start, stop, flush and data, key-frame waiting, skip-show and the status
// report. The threads are not started: the tests hand the queue's messages
// to the decode thread's handler themselves, in order.
#include <gtest/gtest.h>
#include <sys/ipc.h>

#include <cstddef>
#include <cstring>
#include <vector>

#include "dec/cal_dec.h"
#include "platform/hi_mpi_vdec.h"
#include "platform/sim/fault.h"
#include "platform/sim/h264_codec.h"
#include "platform/sim/h264_decode.h"
#include "platform/sim/media_core.h"
#include "tests/support/enc_board.h"

namespace {

// One frame of a crafted record.
struct frame_spec {
    int cam;
    bool key;
    int show = 1;
    std::vector<uint8_t> data;
};

// Access units to decode: a small real stream where this build decodes,
// else any bytes (the board then counts one picture per unit).
std::vector<std::vector<uint8_t>> stream_units(int n)
{
    std::vector<std::vector<uint8_t>> out;
    if (sim_h264_codec_available()) {
        sim_loop_key key;
        key.width = 128;
        key.height = 96;
        key.gop = 4;
        key.kbps = 64;
        key.mfps = 25000;
        sim_h264_loop loop;
        if (sim_h264_encode(key, &loop)) {
            for (size_t i = 0; i < loop.aus.size() && static_cast<int>(out.size()) < n; ++i) {
                const sim_loop_au& au = loop.aus[i];
                std::vector<uint8_t> bytes;
                for (int p = 0; p < sim_loop_au::PARTS; ++p)
                    bytes.insert(bytes.end(), loop.data.begin() + au.off[p],
                                 loop.data.begin() + au.off[p] + au.len[p]);
                out.push_back(std::move(bytes));
            }
            return out;
        }
    }
    for (int i = 0; i < n; ++i)
        out.push_back(std::vector<uint8_t>(100 + i, static_cast<uint8_t>(i)));
    return out;
}

// The bytes of one record as the master lays it out.
std::vector<uint8_t> make_record(const std::vector<frame_spec>& frames, int skip_show = 0, uint32_t norec = 0)
{
    int32_t total = 0;
    for (const frame_spec& f : frames)
        total += static_cast<int32_t>(f.data.size());
    std::vector<uint8_t> bytes(DBUF_HEADER_SIZE + static_cast<size_t>(total));
    auto* d = reinterpret_cast<dbuf_t*>(bytes.data());
    d->num_vdec = static_cast<int32_t>(frames.size());
    int32_t off = 0;
    for (size_t i = 0; i < frames.size(); ++i) {
        d->cam[i] = frames[i].cam;
        d->key[i] = frames[i].key;
        d->show[i] = static_cast<uint8_t>(frames[i].show);
        d->len[i] = static_cast<int32_t>(frames[i].data.size());
        d->off[i] = off;
        d->width[i] = 128;
        d->height[i] = 96;
        d->fps[i] = 25;
        d->quality[i] = 2;
        std::memcpy(bytes.data() + DBUF_HEADER_SIZE - 4 + off, frames[i].data.data(), frames[i].data.size());
        off += d->len[i];
    }
    d->buf_off = total;
    d->buf_size = total;
    d->skip_show = skip_show;
    d->norec = norec;
    return bytes;
}

dbuf_t* as_dbuf(std::vector<uint8_t>& b)
{
    return reinterpret_cast<dbuf_t*>(b.data());
}

class cal_dec_test : public enc_board_test {
protected:
    void SetUp() override
    {
        enc_board_test::SetUp();
        cal_dec_mod.create(&cal_);
        ASSERT_NE(cal_.dec, nullptr);
    }
    void TearDown() override
    {
        if (cal_.dec != nullptr) {
            _dec_chip_exit(&cal_);
            cal_dec_mod.destroy(&cal_);
        }
        enc_board_test::TearDown();
    }

    cal_dec_t* dec() { return cal_.dec; }

    // A transfer as the exchange leaves it: the answered message and the
    // pulled bytes, exactly as many as the request named.
    int transfer(uint32_t cmd, const std::vector<uint8_t>& pulled, uint32_t second = 0)
    {
        hsc_msg_t m{};
        m.cmd = cmd;
        m.len = sizeof(dec_xfer_req_t);
        dec_xfer_req_t req{static_cast<uint32_t>(pulled.size()), 3, {}, second};
        std::memcpy(m.data, &req, sizeof(req));
        return dec_take_transfer(dec(), &m, pulled.data());
    }

    // Hands every queued message to the decode thread's handler, in order.
    int run_queue()
    {
        int n = 0;
        dec_msg_t m;
        while (os_msgrcv(dec()->msgid, &m, DEC_MSG_BODY_SIZE, 0, IPC_NOWAIT) >= 0) {
            dec_handle_msg(dec(), m);
            ++n;
        }
        return n;
    }

    // Posts a copy of a crafted record, as the intake does.
    void post(const std::vector<uint8_t>& rec)
    {
        ASSERT_EQ(transfer(HSCC_DEC_Dbuf, rec), 1);
    }

    uint32_t sends() { return sim_fault_calls(SIM_OP_HI_MPI_VDEC_SendStream); }

    // Waits until channel chn has decoded n pictures.
    bool decoded(int chn, uint64_t n)
    {
        for (int i = 0; i < 300; ++i) {
            if (sim_media_vdec_chn(chn).pictures >= n)
                return true;
            os_usleep(10000);
        }
        return false;
    }
};

TEST_F(cal_dec_test, transfers_the_master_got_wrong_are_refused_and_nothing_is_posted)
{
    const auto units = stream_units(2);
    const std::vector<uint8_t> good = make_record({{8, true, 1, units[0]}, {8, false, 1, units[1]}});
    struct bad_case {
        const char* name;
        std::vector<uint8_t> bytes;
        uint32_t cmd = HSCC_DEC_Dbuf;
        uint32_t second = 0;
    };
    std::vector<bad_case> cases;
    cases.push_back({"shorter than the index", std::vector<uint8_t>(good.begin(), good.begin() + 12000)});
    {
        auto b = good;
        as_dbuf(b)->buf_off += 1;  // one byte past what was pulled
        cases.push_back({"data past the pulled bytes", b});
    }
    for (int32_t n : {241, -1, 0x7fffffff}) {
        auto b = good;
        as_dbuf(b)->num_vdec = n;
        cases.push_back({"frame count", b});
    }
    {
        auto b = good;
        as_dbuf(b)->len[1] += 1;
        cases.push_back({"frame past buf_off", b});
        b = good;
        as_dbuf(b)->off[1] = -4;
        cases.push_back({"negative frame offset", b});
        b = good;
        as_dbuf(b)->len[0] = -1;
        cases.push_back({"negative frame length", b});
        b = good;
        as_dbuf(b)->off[0] = 0x7fffffff;
        cases.push_back({"offset that overflows", b});
    }
    {
        auto b = good;
        b.insert(b.end(), good.begin(), good.end());
        cases.push_back({"second record at the end", b, HSCC_DEC_Dbuf2, static_cast<uint32_t>(b.size())});
        // The second record starts at an odd offset: edit it through memcpy.
        uint8_t* second_off = b.data() + good.size() + offsetof(dbuf_t, buf_off);
        int32_t buf_off = 0;
        std::memcpy(&buf_off, second_off, sizeof buf_off);
        ++buf_off;
        std::memcpy(second_off, &buf_off, sizeof buf_off);
        cases.push_back({"second record cut short", b, HSCC_DEC_Dbuf2, static_cast<uint32_t>(good.size())});
    }
    for (bad_case& c : cases) {
        SCOPED_TRACE(c.name);
        const int before = dbuf_get_total_size();
        stdout_capture out;
        int posted = transfer(c.cmd, c.bytes, c.second);
        // A two-record transfer whose first record is good posts only that one.
        EXPECT_EQ(posted, c.cmd == HSCC_DEC_Dbuf2 ? 1 : 0);
        EXPECT_NE(out.text().find("refused.."), std::string::npos);
        EXPECT_EQ(cal_dec_num_dbuf(&cal_), posted);
        run_queue();
        EXPECT_EQ(dbuf_get_total_size(), before);
        EXPECT_EQ(cal_dec_num_dbuf(&cal_), 0);
    }
}

TEST_F(cal_dec_test, good_transfers_post_their_records_in_order)
{
    const auto units = stream_units(2);
    const auto a = make_record({{8, true, 1, units[0]}});
    const auto b = make_record({{9, true, 1, units[1]}});
    auto both = a;
    both.insert(both.end(), b.begin(), b.end());
    EXPECT_EQ(transfer(HSCC_DEC_Dbuf2, both, static_cast<uint32_t>(a.size())), 2);
    EXPECT_EQ(transfer(HSCC_DEC_Dbuf, make_record({})), 1);  // no frames: still a dbuf
    EXPECT_EQ(transfer(0x70002, both), 0);                    // not a record
    EXPECT_EQ(cal_dec_num_dbuf(&cal_), 3);

    dec_msg_t m;
    std::vector<int> cams;
    while (os_msgrcv(dec()->msgid, &m, DEC_MSG_BODY_SIZE, 0, IPC_NOWAIT) >= 0) {
        ASSERT_EQ(m.code, MSG_CMD_DBUF_WRITE);
        cams.push_back(m.dbuf->num_vdec > 0 ? m.dbuf->cam[0] : -1);
        EXPECT_EQ(std::memcmp(dbuf_data(m.dbuf), m.dbuf->num_vdec > 0 ? (m.dbuf->cam[0] == 8 ? units[0] : units[1]).data()
                                                                         : dbuf_data(m.dbuf),
                              static_cast<size_t>(m.dbuf->buf_off)),
                  0);
        dbuf_free(m.dbuf);
    }
    EXPECT_EQ(cams, (std::vector<int>{8, 9, -1}));
}

TEST_F(cal_dec_test, negative_data_length_is_a_broken_invariant)
{
    auto rec = make_record({});
    as_dbuf(rec)->buf_off = -1;
    // The log line goes to the console and syslog, not to the error stream.
    EXPECT_DEATH(transfer(HSCC_DEC_Dbuf, rec), "");
}

TEST_F(cal_dec_test, num_dbuf_never_reads_negative)
{
    dec()->num_dbuf = -3;
    EXPECT_EQ(cal_dec_num_dbuf(&cal_), 0);
    EXPECT_EQ(dec()->num_dbuf.load(), 0);
    EXPECT_TRUE(logged_line("RESET num_dbuf:-3"));
}

TEST_F(cal_dec_test, requests_take_effect_between_the_dbufs_queued_around_them)
{
    const auto u = stream_units(6);
    // Before a start the channels do not exist: the send fails and the
    // channel waits for a key frame again.
    post(make_record({{8, true, 1, u[0]}, {8, false, 1, u[1]}}));
    EXPECT_EQ(cal_mc_dec_cmd(&cal_, 1, 7), 0);
    // After the start decoding waits for a key frame.
    post(make_record({{8, false, 1, u[1]}, {8, true, 1, u[0]}, {8, false, 1, u[1]}}));
    uint32_t before = sends();
    EXPECT_EQ(run_queue(), 3);
    EXPECT_EQ(sends() - before, 3u);
    EXPECT_EQ(dec()->running, 1);

    post(make_record({{8, true, 1, u[0]}}));  // queued before the flush: dropped
    EXPECT_EQ(cal_mc_dec_cmd(&cal_, 3, 0), 0);
    EXPECT_EQ(dec()->flush_pending.load(), 1);
    post(make_record({{8, false, 1, u[2]}, {8, false, 1, u[3]}}));
    EXPECT_EQ(cal_mc_dec_cmd(&cal_, 2, 0), 0);
    post(make_record({{8, true, 1, u[0]}, {8, false, 1, u[1]}}));  // after the stop: nowhere to go
    EXPECT_EQ(cal_mc_dec_cmd(&cal_, 9, 0), -1);

    before = sends();
    EXPECT_EQ(run_queue(), 5);
    // Flushed: 0; after the flush: 2; stopped: 1 attempt, then waiting.
    EXPECT_EQ(sends() - before, 3u);
    EXPECT_EQ(dec()->flush_pending.load(), 0);
    EXPECT_EQ(dec()->running, 0);
    EXPECT_EQ(cal_dec_num_dbuf(&cal_), 0);
    EXPECT_FALSE(sim_media_vdec_chn(0).created);
}

TEST_F(cal_dec_test, decoded_frames_reach_the_group_and_skip_show_passes_only_marked_ones)
{
    const auto u = stream_units(6);
    dec_handle_msg(dec(), dec_msg_t{1, MSG_CMD_DEC_START, 0, 0, 0, nullptr});
    ASSERT_TRUE(sim_media_vdec_chn(0).created && sim_media_vdec_chn(0).receiving);
    for (int k = 0; k < 8; ++k) {
        vpss_grp_attr_t g{1920, 1080, PIXEL_FORMAT_YUV_SEMIPLANAR_420, 0, 0, 0, 0, 0, 0};
        ASSERT_TRUE(HI_MPI_VPSS_CreateGrp(k, &g) == 0 && HI_MPI_VPSS_StartGrp(k) == 0);
    }
    ASSERT_EQ(_bind_unbind(dec(), 0), 0);
    EXPECT_EQ(sim_media_bindings().size(), 8u);

    // Bound: every picture flows to group 0 by itself.
    post(make_record({{8, true, 1, u[0]}, {8, false, 0, u[1]}}));
    run_queue();
    ASSERT_TRUE(decoded(0, 2));
    EXPECT_EQ(sim_media_vpss_grp(0).decoded, 2u);

    // Skip-show: unbound before the first frame; only shown frames go on.
    post(make_record({{8, false, 0, u[2]}, {8, false, 1, u[3]}, {8, false, 0, u[4]}}, 1));
    run_queue();
    EXPECT_TRUE(sim_media_bindings().empty());
    EXPECT_EQ(sim_media_vdec_chn(0).pictures, 5u);
    EXPECT_EQ(sim_media_vpss_grp(0).user_frames, 1u);
    EXPECT_EQ(sim_media_vpss_grp(0).decoded, 2u);

    // Back to bound.
    post(make_record({{8, false, 1, u[5]}}, 0));
    run_queue();
    EXPECT_EQ(sim_media_bindings().size(), 8u);
    if (sim_h264_decoder_available()) {
        EXPECT_EQ(sim_media_vdec_chn(0).width, 128u);
    }
}

TEST_F(cal_dec_test, a_frame_longer_than_the_staging_room_is_refused)
{
    std::vector<uint8_t> big(DEC_MAX_FRAME + 1);
    stdout_capture out;
    EXPECT_EQ(_decode_vdec(dec(), 0, big.data(), DEC_MAX_FRAME + 1, 1, 0), -1);
    EXPECT_NE(out.text().find("refused.. ch:0"), std::string::npos);
}

TEST_F(cal_dec_test, status_reports_the_decode_heartbeat_after_the_encoder)
{
    hsc_msg_t m{};
    m.cmd = HSCC_CAL_GetStatus;
    EXPECT_EQ(cal_cmd_dispatch(&cal_, &m), 0);
    int32_t v = -1;
    std::memcpy(&v, m.data + 48, 4);
    EXPECT_EQ(v, kel_thread_heart(dec()->thread_vdec));
}

}  // namespace
