#include "fileformats/pst/common/rewritabletext.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "common/apiutils.h"

namespace {

constexpr std::size_t kGroupSize = 4;
constexpr unsigned kSearchesBeforeFilter = 8;  // making a filter costs about as much as a few searches
constexpr std::size_t kSampledGroups = 16;
constexpr std::uint64_t kGrowthOfFilters = 8;
constexpr std::size_t kPlacesForByte = 4;    // of chunks and shelves, at least
constexpr std::size_t kFewestPlaces = 64;    // a word
constexpr std::size_t kBeginningSize = 256;  // of a text longer than a chunk, looked for first
constexpr std::uint64_t kScansOfEachByte = 64;
constexpr std::uint64_t kLeastScanBudget = 1'000'000'000;

std::uint32_t groupHash(const char* bytes) {
    std::uint32_t group = 0;
    std::memcpy(&group, bytes, kGroupSize);
    group *= 2654435761U;
    return group ^ (group >> 15);
}

/// A pair of bytes, folded to one.
std::size_t pairBit(char first, char second) {
    return static_cast<unsigned char>(static_cast<unsigned char>(first) * 31U + static_cast<unsigned char>(second));
}

}  // namespace

// A text to search for, with what the filters are asked.
struct RewritableText::Needle {
    explicit Needle(std::string_view needle) : text(needle) {
        if (text.size() >= kGroupSize) {
            const std::size_t last = text.size() - kGroupSize;
            const std::size_t step = std::max<std::size_t>(1, last / kSampledGroups);
            for (std::size_t at = 0; at < last; at += step) {
                groups.push_back(groupHash(text.data() + at));
            }
            groups.push_back(groupHash(text.data() + last));
        }
        for (std::size_t at = 0; at + 1 < text.size(); ++at) {
            pairs.set(pairBit(text[at], text[at + 1]));
        }
    }

    /// False when it does not occur where these groups begin.
    bool mayOccurIn(const GroupSet& set) {
        const auto missing = std::find_if(groups.begin(), groups.end(), [&](std::uint32_t hash) { return !set.has(hash); });
        if (missing == groups.end()) {
            return true;
        }
        std::iter_swap(groups.begin(), missing);  // one that is rare here is the first to ask for elsewhere
        return false;
    }

    std::string_view text;
    std::vector<std::uint32_t> groups;
    std::bitset<256> pairs;
};

RewritableText::GroupSet::GroupSet(std::size_t places) : m_words(places / kBits, 0) {}

void RewritableText::GroupSet::addAll(std::string_view text) {
    for (std::size_t at = 0; at + kGroupSize <= text.size(); ++at) {
        add(groupHash(text.data() + at));
    }
}

void RewritableText::Chunk::noteBytes() {
    knowsBytes = true;
    for (const char byte : text) {
        bytes.set(static_cast<unsigned char>(byte));
    }
}

RewritableText::RewritableText(std::string_view text, std::size_t chunkSize)
    : m_chunkSize(chunkSize), m_size(text.size()), m_scanBudget(kScansOfEachByte * text.size() + kLeastScanBudget) {
    for (; !text.empty(); text.remove_prefix(std::min(m_chunkSize, text.size()))) {
        m_chunks.emplace_back().text = text.substr(0, m_chunkSize);
    }
}

RewritableText::Position RewritableText::normalized(Position position) {
    if (position.chunk != m_chunks.end() && position.offset == position.chunk->text.size()) {
        return {std::next(position.chunk), 0};
    }
    return position;
}

RewritableText::Position RewritableText::advance(Position position, std::size_t count) {
    while (position.chunk != m_chunks.end() && count >= position.chunk->text.size() - position.offset) {
        count -= position.chunk->text.size() - position.offset;
        position = {std::next(position.chunk), 0};
    }
    position.offset += position.chunk != m_chunks.end() ? count : 0;
    return position;
}

std::string RewritableText::bytesAt(Position position, std::size_t count) {
    std::string bytes;
    for (; position.chunk != m_chunks.end() && bytes.size() < count; position = {std::next(position.chunk), 0}) {
        bytes.append(position.chunk->text, position.offset, count - bytes.size());
    }
    return bytes;
}

/// Enters the groups that begin in a chunk.
void RewritableText::addGroups(GroupSet& groups, Chunks::iterator chunk) {
    groups.addAll(bytesAt({chunk, 0}, chunk->text.size() + kGroupSize - 1));
}

