#include "store_layout.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace builder {
namespace {

constexpr std::size_t kPageSize = 512;
constexpr std::size_t kSlot = 64;  // the unit of allocation, one bit of a map
constexpr std::uint64_t kDensityList = 0x4200;
constexpr std::uint64_t kFirstMap = 0x4400;
constexpr std::size_t kMapBytes = 496;
constexpr std::uint64_t kUnitSize = kMapBytes * 8 * kSlot;  // what one AMap covers, itself included
constexpr std::uint64_t kBlocksWithoutMaps = 1024;

// Page types of [MS-PST] 2.2.2.7.1. FMap, PMap and FPMap are no longer used, but their places in the file stay taken.
constexpr std::uint8_t kFMapType = 0x82;
constexpr std::uint8_t kPMapType = 0x83;
constexpr std::uint8_t kAMapType = 0x84;
constexpr std::uint8_t kFPMapType = 0x85;
constexpr std::uint8_t kDensityListType = 0x86;

constexpr std::uint8_t kInternalBit = 2;
constexpr std::uint16_t kReferenceCount = 2;  // one for the block's own entry, one for its user
constexpr std::size_t kNodeTypes = 32;

constexpr Measures kAnsi = {4, 12, 12, 496, 8180, 1019, 512};
constexpr Measures kUnicode = {8, 16, 16, 488, 8176, 1021, 568};

/** The map pages that stand at the start of an allocation unit, in their order. */
std::vector<std::uint8_t> mapPagesOf(std::uint64_t unit, Layout layout) {
    std::vector<std::uint8_t> types = {kAMapType};
    if (unit % 8 == 0) {
        types.push_back(kPMapType);
    }
    // The header itself covers the first 128 AMaps, a page 496 more.
    if (unit >= 128 && (unit - 128) % 496 == 0) {
        types.push_back(kFMapType);
    }
    // The header covers the first 1024 PMaps of 8 units each, which is more than an ANSI file can have.
    constexpr std::uint64_t firstUnit = 1024 * 8;
    constexpr std::uint64_t unitsPerPage = 496 * 8 * 8;
    if (layout == Layout::Unicode && unit >= firstUnit && (unit - firstUnit) % unitsPerPage == 0) {
        types.push_back(kFPMapType);
    }
    return types;
}

std::uint64_t roundUp(std::uint64_t value, std::uint64_t step) {
    return (value + step - 1) / step * step;
}

std::string hex(std::uint64_t value) {
    std::string digits;
    do {
        digits.insert(digits.begin(), "0123456789ABCDEF"[value & 15]);
        value >>= 4;
    } while (value != 0);
    return "0x" + digits;
}

}  // namespace

void put(Bytes& out, std::uint64_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) {
        out.push_back(static_cast<std::uint8_t>(value));
        value >>= 8;
    }
}

void putAt(std::span<std::uint8_t> out, std::size_t offset, std::uint64_t value, std::size_t width) {
    for (std::uint8_t& byte : out.subspan(offset, width)) {
        byte = static_cast<std::uint8_t>(value);
        value >>= 8;
    }
}

std::uint64_t getAt(ByteSpan bytes, std::size_t offset, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = width; i > 0; --i) {
        value = value << 8 | bytes[offset + i - 1];
    }
    return value;
}

const Measures& measuresOf(Layout layout) {
    return layout == Layout::Ansi ? kAnsi : kUnicode;
}

StoreWriter::StoreWriter(const LayoutOptions& options, Sink sink)
    : m_options(options),
      m_measures(measuresOf(options.layout)),
      m_sink(std::move(sink)),
      m_cursor(options.allocationMaps == AllocationMaps::None ? kBlocksWithoutMaps : kFirstMap) {}

std::string StoreWriter::nodeName(NodeId id) {
    return "node " + hex(id);
}

void StoreWriter::note(const std::string& name, const Place& place) {
    if (m_options.recordPlaces) {
        m_places.insert_or_assign(name, place);
    }
}

// ---------------------------------------------------------------------------------------------------------------- allocation

