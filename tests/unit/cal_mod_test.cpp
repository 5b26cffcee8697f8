// How modules join: the core walks the module tables in its orders, the
// status reply and the clock command reach the modules through them, and
// a module's rows take over the codes the loop kept for it. Then the real
// tables through a whole life.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "cal/cal.h"
#include "cal/cal_buf.h"
#include "cal/cal_cmd.h"
#include "cal/cal_log.h"
#include "cal/cal_mod.h"
#include "cal/startup.h"
#include "enc/cal_enc.h"
#include "msg/cal_hsc.h"
#include "platform/os.h"
#include "tests/support/fake_master.h"
#include "tests/support/test_board.h"
#include "vin/cal_vin.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::vector<std::string> g_calls;
bool g_present[CAL_MOD_COUNT];

const char* const k_names[CAL_MOD_COUNT] = {"vout", "dec", "enc", "vin"};

int fake_row(cal_t*, hsc_msg_t* msg)
{
    g_calls.push_back("row " + std::to_string(msg->data[0]));
    return 41;
}

template <cal_mod_id ID>
struct fake {
    static void call(const char* op) { g_calls.push_back(std::string(op) + " " + k_names[ID]); }
    static void create(cal_t*)
    {
        call("new");
        TRACE("new %s\n", k_names[ID]);
        g_present[ID] = true;
    }
    static int start(cal_t*) { return call("start"), ID + 1; }
    static int stop(cal_t*) { return call("stop"), 10 * (ID + 1); }
    static void destroy(cal_t*)
    {
        call("delete");
        g_present[ID] = false;
    }
    static bool present(const cal_t*) { return g_present[ID]; }
    static int status(cal_t*, unsigned char* payload)
    {
        int32_t v = 100 + ID;
        std::memcpy(payload + 48, &v, 4);
        return 0;
    }
    static void set_time(cal_t*, uint64_t us) { call(("time " + std::to_string(us)).c_str()); }

    static constexpr cal_cmd_row_t rows[] = {{HSCC_CAL_SetMd, HSCC_CAL_SetMd, 1, false, fake_row}};
    static constexpr cal_mod_t table = {
        k_names[ID], ID == CAL_MOD_VIN ? std::span<const cal_cmd_row_t>(rows) : std::span<const cal_cmd_row_t>(),
        create,      start,
        stop,        destroy,
        present,     ID == CAL_MOD_ENC || ID == CAL_MOD_DEC ? status : nullptr,
        set_time,
    };
};

// A board with its master and media system up, before the core exists.
class cal_mod_test : public board_test {
protected:
    void SetUp() override
    {
        board_test::SetUp();
        master_ = std::make_unique<fake_master>(board_.path());
        stdout_capture quiet;
        _init_mem();
    }
    void TearDown() override
    {
        if (cal_ != nullptr)
            cal_delete(cal_);
        std::copy(std::begin(saved_), std::end(saved_), cal_mods);
        master_.reset();
        board_test::TearDown();
    }
    void use_fakes()
    {
        cal_mods[CAL_MOD_VOUT] = &fake<CAL_MOD_VOUT>::table;
        cal_mods[CAL_MOD_DEC] = &fake<CAL_MOD_DEC>::table;
        cal_mods[CAL_MOD_ENC] = &fake<CAL_MOD_ENC>::table;
        cal_mods[CAL_MOD_VIN] = &fake<CAL_MOD_VIN>::table;
    }
    void make_core()
    {
        cal_ = cal_new();
        cal_->slave_cam = 8;
        cal_->cam_base = 8;
        cal_->num_vin = 16;
        cal_mod_new(cal_);
        master_->recv_msg(MSGPORT_CAL);  // the announcement
    }
    // Stops the transmit threads: the record thread waits in its queue.
    int stop_core()
    {
        kel_thread_notify_stop(cal_->thread_encr);
        tx_msg_t wake{};
        wake.type = 1;
        os_msgsnd(cal_->msgid_encr, &wake, TX_MSG_BODY_SIZE, 0);
        return cal_stop(cal_);
    }

    const cal_mod_t* saved_[CAL_MOD_COUNT] = {cal_mods[0], cal_mods[1], cal_mods[2], cal_mods[3]};
    std::unique_ptr<fake_master> master_;
    cal_t* cal_ = nullptr;
};

TEST_F(cal_mod_test, the_core_walks_the_tables_in_its_orders)
{
    use_fakes();
    stdout_capture out;
    make_core();
    size_t at = 0;
    for (const char* step : {"> new vout\n", "> new dec\n", "> new enc\n", "> new vin\n", "> start chip init slave",
                             "> .. module new cal:"})
        EXPECT_NE(at = out.text().find(step, at), std::string::npos) << step << " missing or out of order";

    stdout_capture start_out;
    EXPECT_EQ(cal_start(cal_), 2 + 3 + 4);
    EXPECT_THAT(start_out.text(), HasSubstr("> r1:2 r3:4\n"));  // the decoder's and the video input's results
    EXPECT_EQ(stop_core(), 20 + 30 + 40);
    cal_mod_set_time(cal_, 77);
    cal_delete(cal_);
    cal_ = nullptr;
    EXPECT_THAT(g_calls, ElementsAre("new vout", "new dec", "new enc", "new vin", "start dec", "start enc",
                                     "start vin", "stop dec", "stop enc", "stop vin", "time 77 vout", "time 77 dec",
                                     "time 77 enc", "time 77 vin", "delete vin", "delete dec", "delete enc",
                                     "delete vout"));
}

