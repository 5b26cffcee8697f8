// Worker threads: the stable wait and stop handshakes with their poll
// counts, cancel as the last resort, restart, the registry and its dump,
// and the checks on bad objects.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <string>

#include "runtime/kel_thread.h"
#include "tests/support/test_board.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// What a test thread is given and reports back.
struct job {
    kel_thread_t* dt = nullptr;
    int ret = 0;
    std::atomic<bool> finished{false};  // the function returned
    std::atomic<bool> unwound{false};   // its frame was left, also by a cancel
};

// Follows the thread protocol: ready at once, works until asked to end.
int polite(void* p)
{
    job* j = static_cast<job*>(p);
    kel_thread_reset_heart(j->dt);
    kel_thread_set_stable(j->dt, 1);
    while (kel_thread_want_exit(j->dt) == 0) {
        usleep(1000);
        kel_thread_inc_heart(j->dt);
    }
    j->finished = true;
    return j->ret;
}

int never_stable(void* p)
{
    job* j = static_cast<job*>(p);
    while (kel_thread_want_exit(j->dt) == 0)
        usleep(1000);
    return j->ret;
}

int returns_at_once(void* p)
{
    return static_cast<job*>(p)->ret;
}

// Ready, but never looks at want_exit: only a cancel ends it.
int stubborn(void* p)
{
    struct mark {
        job* j;
        ~mark() { j->unwound = true; }
    } m{static_cast<job*>(p)};
    kel_thread_set_stable(m.j->dt, 1);
    for (;;)
        usleep(1000);
}

template <class Pred>
bool wait_until(Pred pred)
{
    for (int i = 0; i < 20000 && !pred(); ++i)
        usleep(1000);
    return pred();
}

class kel_thread_test : public board_test {
protected:
    // Starts a thread on j; the test stops it before j goes.
    void start(job& j, const char* name, int (*fn)(void*))
    {
        j.dt = kel_thread_new(name, KEL_THREAD_STACK);
        ASSERT_EQ(kel_thread_start(j.dt, fn, &j), 0);
    }

    void TearDown() override
    {
        while (kel_thread_registry != nullptr)
            kel_thread_delete(kel_thread_registry);
        board_test::TearDown();
    }
};

TEST_F(kel_thread_test, stable_wait_counts_the_polls_of_20ms_until_the_timeout)
{
    job j;
    start(j, "slow", never_stable);
    // (timeout, polls that found it running and not ready): n = timeout / 20,
    // at most n + 1 sleeps; a negative n does not wait.
    for (auto [timeout, k] : {std::pair{100, 6}, {19, 1}, {-40, 0}}) {
        stdout_capture out;
        EXPECT_EQ(kel_thread_wait_stable(j.dt, timeout), 0);
        EXPECT_THAT(out.text(), HasSubstr("> name:slow k:" + std::to_string(k) + "\n")) << timeout;
    }
    EXPECT_EQ(kel_thread_stop(j.dt, 2000), 0);
}

TEST_F(kel_thread_test, stable_wait_ends_at_the_first_poll_for_ready_and_ended_threads)
{
    job ready, ended;
    ended.ret = 7;
    start(ready, "ready", polite);
    start(ended, "ended", returns_at_once);
    ASSERT_TRUE(wait_until([&] { return ready.dt->stable == 1 && kel_thread_running(ended.dt) == 0; }));
    stdout_capture out;
    kel_thread_wait_stable(ready.dt, 5000);
    kel_thread_wait_stable(ended.dt, 5000);
    EXPECT_THAT(out.text(), HasSubstr("> name:ready k:0\n"));
    EXPECT_THAT(out.text(), HasSubstr("> name:ended k:0\n"));
    EXPECT_EQ(ended.dt->result.load(), 7);
    EXPECT_EQ(ended.dt->stable.load(), 0);
    EXPECT_EQ(kel_thread_stop(ready.dt, 2000), 0);
    // An ended thread still has its handle: the stop joins it at once.
    EXPECT_EQ(kel_thread_stop(ended.dt, 100), 0);
}

TEST_F(kel_thread_test, cooperative_stop_joins_and_keeps_the_result)
{
    job j;
    j.ret = 42;
    start(j, "worker", polite);
    kel_thread_wait_stable(j.dt, 5000);
    ASSERT_TRUE(wait_until([&] { return kel_thread_heart(j.dt) > 2; }));
    stdout_capture out;
    EXPECT_EQ(kel_thread_stop(j.dt, 2000), 0);
    EXPECT_THAT(out.text(), HasSubstr("> name:worker cnt:201 k:"));
    EXPECT_THAT(out.text(), HasSubstr(" running:0\n"));
    EXPECT_TRUE(j.finished);
    EXPECT_EQ(j.dt->result.load(), 42);
    EXPECT_EQ(j.dt->id, pthread_t{});
    EXPECT_EQ(j.dt->stable.load(), 0);
}