std::uint64_t StoreWriter::allocate(std::size_t size, std::size_t alignment) {
    if (m_options.allocationMaps == AllocationMaps::None) {
        const std::uint64_t address = roundUp(m_cursor, alignment);
        m_cursor = address + size;
        return address;
    }
    for (;;) {
        const std::uint64_t unit = (m_cursor - kFirstMap) / kUnitSize;
        const std::uint64_t start = kFirstMap + unit * kUnitSize;
        const std::uint64_t usable = start + mapPagesOf(unit, m_options.layout).size() * kPageSize;
        const std::uint64_t address = roundUp(std::max(m_cursor, usable), alignment);
        if (address + size <= start + kUnitSize) {
            m_cursor = address + size;
            markAllocated(address, size);
            return address;
        }
        m_cursor = start + kUnitSize;
    }
}

void StoreWriter::markAllocated(std::uint64_t address, std::size_t size) {
    const std::size_t unit = static_cast<std::size_t>((address - kFirstMap) / kUnitSize);
    const std::size_t first = static_cast<std::size_t>((address - kFirstMap) % kUnitSize) / kSlot;
    if (unit >= m_allocated.size()) {
        m_allocated.resize(unit + 1);
    }
    for (std::size_t slot = first; slot < first + size / kSlot; ++slot) {
        std::uint8_t& byte = m_allocated[unit][slot / 8];
        byte = static_cast<std::uint8_t>(byte | (0x80U >> (slot % 8)));
    }
}

void StoreWriter::skipTo(std::uint64_t offset) {
    m_cursor = std::max(m_cursor, offset);
}

// -------------------------------------------------------------------------------------------------------------------- blocks

BlockId StoreWriter::addBlock(ByteSpan content, Place::Kind kind) {
    const std::size_t size = roundUp(content.size() + m_measures.blockTrailer, kSlot);
    if (size > 8192) {
        throw std::length_error("a block takes at most 8192 bytes");
    }
    const BlockId id = m_nextBlock | (kind == Place::Kind::InternalBlock ? kInternalBit : 0);
    m_nextBlock += 4;
    const std::uint64_t address = allocate(size, kSlot);

    m_scratch.assign(size, 0);
    const std::span<std::uint8_t> stored = std::span(m_scratch).first(content.size());
    std::copy(content.begin(), content.end(), stored.begin());
    if (kind == Place::Kind::ExternalBlock) {
        encode(stored, m_options.encoding, id);
    }
    const std::size_t trailer = size - m_measures.blockTrailer;
    const bool unicode = m_options.layout == Layout::Unicode;
    putAt(m_scratch, trailer, content.size(), 2);
    putAt(m_scratch, trailer + 2, signatureOf(id, address), 2);
    putAt(m_scratch, trailer + (unicode ? 4 : 8), crcOf(stored), 4);
    putAt(m_scratch, trailer + (unicode ? 8 : 4), id, m_measures.idWidth);
    m_sink(address, m_scratch);

    m_blocks.push_back({id, address, static_cast<std::uint16_t>(content.size())});
    if (m_options.recordPlaces) {
        note("block " + hex(id), {kind, address, content.size(), id});
    }
    return id;
}

BlockId StoreWriter::addExternalBlock(ByteSpan content) {
    return addBlock(content, Place::Kind::ExternalBlock);
}

BlockId StoreWriter::addInternalBlock(ByteSpan content) {
    return addBlock(content, Place::Kind::InternalBlock);
}

BlockId StoreWriter::addExtendedBlock(std::uint8_t level, const std::vector<BlockId>& children, std::uint32_t totalBytes) {
    Bytes content = {1, level};
    put(content, children.size(), 2);
    put(content, totalBytes, 4);
    for (const BlockId child : children) {
        put(content, child, m_measures.idWidth);
    }
    return addInternalBlock(content);
}

