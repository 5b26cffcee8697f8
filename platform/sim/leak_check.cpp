// The leak sanitizer normally runs at process exit; a slave ends only by a
// signal, so its check is run here, on SIGTERM, by a thread of its own.
#include "platform/sim/leak_check.h"

#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#define TARVO_SIM_HAS_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARVO_SIM_HAS_LSAN 1
#endif
#endif

#ifdef TARVO_SIM_HAS_LSAN
#include <sanitizer/lsan_interface.h>

namespace {

void* leak_check_main(void*)
{
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    int sig = 0;
    while (sigwait(&term, &sig) != 0) {
    }
    const int leaks = __lsan_do_recoverable_leak_check();
    std::fprintf(stderr, "sim: leak check: %s\n", leaks ? "leaks found" : "no leaks");
    std::fflush(stderr);
    // End as the signal would have ended the process without this thread.
    signal(SIGTERM, SIG_DFL);
    pthread_sigmask(SIG_UNBLOCK, &term, nullptr);
    raise(SIGTERM);
    return nullptr;
}

}  // namespace

int sim_leak_check_arm()
{
    const char* on = std::getenv("TARVO_SIM_LEAK_CHECK");
    if (on == nullptr || std::strcmp(on, "1") != 0)
        return 0;
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);
    pthread_t t;
    if (pthread_create(&t, nullptr, leak_check_main, nullptr) != 0) {
        pthread_sigmask(SIG_UNBLOCK, &term, nullptr);
        return -1;
    }
    pthread_setname_np(t, "sim_leak_check");
    pthread_detach(t);
    return 0;
}

#else

int sim_leak_check_arm()
{
    return 0;
}

#endif
