#include "html_addresses.h"

#include <algorithm>
#include <array>

namespace ternview {
namespace {

constexpr std::size_t kMaxTargetLength = 8192;
constexpr std::size_t kMaxTargetBytes = std::size_t{16} << 20;  // of a document
constexpr std::size_t kMaxTargets = 50'000;

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

bool startsWithScheme(std::string_view address, std::string_view scheme) {
    return address.size() > scheme.size() && std::ranges::equal(address.substr(0, scheme.size()), scheme, {}, lower);
}

/// Characters that mean the same in an address, a PDF string and an attribute of the drawing library.
bool isPlain(char c) {
    constexpr std::string_view kMarks = "-._~:/?#[]@!$&*+,;=%";
    return (c >= '0' && c <= '9') || (lower(c) >= 'a' && lower(c) <= 'z') || kMarks.find(c) != std::string_view::npos;
}

}  // namespace

std::string linkTarget(std::string_view address) {
    constexpr std::string_view kHex = "0123456789ABCDEF";
    const std::size_t start = std::min(address.find_first_not_of(" \t\r\n\f"), address.size());
    address.remove_prefix(start);
    address = address.substr(0, address.find_last_not_of(" \t\r\n\f") + 1);
    const bool kept = std::ranges::any_of(std::array<std::string_view, 3>{"http://", "https://", "mailto:"},
                                          [&](std::string_view scheme) { return startsWithScheme(address, scheme); });
    if (!kept || address.size() > kMaxTargetLength) {
        return {};
    }
    std::string target;
    for (const char c : address) {
        if (isPlain(c)) {
            target += c;
        } else if (c != '\t' && c != '\r' && c != '\n') {  // line ends within an address come from transport
            target += '%';
            target += kHex[static_cast<unsigned char>(c) >> 4];
            target += kHex[static_cast<unsigned char>(c) & 15];
        }
    }
    return target;
}

std::optional<std::size_t> LinkAddresses::add(std::string_view address) {
    std::string target = linkTarget(address);
    if (target.empty() || m_targets.size() >= kMaxTargets || m_bytes + target.size() > kMaxTargetBytes) {
        return std::nullopt;
    }
    m_bytes += target.size();
    m_targets.push_back(std::move(target));
    return m_targets.size() - 1;
}

const std::string& LinkAddresses::at(std::size_t number) const {
    static const std::string kNone;
    return number < m_targets.size() ? m_targets[number] : kNone;
}

}  // namespace ternview
