// The smallest host of the mail filter: mail_host FILE prints what the file is and the document that the filter makes of it.
#include <dlfcn.h>

#include <codecvt>
#include <cstdio>
#include <cstdlib>
#include <locale>
#include <string>

#include <ternkit/ternbase.h>

using namespace ternkit;

namespace {

// Loaders get the document. A host that shows pages lays it out here; this one looks at its size.
std::uint64_t documentSize = 0;

Status describeDocument(const void*, HostFileInfo* info, std::uint32_t, std::uint64_t size, std::uint32_t, HostLoadOptions*) {
    documentSize = size;
    info->totalPages = 1;
    return kOk;
}

Status loadDocument(const void* document, void* output, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, void*, void*,
                    std::uint64_t size, HostLoadOptions*, HostFileInfo*) {
    documentSize = size;
    return std::fwrite(document, 1, size, static_cast<FILE*>(output)) == size ? kOk : kShortWrite;
}

TernModule openFilter(const char* path) {
    void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    const auto ternLoad = library != nullptr ? reinterpret_cast<TernLoad>(dlsym(library, kTernLoadName)) : nullptr;
    TernModule module{};
    module.structSize = sizeof(module);
    if (ternLoad == nullptr || ternLoad(&module) != kOk) {
        std::fprintf(stderr, "%s is no filter\n", path);
        std::exit(3);
    }
    return module;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: mail_host FILE\n");
        return 2;
    }
    const char* filterPath = std::getenv("TERNMAIL_LIBRARY");
    const TernModule filter = openFilter(filterPath != nullptr ? filterPath : MAIL_FILTER);
    const std::u16string name = std::wstring_convert<std::codecvt_utf8_utf16<char16_t>, char16_t>().from_bytes(argv[1]);
    TbHostSetLoadMode(3);  // every document through memory

    HostFileInfo info{};
    info.structSize = kHostFileInfoSize;
    HostLoadOptions options{};
    options.structSize = kHostLoadOptionsSize;
    options.pageNumber = 1;

    FilterInfoRequest question{};
    question.fileName = name.c_str();
    question.fileHandle = TbFileOpen(name.c_str(), 0, 256);
    question.fileInfo = &info;
    question.options = &options;
    question.messageNumber = 1;
    question.loadInfoFromMemory = describeDocument;
    const Status described = filter.fltInfo(&question);
    TbFileClose(question.fileHandle);
    if (described < kOk) {
        std::fprintf(stderr, "fltInfo gives %d\n", described);
        return 1;
    }
    std::fprintf(stderr, "format %u, document of %llu bytes\n", info.format, static_cast<unsigned long long>(documentSize));

    FilterLoadRequest request{};
    request.fileName = name.c_str();
    request.bitmap = stdout;
    request.fileInfo = &info;
    request.options = &options;
    request.resultStatus = kOk;
    request.messageNumber = 1;
    request.loadFromMemory = loadDocument;
    const Status loaded = filter.fltLoad(&request);
    if (loaded < kOk) {
        std::fprintf(stderr, "fltLoad gives %d\n", loaded);
        return 1;
    }
    return 0;
}
