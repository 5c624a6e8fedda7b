// Takes away from the browser and the process that drives it what printing a page does not need. It stands around the browser's
// own sandbox, which confines the processes that read pages, and needs the same means: user namespaces.
#pragma once

#include <string>

namespace ternview {

/// Where the confined process may write; it lies in memory and goes with it.
inline constexpr char kSandboxDirectory[] = "/tmp";

/**
 * Goes on in a child process that is alone with its own children: no network, no other processes, no files but the system's
 * libraries and fonts and the browser's directory, all of them read-only. When it ends, all that it has started ends. The calling
 * process stays behind to wait for it; SIGTERM ends both. Root becomes an ordinary user for good first.
 *
 * @param browserDirectory directory of the browser's program
 * @return empty when that has succeeded; else why not: the process must not read a stranger's document then
 */
std::string enterBrowserSandbox(const std::string& browserDirectory);

/**
 * The little that can be done where there are no user namespaces: no new privileges, limits, and root becomes an ordinary user,
 * whose group gets the directory.
 *
 * @return as above
 */
std::string confineWithoutNamespaces(const std::string& directory);

}  // namespace ternview
