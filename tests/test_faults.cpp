// Every call to the system and every allocation fails once, and a file changes at every read. What was asked for ends in a
// status, and nothing is left of it: no memory, no handle, no temporary file.
#include <gtest/gtest.h>
#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include <ternkit/batch.h>
#include <ternkit/filter.h>
#include <ternkit/load_cache.h>

#include "faulty_system.h"
#include "filter_host.h"
#include "mime_builder.h"
#include "msg_builder.h"
#include "rtf_compressor.h"
#include "store_builder.h"
#include "ternbase/ternbase.h"

using namespace ternkit;
using faulty::Call;
using faulty::Fault;
using namespace std::literals;
namespace fs = std::filesystem;

namespace {

struct Kind {
    const char* name;
    std::string bytes;
};

/// A message with a picture in each kind of file; the store has one in RTF besides.
std::vector<Kind> Files() {
    const std::string html =
        "<html><body>Gr\xC3\xBC\xC3\x9F"
        "e <img src=\"cid:1@x\"></body></html>";
    const std::string picture(60, '\x89');
    const std::string rtf = "{\\rtf1\\ansi\\deff0{\\fonttbl{\\f0\\fswiss Arial;}}\r\n\\pard\\plain\\f0 Hello\\par}";
    msg::MsgBuilder item;
    item.text(msg::kSubject, "\xC3\x9C").text(msg::kSenderName, "Ann").binary(msg::kRtfCompressed, rtf::Stored(html));
    item.attach({.name = "a.png", .contentId = "1@x", .data = picture});
    builder::StoreBuilder store(builder::Layout::Unicode, builder::Encoding::Permutative);
    builder::Folder& inbox = store.addFolder("Inbox");
    builder::AttachmentFields attachment{.longName = "a.png", .contentId = "1@x", .mimeTag = "image/png"};
    attachment.data = builder::Bytes(picture.begin(), picture.end());
    inbox.addMessage({.subject = "One", .htmlBody = html}).attach(attachment);
    const std::string compressed = rtf::Compressed(rtf);
    inbox.addMessage({.subject = "\xC3\x9C", .rtfCompressed = builder::Bytes(compressed.begin(), compressed.end())});
    const builder::Bytes bytes = store.bytes();
    return {{"eml", mime::Multipart("related",
                                    {mime::Html(html, mime::Encoding::QuotedPrintable), mime::Picture("a.png", picture, "1@x")})
                        .addressed()
                        .bytes()},
            {"msg", item.bytes()},
            {"pst", {bytes.begin(), bytes.end()}}};
}

// ---- one visit of a file, by each way that a host has

/// What the loaders were given, one after the other.
std::vector<std::string> documents;

Status Take(const void* document, std::uint64_t size) {
    const faulty::Pause pause;
    documents.emplace_back(static_cast<const char*>(document), size);
    return kOk;
}

Status TakeFile(const char16_t* path) {
    const faulty::Pause pause;
    std::array<char, 4096> native;
    if (TbHostNativePath(path, native.data(), native.size()) == 0) {
        return kBadArgument;
    }
    std::string content = ReadWholeFile(native.data());
    const fs::path directory = fs::path(native.data()).parent_path();
    for (const auto& file : fs::directory_iterator(directory)) {
        if (file.path() != native.data() && file.is_regular_file()) {
            content += "|" + file.path().filename().string() + ":" + ReadWholeFile(file.path());
        }
    }
    documents.push_back(content);
    return kOk;
}

Status InfoFromFile(const char16_t* path, HostFileInfo*, std::uint32_t, std::uint32_t, HostLoadOptions*) {
    return TakeFile(path);
}

Status InfoFromMemory(const void* document, HostFileInfo*, std::uint32_t, std::uint64_t size, std::uint32_t, HostLoadOptions*) {
    return Take(document, size);
}

Status FromFile(const char16_t* path, void*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, void*, void*,
                HostLoadOptions*, HostFileInfo*) {
    return TakeFile(path);
}

Status FromMemory(const void* document, void*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, void*, void*,
                  std::uint64_t size, HostLoadOptions*, HostFileInfo*) {
    return Take(document, size);
}

Status Info(const char16_t* name, LoadCacheSlot* slot) {
    HostFileInfo info{};
    info.structSize = kHostFileInfoSize;
    HostLoadOptions options{};
    FilterInfoRequest request{};
    request.fileName = name;
    request.fileInfo = &info;
    request.options = &options;
    request.loadInfoFromFile = InfoFromFile;
    request.loadInfoFromMemory = InfoFromMemory;
    request.messageNumber = 1;
    request.cacheSlot = slot;
    {
        const faulty::Pause pause;  // the host's own handle
        request.fileHandle = TbFileOpen(name, 0, 256);
    }
    const Status status = fltInfo(&request);
    const faulty::Pause pause;
    TbFileClose(request.fileHandle);
    return status;
}

Status Load(const char16_t* name, LoadCacheSlot* slot) {
    HostFileInfo info{};
    info.structSize = kHostFileInfoSize;
    HostLoadOptions options{};
    FilterLoadRequest request{};
    request.fileName = name;
    request.fileInfo = &info;
    request.options = &options;
    request.resultStatus = kOk;
    request.messageNumber = 1;
    request.loadFromFile = FromFile;
    request.loadFromMemory = FromMemory;
    request.cacheSlot = slot;
    return fltLoad(&request);
}

Status ThroughSlot(const char16_t* name) {
    constexpr std::uint32_t kRecordTag = 7;
    LoadCacheSlot slot{};
    slot.defaultTag = kRecordTag;
    const Status info = Info(name, &slot);
    const Status load = Load(name, &slot);
    if (slot.data != nullptr && slot.dataTag == kBlockDataTag) {
        auto* block = static_cast<MultiLoadBlock*>(slot.data);
        for (std::int32_t i = 0; i < block->count; ++i) {
            if (entriesOf(block)[i].data != nullptr && entriesOf(block)[i].dataTag == kRecordTag) {
                fltFreeData(entriesOf(block)[i].data, 0);
            }
        }
        TbHostFreeBlock(block);
    } else if (slot.data != nullptr) {
        fltFreeData(slot.data, 0);
    }
    return info < kOk ? info : load;
}

std::int32_t TakeMessage(void* userData, const BatchMessage* message) {
    Status& worst = *static_cast<Status*>(userData);
    worst = std::min(worst, message->status);
    if (message->htmlPath != nullptr) {
        return TakeFile(message->htmlPath);
    }
    return message->document != nullptr ? Take(message->document, message->documentSize) : kOk;
}

Status VisitAll(const char16_t* name) {
    Status worst = kOk;
    const BatchRequest request{sizeof(BatchRequest), name, kBatchPlainTextNever, &worst, nullptr, TakeMessage};
    return std::min(TernVisitMessages(&request), worst);
}

struct Way {
    const char* name;
    Status (*go)(const char16_t* name);
};
const Way kWays[] = {{"fltInfo", [](const char16_t* name) { return Info(name, nullptr); }},
                     {"fltLoad", [](const char16_t* name) { return Load(name, nullptr); }},
                     {"both through a slot", ThroughSlot},
                     {"TernVisitMessages", VisitAll}};

std::size_t OpenDescriptors() {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

struct Ending {
    Status status = 0;
    bool hasStruck = false;
    std::array<std::uint64_t, faulty::kCalls> counts{};
    std::vector<std::string> documents;
};

enum class Attempt { First, Second };

/// Goes one way with one fault. Whatever comes of it, nothing stays.
Ending Try(const TemporaryRoot& root, const Way& way, const Fault& fault, Attempt attempt = Attempt::First) {
    const std::u16string name = Wide(root.inputPath());
    fs::remove_all(root.privatePath());  // made at the first need, it stays
    const std::size_t descriptors = OpenDescriptors();
    Ending ending;
    std::int64_t blocks = 0;
    documents.clear();
    documents.reserve(8);
    {
        const faulty::Trial trial(fault);
        try {
            ending.status = way.go(name.c_str());
        } catch (...) {
            ADD_FAILURE() << "an exception left an export";
        }
        ending.hasStruck = trial.hasStruck();
        blocks = trial.blocks();
        for (int call = 0; call < faulty::kCalls; ++call) {
            ending.counts[static_cast<std::size_t>(call)] = trial.count(static_cast<Call>(call));
        }
    }
    if (blocks != 0 && attempt == Attempt::First) {
        return Try(root, way, fault, Attempt::Second);  // what was made once and is kept is there now
    }
    EXPECT_EQ(blocks, 0) << "memory is left";
    EXPECT_EQ(OpenDescriptors(), descriptors) << "a handle is left";
    if (fault.call != Call::Directory) {  // that may be the moment of removing something; hosts remove the whole directory
        EXPECT_EQ(root.leftovers(), std::vector<std::string>());
    }
    ending.documents = documents;
    return ending;
}

/// Goes all ways over all files.
/// @param check gets the sound ending
void OverEverything(const std::function<void(const TemporaryRoot&, const Kind&, const Way&, Route, const Ending&)>& check) {
    for (const Kind& kind : Files()) {
        for (const Route route : kBothRoutes) {
            const TemporaryRoot root;
            WriteWholeFile(root.inputPath(), kind.bytes);
            TbHostSetLoadMode(route == Route::Memory ? kTbLoadModeMemoryOnly : 0);
            for (const Way& way : kWays) {
                SCOPED_TRACE(std::string(kind.name) + ", " + way.name + (route == Route::Memory ? ", memory" : ", files"));
                way.go(Wide(root.inputPath()).c_str());  // what is made once and kept is there from now on
                const Ending sound = Try(root, way, {});
                ASSERT_EQ(sound.status, kOk);
                ASSERT_FALSE(sound.documents.empty());
                check(root, kind, way, route, sound);
                fs::remove_all(root.privatePath());
                if (testing::Test::HasFailure()) {
                    return;
                }
            }
            TbHostSetLoadMode(0);
        }
    }
}

/// Of a store's message or an item, a header field or a picture that cannot be had is left out.
bool LacksSomething(const Ending& ending, const Ending& sound) {
    return std::equal(ending.documents.begin(), ending.documents.end(), sound.documents.begin(), sound.documents.end(),
                      [](const std::string& one, const std::string& whole) { return one.size() <= whole.size(); });
}

TEST(Faults, EveryCallFailsOnce) {
    struct Case {
        const char* what;
        Fault fault;
    };
    const Case cases[] = {
        {"reading fails", {.call = Call::Read}},
        {"reading fails from there on", {.call = Call::Read, .lasts = true}},
        {"reading stops early", {.call = Call::Read, .lasts = true, .moved = 100, .isEnd = true}},
        {"the file's state is not told", {.call = Call::Status}},
        {"nothing can be opened", {.call = Call::Open}},
        {"nothing can be opened from there on", {.call = Call::Open, .lasts = true}},
        {"a directory cannot be looked into", {.call = Call::Directory}},
        {"no directory can be made", {.call = Call::Make}},
        {"writing fails", {.call = Call::Write}},
        {"the disk is full", {.call = Call::Write, .lasts = true, .moved = 10}},
        {"the temporary file is not emptied", {.call = Call::Truncate}},
        {"there is no chance", {.call = Call::Random}},
        {"memory is short", {.call = Call::Memory}},
        {"memory is short from there on", {.call = Call::Memory, .lasts = true}},
    };
    std::array<std::uint64_t, faulty::kCalls> total{};
    OverEverything([&](const TemporaryRoot& root, const Kind& kind, const Way& way, Route, const Ending& sound) {
        for (const auto& [what, fault] : cases) {
            SCOPED_TRACE(what);
            const std::uint64_t calls = sound.counts[static_cast<std::size_t>(fault.call)];
            for (std::uint64_t number = 1; number <= calls; ++number) {
                Fault here = fault;
                here.number = number;
                const Ending ending = Try(root, way, here);
                ASSERT_TRUE(ending.hasStruck) << number;
                ASSERT_TRUE(ending.status < kOk || ending.status == kOk) << number;
                if (ending.status == kOk) {
                    ASSERT_TRUE(ending.documents == sound.documents || (kind.name != "eml"s && LacksSomething(ending, sound)))
                        << number << " of " << calls;
                }
                total[static_cast<std::size_t>(fault.call)] += 1;
                ASSERT_FALSE(testing::Test::HasFailure()) << number << " of " << calls;
            }
        }
    });
    EXPECT_EQ(std::count(total.begin(), total.end(), 0U), 0) << "every call is led through here";
}

TEST(Faults, TheFileChangesAtEveryRead) {
    const std::vector<Kind> files = Files();
    OverEverything([&](const TemporaryRoot& root, const Kind& kind, const Way& way, Route, const Ending& sound) {
        const std::string path = root.inputPath();
        const std::function<void()> changes[] = {
            [&] { fs::resize_file(path, kind.bytes.size() / 2); },
            [&] { fs::resize_file(path, 0); },
            [&] { fs::resize_file(path, kind.bytes.size() * 3); },
            [&] { std::ofstream(path, std::ios::app) << kind.bytes; },
            [&] { std::fstream(path) << std::string(kind.bytes.size(), '\xFF'); },
            [&] { std::fstream(path) << files[kind.bytes == files[0].bytes ? 2 : 0].bytes; },
            [&] {  // another file takes the name
                fs::remove(path);
                WriteWholeFile(path, files[1].bytes);
            },
            [&] { fs::remove(path); },
        };
        for (std::size_t i = 0; i < std::size(changes); ++i) {
            for (std::uint64_t number = 1; number <= sound.counts[static_cast<std::size_t>(Call::Read)]; ++number) {
                const Ending ending = Try(root, way, {.call = Call::Read, .number = number, .meanwhile = changes[i]});
                ASSERT_TRUE(ending.hasStruck);
                ASSERT_TRUE(ending.status < kOk || ending.status == kOk) << i << ' ' << number;
                fs::remove(path);
                WriteWholeFile(path, kind.bytes);
                ASSERT_FALSE(testing::Test::HasFailure()) << i << ' ' << number;
            }
        }
    });
}

}  // namespace
