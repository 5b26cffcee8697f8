// Named worker threads with heartbeat, stable-state and cooperative-stop
// handshakes.
//
// Thread protocol followed by every thread function of the process:
//   1. cal_thread_priority (0, own name);
//   2. kel_thread_reset_heart, then kel_thread_set_stable (dt, 1);
//   3. while kel_thread_want_exit (dt) is 0: one piece of work, then
//      kel_thread_inc_heart;
//   4. return an int result.
// The flags are single words written by one side and polled by the other:
// 20 ms polls for the stable wait, 10 ms polls for the stop wait.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>

inline constexpr size_t KEL_THREAD_STACK = 0x40000;  // every creator asks for 256 KiB

struct kel_thread_t {
    kel_thread_t* next;          // link of kel_thread_registry
    pthread_t id;                // 0 when not started or stopped
    std::atomic<int> pid;        // process id, set by the thread itself
    char name[256];
    std::atomic<int> running;    // 1 from start until the function returns or a stop
    std::atomic<int> want_exit;  // written by the owner, polled by the thread
    std::atomic<int> stable;     // written by the thread when it is ready
    void* arg;
    std::atomic<int> result;     // the thread function's return value
    std::atomic<int> heart;      // heartbeat, counted up by the thread
    size_t stacksize;            // 0: system default
    int (*fn)(void*);
    int size;                    // sizeof(kel_thread_t)
    // Holders of the object: its owner, and each started thread until its
    // last act. A thread cancelled and left running still reads the object;
    // whichever holder lets go last frees it.
    std::atomic<int> holders;
};

// Every thread object, in order of creation; main thread only.
extern kel_thread_t* kel_thread_registry;

kel_thread_t* kel_thread_new(const char* name, size_t stacksize);
int kel_thread_start(kel_thread_t* dt, int (*fn)(void*), void* arg);
int kel_thread_wait_stable(kel_thread_t* dt, int timeout_ms);

// Called by the thread on itself.
int kel_thread_reset_heart(kel_thread_t* dt);
int kel_thread_set_stable(kel_thread_t* dt, int value);
int kel_thread_inc_heart(kel_thread_t* dt);
int kel_thread_want_exit(kel_thread_t* dt);

// Called by others.
int kel_thread_heart(kel_thread_t* dt);
int kel_thread_running(kel_thread_t* dt);
int kel_thread_notify_stop(kel_thread_t* dt);
int kel_thread_stop(kel_thread_t* dt, int timeout_ms);
// A thread its stop had to cancel unwinds on its own after the stop has
// returned. Waits (10 ms polls, at most timeout_ms) until no such thread
// still holds the object, so that what it read can be freed: 0 when none
// does, -1 when one still does at the end of the wait.
int kel_thread_wait_gone(kel_thread_t* dt, int timeout_ms);
// Removes the object from the registry (stopping its thread first); the
// memory goes when a thread that did not stop, cancelled, finally ends.
void kel_thread_delete(kel_thread_t* dt);
void kel_thread_dump();
