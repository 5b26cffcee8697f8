// The encoder module's handlers: what set-video, run-video, update and
// avcres record, what the status reply and the clock command get, and what
// bad input from the master does (nothing, and no crash).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/msg.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <limits>

#include "cal/startup.h"
#include "platform/os.h"
#include "platform/sim/fault.h"
#include "tests/support/enc_board.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class cal_enc_test : public enc_board_test {
protected:
    // The whole settings part of the module, to show a command changed nothing.
    std::vector<unsigned char> settings()
    {
        const auto* b = reinterpret_cast<const unsigned char*>(&enc()->ref_fps);
        const auto* e = reinterpret_cast<const unsigned char*>(&enc()->bs_buf);
        std::vector<unsigned char> v(b, e);
        v.push_back(static_cast<unsigned char>(enc()->fps));
        v.push_back(static_cast<unsigned char>(enc()->avc_cnt));
        return v;
    }
    bool logged(const std::string& text) { return read_file(chip_file("var/log/message")).find(text) != std::string::npos; }
    int queued_updates() { return queued(enc()->msgid_ce_enc); }
};

TEST_F(cal_enc_test, a_new_module_and_its_limits)
{
    EXPECT_EQ(enc()->num, 8);
    EXPECT_EQ(enc()->period, 16666);
    EXPECT_EQ(enc()->fps, 60);
    EXPECT_EQ(enc()->rec[5].cam, 5);
    EXPECT_EQ(enc()->net_low[7].cam, 7);
    EXPECT_EQ(enc()->ref_fps[7], 60);
    EXPECT_EQ(enc()->ref_fps[8], 0);
    EXPECT_EQ(enc()->chn[127].fd, -1);
    EXPECT_EQ(enc()->chn[127].payload, 96);
    EXPECT_EQ(enc()->bs_size, 0x100000);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(enc()->bs_buf) % static_cast<uintptr_t>(sysconf(_SC_PAGESIZE)), 0u);
    drop_modules();
    for (int n : {33, -1}) {
        cal_.slave_cam = n;
        EXPECT_EQ(cal_enc_new(&cal_), nullptr) << n;
    }
}

TEST_F(cal_enc_test, set_video_records_each_kind_as_the_master_describes_it)
{
    stdout_capture out;
    EXPECT_EQ(set_video(ENC_KIND_REC, 9, 1920, 1080, 30.9f, 2, 0x41), 0);
    const cal_enc_stream_t& rec = enc()->rec[1];
    EXPECT_THAT((std::vector<int>{rec.width, rec.height, rec.fps, rec.quality, rec.attr, rec.payload, rec.sys_fps,
                                  rec.changed}),
                ElementsAre(1920, 1080, 30, 2, 0x41, 96, 60, 0));
    EXPECT_THAT(out.text(), HasSubstr("HSCC_CAL_SetEncVideo.. ch:9 xres:1920 yres:1080 fps:30.9 use_main:0\n"));
    EXPECT_TRUE(logged("REC.. ch:1 width:1920 height:1080"));

    // The same five values again: nothing logged; a new attribute alone is a change.
    std::string before = read_file(chip_file("var/log/message"));
    EXPECT_EQ(set_video(ENC_KIND_REC, 9, 1920, 1080, 30.2f, 2, 0x41), 0);
    EXPECT_EQ(read_file(chip_file("var/log/message")), before);
    EXPECT_EQ(set_video(ENC_KIND_REC, 9, 1920, 1080, 30.2f, 2, 0x42), 0);
    EXPECT_EQ(rec.attr, 0x42);
    EXPECT_NE(read_file(chip_file("var/log/message")), before);

    // Network streams keep their attribute; REC LOW logs also unchanged.
    EXPECT_EQ(set_video(ENC_KIND_NET, 10, 704, 576, 15.0f, 1, 0x99), 0);
    EXPECT_EQ(set_video(ENC_KIND_NET_LOW, 10, 352, 288, 15.0f, 3, 0x99), 0);
    EXPECT_EQ(set_video(ENC_KIND_REC_LOW, 10, 704, 576, 15.0f, 1, 7), 0);
    EXPECT_EQ(set_video(ENC_KIND_REC_LOW, 10, 704, 576, 15.0f, 1, 7), 0);
    EXPECT_EQ(enc()->net[2].attr, 0);
    EXPECT_EQ(enc()->net[2].width, 704);
    EXPECT_EQ(enc()->net_low[2].quality, 3);
    EXPECT_EQ(enc()->rec_low[2].attr, 7);
    EXPECT_TRUE(logged("NET.. ch:2 width:704 height:576"));
    EXPECT_TRUE(logged("NET LOW.. ch:2 width:352 height:288"));
    auto lines = syslog_lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& l) { return l.find("REC LOW.. ch:2 width:704") != l.npos; }),
              2);
}

