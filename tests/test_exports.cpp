// The libraries as a host finds them: their dynamic symbols, and the way from TERN_Load to the other exports.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include <ternkit/batch.h>
#include <ternkit/filter.h>

using namespace ternkit;

namespace {

std::set<std::string> DefinedSymbols(const std::string& library) {
    const std::unique_ptr<FILE, int (*)(FILE*)> listing(popen(("nm -D --defined-only '" + library + "'").c_str(), "r"), pclose);
    std::string text;
    char piece[4096];
    while (listing && std::fgets(piece, sizeof(piece), listing.get()) != nullptr) {
        text += piece;
    }
    std::set<std::string> names;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        names.insert(line.substr(line.rfind(' ') + 1));
    }
    return names;
}

TEST(Exports, FourFunctionsAndNothingElse) {
    EXPECT_EQ(DefinedSymbols(TERNMAIL_LIBRARY), (std::set<std::string>{"TERN_Load", "fltFreeData", "fltInfo", "fltLoad"}));
}

TEST(Exports, OneFunctionOfTheLibraryForAllMessages) {
    EXPECT_EQ(DefinedSymbols(TERNMAIL_BATCH_LIBRARY), (std::set<std::string>{"TernVisitMessages"}));
    void* library = dlopen(TERNMAIL_BATCH_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto visitMessages = reinterpret_cast<VisitMessages>(dlsym(library, kVisitMessagesName));
    ASSERT_NE(visitMessages, nullptr);
    EXPECT_EQ(visitMessages(nullptr), kBadArgument);
    dlclose(library);
}

TEST(Exports, TheModuleIntroducesItself) {
    void* library = dlopen(TERNMAIL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto ternLoad = reinterpret_cast<TernLoad>(dlsym(library, kTernLoadName));
    ASSERT_NE(ternLoad, nullptr);
    TernModule module{};
    EXPECT_EQ(ternLoad(nullptr), kBadArgument);
    module.structSize = sizeof(module) - 1;
    EXPECT_EQ(ternLoad(&module), kBadArgument);
    module.structSize = sizeof(module);
    ASSERT_EQ(ternLoad(&module), kOk);
    const std::unique_ptr<char, void (*)(void*)> expected(realpath(TERNMAIL_LIBRARY, nullptr), std::free);
    const std::unique_ptr<char, void (*)(void*)> found(realpath(module.path, nullptr), std::free);
    ASSERT_TRUE(found) << module.path;
    EXPECT_STREQ(found.get(), expected.get());
    EXPECT_EQ(reinterpret_cast<void*>(module.fltInfo), dlsym(library, "fltInfo"));
    EXPECT_EQ(reinterpret_cast<void*>(module.fltLoad), dlsym(library, "fltLoad"));
    EXPECT_EQ(reinterpret_cast<void*>(module.fltFreeData), dlsym(library, "fltFreeData"));
    dlclose(library);
    // The kernel keeps the module: its functions stay callable.
    EXPECT_EQ(module.fltInfo(nullptr), kBadArgument);
    EXPECT_EQ(module.fltLoad(nullptr), kBadArgument);
    EXPECT_EQ(module.fltFreeData(nullptr, 0), kBadArgument);
}

}  // namespace
