// From a laid out document to what a worker sends: PNG pages, one PDF, a small picture of the first page.
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

/// In pixels. Paper that is longer than others is cut at its foot.
inline constexpr int kThumbnailWidth = 160;
inline constexpr int kThumbnailHeight = 240;

/// Sends a small PNG of the first page.
void writeThumbnail(LaidOutDocument& document, FrameWriter& out);

/// Sends the whole first page as a PNG whose longer side has so many pixels.
void writeThumbnail(LaidOutDocument& document, int longerSide, FrameWriter& out);

}  // namespace ternview
