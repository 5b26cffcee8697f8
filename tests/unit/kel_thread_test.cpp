// Worker threads: stable wait and stop with their poll counts, cancel as the
// last resort, restart, the registry and its dump, and damaged objects.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "runtime/kel_thread.h"
#include "tests/support/test_board.h"

namespace {

using ::testing::HasSubstr;

// What a test thread is told and reports back.
struct job {
    kel_thread_t* dt = nullptr;
    int ret = 0;
    bool ready = true;  // says it is stable
    bool loops = true;  // works until asked to end; false: returns at once
    std::atomic<bool> finished{false};  // returned, or unwound by a cancel
};

// Follows the thread protocol as far as its job says.
int worker(void* p)
{
    job* j = static_cast<job*>(p);
    if (j->ready) {
        kel_thread_reset_heart(j->dt);
        kel_thread_set_stable(j->dt, 1);
    }
    while (j->loops && kel_thread_want_exit(j->dt) == 0) {
        usleep(1000);
        kel_thread_inc_heart(j->dt);
    }
    j->finished = true;
    return j->ret;
}

// Ready, but never looks at want_exit: only a cancel ends it, unwinding its
// frame. The loop touches nothing the test frees afterwards.
int stubborn(void* p)
{
    struct mark {
        job* j;
        ~mark() { j->finished = true; }
    } m{static_cast<job*>(p)};
    kel_thread_set_stable(m.j->dt, 1);
    // The cancel is taken only between sleeps: under qemu-user a cancel
    // taken inside the sleep unwinds through the emulator's signal frame,
    // which it cannot, and ends the thread without running `m`'s destructor.
    for (;;) {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        usleep(1000);
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
        pthread_testcancel();
    }
}

// Ready, ignores want_exit, and holds off a cancel until the test has
// deleted its object; then, before it reaches a cancellation point, it
// reads the object once more, as any thread may between two of them.
struct late_reader_job : job {
    std::atomic<bool> deleted{false};
    std::atomic<int> heart_seen{-1};
};

int late_reader(void* p)
{
    auto* j = static_cast<late_reader_job*>(p);
    struct mark {
        job* j;
        ~mark() { j->finished = true; }
    } m{j};
    kel_thread_set_stable(j->dt, 1);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    while (!j->deleted)
        usleep(1000);
    j->heart_seen = kel_thread_heart(j->dt);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    for (;;)
        pthread_testcancel();
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
    kel_thread_t* start(job& j, const char* name, int (*fn)(void*) = worker)
    {
        j.dt = kel_thread_new(name, KEL_THREAD_STACK);
        EXPECT_EQ(kel_thread_start(j.dt, fn, &j), 0);
        return j.dt;
    }

    void TearDown() override
    {
        while (kel_thread_registry != nullptr)
            kel_thread_delete(kel_thread_registry);
        board_test::TearDown();
    }
};

TEST_F(kel_thread_test, stable_wait_polls_every_20ms_and_ends_at_once_when_ready_or_ended)
{
    job slow, ready, ended;
    slow.ready = false;
    ended.loops = false;
    ended.ret = 7;
    for (auto [j, name] : {std::pair{&slow, "slow"}, {&ready, "ready"}, {&ended, "ended"}})
        start(*j, name);
    ASSERT_TRUE(wait_until([&] { return ready.dt->stable == 1 && kel_thread_running(ended.dt) == 0; }));
    // Polls that found it running and not ready: n = timeout / 20, at most
    // n + 1 sleeps, none for a negative n.
    const struct {
        kel_thread_t* dt;
        int timeout, polls;
    } cases[] = {{slow.dt, 100, 6}, {slow.dt, 19, 1}, {slow.dt, -40, 0}, {ready.dt, 5000, 0}, {ended.dt, 5000, 0}};
    for (auto [dt, timeout, polls] : cases) {
        stdout_capture out;
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(kel_thread_wait_stable(dt, timeout), 0);
        // Each poll sleeps 20 ms first: a lower bound, not a speed claim.
        EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(20 * polls)) << timeout;
        EXPECT_THAT(out.text(), HasSubstr("> name:" + std::string(dt->name) + " k:" + std::to_string(polls) + "\n"))
            << timeout;
    }
    // An ended thread is no longer ready, keeps its result and its handle:
    // the stop joins it at once.
    EXPECT_EQ(ended.dt->stable.load(), 0);
    EXPECT_EQ(ended.dt->result.load(), 7);
    EXPECT_EQ(kel_thread_stop(ended.dt, 100), 0);
}

