// The CAL core: what cal_new builds and empties, the scheduling table as
// the board records it, the start and stop orders, and the object checks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/msg.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cal/cal.h"
#include "cal/cal_log.h"
#include "platform/os.h"
#include "tests/support/test_board.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

struct queue_msg {
    long type;
    char body[52];
};

int queued(int msgid)
{
    struct msqid_ds ds{};
    return msgctl(msgid, IPC_STAT, &ds) == 0 ? static_cast<int>(ds.msg_qnum) : -1;
}

void post(int msgid, long type, int count)
{
    queue_msg m{type, "left over"};
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(os_msgsnd(msgid, &m, sizeof(m.body), IPC_NOWAIT), 0);
}

class cal_core_test : public board_test {
protected:
    void SetUp() override
    {
        unsetenv("TARVO_SIM_SCHED");  // scheduling is recorded, never applied
        board_test::SetUp();
    }

    void TearDown() override
    {
        while (kel_thread_registry != nullptr)
            kel_thread_delete(kel_thread_registry);
        board_test::TearDown();
    }
};

TEST_F(cal_core_test, new_core_has_its_threads_and_drains_queues_left_by_an_earlier_run)
{
    int encr = os_msgget(MSG_KEY_ENCR, IPC_CREAT);
    int encn = os_msgget(MSG_KEY_ENCN, IPC_CREAT);
    post(encr, 67, 5);
    post(encn, 67, 3);
    post(encn, 12, 2);  // any type goes
    ASSERT_EQ(queued(encr), 5);
    ASSERT_EQ(queued(encn), 5);

    reopen("");  // the earlier run ends; a new one starts on the same board
    cal_t* cal = cal_new();
    EXPECT_EQ(cal->msgid_encr, encr);
    EXPECT_EQ(cal->msgid_encn, encn);
    EXPECT_EQ(queued(encr), 0);
    EXPECT_EQ(queued(encn), 0);

    EXPECT_EQ(cal->size, static_cast<int>(sizeof(cal_t)));
    EXPECT_STREQ(cal->thread_encr->name, "thread_encr");
    EXPECT_STREQ(cal->thread_encn->name, "thread_encn");
    EXPECT_EQ(cal->thread_encr->stacksize, 0x40000u);
    EXPECT_EQ(cal->thread_encn->stacksize, 0x40000u);
    EXPECT_EQ(cal->slave_cam, 0);  // the settings wait for the command line
    cal_delete(cal);
}

TEST_F(cal_core_test, every_known_name_asks_for_its_round_robin_priority)
{
    ASSERT_EQ(sched_get_priority_min(SCHED_RR), 1);
    ASSERT_EQ(sched_get_priority_max(SCHED_RR), 99);
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
    EXPECT_THAT(out.text(), HasSubstr("> sz_thread:cal_vdec_thread r:0\n"));
    EXPECT_THAT(out.text(), HasSubstr("> sz_thread:Gui r:-1\n"));
    EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
}

TEST_F(cal_core_test, a_refused_request_is_traced_and_still_succeeds)
{
    reopen("sched_setscheduler=1");
    stdout_capture out;
    EXPECT_EQ(cal_thread_priority(0, "gui"), 0);
    EXPECT_EQ(cal_thread_priority(0, "cal_recv_dec_thread"), 0);
    std::string text = out.text();
    EXPECT_THAT(text, HasSubstr("> schedscheduler error:Operation not permitted\n"));
    EXPECT_THAT(text, HasSubstr("> sz_thread:gui r:0\n"));
    // The playback intake's refusal is an error line instead of the trace.
    EXPECT_THAT(text, HasSubstr("> ERROR!! sched_setscheduler.. Operation not permitted\n"));
    EXPECT_EQ(text.find("schedscheduler error:"), text.rfind("schedscheduler error:"));
    EXPECT_THAT(read_file(chip_file("var/log/message")), HasSubstr("3 cal_thread_priority("));
    EXPECT_THAT(read_lines(chip_file("sched.log")), ElementsAre());
}

