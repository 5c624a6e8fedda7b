// Pages that another process made of a document as a PDF. Drawing them here, rather than taking that process's pictures of pages,
// keeps text as text in PDF output and gives PNG pages at any resolution.
#pragma once

#include <memory>
#include <string>

#include "laid_out_document.h"

namespace ternview {

/**
 * @param maker who made the PDF, for sentences: "the office suite"
 * @throws LoadError when there are no pages in it
 */
std::unique_ptr<LaidOutDocument> openPdf(const std::string& pdf, const std::string& maker);

}  // namespace ternview
