// All messages of a file in one pass: what every visit tells, held against fltLoad, and what a visit may cost.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "batch_check.h"
#include "mime_builder.h"
#include "msg_builder.h"
#include "rtf_compressor.h"
#include "store_shown.h"

using namespace batch_check;
using namespace builder;
using namespace store_shown;
using namespace ternkit;

namespace {

constexpr std::uint16_t kSubject = 0x0037;
constexpr std::uint16_t kSenderName = 0x0C1A;
constexpr std::uint16_t kContentCount = 0x3602;
constexpr std::uint16_t kMessageSize = 0x0E08;
constexpr std::uint16_t kHtml = 0x1013;
constexpr std::uint16_t kRtf = 0x1009;
constexpr NodeId kFirstLargeValue = 0x801F;  // where the builder puts the first value of a bag that does not fit a heap
constexpr std::int64_t kSent = 1504121163;   // 2017-08-30 19:26:03 UTC, as the builder's messages say

Bytes BytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

MessageFields Html(const std::string& subject, const std::string& html) {
    MessageFields fields;
    fields.subject = subject;
    fields.htmlBody = html;
    return fields;
}

MessageFields Named(const std::string& name) {
    return Html(name, "[" + name + "]");
}

AttachmentFields Picture(const std::string& name, const std::string& data = std::string(60, 'p')) {
    AttachmentFields fields;
    fields.longName = name;
    fields.data = BytesOf(data);
    return fields;
}

std::string Rtf(const std::string& text) {
    return "{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard " + text + "\\par}";
}

/// RTF that does not fit its checksum: it ends the walk.
Bytes FailingRtf() {
    const std::string rtf = Rtf("failing");
    return BytesOf(rtf::Block(rtf::kStored, static_cast<std::uint32_t>(rtf.size()), rtf, rtf::Crc(rtf) + 1));
}

/// Damage that a message in front of a page is not asked about.
void SpoilSender(TestStore& store, Message& message) {
    message.property(kSenderName, Bytes(5000, 'x'));
    store.spoilSubnode(kFirstLargeValue, message.id());
}

void SpoilHtml(TestStore& store, Message& message) {
    message.property(kHtml, Bytes(20000, 'x'));
    store.spoil("block 2 of sub" + StoreWriter::nodeName(kFirstLargeValue) + " of " + StoreWriter::nodeName(message.id()));
}

/// Gives a folder a contents table of the test's own, and the count that goes with it.
void SetContents(TestStore& store, Folder& folder, const std::vector<TableRow>& rows) {
    folder.property(kContentCount, static_cast<std::uint32_t>(rows.size()));
    store.addNode((folder.id() & ~NodeId{31}) | 0x0E, tableContext(store.layout(), {{kSubject, kString}}, rows), folder.id());
}

void CheckStores(const char* what, const std::function<void(TestStore&)>& make) {
    for (const Layout layout : kBothLayouts) {
        SCOPED_TRACE(std::string(what) + ", " + NameOf(layout));
        TestStore store(layout);
        make(store);
        CheckAgainstLoad(store.finished());
    }
}

// ------------------------------------------------------------------------------------------------------------ sound messages

TEST(BatchStore, SummariesTellWhatMessagesHold) {
    TestStore store;
    Folder& inbox = store.addFolder("Inbox");
    MessageFields plain;
    plain.subject = "Plain";
    plain.plainBody = "Hello";
    plain.senderName = "Ann";
    plain.to = "Bob";
    plain.cc = "Cid; Dan";
    plain.bcc = "Eve";
    inbox.addMessage(plain).property(kMessageSize, 4711U);
    MessageFields all = Html("All\0behind", "<p>");
    all.subject = std::string("All\0behind", 10);
    all.plainBody = "1234";
    const std::string block = rtf::Compressed(Rtf("all"));
    all.rtfCompressed = BytesOf(block);
    all.submitTime.reset();
    inbox.addMessage(all).remove(kMessageSize);
    inbox.addMessage(Html("Pictures", "<img src=\"cid:a.png\">")).attach(Picture("a.png"));
    MessageFields none = Bare();
    none.subject.reset();
    inbox.addMessage(none);
    const std::vector<Visited> summaries = CheckAgainstLoad(store.finished());
    ASSERT_EQ(summaries.size(), 4U);

    const Visited& first = summaries[0];
    EXPECT_EQ(first.subject, "Plain");
    EXPECT_EQ(first.senderName, "Ann");
    EXPECT_EQ(first.senderAddress, "");
    EXPECT_EQ(first.displayTo, "Bob");
    EXPECT_EQ(first.displayCc, "Cid; Dan");
    EXPECT_EQ(first.displayBcc, "Eve");
    EXPECT_EQ(first.date.size(), std::string("Wed Aug 30, 2017 07:26 PM").size());
    EXPECT_EQ(first.message.sentTime, kSent);
    EXPECT_EQ(first.message.size, 4711U);
    EXPECT_EQ(first.message.bodies, kBatchBodyText);
    EXPECT_EQ(first.message.status, kUnusable) << "plain text alone is shown only where it is asked for";
    EXPECT_EQ(first.message.sourceFormat, kFormatPst);

    EXPECT_EQ(summaries[1].subject, "All");
    EXPECT_EQ(summaries[1].date, "");
    EXPECT_EQ(summaries[1].message.sentTime, kBatchNoTime);
    EXPECT_EQ(summaries[1].message.bodies, kBatchBodyText | kBatchBodyHtml | kBatchBodyRtf);
    EXPECT_EQ(summaries[1].message.size, 8 + 3 + block.size());  // UTF-16, HTML and the compressed block
    EXPECT_EQ(summaries[1].message.status, kOk);

    EXPECT_EQ(summaries[2].message.bodies, kBatchBodyHtml);
    EXPECT_EQ(summaries[3].subject, "No Subject");
    EXPECT_EQ(summaries[3].message.bodies, 0U);
    EXPECT_EQ(summaries[3].message.status, kUnusable);
}

TEST(BatchStore, DocumentsOfEveryKind) {
    CheckStores("all kinds", [](TestStore& store) {
        Folder& inbox = store.addFolder("Inbox");
        MessageFields plain = Bare();
        plain.plainBody = "Text";
        inbox.addMessage(plain);
        MessageFields rich;
        rich.rtfCompressed = BytesOf(rtf::Compressed(Rtf("rich")));
        inbox.addMessage(rich);
        MessageFields three = Named("three");
        three.plainBody = "three";
        three.rtfCompressed = BytesOf(rtf::Compressed(Rtf("three")));
        inbox.addMessage(three).attach(Picture("three"));
        Message& pictures = inbox.addMessage(Html("Two", "<img src=\"cid:a.png\"><img src=\"b.png\">"));
        pictures.attach(Picture("a.png"));
        pictures.attach(Picture("b.png", std::string(20000, 'q')));
        inbox.addMessage(Bare());  // no body: the kind of the one in front of it stays
        store.addFolder("Another").addMessage(Html("", "<html><body>Hello</body></html>"));
    });
}

TEST(BatchStore, ManyMessagesAcrossTreePages) {
    constexpr std::uint32_t kMany = 3000;
    TestStore store(Layout::Unicode, 2);  // thousands of tree pages, and rows in several blocks
    store.addFolder("A").addMessages(kMany, [](std::size_t number) { return Named("m" + std::to_string(number)); });
    FilterHost host(store.finished());
    for (const BatchWish wish : {BatchWish::kSummary, BatchWish::kDocument}) {
        const Visit visit = VisitAll(host, [wish](std::uint32_t) { return wish; });
        ASSERT_EQ(visit.visits.size(), kMany);
        for (std::uint32_t at = 0; at < kMany; ++at) {
            ASSERT_EQ(visit.visits[at].subject, "m" + std::to_string(at));
            ASSERT_EQ(visit.visits[at].message.status, kOk);
        }
    }
    host.loadRequest.messageNumber = kMany;
    EXPECT_EQ(host.load(), kOk);
    EXPECT_NE(host.delivery.document.find("[m2999]"), std::string::npos);
}

// --------------------------------------------------------------------------------------------------------------------- damage

// A message that only its own page cannot read: the page goes on in the later folders, the pages behind it go on behind it.
TEST(BatchStore, DamageThatOnlyTheTargetMeets) {
    CheckStores("in one folder", [](TestStore& store) {
        Folder& folder = store.addFolder("A");
        folder.addMessage(Named("a"));
        SpoilSender(store, folder.addMessage(Named("b")));
        folder.addMessage(Named("c"));
    });
    CheckStores("in several folders, with messages that have less than they", [](TestStore& store) {
        for (const char* name : {"A", "B", "C"}) {
            Folder& folder = store.addFolder(name);
            MessageFields fields = Named(std::string(name) + "1");
            fields.importance = 2;
            fields.to = "Someone";
            SpoilSender(store, folder.addMessage(fields));
            folder.addMessage(Bare());
            MessageFields text = Bare();
            text.plainBody = "text of " + std::string(name);
            folder.addMessage(text).remove(kSenderName);
            folder.addMessage(Named(std::string(name) + "2"));
        }
    });
    CheckStores("twice in one folder", [](TestStore& store) {
        Folder& folder = store.addFolder("A");
        SpoilSender(store, folder.addMessage(Named("a")));
        SpoilSender(store, folder.addMessage(Named("b")));
        store.addFolder("B").addMessage(Named("c"));
    });
    CheckStores("an importance behind a name that can be read", [](TestStore& store) {
        Message& message = store.addFolder("A").addMessage(Named("a"));
        message.property(0x0E02, Bytes(5000, 'x'));
        store.spoilSubnode(kFirstLargeValue, message.id());
        store.addFolder("B").addMessage(Named("b")).remove(0x0039);
        store.addFolder("C").addMessage(Named("c"));
    });
}

TEST(BatchStore, DamagedBodies) {
    CheckStores("the last message, of which the page keeps what was read", [](TestStore& store) {
        store.addFolder("A").addMessage(Named("a"));
        SpoilHtml(store, store.addFolder("B").addMessage(Named("b")));
    });
    CheckStores("in front of messages without a body", [](TestStore& store) {
        for (const char* name : {"A", "B"}) {
            Folder& folder = store.addFolder(name);
            SpoilHtml(store, folder.addMessage(Named("a")));
            folder.addMessage(Named("never"));
        }
        store.addFolder("C").addMessage(Bare());
        store.addFolder("D").addMessage(Named("d"));
    });
    CheckStores("pictures of a message whose table of attachments is damaged", [](TestStore& store) {
        Message& message = store.addFolder("A").addMessage(Html("", "<img src=\"a.png\">"));
        message.attach(Picture("a.png"));
        store.spoilSubnode(0x671, message.id());
        store.addFolder("B").addMessage(Named("b"));
    });
    CheckStores("pictures are made before the RTF turns out to be damaged", [](TestStore& store) {
        Message& message = store.addFolder("A").addMessage(Html("", "<img src=\"a.png\">"));
        message.attach(Picture("a.png"));
        message.property(kRtf, Bytes(5000, 'x'));
        store.spoilSubnode(kFirstLargeValue, message.id());
        Message& next = store.addFolder("B").addMessage(Html("", "<img src=\"a.png\">"));
        next.attach(Picture("a.png", std::string(70, 'n')));
    });
}

TEST(BatchStore, FailuresThatEndTheWalk) {
    CheckStores("RTF in the middle", [](TestStore& store) {
        Folder& folder = store.addFolder("A");
        folder.addMessage(Named("a"));
        folder.addMessage(Named("failing")).property(kRtf, FailingRtf());
        folder.addMessage(Named("b"));
        store.addFolder("B").addMessage(Named("c"));
    });
    CheckStores("RTF of the first", [](TestStore& store) {
        store.addFolder("A").addMessage(Named("failing")).property(kRtf, FailingRtf());
        store.addFolder("B").addMessage(Named("c"));
    });
    // The pictures of a page's own message fail it, in front of other pages they are not looked at.
    const auto withFailingPicture = [](TestStore& store, const std::function<void(Message&)>& more) {
        Folder& folder = store.addFolder("A");
        Message& message = folder.addMessage(Html("", "<img src=\"cid:a.png\">"));
        message.attach(Picture("a.png", ""));
        more(message);
        folder.addMessage(Named("b"));
        store.addFolder("B").addMessage(Named("c"));
    };
    CheckStores("a picture without bytes", [&](TestStore& store) { withFailingPicture(store, [](Message&) {}); });
    CheckStores("such a picture and RTF that fails", [&](TestStore& store) {
        withFailingPicture(store, [](Message& message) { message.property(kRtf, FailingRtf()); });
    });
    CheckStores("such a picture and RTF that cannot be read", [&](TestStore& store) {
        withFailingPicture(store, [&](Message& message) {
            message.property(kRtf, Bytes(5000, 'x'));
            store.spoilSubnode(kFirstLargeValue, message.id());
        });
    });
    CheckStores("such a picture behind a message that cannot be read", [&](TestStore& store) {
        SpoilSender(store, store.addFolder("0").addMessage(Named("0")));
        withFailingPicture(store, [](Message&) {});
    });
}

TEST(BatchStore, FreeBusyItemsAndCounts) {
    const auto freeBusy = [](Folder& folder) {
        MessageFields fields = Named("LocalFreebusy");
        folder.addMessage(fields);
    };
    CheckStores("in several places", [&](TestStore& store) {
        Folder& data = store.addFolder("Freebusy Data");
        freeBusy(data);
        data.addMessage(Named("another"));
        Folder& folder = store.addFolder("A");
        freeBusy(folder);
        SpoilSender(store, folder.addMessage(Named("a")));
        freeBusy(folder);
        folder.addMessage(Named("b"));
        Folder& last = store.addFolder("B");
        freeBusy(last);
        last.addMessage(Named("c"));
        freeBusy(last);
    });
    for (const std::uint32_t count : {1U, 2U, 9U}) {
        CheckStores("another count than there are rows", [&](TestStore& store) {
            Folder& folder = store.addFolder("A");
            for (const char* name : {"a", "b", "c"}) {
                folder.addMessage(Named(name));
            }
            folder.property(kContentCount, count);
            store.addFolder("B").addMessage(Named("d"));
        });
    }
    CheckStores("folders that end early", [](TestStore& store) {
        store.addFolder("A").addMessage(Named("a"));
        Folder& folder = store.addFolder("B");
        const TableRow b = folder.addMessage(Named("b")).row();
        const TableRow c = folder.addMessage(Named("c")).row();
        SetContents(store, folder, {b, {0x300004, {}}, c});
        store.addFolder("C").omitContentsTable().addMessage(Named("never"));
        store.addFolder("D").addMessage(Named("d"));
        store.spoil("contents table of A");
    });
}

// -------------------------------------------------------------------------------------------------------------- what it costs

std::uint64_t BytesReadSoFar() {
    std::ifstream io("/proc/self/io");
    std::string word;
    std::uint64_t bytes = 0;
    while (io >> word && word != "rchar:") {
    }
    io >> bytes;
    return bytes;
}

TEST(BatchCosts, RowsThatNameOneMessage) {
    constexpr std::size_t kRows = 2000;
    TestStore store;
    Folder& folder = store.addFolder("A");
    const TableRow once = folder.addMessage(Html("Large", std::string(1 << 20, 'x'))).row();
    const TableRow other = folder.addMessage(Named("other")).row();
    std::vector<TableRow> rows(kRows, once);
    rows.back() = other;
    SetContents(store, folder, rows);
    const std::string bytes = store.finished();
    FilterHost host(bytes);
    for (const BatchWish wish : {BatchWish::kSummary, BatchWish::kPass}) {
        const std::uint64_t before = BytesReadSoFar();
        const Visit visit =
            VisitAll(host, [wish](std::uint32_t index) { return index == kRows - 1 ? BatchWish::kSummary : wish; });
        EXPECT_LT(BytesReadSoFar() - before, 4 * bytes.size());
        ASSERT_EQ(visit.visits.size(), wish == BatchWish::kSummary ? kRows : 1U);
        EXPECT_EQ(visit.visits.front().message.status, kOk);
        EXPECT_EQ(visit.visits.back().subject, "other");
        EXPECT_EQ(visit.visits.back().message.messageIndex, kRows - 1);
    }
    // A few of them, with the documents.
    TestStore small;
    Folder& few = small.addFolder("A");
    const TableRow row = few.addMessage(Named("again")).row();
    Message& damaged = few.addMessage(Named("damaged"));
    const TableRow damagedRow = damaged.row();
    SpoilSender(small, damaged);
    SetContents(small, few, {row, row, damagedRow, row, damagedRow, damagedRow});
    small.addFolder("B").addMessage(Named("b"));
    CheckAgainstLoad(small.finished());
}

// Each is another message, so none is known from before. The store ends where far more was read than it has bytes.
TEST(BatchCosts, MessagesThatShareABody) {
    constexpr std::size_t kMessages = 400;
    TestStore store;
    store.addFolder("A").addSharingMessages(kMessages, std::string(1 << 20, 'x'));
    const std::string bytes = store.finished();
    FilterHost host(bytes);
    const std::uint64_t before = BytesReadSoFar();
    const Visit visit = VisitAll(host);
    EXPECT_LT(BytesReadSoFar() - before, 17 * bytes.size() + (std::uint64_t{64} << 20));
    EXPECT_EQ(visit.visits.front().message.status, kOk);
    EXPECT_EQ(visit.visits[40].subject, "Shared");
    EXPECT_LT(visit.visits.back().message.status, kOk);
}

TEST(BatchCosts, RunsOfMessagesThatAreNotThere) {
    TestStore store;
    store.addFolder("A").addMessage(Named("a"));
    store.addFolder("B").property(kContentCount, 1'000'000U);
    FilterHost host(store.finished());
    const Visit visit = VisitAll(host);
    ASSERT_EQ(visit.visits.size(), 2U);
    EXPECT_EQ(visit.visits[0].message.messageCount, 1'000'001U);
    EXPECT_EQ(visit.visits[1].message.messageIndex, 1U);
    EXPECT_EQ(visit.visits[1].message.run, 1'000'000U);
    EXPECT_EQ(visit.visits[1].message.status, kUnusable);
    // Those that nobody wants split the run.
    const Visit split =
        VisitAll(host, [](std::uint32_t index) { return index % 250'000 == 0 ? BatchWish::kPass : BatchWish::kSummary; });
    ASSERT_EQ(split.visits.size(), 4U);
    EXPECT_EQ(split.visits[0].message.messageIndex, 1U);
    EXPECT_EQ(split.visits[0].message.run, 249'999U);
    EXPECT_EQ(split.visits[3].message.messageIndex, 750'001U);
    EXPECT_EQ(split.asked.size(), 1'000'001U);
}

TEST(BatchCosts, MorePagesThanATableCanHave) {
    TestStore store;
    store.addFolder("A").addMessage(Named("a"));
    store.addFolder("B").property(kContentCount, 0x7FFFFFF0U);
    CheckAgainstLoad(store.finished());
}

// Every folder's first message is one that its page cannot read, so that each page looks through all later folders.
TEST(BatchCosts, PagesThatLookForTheirMessageFurtherOn) {
    constexpr std::uint32_t kFolders = 300;
    TestStore store;
    for (std::uint32_t number = 0; number < kFolders; ++number) {
        Folder& folder = store.addFolder("F" + std::to_string(number));
        SpoilSender(store, folder.addMessage(Named("f")));
    }
    FilterHost host(store.finished());
    const Visit visit = VisitAll(host);
    ASSERT_EQ(visit.visits.size(), kFolders);
    EXPECT_EQ(visit.visits.front().message.status, kUnusable);
    EXPECT_EQ(visit.visits.back().message.status, kNoMemory);
    EXPECT_EQ(visit.visits.back().message.messageIndex, kFolders - 1);
}

enum class RtfState { None, Damaged };

/// A message of a node whose large value lies in holes: a few bytes of the file that read as many megabytes of zeros.
void AddMessageWithHoles(TestStore& store, Folder& folder, NodeId id, std::uint16_t property, std::uint32_t megabytes,
                         RtfState rtf = RtfState::None) {
    constexpr std::uint32_t kFullXblock = 1021 * 8176;
    const Layout layout = store.layout();
    PropertyList list(layout);
    list.property(kSubject, "holes").property(kHtml, BytesOf("[holes]")).property(property, Bytes(4000, 1));
    if (rtf == RtfState::Damaged) {
        list.property(kRtf, Bytes(4000, 1));  // without the subnode that would hold it
    }
    const NodeContent bag = propertyContext(layout, list.properties());
    store.beforeTrees([=](StoreWriter& writer) {
        const std::uint32_t size = megabytes << 20;
        const BlockId holes = writer.addExtendedBlock(2, std::vector<BlockId>(size / kFullXblock + 1, 0), size);
        const std::string name = StoreWriter::nodeName(id);
        const BlockId heap = writer.addDataTree(bag.data, name);
        writer.addNode(id, {heap, writer.addSubnodeTree({{bag.subnodes.begin()->first, holes, 0}}, name)}, 0);
    });
    folder.addBareRow(id);
}

// A store's holes are accounted for together. What only a page's own message takes of them is not missing on another page.
TEST(BatchCosts, HolesCountForThePageThatReadsThem) {
    constexpr NodeId kNext = 32;
    NodeId id = 0x300004;
    for (const std::uint16_t property : {std::uint16_t{0x0E04}, std::uint16_t{0x1000}}) {
        SCOPED_TRACE(property);
        TestStore store;
        Folder& folder = store.addFolder("A");
        for (int number = 0; number < 2; ++number) {
            AddMessageWithHoles(store, folder, id += kNext, property, 40);
        }
        folder.property(kContentCount, 2U);
        store.addFolder("B").addMessage(Named("b"));
        CheckAgainstLoad(store.finished(), Route::Memory, false);
    }
    // A message that many rows name counts once for the pages behind them.
    TestStore again;
    Folder& rows = again.addFolder("A");
    AddMessageWithHoles(again, rows, id += kNext, 0x1000, 30);
    rows.addBareRow(id);
    rows.addBareRow(id);
    rows.property(kContentCount, 3U);
    CheckAgainstLoad(again.finished(), Route::Memory, false);
    // A message that throws behind what it took of the holes is read twice, for its page and for those behind it.
    TestStore store;
    Folder& damaged = store.addFolder("A");
    AddMessageWithHoles(store, damaged, id += kNext, 0x1000, 20, RtfState::Damaged);
    damaged.property(kContentCount, 1U);
    Folder& behind = store.addFolder("B");
    AddMessageWithHoles(store, behind, id += kNext, 0x1000, 40);
    behind.property(kContentCount, 1U);
    store.addFolder("C").addMessage(Named("c"));
    CheckAgainstLoad(store.finished(), Route::Memory, false);
}

/// Puts a page of the block tree at the end of a store that it is given in a Unicode layout. @return its address
std::uint64_t AddTreePage(StoreImage& image, std::uint64_t id, const std::vector<std::array<std::uint64_t, 3>>& entries) {
    constexpr std::size_t kPageSize = 512;
    const std::size_t address = (image.bytes().size() + kPageSize - 1) / kPageSize * kPageSize;
    image.resize(address + kPageSize);
    std::size_t at = address;
    for (const auto& entry : entries) {  // lowest key, id and address of a page
        for (const std::uint64_t field : entry) {
            image.overwrite(at, field, 8);
            at += 8;
        }
    }
    image.overwrite(address + 488, entries.size(), 1);
    image.overwrite(address + 491, 1, 1);  // a level above the leaves
    image.overwrite(address + 496, 0x8080, 2);
    image.overwrite(address + 498, signatureOf(id, address), 2);
    image.overwrite(address + 504, id, 8);
    image.damageNumber("header", 184, image.bytes().size(), 8);  // ibFileEof
    return address;
}

/// Leads the look-ups of some blocks through a tower of pages, which all of them share. Each look-up loads its own copy of it,
/// and a tree may load no more bytes than the file has.
void AddTower(StoreImage& image, const std::vector<std::uint64_t>& blocks) {
    constexpr int kStoreys = 26;
    constexpr std::size_t kRootOfBlocks = 232;  // BREFBBT in the Unicode header: id, offset
    const Bytes header = image.content("header");
    std::uint64_t id = 0x100000;
    const std::array<std::uint64_t, 3> all = {0, getAt(header, kRootOfBlocks, 8), getAt(header, kRootOfBlocks + 8, 8)};
    std::array<std::uint64_t, 3> tower = all;
    for (int storey = 0; storey < kStoreys; ++storey) {
        const std::uint64_t address = AddTreePage(image, ++id, {tower});
        tower = {0, id, address};
    }
    std::vector<std::array<std::uint64_t, 3>> root = {all};
    for (const std::uint64_t block : blocks) {
        root.push_back({block, tower[1], tower[2]});
        root.push_back({block + 1, all[1], all[2]});
    }
    const std::uint64_t address = AddTreePage(image, ++id, root);
    image.damageNumber("header", kRootOfBlocks, id, 8);
    image.damageNumber("header", kRootOfBlocks + 8, address, 8);
}

// The trees of pages are accounted for likewise.
TEST(BatchCosts, TreePagesCountForThePageThatReadsThem) {
    struct Case {
        const char* what;
        std::uint16_t property;
        bool isReadInFront;
    };
    for (const auto& [what, property, isReadInFront] :
         {Case{"in a field that only the page reads", kSenderName, false}, Case{"in a body", kHtml, true}}) {
        SCOPED_TRACE(what);
        TestStore store;
        Folder& folder = store.addFolder("A");
        std::vector<std::string> places;
        for (const char* name : {"a", "b", "c", "d", "e", "f"}) {
            Message& message = folder.addMessage(Named(name));
            message.property(property, Bytes(4000, 'x'));
            places.push_back("block of sub" + StoreWriter::nodeName(kFirstLargeValue) + " of " +
                             StoreWriter::nodeName(message.id()));
        }
        store.damage([&places](StoreImage& image) {
            std::vector<std::uint64_t> blocks;
            for (const std::string& place : places) {
                blocks.push_back(image.place(place).id);
            }
            AddTower(image, blocks);
        });
        const std::vector<Visited> summaries = CheckAgainstLoad(store.finished(), Route::Memory, false);
        ASSERT_EQ(summaries.size(), 6U);
        EXPECT_EQ(summaries.front().message.status, kOk);
        EXPECT_EQ(summaries.back().message.status, isReadInFront ? kUnusable : kOk);
    }
}

// --------------------------------------------------------------------------------------------------------------- other sources

TEST(BatchItem, AsFltLoadGivesThem) {
    const std::string picture(60, 'p');
    msg::MsgBuilder html;
    html.text(msg::kSubject, "Hello").text(msg::kSenderName, "Ann").text(msg::kSenderSmtpAddress, "ann@example.org");
    html.text(msg::kDisplayTo, "Bob").time(msg::kClientSubmitTime, 0x01D321C5D1711780);
    html.binary(msg::kRtfCompressed, rtf::Stored("<html><img src=\"a.png\"></html>"));
    html.attach({.name = "a.png", .data = picture});
    const std::vector<Visited> summaries = CheckAgainstLoad(html.bytes());
    ASSERT_EQ(summaries.size(), 1U);
    EXPECT_EQ(summaries[0].subject, "Hello");
    EXPECT_EQ(summaries[0].senderName, "Ann");
    EXPECT_EQ(summaries[0].senderAddress, "ann@example.org");
    EXPECT_EQ(summaries[0].displayTo, "Bob");
    EXPECT_NE(summaries[0].date, "");
    EXPECT_EQ(summaries[0].message.sentTime, kSent);
    EXPECT_EQ(summaries[0].message.bodies, kBatchBodyHtml);
    EXPECT_EQ(summaries[0].message.size, html.bytes().size());
    EXPECT_EQ(summaries[0].message.sourceFormat, kFormatMsg);

    msg::MsgBuilder both;
    both.text(msg::kBody, "text").binary(msg::kRtfCompressed, rtf::Compressed(Rtf("rich")));
    EXPECT_EQ(CheckAgainstLoad(both.bytes()).at(0).message.bodies, kBatchBodyText | kBatchBodyRtf);
    msg::MsgBuilder none;
    EXPECT_EQ(CheckAgainstLoad(none.text(msg::kSubject, "alone").bytes()).at(0).message.bodies, 0U);
    msg::MsgBuilder tiny;
    tiny.binary(msg::kRtfCompressed, rtf::Stored("<html><img src=\"a.png\"></html>")).attach({.name = "a.png", .data = "x"});
    CheckAgainstLoad(tiny.bytes());  // its picture fails on one route, which is told beside the document
    msg::MsgBuilder damaged;
    damaged.text(msg::kBody, "text").binary(msg::kRtfCompressed, rtf::Block(rtf::kStored, 4, "text", 1));
    CheckAgainstLoad(damaged.bytes());
    CheckAgainstLoad(html.bytes().substr(0, 600));
    CheckAgainstLoad(html.bytes().substr(0, 12));
}

TEST(BatchInternetMessage, AsFltLoadGivesThem) {
    const std::string picture(60, 'p');
    const auto inner = mime::Multipart("alternative", {mime::Plain("plain"), mime::Html("<img src=\"cid:a@b\">")});
    const std::string nested = mime::Multipart("related", {inner, mime::Picture("a.png", picture, "a@b")}).addressed().bytes();
    const std::vector<Visited> summaries = CheckAgainstLoad(nested);
    ASSERT_EQ(summaries.size(), 1U);
    EXPECT_NE(summaries[0].subject, "");
    EXPECT_NE(summaries[0].senderName, "");
    EXPECT_EQ(summaries[0].senderAddress, "");
    EXPECT_NE(summaries[0].message.sentTime, kBatchNoTime);
    EXPECT_EQ(summaries[0].message.bodies, kBatchBodyHtml);
    EXPECT_EQ(summaries[0].message.size, nested.size());
    EXPECT_EQ(summaries[0].message.sourceFormat, kFormatEml);
    EXPECT_EQ(CheckAgainstLoad(mime::Plain("text").addressed().bytes()).at(0).message.bodies, kBatchBodyText);
    CheckAgainstLoad(mime::Html("<body never closed").addressed().bytes());
    const std::string eightBit = "To: Zo\xC3\xAB\r\nSubject: J\xF6rg\r\nContent-Type: text/plain\r\n\r\ntext";
    EXPECT_EQ(CheckAgainstLoad(eightBit).at(0).displayTo, "Zo\xC3\xAB");
    EXPECT_EQ(CheckAgainstLoad(eightBit).at(0).subject, "J\xC3\xB6rg");
    CheckAgainstLoad("no fields, and no text that could be shown");
    CheckAgainstLoad("eleven byte");
}

TEST(BatchInternetMessage, SentTime) {
    const auto sentTime = [](const std::string& date) {
        return CheckAgainstLoad("Date: " + date + "\r\nContent-Type: text/plain\r\n\r\ntext").at(0).message.sentTime;
    };
    struct Case {
        const char* date;
        std::int64_t seconds;
    };
    for (const auto& [date, seconds] : {
             Case{"Wed, 30 Aug 2017 19:26:03 +0000", kSent},
             Case{"Wed, 30 Aug 2017 21:26:03 +0200", kSent},
             Case{"30 Aug 2017 14:56:03 -0430", kSent},
             Case{"wednesday , 30 august 2017 19 : 26 : 03 GMT", kSent},
             Case{"Wed, 30 Aug 17 15:26:03 EDT", kSent},
             Case{"Wed (Mi (tw)) 30-Aug-2017 19:26:03 (no zone", kSent},
             Case{"30 Aug 117 19:26:03 Z", kSent},
             Case{"Wed, 30 Aug 2017 19:26 +0000", kSent - 3},
             Case{"30 Aug 2017", kSent - 19 * 3600 - 26 * 60 - 3},
             Case{"1 Jan 1970 00:00:00 +0100", -3600},
             Case{"29 Feb 2024 00:00:00 +0000", 1709164800},
             Case{"31 Dec 2016 23:59:60 +0000", 1483228800},
             Case{"29 Feb 2023 00:00:00 +0000", kBatchNoTime},
             Case{"31 Apr 2023 00:00:00 +0000", kBatchNoTime},
             Case{"30 Aug 2017 24:00:00 +0000", kBatchNoTime},
             Case{"30 Aug 2017 19:60:00 +0000", kBatchNoTime},
             Case{"30 Aug 2017 19:26:61 +0000", kBatchNoTime},
             Case{"30 Aug 2017 19:26:03 +02", kBatchNoTime},
             Case{"30 Aug 2017 19:26:03 +0260", kBatchNoTime},
             Case{"30 Aug 2017 19:", kBatchNoTime},
             Case{"30 Aug 20177 19:26:03 +0000", kBatchNoTime},
             Case{"30 08 2017 19:26:03 +0000", kBatchNoTime},
             Case{"2017-08-30T19:26:03Z", kBatchNoTime},
             Case{"99999999999999999999 Aug 2017", kBatchNoTime},
             Case{"today", kBatchNoTime},
             Case{"", kBatchNoTime},
         }) {
        SCOPED_TRACE(date);
        EXPECT_EQ(sentTime(date), seconds);
    }
}

// ----------------------------------------------------------------------------------------------------------------- the request

std::string ThreePictures() {
    TestStore store;
    Folder& folder = store.addFolder("A");
    for (const char* name : {"a", "b", "c"}) {
        folder.addMessage(Html(name, "<img src=\"cid:p.png\">")).attach(Picture("p.png"));
    }
    return store.finished();
}

TEST(BatchRequests, TheVisitorEndsTheVisit) {
    FilterHost host(ThreePictures(), Route::TemporaryFiles);
    const Visit visit = VisitAll(host, nullptr, false, 2);
    EXPECT_EQ(visit.status, kOk);
    EXPECT_EQ(visit.visits.size(), 2U);
    EXPECT_EQ(visit.asked, (std::vector<std::uint32_t>{0, 1}));
    EXPECT_TRUE(visit.visits[1].inFile);
    EXPECT_EQ(visit.visits[1].outcome.files.size(), 1U);
}

TEST(BatchRequests, TheVisitorTakesTheFiles) {
    FilterHost host(ThreePictures(), Route::TemporaryFiles);
    const std::u16string name = Wide(host.root.inputPath());
    std::string kept = host.root.inputPath() + "-kept";
    BatchRequest request{sizeof(BatchRequest), name.c_str(), 0, &kept, nullptr, nullptr};
    request.visit = [](void* userData, const BatchMessage* message) {
        const std::string& target = *static_cast<std::string*>(userData);
        char native[4096];
        EXPECT_NE(TbHostNativePath(message->htmlPath, native, sizeof(native)), 0U);
        std::filesystem::rename(native, target + ".html");
        std::filesystem::rename(message->tempFiles[0], target + ".png");
        return std::int32_t{1};
    };
    EXPECT_EQ(TernVisitMessages(&request), kOk);
    EXPECT_EQ(host.root.leftovers(), std::vector<std::string>());
    EXPECT_NE(ReadWholeFile(kept + ".html").find("_p.png"), std::string::npos);
    EXPECT_EQ(ReadWholeFile(kept + ".png"), std::string(60, 'p'));
}

TEST(BatchRequests, WhatIsRefused) {
    FilterHost host(ThreePictures());
    const std::u16string name = Wide(host.root.inputPath());
    const auto visit = [](void* userData, const BatchMessage*) {
        ++*static_cast<int*>(userData);
        return std::int32_t{1};
    };
    int visits = 0;
    const BatchRequest sound{sizeof(BatchRequest), name.c_str(), 0, &visits, nullptr, visit};
    EXPECT_EQ(TernVisitMessages(nullptr), kBadArgument);
    BatchRequest request = sound;
    request.structSize -= 1;
    EXPECT_EQ(TernVisitMessages(&request), kBadArgument);
    request = sound;
    request.fileName = nullptr;
    EXPECT_EQ(TernVisitMessages(&request), kBadArgument);
    request = sound;
    request.visit = nullptr;
    EXPECT_EQ(TernVisitMessages(&request), kBadArgument);
    request = sound;
    const std::u16string nowhere = name + u"-nowhere";
    request.fileName = nowhere.c_str();
    EXPECT_EQ(TernVisitMessages(&request), kCannotOpen);
    EXPECT_EQ(visits, 0);
    EXPECT_EQ(TernVisitMessages(&sound), kOk);
    EXPECT_EQ(visits, 3);
}

}  // namespace
