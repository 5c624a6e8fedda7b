#include "html_engine.h"

#include <algorithm>
#include <exception>
#include <new>

#include "browser/browser.h"
#include "browser/color_glyphs.h"
#include "export/conversions.h"
#include "loaders/html_demands.h"
#include "loaders/installed_fonts.h"
#include "loaders/pdf_document.h"
#include "messages.h"

namespace ternview {
namespace {

HtmlEngine chosen = HtmlEngine::kAuto;
BuiltInEngine builtIn;

using Pages = std::unique_ptr<LaidOutDocument>;

Pages layOutBuiltIn(const HandedDocument& document, const PageSetup& setup) {
    const auto directory = document.file ? std::optional(document.file->parent_path()) : std::nullopt;
    Pages pages = layOutHtml(document.bytes, directory, setup);
    pages->origin.engine = "embedded";
    return pages;
}

/// The browser prints a page that was written anew from what is harmless in the document.
Pages layOutInBrowser(const HandedDocument& document, const PageSetup& setup, const ServiceAccess& access) {
    if (!installedBrowser()) {
        printInBrowser({}, setup, access);  // says what is missing, before the document is worked on
    }
    Pages pages = openPdf(printInBrowser(withPaintedEmoji(safeHtmlPage(document, {})), setup, access), "the browser");
    pages->origin.engine = "chromium";
    return pages;
}

/// Half of the time is left for the built-in engine, should the browser fail.
ServiceAccess hastyBrowser() {
    ServiceAccess access = usedBrowser();
    access.timeLimit = std::max(access.timeLimit / 2, std::chrono::seconds(1));
    return access;
}

std::string reasonOf(const std::exception_ptr& failure) {
    JobResult result;
    try {
        std::rethrow_exception(failure);
    } catch (const JobError& error) {
        result.failure = error.failure();
        result.detail = error.what();
    } catch (const std::bad_alloc&) {
        result.failure = Failure::kOutOfMemory;
    } catch (const std::exception& error) {
        return error.what();
    }
    return failureReason(result);
}

/// @param otherwise what becomes of the document when this layout fails
template <typename Layout, typename Otherwise>
Pages attempt(const Layout& layout, const Otherwise& otherwise) {
    std::exception_ptr failure;
    try {
        return layout();
    } catch (const LoadError&) {
        failure = std::current_exception();
    } catch (const JobError&) {
        failure = std::current_exception();
    } catch (const std::bad_alloc&) {
        failure = std::current_exception();
    }
    return otherwise(failure);
}

Pages layOutPreferringBrowser(const HandedDocument& document, const PageSetup& setup) {
    return attempt([&] { return layOutInBrowser(document, setup, hastyBrowser()); },
                   [&](const std::exception_ptr& failure) {
                       Pages pages = layOutBuiltIn(document, setup);
                       pages->origin.note = "a browser would show it better, but failed: " + reasonOf(failure);
                       return pages;
                   });
}

Pages layOutPreferringBuiltIn(const HandedDocument& document, const PageSetup& setup) {
    if (builtIn.beginning) {
        builtIn.beginning();
    }
    return attempt([&] { return layOutBuiltIn(document, setup); },
                   [&](const std::exception_ptr& failure) {
                       return attempt([&] { return layOutInBrowser(document, setup, hastyBrowser()); },
                                      [&](const std::exception_ptr&) -> Pages { std::rethrow_exception(failure); });
                   });
}

}  // namespace

void useHtmlEngine(HtmlEngine engine) {
    chosen = engine;
}

void setBuiltInEngine(BuiltInEngine engine) {
    builtIn = std::move(engine);
}

Pages layOutWithChosenEngine(const HandedDocument& document, const PageSetup& setup) {
    requireFonts();
    if (chosen == HtmlEngine::kChromium) {
        return layOutInBrowser(document, setup, usedBrowser());
    }
    if (chosen == HtmlEngine::kEmbedded || !installedBrowser()) {
        return layOutBuiltIn(document, setup);
    }
    if (builtIn.hasFailed) {
        return layOutInBrowser(document, setup, usedBrowser());
    }
    return htmlDemands(document.bytes).any() ? layOutPreferringBrowser(document, setup)
                                             : layOutPreferringBuiltIn(document, setup);
}

}  // namespace ternview
