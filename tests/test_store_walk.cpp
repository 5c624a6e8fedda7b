// Which message of a store a page number means: the folders that are visited, what they declare against what they hold, and
// what damage does to the numbers behind it.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "batch_check.h"
#include "rtf_compressor.h"
#include "store_shown.h"
#include "ternbase/ternbase.h"

using namespace builder;
using namespace store_shown;
using namespace ternkit;

namespace {

constexpr std::uint16_t kSubject = 0x0037;
constexpr std::uint16_t kDisplayName = 0x3001;
constexpr std::uint16_t kContentCount = 0x3602;
constexpr NodeId kAttachmentTable = 0x671;
constexpr NodeId kFirstLargeValue = 0x801F;  // where the builder puts the first value of a bag that does not fit a heap
constexpr std::uint32_t kNoSuchMessage = 0x300004;

MessageFields Named(const std::string& name) {
    MessageFields fields = Bare();
    fields.htmlBody = "[" + name + "]";
    return fields;
}

Message& Add(Folder& folder, const std::string& name) {
    return folder.addMessage(Named(name));
}

/// A folder with a message for each letter of @p names.
Folder& AddFolder(TestStore& store, const std::string& folderName, const std::string& names, NodeId id = 0) {
    Folder& folder = store.top().addFolder(folderName, id);
    for (const char name : names) {
        Add(folder, {name});
    }
    return folder;
}

/// An item that a mail client keeps the owner's free and busy times in.
Message& AddFreeBusyItem(Folder& folder) {
    MessageFields fields = Named("free and busy");
    fields.subject = "LocalFreebusy";
    return folder.addMessage(fields);
}

Bytes Block(const std::string& text) {
    return {text.begin(), text.end()};
}

/// A message that cannot be shown and says so: its RTF does not fit its checksum.
Message& AddFailing(Folder& folder) {
    MessageFields fields = Named("failing");
    const std::string rtf = "{\\rtf1\\fonttbl\\pard [failing]}";
    fields.rtfCompressed = Block(rtf::Block(rtf::kStored, static_cast<std::uint32_t>(rtf.size()), rtf, rtf::Crc(rtf) + 1));
    return folder.addMessage(fields);
}

/// Gives a folder a contents table of the test's own.
void SetContents(TestStore& store, const Folder& folder, const std::vector<TableRow>& rows) {
    store.addNode((folder.id() & ~NodeId{31}) | 0x0E, tableContext(store.layout(), {{kSubject, kString}}, rows), folder.id());
}

/// The name of the message that stands on a page, or the status that the page gives.
std::string PageOf(const StoreShown& shown) {
    if (shown.status != kOk) {
        return std::to_string(shown.status);
    }
    const std::size_t start = shown.document.find('[') + 1;
    return shown.document.substr(start, shown.document.find(']') - start);
}

struct Case {
    const char* what;
    std::function<void(TestStore&)> make;
    std::vector<std::string> pages;  // of all messages that the store says it has
};

void Check(const std::vector<Case>& cases, std::size_t pageEntries = 0) {
    for (const Layout layout : kBothLayouts) {
        for (const Case& item : cases) {
            SCOPED_TRACE(std::string(item.what) + ", " + NameOf(layout));
            TestStore store(layout, pageEntries);
            item.make(store);
            const std::string bytes = store.finished();
            batch_check::CheckAgainstLoad(bytes);
            const auto count = static_cast<std::int32_t>(item.pages.size());
            for (std::int32_t page = 0; page <= count; ++page) {
                const std::int32_t index = std::min(page, count - 1);  // behind the last page stands the last once more
                const StoreShown shown = ShowStore(bytes, {.number = page + 1});
                EXPECT_EQ(PageOf(shown), item.pages[static_cast<std::size_t>(index)]) << "message " << page + 1;
                if (shown.status == kOk) {
                    EXPECT_EQ(shown.index, index);
                    EXPECT_EQ(shown.count, item.pages.size());
                }
            }
        }
    }
}

// ------------------------------------------------------------------------------------------------------- folders and counts

const std::vector<Case> kFolderOrder = {
    {"rows from first to last", [](TestStore& s) { AddFolder(s, "A", "abc"); }, {"a", "b", "c"}},
    {"a subfolder with the lower id comes first",
     [](TestStore& s) {
         Folder& high = AddFolder(s, "High", "hi", 0x90A2);
         Add(high.addFolder("Low", 0x9082), "low");
         Add(high.addFolder("Higher", 0x90C2), "higher");
     },
     {"low", "h", "i", "higher"}},
    {"folders that every store has",
     [](TestStore& s) {
         AddFolder(s, "A", "a");
         Add(s.deletedItems(), "deleted");
         Add(s.top(), "top");
         Add(s.root(), "root");
     },
     {"root", "top", "deleted", "a"}},
    {"the row matrix, not the row index, gives the order",
     [](TestStore& s) {
         Folder& folder = s.addFolder("A");
         const TableRow a = Add(folder, "a").row();
         const TableRow b = Add(folder, "b").row();
         const TableRow c = Add(folder, "c").row();
         SetContents(s, folder, {c, a, b});
     },
     {"c", "a", "b"}},
    {"search folders are stepped over",
     [](TestStore& s) {
         constexpr NodeId searchFolder = 0x9003;
         Folder& folder = s.addFolder("A");
         const TableRow row = Add(folder, "a").row();
         PropertyList search(s.layout());
         search.property(kDisplayName, "Unread").property(kContentCount, 1U);
         s.addNode(searchFolder, propertyContext(s.layout(), search.properties()), s.root().id());
         for (const NodeId table : {0x900EU, 0x9010U}) {
             s.addNode(table, tableContext(s.layout(), {{kSubject, kString}}, {row}), searchFolder);
         }
     },
     {"a"}},
    {"a folder without messages in the middle",
     [](TestStore& s) {
         AddFolder(s, "A", "a");
         AddFolder(s, "B", "");
         AddFolder(s, "C", "c");
     },
     {"a", "c"}},
};

TEST(StoreWalk, FoldersInOrderOfTheirNodes) {
    Check(kFolderOrder);
}

TEST(StoreWalk, FoldersAcrossManyTreePages) {
    Check(kFolderOrder, 2);
}

TEST(StoreWalk, DeclaredCountAgainstRows) {
    Check({
        {"fewer declared than held, so the rows run on and the last are cut off",
         [](TestStore& s) {
             AddFolder(s, "A", "abcde").property(kContentCount, 3U);
             AddFolder(s, "B", "fg");
         },
         {"a", "b", "c", "d", "e"}},
        {"none declared, and another folder makes up for it",
         [](TestStore& s) {
             AddFolder(s, "A", "abc").property(kContentCount, 0U);
             AddFolder(s, "B", "de").property(kContentCount, 4U);
         },
         {"a", "b", "c", "d"}},
        {"more declared than held",
         [](TestStore& s) { AddFolder(s, "A", "abc").property(kContentCount, 5U); },
         {"a", "b", "c", "-9", "-9"}},
        {"a negative count takes from the total",
         [](TestStore& s) {
             AddFolder(s, "A", "abc");
             AddFolder(s, "B", "").property(kContentCount, 0xFFFFFFFFU);
         },
         {"a", "b"}},
        {"the declared count stands in the folder, not in its parent's table of folders",
         [](TestStore& s) {
             Folder& folder = AddFolder(s, "A", "ab");
             PropertyList row(s.layout());
             row.property(kDisplayName, "Freebusy Data").property(kContentCount, 7U);
             s.addNode((s.top().id() & ~NodeId{31}) | 0x0D,
                       tableContext(s.layout(), {{kDisplayName, kString}, {kContentCount, kInteger32}},
                                    {{folder.id(), row.properties()}}));
         },
         {"a", "b"}},
    });
}

TEST(StoreWalk, NothingToCount) {
    const auto counts = [](std::uint32_t first, std::uint32_t second) {
        return [=](TestStore& s) {
            AddFolder(s, "A", "a").property(kContentCount, first);
            AddFolder(s, "B", "b").property(kContentCount, second);
        };
    };
    Check({
        {"no message at all", [](TestStore&) {}, {"-13"}},
        {"all counts are 0", counts(0, 0), {"-13"}},
        {"a negative total", counts(0xFFFFFFFF, 0), {"-13"}},
        {"counts that cancel out", counts(0xFFFFFFFF, 1), {"-13"}},
        {"a total that overflows", counts(0x7FFFFFFF, 1), {"-13"}},
        {"a total that wraps to a sound one", counts(0x80000001, 0x80000001), {"a", "b"}},
        {"more records than there may be memory", counts(0x7FFFFFFF, 0), {"-1"}},
    });
}

TEST(StoreWalk, FreeBusyFolder) {
    Check({
        {"left out, with its items",
         [](TestStore& s) {
             AddFreeBusyItem(AddFolder(s, "Freebusy Data", ""));
             AddFolder(s, "A", "ab");
         },
         {"a", "b"}},
        {"the only folder with messages", [](TestStore& s) { AddFolder(s, "Freebusy Data", "ab"); }, {"-13"}},
        {"another item in it is not counted but takes a page",
         [](TestStore& s) {
             AddFolder(s, "Freebusy Data", "x");
             AddFolder(s, "A", "ab");
         },
         {"x", "a"}},
        {"such a folder without a count",
         [](TestStore& s) {
             AddFolder(s, "Freebusy Data", "").remove(kContentCount);
             AddFolder(s, "A", "a");
         },
         {"a"}},
        {"another case", [](TestStore& s) { AddFolder(s, "Freebusy data", "a"); }, {"a"}},
        {"longer", [](TestStore& s) { AddFolder(s, "Freebusy Data 2", "a"); }, {"a"}},
        {"longer by a blank", [](TestStore& s) { AddFolder(s, "Freebusy Data ", "a"); }, {"a"}},
        {"longer by a NUL", [](TestStore& s) { AddFolder(s, std::string("Freebusy Data\0", 14), "a"); }, {"a"}},
        {"shorter", [](TestStore& s) { AddFolder(s, "Freebusy Dat", "a"); }, {"a"}},
    });
}

TEST(StoreWalk, FreeBusyItemElsewhere) {
    Check({
        {"in the first row",
         [](TestStore& s) {
             Folder& folder = s.addFolder("A");
             AddFreeBusyItem(folder);
             Add(folder, "a");
             Add(folder, "b");
         },
         {"a", "b", "-9"}},
        {"between others and in front of another folder",
         [](TestStore& s) {
             Folder& folder = AddFolder(s, "A", "a");
             AddFreeBusyItem(folder);
             Add(folder, "b");
             AddFolder(s, "B", "c");
         },
         {"a", "b", "c", "-9"}},
        {"nothing else", [](TestStore& s) { AddFreeBusyItem(s.addFolder("A")); }, {"-9"}},
        {"its bodies are not looked at",
         [](TestStore& s) {
             Folder& folder = s.addFolder("A");
             AddFailing(folder).property(kSubject, "LocalFreebusy");
             Add(folder, "a");
         },
         {"a", "-9"}},
    });
}

// --------------------------------------------------------------------------------------------------------------------- damage

TEST(StoreWalk, FoldersWithoutUsableContentsTable) {
    Check({
        {"none",
         [](TestStore& s) {
             AddFolder(s, "A", "a");
             AddFolder(s, "B", "b").omitContentsTable();
             AddFolder(s, "C", "c");
         },
         {"a", "c", "-9"}},
        {"its block cannot be read",
         [](TestStore& s) {
             AddFolder(s, "A", "ab");
             AddFolder(s, "B", "cd");
             s.spoil("contents table of A");
         },
         {"c", "d", "-9", "-9"}},
        {"no heap",
         [](TestStore& s) {
             AddFolder(s, "A", "a");
             AddFolder(s, "B", "b");
             s.damage([](StoreImage& i) { i.damage("contents table of A", 2, {0}); });
         },
         {"b", "-9"}},
        {"a heap of another kind",
         [](TestStore& s) {
             AddFolder(s, "A", "a");
             AddFolder(s, "B", "b");
             s.damage([](StoreImage& i) { i.damage("contents table of A", 3, {HeapBuilder::kPropertyContext}); });
         },
         {"b", "-9"}},
        {"a row without a message behind the others",
         [](TestStore& s) {
             AddFolder(s, "A", "a").addBareRow(kNoSuchMessage);
             AddFolder(s, "B", "b");
         },
         {"a", "b", "-9"}},
    });
}

// Folder A holds a, a message to damage, and b; folder B holds c and d.
void CheckDamaged(const char* what, const std::function<void(TestStore&, Message&)>& apply,
                  const std::vector<std::string>& pages) {
    Check({{what,
            [&](TestStore& s) {
                Folder& folder = AddFolder(s, "A", "a");
                Message& damaged = Add(folder, "damaged");
                Add(folder, "b");
                AddFolder(s, "B", "cd");
                apply(s, damaged);
            },
            pages}});
}

TEST(StoreWalk, DamagedMessageEndsItsFolder) {
    struct Damage {
        const char* what;
        std::function<void(TestStore&, Message&)> apply;
    };
    const auto unreadable = [](std::uint16_t property) {
        return [property](TestStore& s, Message& m) {
            m.property(property, Bytes(5000, 'x'));
            s.spoilSubnode(kFirstLargeValue, m.id());
        };
    };
    const std::vector<Damage> damages = {
        {"its node cannot be read", [](TestStore& s, Message& m) { s.spoilNode(m.id()); }},
        {"its node is a table",
         [](TestStore& s, Message& m) {
             s.addNode(m.id(), tableContext(s.layout(), {{kSubject, kString}}, {}));
         }},
        {"half a prefix in front of its subject", [](TestStore&, Message& m) { m.property(kSubject, "\x01"); }},
        {"its subject", unreadable(kSubject)},
        {"its plain text", unreadable(0x1000)},
        {"its HTML", unreadable(0x1013)},
        {"its RTF", unreadable(0x1009)},
        {"the last block of its HTML",
         [](TestStore& s, Message& m) {
             m.property(0x1013, Bytes(20000, 'x'));
             s.spoil("block 2 of sub" + StoreWriter::nodeName(kFirstLargeValue) + " of " + StoreWriter::nodeName(m.id()));
         }},
        {"its subnodes", [](TestStore& s, Message& m) { s.spoil("subnodes of " + StoreWriter::nodeName(m.id())); }},
        {"its table of attachments",
         [](TestStore& s, Message& m) {
             m.attach({.longName = "a.png"});
             s.spoilSubnode(kAttachmentTable, m.id());
         }},
        {"a property bag in the place of its table of attachments",
         [](TestStore& s, Message& m) {
             m.attach({.longName = "a.png"});
             const std::string table =
                 "block of sub" + StoreWriter::nodeName(kAttachmentTable) + " of " + StoreWriter::nodeName(m.id());
             s.damage([table](StoreImage& i) { i.damage(table, 3, {HeapBuilder::kPropertyContext}); });
         }},
    };
    for (const Damage& damage : damages) {
        CheckDamaged(damage.what, damage.apply, {"a", "c", "d", "-9", "-9"});
    }
}

TEST(StoreWalk, RowWithoutMessageEndsItsFolder) {
    Check({{"in the middle",
            [](TestStore& s) {
                Folder& folder = s.addFolder("A");
                const TableRow a = Add(folder, "a").row();
                const TableRow b = Add(folder, "b").row();
                folder.property(kContentCount, 3U);
                SetContents(s, folder, {a, {kNoSuchMessage, {}}, b});
                AddFolder(s, "B", "c");
            },
            {"a", "c", "-9", "-9"}}});
}

// What only the wanted message is asked for does no harm in front of it.
TEST(StoreWalk, DamageThatOnlyTheTargetMeets) {
    CheckDamaged("a sender that cannot be read",
                 [](TestStore& s, Message& m) {
                     m.property(0x0C1A, Bytes(5000, 'x'));
                     s.spoilSubnode(kFirstLargeValue, m.id());
                 },
                 {"a", "c", "b", "c", "d"});
    CheckDamaged("an empty attachment that its body names",
                 [](TestStore&, Message& m) {
                     m.property(0x1013, Block("[damaged] <img src=\"cid:a.png\">"));
                     m.attach({.longName = "a.png", .data = Bytes{}});
                 },
                 {"a", "-1", "b", "c", "d"});
}

TEST(StoreWalk, FailingMessageEndsTheWalk) {
    Check({{"RTF with a wrong checksum",
            [](TestStore& s) {
                AddFailing(AddFolder(s, "A", "a"));
                AddFolder(s, "B", "bc");
            },
            {"a", "-9", "-9", "-9"}}});
}

TEST(StoreWalk, BodyThatDoesNotFitIntoMemoryEndsTheWalk) {
    constexpr std::uint64_t usualLimit = 512ULL << 20;
    TbHostSetBlockLimit(100'000);
    for (const std::uint16_t body : std::initializer_list<std::uint16_t>{0x1000, 0x1013, 0x1009}) {
        SCOPED_TRACE(body);
        CheckDamaged("a body over the limit", [body](TestStore&, Message& m) { m.property(body, Bytes(100'001, 'x')); },
                     {"a", "-1", "-1", "-1", "-1"});
    }
    TbHostSetBlockLimit(usualLimit);
}

// The message that takes the place of a damaged target finds what that has left in the record.
TEST(StoreWalk, FieldsOfADamagedTargetStay) {
    for (const Layout layout : kBothLayouts) {
        SCOPED_TRACE(NameOf(layout));
        TestStore store(layout);
        MessageFields damaged = Named("damaged");
        damaged.subject = "Damaged";
        damaged.senderName = "Ann";
        damaged.to = "Bob";
        damaged.importance = 2;
        Message& message = store.addFolder("A").addMessage(damaged);
        message.property(0x1000, Bytes(5000, 'x'));
        store.spoilSubnode(kFirstLargeValue, message.id());
        MessageFields next = Named("next");
        next.subject = "Next";
        store.addFolder("B").addMessage(next).remove(0x0C1A);
        const StoreShown shown = ShowStore(store.finished());
        EXPECT_EQ(shown.status, kOk);
        EXPECT_EQ(shown.document, Html(HtmlRow("From:      ", "Ann") + HtmlRow("Subject:   ", "Next") +
                                       HtmlRow("Importance:", "High") + kHtmlSeparator + "[next]"));
    }
}

TEST(StoreWalk, DamageWhileCountingFailsTheStore) {
    const auto two = [](TestStore& s) -> Folder& {
        AddFolder(s, "A", "a");
        return AddFolder(s, "B", "b");
    };
    const auto damaged = [&](std::function<void(StoreImage&)> step) {
        return [=](TestStore& s) {
            two(s);
            s.damage(step);
        };
    };
    Check({
        {"a folder without a name", [&](TestStore& s) { two(s).remove(kDisplayName); }, {"-9"}},
        {"a folder without a count", [&](TestStore& s) { two(s).remove(kContentCount); }, {"-9"}},
        {"a folder that cannot be read",
         [&](TestStore& s) {
             two(s);
             s.spoil("folder B");
         },
         {"-9"}},
        {"a folder that is no heap", damaged([](StoreImage& i) { i.damage("folder B", 2, {0}); }), {"-9"}},
        {"a folder that is a table",
         damaged([](StoreImage& i) { i.damage("folder B", 3, {HeapBuilder::kTableContext}); }),
         {"-9"}},
        {"the tree of nodes",
         [&](TestStore& s) {
             two(s);
             s.spoil("nbt root");
         },
         {"-9"}},
        {"the tree of blocks",
         [&](TestStore& s) {
             two(s);
             s.spoil("bbt root");
         },
         {"-9"}},
        {"a header that does not fit its checksum",
         damaged([](StoreImage& i) { i.damage("header", 12, {99}, StoreImage::Crc::Leave); }),
         {"-9"}},
        {"nothing behind the signature", damaged([](StoreImage& i) { i.resize(12); }), {"-9"}},
        {"half of the file", damaged([](StoreImage& i) { i.resize(i.bytes().size() / 2); }), {"-9"}},
    });
}

// ---------------------------------------------------------------------------------------------------------- message numbers

TEST(StoreWalk, MessageNumbersAreClamped) {
    struct Number {
        std::int32_t asked;
        std::int32_t index;
    };
    TestStore store;
    AddFolder(store, "A", "abc");
    const std::string bytes = store.finished();
    for (const auto& [asked, index] : {Number{0, 0}, {-1, 0}, {INT_MIN + 1, 0}, {1, 0}, {2, 1}, {3, 2}, {4, 2}, {INT_MAX, 2}}) {
        SCOPED_TRACE(asked);
        const StoreShown shown = ShowStore(bytes, {.number = asked});
        EXPECT_EQ(PageOf(shown), std::string(1, static_cast<char>('a' + index)));
        EXPECT_EQ(shown.index, index);
        EXPECT_EQ(shown.count, 3U);
    }
}

}  // namespace
