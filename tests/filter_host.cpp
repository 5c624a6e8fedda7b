#include "filter_host.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

using namespace ternkit;
namespace fs = std::filesystem;

namespace {

constexpr char kRuntimeVariable[] = "XDG_RUNTIME_DIR";

FilterHost* current = nullptr;  // the loaders have no argument that could lead back to the host

void Note(const char* loader, HostFileInfo* info, HostLoadOptions* options) {
    Delivery& delivery = current->delivery;
    delivery.loader = loader;
    delivery.info = *info;
    delivery.options = *options;
    delivery.optionsAddress = options;
    for (const auto& entry : fs::recursive_directory_iterator(current->root.runtimePath())) {
        if (entry.is_directory()) {
            delivery.directories.push_back(entry.path());
        } else if (entry.path() != delivery.documentPath) {
            delivery.files[entry.path().filename()] = ReadWholeFile(entry.path());
        }
    }
}

void TakeFile(const char16_t* path) {
    char native[4096];
    ASSERT_NE(TbHostNativePath(path, native, sizeof(native)), 0U);
    current->delivery.documentPath = native;
    current->delivery.document = ReadWholeFile(native);
}

void TakeMemory(const void* document, std::uint64_t size) {
    current->delivery.document.assign(static_cast<const char*>(document), size);
}

Status Answer(HostFileInfo* info, HostLoadOptions* options) {
    const LoaderAnswer& answer = current->answer;
    info->totalPages = answer.totalPages;
    info->width = answer.width;
    info->height = answer.height;
    info->xResolution = answer.xResolution;
    info->yResolution = answer.yResolution;
    if (answer.format) {
        info->format = *answer.format;
    }
    std::memcpy(info->pageValue, "pagevalu", sizeof(info->pageValue));
    if (answer.meanwhile) {
        answer.meanwhile(*info);
    }
    options->pageNumber = -1;  // a copy: must not reach the caller
    return answer.status;
}

Status InfoFromFile(const char16_t* path, HostFileInfo* info, std::uint32_t infoSize, std::uint32_t flags,
                    HostLoadOptions* options) {
    TakeFile(path);
    Note("loadInfoFromFile", info, options);
    current->delivery.numbers = {infoSize, flags};
    return Answer(info, options);
}

Status InfoFromMemory(const void* document, HostFileInfo* info, std::uint32_t infoSize, std::uint64_t size, std::uint32_t flags,
                      HostLoadOptions* options) {
    TakeMemory(document, size);
    Note("loadInfoFromMemory", info, options);
    current->delivery.numbers = {infoSize, flags};
    return Answer(info, options);
}

Status FromFile(const char16_t* path, void* bitmap, std::uint32_t bitmapSize, std::uint32_t bitsPerPixel, std::uint32_t one,
                std::uint32_t thirtyTwo, void* callback, void* userData, HostLoadOptions* options, HostFileInfo* info) {
    TakeFile(path);
    Note("loadFromFile", info, options);
    current->delivery.numbers = {bitmapSize, bitsPerPixel, one, thirtyTwo};
    current->delivery.passed = {bitmap, callback, userData};
    return Answer(info, options);
}

Status FromMemory(const void* document, void* bitmap, std::uint32_t bitmapSize, std::uint32_t bitsPerPixel, std::uint32_t one,
                  std::uint32_t thirtyTwo, void* callback, void* userData, std::uint64_t size, HostLoadOptions* options,
                  HostFileInfo* info) {
    TakeMemory(document, size);
    Note("loadFromMemory", info, options);
    current->delivery.numbers = {bitmapSize, bitsPerPixel, one, thirtyTwo};
    current->delivery.passed = {bitmap, callback, userData};
    return Answer(info, options);
}

Status AlternativeFromFile(const char16_t* path, void* target, HostLoadOptions* options, HostFileInfo* info) {
    TakeFile(path);
    Note("alternativeLoadFromFile", info, options);
    current->delivery.passed = {target};
    return Answer(info, options);
}

Status AlternativeFromMemory(const void* document, void* target, std::uint64_t size, HostLoadOptions* options,
                             HostFileInfo* info) {
    TakeMemory(document, size);
    Note("alternativeLoadFromMemory", info, options);
    current->delivery.passed = {target};
    return Answer(info, options);
}

}  // namespace

