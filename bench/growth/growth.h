// Worst cases of every parser: what makes them, what reads them, and how the cost grows with their size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "bench_support.h"

namespace growth {

/// One worst case. The same size always makes the same bytes.
struct Case {
    std::string name;       // "group/case"
    std::string extension;  // of a mail file that holds the case; empty: it is an input of one function only
    std::function<std::string(std::size_t)> make;  // gives about so many bytes
    /// Reads the bytes, which stand in the file too. @return a status, or another number that says what came of it
    std::function<std::int64_t(const std::string& bytes, const bench::File& file)> read;
};

using Cases = std::vector<Case>;

void addMail(Cases& cases);
void addRtf(Cases& cases);
void addItems(Cases& cases);
void addStores(Cases& cases);
/// What the host does with documents and files.
void addHost(Cases& cases);

struct Markup {
    std::string name;
    std::function<std::string(std::size_t)> make;
};
/// HTML documents, for the filter and for each of the host's ways with them.
const std::vector<Markup>& htmlDocuments();
/// RTF documents that a layout engine could choke on.
const std::vector<Markup>& rtfDocuments();

/// A text again and again, up to `size` bytes and no more than one time beyond.
std::string repeated(std::string_view text, std::size_t size);
/// `make(0)`, `make(1)`, ... up to `size` bytes.
std::string numbered(std::size_t size, const std::function<std::string(std::size_t)>& make);

// Ways to read a mail file by the exports; documents travel in memory.
std::int64_t readFirst(const std::string& bytes, const bench::File& file);
std::int64_t readThroughFiles(const std::string& bytes, const bench::File& file);  // documents travel in temporary files
std::int64_t readLast(const std::string& bytes, const bench::File& file);
std::int64_t listAll(const std::string& bytes, const bench::File& file);
std::int64_t visitAll(const std::string& bytes, const bench::File& file);

}  // namespace growth
