// What killed programs have left behind, and how that is told from what living ones use: by locks, which the kernel takes back
// when the last process that has them is gone. A process number would not do, for numbers are given out again.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "descriptor.h"

namespace ternview {

/// Templates for mkstemp and its kin.
inline constexpr char kPrivateDirectoryName[] = "ternview-private-XXXXXX";
inline constexpr char kPendingFileName[] = ".ternview-new-XXXXXX";

/// The directory that is the first thing in a private one and the last that is removed from it. The filter uses it. By that, a
/// private directory is told from one that the user has given such a name.
std::string filterDirectoryName();

/// Locks a private directory that was just made, for as long as the descriptor is open.
/// @return an empty one when somebody took it for a stale one and removed it; then another one is to be made
Descriptor lockPrivateDirectory(const std::string& path);

/// Removes everything in a private directory, whatever permissions it was given, and however deep it goes.
void removeContent(const Descriptor& directory);

/// Removes the private directories in the parent that nobody has locked. Those of other users stay, and so does what the program
/// cannot have made.
void removeStaleDirectories(const std::string& parent);

/// A directory in which files are in the making. They have no locks of their own, as there may be more of them than a process may
/// have open; so what is unfinished in a directory is removed only while nobody else is at work there.
class OutputDirectory {
public:
    /// Removes what others have left there at the first use of the directory.
    /// @return what is to be kept as long as a file is in the making
    static std::shared_ptr<const OutputDirectory> use(const std::filesystem::path& directory);

    explicit OutputDirectory(Descriptor lock) : lock_(std::move(lock)) {}

private:
    Descriptor lock_;
};

}  // namespace ternview