TEST_F(kel_thread_test, cooperative_stop_joins_keeps_the_result_and_the_object_starts_again)
{
    job first, second;
    first.ret = 42;
    second.ret = 2;
    kel_thread_t* dt = second.dt = start(first, "worker");
    ASSERT_TRUE(wait_until([&] { return kel_thread_heart(dt) > 2; }));
    stdout_capture out;
    EXPECT_EQ(kel_thread_stop(dt, 2000), 0);
    EXPECT_THAT(out.text(), HasSubstr("> name:worker cnt:201 k:"));
    EXPECT_EQ(dt->result.load(), 42);

    // The stop's want_exit is cleared: the second run works until asked.
    kel_thread_reset_heart(dt);
    ASSERT_EQ(kel_thread_start(dt, worker, &second), 0);
    ASSERT_TRUE(wait_until([&] { return kel_thread_heart(dt) > 0; }));
    EXPECT_FALSE(second.finished);
    EXPECT_EQ(kel_thread_stop(dt, 2000), 0);
    EXPECT_EQ(dt->result.load(), 2);
}

TEST_F(kel_thread_test, a_thread_that_ignores_want_exit_is_cancelled)
{
    job j;
    start(j, "stubborn", stubborn);
    kel_thread_wait_stable(j.dt, 5000);
    stdout_capture out;
    // 50 ms: six sleeps of 10 ms, each finding it still running.
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(kel_thread_stop(j.dt, 50), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(60));
    EXPECT_THAT(out.text(), HasSubstr("> name:stubborn cnt:6 k:6 running:1\n"));
    EXPECT_THAT(read_file(chip_file("var/log/message")), HasSubstr("> still running\n"));
    EXPECT_TRUE(wait_until([&] { return j.finished.load(); })) << "not cancelled";
}

TEST_F(kel_thread_test, a_deleted_object_outlives_the_cancelled_thread_that_still_reads_it)
{
    late_reader_job j;
    start(j, "late", late_reader);
    kel_thread_wait_stable(j.dt, 5000);
    kel_thread_inc_heart(j.dt);
    // The stop inside the delete cancels it; the cancel waits for the
    // thread's next cancellation point, and the thread reads its object
    // before that (the address sanitizer reports a read of freed memory
    // when the object has gone).
    kel_thread_delete(j.dt);
    j.deleted = true;
    ASSERT_TRUE(wait_until([&] { return j.finished.load(); })) << "not cancelled";
    EXPECT_EQ(j.heart_seen.load(), 1);
}

TEST_F(kel_thread_test, wait_gone_returns_once_a_cancelled_thread_has_unwound)
{
    late_reader_job j;
    start(j, "late", late_reader);
    kel_thread_wait_stable(j.dt, 5000);
    EXPECT_EQ(kel_thread_stop(j.dt, 20), 1);
    // Cancelled but holding the cancel off: it still holds its object.
    stdout_capture out;
    EXPECT_EQ(kel_thread_wait_gone(j.dt, 50), -1);
    EXPECT_THAT(out.text(), HasSubstr("> name:late still unwinding\n"));
    j.deleted = true;
    EXPECT_EQ(kel_thread_wait_gone(j.dt, 20000), 0);
    // Its last act came before the wait ended.
    EXPECT_TRUE(j.finished.load());
    EXPECT_EQ(kel_thread_wait_gone(j.dt, 0), 0);
    EXPECT_EQ(kel_thread_wait_gone(nullptr, 0), -1);
}

TEST_F(kel_thread_test, the_system_knows_the_thread_by_its_name_cut_to_15_characters)
{
    struct named_job : job {
        char seen[32] = {};
    } j;
    j.loops = false;
    j.dt = kel_thread_new("cal_recv_dec_thread", KEL_THREAD_STACK);
    ASSERT_EQ(kel_thread_start(j.dt,
                               [](void* p) {
                                   auto* nj = static_cast<named_job*>(p);
                                   pthread_getname_np(pthread_self(), nj->seen, sizeof nj->seen);
                                   return worker(p);
                               },
                               &j),
              0);
    ASSERT_TRUE(wait_until([&] { return j.finished.load(); }));
    EXPECT_EQ(kel_thread_stop(j.dt, 1000), 0);
    EXPECT_STREQ(j.seen, "cal_recv_dec_th");
}