BlockId StoreWriter::addDataTree(ByteSpan data, const std::string& name) {
    if (data.empty()) {
        return 0;
    }
    const auto noteAs = [&](const std::string& role, BlockId id) {
        if (m_options.recordPlaces) {
            note(role + " of " + name, m_places.at("block " + hex(id)));
        }
    };
    std::vector<BlockId> blocks;
    for (std::size_t offset = 0; offset < data.size(); offset += m_measures.maxContent) {
        blocks.push_back(addExternalBlock(data.subspan(offset, std::min(m_measures.maxContent, data.size() - offset))));
        noteAs("block " + std::to_string(blocks.size() - 1), blocks.back());
    }
    noteAs("block", blocks.front());
    if (blocks.size() == 1) {
        return blocks.front();
    }

    // All but the last extended block are full, so that a reader can work out the child of an offset.
    std::vector<BlockId> extended;
    for (std::size_t first = 0; first < blocks.size(); first += m_measures.blocksPerXblock) {
        const std::size_t count = std::min(m_measures.blocksPerXblock, blocks.size() - first);
        const auto begin = blocks.begin() + static_cast<std::ptrdiff_t>(first);
        const std::size_t start = first * m_measures.maxContent;
        const std::size_t bytes = std::min(count * m_measures.maxContent, data.size() - start);
        extended.push_back(
            addExtendedBlock(1, {begin, begin + static_cast<std::ptrdiff_t>(count)}, static_cast<std::uint32_t>(bytes)));
        noteAs("extended block " + std::to_string(extended.size() - 1), extended.back());
    }
    const BlockId top =
        extended.size() == 1 ? extended.front() : addExtendedBlock(2, extended, static_cast<std::uint32_t>(data.size()));
    noteAs("extended block", top);
    return top;
}

BlockId StoreWriter::addSubnodeTree(const std::vector<SubnodeEntry>& entries, const std::string& name) {
    if (entries.empty()) {
        return 0;
    }
    const std::size_t width = m_measures.idWidth;
    const std::size_t start = width == 8 ? 8 : 4;  // ANSI blocks have no padding behind the count
    const auto header = [&](std::uint8_t level, std::size_t count) {
        Bytes content = {2, level};
        put(content, count, 2);
        content.resize(start, 0);
        return content;
    };
    std::size_t perBlock = (m_measures.maxContent - start) / (3 * width);
    if (m_options.subnodeEntries != 0) {
        perBlock = std::min(perBlock, m_options.subnodeEntries);
    }
    Bytes top;
    std::size_t leaves = 0;
    BlockId leaf = 0;
    for (std::size_t first = 0; first < entries.size(); first += perBlock) {
        const std::span part = std::span(entries).subspan(first, std::min(perBlock, entries.size() - first));
        Bytes content = header(0, part.size());
        for (const SubnodeEntry& entry : part) {
            put(content, entry.id, width);
            put(content, entry.data, width);
            put(content, entry.subnodes, width);
        }
        leaf = addInternalBlock(content);
        put(top, part.front().id, width);
        put(top, leaf, width);
        if (m_options.recordPlaces) {
            note("subnode leaf " + std::to_string(leaves) + " of " + name, m_places.at("block " + hex(leaf)));
        }
        ++leaves;
    }
    BlockId root = leaf;
    if (leaves > 1) {
        Bytes content = header(1, leaves);
        content.insert(content.end(), top.begin(), top.end());
        root = addInternalBlock(content);
    }
    if (m_options.recordPlaces) {
        note("subnodes of " + name, m_places.at("block " + hex(root)));
    }
    return root;
}

StoreWriter::Written StoreWriter::addContent(const NodeContent& content, const std::string& name) {
    std::vector<SubnodeEntry> entries;
    for (const auto& [id, subnode] : content.subnodes) {
        const Written written = addContent(subnode, m_options.recordPlaces ? "sub" + nodeName(id) + " of " + name : name);
        entries.push_back({id, written.data, written.subnodes});
    }
    const BlockId subnodes = addSubnodeTree(entries, name);
    return {addDataTree(content.data, name), subnodes};
}

void StoreWriter::addNode(NodeId id, Written blocks, NodeId parent) {
    if (!m_nodes.emplace(id, NodeEntry{blocks.data, blocks.subnodes, parent}).second) {
        throw std::logic_error(nodeName(id) + " is there already");
    }
}

void StoreWriter::addNode(NodeId id, const NodeContent& content, NodeId parent) {
    addNode(id, addContent(content, nodeName(id)), parent);
}

// --------------------------------------------------------------------------------------------------------------------- pages

void StoreWriter::writePage(Bytes page, std::uint8_t type, std::uint64_t id, std::uint64_t address) {
    page.resize(kPageSize, 0);
    const std::size_t trailer = kPageSize - m_measures.pageTrailer;
    const bool unicode = m_options.layout == Layout::Unicode;
    const bool isSigned = type < kFMapType || type == kDensityListType;
    page[trailer] = type;
    page[trailer + 1] = type;
    putAt(page, trailer + 2, isSigned ? signatureOf(id, address) : 0, 2);
    putAt(page, trailer + (unicode ? 4 : 8), crcOf(std::span(page).first(trailer)), 4);
    putAt(page, trailer + (unicode ? 8 : 4), id, m_measures.idWidth);
    m_sink(address, page);
}

