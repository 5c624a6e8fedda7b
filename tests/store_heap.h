/**
 * The middle layer of the store builder: heaps on nodes, BTHs, property contexts and table contexts ([MS-PST] 2.3).
 * Each gives a NodeContent that a StoreWriter can put anywhere, as a node or as a subnode.
 */
#pragma once

#include <concepts>
#include <set>
#include <string_view>
#include <utility>

#include "store_layout.h"

namespace builder {

using HeapId = std::uint32_t;

/** Property types of [MS-OXCDATA] 2.11.1. */
enum PropertyType : std::uint16_t {
    kInteger16 = 0x0002,
    kInteger32 = 0x0003,
    kFloating32 = 0x0004,
    kFloating64 = 0x0005,
    kErrorCode = 0x000A,
    kBoolean = 0x000B,
    kObject = 0x000D,
    kInteger64 = 0x0014,
    kString8 = 0x001E,
    kString = 0x001F,
    kTime = 0x0040,
    kGuid = 0x0048,
    kBinary = 0x0102,
    kMultipleInteger32 = 0x1003,
};

/** Bytes of a value of a fixed size up to 8, or 0: such a value has a heap item or subnode of its own. */
std::size_t fixedSize(std::uint16_t type);

class HeapBuilder {
public:
    static constexpr std::uint8_t kPropertyContext = 0xBC;
    static constexpr std::uint8_t kTableContext = 0x7C;
    static constexpr std::size_t kMaxItem = 3580;

    HeapBuilder(Layout layout, std::uint8_t clientSignature);

    /** Adds an item of at most kMaxItem bytes. A heap grows by a page when the item does not fit the last one. */
    HeapId add(ByteSpan item);
    void setRoot(HeapId root) { m_root = root; }
    /** The data of the node: all pages but the last at their full size. */
    Bytes finish() const;

private:
    struct Page {
        Bytes items{};
        std::vector<std::uint16_t> ends{};
    };
    std::size_t used(std::size_t page) const;

    std::size_t m_pageSize;
    std::uint8_t m_clientSignature;
    HeapId m_root = 0;
    std::vector<Page> m_pages{1};
};

/** Where an item starts in the data of its heap. For tests that damage one. */
std::size_t heapItemOffset(ByteSpan heap, HeapId id, Layout layout);

struct BthRecord {
    std::uint64_t key;
    Bytes value;
};
/**
 * Adds a BTH over records in order of their keys and gives the id of its header. Small @p itemBytes give a deep tree.
 */
HeapId addBth(HeapBuilder& heap, std::uint8_t keySize, std::uint8_t valueSize, const std::vector<BthRecord>& records,
              std::size_t itemBytes = HeapBuilder::kMaxItem);

struct Property {
    std::uint16_t type;
    Bytes value;
};
using PropertyMap = std::map<std::uint16_t, Property>;

/** Text as a store of this layout holds it: UTF-16 (kString) or bytes of ISO 8859-1 (kString8). @p utf8 is UTF-8. */
Property textProperty(Layout layout, std::string_view utf8);

/** A set of properties with a setter for each usual type. */
class PropertyList {
public:
    explicit PropertyList(Layout layout) : m_layout(layout) {}

    PropertyList& property(std::uint16_t id, std::uint32_t value);
    PropertyList& property(std::uint16_t id, std::uint64_t value);
    PropertyList& property(std::uint16_t id, std::same_as<bool> auto value) {
        return property(id, kBoolean, {static_cast<std::uint8_t>(value)});
    }
    PropertyList& property(std::uint16_t id, std::string_view utf8);
    PropertyList& property(std::uint16_t id, Bytes binary) { return property(id, kBinary, std::move(binary)); }
    PropertyList& property(std::uint16_t id, std::uint16_t type, Bytes value);
    /** @p fileTime counts 100 ns since 1601. */
    PropertyList& time(std::uint16_t id, std::uint64_t fileTime);
    /** Leaves a property out, also one that the builder would add by itself. */
    PropertyList& remove(std::uint16_t id);

    Layout layout() const { return m_layout; }
    const PropertyMap& properties() const { return m_properties; }
    /** These properties, and those of @p defaults that were neither set nor removed. */
    PropertyMap withDefaults(const PropertyList& defaults) const;

private:
    Layout m_layout;
    PropertyMap m_properties{};
    std::set<std::uint16_t> m_removed{};
};

/** A property context. Values over 3580 bytes go to subnodes. */
NodeContent propertyContext(Layout layout, const PropertyMap& properties, std::size_t bthItemBytes = HeapBuilder::kMaxItem);

struct Column {
    std::uint16_t id;
    std::uint16_t type;  ///< kString becomes kString8 in an ANSI store
};

struct TableRow {
    std::uint32_t id;
    PropertyMap cells{};  ///< cells of columns that the table lacks are left out
};

struct TableOptions {
    enum class Matrix { WhereItFits, Subnode };
    Matrix matrix = Matrix::WhereItFits;
    std::size_t bthItemBytes = HeapBuilder::kMaxItem;
    std::size_t rowIndexWidth = 0;  ///< 2 or 4; 0: as the layout wants it
};

/** A table context. The columns PidTagLtpRowId and PidTagLtpRowVer are added by themselves. */
NodeContent tableContext(Layout layout, std::vector<Column> columns, const std::vector<TableRow>& rows,
                         const TableOptions& options = {});

}  // namespace builder
