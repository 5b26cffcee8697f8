#include "runtime/kel_thread.h"

#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "cal/cal_log.h"
#include "platform/os.h"
#include "runtime/llist.h"

kel_thread_t* kel_thread_registry = nullptr;

namespace {

void release(kel_thread_t* dt)
{
    if (dt->holders.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete dt;
}

// The entry of every started thread.
void* def_thread(void* p)
{
    kel_thread_t* dt = static_cast<kel_thread_t*>(p);
    // The thread's last act, also when a cancel unwinds it: let go of the
    // object, which the owner may have deleted meanwhile.
    struct holder {
        kel_thread_t* dt;
        ~holder() { release(dt); }
    } hold{dt};
    if (dt->fn == nullptr) {
        // Nothing to run: the thread ends at once, and is no longer running.
        dt->running = 0;
        return nullptr;
    }
    // The system's thread name (at most 15 characters) lets a profile or
    // /proc tell the process's threads apart.
    char comm[16] = {};
    std::memcpy(comm, dt->name, strnlen(dt->name, sizeof comm - 1));
    pthread_setname_np(pthread_self(), comm);
    const int pid = getpid();
    dt->pid = pid;
    if (os_sched_setscheduler(SCHED_OTHER, 0) != 0)
        CAL_LOG(3, "pid:%d schedscheduler SCHED_OTHER.. error:%s\n", pid, strerror(errno));
    CAL_LOG(6, "name:%s pid:%d\n", dt->name, pid);
    dt->result = dt->fn(dt->arg);
    dt->stable = 0;
    dt->running = 0;
    return nullptr;
}

void check_size(const kel_thread_t* dt, const char* func, int line)
{
    if (dt->size != static_cast<int>(sizeof(kel_thread_t))) {
        cal_log(3, func, line, "size != sizeof(kel_thread_t)\n");
        std::abort();
    }
}
#define CHECK_SIZE(dt) check_size((dt), __func__, __LINE__)

}  // namespace

kel_thread_t* kel_thread_new(const char* name, size_t stacksize)
{
    kel_thread_t* dt = new (std::nothrow) kel_thread_t{};
    if (dt == nullptr)
        CAL_FATAL("malloc(kel_thread_t) is NULL\n");
    dt->size = sizeof(kel_thread_t);
    dt->holders = 1;
    dt->stacksize = stacksize;
    if (name != nullptr)
        std::snprintf(dt->name, sizeof(dt->name), "%s", name);
    llist_append_last(&kel_thread_registry, dt);
    TRACE("name:%s success!!\n", dt->name);
    return dt;
}

int kel_thread_start(kel_thread_t* dt, int (*fn)(void*), void* arg)
{
    TRACE("dt:%p\n", static_cast<void*>(dt));
    if (dt == nullptr) {
        CAL_LOG(3, "dt is NULL\n");
        return -1;
    }
    dt->result = 0;
    dt->want_exit = 0;
    dt->arg = arg;
    dt->fn = fn;

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    size_t def_size = 0, cur_size = 0;
    pthread_attr_getstacksize(&attr, &def_size);
    if (dt->stacksize != 0)
        pthread_attr_setstacksize(&attr, dt->stacksize);
    pthread_attr_getstacksize(&attr, &cur_size);

    dt->running = 1;
    dt->holders.fetch_add(1, std::memory_order_relaxed);
    int r = pthread_create(&dt->id, &attr, def_thread, dt);
    if (r != 0) {
        dt->holders.fetch_sub(1, std::memory_order_relaxed);
        dt->id = 0;
        dt->running = 0;
        pthread_attr_destroy(&attr);
        CAL_LOG(3, "pthread_create failed!!\n");
        return -1;
    }
    TRACE("name:%s pid:%d id:%d stacksize:%08x -> %08x\n", dt->name, r, static_cast<int>(dt->id),
          static_cast<unsigned>(def_size), static_cast<unsigned>(cur_size));
    pthread_attr_destroy(&attr);
    return 0;
}

int kel_thread_wait_stable(kel_thread_t* dt, int timeout_ms)
{
    if (dt == nullptr) {
        CAL_LOG(3, "dt is NULL\n");
        return -1;
    }
    CHECK_SIZE(dt);
    int n = timeout_ms / 20;
    int k = 0;
    if (n >= 0) {
        for (;;) {
            os_usleep(20000);
            if (dt->stable != 0 || dt->running == 0)
                break;
            if (++k > n)
                break;
        }
    }
    TRACE("name:%s k:%d\n", dt->name, k);
    return 0;
}

int kel_thread_reset_heart(kel_thread_t* dt)
{
    if (dt == nullptr) {
        CAL_LOG(3, "dt is NULL\n");
        return 0;
    }
    CHECK_SIZE(dt);
    dt->heart = 0;
    return 0;
}

int kel_thread_set_stable(kel_thread_t* dt, int value)
{
    if (dt == nullptr) {
        CAL_LOG(3, "dt is NULL\n");
        return 0;
    }
    CHECK_SIZE(dt);
    dt->stable = value;
    return 0;
}

int kel_thread_inc_heart(kel_thread_t* dt)
{
    if (dt == nullptr) {
        CAL_LOG(3, "dt is NULL\n");
        return 0;
    }
    CHECK_SIZE(dt);
    return ++dt->heart;
}

int kel_thread_want_exit(kel_thread_t* dt)
{
    if (dt == nullptr) {
        CAL_LOG(3, "dt is NULL\n");
        return 1;
    }
    return dt->want_exit;
}

int kel_thread_heart(kel_thread_t* dt)
{
    if (dt == nullptr) {
        CAL_LOG(3, "dt is NULL\n");
        return 0;
    }
    CHECK_SIZE(dt);
    return dt->heart;
}

int kel_thread_running(kel_thread_t* dt)
{
    if (dt == nullptr) {
        CAL_LOG(3, "dt is NULL\n");
        return 0;
    }
    return dt->running;
}

int kel_thread_notify_stop(kel_thread_t* dt)
{
    if (dt == nullptr) {
        CAL_LOG(3, "dt is NULL\n");
        return -1;
    }
    if (dt->id != 0)
        dt->want_exit = 1;
    return 0;
}

int kel_thread_stop(kel_thread_t* dt, int timeout_ms)
{
    if (dt == nullptr) {
        CAL_LOG(3, "dt is NULL\n");
        return -1;
    }
    if (dt->id == 0) {
        TRACE("dt->id is NULL");
    } else {
        dt->want_exit = 1;
        int cnt = timeout_ms / 10 + 1;
        int k = 0;
        while (k < cnt) {
            os_usleep(10000);
            if (dt->running == 0)
                break;
            ++k;
        }
        TRACE("name:%s cnt:%d k:%d running:%d\n", dt->name, cnt, k, dt->running.load());
        if (dt->running != 0) {
            // Last resort: the thread did not end by itself.
            CAL_LOG(7, "still running\n");
            pthread_cancel(dt->id);
            pthread_detach(dt->id);
        } else {
            pthread_join(dt->id, nullptr);
        }
    }
    int r = dt->running;
    dt->stable = 0;
    dt->id = 0;
    dt->running = 0;
    return r;
}

int kel_thread_wait_gone(kel_thread_t* dt, int timeout_ms)
{
    if (dt == nullptr)
        return -1;
    // Only the owner holds a stopped object whose thread has ended; the
    // acquire pairs with the thread's release as its last act.
    for (int k = 0; dt->holders.load(std::memory_order_acquire) > 1; ++k) {
        if (k >= timeout_ms / 10) {
            TRACE("name:%s still unwinding\n", dt->name);
            return -1;
        }
        os_usleep(10000);
    }
    return 0;
}

void kel_thread_delete(kel_thread_t* dt)
{
    if (dt == nullptr)
        CAL_FATAL("malloc(kel_thread_t) is NULL\n");
    CHECK_SIZE(dt);
    TRACE("name:%s id:%08x\n", dt->name, static_cast<unsigned>(dt->id));
    if (dt->id != 0)
        kel_thread_stop(dt, 1000);
    llist_remove(&kel_thread_registry, dt);
    release(dt);
}

void kel_thread_dump()
{
    TRACE("============ DUMP THREAD ===============\n");
    int cnt = 0;
    for (kel_thread_t* dt = kel_thread_registry; dt != nullptr; dt = dt->next)
        TRACE("cnt:%-2d name:%-20s pid:%-4d id:%-4d heart:%-5d running:%d\n", cnt++, dt->name, dt->pid.load(),
              static_cast<int>(dt->id), dt->heart.load(), dt->running.load());
}
