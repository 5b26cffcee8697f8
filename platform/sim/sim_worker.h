// The thread of a simulated unit: it sleeps on its condition until it is
// due, woken or told to stop. The owner keeps its own state under `mutex`.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

struct sim_worker {
    std::mutex mutex;
    std::condition_variable cv;
    bool stop = false;  // under mutex
    std::thread thread;

    template <class F>
    void start(F&& body)
    {
        stop = false;
        thread = std::thread(std::forward<F>(body));
    }

    // Tells the thread to stop, wakes it and waits for it to end.
    void join()
    {
        {
            std::lock_guard lock(mutex);
            stop = true;
        }
        cv.notify_all();
        if (thread.joinable())
            thread.join();
    }
};
