#include "support/threads.h"

#include <sched.h>

#include <csignal>
#include <initializer_list>

size_t ProcessorCount() {
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) != 0) return 1;
    int n = CPU_COUNT(&set);
    return n > 0 ? static_cast<size_t>(n) : 1;
}

bool StartBlockedThread(pthread_t* thread, void* (*fn)(void*), void* arg, size_t stackSize) {
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) return false;
    if (stackSize != 0) {
        if (stackSize < static_cast<size_t>(PTHREAD_STACK_MIN)) stackSize = PTHREAD_STACK_MIN;
        pthread_attr_setstacksize(&attr, stackSize);
    }
    // A new thread inherits the mask of the one that creates it.
    sigset_t all, before;
    sigfillset(&all);
    for (int sig : {SIGBUS, SIGSEGV, SIGFPE, SIGILL}) sigdelset(&all, sig);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    bool started = pthread_create(thread, &attr, fn, arg) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attr);
    return started;
}
