#pragma once

#include "qelCore/Export.h"

namespace qel::util {

/// The bare CRC-32C register (Castagnoli polynomial 0x1EDC6F41, bits reflected): continues from `seed` over
/// `length` bytes and returns the register. Nothing is inverted here, neither on entry nor on return; the
/// published CRC-32C of a text is `~crc32c(0xFFFFFFFF, data, length)`. Part of stored keys, so its values are
/// kept for good. Any thread. `data` may be null when `length` is 0.
QELCORE_EXPORT unsigned crc32c(unsigned seed, const unsigned char* data, unsigned length);

}  // namespace qel::util
