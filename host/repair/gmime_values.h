// What GMime gives, with its owners.
#pragma once

#include <gmime/gmime.h>

#include <memory>
#include <string>

namespace ternview {

template <typename T>
struct Unref {
    void operator()(T* object) const { g_object_unref(object); }
};
template <typename T>
using Ref = std::unique_ptr<T, Unref<T>>;

struct Free {
    void operator()(void* block) const { g_free(block); }
};
using OwnedText = std::unique_ptr<char, Free>;

/// Empty for null.
inline std::string textOf(const char* text) {
    return text == nullptr ? std::string() : std::string(text);
}

/// The bytes of a part, without its transfer encoding.
inline std::string decodedContent(GMimePart* part) {
    GMimeDataWrapper* wrapper = g_mime_part_get_content(part);
    if (wrapper == nullptr) {
        return {};
    }
    const Ref<GMimeStream> stream(g_mime_stream_mem_new());
    g_mime_data_wrapper_write_to_stream(wrapper, stream.get());
    const GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(stream.get()));
    return {reinterpret_cast<const char*>(bytes->data), bytes->len};
}

}  // namespace ternview
