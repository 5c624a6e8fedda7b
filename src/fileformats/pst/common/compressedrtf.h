// Compressed RTF ([MS-OXRTFCP]): the form in which stores and items keep a rich body.
//
// A block whose tokens end early or point outside is no failure once it has passed its tests: its text is what was written until
// then. What a block takes in memory follows from what its bytes can expand to, however much it announces.
#pragma once

#include <cstdint>

#include "fileformats/pst/common/messagerecord.h"
#include "internal/ternclasses_.h"

/// The CRC of a block's content. @param block the block, from its header on  @param dataLength bytes behind the header
std::uint32_t RtfBlockCrc(const char* block, std::uint64_t dataLength);

/**
 * Expands a block of a store. The CRC counts for stored text too, and stored text ends at a NUL.
 *
 * @param record its `body` receives the text in the place of what it held: expanded text has no NUL behind it, stored text one
 *        that the size counts. After -9 it is as it was.
 * @return 1; -9 for a block that does not pass its tests; -1 without memory
 */
ternkit::Status ExpandStoreRtf(const OwnedBytes& block, MessageRecord& record);

/// The status that ExpandStoreRtf would give, for little more than the price of the CRC.
ternkit::Status CheckStoreRtf(const OwnedBytes& block);

/**
 * Expands a block of an item, and takes the HTML out of an RTF text that wraps it. The CRC of stored text is not looked at, and
 * stored text is as long as the header says, with any NULs in it.
 *
 * @param block the block, or empty; freed in any case
 * @param record its `body` receives RTF or HTML in the place of what it held, with a closing NUL that the size counts. After -9
 *        it is as it was.
 * @param blockSize bytes in the block
 * @return 1; -9 for no block or one that does not pass its tests; -1 without memory
 */
ternkit::Status DecodeMsgRtf(ScopedBlock block, MessageRecord& record, std::uint64_t blockSize);
