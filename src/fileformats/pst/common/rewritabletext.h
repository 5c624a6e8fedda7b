// Text in which references to thousands of attachments are looked up and rewritten, one attachment after the other.
//
// A flat text would be searched from its start for each attachment, and its tail moved for each reference: quadratic in a message
// that is made of pictures. So the text lies in chunks, an edit moves no more than a chunk or two, and once the text has been
// searched a few times, sets of the four-byte groups that occur in it tell for most chunks, for most shelves of chunks, small and
// large, and mostly for the text as a whole, that a search need not look.
#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class RewritableText {
    /// Four-byte groups by their hashes: those of a text, some that are gone from it, and some that share their place.
    class GroupSet {
    public:
        GroupSet() = default;
        explicit GroupSet(std::size_t places);  // a power of two
        bool isEmpty() const { return m_words.empty(); }
        void add(std::uint32_t hash) { m_words[hash / kBits & (m_words.size() - 1)] |= std::uint64_t{1} << (hash % kBits); }
        bool has(std::uint32_t hash) const { return (m_words[hash / kBits & (m_words.size() - 1)] >> (hash % kBits) & 1U) != 0; }
        /// Enters the groups inside a text.
        void addAll(std::string_view text);

    private:
        static constexpr std::size_t kBits = 64;

        std::vector<std::uint64_t> m_words;
    };

    struct Shelf;

    static constexpr std::array<std::size_t, 3> kShelfChunks = {5, 25, 125};  // on a new shelf of each size

    struct Chunk {
        /// Enters the bytes of its text.
        void noteBytes();

        std::string text;  // not empty
        unsigned searches = 0;
        GroupSet groups;         // that begin in it; empty until it pays
        std::bitset<256> bytes;  // in it, and perhaps some that are gone
        bool knowsBytes = false;
        std::array<std::shared_ptr<Shelf>, kShelfChunks.size()> shelves;  // one of each size; nothing until it pays
    };

    using Chunks = std::list<Chunk>;

    /// Chunks that follow each other.
    struct Shelf {
        Chunks::iterator last;
        std::size_t count = 0;  // of chunks
        GroupSet groups;        // that begin in them
    };

public:
    /// A place in the text, in front of a byte or at the end. An edit keeps the places in front of it.
    struct Position {
        Chunks::iterator chunk;
        std::size_t offset = 0;
    };

    static constexpr std::size_t kChunkSize = 2048;

    explicit RewritableText(std::string_view text, std::size_t chunkSize = kChunkSize);

    std::uint64_t size() const { return m_size; }
    Position begin() { return {m_chunks.begin(), 0}; }
    Position end() { return {m_chunks.end(), 0}; }
    /// The place `count` bytes further, at most the end.
    Position advance(Position position, std::size_t count);
    /// Up to `count` bytes from a place on.
    std::string bytesAt(Position position, std::size_t count);

    /// The first occurrence of a text, which is not empty, at `from` or behind it. Finds nothing once the budget is used up.
    std::optional<Position> find(std::string_view needle, Position from);
    /// The first occurrence of a byte at `from` or behind it.
    std::optional<Position> findByte(char byte, Position from);
    /// The last occurrence of a byte in front of `to` and not in front of `from`.
    std::optional<Position> findLastByte(char byte, Position from, Position to);

    /// Puts a text in the place of [from, to) and gives the place behind it.
    Position replace(Position from, Position to, std::string_view text);

    /// True when names that were made to defeat the filters have used up what searches may look at.
    bool isExhausted() const { return m_scanBudget == 0; }

    /// Copies the text to `out`, which has room for size() bytes.
    void copyTo(char* out) const;

private:
    struct Needle;

    std::optional<Position> findLong(std::string_view needle, Position from);
    std::optional<Position> findInside(Needle& needle, Chunks::iterator chunk, std::size_t from);
    std::optional<Position> findAcross(const Needle& needle, Position from, Chunks::iterator last);
    const char* scan(std::string_view text, const Needle& needle);
    void makeFilters();
    void makeShelves(std::size_t size, Chunks::iterator from, Chunks::iterator to);
    void addGroups(GroupSet& groups, Chunks::iterator chunk);
    void noteSearch(Chunks::iterator chunk);
    void noteEdit(Position from, Position to);
    Position normalized(Position position);
    Chunks::iterator insertBehind(Chunks::iterator chunk);
    Chunks::iterator erase(Chunks::iterator chunk);
    void keepShelvesShort(Chunks::iterator chunk);
    Position appendTo(Chunks::iterator chunk, std::string_view text);

    std::size_t m_chunkSize;
    Chunks m_chunks;
    std::uint64_t m_size = 0;
    unsigned m_searches = 0;
    std::uint64_t m_scanBudget;        // bytes that searches may still look at, far beyond what those of honest mail do
    std::uint64_t m_filteredSize = 0;  // of the text when its filters were made
    GroupSet m_groups;                 // of the whole text; empty until it pays
};
