/**
 * The lowest layer of the store builder: blocks, pages, trees and allocation maps of a Personal Folders file ([MS-PST] 2.2).
 *
 * A StoreWriter takes blocks in the order in which they come and hands each to its sink at once, so that a large store never
 * stands in memory. finish() adds the pages of the two trees and the allocation maps, and writes the header last.
 */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace builder {

using Bytes = std::vector<std::uint8_t>;
using ByteSpan = std::span<const std::uint8_t>;
using NodeId = std::uint32_t;
using BlockId = std::uint64_t;

enum class Layout { Ansi, Unicode };

/** The values of bCryptMethod. Only the content of external blocks is encoded. */
enum class Encoding : std::uint8_t { None = 0, Permutative = 1, Cyclic = 2 };

/** Appends the low @p width bytes of @p value, lowest first. */
void put(Bytes& out, std::uint64_t value, std::size_t width);
/** Overwrites @p width bytes from @p offset. The bytes must be there. */
void putAt(std::span<std::uint8_t> out, std::size_t offset, std::uint64_t value, std::size_t width);
std::uint64_t getAt(ByteSpan bytes, std::size_t offset, std::size_t width);

/** The CRC-32 of [MS-PST] 5.3: it starts at 0 and is not inverted. */
std::uint32_t crcOf(ByteSpan bytes);
/** The signature of a page or block ([MS-PST] 5.5). */
std::uint16_t signatureOf(std::uint64_t id, std::uint64_t address);
void encode(std::span<std::uint8_t> content, Encoding encoding, BlockId id);
void decode(std::span<std::uint8_t> content, Encoding encoding, BlockId id);

/** The numbers in which the two layouts differ. */
struct Measures {
    std::size_t idWidth;          ///< bytes of an id or a file offset
    std::size_t blockTrailer;     ///< bytes of a block trailer
    std::size_t pageTrailer;      ///< bytes of a page trailer
    std::size_t treeEntryArea;    ///< bytes of a tree page in front of its counters
    std::size_t maxContent;       ///< largest content of an external block
    std::size_t blocksPerXblock;  ///< children of a full extended block
    std::size_t headerSize;
};
const Measures& measuresOf(Layout layout);

/** A stretch of the file by which a test can name what it damages. */
struct Place {
    enum class Kind { Header, Page, InternalBlock, ExternalBlock, Raw };
    Kind kind = Kind::Raw;
    std::uint64_t address = 0;
    std::size_t size = 0;  ///< content only; a block's padding and trailer are not counted, a page's are
    std::uint64_t id = 0;
};
using Places = std::map<std::string, Place>;
/** Other names of nodes: "contents table of Inbox" for "node 0x808E". */
using Aliases = std::map<std::string, std::string>;

/**
 * Without all maps a store says that they are invalid (fAMapValid 0) and leaves them to be rebuilt. A store with huge holes is
 * then a small file on the disk, and one without any map need not fill an allocation unit of 248 KB.
 */
enum class AllocationMaps { Complete, UsedUnits, None };

struct LayoutOptions {
    Layout layout = Layout::Unicode;
    Encoding encoding = Encoding::Permutative;
    /** At most so many entries in a page of a tree; 0: as many as fit. Small numbers give deep trees from few nodes. */
    std::size_t pageEntries = 0;
    /** At most so many entries in a subnode block; 0: as many as fit. */
    std::size_t subnodeEntries = 0;
    AllocationMaps allocationMaps = AllocationMaps::Complete;
    /** Keep a name for every block. The two big trees of a large store are better left out. */
    bool recordPlaces = true;
};

/** A node as it will stand in the file: a stream of bytes and its subnodes, each of which is again a node. */
struct NodeContent {
    Bytes data{};
    std::map<NodeId, NodeContent> subnodes{};
};

class StoreWriter {
public:
    using Sink = std::function<void(std::uint64_t offset, ByteSpan bytes)>;

    StoreWriter(const LayoutOptions& options, Sink sink);

    /** Writes one external block of at most maxContent bytes and gives its id. */
    BlockId addExternalBlock(ByteSpan content);
    /** Writes an internal block (extended or subnode block) as it stands. */
    BlockId addInternalBlock(ByteSpan content);
    /** Writes a data tree over @p data: nothing (id 0), one block, an XBLOCK or an XXBLOCK. @p name is for the places. */
    BlockId addDataTree(ByteSpan data, const std::string& name);
    /** An XBLOCK (@p level 1) or XXBLOCK (@p level 2) over the given children. */
    BlockId addExtendedBlock(std::uint8_t level, const std::vector<BlockId>& children, std::uint32_t totalBytes);

    struct SubnodeEntry {
        NodeId id;
        BlockId data;
        BlockId subnodes;
    };
    /** Writes an SLBLOCK, or a SIBLOCK over several. The entries must be in order; none gives id 0. */
    BlockId addSubnodeTree(const std::vector<SubnodeEntry>& entries, const std::string& name);

    struct Written {
        BlockId data;
        BlockId subnodes;
    };
    /** Writes the blocks of a node and of everything below it. */
    Written addContent(const NodeContent& content, const std::string& name);

    /** Enters a node into the node tree. */
    void addNode(NodeId id, Written blocks, NodeId parent);
    /** addContent and addNode. */
    void addNode(NodeId id, const NodeContent& content, NodeId parent = 0);

    /** The next block goes to this offset or behind it; the stretch up to there stays a hole in the file. */
    void skipTo(std::uint64_t offset);

    /** Writes trees, maps and header. Returns the size of the file. Nothing may be added afterwards. */
    std::uint64_t finish();

    const LayoutOptions& options() const { return m_options; }
    const Measures& measures() const { return m_measures; }
    Places takePlaces() { return std::move(m_places); }

    /** Name of a node in the places: "node 0x21". */
    static std::string nodeName(NodeId id);

private:
    struct TreeRef {
        std::uint64_t id = 0;
        std::uint64_t address = 0;
    };
    struct NodeEntry {
        BlockId data;
        BlockId subnodes;
        NodeId parent;
    };
    struct BlockEntry {
        BlockId id;
        std::uint64_t address;
        std::uint16_t size;
    };
    using Map = std::array<std::uint8_t, 496>;
    enum class TreeKind : std::uint8_t { Block = 0x80, Node = 0x81 };

    BlockId addBlock(ByteSpan content, Place::Kind kind);
    std::uint64_t allocate(std::size_t size, std::size_t alignment);
    void markAllocated(std::uint64_t address, std::size_t size);
    void note(const std::string& name, const Place& place);
    TreeRef writeTree(TreeKind kind, const std::vector<Bytes>& leafEntries);
    TreeRef writeTreePage(TreeKind kind, std::size_t level, std::span<const Bytes> entries, std::size_t stride);
    void writePage(Bytes page, std::uint8_t type, std::uint64_t id, std::uint64_t address);
    void writeAllocationMaps(std::uint64_t fileSize);
    void writeHeader(std::uint64_t fileSize, TreeRef nodeTree, TreeRef blockTree);

    LayoutOptions m_options;
    const Measures& m_measures;
    Sink m_sink;
    std::uint64_t m_cursor;
    std::uint64_t m_nextBlock = 4;
    std::uint64_t m_nextPage = 1;
    std::uint64_t m_freeBytes = 0;
    std::vector<BlockEntry> m_blocks{};
    std::map<NodeId, NodeEntry> m_nodes{};
    std::vector<Map> m_allocated{};
    Bytes m_scratch{};
    Places m_places{};
};

/** A store in memory, for tests that look at its bytes or damage them. */
class StoreImage {
public:
    enum class Crc { Mend, Leave };

    StoreImage(LayoutOptions options, Bytes bytes, Places places, Aliases aliases = {});

    const Bytes& bytes() const { return m_bytes; }
    const Places& places() const { return m_places; }
    /**
     * The range of a name, such as "header", "nbt root", "nbt leaf 0", "bbt level 1 page 0", "amap 0", "block of node 0x21",
     * "block 2 of node 0x21", "extended block of node 0x21", "subnodes of node 0x200024", "block of subnode 0x692 of node
     * 0x200024", "contents table of Inbox"; or of one of these behind "trailer of ". Throws std::out_of_range for a name not in
     * the store.
     */
    Place place(const std::string& name) const;
    /** The content of a place, decoded. */
    Bytes content(const std::string& name) const;
    /**
     * Overwrites bytes of a place from @p offset on, as its reader will see them: the content of an external block is encoded
     * again. The CRC of the page, block or header is mended unless the test wants it wrong.
     */
    StoreImage& damage(const std::string& name, std::size_t offset, ByteSpan replacement, Crc crc = Crc::Mend);
    StoreImage& damage(const std::string& name, std::size_t offset, std::initializer_list<std::uint8_t> replacement,
                       Crc crc = Crc::Mend);
    /** damage() with a little-endian number of @p width bytes. */
    StoreImage& damageNumber(const std::string& name, std::size_t offset, std::uint64_t value, std::size_t width,
                             Crc crc = Crc::Mend);
    /** Overwrites bytes of the file that have no name, such as the padding of a block. Nothing is mended. */
    StoreImage& overwrite(std::size_t offset, std::uint64_t value, std::size_t width);
    /** Cuts the file, or lengthens it with zeros. The header is not told. */
    StoreImage& resize(std::size_t size);
    void write(const std::string& path) const;

private:
    void mendCrc(const Place& place);

    LayoutOptions m_options;
    Bytes m_bytes;
    Places m_places;
    Aliases m_aliases;
};

}  // namespace builder