TEST_F(cal_enc_test, run_video_switches_streams_and_marks_them_for_the_next_update)
{
    set_video(ENC_KIND_REC, 8, 1920, 1080, 30, 2, 5);
    EXPECT_EQ(run_video(ENC_KIND_REC, 8, 1), 0);
    const cal_enc_stream_t& rec = enc()->rec[0];
    EXPECT_THAT((std::vector<int>{rec.on, rec.run, rec.wait_key, rec.changed, rec.saved[0], rec.saved[1], rec.saved[2]}),
                ElementsAre(1, 1, 1, 1, 5, 30, 2));
    EXPECT_TRUE(logged("REC.. ch:0 onoff:1 start:1"));
    EXPECT_EQ(run_video(ENC_KIND_REC, 8, 0, 77), 0);
    EXPECT_THAT((std::vector<int>{rec.on, rec.run, rec.width, rec.height, rec.saved[3], rec.saved[4]}),
                ElementsAre(0, 0, 0, 0, 77, 5));

    EXPECT_EQ(run_video(ENC_KIND_REC_LOW, 15, 1), 0);
    EXPECT_EQ(enc()->rec_low[7].on, 1);
    EXPECT_EQ(enc()->rec_low[7].run, 0);
    EXPECT_EQ(run_video(ENC_KIND_NET, 9, 1), 0);
    EXPECT_EQ(run_video(ENC_KIND_NET_LOW, 9, 2), 0);
    EXPECT_EQ(enc()->net[1].on + enc()->net[1].wait_key + enc()->net[1].changed, 3);
    EXPECT_EQ(enc()->net_low[1].on, 1);
    EXPECT_TRUE(logged("NET LOW.. ch:1 onoff:2 start:1"));

    EXPECT_EQ(run_video(ENC_KIND_JPEG, 9, 5), 0);
    EXPECT_EQ(enc()->jpg_on[1], 1);
    EXPECT_EQ(run_video(ENC_KIND_COPY, 9, 3), 0);
    EXPECT_EQ(enc()->copy_on[1], 3);
    EXPECT_EQ(enc()->copy_wait_key[1], 0);
    EXPECT_EQ(run_video(ENC_KIND_COPY, 9, 0), 0);
    EXPECT_EQ(enc()->copy_wait_key[1], 1);
}

