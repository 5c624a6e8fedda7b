// Takes away from the office process what laying out a document does not need.
#pragma once

#include <string>
#include <vector>

namespace ternview {

/**
 * Limits memory and file sizes, and refuses sockets, new programs and looking into other processes for good. Where the kernel can
 * do it, files are out of reach too, but for the suite, the system's libraries and fonts, and the private directory.
 *
 * @param privateDirectory may be read and written
 * @param suiteDirectory program directory of the office suite, may be read with what lies beside it
 * @return false when the kernel refuses; the process must not read a stranger's document then
 */
bool enterOfficeSandbox(const std::string& privateDirectory, const std::string& suiteDirectory);

}  // namespace ternview
