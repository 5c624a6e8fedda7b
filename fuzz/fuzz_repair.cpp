// Arbitrary bytes as a file of messages in mbox form, as an Internet message that the filter has refused, and as an item that it
// would not show whole: what the corrected copy of a message says is text, and the filter reads it.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "export_harness.h"
#include "repair/canonical_message.h"
#include "repair/item_copy.h"
#include "repair/mbox.h"
#include "ternbase/ternbase.h"
#include "utf.h"

namespace {

constexpr std::size_t kMostMessages = 8;
constexpr std::uint32_t kOpenForReading = 256;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

/// A stranger's field may hold what the filter takes for encoded words or parameters, whatever is done about it.
bool hasForeignWords(std::string_view message) {
    const std::string_view header = message.substr(0, message.find("\r\n\r\n"));
    const std::size_t own = header.rfind("Content-T");
    return header.substr(header.find('\n', own) + 1).find("=?") != std::string_view::npos;
}

void correct(std::string_view message) {
    const std::optional<ternview::CanonicalMessage> copy = ternview::canonicalMessage(message);
    if (!copy) {
        return;
    }
    require(ternview::isValidUtf8(copy->bytes));
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(copy->bytes.data());
    const ternkit::Status status = fuzz::readThroughExports(bytes, copy->bytes.size(), {});
    // A picture that is too small to travel inside the document leaves none on the memory route.
    if (status != ternkit::kOk && status != ternkit::kAbsent && !hasForeignWords(copy->bytes)) {
        std::fprintf(stderr, "status %d of this copy:\n%s\n", status, copy->bytes.c_str());
        std::abort();
    }
}

/// An item that is written anew is one.
void copyItem(const std::string& path) {
    const ternkit::FileHandle handle = TbFileOpen(std::u16string(path.begin(), path.end()).c_str(), 0, kOpenForReading);
    for (const ternview::RichText richText : {ternview::RichText::kCopied, ternview::RichText::kLeftOut}) {
        if (const auto copy = ternview::itemCopy(handle, ternview::Attachments::kCopied, richText)) {
            fuzz::readThroughExports(reinterpret_cast<const std::uint8_t*>(copy->bytes.data()), copy->bytes.size(), {});
        }
    }
    TbFileClose(handle);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int file = memfd_create("mail", MFD_CLOEXEC);
    require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const std::optional<ternview::Mbox> mbox = ternview::Mbox::open(file);
    if (!mbox) {
        copyItem("/proc/self/fd/" + std::to_string(file));
        correct(bytes);
        return 0;
    }
    std::size_t total = 0;
    for (std::size_t index = 0; index < mbox->count(); ++index) {
        const std::string message = mbox->message(index);
        total += message.size();
        if (index < kMostMessages) {
            correct(message);
        }
    }
    require(total <= 2 * size + mbox->count());
    return 0;
}
