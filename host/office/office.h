// The office suite as a service: one process of it lays out the RTF documents of all jobs.
//
// Starting the suite takes about a second, a document some ten milliseconds; a job's worker process lives for one message only.
// So the program itself owns the office process and starts it at the first need, and workers ask it through a gate that they
// inherit.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "descriptor.h"
#include "loaders/laid_out_document.h"
#include "private_directory.h"

namespace ternview {

/// The way to an office process, for the process that needs a document laid out.
struct OfficeAccess {
    int gate = -1;                       // stays its owner's
    std::chrono::seconds timeLimit{60};  // for one document
};

/// The suite looked at the document and would not have it.
class OfficeRefusal : public LoadError {
public:
    using LoadError::LoadError;
};

enum class OfficeTarget { kPdf, kText };

/**
 * Lets the office suite convert an RTF document.
 *
 * @param rtf must begin with "{\rtf": the suite would take anything else for whatever it looks like
 * @return the PDF, or the text as UTF-8 with a byte-order mark
 * @throws OfficeRefusal, LoadError when nothing else comes of it, JobError when the suite is missing or the time is over
 */
std::string convertInOffice(std::string_view rtf, OfficeTarget target, const OfficeAccess& access);

/// What the loaders of this process use.
void useOffice(const OfficeAccess& access);
const OfficeAccess& usedOffice();

/// Owns the office process and whatever it leaves behind. Whoever has it calls `attend` whenever `watched` can be read.
class Office {
public:
    Office();
    ~Office();
    Office(const Office&) = delete;
    Office& operator=(const Office&) = delete;

    /// For OfficeAccess; processes that are forked inherit it.
    int gate() const { return askers_.get(); }
    int watched() const;
    /// Buries a process that ended, and starts one when somebody waits for it.
    void attend();
    /// Ends the process with whatever it is at; the next need starts another one. A document that was waiting stays in the queue.
    void stop();
    /// Of the running process; 0 when there is none.
    pid_t processId() const { return process_; }

private:
    void start();

    Descriptor askers_;
    Descriptor takers_;
    Descriptor processDescriptor_;
    pid_t process_ = 0;
    std::unique_ptr<PrivateDirectory> directory_;
};

}  // namespace ternview
