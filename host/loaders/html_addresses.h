// The addresses of pictures that stand in a document, taken out of its text before a parser sees it: a picture may be megabytes
// of base64 in an attribute or a style sheet.
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

}  // namespace ternview
