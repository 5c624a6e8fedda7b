// Puts the document of a visited message where its program takes it over.
#pragma once

#include <filesystem>
#include <vector>

#include <ternkit/batch.h>

#include "job.h"

namespace ternview {

/**
 * Moves the HTML document and its pictures, or writes a document that came in memory, into a new directory.
 *
 * @param message has a document
 * @param directory does not exist yet; it goes again when this fails
 * @return the files, the document first
 * @throws JobError
 */
std::vector<TempFile> placeDocument(const ternkit::BatchMessage& message, const std::filesystem::path& directory);

}  // namespace ternview
