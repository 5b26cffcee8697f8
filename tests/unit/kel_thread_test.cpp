// Worker threads: the stable wait and stop handshakes with their poll
// counts, cancel as the last resort, restart, the registry and its dump,
// and the checks on bad objects.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstring>
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
    std::atomic<bool> unwound{false};   // the function's frame was left (also by cancel)
};

struct unwind_mark {
    job* j;
    ~unwind_mark() { j->unwound = true; }
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

// Never reports itself ready, but ends when asked.
int never_stable(void* p)
{
    job* j = static_cast<job*>(p);
    while (kel_thread_want_exit(j->dt) == 0)
        usleep(1000);
    j->finished = true;
    return j->ret;
}

int returns_at_once(void* p)
{
    job* j = static_cast<job*>(p);
    j->finished = true;
    return j->ret;
}

// Ready, but never looks at want_exit: only a cancel ends it.
int stubborn(void* p)
{
    job* j = static_cast<job*>(p);
    unwind_mark mark{j};
    kel_thread_set_stable(j->dt, 1);
    for (;;)
        usleep(1000);
}

template <class Pred>
bool wait_until(Pred pred)
{
    for (int i = 0; i < 20000; ++i) {
        if (pred())
            return true;
        usleep(1000);
    }
    return false;
}

class kel_thread_test : public board_test {
protected:
    void TearDown() override
    {
        while (kel_thread_registry != nullptr)
            kel_thread_delete(kel_thread_registry);
        board_test::TearDown();
    }
};

TEST_F(kel_thread_test, stable_wait_polls_every_20ms_until_the_timeout)
{
    job j;
    j.dt = kel_thread_new("slow", KEL_THREAD_STACK);
    ASSERT_EQ(kel_thread_start(j.dt, never_stable, &j), 0);
    {
        // 100 ms: n = 5, so six polls find the thread running and not ready.
        stdout_capture out;
        EXPECT_EQ(kel_thread_wait_stable(j.dt, 100), 0);
        EXPECT_THAT(out.text(), HasSubstr("> name:slow k:6\n"));
    }
    {
        // Below one period it still sleeps once.
        stdout_capture out;
        EXPECT_EQ(kel_thread_wait_stable(j.dt, 19), 0);
        EXPECT_THAT(out.text(), HasSubstr("> name:slow k:1\n"));
    }
    {
        // A negative period count does not wait at all.
        stdout_capture out;
        EXPECT_EQ(kel_thread_wait_stable(j.dt, -40), 0);
        EXPECT_THAT(out.text(), HasSubstr("> name:slow k:0\n"));
    }
    EXPECT_EQ(kel_thread_running(j.dt), 1);
    EXPECT_EQ(kel_thread_stop(j.dt, 2000), 0);
    EXPECT_TRUE(j.finished);
}

TEST_F(kel_thread_test, stable_wait_ends_at_the_first_poll_for_a_ready_thread)
{
    job j;
    j.dt = kel_thread_new("ready", KEL_THREAD_STACK);
    ASSERT_EQ(kel_thread_start(j.dt, polite, &j), 0);
    ASSERT_TRUE(wait_until([&] { return j.dt->stable.load() == 1; }));
    stdout_capture out;
    EXPECT_EQ(kel_thread_wait_stable(j.dt, 5000), 0);
    EXPECT_THAT(out.text(), HasSubstr("> name:ready k:0\n"));
    EXPECT_EQ(kel_thread_stop(j.dt, 2000), 0);
}

TEST_F(kel_thread_test, stable_wait_ends_when_the_function_returned_without_stable)
{
    job j;
    j.ret = 7;
    j.dt = kel_thread_new("quitter", KEL_THREAD_STACK);
    ASSERT_EQ(kel_thread_start(j.dt, returns_at_once, &j), 0);
    ASSERT_TRUE(wait_until([&] { return kel_thread_running(j.dt) == 0; }));
    stdout_capture out;
    EXPECT_EQ(kel_thread_wait_stable(j.dt, 5000), 0);
    EXPECT_THAT(out.text(), HasSubstr("> name:quitter k:0\n"));
    EXPECT_EQ(j.dt->result.load(), 7);
    EXPECT_EQ(j.dt->stable.load(), 0);
    // The ended thread has a handle still: stop joins it and reports 0.
    EXPECT_EQ(kel_thread_stop(j.dt, 100), 0);
}

TEST_F(kel_thread_test, cooperative_stop_joins_and_keeps_the_result)
{
    job j;
    j.ret = 42;
    j.dt = kel_thread_new("worker", KEL_THREAD_STACK);
    ASSERT_EQ(kel_thread_start(j.dt, polite, &j), 0);
    kel_thread_wait_stable(j.dt, 5000);
    ASSERT_TRUE(wait_until([&] { return kel_thread_heart(j.dt) > 2; }));
    stdout_capture out;
    EXPECT_EQ(kel_thread_stop(j.dt, 2000), 0);
    std::string text = out.text();
    EXPECT_THAT(text, HasSubstr("> name:worker cnt:201 k:"));
    EXPECT_THAT(text, HasSubstr(" running:0\n"));
    EXPECT_THAT(text, Not(HasSubstr("still running")));
    EXPECT_TRUE(j.finished);
    EXPECT_EQ(j.dt->result.load(), 42);
    EXPECT_EQ(j.dt->id, pthread_t{});
    EXPECT_EQ(kel_thread_running(j.dt), 0);
    EXPECT_EQ(j.dt->stable.load(), 0);
}

TEST_F(kel_thread_test, a_thread_that_ignores_want_exit_is_cancelled)
{
    job j;
    j.dt = kel_thread_new("stubborn", KEL_THREAD_STACK);
    ASSERT_EQ(kel_thread_start(j.dt, stubborn, &j), 0);
    kel_thread_wait_stable(j.dt, 5000);
    stdout_capture out;
    // 50 ms: six sleeps of 10 ms, each finding it still running.
    EXPECT_EQ(kel_thread_stop(j.dt, 50), 1);
    EXPECT_THAT(out.text(), HasSubstr("> name:stubborn cnt:6 k:6 running:1\n"));
    // The debug line goes to the system log only.
    EXPECT_THAT(out.text(), Not(HasSubstr("still running")));
    EXPECT_THAT(read_file(chip_file("var/log/message")), HasSubstr("still running"));
    EXPECT_TRUE(wait_until([&] { return j.unwound.load(); })) << "the thread was not cancelled";
    EXPECT_EQ(kel_thread_running(j.dt), 0);
    EXPECT_EQ(j.dt->stable.load(), 0);
    EXPECT_EQ(j.dt->id, pthread_t{});
}

TEST_F(kel_thread_test, a_stopped_object_starts_again)
{
    job first, second;
    first.ret = 1;
    second.ret = 2;
    kel_thread_t* dt = kel_thread_new("again", KEL_THREAD_STACK);
    first.dt = second.dt = dt;
    ASSERT_EQ(kel_thread_start(dt, polite, &first), 0);
    kel_thread_wait_stable(dt, 5000);
    ASSERT_TRUE(wait_until([&] { return kel_thread_heart(dt) > 5; }));
    ASSERT_EQ(kel_thread_stop(dt, 2000), 0);

    // want_exit from the stop is cleared, the heart restarts from 0.
    ASSERT_EQ(kel_thread_start(dt, polite, &second), 0);
    kel_thread_wait_stable(dt, 5000);
    EXPECT_EQ(dt->stable.load(), 1);
    EXPECT_EQ(kel_thread_want_exit(dt), 0);
    ASSERT_TRUE(wait_until([&] { return kel_thread_heart(dt) > 0; }));
    EXPECT_FALSE(second.finished);
    EXPECT_EQ(kel_thread_stop(dt, 2000), 0);
    EXPECT_TRUE(second.finished);
    EXPECT_EQ(dt->result.load(), 2);
}

TEST_F(kel_thread_test, the_new_thread_takes_normal_scheduling_and_announces_itself)
{
    job j;
    j.dt = kel_thread_new("sched", KEL_THREAD_STACK);
    ASSERT_EQ(kel_thread_start(j.dt, polite, &j), 0);
    kel_thread_wait_stable(j.dt, 5000);
    kel_thread_stop(j.dt, 2000);
    auto sched = read_lines(chip_file("sched.log"));
    ASSERT_EQ(sched.size(), 1u);
    EXPECT_THAT(sched[0], HasSubstr(" SCHED_OTHER 0"));
    EXPECT_NE(sched[0], std::to_string(gettid()) + " SCHED_OTHER 0") << "not applied by the new thread";
    EXPECT_EQ(j.dt->pid.load(), getpid());
    EXPECT_THAT(read_file(chip_file("var/log/message")),
                HasSubstr("6 def_thread      ("));
    EXPECT_THAT(read_file(chip_file("var/log/message")),
                HasSubstr("> name:sched pid:" + std::to_string(getpid()) + "\n"));
}

TEST_F(kel_thread_test, a_refused_normal_scheduling_is_logged_and_the_thread_runs)
{
    reopen("sched_setscheduler=1");
    job j;
    j.dt = kel_thread_new("refused", KEL_THREAD_STACK);
    stdout_capture out;
    ASSERT_EQ(kel_thread_start(j.dt, polite, &j), 0);
    kel_thread_wait_stable(j.dt, 5000);
    EXPECT_EQ(j.dt->stable.load(), 1);
    kel_thread_stop(j.dt, 2000);
    EXPECT_THAT(out.text(), HasSubstr("ERROR!! pid:" + std::to_string(getpid()) +
                                      " schedscheduler SCHED_OTHER.. error:Operation not permitted\n"));
}

TEST_F(kel_thread_test, a_thread_that_cannot_be_created_leaves_the_object_stopped)
{
    job j;
    // No system can map a stack as large as its whole address space.
    size_t huge = SIZE_MAX & ~static_cast<size_t>(0xFFFFF);
    j.dt = kel_thread_new("huge", huge);
    stdout_capture out;
    EXPECT_EQ(kel_thread_start(j.dt, polite, &j), -1);
    EXPECT_THAT(out.text(), HasSubstr("ERROR!! pthread_create failed!!\n"));
    EXPECT_EQ(kel_thread_running(j.dt), 0);
    EXPECT_EQ(j.dt->id, pthread_t{});
    EXPECT_EQ(kel_thread_stop(j.dt, 100), 0);
}

TEST_F(kel_thread_test, stop_and_notify_on_a_never_started_object)
{
    kel_thread_t* dt = kel_thread_new("idle", 0);
    EXPECT_EQ(kel_thread_notify_stop(dt), 0);
    EXPECT_EQ(kel_thread_want_exit(dt), 0);
    stdout_capture out;
    EXPECT_EQ(kel_thread_stop(dt, 2000), 0);
    EXPECT_THAT(out.text(), HasSubstr("> dt->id is NULL\n"));
}

TEST_F(kel_thread_test, notify_stop_asks_without_waiting)
{
    job j;
    j.dt = kel_thread_new("notified", KEL_THREAD_STACK);
    ASSERT_EQ(kel_thread_start(j.dt, polite, &j), 0);
    kel_thread_wait_stable(j.dt, 5000);
    EXPECT_EQ(kel_thread_notify_stop(j.dt), 0);
    EXPECT_EQ(kel_thread_want_exit(j.dt), 1);
    // The thread winds down by itself; the stop then only joins it.
    ASSERT_TRUE(wait_until([&] { return kel_thread_running(j.dt) == 0; }));
    stdout_capture out;
    EXPECT_EQ(kel_thread_stop(j.dt, 2000), 0);
    EXPECT_THAT(out.text(), HasSubstr("cnt:201 k:0 running:0\n"));
}

TEST_F(kel_thread_test, heartbeat_counts_up_from_a_reset)
{
    kel_thread_t* dt = kel_thread_new("heart", 0);
    EXPECT_EQ(kel_thread_inc_heart(dt), 1);
    EXPECT_EQ(kel_thread_inc_heart(dt), 2);
    EXPECT_EQ(kel_thread_heart(dt), 2);
    EXPECT_EQ(kel_thread_reset_heart(dt), 0);
    EXPECT_EQ(kel_thread_heart(dt), 0);
    EXPECT_EQ(kel_thread_set_stable(dt, 1), 0);
    EXPECT_EQ(dt->stable.load(), 1);
}

TEST_F(kel_thread_test, registry_keeps_creation_order_and_dump_lists_it)
{
    kel_thread_t* a = kel_thread_new("alpha", 0);
    kel_thread_t* b = kel_thread_new("beta", 0);
    kel_thread_t* c = kel_thread_new("gamma", 0);
    EXPECT_EQ(kel_thread_registry, a);
    EXPECT_EQ(a->next, b);
    EXPECT_EQ(b->next, c);
    kel_thread_inc_heart(b);
    kel_thread_inc_heart(b);
    {
        stdout_capture out;
        kel_thread_dump();
        std::string text = out.text();
        EXPECT_THAT(text, HasSubstr("> ============ DUMP THREAD ===============\n"));
        // Name in 20 columns, pid and id in 4, heart in 5.
        const std::string rest = "pid:0    id:0    heart:";
        EXPECT_THAT(text, HasSubstr("> cnt:0  name:alpha" + std::string(16, ' ') + rest + "0     running:0\n"));
        EXPECT_THAT(text, HasSubstr("> cnt:1  name:beta" + std::string(17, ' ') + rest + "2     running:0\n"));
        EXPECT_THAT(text, HasSubstr("> cnt:2  name:gamma" + std::string(16, ' ') + rest + "0     running:0\n"));
    }
    kel_thread_delete(b);
    EXPECT_EQ(a->next, c);
    stdout_capture out;
    kel_thread_dump();
    std::string text = out.text();
    EXPECT_THAT(text, HasSubstr("cnt:1  name:gamma "));
    EXPECT_THAT(text, Not(HasSubstr("beta")));
    EXPECT_THAT(text, Not(HasSubstr("cnt:2")));
}

TEST_F(kel_thread_test, delete_stops_a_running_thread_first)
{
    job j;
    j.dt = kel_thread_new("doomed", KEL_THREAD_STACK);
    ASSERT_EQ(kel_thread_start(j.dt, polite, &j), 0);
    kel_thread_wait_stable(j.dt, 5000);
    stdout_capture out;
    kel_thread_delete(j.dt);
    EXPECT_THAT(out.text(), HasSubstr("> name:doomed cnt:101 k:"));
    EXPECT_TRUE(j.finished);
    EXPECT_EQ(kel_thread_registry, nullptr);
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
    size_t count = 0;
    for (size_t p = text.find("ERROR!! dt is NULL\n"); p != std::string::npos;
         p = text.find("ERROR!! dt is NULL\n", p + 1))
        ++count;
    EXPECT_EQ(count, 7u);
    EXPECT_THAT(read_file(chip_file("var/log/message")), HasSubstr("3 kel_thread_want_exit("));
}

TEST_F(kel_thread_test, names_are_cut_at_255_characters)
{
    std::string name(300, 'n');
    name[254] = 'x';
    kel_thread_t* dt = kel_thread_new(name.c_str(), 0);
    EXPECT_EQ(std::string(dt->name), name.substr(0, 255));
    kel_thread_t* anonymous = kel_thread_new(nullptr, 0);
    EXPECT_STREQ(anonymous->name, "");
    EXPECT_EQ(dt->size, static_cast<int>(sizeof(kel_thread_t)));
    EXPECT_EQ(dt->stacksize, 0u);
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
