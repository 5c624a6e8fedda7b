#include "store_builder.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace builder {
namespace {

// Node ids that every store has ([MS-PST] 2.4.1).
constexpr NodeId kMessageStore = 0x21;
constexpr NodeId kNameToIdMap = 0x61;
constexpr NodeId kRootFolder = 0x122;
constexpr NodeId kSearchManagementQueue = 0x1E1;
constexpr NodeId kSearchActivityList = 0x201;
constexpr NodeId kSearchDomainObject = 0x261;
constexpr NodeId kSpamSearchFolder = 0x2223;
constexpr NodeId kTopFolder = 0x8022;
constexpr NodeId kSearchRoot = 0x8042;
constexpr NodeId kDeletedItems = 0x8062;

constexpr NodeId kHierarchyTemplate = 0x60D;
constexpr NodeId kContentsTemplate = 0x60E;
constexpr NodeId kAssociatedTemplate = 0x60F;
constexpr NodeId kSearchContentsTemplate = 0x610;
constexpr NodeId kAttachmentTable = 0x671;
constexpr NodeId kRecipientTable = 0x692;

constexpr NodeId kTypeMask = 31;
constexpr NodeId kHierarchyType = 0x0D;
constexpr NodeId kContentsType = 0x0E;
constexpr NodeId kAssociatedType = 0x0F;
constexpr NodeId kFirstAttachment = 0x8025;
constexpr NodeId kEmbeddedMessage = 0x8004;
constexpr NodeId kIdStep = 32;

constexpr std::uint32_t kRead = 1;
constexpr std::uint32_t kHasAttachments = 16;

constexpr std::uint64_t kCreated = 0x01D321C5D1711780;

const std::vector<Column> kHierarchyColumns = {
    {0x0E30, kBinary}, {0x0E33, kInteger64}, {0x0E34, kBinary},    {0x0E38, kInteger32},
    {0x3001, kString}, {0x3602, kInteger32}, {0x3603, kInteger32}, {0x360A, kBoolean},
    {0x3613, kString}, {0x6635, kInteger32}, {0x6636, kInteger32},
};
const std::vector<Column> kContentsColumns = {
    {0x0017, kInteger32}, {0x001A, kString},  {0x0036, kInteger32}, {0x0037, kString},    {0x0039, kTime},
    {0x0042, kString},    {0x0057, kBoolean}, {0x0058, kBoolean},   {0x0070, kString},    {0x0071, kBinary},
    {0x0E03, kString},    {0x0E04, kString},  {0x0E06, kTime},      {0x0E07, kInteger32}, {0x0E08, kInteger32},
    {0x0E17, kInteger32}, {0x0E30, kBinary},  {0x0E33, kInteger64}, {0x0E34, kBinary},    {0x0E38, kInteger32},
    {0x0E3C, kBinary},    {0x0E3D, kBinary},  {0x1097, kInteger32}, {0x3008, kTime},      {0x65C6, kInteger32},
};
const std::vector<Column> kAssociatedColumns = {
    {0x001A, kString},
    {0x0E07, kInteger32},
    {0x0E17, kInteger32},
    {0x3001, kString},
    {0x6800, kString},
    {0x6803, kBoolean},
    {0x6805, kMultipleInteger32},
    {0x682F, kString},
    {0x7003, kInteger32},
    {0x7004, kBinary},
    {0x7005, kBinary},
    {0x7006, kString},
    {0x7007, kInteger32},
};
const std::vector<Column> kSearchContentsColumns = {
    {0x0017, kInteger32}, {0x001A, kString},    {0x0036, kInteger32}, {0x0037, kString},    {0x0042, kString},
    {0x0057, kBoolean},   {0x0058, kBoolean},   {0x0E03, kString},    {0x0E04, kString},    {0x0E05, kString},
    {0x0E06, kTime},      {0x0E07, kInteger32}, {0x0E08, kInteger32}, {0x0E17, kInteger32}, {0x0E2A, kBoolean},
    {0x3008, kTime},      {0x67F1, kInteger32},
};
const std::vector<Column> kAttachmentColumns = {
    {0x0E20, kInteger32},
    {0x3704, kString},
    {0x3705, kInteger32},
    {0x370B, kInteger32},
};
const std::vector<Column> kRecipientColumns = {
    {0x0C15, kInteger32}, {0x0E0F, kBoolean}, {0x0FF9, kBinary}, {0x0FFE, kInteger32}, {0x0FFF, kBinary}, {0x3001, kString},
    {0x3002, kString},    {0x3003, kString},  {0x300B, kBinary}, {0x3900, kInteger32}, {0x39FF, kString}, {0x3A40, kBoolean},
};

/** A key of 16 bytes that differs from node to node. */
Bytes keyOf(NodeId id) {
    Bytes key = {0x54, 0x45, 0x52, 0x4E, 0x4B, 0x49, 0x54, 0x20, 0x4D, 0x41, 0x49, 0x4C};
    put(key, id, 4);
    return key;
}

/** An entry id of [MS-PST] 2.4.3.2: flags, the store's record key, the node. */
Bytes entryIdOf(NodeId id) {
    Bytes entry(4, 0);
    const Bytes store = keyOf(kMessageStore);
    entry.insert(entry.end(), store.begin(), store.end());
    put(entry, id, 4);
    return entry;
}

std::uint32_t sizeOf(const PropertyMap& properties) {
    std::size_t total = 0;
    for (const auto& [id, property] : properties) {
        total += property.value.size();
    }
    return static_cast<std::uint32_t>(total);
}

NodeId tableOf(NodeId folder, NodeId type) {
    return (folder & ~kTypeMask) | type;
}

}  // namespace

