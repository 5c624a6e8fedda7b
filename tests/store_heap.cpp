#include "store_heap.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace builder {
namespace {

constexpr std::uint8_t kHeapSignature = 0xEC;
constexpr std::uint8_t kBthSignature = 0xB5;
constexpr std::size_t kMaxItemsPerPage = 2047;
constexpr std::uint16_t kRowId = 0x67F2;
constexpr std::uint16_t kRowVersion = 0x67F3;
constexpr NodeId kFirstValueNode = 0x801F;  // NID_TYPE_LTP

/** Page 8 and every 128th behind it carry the fill levels of the pages that follow. */
bool hasFillLevels(std::size_t page) {
    return page >= 8 && (page - 8) % 128 == 0;
}

std::size_t pageHeaderSize(std::size_t page) {
    return page == 0 ? 12 : hasFillLevels(page) ? 66 : 2;
}

/** The four-bit code of [MS-PST] 2.3.1.2 for the free bytes of a page. */
unsigned fillLevel(std::size_t freeBytes) {
    constexpr std::size_t limits[] = {3584, 2560, 2048, 1792, 1536, 1280, 1024, 768, 512, 256, 128, 64, 32, 16, 8};
    unsigned level = 0;
    for (const std::size_t limit : limits) {
        level += freeBytes < limit ? 1U : 0U;
    }
    return level;
}

std::u16string fromUtf8(std::string_view text) {
    std::u16string result;
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        std::uint32_t code = length == 1 ? lead : lead & (0x7FU >> length);
        for (std::size_t k = 1; k < length; ++k) {
            code = code << 6 | (static_cast<unsigned char>(text.at(i + k)) & 0x3FU);
        }
        if (code > 0xFFFF) {
            result.push_back(static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10)));
            code = 0xDC00 + ((code - 0x10000) & 0x3FF);
        }
        result.push_back(static_cast<char16_t>(code));
        i += length;
    }
    return result;
}

/** Gives values the form of a HNID: a heap item while it is small enough, else a subnode. */
class ValueStore {
public:
    ValueStore(HeapBuilder& heap, NodeContent& node) : m_heap(heap), m_node(node) {}

    std::uint32_t add(const Bytes& value) {
        if (value.size() <= HeapBuilder::kMaxItem) {
            return value.empty() ? 0 : m_heap.add(value);
        }
        return addSubnode(value);
    }

    std::uint32_t addSubnode(Bytes value) {
        const NodeId id = m_next;
        m_next += 32;
        m_node.subnodes.emplace(id, NodeContent{std::move(value), {}});
        return id;
    }

private:
    HeapBuilder& m_heap;
    NodeContent& m_node;
    NodeId m_next = kFirstValueNode;
};

struct Cell {
    Column column;
    std::size_t offset;
    std::size_t size;
    std::size_t bit;
};

/** The order of a row: row id and version, cells of 4 and 8 bytes, of 2, of 1, and the bitmap of the cells that exist. */
struct RowForm {
    std::vector<Cell> cells{};
    std::size_t end4 = 8;
    std::size_t end2 = 0;
    std::size_t end1 = 0;
    std::size_t width = 0;
};

RowForm formOf(Layout layout, const std::vector<Column>& columns) {
    RowForm form;
    form.cells = {{{kRowId, kInteger32}, 0, 4, 0}, {{kRowVersion, kInteger32}, 4, 4, 1}};
    std::size_t offset = 8;
    const auto place = [&](auto fits) {
        for (Column column : columns) {
            if (column.type == kString && layout == Layout::Ansi) {
                column.type = kString8;
            }
            const std::size_t size = fixedSize(column.type) == 0 ? 4 : fixedSize(column.type);
            if (fits(size)) {
                form.cells.push_back({column, offset, size, form.cells.size()});
                offset += size;
            }
        }
        return offset;
    };
    form.end4 = place([](std::size_t size) { return size >= 4; });
    form.end2 = place([](std::size_t size) { return size == 2; });
    form.end1 = place([](std::size_t size) { return size == 1; });
    form.width = form.end1 + (form.cells.size() + 7) / 8;
    // Descriptions stand in order of the tag; the id is its upper half.
    std::sort(form.cells.begin(), form.cells.end(), [](const Cell& a, const Cell& b) { return a.column.id < b.column.id; });
    return form;
}

void writeRow(const RowForm& form, const TableRow& row, ValueStore& values, std::span<std::uint8_t> out) {
    for (const Cell& cell : form.cells) {
        std::uint64_t value = 0;
        if (cell.column.id == kRowId) {
            value = row.id;
        } else if (cell.column.id == kRowVersion) {
            value = 1;
        } else {
            const auto found = row.cells.find(cell.column.id);
            if (found == row.cells.end()) {
                continue;
            }
            const Bytes& bytes = found->second.value;
            value = fixedSize(cell.column.type) == 0 ? values.add(bytes) : getAt(bytes, 0, std::min(bytes.size(), cell.size));
        }
        putAt(out, cell.offset, value, cell.size);
        std::uint8_t& bits = out[form.end1 + cell.bit / 8];
        bits = static_cast<std::uint8_t>(bits | (0x80U >> (cell.bit % 8)));
    }
}

}  // namespace