void RewritableText::noteSearch(Chunks::iterator chunk) {
    if (!chunk->groups.isEmpty() || ++chunk->searches < kSearchesBeforeFilter) {
        return;
    }
    chunk->groups = GroupSet(std::max(kFewestPlaces, std::bit_ceil(kPlacesForByte * m_chunkSize)));
    addGroups(chunk->groups, chunk);
    chunk->noteBytes();
}

/// Makes the filters of shelves and of the whole text.
void RewritableText::makeFilters() {
    constexpr std::uint64_t kFewest = std::uint64_t{1} << 16;
    constexpr std::uint64_t kMost = std::uint64_t{1} << 27;
    m_filteredSize = m_size;
    m_groups = GroupSet(std::clamp(std::bit_ceil(8 * m_size), kFewest, kMost));
    for (auto chunk = m_chunks.begin(); chunk != m_chunks.end(); ++chunk) {
        addGroups(m_groups, chunk);
        chunk->noteBytes();
    }
    for (std::size_t size = 0; size < kShelfChunks.size() && m_chunks.size() > kShelfChunks[size]; ++size) {
        makeShelves(size, m_chunks.begin(), m_chunks.end());
    }
}

/// Puts the chunks [from, to) on new shelves of a size.
void RewritableText::makeShelves(std::size_t size, Chunks::iterator from, Chunks::iterator to) {
    std::shared_ptr<Shelf> shelf;
    for (auto chunk = from; chunk != to; ++chunk) {
        if (shelf == nullptr || shelf->count == kShelfChunks[size]) {
            shelf = std::make_shared<Shelf>();
            shelf->groups = GroupSet(std::max(kFewestPlaces, std::bit_ceil(kPlacesForByte * kShelfChunks[size] * m_chunkSize)));
        }
        addGroups(shelf->groups, chunk);
        shelf->last = chunk;
        ++shelf->count;
        chunk->shelves[size] = shelf;
    }
}

/// Searches a stretch and charges what was looked at.
const char* RewritableText::scan(std::string_view text, const Needle& needle) {
    const char* end = text.data() + text.size();
    const char* found = m_scanBudget != 0 ? FindBytes(text.data(), end, needle.text.data(), needle.text.size()) : nullptr;
    m_scanBudget -= std::min(m_scanBudget, static_cast<std::uint64_t>((found != nullptr ? found : end) - text.data()));
    return found;
}

std::optional<RewritableText::Position> RewritableText::findInside(Needle& needle, Chunks::iterator chunk, std::size_t from) {
    noteSearch(chunk);
    if (!chunk->groups.isEmpty() && !needle.mayOccurIn(chunk->groups)) {
        return std::nullopt;
    }
    const char* found = scan(std::string_view(chunk->text).substr(from), needle);
    return found != nullptr ? std::optional<Position>({chunk, static_cast<std::size_t>(found - chunk->text.data())})
                            : std::nullopt;
}

/// An occurrence that begins at `from` or behind it, in the chunk `last` or in front of it, and ends behind that chunk.
std::optional<RewritableText::Position> RewritableText::findAcross(const Needle& needle, Position from, Chunks::iterator last) {
    const auto next = std::next(last);
    const std::size_t reach = needle.text.size() - 1;
    if (reach == 0 || next == m_chunks.end() || !needle.pairs.test(pairBit(last->text.back(), next->text.front()))) {
        return std::nullopt;
    }
    Position start = {last, last->text.size()};
    std::size_t before = 0;  // bytes from there to the end of the chunk
    while (before < reach) {
        const std::size_t first = start.chunk == from.chunk ? from.offset : 0;
        const std::size_t step = std::min(reach - before, start.offset - first);
        start.offset -= step;
        before += step;
        if (before == reach || start.chunk == from.chunk) {
            break;
        }
        --start.chunk;
        start.offset = start.chunk->text.size();
    }
    const std::string seam = bytesAt(start, before + reach);
    const char* found = scan(seam, needle);
    return found != nullptr ? std::optional(advance(start, static_cast<std::size_t>(found - seam.data()))) : std::nullopt;
}

