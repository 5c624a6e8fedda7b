// The places of HTML that name a picture which travels with the message.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace ternview {

struct PictureReference {
    std::size_t begin;  // of the value, with its quotes
    std::size_t end;
    std::string_view value;  // without quotes
    bool isInDoubleQuotes;
};

/**
 * Finds the values that may name such a picture, in the order in which they stand: any value that begins with "cid:" (RFC 2392),
 * and the sources and backgrounds of elements, whatever they name. In CSS only an address in double quotes is one, as quotes
 * could not be put around it where it stands in an attribute.
 */
class PictureReferences {
public:
    /// @param html must stay; ASCII is read as such, whatever its charset is
    explicit PictureReferences(std::string_view html) : html_(html) {}

    /// @return nothing when there is none any more; all calls together take time linear in the HTML
    std::optional<PictureReference> next();

private:
    std::optional<PictureReference> referenceBehind(std::size_t sign) const;
    std::string_view attributeBefore(std::size_t sign) const;

    std::string_view html_;
    std::size_t at_ = 0;
    bool isInTag_ = false;
};

/// The first place of a text, which is not empty, in time linear in the HTML, unlike that of std::string_view::find for a text
/// that nearly repeats itself. @return npos when there is none
std::size_t findText(std::string_view html, std::string_view text, std::size_t from = 0);

/// True when a text stands in the HTML elsewhere than in values in double quotes: the filter, which puts a picture between the
/// quotes around its name, would take what lies between two elements away.
bool standsOutsideValues(std::string_view html, std::string_view text);

/// True for a value that names a picture by its Content-ID.
bool isContentId(std::string_view value);

}  // namespace ternview