StoreWriter::TreeRef StoreWriter::writeTreePage(TreeKind kind, std::size_t level, std::span<const Bytes> entries,
                                                std::size_t stride) {
    const TreeRef ref = {m_nextPage++, allocate(kPageSize, kPageSize)};
    Bytes page;
    for (const Bytes& entry : entries) {
        page.insert(page.end(), entry.begin(), entry.end());
    }
    page.resize(m_measures.treeEntryArea, 0);
    put(page, entries.size(), 1);
    put(page, m_measures.treeEntryArea / stride, 1);
    put(page, stride, 1);
    put(page, level, 1);
    writePage(std::move(page), static_cast<std::uint8_t>(kind), ref.id, ref.address);
    return ref;
}

StoreWriter::TreeRef StoreWriter::writeTree(TreeKind kind, const std::vector<Bytes>& leafEntries) {
    const std::string tree = kind == TreeKind::Node ? "nbt " : "bbt ";
    const std::size_t width = m_measures.idWidth;
    std::vector<Bytes> entries = leafEntries;
    for (std::size_t level = 0;; ++level) {
        const std::size_t stride = level == 0 && kind == TreeKind::Node ? 4 * width : 3 * width;
        const std::size_t capacity = m_measures.treeEntryArea / stride;
        const std::size_t perPage = m_options.pageEntries == 0 ? capacity : std::min(capacity, m_options.pageEntries);
        std::vector<Bytes> parents;
        TreeRef ref;
        std::size_t number = 0;
        for (std::size_t first = 0; number == 0 || first < entries.size(); first += perPage, ++number) {
            const std::span part = std::span(entries).subspan(first, std::min(perPage, entries.size() - first));
            ref = writeTreePage(kind, level, part, stride);
            const std::string name = level == 0 ? "leaf " : "level " + std::to_string(level) + " page ";
            note(tree + name + std::to_string(number), {Place::Kind::Page, ref.address, kPageSize, ref.id});
            Bytes parent;
            put(parent, part.empty() ? 0 : getAt(part.front(), 0, width), width);
            put(parent, ref.id, width);
            put(parent, ref.address, width);
            parents.push_back(std::move(parent));
        }
        if (number == 1) {
            note(tree + "root", {Place::Kind::Page, ref.address, kPageSize, ref.id});
            return ref;
        }
        entries = std::move(parents);
    }
}

void StoreWriter::writeAllocationMaps(std::uint64_t fileSize) {
    const std::uint64_t units = (fileSize - kFirstMap) / kUnitSize;
    const std::size_t padding = m_options.layout == Layout::Ansi ? 4 : 0;
    for (std::uint64_t unit = 0; unit < units; ++unit) {
        std::uint64_t address = kFirstMap + unit * kUnitSize;
        const std::vector<std::uint8_t> types = mapPagesOf(unit, m_options.layout);
        const bool used = unit < m_allocated.size() && m_allocated[static_cast<std::size_t>(unit)] != Map{};
        if (!used && m_options.allocationMaps == AllocationMaps::UsedUnits) {
            continue;
        }
        markAllocated(address, types.size() * kPageSize);
        for (const std::uint8_t type : types) {
            Bytes page(padding, 0);
            if (type == kAMapType) {
                const auto& map = m_allocated[static_cast<std::size_t>(unit)];
                page.insert(page.end(), map.begin(), map.end());
                for (const std::uint8_t byte : map) {
                    m_freeBytes += static_cast<std::uint64_t>(8 - __builtin_popcount(byte)) * kSlot;
                }
                note("amap " + std::to_string(unit), {Place::Kind::Page, address, kPageSize, address});
            } else {
                page.resize(padding + kMapBytes, 0xFF);
            }
            writePage(std::move(page), type, address, address);
            address += kPageSize;
        }
    }
    writePage({}, kDensityListType, m_nextPage++, kDensityList);
}