std::size_t fixedSize(std::uint16_t type) {
    switch (type) {
        case kBoolean:
            return 1;
        case kInteger16:
            return 2;
        case kInteger32:
        case kFloating32:
        case kErrorCode:
            return 4;
        case kFloating64:
        case kInteger64:
        case kTime:
            return 8;
        default:
            return 0;
    }
}

// ---------------------------------------------------------------------------------------------------------------------- heap

HeapBuilder::HeapBuilder(Layout layout, std::uint8_t clientSignature)
    : m_pageSize(measuresOf(layout).maxContent), m_clientSignature(clientSignature) {}

std::size_t HeapBuilder::used(std::size_t page) const {
    // The map is a word array, so that it starts at an even offset.
    return (pageHeaderSize(page) + m_pages[page].items.size() + 1) / 2 * 2 + 4 + 2 * (m_pages[page].ends.size() + 1);
}

HeapId HeapBuilder::add(ByteSpan item) {
    if (item.size() > kMaxItem) {
        throw std::length_error("a heap item takes at most 3580 bytes");
    }
    if (used(m_pages.size() - 1) + item.size() + 3 > m_pageSize || m_pages.back().ends.size() == kMaxItemsPerPage) {
        m_pages.emplace_back();
    }
    Page& page = m_pages.back();
    page.items.insert(page.items.end(), item.begin(), item.end());
    page.ends.push_back(static_cast<std::uint16_t>(page.items.size()));
    return static_cast<HeapId>((m_pages.size() - 1) << 16 | page.ends.size() << 5);
}

Bytes HeapBuilder::finish() const {
    const auto putLevels = [&](Bytes& out, std::size_t first, std::size_t count) {
        for (std::size_t page = first; page < first + count; page += 2) {
            const auto level = [&](std::size_t p) { return p < m_pages.size() ? fillLevel(m_pageSize - used(p)) : 0U; };
            put(out, level(page) | level(page + 1) << 4, 1);
        }
    };
    Bytes out;
    for (std::size_t number = 0; number < m_pages.size(); ++number) {
        const Page& page = m_pages[number];
        const std::size_t start = out.size();
        const std::size_t headerSize = pageHeaderSize(number);
        put(out, (headerSize + page.items.size() + 1) / 2 * 2, 2);
        if (number == 0) {
            put(out, kHeapSignature, 1);
            put(out, m_clientSignature, 1);
            put(out, m_root, 4);
            putLevels(out, 0, 8);
        } else if (hasFillLevels(number)) {
            putLevels(out, number, 128);
        }
        out.insert(out.end(), page.items.begin(), page.items.end());
        out.resize(out.size() + (out.size() - start) % 2, 0);
        put(out, page.ends.size(), 2);
        put(out, 0, 2);  // cFree
        put(out, headerSize, 2);
        for (const std::uint16_t end : page.ends) {
            put(out, headerSize + end, 2);
        }
        if (number + 1 < m_pages.size()) {
            out.resize(start + m_pageSize, 0);
        }
    }
    return out;
}

std::size_t heapItemOffset(ByteSpan heap, HeapId id, Layout layout) {
    const std::size_t page = (id >> 16) * measuresOf(layout).maxContent;
    const std::size_t map = page + getAt(heap, page, 2);
    return page + getAt(heap, map + 4 + 2 * ((id >> 5 & 0x7FF) - 1), 2);
}

HeapId addBth(HeapBuilder& heap, std::uint8_t keySize, std::uint8_t valueSize, const std::vector<BthRecord>& records,
              std::size_t itemBytes) {
    std::vector<BthRecord> level = records;
    std::size_t width = std::size_t{keySize} + valueSize;
    std::uint8_t indexLevels = 0;
    HeapId root = 0;
    while (!level.empty()) {
        std::vector<BthRecord> parents;
        const std::size_t perItem = std::max<std::size_t>(itemBytes / width, indexLevels == 0 ? 1 : 2);
        for (std::size_t first = 0; first < level.size(); first += perItem) {
            Bytes item;
            for (const BthRecord& record : std::span(level).subspan(first, std::min(perItem, level.size() - first))) {
                put(item, record.key, keySize);
                item.insert(item.end(), record.value.begin(), record.value.end());
            }
            root = heap.add(item);
            put(parents.emplace_back(BthRecord{level[first].key, {}}).value, root, 4);
        }
        if (parents.size() == 1) {
            break;
        }
        level = std::move(parents);
        width = std::size_t{keySize} + 4;
        ++indexLevels;
    }
    Bytes header = {kBthSignature, keySize, valueSize, indexLevels};
    put(header, root, 4);
    return heap.add(header);
}

// ---------------------------------------------------------------------------------------------------------------- properties

