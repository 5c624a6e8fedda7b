#include "fileformats/pst/common/compressedrtf.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "common/apiutils.h"
#include "fileformats/pst/common/rtftohtml.h"
#include "pstsdk/codec.h"
#include "ternbase/ternbase.h"

TB_SOURCE(u"src/fileformats/pst/common/pst")

using ternkit::Status;

namespace {

// A block: this header, then tokens or the stored text. Numbers are little-endian.
constexpr std::uint64_t kHeaderSize = 16;
constexpr std::uint64_t kCompressedSizeOffset = 0;  // size of the block less the field itself
constexpr std::uint64_t kCompressedSizeField = 4;
constexpr std::uint64_t kRawSizeOffset = 4;  // size of the text
constexpr std::uint64_t kTypeOffset = 8;
constexpr std::uint64_t kCrcOffset = 12;
constexpr std::uint32_t kTypeCompressed = 0x75465A4C;  // "LZFu"
constexpr std::uint32_t kTypeStored = 0x414C454D;      // "MELA"

// What stands in front of every text while it is expanded, so that its first references have something to point at. Its line end
// is LF CR, against the format's CR LF, and so are the line ends of a document that refer to it: RTF passes over both bytes, and
// the conversion to HTML takes either order for one line end.
constexpr char kDictionaryPreload[] =
    "{\\rtf1\\ansi\\mac\\deff0\\deftab720{\\fonttbl;}{\\f0\\fnil \\froman \\fswiss \\fmodern \\fscript \\fdecor MS Sans "
    "SerifSymbolArialTimes New RomanCourier{\\colortbl\\red0\\green0\\blue0\n\r\\par \\pard\\plain\\f0\\fs20\\b\\i\\u\\tab\\tx";
constexpr std::uint64_t kPreloadSize = sizeof(kDictionaryPreload) - 1;
static_assert(kPreloadSize == 207 && kDictionaryPreload[168] == '\n' && kDictionaryPreload[169] == '\r');

// Tokens come in groups of eight behind a byte of flags. A set flag means a reference of two bytes to the last 4096 bytes.
constexpr unsigned kGroupTokens = 8;
constexpr std::uint64_t kReferenceSize = 2;
constexpr std::uint64_t kWindowSize = 4096;
constexpr std::uint64_t kShortestCopy = 2;
constexpr std::uint64_t kLongestCopy = 17;
constexpr std::uint64_t kLongestGroup = 1 + kGroupTokens * kReferenceSize;
constexpr std::uint64_t kLongestGroupText = kGroupTokens * kLongestCopy;
constexpr std::uint64_t kMostBytesFromByte = kLongestGroupText / kLongestGroup;
static_assert(kLongestGroupText % kLongestGroup == 0);

struct RtfBlock {
    const char* bytes;
    std::uint64_t size;

    std::uint32_t field(std::uint64_t offset) const {
        std::uint32_t value = 0;
        std::memcpy(&value, bytes + offset, sizeof(value));
        return value;
    }
    const char* data() const { return bytes + kHeaderSize; }
    std::uint64_t dataLength() const { return size - kHeaderSize; }
    std::uint64_t rawSize() const { return field(kRawSizeOffset); }
    bool isStored() const { return field(kTypeOffset) == kTypeStored; }
    bool isCompressed() const { return field(kTypeOffset) == kTypeCompressed; }
    bool hasItsSize() const {
        return bytes != nullptr && size >= kHeaderSize && field(kCompressedSizeOffset) == size - kCompressedSizeField;
    }
    bool hasItsCrc() const { return field(kCrcOffset) == RtfBlockCrc(bytes, dataLength()); }