TemporaryRoot::TemporaryRoot() {
    std::string pattern = fs::temp_directory_path() / "ternmail-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        std::abort();  // nothing can be tested without a place for it
    }
    m_path = pattern;
    fs::create_directory(runtimePath());
    if (const char* value = std::getenv(kRuntimeVariable)) {
        m_previous = value;
    }
    setenv(kRuntimeVariable, runtimePath().c_str(), 1);
}

TemporaryRoot::~TemporaryRoot() {
    if (m_previous) {
        setenv(kRuntimeVariable, m_previous->c_str(), 1);
    } else {
        unsetenv(kRuntimeVariable);
    }
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

std::string TemporaryRoot::privatePath() const {
    return runtimePath() + "/ternkit-" + std::to_string(geteuid());
}

std::vector<std::string> TemporaryRoot::leftovers() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(runtimePath())) {
        if (entry.path() != privatePath()) {
            names.push_back(entry.path().string() + (entry.is_directory() ? "/" : ""));
        }
    }
    return names;
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void WriteWholeFile(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary);
    file << bytes;
    ASSERT_TRUE(file.flush()) << path;
}

std::u16string Wide(const std::string& path) {
    return {path.begin(), path.end()};
}

FilterHost::FilterHost(const std::string& message, Route route) : m_fileName(Wide(root.inputPath())) {
    WriteWholeFile(root.inputPath(), message);
    TbHostSetLoadMode(route == Route::Memory ? 3 : 0);
    fileInfo.structSize = kHostFileInfoSize;
    options.pageNumber = 2;
    infoRequest.fileName = m_fileName.c_str();
    infoRequest.fileInfo = &fileInfo;
    infoRequest.options = &options;
    infoRequest.loadInfoFromFile = InfoFromFile;
    infoRequest.loadInfoFromMemory = InfoFromMemory;
    infoRequest.messageNumber = 1;
    loadRequest.fileName = m_fileName.c_str();
    loadRequest.fileInfo = &fileInfo;
    loadRequest.options = &options;
    loadRequest.resultStatus = kOk;
    loadRequest.messageNumber = 1;
    loadRequest.loadFromFile = FromFile;
    loadRequest.loadFromMemory = FromMemory;
    loadRequest.alternativeLoadFromFile = AlternativeFromFile;
    loadRequest.alternativeLoadFromMemory = AlternativeFromMemory;
}

FilterHost::~FilterHost() {
    EXPECT_EQ(root.leftovers(), std::vector<std::string>());
    TbHostSetLoadMode(0);
}

Status FilterHost::info() {
    delivery = {};
    current = this;
    infoRequest.fileHandle = TbFileOpen(m_fileName.c_str(), 0, 256);
    EXPECT_NE(Value(infoRequest.fileHandle), kInvalidHandle);
    TbFileSeek(infoRequest.fileHandle, 5, kTbSeekStart);  // wherever the host left it
    const Status status = fltInfo(&infoRequest);
    TbFileClose(infoRequest.fileHandle);
    current = nullptr;
    return status;
}

Status FilterHost::load() {
    delivery = {};
    current = this;
    const Status status = fltLoad(&loadRequest);
    current = nullptr;
    return status;
}

Shown Show(const std::string& message, Route route) {
    FilterHost host(message, route);
    Shown shown;
    shown.status = host.info();
    shown.format = host.delivery.info.format;
    shown.document = host.delivery.document;
    shown.pictures = host.delivery.files;
    EXPECT_EQ(host.load(), shown.status);
    EXPECT_EQ(Value(host.delivery.info.format), shown.format);
    EXPECT_TRUE(host.delivery.document == shown.document) << "the two exports make different documents";
    EXPECT_EQ(host.delivery.files, shown.pictures);
    return shown;
}
