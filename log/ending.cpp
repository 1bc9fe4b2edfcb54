// How a run ends early: the files it removes at a fatal exit or an
// interrupting signal, and the handler of SIGINT, SIGTERM and SIGHUP.
//
// The handler may run at any moment of the run, so it does only what is
// async-signal-safe: sigaction, sigprocmask, unlink, write and _exit. It
// needs no stdio: the log and error routines flush after every message, so
// nothing of theirs waits in a buffer but the -p lines, which wait in one of
// their own that the handler writes out; whatever a message was in the
// middle of formatting is lost with it.
#include <limits.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "log/log.h"

namespace {

// A registered name. used is set only once the name is complete and cleared
// before the slot is reused, so the handler never reads half a name.
struct EndingSlot {
    volatile sig_atomic_t used;
    char name[PATH_MAX];
};

EndingSlot slots[FATAL_EXIT_SLOTS];

constexpr int INTERRUPT_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};
constexpr int INTERRUPT_COUNT = sizeof INTERRUPT_SIGNALS / sizeof INTERRUPT_SIGNALS[0];
// The signals' names as the system's strsignal gives them, fixed here
// because strsignal may not be called from a handler.
constexpr const char* INTERRUPT_NAMES[] = {"Interrupt", "Terminated", "Hangup"};
static_assert(sizeof INTERRUPT_NAMES / sizeof INTERRUPT_NAMES[0] == INTERRUPT_COUNT);

// Each signal's message, formatted when the handler is installed.
char interruptText[INTERRUPT_COUNT][64];
size_t interruptLength[INTERRUPT_COUNT];
int errorFd = STDERR_FILENO;    // the error output's descriptor
bool handled[INTERRUPT_COUNT];  // the handler is installed for the signal (it was not ignored)

sigset_t InterruptSet() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : INTERRUPT_SIGNALS) sigaddset(&set, sig);
    return set;
}

void OnInterrupt(int sig) {
    // From here on any of the three signals kills at once: the user who
    // sends a second one does not want to wait for this ending.
    struct sigaction fallback;
    memset(&fallback, 0, sizeof fallback);
    fallback.sa_handler = SIG_DFL;
    for (int i = 0; i < INTERRUPT_COUNT; i++) {
        if (handled[i]) sigaction(INTERRUPT_SIGNALS[i], &fallback, nullptr);
    }
    sigset_t set = InterruptSet();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);

    StatusLineErase();
    WriteWaitingTrace();
    RemoveRegisteredFiles();
    for (int i = 0; i < INTERRUPT_COUNT; i++) {
        if (INTERRUPT_SIGNALS[i] != sig) continue;
        WriteFully(errorFd, interruptText[i], interruptLength[i]);
        if (errorFd != STDERR_FILENO) WriteFully(STDERR_FILENO, interruptText[i], interruptLength[i]);
    }
    _exit(128 + sig);
}

}  // namespace

int RemoveOnFatalExit(const char* path) {
    size_t length = strlen(path);
    if (length >= PATH_MAX) return -1;
    for (int i = 0; i < FATAL_EXIT_SLOTS; i++) {
        if (slots[i].used) continue;
        memcpy(slots[i].name, path, length + 1);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        slots[i].used = 1;
        return i;
    }
    return -1;
}

void KeepOnFatalExit(int slot) {
    if (slot >= 0 && slot < FATAL_EXIT_SLOTS) slots[slot].used = 0;
}

void RemoveRegisteredFiles() {
    for (EndingSlot& slot : slots) {
        if (!slot.used) continue;
        unlink(slot.name);
        slot.used = 0;
    }
}

void InstallInterruptHandlers() {
    errorFd = fileno(errFile ? errFile : stderr);
    if (errorFd < 0) errorFd = STDERR_FILENO;
    for (int i = 0; i < INTERRUPT_COUNT; i++) {
        int n = snprintf(interruptText[i], sizeof interruptText[i], "Scan interrupted by signal %d (%s)\n",
                         INTERRUPT_SIGNALS[i], INTERRUPT_NAMES[i]);
        interruptLength[i] = n > 0 ? static_cast<size_t>(n) : 0;
    }
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = OnInterrupt;
    // While one of them is being handled the other two wait; the handler
    // resets all three before it lets them through.
    action.sa_mask = InterruptSet();
    action.sa_flags = SA_RESTART;
    for (int i = 0; i < INTERRUPT_COUNT; i++) {
        struct sigaction before;
        // nohup and background jobs start with signals ignored; they stay so.
        if (sigaction(INTERRUPT_SIGNALS[i], nullptr, &before) == 0 && before.sa_handler == SIG_IGN) continue;
        handled[i] = sigaction(INTERRUPT_SIGNALS[i], &action, nullptr) == 0;
    }
}

// The signal mask before HoldInterrupts: a signal the program was started
// with blocked stays blocked after ReleaseInterrupts.
static sigset_t maskBeforeHold;

void HoldInterrupts() {
    sigset_t set = InterruptSet();
    sigprocmask(SIG_BLOCK, &set, &maskBeforeHold);
}

void ReleaseInterrupts() { sigprocmask(SIG_SETMASK, &maskBeforeHold, nullptr); }