    /// Bytes of text that there can be: what is announced, unless the tokens cannot make as much.
    std::uint64_t textRoom() const { return std::min(rawSize(), kMostBytesFromByte * dataLength()); }
    /// Bytes that expanding takes, with one for a NUL behind the text.
    std::uint64_t workRoom() const { return kPreloadSize + textRoom() + 1; }
};

bool isUsableInStore(const RtfBlock& block) {
    return block.hasItsSize() && block.hasItsCrc() && (block.isStored() || block.isCompressed());
}

bool isUsableInItem(const RtfBlock& block) {
    return block.hasItsSize() && (block.isStored() || (block.isCompressed() && block.hasItsCrc()));
}

// Where expanding stands. The buffer begins with the preload and is its own dictionary.
struct Expansion {
    const unsigned char* next;
    const unsigned char* inputEnd;
    const char* buffer;
    char* out;
    char* outEnd;

    bool hasRoomForAnyGroup() const {
        return static_cast<std::uint64_t>(inputEnd - next) >= kLongestGroup &&
               static_cast<std::uint64_t>(outEnd - out) >= kLongestGroupText;
    }
};

struct Reference {
    std::uint64_t distance;  // bytes back from the write position, 1 to the window's size
    std::uint64_t length;
};

/// A reference gives its place in the window as an offset from the last multiple of the window's size. One to the write position
/// itself, which other programs write as an end marker, means the byte a whole window back: the size alone ends a text here.
Reference readReference(const unsigned char* token, std::uint64_t writePosition) {
    const unsigned bits = token[0] * 256U + token[1];
    return {((writePosition - (bits >> 4) - 1) & (kWindowSize - 1)) + 1, (bits & 15) + kShortestCopy};
}

/// Byte by byte, so that a reference that overlaps itself repeats what it has just written.
void copyBytes(char* out, Reference reference) {
    for (const char* end = out + reference.length; out < end; ++out) {
        *out = *(out - reference.distance);
    }
}

/// Expands groups while the next one fits into input and output whatever its tokens are. A copy may write as much as the longest
/// reference makes; the tokens behind it write over that. False when a reference to before the buffer has ended the text.
bool expandWholeGroups(Expansion& state) {
    constexpr std::uint64_t kStep = kLongestCopy - 1;
    Expansion at = state;  // in registers: what is written through a pointer to char could be the state itself
    bool inside = true;
    while (inside && at.hasRoomForAnyGroup()) {
        unsigned flags = *at.next++;
        for (unsigned token = 0; token < kGroupTokens; ++token, flags >>= 1) {
            if ((flags & 1) == 0) {
                *at.out++ = static_cast<char>(*at.next++);
                continue;
            }
            const std::uint64_t position = static_cast<std::uint64_t>(at.out - at.buffer);
            const Reference reference = readReference(at.next, position);
            at.next += kReferenceSize;
            if (reference.distance > position) {
                inside = false;
                break;
            }
            if (reference.distance >= kStep) {
                std::memcpy(at.out, at.out - reference.distance, kStep);
                at.out[kStep] = *(at.out + kStep - reference.distance);
            } else {
                copyBytes(at.out, reference);
            }
            at.out += reference.length;
        }
    }
    state = at;
    return inside;
}

/// Expands a group near the end of input or output. False when the text ends in it.
bool expandLastGroup(Expansion& at) {
    unsigned flags = *at.next++;
    for (unsigned token = 0; token < kGroupTokens && at.out < at.outEnd; ++token, flags >>= 1) {
        const std::uint64_t left = static_cast<std::uint64_t>(at.inputEnd - at.next);
        if ((flags & 1) == 0 && left != 0) {
            *at.out++ = static_cast<char>(*at.next++);
            continue;
        }
        if (left < kReferenceSize) {
            return false;
        }
        const std::uint64_t position = static_cast<std::uint64_t>(at.out - at.buffer);
        Reference reference = readReference(at.next, position);
        if (reference.distance > position) {
            return false;
        }
        at.next += kReferenceSize;
        reference.length = std::min(reference.length, static_cast<std::uint64_t>(at.outEnd - at.out));
        copyBytes(at.out, reference);
        at.out += reference.length;
    }
    return true;
}

/// Expands a block into a buffer of its workRoom(). @return the end of the text, which begins behind the preload
const char* expandInto(char* buffer, const RtfBlock& block) {
    std::memcpy(buffer, kDictionaryPreload, kPreloadSize);
    const auto* input = reinterpret_cast<const unsigned char*>(block.data());
    char* text = buffer + kPreloadSize;
    Expansion state = {input, input + block.dataLength(), buffer, text, text + block.textRoom()};
    bool goesOn = expandWholeGroups(state);
    while (goesOn && state.out < state.outEnd && state.next < state.inputEnd) {
        goesOn = expandLastGroup(state);
    }
    return state.out;
}

/// Gives back most of a buffer that has come out much too large.
void trimRoom(OwnedBytes& text, std::uint64_t room) {
    constexpr std::uint64_t kSpare = 4096;
    if (room / 2 > text.size + kSpare) {
        if (void* trimmed = TbMemRealloc(text.data, text.size + 1, TB_HERE)) {
            text.data = static_cast<char*>(trimmed);
        }
    }
}

/// Expands a compressed block. There is room for one byte behind the text, and no NUL in it yet.
Status expand(const RtfBlock& block, OwnedBytes& body) {
    OwnedBytes text;
    text.data = static_cast<char*>(TbMemAlloc(block.workRoom(), 1, TB_HERE));
    if (text.data == nullptr) {
        return ternkit::kNoMemory;
    }
    const char* start = text.data + kPreloadSize;
    text.size = static_cast<std::uint64_t>(expandInto(text.data, block) - start);
    std::memmove(text.data, start, text.size);
    trimRoom(text, block.workRoom());
    body = std::move(text);
    return ternkit::kOk;
}

Status takeStoredText(const RtfBlock& block, std::uint64_t length, OwnedBytes& body) {
    body.size = 0;
    return body.appendText(block.data(), static_cast<std::int64_t>(length));
}

}  // namespace

