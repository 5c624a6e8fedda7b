// Which of two engines lays HTML out: the one built in, which is quick, or a browser, which knows more.
#pragma once

#include <functional>
#include <memory>

#include "job.h"
#include "loaders.h"

namespace ternview {

/// What this process uses from now on; automatic choice until it is told.
void useHtmlEngine(HtmlEngine engine);

/// What a worker knows of the built-in engine's luck with its message.
struct BuiltInEngine {
    bool hasFailed = false;           // another process did not survive it, or had no time left
    std::function<void()> beginning;  // called when it begins while there is a browser to turn to; may be empty
};
void setBuiltInEngine(BuiltInEngine engine);

/**
 * Lays an HTML document out. With automatic choice, a document goes to the browser, where there is one, when it asks for what the
 * built-in engine cannot give or when that fails; and to the built-in engine when the browser fails.
 *
 * @throws LoadError, JobError, std::bad_alloc
 */
std::unique_ptr<LaidOutDocument> layOutWithChosenEngine(const HandedDocument& document, const PageSetup& setup);

}  // namespace ternview