TEST_F(cal_core_test, start_runs_the_transmit_threads_one_after_the_other)
{
    cal_t* cal = cal_new();
    {
        stdout_capture out;
        EXPECT_EQ(cal_start(cal), 0);
        std::string text = out.text();
        // encr is waited for until stable before encn is started.
        size_t encr_ready = text.find("> name:thread_encr k:");
        size_t encn_start = text.find("> name:thread_encn pid:0 id:");
        size_t encn_ready = text.find("> name:thread_encn k:");
        size_t sums = text.find("> r1:0 r3:0\n");
        EXPECT_TRUE(encr_ready < encn_start && encn_start < encn_ready && encn_ready < sums &&
                    sums != std::string::npos)
            << text;
    }
    EXPECT_EQ(kel_thread_running(cal->thread_encr), 1);
    EXPECT_EQ(kel_thread_running(cal->thread_encn), 1);
    // Both wait on their queues: ask them to end, then wake them.
    kel_thread_notify_stop(cal->thread_encr);
    kel_thread_notify_stop(cal->thread_encn);
    queue_msg wake{1, {}};
    ASSERT_EQ(os_msgsnd(cal->msgid_encr, &wake, sizeof(wake.body), 0), 0);
    ASSERT_EQ(os_msgsnd(cal->msgid_encn, &wake, sizeof(wake.body), 0), 0);
    stdout_capture out;
    EXPECT_EQ(cal_stop(cal), 0);
    EXPECT_THAT(out.text(), HasSubstr("> r1:0 r2:0\n"));
    EXPECT_EQ(kel_thread_running(cal->thread_encr) + kel_thread_running(cal->thread_encn), 0);
    cal_delete(cal);
}

TEST_F(cal_core_test, stop_asks_both_transmit_threads_before_waiting_for_either)
{
    cal_t* cal = cal_new();
    struct ctx {
        kel_thread_t* self;
        kel_thread_t* other;
        std::atomic<int> other_asked{-1};
    };
    // Once asked, each gives the stop half a second to ask the other too: a
    // stop that waited for encr before asking encn leaves encr seeing 0.
    ctx a{cal->thread_encr, cal->thread_encn}, b{cal->thread_encn, cal->thread_encr};
    auto body = +[](void* p) {
        ctx* c = static_cast<ctx*>(p);
        kel_thread_set_stable(c->self, 1);
        while (kel_thread_want_exit(c->self) == 0)
            usleep(1000);
        for (int i = 0; i < 500 && kel_thread_want_exit(c->other) == 0; ++i)
            usleep(1000);
        c->other_asked = kel_thread_want_exit(c->other);
        return 0;
    };
    ASSERT_EQ(kel_thread_start(cal->thread_encr, body, &a), 0);
    ASSERT_EQ(kel_thread_start(cal->thread_encn, body, &b), 0);
    kel_thread_wait_stable(cal->thread_encr, 5000);
    kel_thread_wait_stable(cal->thread_encn, 5000);
    EXPECT_EQ(cal_stop(cal), 0);
    EXPECT_EQ(a.other_asked.load(), 1);
    EXPECT_EQ(b.other_asked.load(), 1);

    // Stopped again, neither has a thread any more.
    stdout_capture out;
    EXPECT_EQ(cal_stop(cal), 0);
    std::string text = out.text();
    EXPECT_NE(text.find("> dt->id is NULL\n"), text.rfind("> dt->id is NULL\n"));
    EXPECT_THAT(text, HasSubstr("> r1:0 r2:0\n"));
    cal_delete(cal);
}

TEST_F(cal_core_test, delete_frees_the_thread_objects_and_accepts_null)
{
    cal_t* cal = cal_new();
    char expect[40];
    std::snprintf(expect, sizeof(expect), "> .. cal:%08x\n", ptr32(cal));
    stdout_capture out;
    cal_delete(cal);
    EXPECT_EQ(kel_thread_registry, nullptr);
    cal_delete(nullptr);
    cal_mod_new(nullptr);
    EXPECT_THAT(out.text(), HasSubstr(expect));
    EXPECT_THAT(out.text(), HasSubstr("> .. cal:00000000\n"));
    EXPECT_THAT(out.text(), Not(HasSubstr("ERROR!!")));
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
    EXPECT_FATAL(cal_stop(nullptr), "cal is NULL");
    cal_t* cal = cal_new();
    cal->size = sizeof(cal_t) - 4;
    EXPECT_FATAL(cal_start(cal), "size != sizeof\\(cal_t\\)");
    EXPECT_FATAL(cal_stop(cal), "size != sizeof\\(cal_t\\)");
    cal->size = sizeof(cal_t);
    cal_delete(cal);
}

}  // namespace