// --------------------------------------------------------------------------------------------------------------- attachments

Attachment::Attachment(Layout layout, const AttachmentFields& fields, NodeId id) : PropertyList(layout), m_id(id) {
    property(0x0E21, (id - kFirstAttachment) / kIdStep);
    property(0x3705, 1U);           // by value
    property(0x370B, 0xFFFFFFFFU);  // not rendered in the body
    property(0x3714, fields.contentId ? 4U : 0U);
    time(0x3007, kCreated).time(0x3008, kCreated);
    const std::pair<std::uint16_t, const std::optional<std::string>&> texts[] = {
        {0x3704, fields.name}, {0x3707, fields.longName}, {0x3712, fields.contentId}, {0x370E, fields.mimeTag}};
    for (const auto& [tag, text] : texts) {
        if (text) {
            property(tag, *text);
        }
    }
    if (fields.data) {
        property(0x3701, *fields.data);
    }
}

Message& Attachment::embed(const MessageFields& fields) {
    m_embedded = std::make_shared<Message>(layout(), fields, kEmbeddedMessage);
    property(0x3705, 5U);
    return *m_embedded;
}

PropertyMap Attachment::allProperties() const {
    PropertyList computed(layout());
    computed.property(0x0E20, sizeOf(properties()));
    return withDefaults(computed);
}

NodeContent Attachment::content() const {
    PropertyMap all = allProperties();
    if (m_embedded == nullptr) {
        return propertyContext(layout(), all);
    }
    Bytes object;
    put(object, kEmbeddedMessage, 4);
    put(object, sizeOf(m_embedded->properties()), 4);
    all.insert_or_assign(0x3701, Property{kObject, object});
    NodeContent node = propertyContext(layout(), all);
    node.subnodes.emplace(kEmbeddedMessage, m_embedded->content());
    return node;
}

// ------------------------------------------------------------------------------------------------------------------ messages

Message::Message(Layout layout, const MessageFields& fields, NodeId id) : PropertyList(layout), m_id(id) {
    property(0x001A, fields.messageClass).property(0x0036, 0U).property(0x0E17, 0U);
    property(0x0042, fields.senderName).property(0x0C1A, fields.senderName);
    property(0x0C1E, "SMTP").property(0x0C1F, fields.senderAddress);
    property(0x0E02, fields.bcc).property(0x0E03, fields.cc).property(0x0E04, fields.to);
    time(0x3007, kCreated).time(0x3008, kCreated).property(0x300B, keyOf(id));
    if (fields.subject) {
        const std::string prefix = fields.subjectPrefix.value_or("");
        const std::string marker = {'\x01', static_cast<char>(prefix.size() + 1)};
        property(0x0037, (fields.subjectPrefix ? marker : "") + prefix + *fields.subject).property(0x0070, *fields.subject);
    }
    if (fields.submitTime) {
        time(0x0039, *fields.submitTime).time(0x0E06, *fields.submitTime);
    }
    if (fields.importance) {
        property(0x0017, *fields.importance);
    }
    if (fields.plainBody) {
        property(0x1000, *fields.plainBody);
    }
    if (fields.htmlBody) {
        property(0x1013, Bytes(fields.htmlBody->begin(), fields.htmlBody->end())).property(0x3FDE, 65001U);
    }
    if (fields.rtfCompressed) {
        property(0x1009, *fields.rtfCompressed).property(0x0E1F, true);
    }
    addRecipients(fields.to, 1);
    addRecipients(fields.cc, 2);
    addRecipients(fields.bcc, 3);
}

