// From a laid out document to what a worker sends: PNG pages or one PDF.
#pragma once

#include "frames.h"
#include "job.h"
#include "loaders/laid_out_document.h"

namespace ternview {

/// Sends every wanted page as a PNG.
/// @throws JobError when none of the wanted pages exists
void writePngPages(LaidOutDocument& document, const Job& job, FrameWriter& out);

/// Sends the wanted pages as one PDF, in which text stays text.
/// @throws JobError when none of the wanted pages exists
void writePdf(LaidOutDocument& document, const Job& job, FrameWriter& out);

}  // namespace ternview
