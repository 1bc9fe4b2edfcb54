// Fuzz target for the detail-file reader: the input is written to an
// anonymous in-memory file and read by DtlOpen and DtlNext to its end or its
// first fault, naming every hard-link table entry with DtlNameAt as dtldump
// does. Whatever the bytes, the reader must end in DTL_STEP_DONE or
// DTL_STEP_FAULT with a message, never crash, hang or leak. Random bytes die
// at the header checks, so the records are reached through the seed corpus
// (fuzz/corpus/dtl_reader/: small files written by the program, one of them
// compressed); a failing input is kept as the file that fails, unpatched.
#include <cstdint>
#include <string>
#include <unordered_map>

#include "fuzz/memoryfile.h"
#include "reader/dtlread.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* memoryPath = StoreInput(data, size);
    if (!memoryPath) return 0;

    DtlReader reader;
    DtlStep step = DTL_STEP_FAULT;
    std::unordered_map<uint64_t, std::string> names;  // record offset -> its name, as the stream gave it
    if (DtlOpen(&reader, memoryPath)) {
        while ((step = DtlNext(&reader)) == DTL_STEP_RECORD || step == DTL_STEP_LINK) {
            if (step == DTL_STEP_RECORD) {
                const DtlRecord& rec = reader.rec;
                if (rec.kind == DTL_REC_END_MARKER) continue;
                Check(rec.pos >= reader.recordsPos && rec.name.size() + 1 == rec.fixed.nameLength);
                names.emplace(rec.pos, rec.name);
                continue;
            }
            // A table entry the reader accepted points at a directory header
            // and an entry record, and reading them out of turn gives the
            // names the stream gave.
            const DtlHardLinkEntry& e = reader.link.entry;
            std::string dir, name;
            Check(DtlNameAt(&reader, e.parentDirPos, &dir) && dir == names.at(e.parentDirPos));
            Check(DtlNameAt(&reader, e.recordPos, &name) && name == names.at(e.recordPos));
        }
    }
    // A fault carries a message and an offset in the bytes read: this
    // input's, or for a compressed input its decompressed copy's.
    Check(step == DTL_STEP_DONE || (reader.failed && !reader.fault.message.empty()));
    if (step == DTL_STEP_DONE) Check(!reader.failed && reader.endMarkerPos >= reader.recordsPos);
    if (!reader.wasCompressed) Check(reader.fault.offset <= size);
    DtlClose(&reader);
    return 0;
}