Property textProperty(Layout layout, std::string_view utf8) {
    Property result{layout == Layout::Unicode ? kString : kString8, {}};
    const std::u16string text = fromUtf8(utf8);
    for (const char16_t unit : text) {
        put(result.value, layout == Layout::Unicode || unit < 0x100 ? unit : u'?', layout == Layout::Unicode ? 2 : 1);
    }
    return result;
}

PropertyList& PropertyList::property(std::uint16_t id, std::uint16_t type, Bytes value) {
    m_properties.insert_or_assign(id, Property{type, std::move(value)});
    return *this;
}

PropertyList& PropertyList::property(std::uint16_t id, std::uint32_t value) {
    Bytes bytes;
    put(bytes, value, 4);
    return property(id, kInteger32, std::move(bytes));
}

PropertyList& PropertyList::property(std::uint16_t id, std::uint64_t value) {
    Bytes bytes;
    put(bytes, value, 8);
    return property(id, kInteger64, std::move(bytes));
}

PropertyList& PropertyList::property(std::uint16_t id, std::string_view utf8) {
    m_properties.insert_or_assign(id, textProperty(m_layout, utf8));
    return *this;
}

PropertyList& PropertyList::time(std::uint16_t id, std::uint64_t fileTime) {
    property(id, fileTime);
    m_properties.at(id).type = kTime;
    return *this;
}

PropertyList& PropertyList::remove(std::uint16_t id) {
    m_properties.erase(id);
    m_removed.insert(id);
    return *this;
}

PropertyMap PropertyList::withDefaults(const PropertyList& defaults) const {
    PropertyMap all = m_properties;
    for (const auto& [id, property] : defaults.properties()) {
        if (!m_removed.contains(id)) {
            all.emplace(id, property);
        }
    }
    return all;
}

NodeContent propertyContext(Layout layout, const PropertyMap& properties, std::size_t bthItemBytes) {
    NodeContent node;
    HeapBuilder heap(layout, HeapBuilder::kPropertyContext);
    ValueStore values(heap, node);
    std::vector<BthRecord> records;
    for (const auto& [id, property] : properties) {
        const std::size_t size = fixedSize(property.type);
        const bool isInline = size != 0 && size <= 4;
        BthRecord& record = records.emplace_back(BthRecord{id, {}});
        put(record.value, property.type, 2);
        put(record.value, isInline ? getAt(property.value, 0, property.value.size()) : values.add(property.value), 4);
    }
    heap.setRoot(addBth(heap, 2, 6, records, bthItemBytes));
    node.data = heap.finish();
    return node;
}

// -------------------------------------------------------------------------------------------------------------------- tables

NodeContent tableContext(Layout layout, std::vector<Column> columns, const std::vector<TableRow>& rows,
                         const TableOptions& options) {
    NodeContent node;
    HeapBuilder heap(layout, HeapBuilder::kTableContext);
    ValueStore values(heap, node);
    const RowForm form = formOf(layout, columns);

    const bool inHeap = options.matrix == TableOptions::Matrix::WhereItFits && rows.size() * form.width <= HeapBuilder::kMaxItem;
    const std::size_t pageSize = measuresOf(layout).maxContent;
    const std::size_t rowsPerPage = pageSize / form.width;
    Bytes matrix;
    std::vector<BthRecord> index;
    const std::size_t indexWidth = options.rowIndexWidth != 0 ? options.rowIndexWidth : layout == Layout::Unicode ? 4 : 2;
    for (std::size_t number = 0; number < rows.size(); ++number) {
        // A row never crosses a block: what is left of one stays unused.
        const std::size_t start =
            inHeap ? number * form.width : number / rowsPerPage * pageSize + number % rowsPerPage * form.width;
        matrix.resize(start + form.width, 0);
        writeRow(form, rows[number], values, std::span(matrix).subspan(start, form.width));
        put(index.emplace_back(BthRecord{rows[number].id, {}}).value, number, indexWidth);
    }
    std::sort(index.begin(), index.end(), [](const BthRecord& a, const BthRecord& b) { return a.key < b.key; });

    const HeapId rowIndex = addBth(heap, 4, static_cast<std::uint8_t>(indexWidth), index, options.bthItemBytes);
    const std::uint32_t matrixId = rows.empty() ? 0 : inHeap ? heap.add(matrix) : values.addSubnode(std::move(matrix));

    Bytes info = {HeapBuilder::kTableContext, static_cast<std::uint8_t>(form.cells.size())};
    for (const std::size_t end : {form.end4, form.end2, form.end1, form.width}) {
        put(info, end, 2);
    }
    put(info, rowIndex, 4);
    put(info, matrixId, 4);
    put(info, 0, 4);  // hidIndex, no longer used
    for (const Cell& cell : form.cells) {
        put(info, cell.column.type, 2);
        put(info, cell.column.id, 2);
        put(info, cell.offset, 2);
        put(info, cell.size, 1);
        put(info, cell.bit, 1);
    }
    heap.setRoot(heap.add(info));
    node.data = heap.finish();
    return node;
}

}  // namespace builder
