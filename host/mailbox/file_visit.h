// Visits the messages of one file and sends what they are.
#pragma once

#include <cstddef>
#include <string>

#include "batch_module.h"
#include "job.h"
#include "message_sender.h"

namespace ternview {

/**
 * @param path of the file, in whatever bytes the file system uses
 * @param index of the file among those that are read
 * @return what the file came to, for its end; memory that ran out is a failure of it
 * @throws std::system_error when the program is gone
 */
JobResult visitMailFile(const BatchModule& module, MessageSender& sender, const std::string& path, std::size_t index);

}  // namespace ternview