TEST_F(kel_thread_test, a_thread_that_ignores_want_exit_is_cancelled)
{
    job j;
    start(j, "stubborn", stubborn);
    kel_thread_wait_stable(j.dt, 5000);
    stdout_capture out;
    // 50 ms: six sleeps of 10 ms, each finding it still running.
    EXPECT_EQ(kel_thread_stop(j.dt, 50), 1);
    EXPECT_THAT(out.text(), HasSubstr("> name:stubborn cnt:6 k:6 running:1\n"));
    EXPECT_THAT(out.text(), Not(HasSubstr("still running")));  // debug level: system log only
    EXPECT_THAT(read_file(chip_file("var/log/message")), HasSubstr("> still running\n"));
    EXPECT_TRUE(wait_until([&] { return j.unwound.load(); })) << "not cancelled";
    EXPECT_EQ(kel_thread_running(j.dt), 0);
    EXPECT_EQ(j.dt->stable.load(), 0);
    EXPECT_EQ(j.dt->id, pthread_t{});
}

TEST_F(kel_thread_test, a_stopped_object_starts_again)
{
    job first, second;
    second.ret = 2;
    start(first, "again", polite);
    kel_thread_t* dt = second.dt = first.dt;
    kel_thread_wait_stable(dt, 5000);
    ASSERT_EQ(kel_thread_stop(dt, 2000), 0);
    // The stop's want_exit is cleared: the second run works until asked.
    ASSERT_EQ(kel_thread_start(dt, polite, &second), 0);
    kel_thread_wait_stable(dt, 5000);
    EXPECT_EQ(dt->stable.load(), 1);
    ASSERT_TRUE(wait_until([&] { return kel_thread_heart(dt) > 0; }));
    EXPECT_FALSE(second.finished);
    EXPECT_EQ(kel_thread_stop(dt, 2000), 0);
    EXPECT_TRUE(second.finished);
    EXPECT_EQ(dt->result.load(), 2);
}

TEST_F(kel_thread_test, a_new_thread_asks_for_normal_scheduling_and_goes_on_when_refused)
{
    job j, refused;
    start(j, "sched", polite);
    kel_thread_wait_stable(j.dt, 5000);
    kel_thread_stop(j.dt, 2000);
    auto records = read_lines(chip_file("sched.log"));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_THAT(records[0], HasSubstr(" SCHED_OTHER 0"));
    EXPECT_NE(records[0], std::to_string(gettid()) + " SCHED_OTHER 0") << "asked by the owner, not the thread";
    EXPECT_EQ(j.dt->pid.load(), getpid());
    std::string pid = std::to_string(getpid());
    EXPECT_THAT(read_file(chip_file("var/log/message")), HasSubstr("6 def_thread      ("));
    EXPECT_THAT(read_file(chip_file("var/log/message")), HasSubstr("> name:sched pid:" + pid + "\n"));

    reopen("sched_setscheduler=1");
    stdout_capture out;
    start(refused, "refused", polite);
    kel_thread_wait_stable(refused.dt, 5000);
    EXPECT_EQ(refused.dt->stable.load(), 1);
    kel_thread_stop(refused.dt, 2000);
    EXPECT_THAT(out.text(),
                HasSubstr("ERROR!! pid:" + pid + " schedscheduler SCHED_OTHER.. error:Operation not permitted\n"));
}

TEST_F(kel_thread_test, a_thread_that_cannot_be_created_leaves_the_object_stopped)
{
    job j;
    // No system maps a stack as large as its whole address space.
    j.dt = kel_thread_new("huge", SIZE_MAX & ~static_cast<size_t>(0xFFFFF));
    stdout_capture out;
    EXPECT_EQ(kel_thread_start(j.dt, polite, &j), -1);
    EXPECT_THAT(out.text(), HasSubstr("ERROR!! pthread_create failed!!\n"));
    EXPECT_EQ(kel_thread_running(j.dt), 0);
    EXPECT_EQ(j.dt->id, pthread_t{});
}

