// The office suite as a service: one process of it lays out the RTF documents of all jobs. Starting the suite takes about a
// second, a document some ten milliseconds.
#pragma once

#include <string>
#include <string_view>

#include "loaders/laid_out_document.h"
#include "service/service_process.h"

namespace ternview {

using OfficeAccess = ServiceAccess;

/// The suite looked at the document and would not have it.
class OfficeRefusal : public LoadError {
public:
    using LoadError::LoadError;
};

enum class OfficeTarget { kPdf, kText, kHtml };

/**
 * Lets the office suite convert an RTF document.
 *
 * @param rtf must begin with "{\rtf": the suite would take anything else for whatever it looks like
 * @return the PDF, the text as UTF-8 with a byte-order mark, or HTML in UTF-8 with its pictures as data: URIs
 * @throws OfficeRefusal, LoadError when nothing else comes of it, JobError when the suite is missing or the time is over
 */
std::string convertInOffice(std::string_view rtf, OfficeTarget target, const OfficeAccess& access);

/// What the loaders of this process use.
void useOffice(const OfficeAccess& access);
const OfficeAccess& usedOffice();

/// The office process of a program.
class Office : public ServiceProcess {
public:
    Office();
};

}  // namespace ternview
