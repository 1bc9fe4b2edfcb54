#include "reader/dtlpipe.h"

#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace {

constexpr size_t BATCH_BYTES = 256 << 10;
constexpr int BATCHES = 4;

// How a record travels in a batch: this, then its name and target bytes.
struct PackedHead {
    DtlRecordFixed fixed;
    uint32_t depth;
    uint32_t nameLength;  // without the zero byte
    uint32_t targetLength;
    uint8_t kind;
    uint8_t counted;
};

// The largest record a batch that is not yet full must still take.
constexpr size_t RECORD_MAX = sizeof(PackedHead) + 2 * 65535;

struct Batch {
    std::vector<char> bytes = std::vector<char>(BATCH_BYTES + RECORD_MAX);
    size_t used = 0;
};

}  // namespace

struct DtlPipe {
    DtlReader* reader = nullptr;
    bool threaded = false;
    std::thread thread;
    // Shared by the two threads, under the lock.
    std::mutex lock;
    std::condition_variable changed;
    std::vector<Batch*> free;
    std::deque<Batch*> full;
    bool readerDone = false;  // the reading thread has handed on its last batch
    bool stop = false;        // the caller takes no more records
    DtlStep last = DTL_STEP_RECORD;
    // The caller's side.
    Batch batches[BATCHES];
    Batch* current = nullptr;
    size_t at = 0;
    DtlRecord rec;
};

static Batch* TakeFree(DtlPipe* p) {
    std::unique_lock<std::mutex> hold(p->lock);
    p->changed.wait(hold, [p] { return p->stop || !p->free.empty(); });
    if (p->stop) return nullptr;
    Batch* b = p->free.back();
    p->free.pop_back();
    b->used = 0;
    return b;
}

static void Hand(DtlPipe* p, Batch* b) {
    {
        std::lock_guard<std::mutex> hold(p->lock);
        p->full.push_back(b);
    }
    p->changed.notify_all();
}

// Runs once per record on the reading thread: two copies, no allocation.
static void Pack(Batch* b, const DtlRecord& rec) {
    PackedHead head{rec.fixed,
                    rec.depth,
                    static_cast<uint32_t>(rec.name.size()),
                    static_cast<uint32_t>(rec.target.size()),
                    static_cast<uint8_t>(rec.kind),
                    rec.counted};
    char* p = b->bytes.data() + b->used;
    memcpy(p, &head, sizeof head);
    p += sizeof head;
    if (!rec.name.empty()) memcpy(p, rec.name.data(), rec.name.size());
    p += rec.name.size();
    if (!rec.target.empty()) memcpy(p, rec.target.data(), rec.target.size());
    b->used += sizeof head + rec.name.size() + rec.target.size();
}

static void ReadAhead(DtlPipe* p) {
    DtlReader* r = p->reader;
    Batch* b = TakeFree(p);
    DtlStep step = DTL_STEP_RECORD;
    while (b && ((step = DtlNext(r)) == DTL_STEP_RECORD || step == DTL_STEP_LINK)) {
        if (step == DTL_STEP_LINK || r->rec.kind == DTL_REC_END_MARKER) continue;
        Pack(b, r->rec);
        if (b->used < BATCH_BYTES) continue;
        Hand(p, b);
        b = TakeFree(p);
    }
    {
        std::lock_guard<std::mutex> hold(p->lock);
        if (b) (b->used ? p->full.push_back(b) : p->free.push_back(b));
        p->last = b ? step : DTL_STEP_RECORD;
        p->readerDone = true;
    }
    p->changed.notify_all();
}

DtlPipe* DtlPipeStart(DtlReader* reader) {
    DtlPipe* p = new DtlPipe;
    p->reader = reader;
    for (Batch& b : p->batches) p->free.push_back(&b);
    try {
        p->thread = std::thread(ReadAhead, p);
        p->threaded = true;
    } catch (const std::system_error&) {
        p->threaded = false;  // the caller's thread reads instead
    }
    return p;
}

const DtlRecord* DtlPipeNext(DtlPipe* p) {
    if (!p->threaded) {
        DtlStep step;
        while ((step = DtlNext(p->reader)) == DTL_STEP_RECORD || step == DTL_STEP_LINK)
            if (step == DTL_STEP_RECORD && p->reader->rec.kind != DTL_REC_END_MARKER) return &p->reader->rec;
        p->last = step;
        return nullptr;
    }
    for (;;) {
        if (p->current && p->at < p->current->used) {
            const char* at = p->current->bytes.data() + p->at;
            PackedHead head;
            memcpy(&head, at, sizeof head);
            DtlRecord& rec = p->rec;
            rec.fixed = head.fixed;
            rec.kind = static_cast<DtlRecordKind>(head.kind);
            rec.depth = head.depth;
            rec.counted = head.counted;
            rec.name = std::string_view(at + sizeof head, head.nameLength);
            rec.target = std::string_view(at + sizeof head + head.nameLength, head.targetLength);
            p->at += sizeof head + head.nameLength + head.targetLength;
            return &rec;
        }
        std::unique_lock<std::mutex> hold(p->lock);
        if (p->current) {
            p->free.push_back(p->current);
            p->current = nullptr;
            p->changed.notify_all();
        }
        p->changed.wait(hold, [p] { return p->readerDone || !p->full.empty(); });
        if (p->full.empty()) return nullptr;
        p->current = p->full.front();
        p->full.pop_front();
        p->at = 0;
    }
}

DtlStep DtlPipeFinish(DtlPipe* p) {
    if (p->threaded) {
        {
            std::lock_guard<std::mutex> hold(p->lock);
            p->stop = true;
        }
        p->changed.notify_all();
        p->thread.join();
    }
    DtlStep last = p->last;
    delete p;
    return last;
}
