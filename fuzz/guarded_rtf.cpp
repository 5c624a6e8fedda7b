#include "guarded_rtf.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <string>

#include "loaders/rtf_guard.h"

namespace fuzz {
namespace {

using ternview::RtfPictures;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

constexpr std::string_view kDropped[] = {"objdata",        "template",     "filetbl",          "datastore",   "mailmerge",
                                         "mmdatasource",   "mmconnectstr", "mmconnectstrdata", "mmquery",     "mmodso",
                                         "mmheadersource", "linkval",      "nextfile",         "subdocument", "bin"};

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/// Reads RTF as its reader does: no control word is one that had to go, and its one group ends where the text ends.
void check(std::string_view rtf) {
    std::size_t depth = 0;
    for (std::size_t i = 0; i < rtf.size(); ++i) {
        if (rtf[i] == '\\') {
            std::string name;
            for (++i; i < rtf.size() && isLetter(rtf[i]); ++i) {
                name += static_cast<char>(rtf[i] | 0x20);
            }
            require(i < rtf.size());
            require(std::ranges::find(kDropped, name) == std::end(kDropped));
            i -= name.empty() ? 0 : 1;
            continue;
        }
        depth += rtf[i] == '{' ? 1 : 0;
        if (rtf[i] == '}') {
            require(depth > 0 && (depth > 1 || i + 1 == rtf.size()));
            --depth;
        }
    }
    require(depth == 0);
}

}  // namespace

void checkRtfGuard(std::string_view rtf) {
    for (const RtfPictures pictures : {RtfPictures::kKept, RtfPictures::kDropped}) {
        const std::string guarded = ternview::guardRtf(rtf, {}, pictures);
        require(guarded.starts_with("{\\rtf"));
        require(guarded.size() <= 2 * rtf.size() + 200);
        check(guarded);
    }
}

}  // namespace fuzz