void Message::addRecipients(const std::string& names, std::uint32_t type) {
    for (std::size_t start = 0; start < names.size();) {
        const std::size_t end = std::min(names.find(';', start), names.size());
        std::string name = names.substr(start, end - start);
        name.erase(0, name.find_first_not_of(' '));
        PropertyList cells(layout());
        cells.property(0x0C15, type).property(0x0E0F, true).property(0x0FFE, 6U).property(0x3001, name).property(0x39FF, name);
        cells.property(0x3002, "SMTP").property(0x3003, name + "@example.com").property(0x3900, 0U).property(0x3A40, true);
        m_recipients.push_back({static_cast<std::uint32_t>(m_recipients.size() + 1), cells.properties()});
        start = end + 1;
    }
}

Attachment& Message::attach(const AttachmentFields& fields) {
    const auto number = static_cast<NodeId>(m_attachments.size());
    return m_attachments.emplace_back(layout(), fields, kFirstAttachment + number * kIdStep);
}

/** What the test has set, and size and flags where it has set none. */
PropertyMap Message::allProperties() const {
    PropertyList computed(layout());
    computed.property(0x0E07, kRead | (m_attachments.empty() ? 0 : kHasAttachments)).property(0x0E08, sizeOf(properties()));
    return withDefaults(computed);
}

NodeContent Message::content() const {
    NodeContent node = propertyContext(layout(), allProperties());
    node.subnodes.emplace(kRecipientTable, tableContext(layout(), kRecipientColumns, m_recipients));
    if (m_attachments.empty()) {
        return node;
    }
    std::vector<TableRow> rows;
    for (const Attachment& attachment : m_attachments) {
        rows.push_back({attachment.id(), attachment.allProperties()});
        node.subnodes.emplace(attachment.id(), attachment.content());
    }
    node.subnodes.emplace(kAttachmentTable, tableContext(layout(), kAttachmentColumns, rows));
    return node;
}

TableRow Message::row() const {
    TableRow result{m_id, {}};
    const PropertyMap all = allProperties();
    for (const Column& column : kContentsColumns) {
        if (const auto found = all.find(column.id); found != all.end()) {
            result.cells.insert(*found);
        }
    }
    return result;
}

// ------------------------------------------------------------------------------------------------------------------- folders

Folder::Folder(StoreBuilder& store, const std::string& name, NodeId id, NodeId parent)
    : PropertyList(store.options().layout), m_store(store), m_name(name), m_id(id), m_parent(parent) {
    property(0x3001, name);
}

Folder& Folder::addFolder(const std::string& name, NodeId id) {
    Folder& child = m_store.m_folders.emplace_back(m_store, name, id == 0 ? m_store.nextFolderId() : id, m_id);
    m_children.push_back(&child);
    child.property(0x3613, "IPF.Note");
    return child;
}

Message& Folder::addMessage(const MessageFields& fields) {
    return m_messages.emplace_back(layout(), fields, m_store.takeMessageIds(1));
}

Folder& Folder::addMessages(std::size_t count, std::function<MessageFields(std::size_t)> make) {
    m_generated.push_back({m_store.takeMessageIds(count), count, std::move(make)});
    return *this;
}

Folder& Folder::addSharingMessages(std::size_t count, const std::string& html) {
    const NodeId first = m_store.takeMessageIds(count);
    for (std::size_t number = 0; number < count; ++number) {
        addBareRow(static_cast<std::uint32_t>(first + kIdStep * number));
    }
    const Layout layout = m_store.options().layout;
    PropertyList list(layout);
    list.property(0x0037, "Shared").property(0x1013, Bytes(html.begin(), html.end()));
    m_store.beforeTrees([=, parent = m_id, bag = propertyContext(layout, list.properties())](StoreWriter& writer) {
        const auto& [subnode, body] = *bag.subnodes.begin();
        const BlockId shared = writer.addDataTree(body.data, "shared body");
        const BlockId heap = writer.addDataTree(bag.data, "shared heap");
        for (std::size_t number = 0; number < count; ++number) {
            const BlockId subnodes = writer.addSubnodeTree({{subnode, shared, 0}}, "subnodes");
            writer.addNode(static_cast<NodeId>(first + kIdStep * number), {heap, subnodes}, parent);
        }
    });
    return *this;
}

Folder& Folder::addBareRow(std::uint32_t rowId) {
    m_bareRows.push_back(rowId);
    return *this;
}

Folder& Folder::omitContentsTable() {
    m_hasContentsTable = false;
    return *this;
}

