// What the program and the browser's process agree on, beside the messages of a service.
//
//   request   label "SECONDS BYTES WIDTH HEIGHT MARGIN": a page of HTML, how long its printing may take, the bytes that are
//             counted at most where its size says what it may take, and the paper in CSS pixels
//   answer    kPdf: what became of it; or kResult: one of the words below and a sentence on why nothing did
#pragma once

#include <string_view>

namespace ternview {

inline constexpr std::string_view kAnswerUnconfined = "unconfined ";  // it cannot be confined here, so it is not used
inline constexpr std::string_view kAnswerTimeOver = "time ";
inline constexpr std::string_view kAnswerRefused = "refused ";

/// In place of the browser's confinement in the arguments of its process.
inline constexpr std::string_view kConfined = "confined";
inline constexpr std::string_view kNotConfined = "free";

}  // namespace ternview