TEST_F(cal_mod_test, status_clock_and_rows_reach_only_the_modules_that_exist)
{
    use_fakes();
    make_core();
    g_calls.clear();
    // The decoder reports after the encoder: its value stays at 48.
    hsc_msg_t msg{};
    cal_cmd_get_status(cal_, &msg);
    int32_t w48;
    std::memcpy(&w48, msg.data + 48, 4);
    EXPECT_EQ(w48, 100 + CAL_MOD_DEC);
    g_present[CAL_MOD_DEC] = false;
    cal_cmd_get_status(cal_, &msg);
    std::memcpy(&w48, msg.data + 48, 4);
    EXPECT_EQ(w48, 100 + CAL_MOD_ENC);

    // The clock command reaches every module that exists.
    _set_time(cal_, 1, 1700000000000000ull);
    EXPECT_THAT(g_calls, ElementsAre("time 1700000000000000 vout", "time 1700000000000000 enc",
                                     "time 1700000000000000 vin"));

    // A module's row takes over the code the loop kept for it; its result is
    // the answer; gone with the module, the loop's placeholder answers 0.
    msg = {};
    msg.cmd = HSCC_CAL_SetMd;
    msg.len = 8;
    msg.data[0] = 5;
    EXPECT_EQ(cal_cmd_dispatch(cal_, &msg), 41);
    EXPECT_EQ(g_calls.back(), "row 5");
    g_present[CAL_MOD_VIN] = false;
    EXPECT_EQ(cal_cmd_dispatch(cal_, &msg), 0);
    EXPECT_EQ(g_calls.back(), "row 5");
    g_present[CAL_MOD_VIN] = true;
    msg.len = 0;  // shorter than the row's payload: refused, nothing run
    EXPECT_EQ(cal_cmd_dispatch(cal_, &msg), -1);
    EXPECT_EQ(g_calls.size(), 4u);
}

TEST_F(cal_mod_test, the_real_modules_live_and_go_through_their_tables)
{
    // Every row of a joined module is the one the loop finds for its codes.
    // Only the font rows take any length: what a short one lacks reads as 0.
    for (const cal_mod_t* m : saved_)
        if (m != nullptr)
            for (const cal_cmd_row_t& row : m->rows) {
                EXPECT_TRUE(row.min_len > 0u || row.code == HSCC_CAL_SetTimeFont) << m->name << " " << std::hex
                                                                                   << row.code;
                EXPECT_NE(row.run, nullptr);
            }
    make_core();
    ASSERT_NE(cal_->enc, nullptr);
    ASSERT_NE(cal_->vin, nullptr);
    for (const cal_mod_t* m : {&cal_enc_mod, &cal_vin_mod})
        for (const cal_cmd_row_t& row : m->rows)
            EXPECT_EQ(cal_cmd_find_row(cal_, row.code), &row) << std::hex << row.code;
    EXPECT_EQ(cal_vin_get_caps(cal_, 7, nullptr, nullptr, nullptr, nullptr), 0);

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // The stop cancels the motion thread in its first sleep and the intake
    // thread in its wait on the master; neither sanitizer follows a cancel's
    // unwinding out of a blocking call. The other builds run the rest.
    cal_delete(cal_);
    cal_ = nullptr;
    GTEST_SKIP() << "pthread_cancel unwinding is not followed by the sanitizers";
#endif
    EXPECT_EQ(cal_start(cal_), 0);
    EXPECT_EQ(kel_thread_running(cal_->enc->thread_enc), 1);
    EXPECT_EQ(kel_thread_running(cal_->enc->thread_jpg), 1);
    EXPECT_EQ(kel_thread_running(cal_->vin->thread), 1);
    // The motion thread is still in its first 10 s: its stop ends by
    // cancelling it, which the stop's sum reports.
    EXPECT_EQ(stop_core(), 1);
    EXPECT_EQ(kel_thread_running(cal_->vin->thread), 0);
    EXPECT_EQ(kel_thread_running(cal_->enc->thread_enc), 0);
    cal_delete(cal_);
    cal_ = nullptr;
    EXPECT_EQ(kel_thread_registry, nullptr);
    EXPECT_EQ(ebuf_get_cnt(), 0);
}

TEST_F(cal_mod_test, a_module_that_declines_to_exist_is_skipped)
{
    // More than 32 cameras: no channel, no modules, and nothing to start.
    cal_ = cal_new();
    cal_->slave_cam = 33;
    EXPECT_EQ(cal_vin_new(cal_), nullptr);
    for (cal_mod_id id : CAL_MOD_NEW_ORDER)
        if (const cal_mod_t* m = cal_mods[id])
            m->create(cal_);
    EXPECT_EQ(cal_->enc, nullptr);
    EXPECT_EQ(cal_->vin, nullptr);
    EXPECT_EQ(cal_mod_live(cal_, CAL_MOD_ENC), nullptr);
    EXPECT_EQ(cal_start(cal_), 0);
    EXPECT_EQ(stop_core(), 0);
}

}  // namespace