std::size_t Folder::messageCount() const {
    std::size_t count = m_messages.size() + m_bareRows.size();
    for (const Generated& generated : m_generated) {
        count += generated.count;
    }
    return count;
}

// --------------------------------------------------------------------------------------------------------------------- store

StoreBuilder::StoreBuilder(const LayoutOptions& options) : m_options(options) {
    m_root = &m_folders.emplace_back(*this, "", kRootFolder, kRootFolder);
    m_top = &m_root->addFolder("Top of Personal Folders", kTopFolder);
    m_root->addFolder("Search Root", kSearchRoot);
    m_deletedItems = &m_top->addFolder("Deleted Items", kDeletedItems);
}

StoreBuilder::StoreBuilder(Layout layout, Encoding encoding) : StoreBuilder(LayoutOptions{layout, encoding}) {}

NodeId StoreBuilder::nextFolderId() {
    const auto taken = [&](NodeId id) {
        return std::any_of(m_folders.begin(), m_folders.end(), [&](const Folder& folder) { return folder.id() == id; });
    };
    NodeId id = m_nextFolder;
    while (taken(id)) {
        id += kIdStep;
    }
    m_nextFolder = id + kIdStep;
    return id;
}

NodeId StoreBuilder::takeMessageIds(std::size_t count) {
    const NodeId first = m_nextMessage;
    m_nextMessage += static_cast<NodeId>(count) * kIdStep;
    return first;
}

StoreBuilder& StoreBuilder::addNode(NodeId id, NodeContent content, NodeId parent) {
    m_nodes.insert_or_assign(id, ExtraNode{std::move(content), parent});
    return *this;
}

StoreBuilder& StoreBuilder::placeNode(NodeId id, std::uint64_t offset) {
    m_placed.insert_or_assign(id, offset);
    return *this;
}

StoreBuilder& StoreBuilder::beforeTrees(std::function<void(StoreWriter&)> step) {
    m_steps.push_back(std::move(step));
    return *this;
}

/** One run of writing: nodes go to the writer as they are made, but for those that have a place of their own. */
class StoreBuilder::Writing {
public:
    Writing(const StoreBuilder& store, StoreWriter& writer)
        : m_store(store), m_writer(writer), m_layout(store.m_options.layout) {}

    std::uint64_t run() {
        writeStoreObjects();
        for (const Folder& folder : m_store.m_folders) {
            writeFolder(folder);
        }
        for (const auto& [id, extra] : m_store.m_nodes) {
            node(id, extra.content, extra.parent);
        }
        for (const auto& [offset, ids] : m_deferred) {
            m_writer.skipTo(offset);
            for (const auto& [id, extra] : ids) {
                m_writer.addNode(id, extra.content, extra.parent);
            }
        }
        for (const auto& step : m_store.m_steps) {
            step(m_writer);
        }
        return m_writer.finish();
    }

    Aliases aliases{};

private:
    void node(NodeId id, NodeContent content, NodeId parent = 0) {
        if (const auto placed = m_store.m_placed.find(id); placed != m_store.m_placed.end()) {
            m_deferred[placed->second].emplace(id, ExtraNode{std::move(content), parent});
        } else {
            m_writer.addNode(id, content, parent);
        }
    }

    /** A test may replace a node that the store would have anyway. */
    void standardNode(NodeId id, NodeContent content, NodeId parent = 0) {
        if (!m_store.m_nodes.contains(id)) {
            node(id, std::move(content), parent);
        }
    }

    void table(NodeId id, const std::vector<Column>& columns, const std::vector<TableRow>& rows = {}) {
        standardNode(id, tableContext(m_layout, columns, rows));
    }

