#include "support/byteorder.h"

#include <bit>

int32_t endianType = 0;

int32_t WhichEnd() {
    if (endianType == 0) endianType = (std::endian::native == std::endian::little) ? 2 : 1;
    return endianType;
}
