// The page that lists what an export holds.
#pragma once

#include "export_journal.h"

namespace ternview {

/// Writes the page under its name, from the journal; memory does not grow with the number of messages.
/// @throws JobError when it cannot be written
void writeIndexPage(ExportJournal& journal);

}  // namespace ternview