TEST_F(kel_thread_test, a_thread_that_cannot_be_created_leaves_the_object_stopped)
{
    // No system maps a stack as large as its whole address space.
    job j;
    j.dt = kel_thread_new("huge", SIZE_MAX & ~static_cast<size_t>(0xFFFFF));
    EXPECT_EQ(kel_thread_start(j.dt, worker, &j), -1);
    EXPECT_EQ(kel_thread_running(j.dt), 0);
}

TEST_F(kel_thread_test, null_and_never_started_objects_answer_safely)
{
    stdout_capture out;
    // A loop handed NULL must end: want_exit says so.
    EXPECT_EQ(kel_thread_want_exit(nullptr), 1);
    EXPECT_EQ(kel_thread_heart(nullptr), 0);
    EXPECT_EQ(kel_thread_running(nullptr), 0);
    EXPECT_EQ(kel_thread_stop(nullptr, 10), -1);
    EXPECT_EQ(kel_thread_notify_stop(nullptr), -1);
    EXPECT_EQ(kel_thread_start(nullptr, worker, nullptr), -1);
    kel_thread_t* idle = kel_thread_new("idle", 0);
    EXPECT_EQ(kel_thread_notify_stop(idle), 0);
    EXPECT_EQ(kel_thread_want_exit(idle), 0);  // nothing runs that could be asked
    EXPECT_EQ(kel_thread_stop(idle, 10), 0);
    std::string text = out.text();
    EXPECT_THAT(text, HasSubstr("> dt->id is NULL"));
    size_t errors = 0;
    for (size_t at = 0; (at = text.find("ERROR!! dt is NULL\n", at)) != std::string::npos; ++at)
        ++errors;
    EXPECT_EQ(errors, 6u);
}

TEST_F(kel_thread_test, registry_keeps_creation_order_dump_lists_it_and_delete_stops_first)
{
    kel_thread_t* a = kel_thread_new("alpha", 0);
    job b;
    start(b, "beta");
    kel_thread_wait_stable(b.dt, 5000);
    std::string long_name(300, 'g');
    EXPECT_EQ(std::string(kel_thread_new(long_name.c_str(), 0)->name), long_name.substr(0, 255));
    kel_thread_inc_heart(a);
    kel_thread_inc_heart(a);
    stdout_capture out;
    kel_thread_dump();
    // Deleting a running thread stops it first (1 s: 101 polls at most).
    kel_thread_delete(b.dt);
    EXPECT_TRUE(b.finished);
    kel_thread_dump();
    std::string text = out.text();
    // Name in 20 columns, pid and id in 4, heart in 5.
    EXPECT_THAT(text, HasSubstr("> cnt:0  name:alpha                pid:0    id:0    heart:2     running:0\n"));
    EXPECT_THAT(text, HasSubstr("> cnt:1  name:beta" + std::string(17, ' ') + "pid:" + std::to_string(getpid())));
    EXPECT_THAT(text, HasSubstr("> cnt:2  name:ggg"));
    EXPECT_THAT(text, HasSubstr("> name:beta cnt:101 k:"));
    EXPECT_THAT(text, HasSubstr("> cnt:1  name:ggg"));
}

using kel_thread_death_test = kel_thread_test;

TEST_F(kel_thread_death_test, a_damaged_object_aborts)
{
    kel_thread_t* dt = kel_thread_new("damaged", 0);
    dt->size = 12;
    EXPECT_FATAL(kel_thread_reset_heart(dt), "size != sizeof\\(kel_thread_t\\)");
    EXPECT_FATAL(kel_thread_delete(dt), "size != sizeof\\(kel_thread_t\\)");
    EXPECT_FATAL(kel_thread_delete(nullptr), "malloc\\(kel_thread_t\\) is NULL");
    dt->size = sizeof(kel_thread_t);
}

}  // namespace
