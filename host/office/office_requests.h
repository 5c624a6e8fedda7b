// What the program and the office process agree on, beside the messages of a service.
//
//   request   label "pdf SECONDS BYTES", "text SECONDS BYTES" or "html SECONDS BYTES": the RTF, how long its conversion may take,
//             and the bytes that are counted at most where its size says what it may take
//   answer    kPdf or kDocument: what became of it; or kResult: a sentence on why nothing did
#pragma once

namespace ternview {

/// The office process's own font configuration, in its private directory.
inline constexpr char kOfficeFonts[] = "fonts.conf";

}  // namespace ternview
