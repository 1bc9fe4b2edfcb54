// Finding where a raw deflate stream's last block lies, without inflating
// it: compression deflates a file in pieces and joins their streams, which
// needs the bit where each piece's final block begins (its final bit is
// cleared) and the bit after that block's end code (an empty stored block
// goes there). The walk decodes the blocks' codes but produces no output, so
// it costs a fraction of inflating.
#pragma once

#include <cstddef>
#include <cstdint>

/// Walks the raw deflate stream of length bytes up to the end of its final
/// block. Returns true with *lastBlock the bit offset of that block's header
/// and *end the bit offset just after its end code (bits count from the low
/// end of each byte, as deflate packs them); false when the stream is not
/// valid deflate or ends before its final block does. Distances are not
/// checked against the data before them.
bool FindLastBlock(const unsigned char* stream, size_t length, uint64_t* lastBlock, uint64_t* end);
