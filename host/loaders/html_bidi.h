// Text that runs from right to left, and tables whose columns do: the layout engine sets every line from left to right. Its lines
// hold the right words, so that what is needed is to put the words of each line into their order, and to turn tables around.
#pragma once

#include <litehtml/litehtml.h>

namespace ternview {

/// Finds the direction of every element of a document and makes its texts ready to be taken apart. To be called when the document
/// has been parsed and before it is laid out; only a document with right-to-left text needs it.
void prepareDirections(const litehtml::element::ptr& root);

/// Puts the words of all lines, and the columns of tables, into the order in which they are seen; after layout, before drawing.
void orderLines(const litehtml::element::ptr& root);

}  // namespace ternview
