// The pictures that travel with a message, for the HTML that names them.
#pragma once

#include <gmime/gmime.h>

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace ternview {

struct Picture {
    std::string id;         // without angle brackets; empty when there is none
    std::string name;       // likewise
    std::string location;   // likewise
    std::string_view type;  // empty while the bytes are not decoded, and for what a document cannot carry
    std::string bytes;
    std::size_t number = 0;  // among those of a corrected copy, from 1 on

    /// In a corrected copy, where no other text has them in it.
    std::string ownName() const;
    std::string ownId() const;
};

class MessagePictures {
public:
    /// @param parts that may be pictures, which must stay; the content of one is decoded when it is asked for
    explicit MessagePictures(const std::vector<GMimePart*>& parts);

    /// True for HTML that the filter does not show with all the pictures that it names, or only with less text.
    bool areLostIn(std::string_view html);

    /// Names the pictures as they are named in a corrected copy, whatever form the references have.
    /// @return those that are named, in the order of their numbers; they stay this object's
    std::vector<const Picture*> rename(std::string& html);

private:
    struct Entry {
        GMimePart* part;
        bool mayBeEmbedded;
        Picture picture;
        bool isDecoded = false;
    };
    using Keys = std::map<std::string, std::size_t, std::less<>>;

    static bool isCarried(Entry& entry);
    Entry* at(const Keys& keys, std::string_view key);
    Entry* namedAsItStands(std::string_view value);
    Entry* named(std::string_view value);
    bool isLost(std::string_view value, bool isInDoubleQuotes);
    bool areNamedInText(std::string_view html) const;

    std::vector<Entry> entries_;
    Keys ids_;
    Keys names_;
};

}  // namespace ternview
