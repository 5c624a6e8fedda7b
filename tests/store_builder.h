/**
 * StoreBuilder writes Personal Folders stores for tests, examples and benchmarks: folders, messages, recipients and attachments,
 * with every node that [MS-PST] 2.7 wants in the smallest valid store.
 *
 *     StoreBuilder store(Layout::Unicode, Encoding::Permutative);
 *     auto& inbox = store.addFolder("Inbox");
 *     auto& mail = inbox.addMessage({.subject = "Hello", .plainBody = "How are you?"});
 *     mail.property(0x0017, 2U);
 *     mail.attach({.name = "a.png", .data = picture});
 *     store.write(path);                                        // streams
 *     auto image = store.image();                               // in memory, with names for what can be damaged
 *     image.damage("contents table of Inbox", 2, {0xED});
 *
 * Text is UTF-8; an ANSI store keeps it as ISO 8859-1. A builder may write any number of times.
 */
#pragma once

#include <deque>
#include <memory>

#include "store_heap.h"

namespace builder {

struct MessageFields {
    std::optional<std::string> subject = {};
    /** With a prefix such as "RE: ", the stored subject begins with the marker and the prefix length. */
    std::optional<std::string> subjectPrefix = {};
    std::optional<std::string> plainBody = {};
    std::optional<std::string> htmlBody = {};  ///< stored as bytes
    std::optional<Bytes> rtfCompressed = {};
    std::string senderName = "Sender";
    std::string senderAddress = "sender@example.com";
    /** Display strings; each name between semicolons becomes a recipient too. */
    std::string to = {};
    std::string cc = {};
    std::string bcc = {};
    std::optional<std::uint64_t> submitTime = 0x01D321C5D1711780;  ///< 100 ns since 1601
    std::optional<std::uint32_t> importance = {};
    std::string messageClass = "IPM.Note";
};

struct AttachmentFields {
    std::optional<std::string> name = {};      ///< PidTagAttachFilename
    std::optional<std::string> longName = {};  ///< PidTagAttachLongFilename
    std::optional<std::string> contentId = {};
    std::optional<std::string> mimeTag = {};
    std::optional<Bytes> data = {};
};

class Message;

class Attachment : public PropertyList {
public:
    Attachment(Layout layout, const AttachmentFields& fields, NodeId id);
    /** Makes this an embedded message (method 5). */
    Message& embed(const MessageFields& fields);
    NodeId id() const { return m_id; }

private:
    friend class Message;
    PropertyMap allProperties() const;
    NodeContent content() const;

    NodeId m_id;
    std::shared_ptr<Message> m_embedded{};
};

class Message : public PropertyList {
public:
    Message(Layout layout, const MessageFields& fields, NodeId id);
    /** Gives the attachment, which can be changed until the store is written. */
    Attachment& attach(const AttachmentFields& fields);
    NodeId id() const { return m_id; }
    /** The message's bag with its tables of recipients and attachments and the attachments' bags. */
    NodeContent content() const;
    /** The message's row in a contents table. */
    TableRow row() const;

private:
    PropertyMap allProperties() const;
    void addRecipients(const std::string& names, std::uint32_t type);

    NodeId m_id;
    std::vector<TableRow> m_recipients{};
    std::deque<Attachment> m_attachments{};
};

class StoreBuilder;

class Folder : public PropertyList {
public:
    Folder(StoreBuilder& store, const std::string& name, NodeId id, NodeId parent);
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    /** A folder below this one. @p id of 0 takes the next free one. */
    Folder& addFolder(const std::string& name, NodeId id = 0);
    Message& addMessage(const MessageFields& fields = {});
    /** Messages that are made only while the store is being written and go at once; @p make gets their number in the folder. */
    Folder& addMessages(std::size_t count, std::function<MessageFields(std::size_t)> make);
    /** Messages with subnodes of their own, all of which name one HTML body. */
    Folder& addSharingMessages(std::size_t count, const std::string& html);
    /** A row of the contents table without a message behind it. */
    Folder& addBareRow(std::uint32_t rowId);
    /** Leaves the contents table out. */
    Folder& omitContentsTable();

    NodeId id() const { return m_id; }
    const std::string& name() const { return m_name; }

private:
    friend class StoreBuilder;
    struct Generated {
        NodeId firstId;
        std::size_t count;
        std::function<MessageFields(std::size_t)> make;
    };
    std::size_t messageCount() const;

    StoreBuilder& m_store;
    std::string m_name;
    NodeId m_id;
    NodeId m_parent;
    bool m_hasContentsTable = true;
    std::vector<Folder*> m_children{};
    std::deque<Message> m_messages{};
    std::vector<Generated> m_generated{};
    std::vector<std::uint32_t> m_bareRows{};
};

class StoreBuilder {
public:
    explicit StoreBuilder(const LayoutOptions& options);
    StoreBuilder(Layout layout, Encoding encoding);
    StoreBuilder(const StoreBuilder&) = delete;
    StoreBuilder& operator=(const StoreBuilder&) = delete;

    /** A folder below "Top of Personal Folders". */
    Folder& addFolder(const std::string& name) { return m_top->addFolder(name); }
    Folder& root() { return *m_root; }
    Folder& top() { return *m_top; }
    Folder& deletedItems() { return *m_deletedItems; }

    /** A node of any content: raw bytes, a heap, a bag or a table of the test's own. */
    StoreBuilder& addNode(NodeId id, NodeContent content, NodeId parent = 0);
    /** The blocks of this node go to @p offset or behind it, after all others. */
    StoreBuilder& placeNode(NodeId id, std::uint64_t offset);
    /** Something else to write before the trees, such as blocks of a form that no sound store has. */
    StoreBuilder& beforeTrees(std::function<void(StoreWriter&)> step);

    /** Writes the store to a file and gives the file's size. */
    std::uint64_t write(const std::string& path) const;
    StoreImage image() const;
    Bytes bytes() const { return image().bytes(); }

    const LayoutOptions& options() const { return m_options; }

private:
    friend class Folder;
    class Writing;
    NodeId nextFolderId();
    NodeId takeMessageIds(std::size_t count);

    LayoutOptions m_options;
    NodeId m_nextFolder = 0x8082;
    NodeId m_nextMessage = 0x200024;
    std::deque<Folder> m_folders{};
    Folder* m_root;
    Folder* m_top;
    Folder* m_deletedItems;
    struct ExtraNode {
        NodeContent content;
        NodeId parent;
    };
    std::map<NodeId, ExtraNode> m_nodes{};
    std::map<NodeId, std::uint64_t> m_placed{};
    std::vector<std::function<void(StoreWriter&)>> m_steps{};
};

}  // namespace builder
