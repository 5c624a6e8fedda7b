// The library that visits all messages of a file, found and loaded at run time like the filter.
#pragma once

#include <ternkit/batch.h>

#include "job.h"

namespace ternview {

/// The loaded library. It stays loaded for as long as the process lives.
class BatchModule {
public:
    /// Looks where the filter is looked for; the environment variable TERNMAIL_BATCH_LIBRARY names another file.
    /// @throws JobError with kBatchMissing and what was tried
    BatchModule();

    ternkit::Status visit(const ternkit::BatchRequest& request) const { return visit_(&request); }

private:
    ternkit::VisitMessages visit_ = nullptr;
};

}  // namespace ternview
