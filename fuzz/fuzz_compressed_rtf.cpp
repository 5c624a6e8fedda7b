// Arbitrary bytes as a block of compressed RTF, and as the tokens of one under a correct header. What comes out is compared with
// a decoder that does one byte at a time, and the check of a block with its expansion.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "fileformats/pst/common/compressedrtf.h"
#include "rtf_compressor.h"
#include "ternbase/ternbase.h"

TB_SOURCE(u"fuzz/fuzz_compressed_rtf")

namespace {

constexpr std::size_t kRawSizeBytes = 3;
constexpr std::size_t kPreloadSize = 207;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

OwnedBytes owned(std::string_view bytes) {
    OwnedBytes copy;
    require(copy.ensure(bytes.size()) == ternkit::kOk);
    if (!bytes.empty()) {
        std::memcpy(copy.data, bytes.data(), bytes.size());
    }
    return copy;
}

ternkit::Status expandInStore(std::string_view block, std::string& text) {
    MessageRecord record;
    const OwnedBytes copy = owned(block);
    const ternkit::Status status = ExpandStoreRtf(copy, record);
    require(CheckStoreRtf(copy) == status);
    text.assign(record.body.data != nullptr ? record.body.data : "", record.body.size);
    return status;
}

void expandInItem(std::string_view block) {
    MessageRecord record;
    OwnedBytes copy = owned(block);
    ScopedBlock raw(copy.data);
    copy.data = nullptr;
    if (DecodeMsgRtf(std::move(raw), record, block.size()) == ternkit::kOk) {
        require(record.body.size != 0 && record.body.data[record.body.size - 1] == '\0');
    }
}

/// The preload as the expander has it: references to its first bytes give it back.
const std::string& preload() {
    static const std::string bytes = [] {
        std::string tokens;
        for (std::size_t at = 0; at < kPreloadSize; ++at) {
            tokens += at % 8 == 0 ? "\xFF" : "";
            tokens += static_cast<char>(at >> 4);
            tokens += static_cast<char>(at << 4);
        }
        std::string pairs;
        require(expandInStore(rtf::FromTokens(2 * kPreloadSize, tokens), pairs) == ternkit::kOk);
        std::string first;
        for (std::size_t at = 0; at < pairs.size(); at += 2) {
            first += pairs[at];
        }
        return first;
    }();
    return bytes;
}

std::string expandBytewise(std::string_view tokens, std::size_t rawSize) {
    std::string text = preload();
    const std::size_t end = kPreloadSize + rawSize;
    unsigned flags = 0;
    std::size_t at = 0;
    for (unsigned token = 0; text.size() < end; ++token, flags >>= 1) {
        if (token % 8 == 0) {
            if (at == tokens.size()) {
                break;
            }
            flags = static_cast<unsigned char>(tokens[at++]);
        }
        if (at + 1 + (flags & 1) > tokens.size()) {
            break;
        }
        if ((flags & 1) == 0) {
            text += tokens[at++];
            continue;
        }
        const unsigned high = static_cast<unsigned char>(tokens[at]);
        const unsigned low = static_cast<unsigned char>(tokens[at + 1]);
        at += 2;
        std::size_t source = text.size() / 4096 * 4096 + high * 16 + (low >> 4);
        if (source >= text.size()) {
            if (source < 4096) {
                break;
            }
            source -= 4096;
        }
        for (unsigned left = (low & 15) + 2; left != 0 && text.size() < end; --left) {
            text += text[source++];
        }
    }
    return text.substr(kPreloadSize);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    std::string text;
    expandInStore(bytes, text);
    expandInItem(bytes);

    if (size >= kRawSizeBytes) {
        const std::uint32_t rawSize =
            data[0] | static_cast<std::uint32_t>(data[1]) << 8 | static_cast<std::uint32_t>(data[2]) << 16;
        const std::string_view tokens = bytes.substr(kRawSizeBytes);
        require(expandInStore(rtf::FromTokens(rawSize, tokens), text) == ternkit::kOk);
        require(text == expandBytewise(tokens, rawSize));
    }
    const std::string compressed = rtf::Compressed(bytes);
    require(expandInStore(compressed, text) == ternkit::kOk && text == bytes);
    expandInItem(compressed);
    return 0;
}