std::uint32_t RtfBlockCrc(const char* block, std::uint64_t dataLength) {
    return pstsdk::disk::compute_crc(block + kHeaderSize, dataLength);  // stores and compressed RTF share their CRC
}

Status ExpandStoreRtf(const OwnedBytes& block, MessageRecord& record) {
    const RtfBlock rtf = {block.data, block.size};
    if (!isUsableInStore(rtf)) {
        return ternkit::kUnusable;
    }
    return rtf.isStored() ? takeStoredText(rtf, BoundedLength(rtf.data(), rtf.dataLength()), record.body)
                          : expand(rtf, record.body);
}

Status CheckStoreRtf(const OwnedBytes& block) {
    const RtfBlock rtf = {block.data, block.size};
    if (!isUsableInStore(rtf)) {
        return ternkit::kUnusable;
    }
    const std::uint64_t room = rtf.isStored() ? BoundedLength(rtf.data(), rtf.dataLength()) + 1 : rtf.workRoom();
    return room <= TbMemBlockLimit() ? ternkit::kOk : ternkit::kNoMemory;
}

Status DecodeMsgRtf(ScopedBlock block, MessageRecord& record, std::uint64_t blockSize) {
    const RtfBlock rtf = {block.bytes(), blockSize};
    if (!isUsableInItem(rtf)) {
        return ternkit::kUnusable;
    }
    OwnedBytes& body = record.body;
    Status status = ternkit::kOk;
    if (rtf.isStored()) {
        status = takeStoredText(rtf, std::min(rtf.rawSize(), rtf.dataLength()), body);
    } else {
        status = expand(rtf, body);
    }
    if (status != ternkit::kOk) {
        return status;
    }
    if (rtf.isCompressed() && body.textLength() == body.size) {
        body.data[body.size++] = '\0';  // expand() has left room for it
    }
    block = ScopedBlock();
    ConvertRtfToHtml(body);
    return ternkit::kOk;
}
