// The addresses that stand in a document, taken out of its text before a parser sees it: a picture may be megabytes of base64 in
// an attribute or a style sheet, and a link is for the reader of a PDF only.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ternview {

struct PictureAddress {
    enum class Use { Element, Background };
    std::string address;      // as written, character references resolved
    std::string alternative;  // the text to show when there is no picture
    Use use = Use::Background;
};

class PictureAddresses {
public:
    /// Keeps an address and gives the short name that stands for it in the markup.
    std::string add(PictureAddress address) {
        m_addresses.push_back(std::move(address));
        return "p" + std::to_string(m_addresses.size() - 1);
    }
    /// The address that a short name stands for; null for any other text.
    const PictureAddress* find(std::string_view name) const {
        std::size_t index = 0;
        if (name.size() < 2 || name.size() > 10 || name[0] != 'p') {
            return nullptr;
        }
        for (const char c : name.substr(1)) {
            if (c < '0' || c > '9') {
                return nullptr;
            }
            index = index * 10 + static_cast<std::size_t>(c - '0');
        }
        return index < m_addresses.size() ? &m_addresses[index] : nullptr;
    }

private:
    std::vector<PictureAddress> m_addresses;
};

/// The targets of a document's links. Only addresses of the web and of mail are kept, in ASCII that needs no escaping anywhere.
class LinkAddresses {
public:
    /**
     * Keeps a target.
     *
     * @param address as written, character references resolved
     * @return its number; nothing when it is no target for a reader, or one too many
     */
    std::optional<std::size_t> add(std::string_view address);
    /// The target of a number, with its scheme; empty for a number that was not given out.
    const std::string& at(std::size_t number) const;

private:
    std::vector<std::string> m_targets;
    std::size_t m_bytes = 0;
};

/// An address as it may stand in a link: trimmed, everything escaped that is not plain; empty when it is not of the web or mail.
std::string linkTarget(std::string_view address);

}  // namespace ternview
