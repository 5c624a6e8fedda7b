#include "html_demands.h"

#include "html_charset.h"
#include "html_guard.h"

namespace ternview {

HtmlDemands htmlDemands(std::string_view bytes) {
    return guardHtml(decodeHtml(bytes).text).demands;
}

}  // namespace ternview
