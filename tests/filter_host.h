// A stand-in for the host: writes a message to a file, fills the requests, calls the exports, and records what its loaders are
// given.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <ternkit/filter.h>
#include "ternbase/ternbase.h"

enum class Route { Memory, TemporaryFiles };
inline constexpr Route kBothRoutes[] = {Route::Memory, Route::TemporaryFiles};

/// A directory of its own for one test, which stands as the user's runtime directory for as long as it lives.
class TemporaryRoot {
public:
    TemporaryRoot();
    ~TemporaryRoot();
    TemporaryRoot(const TemporaryRoot&) = delete;
    TemporaryRoot& operator=(const TemporaryRoot&) = delete;

    std::string inputPath() const { return m_path + "/message"; }
    std::string runtimePath() const { return m_path + "/runtime"; }
    /// The module's private directory inside the runtime directory.
    std::string privatePath() const;
    /// Everything below the runtime directory but the private directory itself; directories end in "/".
    std::vector<std::string> leftovers() const;

private:
    std::string m_path;
    std::optional<std::string> m_previous;
};

std::string ReadWholeFile(const std::string& path);
void WriteWholeFile(const std::string& path, const std::string& bytes);
std::u16string Wide(const std::string& path);

/// What a loader answers.
struct LoaderAnswer {
    ternkit::Status status = ternkit::kOk;
    std::uint32_t totalPages = 3;
    std::uint32_t width = 816;
    std::uint32_t height = 1056;
    std::uint32_t xResolution = 96;
    std::uint32_t yResolution = 120;
    std::optional<std::uint32_t> format;
    std::function<void(ternkit::HostFileInfo&)> meanwhile;  // what else happens while a loader has the document
};

/// What a loader was given.
struct Delivery {
    std::string loader;                        // name of the host function; empty when none was called
    std::string document;                      // the bytes
    std::string documentPath;                  // native path, for the loaders from a file
    std::map<std::string, std::string> files;  // the temporary files at that moment but the document, by their last name
    std::vector<std::string> directories;      // the temporary directories at that moment
    ternkit::HostFileInfo info{};
    ternkit::HostLoadOptions options{};
    const void* optionsAddress = nullptr;
    std::vector<std::uint32_t> numbers;  // sizes, flags and constants, in order
    std::vector<const void*> passed;     // the caller's pointers, in order
};

/// A copy of a record's field. The records are packed, so no reference to a field can be handed to a comparison.
template <typename Field>
Field Value(Field field) {
    return field;
}

class FilterHost {
public:
    explicit FilterHost(const std::string& message, Route route = Route::Memory);
    ~FilterHost();
    FilterHost(const FilterHost&) = delete;
    FilterHost& operator=(const FilterHost&) = delete;

    ternkit::Status info();
    ternkit::Status load();

    TemporaryRoot root;
    LoaderAnswer answer;
    Delivery delivery;  // of the last call
    ternkit::HostFileInfo fileInfo{};
    ternkit::HostLoadOptions options{};
    ternkit::FilterInfoRequest infoRequest{};
    ternkit::FilterLoadRequest loadRequest{};

private:
    std::u16string m_fileName;
};

/// What the host sees of a message. Both exports are called; they must agree and leave nothing behind.
struct Shown {
    ternkit::Status status = 0;
    std::uint32_t format = 0;  // the document's
    std::string document;
    std::map<std::string, std::string> pictures;
};
Shown Show(const std::string& message, Route route = Route::Memory);
