// What the office suite gets to see of a stranger's RTF.
#pragma once

#include <string>
#include <string_view>

#include "laid_out_document.h"

namespace ternview {

enum class RtfPictures { kKept, kDropped };

/**
 * Gives the document without whatever could make its reader fetch or run something: instructions of fields other than a few
 * harmless ones, data of embedded and linked objects, names of templates, subdocuments and data sources. What the document's
 * writer last saw of them (the results of fields and objects) stays. Comments go, too. The paper and its margins are what a
 * document without its own, or with one too small to draw on, gets. Groups that are left open are closed, so that a document that
 * was cut off shows what there is of it.
 *
 * @param rtf begins with "{\rtf"
 */
std::string guardRtf(std::string_view rtf, const PageSetup& setup, RtfPictures pictures = RtfPictures::kKept);

}  // namespace ternview