TEST_F(cal_enc_test, a_camera_out_of_range_is_refused_by_every_handler_and_changes_nothing)
{
    const auto before = settings();
    struct base_cam {
        int base;
        int64_t cam;
    } cases[] = {{8, 7}, {8, 16}, {8, 255}, {0, 8}, {INT_MAX, 0}, {INT_MAX - 7, 255}, {INT_MIN, 0}, {INT_MIN, 255}};
    for (auto [base, cam] : cases) {
        cal_.cam_base = base;
        SCOPED_TRACE(std::to_string(base) + " " + std::to_string(cam));
        stdout_capture out;
        for (uint32_t kind : {0u, 1u, 2u, 4u, 5u, 6u, 7u}) {
            EXPECT_EQ(set_video(kind, static_cast<int>(cam), 1920, 1080, 30), -1);
            EXPECT_EQ(run_video(kind, static_cast<uint32_t>(cam), 1), -1);
        }
        EXPECT_THAT(out.text(), HasSubstr("refused"));
    }
    // Run-video carries a 32-bit camera: the extremes too.
    cal_.cam_base = 8;
    for (uint32_t cam : {0x80000000u, 0x7FFFFFFFu, 0xFFFFFFFFu, 8u + 8u})
        EXPECT_EQ(run_video(ENC_KIND_REC, cam, 1), -1) << cam;
    cal_.cam_base = INT_MAX;
    EXPECT_EQ(run_video(ENC_KIND_REC, 0xFFFFFFFFu, 1), -1);
    EXPECT_EQ(_enc_set_ref_fps(&cal_, -1, 5), -1);
    EXPECT_EQ(_enc_set_ref_fps(&cal_, 8, 5), -1);
    EXPECT_EQ(_enc_set_ref_fps(&cal_, INT_MIN, 5), -1);
    EXPECT_EQ(settings(), before);
}

TEST_F(cal_enc_test, any_kind_camera_size_and_rate_never_crashes)
{
    const uint32_t kinds[] = {0, 1, 2, 3, 4, 5, 6, 7, 0x7FFFFFFF, 0xFFFFFFFF};
    const int sizes[] = {-32768, -1, 1920, 32767};
    const float rates[] = {-1e30f, 0.0f, 0.4f, 30.0f, 1e30f};
    stdout_capture quiet;
    for (uint32_t kind : kinds)
        for (int cam = 0; cam < 256; cam += 5)
            for (int w : sizes)
                for (float f : rates) {
                    const bool mine = cam >= 8 && cam < 16;
                    ASSERT_EQ(set_video(kind, cam, w, -w, f, cam, cam), mine ? 0 : -1);
                    ASSERT_EQ(run_video(kind, static_cast<uint32_t>(cam), static_cast<uint32_t>(w)), mine ? 0 : -1);
                }
    // Truncated toward zero and held to int.
    set_video(ENC_KIND_NET, 8, 1, 1, 3e9f);
    EXPECT_EQ(enc()->net[0].fps, INT_MAX);
    set_video(ENC_KIND_NET, 8, 1, 1, -1.9f);
    EXPECT_EQ(enc()->net[0].fps, -1);
    // A rate that is no number is refused.
    for (float f : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()})
        EXPECT_EQ(set_video(ENC_KIND_NET, 8, 1, 1, f), -1);
    EXPECT_EQ(enc()->net[0].fps, -1);
    // A request shorter than its payload runs nothing.
    enc_set_video_cmd_t p{};
    p.cam = 8;
    p.width = 99;
    EXPECT_EQ(command(HSCC_CAL_SetEncVideo, p, 16), -1);
    EXPECT_EQ(command(HSCC_CAL_RunEncVideo, enc_run_video_cmd_t{0, 8, 1, 0}, 15), -1);
    EXPECT_EQ(command(HSCC_CAL_UpdatEncVideo, enc_update_cmd_t{}, 15), -1);
    EXPECT_EQ(enc()->rec[0].width, 0);
    EXPECT_EQ(enc()->rec[0].on, 0);
}