    void writeStoreObjects() {
        PropertyList store(m_layout);
        store.property(0x0FF9, keyOf(kMessageStore)).property(0x3001, "Personal Folders");
        store.property(0x35DF, 0x89U);  // the subtree, the wastebasket and the search root are there
        store.property(0x35E0, entryIdOf(kTopFolder)).property(0x35E3, entryIdOf(kDeletedItems));
        store.property(0x35E7, entryIdOf(kSearchRoot)).property(0x6633, true).property(0x67FF, 0U);
        standardNode(kMessageStore, propertyContext(m_layout, store.properties()));

        PropertyList names(m_layout);
        names.property(0x0001, 251U).property(0x0002, Bytes{}).property(0x0003, Bytes{}).property(0x0004, Bytes{});
        standardNode(kNameToIdMap, propertyContext(m_layout, names.properties()));
        for (const NodeId empty : {kSearchManagementQueue, kSearchActivityList, kSearchDomainObject}) {
            standardNode(empty, {});
        }
        table(kHierarchyTemplate, kHierarchyColumns);
        table(kContentsTemplate, kContentsColumns);
        table(kAssociatedTemplate, kAssociatedColumns);
        table(kSearchContentsTemplate, kSearchContentsColumns);
        table(kAttachmentTable, kAttachmentColumns);
        table(kRecipientTable, kRecipientColumns);

        PropertyList spam(m_layout);
        spam.property(0x3001, "SPAM Search Folder 2").property(0x3602, 0U).property(0x3603, 0U).property(0x360A, false);
        standardNode(kSpamSearchFolder, propertyContext(m_layout, spam.properties()), kRootFolder);
        m_spamRow = {kSpamSearchFolder, spam.properties()};
        standardNode(tableOf(kSpamSearchFolder, 6), {});  // its queue of updates
        PropertyList criteria(m_layout);
        criteria.property(0x660B, 0U);
        standardNode(tableOf(kSpamSearchFolder, 7), propertyContext(m_layout, criteria.properties()));
        table(tableOf(kSpamSearchFolder, 0x10), kSearchContentsColumns);
    }

    PropertyMap folderProperties(const Folder& folder) {
        PropertyList computed(m_layout);
        const bool root = folder.id() == kRootFolder;
        computed.property(0x3602, static_cast<std::uint32_t>(folder.messageCount())).property(0x3603, 0U);
        computed.property(0x360A, root || !folder.m_children.empty());
        return folder.withDefaults(computed);
    }

    void writeFolder(const Folder& folder) {
        std::vector<TableRow> contents;
        const auto add = [&](const Message& message) {
            contents.push_back(message.row());
            standardNode(message.id(), message.content(), folder.id());
        };
        for (const Message& message : folder.m_messages) {
            add(message);
        }
        for (const Folder::Generated& generated : folder.m_generated) {
            for (std::size_t i = 0; i < generated.count; ++i) {
                add(Message(m_layout, generated.make(i), generated.firstId + static_cast<NodeId>(i) * kIdStep));
            }
        }
        for (const std::uint32_t id : folder.m_bareRows) {
            contents.push_back({id, {}});
        }
        std::vector<TableRow> children;
        for (const Folder* child : folder.m_children) {
            children.push_back({child->id(), folderProperties(*child)});
        }
        if (folder.id() == kRootFolder) {
            children.push_back(m_spamRow);
        }
        standardNode(folder.id(), propertyContext(m_layout, folderProperties(folder)), folder.m_parent);
        table(tableOf(folder.id(), kHierarchyType), kHierarchyColumns, children);
        if (folder.m_hasContentsTable) {
            table(tableOf(folder.id(), kContentsType), kContentsColumns, contents);
        }
        table(tableOf(folder.id(), kAssociatedType), kAssociatedColumns);

        aliases.emplace("folder " + folder.name(), StoreWriter::nodeName(folder.id()));
        aliases.emplace("hierarchy table of " + folder.name(), StoreWriter::nodeName(tableOf(folder.id(), kHierarchyType)));
        aliases.emplace("contents table of " + folder.name(), StoreWriter::nodeName(tableOf(folder.id(), kContentsType)));
    }

    const StoreBuilder& m_store;
    StoreWriter& m_writer;
    Layout m_layout;
    TableRow m_spamRow{};
    std::map<std::uint64_t, std::map<NodeId, ExtraNode>> m_deferred{};
};

std::uint64_t StoreBuilder::write(const std::string& path) const {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    std::uint64_t position = 0;
    LayoutOptions options = m_options;
    options.recordPlaces = false;
    StoreWriter writer(options, [&](std::uint64_t offset, ByteSpan bytes) {
        if (offset != position) {
            file.seekp(static_cast<std::streamoff>(offset));  // behind the end: a hole
        }
        file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        position = offset + bytes.size();
    });
    const std::uint64_t size = Writing(*this, writer).run();
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path);
    }
    return size;
}

StoreImage StoreBuilder::image() const {
    Bytes image;
    StoreWriter writer(m_options, [&](std::uint64_t offset, ByteSpan bytes) {
        const auto start = static_cast<std::size_t>(offset);
        if (image.size() < start + bytes.size()) {
            image.resize(start + bytes.size(), 0);
        }
        std::copy(bytes.begin(), bytes.end(), image.begin() + static_cast<std::ptrdiff_t>(start));
    });
    Writing writing(*this, writer);
    writing.run();
    return StoreImage(m_options, std::move(image), writer.takePlaces(), std::move(writing.aliases));
}

}  // namespace builder
