// The CAL core: what cal_new builds and empties, the scheduling table as
// the board records it, the start and stop orders, and the object checks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/msg.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "cal/cal.h"
#include "cal/cal_buf.h"
#include "platform/os.h"
#include "tests/support/test_board.h"

namespace {

using ::testing::HasSubstr;

class cal_core_test : public board_test {
protected:
    // Deleting the core stops its threads.
    void TearDown() override
    {
        cal_delete(cal_);
        board_test::TearDown();
    }

    cal_t* cal_ = nullptr;
};

TEST_F(cal_core_test, new_core_drains_the_queues_an_earlier_run_left_and_delete_frees_its_threads)
{
    int encr = os_msgget(MSG_KEY_ENCR, IPC_CREAT);
    int encn = os_msgget(MSG_KEY_ENCN, IPC_CREAT);
    tx_msg_t m{};
    for (int i = 0; i < 5; ++i) {
        m.type = MSG_CMD_ENC_DATA;
        ASSERT_EQ(os_msgsnd(encr, &m, TX_MSG_BODY_SIZE, IPC_NOWAIT), 0);
        m.type = 12 + i;  // any type goes
        ASSERT_EQ(os_msgsnd(encn, &m, TX_MSG_BODY_SIZE, IPC_NOWAIT), 0);
    }
    reopen("");  // the earlier run ends; a new one starts on the same board
    cal_delete(cal_new());
    EXPECT_EQ(queued(encr), 0);
    EXPECT_EQ(queued(encn), 0);
    EXPECT_EQ(kel_thread_registry, nullptr);
}

TEST_F(cal_core_test, known_names_ask_for_their_round_robin_priority_and_a_refusal_still_succeeds)
{
    const std::pair<const char*, int> table[] = {
        {"gui", 2},           {"cal_enc_thread", 1},   {"tx_encr_thread", 1},   {"tx_encn_thread", 1},
        {"cal_jpeg_thread", 1}, {"cal_vin_thread", 1}, {"dec_thread", 1},       {"vout_thread", 5},
        {"cal_vdec_thread", 79}, {"cal_adec_thread", 99}, {"cal_recv_dec_thread", 99},
    };
    std::vector<std::string> expect;
    stdout_capture out;
    for (auto [name, priority] : table) {
        EXPECT_EQ(cal_thread_priority(0, name), 0) << name;
        expect.push_back(std::to_string(gettid()) + " SCHED_RR " + std::to_string(priority));
    }
    // Near misses change nothing.
    for (const char* name : {"Gui", "cal_enc_thread ", "thread_encr"})
        EXPECT_EQ(cal_thread_priority(0, name), -1) << name;
    EXPECT_EQ(read_lines(chip_file("sched.log")), expect);

    reopen("sched_setscheduler=1");
    EXPECT_EQ(cal_thread_priority(0, "gui"), 0);
    EXPECT_EQ(cal_thread_priority(0, "cal_recv_dec_thread"), 0);
    std::string text = out.text();
    EXPECT_THAT(text, HasSubstr("> schedscheduler error:Operation not permitted\n"));
    // The playback intake's refusal is an error line instead of the trace.
    EXPECT_THAT(text, HasSubstr("> ERROR!! sched_setscheduler.. Operation not permitted\n"));
    EXPECT_EQ(read_lines(chip_file("sched.log")), expect);
}

TEST_F(cal_core_test, start_runs_the_transmit_threads_one_after_the_other)
{
    cal_t* cal = cal_ = cal_new();
    stdout_capture out;
    ASSERT_EQ(cal_start(cal), 0);
    // encr is waited for until stable before encn is started.
    size_t at = 0;
    for (const char* step :
         {"> name:thread_encr k:", "> name:thread_encn pid:0 id:", "> name:thread_encn k:", "> r1:0 r3:0\n"})
        EXPECT_NE(at = out.text().find(step, at), std::string::npos) << step << " missing or out of order";
    EXPECT_EQ(kel_thread_running(cal->thread_encr) + kel_thread_running(cal->thread_encn), 2);
    // The record thread waits in its queue: asked to end, a message of no
    // interest wakes it for the stop of the tear-down.
    kel_thread_notify_stop(cal->thread_encr);
    tx_msg_t wake{};
    wake.type = 1;
    os_msgsnd(cal->msgid_encr, &wake, TX_MSG_BODY_SIZE, 0);
}

TEST_F(cal_core_test, stop_asks_both_transmit_threads_before_waiting_for_either)
{
    cal_ = cal_new();
    // Once asked, each gives the stop half a second to ask the other too and
    // returns what it saw: a stop that waited for one thread before asking
    // the other leaves the first seeing 0.
    using self_other = std::pair<kel_thread_t*, kel_thread_t*>;
    auto body = +[](void* p) {
        auto [self, other] = *static_cast<self_other*>(p);
        kel_thread_set_stable(self, 1);
        while (kel_thread_want_exit(self) == 0)
            usleep(1000);
        for (int i = 0; i < 500 && kel_thread_want_exit(other) == 0; ++i)
            usleep(1000);
        return kel_thread_want_exit(other);
    };
    self_other encr{cal_->thread_encr, cal_->thread_encn}, encn{cal_->thread_encn, cal_->thread_encr};
    for (self_other* t : {&encr, &encn}) {
        ASSERT_EQ(kel_thread_start(t->first, body, t), 0);
        kel_thread_wait_stable(t->first, 5000);
    }
    EXPECT_EQ(cal_stop(cal_), 0);
    EXPECT_EQ(cal_->thread_encr->result.load(), 1);
    EXPECT_EQ(cal_->thread_encn->result.load(), 1);
}

using cal_core_death_test = cal_core_test;

TEST_F(cal_core_death_test, failed_queues_and_bad_cores_abort)
{
    reopen("msgget=1c");
    EXPECT_FATAL(cal_new(), "msgget MSG_KEY_ENCR failed!!");
    reopen("msgget@2=1c");
    EXPECT_FATAL(cal_new(), "msgget MSG_KEY_ENCN failed!!");
    reopen("");
    EXPECT_FATAL(cal_start(nullptr), "cal is NULL");
    cal_ = cal_new();
    cal_->size -= 4;
    EXPECT_FATAL(cal_start(cal_), "size != sizeof\\(cal_t\\)");
    EXPECT_FATAL(cal_stop(cal_), "size != sizeof\\(cal_t\\)");
    cal_->size += 4;
}

}  // namespace