TEST_F(kel_thread_test, notify_and_stop_of_a_never_started_object)
{
    kel_thread_t* dt = kel_thread_new("idle", 0);
    EXPECT_EQ(kel_thread_notify_stop(dt), 0);
    EXPECT_EQ(kel_thread_want_exit(dt), 0);
    stdout_capture out;
    EXPECT_EQ(kel_thread_stop(dt, 2000), 0);
    EXPECT_THAT(out.text(), HasSubstr("> dt->id is NULL\n"));
}

TEST_F(kel_thread_test, registry_keeps_creation_order_and_dump_lists_it)
{
    kel_thread_t* a = kel_thread_new("alpha", 0);
    job b;
    start(b, "beta", polite);
    kel_thread_wait_stable(b.dt, 5000);
    kel_thread_t* c = kel_thread_new("gamma", 0);
    EXPECT_EQ(kel_thread_registry, a);
    EXPECT_EQ(a->next, b.dt);
    EXPECT_EQ(b.dt->next, c);
    kel_thread_inc_heart(a);
    kel_thread_inc_heart(a);
    {
        stdout_capture out;
        kel_thread_dump();
        std::string text = out.text();
        // Name in 20 columns, pid and id in 4, heart in 5.
        EXPECT_THAT(text, HasSubstr("> ============ DUMP THREAD ===============\n"));
        EXPECT_THAT(text, HasSubstr("> cnt:0  name:alpha" + std::string(16, ' ') +
                                    "pid:0    id:0    heart:2     running:0\n"));
        EXPECT_THAT(text, HasSubstr("> cnt:1  name:beta" + std::string(17, ' ') + "pid:" +
                                    std::to_string(getpid())));
        EXPECT_THAT(text, HasSubstr("> cnt:2  name:gamma" + std::string(16, ' ') + "pid:0 "));
    }
    // Deleting a running thread stops it first (1 s: 101 polls at most).
    stdout_capture out;
    kel_thread_delete(b.dt);
    EXPECT_TRUE(b.finished);
    EXPECT_EQ(a->next, c);
    kel_thread_dump();
    std::string text = out.text();
    EXPECT_THAT(text, HasSubstr("> name:beta cnt:101 k:"));
    EXPECT_THAT(text, HasSubstr("> cnt:1  name:gamma "));
    EXPECT_THAT(text, Not(HasSubstr("cnt:2")));
}

TEST_F(kel_thread_test, null_objects_are_logged_and_answered)
{
    stdout_capture out;
    EXPECT_EQ(kel_thread_want_exit(nullptr), 1);
    EXPECT_EQ(kel_thread_heart(nullptr), 0);
    EXPECT_EQ(kel_thread_running(nullptr), 0);
    EXPECT_EQ(kel_thread_notify_stop(nullptr), -1);
    EXPECT_EQ(kel_thread_stop(nullptr, 10), -1);
    EXPECT_EQ(kel_thread_start(nullptr, polite, nullptr), -1);
    EXPECT_EQ(kel_thread_wait_stable(nullptr, 10), -1);
    std::string text = out.text();
    int count = 0;
    for (size_t p = 0; (p = text.find("ERROR!! dt is NULL\n", p)) != std::string::npos; ++p)
        ++count;
    EXPECT_EQ(count, 7);
}

TEST_F(kel_thread_test, names_are_cut_at_255_characters)
{
    std::string name(300, 'n');
    name[254] = 'x';
    EXPECT_EQ(std::string(kel_thread_new(name.c_str(), 0)->name), name.substr(0, 255));
    EXPECT_STREQ(kel_thread_new(nullptr, 0)->name, "");
}

using kel_thread_death_test = kel_thread_test;

TEST_F(kel_thread_death_test, a_damaged_object_aborts)
{
    kel_thread_t* dt = kel_thread_new("damaged", 0);
    dt->size = 12;
    EXPECT_FATAL(kel_thread_reset_heart(dt), "size != sizeof\\(kel_thread_t\\)");
    EXPECT_FATAL(kel_thread_inc_heart(dt), "size != sizeof\\(kel_thread_t\\)");
    EXPECT_FATAL(kel_thread_heart(dt), "size != sizeof\\(kel_thread_t\\)");
    EXPECT_FATAL(kel_thread_set_stable(dt, 1), "size != sizeof\\(kel_thread_t\\)");
    EXPECT_FATAL(kel_thread_wait_stable(dt, 10), "size != sizeof\\(kel_thread_t\\)");
    EXPECT_FATAL(kel_thread_delete(dt), "size != sizeof\\(kel_thread_t\\)");
    EXPECT_FATAL(kel_thread_delete(nullptr), "malloc\\(kel_thread_t\\) is NULL");
    dt->size = sizeof(kel_thread_t);
}

}  // namespace
