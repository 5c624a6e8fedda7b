// What the host does so that a person who opens a mail sees it, where the filter, which keeps its rules to the letter, refuses
// it.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "filter_module.h"
#include "job.h"
#include "repair/item_copy.h"

namespace ternview {

/// Shows one message of a file by the filter alone.
using ShowMessage = std::function<JobResult(const MailFile& file, const Job& job)>;

/**
 * Shows a message, with help where it is needed: one of several in mbox form is taken out of its file, an Internet message or an
 * item that is refused or would lose something is written anew, another one is asked for as plain text. The result tells what was
 * done; without any success, or room for a copy, it is that of the first attempt.
 *
 * @param show may be called several times, until it gives something to show
 */
JobResult showWithHelp(const MailFile& file, const Job& job, const ShowMessage& show);

/// A message in a form that the filter reads.
struct CorrectedCopy {
    std::string bytes;
    Help help;  // what was done
};

/// A message in the form that the filter reads, or an item without its rich text.
/// @param result of the message as it came @return nothing when it was not refused, or there is no mail in it
std::optional<CorrectedCopy> correctedCopy(const MailFile& file, const JobResult& result);

/// A message or an item of which the filter, though it reads it, would leave out a part or show other characters, in a form of
/// which it shows all.
/// @return nothing for any other
std::optional<CorrectedCopy> completeCopy(const MailFile& file, Attachments attachments = Attachments::kCopied);

/// True for a message of which the filter has made no document, unless the disk is full.
bool isRefused(const JobResult& result);

}  // namespace ternview