void StoreWriter::writeHeader(std::uint64_t fileSize, TreeRef nodeTree, TreeRef blockTree) {
    const bool unicode = m_options.layout == Layout::Unicode;
    const std::size_t width = m_measures.idWidth;
    Bytes header = {'!', 'B', 'D', 'N', 0, 0, 0, 0, 'S', 'M'};
    put(header, unicode ? 23 : 14, 2);  // wVer
    put(header, 19, 2);                 // wVerClient
    header.insert(header.end(), {1, 1});
    put(header, 0, unicode ? 16 : 8);  // reserved, and bidUnused
    if (!unicode) {
        put(header, m_nextBlock, 4);
    }
    put(header, m_nextPage, width);
    put(header, 1, 4);  // dwUnique
    for (std::size_t type = 0; type < kNodeTypes; ++type) {
        std::uint32_t next = type == 3 ? 0x4000 : type == 4 ? 0x10000 : type == 8 ? 0x8000 : 0x400;
        for (const auto& [id, entry] : m_nodes) {
            next = (id & 31) == type ? std::max(next, (id >> 5) + 1) : next;
        }
        put(header, next, 4);
    }
    if (unicode) {
        put(header, 0, 8);  // qwUnused
    }
    put(header, 0, 4);  // the root record begins
    put(header, fileSize, width);
    put(header, m_options.allocationMaps == AllocationMaps::None ? 0 : fileSize - kUnitSize, width);
    put(header, m_freeBytes, width);
    put(header, 0, width);
    for (const TreeRef& ref : {nodeTree, blockTree}) {
        put(header, ref.id, width);
        put(header, ref.address, width);
    }
    put(header, m_options.allocationMaps == AllocationMaps::Complete ? 2 : 0, 4);  // fAMapValid, reserved
    put(header, 0, unicode ? 4 : 0);
    header.insert(header.end(), 256, 0xFF);  // rgbFM, rgbFP
    header.insert(header.end(), {0x80, static_cast<std::uint8_t>(m_options.encoding), 0, 0});
    if (unicode) {
        put(header, m_nextBlock, 8);
    }
    header.resize(m_measures.headerSize, 0);
    putAt(header, 4, crcOf(std::span(header).subspan(8, 471)), 4);
    if (unicode) {
        putAt(header, 524, crcOf(std::span(header).subspan(8, 516)), 4);
    }
    m_sink(0, header);
    note("header", {Place::Kind::Header, 0, header.size(), 0});
}

std::uint64_t StoreWriter::finish() {
    const std::size_t width = m_measures.idWidth;
    std::vector<Bytes> nodeEntries;
    nodeEntries.reserve(m_nodes.size());
    for (const auto& [id, node] : m_nodes) {
        Bytes& entry = nodeEntries.emplace_back();
        put(entry, id, width);
        put(entry, node.data, width);
        put(entry, node.subnodes, width);
        put(entry, node.parent, width);  // in Unicode four bytes and padding
    }
    std::vector<Bytes> blockEntries;
    blockEntries.reserve(m_blocks.size());
    for (const BlockEntry& block : m_blocks) {
        Bytes& entry = blockEntries.emplace_back();
        put(entry, block.id, width);
        put(entry, block.address, width);
        put(entry, block.size, 2);
        put(entry, kReferenceCount, width == 8 ? 6 : 2);
    }
    const TreeRef nodeTree = writeTree(TreeKind::Node, nodeEntries);
    const TreeRef blockTree = writeTree(TreeKind::Block, blockEntries);

    std::uint64_t fileSize = roundUp(m_cursor, kPageSize);
    if (m_options.allocationMaps != AllocationMaps::None) {
        fileSize = kFirstMap + roundUp(m_cursor - kFirstMap, kUnitSize);
    }
    if (m_options.layout == Layout::Ansi && fileSize > UINT32_MAX) {
        throw std::length_error("an ANSI store has 32-bit offsets");
    }
    if (fileSize > m_cursor) {
        m_sink(fileSize - 1, Bytes{0});
    }
    if (m_options.allocationMaps != AllocationMaps::None) {
        writeAllocationMaps(fileSize);
    }
    writeHeader(fileSize, nodeTree, blockTree);
    return fileSize;
}

// -------------------------------------------------------------------------------------------------------------------- damage

StoreImage::StoreImage(LayoutOptions options, Bytes bytes, Places places, Aliases aliases)
    : m_options(options), m_bytes(std::move(bytes)), m_places(std::move(places)), m_aliases(std::move(aliases)) {}