TEST_F(cal_enc_test, update_keeps_the_rate_when_given_none_and_queues_the_rebuild)
{
    stdout_capture out;
    EXPECT_EQ(update(0, 25), 0);
    EXPECT_EQ(enc()->fps, 25);
    EXPECT_EQ(enc()->period, 40000);
    for (int16_t f : {int16_t(0), int16_t(-1), int16_t(-32768)}) {
        EXPECT_EQ(update(0, f), 0);
        EXPECT_EQ(enc()->fps, 25);
        EXPECT_EQ(enc()->period, 40000);
    }
    EXPECT_EQ(update(0, 32767), 0);
    EXPECT_EQ(enc()->period, 30);
    EXPECT_THAT(out.text(), HasSubstr("HSCC_CAL_UpdatEncVideo.. 0 -32768 0\n"));
    EXPECT_EQ(queued_updates(), 5);

    enc_update_msg_t m{};
    ASSERT_EQ(os_msgrcv(enc()->msgid_ce_enc, &m, ENC_UPDATE_BODY_SIZE, 0, IPC_NOWAIT), ENC_UPDATE_BODY_SIZE);
    EXPECT_EQ(m.type, MSG_CMD_ENC_UPDATE);
}

TEST_F(cal_enc_test, update_with_sync_sets_the_clock_only_when_far_from_the_platform_clock)
{
    uint64_t cur = 0;
    ASSERT_EQ(HI_MPI_SYS_GetCurPts(&cur), 0);
    const uint32_t clock_sets = sim_fault_calls(SIM_OP_settimeofday);
    EXPECT_EQ(update(1, 30, cur + 1000000), 0);
    EXPECT_EQ(sim_fault_calls(SIM_OP_settimeofday), clock_sets);
    EXPECT_EQ(enc()->last_pts, cur + 1000000);

    ASSERT_EQ(HI_MPI_SYS_GetCurPts(&cur), 0);
    EXPECT_EQ(update(1, 30, cur + 3000000), 0);
    EXPECT_EQ(sim_fault_calls(SIM_OP_settimeofday), clock_sets + 1);
    EXPECT_EQ(sim_fault_calls(SIM_OP_HI_MPI_SYS_InitPtsBase), 1u);  // the first alignment sets the base
    EXPECT_EQ(enc()->last_pts, cur + 3000000);

    // Behind the platform clock: the clock follows; the base is set once.
    EXPECT_EQ(update(1, 30, 1000), 0);
    EXPECT_EQ(sim_fault_calls(SIM_OP_settimeofday), clock_sets + 2);
    EXPECT_EQ(sim_fault_calls(SIM_OP_HI_MPI_SYS_InitPtsBase), 2u);  // going back needs a new base
    // A value the clock cannot hold only reaches the stamps.
    EXPECT_EQ(update(1, 30, UINT64_MAX), 0);
    EXPECT_EQ(enc()->last_pts, UINT64_MAX);
    // Without sync nothing of the clocks moves.
    EXPECT_EQ(update(0, 30, 5), 0);
    EXPECT_EQ(enc()->last_pts, UINT64_MAX);
}

TEST_F(cal_enc_test, an_update_the_queue_refuses_is_taken_by_the_encoder_thread)
{
    set_video(ENC_KIND_NET, 8, 704, 576, 15);
    run_video(ENC_KIND_NET, 8, 1);
    ASSERT_EQ(sim_fault_set("msgsnd=1c", nullptr), 0);
    EXPECT_EQ(update(0, 30), 0);
    // Nothing is rebuilt on the main thread, beside the running encoder
    // thread: the update waits for the thread's next pass.
    EXPECT_EQ(enc()->update_pending.load(), 1);
    EXPECT_FALSE(logged("ch:0 network high success.."));
    ASSERT_EQ(cal_enc_start(enc()), 0);
    for (int i = 0; i < 300 && enc()->update_pending.load() != 0; ++i)
        os_usleep(10000);
    EXPECT_EQ(cal_enc_stop(enc()), 0);
    EXPECT_EQ(enc()->update_pending.load(), 0);
    EXPECT_EQ(enc()->net[0].changed, 0);
    EXPECT_TRUE(logged("ch:0 network high success.."));
}

