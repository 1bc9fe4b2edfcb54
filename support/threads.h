// Helper threads that leave the run's signals to the main thread: the
// interrupting signals (SIGINT, SIGTERM, SIGHUP) and every other
// asynchronous one are blocked on them, so that the handler that ends a run
// always runs on the thread that owns the run's output.
#pragma once

#include <pthread.h>

#include <cstddef>

/// The processors this process may run on (its affinity; taskset narrows
/// it), at least 1.
size_t ProcessorCount();

/// Starts fn(arg) on a new thread with every signal blocked but the ones a
/// fault raises (SIGBUS, SIGSEGV, SIGFPE, SIGILL), which stay with the thread
/// that takes them. stackSize 0 keeps the system's default. Returns false
/// when the thread cannot be started; the caller's own mask is unchanged.
bool StartBlockedThread(pthread_t* thread, void* (*fn)(void*), void* arg, size_t stackSize);
