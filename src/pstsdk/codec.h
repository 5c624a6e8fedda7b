// CRC, signature and the two encodings of block content ([MS-PST] 5.1 to 5.5), in the reading direction.
#pragma once

#include <cstddef>

#include "pstsdk/types.h"

namespace pstsdk::disk {

/// CRC-32 of polynomial 0xEDB88320 that starts at 0 and is not inverted at its end. @param size bytes
ulong compute_crc(const void* data, std::size_t size);

/// The signature in the trailer of the page or block `id` at the file offset `address`.
ushort compute_signature(ulonglong id, ulonglong address);

/// Decodes permutatively encoded bytes in place.
void permute(void* data, std::size_t size);

/// Decodes cyclically encoded bytes in place. @param key the low 32 bits of the block's id
void cyclic(void* data, std::size_t size, ulong key);

}  // namespace pstsdk::disk