/// Searches a text that is longer than a chunk, which would be looked for across many seams, byte by byte: after a mismatch the
/// search goes on with the longest beginning of the text that ends there (Knuth, Morris and Pratt).
std::optional<RewritableText::Position> RewritableText::findLong(std::string_view needle, Position from) {
    std::vector<std::size_t> borders(needle.size(), 0);  // for each beginning, the longest other one that it ends with
    const auto grown = [&](std::size_t matched, char byte) {
        while (matched != 0 && needle[matched] != byte) {
            matched = borders[matched - 1];
        }
        return needle[matched] == byte ? matched + 1 : 0;
    };
    for (std::size_t at = 1; at < needle.size(); ++at) {
        borders[at] = grown(borders[at - 1], needle[at]);
    }
    std::size_t matched = 0;
    std::size_t passed = 0;
    for (Position at = from; at.chunk != m_chunks.end() && !isExhausted(); at = {std::next(at.chunk), 0}) {
        const std::string_view stretch = std::string_view(at.chunk->text).substr(at.offset);
        m_scanBudget -= std::min<std::uint64_t>(m_scanBudget, stretch.size());
        for (const char byte : stretch) {
            matched = grown(matched, byte);
            ++passed;
            if (matched == needle.size()) {
                return advance(from, passed - matched);
            }
        }
    }
    return std::nullopt;
}

std::optional<RewritableText::Position> RewritableText::find(std::string_view text, Position from) {
    Needle needle(text);
    if (m_groups.isEmpty() && ++m_searches >= kSearchesBeforeFilter) {
        makeFilters();
    }
    if (!m_groups.isEmpty() && !needle.mayOccurIn(m_groups)) {
        return std::nullopt;
    }
    if (text.size() > m_chunkSize) {
        const auto beginning = find(text.substr(0, std::min(kBeginningSize, m_chunkSize)), from);
        return beginning ? findLong(text, *beginning) : std::nullopt;
    }
    std::array<const Shelf*, kShelfChunks.size()> entered = {};
    while (from.chunk != m_chunks.end() && !isExhausted()) {
        const Shelf* skipped = nullptr;
        for (std::size_t size = kShelfChunks.size(); size-- > 0 && skipped == nullptr;) {
            const Shelf* shelf = from.chunk->shelves[size].get();
            if (shelf != entered[size]) {
                entered[size] = shelf;
                skipped = shelf != nullptr && !needle.mayOccurIn(shelf->groups) ? shelf : nullptr;
            }
        }
        if (skipped == nullptr) {
            if (const auto inside = findInside(needle, from.chunk, from.offset)) {
                return inside;
            }
        }
        const auto last = skipped != nullptr ? skipped->last : from.chunk;
        if (const auto across = findAcross(needle, from, last)) {
            return across;
        }
        from = {std::next(last), 0};
    }
    return std::nullopt;
}

std::optional<RewritableText::Position> RewritableText::findByte(char byte, Position from) {
    for (; from.chunk != m_chunks.end(); from = {std::next(from.chunk), 0}) {
        const std::size_t found = from.chunk->text.find(byte, from.offset);
        if (found != std::string::npos) {
            return Position{from.chunk, found};
        }
    }
    return std::nullopt;
}

std::optional<RewritableText::Position> RewritableText::findLastByte(char byte, Position from, Position to) {
    while (true) {
        const std::size_t first = to.chunk == from.chunk ? from.offset : 0;
        if (to.chunk != m_chunks.end() && to.offset > first) {
            if (!to.chunk->knowsBytes || to.chunk->bytes.test(static_cast<unsigned char>(byte))) {
                const std::size_t found = std::string_view(to.chunk->text).substr(first, to.offset - first).rfind(byte);
                if (found != std::string_view::npos) {
                    return Position{to.chunk, first + found};
                }
            }
        }
        if (to.chunk == from.chunk || to.chunk == m_chunks.begin()) {
            return std::nullopt;
        }
        --to.chunk;
        to.offset = to.chunk->text.size();
    }
}

/// Enters what an edit has brought into the filters: the groups of [from, to) and those that reach into it from both sides.
void RewritableText::noteEdit(Position from, Position to) {
    if (m_groups.isEmpty()) {
        return;  // no filter is made before this one
    }
    constexpr std::size_t kReach = kGroupSize - 1;
    for (std::size_t back = 0; back < kReach; ++back) {
        if (from.offset == 0) {
            if (from.chunk == m_chunks.begin()) {
                break;
            }
            --from.chunk;
            from.offset = from.chunk->text.size();
        }
        --from.offset;
    }
    for (auto chunk = from.chunk; chunk != m_chunks.end(); ++chunk) {
        const std::size_t first = chunk == from.chunk ? from.offset : 0;
        const bool last = chunk == to.chunk;
        const std::size_t end = last ? std::min(to.offset + kReach, chunk->text.size()) : chunk->text.size();
        const std::string begun = bytesAt({chunk, first}, end - first + kReach);
        for (std::size_t at = 0; at + kGroupSize <= begun.size(); ++at) {
            const std::uint32_t hash = groupHash(begun.data() + at);
            m_groups.add(hash);
            for (const auto& shelf : chunk->shelves) {
                if (shelf != nullptr) {
                    shelf->groups.add(hash);
                }
            }
            if (!chunk->groups.isEmpty()) {
                chunk->groups.add(hash);
            }
        }
        if (chunk->knowsBytes) {
            for (std::size_t at = first; at < end; ++at) {
                chunk->bytes.set(static_cast<unsigned char>(chunk->text[at]));
            }
        }
        if (last) {
            break;
        }
    }
}

