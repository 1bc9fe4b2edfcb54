#include "detail/blockwalk.h"

#include <cstring>

namespace {

// Bits are taken from the low end of a 64-bit buffer, refilled a byte at a
// time. Past the stream's end zero bytes are fed, so a decode never reads
// outside it; the walk fails once it has used more bits than there are.
struct Bits {
    const unsigned char* stream;
    size_t length;
    size_t taken;  // bytes moved into the buffer, fed zeros included
    uint64_t buffer;
    unsigned have;  // bits in the buffer
    bool over;      // more than a buffer's worth of zeros fed: the stream is overrun
};

// Afterwards at least 56 bits are in the buffer: enough for a length code,
// its extra bits, a distance code and its extra bits (15 + 5 + 15 + 13).
inline void Refill(Bits& b) {
    if (b.taken + 8 <= b.length) {
        uint64_t word;
        memcpy(&word, b.stream + b.taken, 8);  // little-endian machines only
        b.buffer |= word << b.have;
        b.taken += (63 - b.have) >> 3;
        b.have |= 56;
        return;
    }
    while (b.have <= 56) {
        uint64_t byte = b.taken < b.length ? b.stream[b.taken] : 0;
        b.buffer |= byte << b.have;
        b.taken++;
        b.have += 8;
    }
    b.over = b.taken > b.length + 8;
}

inline uint64_t Position(const Bits& b) { return uint64_t{b.taken} * 8 - b.have; }

inline bool Overrun(const Bits& b) { return Position(b) > uint64_t{b.length} * 8; }

inline unsigned Take(Bits& b, unsigned n) {
    unsigned value = static_cast<unsigned>(b.buffer & ((uint64_t{1} << n) - 1));
    b.buffer >>= n;
    b.have -= n;
    return value;
}

// The symbols of one prefix code: a table by the next FAST_BITS bits for the
// short codes, and the canonical counts for the rare longer ones.
constexpr unsigned FAST_BITS = 11;
constexpr unsigned MAX_BITS = 15;

struct Code {
    uint16_t fast[1 << FAST_BITS];  // symbol << 4 | length; 0 for a longer code
    uint16_t count[MAX_BITS + 1];   // codes of each length
    uint16_t symbol[288];           // symbols in canonical order
};

// Builds the code from the symbols' lengths; an over-subscribed set fails.
// An incomplete one is allowed (a single distance code is), and its unused
// bit patterns fail when they are met.
bool Build(Code& code, const uint8_t* lengths, unsigned n) {
    memset(&code, 0, sizeof code);
    for (unsigned s = 0; s < n; s++) code.count[lengths[s]]++;
    code.count[0] = 0;
    int left = 1;
    for (unsigned len = 1; len <= MAX_BITS; len++) {
        left = (left << 1) - code.count[len];
        if (left < 0) return false;
    }
    uint16_t offset[MAX_BITS + 2] = {};
    unsigned next[MAX_BITS + 1] = {};
    for (unsigned len = 1, first = 0; len <= MAX_BITS; len++) {
        offset[len + 1] = static_cast<uint16_t>(offset[len] + code.count[len]);
        first = (first + code.count[len - 1]) << 1;
        next[len] = first;
    }
    for (unsigned s = 0; s < n; s++) {
        unsigned len = lengths[s];
        if (len == 0) continue;
        code.symbol[offset[len]++] = static_cast<uint16_t>(s);
        unsigned value = next[len]++;
        if (len > FAST_BITS) continue;
        unsigned reversed = 0;  // codes are sent from their top bit
        for (unsigned i = 0; i < len; i++) reversed |= ((value >> i) & 1) << (len - 1 - i);
        for (unsigned i = reversed; i < (1u << FAST_BITS); i += 1u << len)
            code.fast[i] = static_cast<uint16_t>(s << 4 | len);
    }
    return true;
}

// The next symbol, or -1 for a bit pattern no symbol has. Needs 15 bits in
// the buffer.
inline int Decode(Bits& b, const Code& code) {
    uint16_t entry = code.fast[b.buffer & ((1u << FAST_BITS) - 1)];
    if (entry != 0) {
        Take(b, entry & 15);
        return entry >> 4;
    }
    int value = 0, first = 0, index = 0;
    uint64_t bits = b.buffer;
    for (unsigned len = 1; len <= MAX_BITS; len++) {
        value |= static_cast<int>(bits & 1);
        bits >>= 1;
        int count = code.count[len];
        if (value - count < first) {
            Take(b, len);
            return code.symbol[index + (value - first)];
        }
        index += count;
        first = (first + count) << 1;
        value <<= 1;
    }
    return -1;
}

constexpr uint8_t LENGTH_EXTRA[29] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                      2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
constexpr uint8_t DISTANCE_EXTRA[30] = {0, 0, 0, 0, 1, 1, 2, 2,  3,  3,  4,  4,  5,  5,  6,
                                        6, 7, 7, 8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13};

// The codes of the block, up to and through its end code.
bool WalkSymbols(Bits& b, const Code& literals, const Code& distances) {
    for (;;) {
        Refill(b);
        if (b.over) return false;
        // Literals come in runs: up to three per refill (15 bits each).
        int symbol = Decode(b, literals);
        if (static_cast<unsigned>(symbol) < 256) {
            symbol = Decode(b, literals);
            if (static_cast<unsigned>(symbol) < 256) {
                symbol = Decode(b, literals);
                if (static_cast<unsigned>(symbol) < 256) continue;
            }
        }
        if (symbol < 0) return false;
        if (symbol == 256) return true;
        Refill(b);
        symbol -= 257;
        if (symbol >= 29) return false;
        Take(b, LENGTH_EXTRA[symbol]);
        int distance = Decode(b, distances);
        if (distance < 0 || distance >= 30) return false;
        Take(b, DISTANCE_EXTRA[distance]);
    }
}

struct FixedCodes {
    Code literals, distances;
    FixedCodes() {
        uint8_t lengths[288];
        memset(lengths, 8, 144);
        memset(lengths + 144, 9, 112);
        memset(lengths + 256, 7, 24);
        memset(lengths + 280, 8, 8);
        Build(literals, lengths, 288);
        memset(lengths, 5, 30);
        Build(distances, lengths, 30);
    }
};

// A block with codes of its own: their lengths, themselves coded.
bool WalkDynamic(Bits& b) {
    static constexpr uint8_t ORDER[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};
    Refill(b);
    unsigned literalCount = Take(b, 5) + 257, distanceCount = Take(b, 5) + 1, lengthCount = Take(b, 4) + 4;
    if (literalCount > 286 || distanceCount > 30) return false;
    uint8_t lengths[320] = {};
    for (unsigned i = 0; i < lengthCount; i++) {
        Refill(b);
        lengths[ORDER[i]] = static_cast<uint8_t>(Take(b, 3));
    }
    Code lengthCode;
    if (!Build(lengthCode, lengths, 19)) return false;
    memset(lengths, 0, 19);
    for (unsigned i = 0; i < literalCount + distanceCount;) {
        Refill(b);
        if (Overrun(b)) return false;
        int symbol = Decode(b, lengthCode);
        if (symbol < 0) return false;
        if (symbol < 16) {
            lengths[i++] = static_cast<uint8_t>(symbol);
            continue;
        }
        unsigned repeat;
        uint8_t value = 0;
        if (symbol == 16) {
            if (i == 0) return false;
            value = lengths[i - 1];
            repeat = 3 + Take(b, 2);
        } else {
            repeat = symbol == 17 ? 3 + Take(b, 3) : 11 + Take(b, 7);
        }
        if (i + repeat > literalCount + distanceCount) return false;
        memset(lengths + i, value, repeat);
        i += repeat;
    }
    if (lengths[256] == 0) return false;  // a block must be able to end
    Code literals, distances;
    if (!Build(literals, lengths, literalCount) || !Build(distances, lengths + literalCount, distanceCount))
        return false;
    return WalkSymbols(b, literals, distances);
}

}  // namespace

bool FindLastBlock(const unsigned char* stream, size_t length, uint64_t* lastBlock, uint64_t* end) {
    static const FixedCodes fixed;
    Bits b{stream, length, 0, 0, 0, false};
    for (;;) {
        Refill(b);
        uint64_t header = Position(b);
        bool last = Take(b, 1) != 0;
        unsigned type = Take(b, 2);
        bool walked;
        if (type == 0) {
            // Stored: to the byte boundary, LEN and its complement, LEN bytes.
            uint64_t at = (Position(b) + 7) / 8;
            if (at + 4 > length) return false;
            unsigned len = stream[at] | stream[at + 1] << 8, nlen = stream[at + 2] | stream[at + 3] << 8;
            if (len != (~nlen & 0xffff) || at + 4 + len > length) return false;
            b = Bits{stream, length, static_cast<size_t>(at + 4 + len), 0, 0, false};
            walked = true;
        } else if (type == 1) {
            walked = WalkSymbols(b, fixed.literals, fixed.distances);
        } else if (type == 2) {
            walked = WalkDynamic(b);
        } else {
            return false;
        }
        if (!walked || Overrun(b)) return false;
        if (last) {
            *lastBlock = header;
            *end = Position(b);
            return true;
        }
    }
}
