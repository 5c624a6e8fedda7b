// The style sheets that every HTML document starts from.
#pragma once

namespace ternview {

/// What HTML elements look like by themselves, as browsers show them.
extern const char* const kHtmlStyleSheet;

/// What is added for documents without a modern document type: text starts anew inside tables.
extern const char* const kHtmlQuirksStyleSheet;

/// What is added for documents with right-to-left text.
extern const char* const kHtmlRightToLeftStyleSheet;

}  // namespace ternview
