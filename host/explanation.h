// Why there is nothing to show of a file.
#pragma once

#include "filter_module.h"
#include "job.h"

namespace ternview {

/// Tells the reasons apart that share a status: it looks at the file's beginning, for the sentence only.
/// @param status of the filter, below 1
Failure explainStatus(const MailFile& file, ternkit::Status status);

}  // namespace ternview
