// The host's slot: requests that share it, and that everything in it goes with it, whether or not a loader keeps data there.

#include "cache_slot.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "mime_builder.h"

namespace {

namespace fs = std::filesystem;
using ternkit::HostFileInfo;
using ternkit::HostLoadOptions;
using ternkit::Status;
using ternview::CacheSlot;

constexpr std::uint32_t kLoaderTag = 5;

/// A loader that keeps a text of its own for each message, unless it is told not to.
struct KeepingLoader {
    bool keeps = true;
    std::string told;  // the kept text that the last load was given
};
KeepingLoader loader;

Status describeAndKeep(const char16_t*, HostFileInfo* info, std::uint32_t, std::uint32_t flags, HostLoadOptions*) {
    info->totalPages = 1;
    info->xResolution = info->yResolution = 96;
    if (loader.keeps && flags == ternkit::kInfoWithCache) {
        auto text = std::make_unique<std::string>("laid out");
        info->loaderDataSize = text->size();
        info->loaderDataTag = kLoaderTag;
        info->loaderData = text.release();
    }
    return ternkit::kOk;
}

Status loadFromKept(const char16_t*, void*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, void*, void*,
                    HostLoadOptions* options, HostFileInfo*) {
    const bool isGiven = (options->flags & ternkit::kLoaderDataGiven) != 0 && options->filterDataTag == kLoaderTag;
    loader.told = isGiven ? *static_cast<const std::string*>(options->filterData) : "";
    return ternkit::kOk;
}

TEST(CacheSlot, EverythingInItGoesWithIt) {
    std::string root = (fs::temp_directory_path() / "test-cache-slot-XXXXXX").string();
    ASSERT_NE(mkdtemp(root.data()), nullptr);
    const char* const previous = std::getenv("XDG_RUNTIME_DIR");
    const std::string before = previous != nullptr ? previous : "";
    setenv("XDG_RUNTIME_DIR", root.c_str(), 1);
    const fs::path temporary = root + "/ternkit-" + std::to_string(geteuid());
    const std::string mail = root + "/mail.eml";
    std::ofstream(mail, std::ios::binary) << mime::Html("<html><body>Hello</body></html>").addressed().bytes();
    TbHostSetLoadMode(0);

    const ternview::FilterModule module;
    const ternview::MailFile file(mail);
    for (const bool keeps : {false, true}) {
        loader = {keeps, "?"};
        std::vector<std::string> freed;
        ternview::Job job;
        {
            CacheSlot slot(module, [&freed](void* data, std::uint64_t size, std::uint32_t tag) {
                const std::unique_ptr<std::string> text(static_cast<std::string*>(data));
                freed.push_back(*text + " " + std::to_string(size) + " " + std::to_string(tag));
            });
            ternview::InfoCallRecords info(file, job);
            info.request.cacheSlot = slot.record();
            info.request.loadInfoFromFile = describeAndKeep;
            ASSERT_EQ(module.info(info.request), ternkit::kOk);
            const std::uint32_t tag = slot.record()->dataTag;
            EXPECT_EQ(tag, keeps ? ternkit::kBlockDataTag : ternview::kFilterRecordTag);
            ternview::LoadCallRecords load(file, job);
            load.request.cacheSlot = slot.record();
            load.request.loadFromFile = loadFromKept;
            ASSERT_EQ(module.load(load.request), ternkit::kOk);
            EXPECT_EQ(loader.told, keeps ? "laid out" : "");
            EXPECT_FALSE(fs::is_empty(temporary)) << "the document lives as long as the slot";
            EXPECT_TRUE(freed.empty());
        }
        EXPECT_TRUE(fs::is_empty(temporary));
        EXPECT_EQ(freed, keeps ? std::vector<std::string>{"laid out 8 5"} : std::vector<std::string>{});
    }

    previous != nullptr ? setenv("XDG_RUNTIME_DIR", before.c_str(), 1) : unsetenv("XDG_RUNTIME_DIR");
    fs::remove_all(root);
}

}  // namespace