Place StoreImage::place(const std::string& name) const {
    constexpr std::string_view trailerOf = "trailer of ";
    const bool trailer = name.starts_with(trailerOf);
    std::string plain = trailer ? name.substr(trailerOf.size()) : name;
    for (const auto& [alias, node] : m_aliases) {
        if (plain.ends_with(alias)) {
            plain = (plain == alias ? "block of " : plain.substr(0, plain.size() - alias.size())) + node;
            break;
        }
    }
    const auto found = m_places.find(plain);
    if (found == m_places.end()) {
        throw std::out_of_range("the store has no " + name);
    }
    if (!trailer) {
        return found->second;
    }
    const Measures& measures = measuresOf(m_options.layout);
    const Place& whole = found->second;
    const bool page = whole.kind == Place::Kind::Page;
    const std::size_t size = page ? measures.pageTrailer : measures.blockTrailer;
    const std::size_t stored = page ? kPageSize : static_cast<std::size_t>(roundUp(whole.size + size, kSlot));
    return {Place::Kind::Raw, whole.address + stored - size, size, whole.id};
}

Bytes StoreImage::content(const std::string& name) const {
    const Place where = place(name);
    const ByteSpan stored = std::span(m_bytes).subspan(static_cast<std::size_t>(where.address), where.size);
    Bytes result(stored.begin(), stored.end());
    if (where.kind == Place::Kind::ExternalBlock) {
        decode(result, m_options.encoding, where.id);
    }
    return result;
}

StoreImage& StoreImage::damage(const std::string& name, std::size_t offset, ByteSpan replacement, Crc crc) {
    const Place where = place(name);
    Bytes changed = content(name);
    if (offset > changed.size() || replacement.size() > changed.size() - offset) {
        throw std::out_of_range(name + " is too short for this damage");
    }
    std::copy(replacement.begin(), replacement.end(), changed.begin() + static_cast<std::ptrdiff_t>(offset));
    if (where.kind == Place::Kind::ExternalBlock) {
        encode(changed, m_options.encoding, where.id);
    }
    std::copy(changed.begin(), changed.end(), m_bytes.begin() + static_cast<std::ptrdiff_t>(where.address));
    if (crc == Crc::Mend) {
        mendCrc(where);
    }
    return *this;
}

StoreImage& StoreImage::damage(const std::string& name, std::size_t offset, std::initializer_list<std::uint8_t> replacement,
                               Crc crc) {
    return damage(name, offset, ByteSpan(replacement.begin(), replacement.size()), crc);
}

StoreImage& StoreImage::damageNumber(const std::string& name, std::size_t offset, std::uint64_t value, std::size_t width,
                                     Crc crc) {
    Bytes number;
    put(number, value, width);
    return damage(name, offset, number, crc);
}

void StoreImage::mendCrc(const Place& place) {
    const Measures& measures = measuresOf(m_options.layout);
    const bool unicode = m_options.layout == Layout::Unicode;
    const std::span<std::uint8_t> from = std::span(m_bytes).subspan(static_cast<std::size_t>(place.address));
    switch (place.kind) {
        case Place::Kind::Header:
            putAt(from, 4, crcOf(from.subspan(8, 471)), 4);
            if (unicode) {
                putAt(from, 524, crcOf(from.subspan(8, 516)), 4);
            }
            break;
        case Place::Kind::Page: {
            const std::size_t trailer = kPageSize - measures.pageTrailer;
            putAt(from, trailer + (unicode ? 4 : 8), crcOf(from.first(trailer)), 4);
            break;
        }
        case Place::Kind::InternalBlock:
        case Place::Kind::ExternalBlock: {
            const auto end = static_cast<std::size_t>(roundUp(place.size + measures.blockTrailer, kSlot));
            putAt(from, end - measures.blockTrailer + (unicode ? 4 : 8), crcOf(from.first(place.size)), 4);
            break;
        }
        case Place::Kind::Raw:
            break;
    }
}

StoreImage& StoreImage::overwrite(std::size_t offset, std::uint64_t value, std::size_t width) {
    putAt(m_bytes, offset, value, width);
    return *this;
}

StoreImage& StoreImage::resize(std::size_t size) {
    m_bytes.resize(size, 0);
    return *this;
}

void StoreImage::write(const std::string& path) const {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(m_bytes.data()), static_cast<std::streamsize>(m_bytes.size()));
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path);
    }
}

}  // namespace builder