TEST_F(cal_enc_test, the_clock_command_aligns_the_stamps_through_the_module_table)
{
    _set_time(&cal_, 1700000000, 1700000000123456ull);
    EXPECT_EQ(enc()->last_pts, 1700000000123456ull);
    uint64_t cur = 0;
    ASSERT_EQ(HI_MPI_SYS_GetCurPts(&cur), 0);
    EXPECT_NEAR(static_cast<double>(cur), 1700000000123456.0, 5e6);
}

TEST_F(cal_enc_test, avcres_holds_eight_pairs_and_never_reads_past_the_message)
{
    struct avc_msg {
        int16_t cnt;
        uint16_t pair[12][2];
    } m{};
    for (int i = 0; i < 12; ++i)
        m.pair[i][0] = m.pair[i][1] = static_cast<uint16_t>(100 + i);
    m.cnt = 3;
    EXPECT_EQ(command(HSCC_CAL_3531_avcres, m, 2 + 3 * 4), 0);
    EXPECT_EQ(enc()->avc_cnt, 3);
    EXPECT_EQ(enc()->avc_res[2][1], 102);
    EXPECT_EQ(enc()->avc_res[3][0], 0);

    m.cnt = 200;  // more than the record holds
    EXPECT_EQ(command(HSCC_CAL_3531_avcres, m), 0);
    EXPECT_EQ(enc()->avc_cnt, 8);
    EXPECT_EQ(enc()->avc_res[7][0], 107);

    m.cnt = 6;  // more than arrived: only the two whole pairs that did
    m.pair[0][0] = 1;
    EXPECT_EQ(command(HSCC_CAL_3531_avcres, m, 2 + 2 * 4 + 3), 0);
    EXPECT_EQ(enc()->avc_cnt, 2);
    EXPECT_EQ(enc()->avc_res[0][0], 1);

    m.cnt = -5;  // stored as it came; the pairs stay
    EXPECT_EQ(command(HSCC_CAL_3531_avcres, m), 0);
    EXPECT_EQ(enc()->avc_cnt, -5);
    EXPECT_EQ(enc()->avc_res[1][0], 101);
    EXPECT_EQ(command(HSCC_CAL_3531_avcres, m, 1), 0);  // short: answered 0, nothing read
    EXPECT_EQ(enc()->avc_cnt, -5);
}

TEST_F(cal_enc_test, status_reply_carries_the_encoder_and_snapshot_heartbeats)
{
    ASSERT_EQ(cal_enc_start(enc()), 0);
    EXPECT_NE(kel_thread_running(enc()->thread_jpg), 0);
    // The snapshot thread's first pass comes 5 s after its start.
    for (int i = 0; i < 1500 && kel_thread_heart(enc()->thread_jpg) < 1; ++i)
        os_usleep(10000);
    msg_ = {};
    cal_cmd_get_status(&cal_, &msg_);
    int32_t w48, w52;
    std::memcpy(&w48, msg_.data + 48, 4);
    std::memcpy(&w52, msg_.data + 52, 4);
    EXPECT_GE(w48, 1);  // no decoder overwrites it yet
    EXPECT_GE(w52, 1);
    EXPECT_EQ(cal_enc_stop(enc()), 0);
}

using cal_enc_death_test = cal_enc_test;

TEST_F(cal_enc_death_test, operations_check_their_objects)
{
    EXPECT_FATAL(cal_enc_start(nullptr), "enc is NULL");
    enc()->size -= 4;
    EXPECT_FATAL(cal_enc_stop(enc()), "size != sizeof\\(cal_enc_t\\)");
    EXPECT_FATAL(cal_enc_thread(enc()), "size != sizeof\\(cal_enc_t\\)");
    enc()->size += 4;
    cal_enc_t* e = enc();
    cal_.enc = nullptr;
    EXPECT_FATAL(_enc_set_ref_fps(&cal_, 0, 1), "enc is NULL");
    cal_.enc = e;
    EXPECT_FATAL(cal_m_enc_set_video(nullptr, &msg_), "cal is NULL");
}

}  // namespace
