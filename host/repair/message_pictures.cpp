#include "repair/message_pictures.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

#include "repair/gmime_values.h"
#include "repair/picture_references.h"

namespace ternview {
namespace {

constexpr std::size_t kMostPictures = 10'000;
constexpr std::size_t kMostSought = std::size_t{32} << 20;  // bytes of HTML in which ids and names are looked for
constexpr std::size_t kSmallest = 128;  // the filter refuses to embed less; readers of pictures stop at their end

/// The kinds of picture that a document can carry, by their first bytes; the declared type is often wrong.
std::string_view pictureType(std::string_view bytes) {
    if (bytes.starts_with("\x89PNG")) {
        return "image/png";
    }
    if (bytes.starts_with("\xFF\xD8\xFF")) {
        return "image/jpeg";
    }
    if (bytes.starts_with("GIF8")) {
        return "image/gif";
    }
    return {};
}

std::string_view extensionOf(std::string_view type) {
    return type == "image/jpeg" ? "jpg" : type.substr(type.find('/') + 1);
}

std::string_view lastSegment(std::string_view location) {
    return location.substr(location.find_last_of("/\\") + 1);
}

/// What the filter looks for where there is no id.
std::string_view soughtName(const Picture& picture) {
    return picture.location.empty() ? picture.name : lastSegment(picture.location);
}

/// The declared kind, when it is one of those that the filter embeds.
std::string_view declaredType(GMimePart* part) {
    constexpr std::string_view kTypes[] = {"image/png", "image/jpeg", "image/gif", "image/x-wmf"};
    GMimeContentType* type = g_mime_object_get_content_type(GMIME_OBJECT(part));
    const auto found = std::ranges::find_if(kTypes, [type](std::string_view each) {
        return g_mime_content_type_is_type(type, "image", each.substr(each.find('/') + 1).data()) != 0;
    });
    return found == std::end(kTypes) ? std::string_view() : *found;
}

/// The filter embeds no picture without a name: a Content-Location, or what stands behind the first "name=" behind the field of
/// the type.
bool mayBeEmbedded(GMimePart* part) {
    if (declaredType(part).empty()) {
        return false;
    }
    if (!textOf(g_mime_part_get_content_location(part)).empty()) {
        return true;
    }
    const OwnedText block(g_mime_object_get_headers(GMIME_OBJECT(part), nullptr));
    const OwnedText lower(g_ascii_strdown(block.get(), -1));
    const std::string fields = "\n" + textOf(lower.get());
    const std::size_t field = fields.find("\ncontent-type:");
    return field != std::string::npos && fields.find("name=", field) != std::string::npos;
}

}  // namespace

std::string Picture::ownName() const {
    return "picture-" + std::to_string(number) + "." + std::string(extensionOf(type));
}

std::string Picture::ownId() const {
    return ownName() + "@ternview";
}

MessagePictures::MessagePictures(const std::vector<GMimePart*>& parts) {
    for (GMimePart* part : parts) {
        if (entries_.size() == kMostPictures) {
            break;
        }
        Picture picture;
        picture.id = textOf(g_mime_part_get_content_id(part));
        picture.name = textOf(g_mime_part_get_filename(part));
        picture.location = textOf(g_mime_part_get_content_location(part));
        ids_.emplace(picture.id, entries_.size());
        names_.emplace(picture.location, entries_.size());
        names_.emplace(lastSegment(picture.location), entries_.size());
        names_.emplace(picture.name, entries_.size());
        entries_.push_back({part, mayBeEmbedded(part), std::move(picture)});
    }
    ids_.erase("");
    names_.erase("");
}

/// True when a document can carry it.
bool MessagePictures::isCarried(Entry& entry) {
    if (!entry.isDecoded) {
        Picture& picture = entry.picture;
        entry.isDecoded = true;
        picture.bytes = decodedContent(entry.part);
        picture.type = pictureType(picture.bytes);
        if (picture.type.empty() && entry.mayBeEmbedded && !picture.bytes.empty()) {
            picture.type = declaredType(entry.part);  // as the filter does not look
        }
        picture.bytes.resize(picture.type.empty() ? 0 : std::max(picture.bytes.size(), kSmallest));
    }
    return !entry.picture.type.empty();
}

MessagePictures::Entry* MessagePictures::at(const Keys& keys, std::string_view key) {
    const auto found = keys.find(key);
    return found == keys.end() ? nullptr : &entries_[found->second];
}

MessagePictures::Entry* MessagePictures::namedAsItStands(std::string_view value) {
    if (!isContentId(value)) {
        Entry* whole = at(names_, value);
        return whole != nullptr ? whole : at(names_, lastSegment(value));
    }
    const std::string_view id = value.substr(value.find(':') + 1);
    Entry* entry = at(ids_, id);
    // An id mostly is the name, "@", and something.
    return entry != nullptr ? entry : at(names_, id.substr(0, id.find('@')));
}

MessagePictures::Entry* MessagePictures::named(std::string_view value) {
    Entry* entry = namedAsItStands(value);
    if (entry != nullptr || value.find('%') == std::string_view::npos) {
        return entry;
    }
    const OwnedText unescaped(g_uri_unescape_segment(value.data(), value.data() + value.size(), nullptr));
    return unescaped ? namedAsItStands(unescaped.get()) : nullptr;
}

/// True when a picture is named that the filter does not embed, or not without taking more than the name away: it puts what it
/// embeds between the double quotes around the name, and looks for an id, or else for a name, as it stands.
bool MessagePictures::isLost(std::string_view value, bool isInDoubleQuotes) {
    Entry* entry = named(value);
    if (entry == nullptr) {
        return false;
    }
    const auto stands = [value](std::string_view key) { return !key.empty() && value.find(key) != std::string_view::npos; };
    const bool isSought = (value.starts_with("cid:") && stands(entry->picture.id)) || stands(soughtName(entry->picture));
    return !(isInDoubleQuotes && entry->mayBeEmbedded && isSought) && isCarried(*entry);
}

/// True when the filter would find the id or name of a picture in the midst of the text.
bool MessagePictures::areNamedInText(std::string_view html) const {
    std::size_t sought = 0;
    return std::ranges::any_of(entries_, [&](const Entry& entry) {
        if (!entry.mayBeEmbedded || sought > kMostSought) {
            return false;
        }
        sought += html.size();
        const std::string id = "cid:" + entry.picture.id;
        const bool hasId = !entry.picture.id.empty() && findText(html, id) != std::string_view::npos;
        const std::string_view needle = hasId ? std::string_view(id) : soughtName(entry.picture);
        return !needle.empty() && standsOutsideValues(html, needle);
    });
}

bool MessagePictures::areLostIn(std::string_view html) {
    if (entries_.empty()) {
        return false;
    }
    PictureReferences references(html);
    while (const std::optional<PictureReference> reference = references.next()) {
        if (isLost(reference->value, reference->isInDoubleQuotes)) {
            return true;
        }
    }
    return areNamedInText(html);
}

std::vector<const Picture*> MessagePictures::rename(std::string& html) {
    std::vector<const Picture*> used;
    std::string out;
    std::size_t done = 0;
    PictureReferences references(html);
    while (const std::optional<PictureReference> reference = references.next()) {
        Entry* entry = named(reference->value);
        if (entry == nullptr || !isCarried(*entry)) {
            continue;
        }
        Picture& picture = entry->picture;
        if (picture.number == 0) {
            used.push_back(&picture);
            picture.number = used.size();
        }
        out.append(html, done, reference->begin - done);
        out += "\"cid:" + picture.ownId() + "\"";
        done = reference->end;
    }
    html = out.append(html, done, std::string::npos);
    return used;
}

}  // namespace ternview
