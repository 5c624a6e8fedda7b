// Writes small compound files ([MS-CFB]): streams at the root and in storages of the root.
#pragma once

#include <map>
#include <string>

namespace ternview {

struct CompoundContents {
    using Streams = std::map<std::string, std::string>;  // by ASCII name of 1 to 31 characters

    Streams streams;
    std::map<std::string, Streams> storages;
};

/// The file, of version 3: sectors of 512 bytes, streams below 4096 bytes in the mini stream.
/// @throws std::length_error when it would take 2 GiB or more
std::string writeCompoundFile(const CompoundContents& contents);

}  // namespace ternview
