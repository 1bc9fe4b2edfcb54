// Ferrovan with the read-ahead walk's test seam set from the environment, so
// that the tests meet interleavings and races that a quiet run never shows.
//
//   FERROVAN_TEST_JITTER=SEED:MICROSECONDS
//       before each open, listing batch and examination, a helper sleeps a
//       random time up to MICROSECONDS, and the walk's own thread one time
//       in four, so that helpers finish in any order and the walk now waits
//       for them, now overtakes them
//   FERROVAN_TEST_SLOW=NAME:MICROSECONDS
//       every thread sleeps that long before it opens, lists or examines in
//       a directory named NAME
//   FERROVAN_TEST_SWAP=PATH:TARGET
//       just before the directory named as PATH's last component is opened,
//       PATH is moved aside and a symbolic link to TARGET takes its place
//   FERROVAN_TEST_REMOVE=PATH    the same moment: PATH is moved aside
//   FERROVAN_TEST_LOCK=PATH      the same moment: PATH's mode becomes 0
//
// Each change happens once. Everything else is the program itself.
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "driver/run.h"
#include "scan/readahead.h"

namespace {

uint32_t jitterSeed = 0;
uint32_t jitterMax = 0;  // microseconds; 0: no sleeping
// Never destroyed: a fatal exit ends the process with helpers still calling
// the seam.
std::string& slowName = *new std::string;
uint32_t slowFor = 0;  // microseconds
std::atomic<uint32_t> threadsSeen{0};

enum Change { SWAP, REMOVE, LOCK, CHANGES };
struct Pending {
    std::string path, target;
    std::atomic<bool> done{true};
};
Pending* const pending = new Pending[CHANGES];

uint32_t Random() {
    thread_local uint32_t state = 0;
    if (state == 0) state = (jitterSeed * 2654435761u) ^ (++threadsSeen * 40503u) ^ 1u;
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    return state;
}

void MakeChange(Change change) {
    Pending& p = pending[change];
    std::string aside = p.path + ".aside";
    switch (change) {
        case SWAP:
            if (rename(p.path.c_str(), aside.c_str()) == 0) symlink(p.target.c_str(), p.path.c_str());
            break;
        case REMOVE: rename(p.path.c_str(), aside.c_str()); break;
        case LOCK: chmod(p.path.c_str(), 0); break;
        case CHANGES: break;
    }
}

void Sleep(uint32_t us) {
    struct timespec pause = {static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000};
    nanosleep(&pause, nullptr);
}

void Seam(AheadEvent event, const char* dirName, bool onHelper) {
    if (slowFor != 0 && slowName == dirName) Sleep(slowFor);
    if (event == AHEAD_OPEN) {
        for (int c = 0; c < CHANGES; c++) {
            Pending& p = pending[c];
            if (p.done.load()) continue;
            const char* last = strrchr(p.path.c_str(), '/');
            if (strcmp(last ? last + 1 : p.path.c_str(), dirName) != 0) continue;
            if (!p.done.exchange(true)) MakeChange(static_cast<Change>(c));
        }
    }
    if (jitterMax == 0 || (!onHelper && Random() % 4 != 0)) return;
    Sleep(Random() % (jitterMax + 1));
}

void Expect(const char* name, Change change, bool withTarget) {
    const char* value = getenv(name);
    if (!value) return;
    std::string text = value;
    size_t colon = withTarget ? text.rfind(':') : std::string::npos;
    pending[change].path = text.substr(0, colon);
    if (colon != std::string::npos) pending[change].target = text.substr(colon + 1);
    pending[change].done = false;
}

}  // namespace

int main(int argc, char** argv) {
    if (const char* jitter = getenv("FERROVAN_TEST_JITTER")) {
        jitterSeed = static_cast<uint32_t>(strtoul(jitter, nullptr, 10));
        if (const char* colon = strchr(jitter, ':')) jitterMax = static_cast<uint32_t>(strtoul(colon + 1, nullptr, 10));
    }
    if (const char* slow = getenv("FERROVAN_TEST_SLOW")) {
        std::string text = slow;
        size_t colon = text.rfind(':');
        slowName = text.substr(0, colon);
        if (colon != std::string::npos) slowFor = static_cast<uint32_t>(strtoul(text.c_str() + colon + 1, nullptr, 10));
    }
    Expect("FERROVAN_TEST_SWAP", SWAP, true);
    Expect("FERROVAN_TEST_REMOVE", REMOVE, false);
    Expect("FERROVAN_TEST_LOCK", LOCK, false);
    aheadTestSeam = Seam;
    return RunFerrovan(argc, argv);
}