/// A new chunk behind another one and on its shelves.
RewritableText::Chunks::iterator RewritableText::insertBehind(Chunks::iterator chunk) {
    const auto inserted = m_chunks.emplace(std::next(chunk));
    inserted->shelves = chunk->shelves;
    for (const auto& shelf : inserted->shelves) {
        if (shelf != nullptr) {
            shelf->last = shelf->last == chunk ? inserted : shelf->last;
            ++shelf->count;
        }
    }
    return inserted;
}

/// Divides the shelves of a chunk once edits have filled them with too many.
void RewritableText::keepShelvesShort(Chunks::iterator chunk) {
    for (std::size_t size = 0; chunk != m_chunks.end() && size < kShelfChunks.size(); ++size) {
        const std::shared_ptr<Shelf> shelf = chunk->shelves[size];
        if (shelf != nullptr && shelf->count > 2 * kShelfChunks[size]) {
            const auto behind = std::next(shelf->last);
            makeShelves(size, std::prev(behind, static_cast<std::ptrdiff_t>(shelf->count)), behind);
        }
    }
}

/// Takes a chunk away and gives the one behind it.
RewritableText::Chunks::iterator RewritableText::erase(Chunks::iterator chunk) {
    for (const auto& shelf : chunk->shelves) {
        if (shelf != nullptr && --shelf->count != 0 && shelf->last == chunk) {
            shelf->last = std::prev(chunk);
        }
    }
    return m_chunks.erase(chunk);
}

/// Appends a text to a chunk, or to new ones behind it once it is full, and gives the place behind it.
RewritableText::Position RewritableText::appendTo(Chunks::iterator chunk, std::string_view text) {
    if (chunk->text.size() + text.size() <= 2 * m_chunkSize) {
        chunk->text += text;
        return {chunk, chunk->text.size()};
    }
    for (; !text.empty(); text.remove_prefix(std::min(m_chunkSize, text.size()))) {
        chunk = insertBehind(chunk);
        chunk->text = text.substr(0, m_chunkSize);
    }
    return {chunk, chunk->text.size()};
}

RewritableText::Position RewritableText::replace(Position from, Position to, std::string_view text) {
    const auto textEnd = m_chunks.end();
    // What stays of the last chunk touched, so that the edit happens at the end of its first chunk.
    std::string tail;
    if (to.chunk != textEnd && to.chunk == from.chunk) {
        tail = to.chunk->text.substr(to.offset);
    } else if (to.chunk != textEnd) {
        to.chunk->text.erase(0, to.offset);
        m_size -= to.offset;
    }
    if (from.chunk == textEnd) {
        if (text.empty()) {
            return end();
        }
        from = {m_chunks.empty() ? m_chunks.emplace(textEnd) : insertBehind(std::prev(textEnd)), 0};
    }
    const auto first = from.chunk;
    m_size -= first->text.size() - from.offset;
    first->text.resize(from.offset);
    for (auto chunk = std::next(first); chunk != to.chunk && to.chunk != first && chunk != textEnd;) {
        m_size -= chunk->text.size();
        chunk = erase(chunk);
    }
    Position behind = appendTo(first, text);
    if (!tail.empty()) {
        appendTo(behind.chunk, tail);
    }
    m_size += text.size() + tail.size();
    Position start = from;
    if (first->text.empty()) {
        const bool endedThere = behind.chunk == first;
        start = {erase(first), 0};
        behind = endedThere ? start : behind;
    }
    behind = normalized(behind);
    start = normalized(start);
    noteEdit(start, behind);
    if (!m_groups.isEmpty() && m_size > kGrowthOfFilters * m_filteredSize) {
        makeFilters();  // those for a small text tell little of a large one
    } else {
        keepShelvesShort(start.chunk);
    }
    return behind;
}

void RewritableText::copyTo(char* out) const {
    for (const Chunk& chunk : m_chunks) {
        std::memcpy(out, chunk.text.data(), chunk.text.size());
        out += chunk.text.size();
    }
}
