#include "batch_module.h"

#include <dlfcn.h>

#include <string>

#include "module_search.h"

namespace ternview {

BatchModule::BatchModule() {
    std::string tried;
    for (const std::string& candidate : libraryCandidates(kBatchLibrary)) {
        void* library = ::dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
        visit_ = library == nullptr ? nullptr
                                    : reinterpret_cast<ternkit::VisitMessages>(::dlsym(library, ternkit::kVisitMessagesName));
        if (visit_ != nullptr) {
            return;
        }
        tried += (tried.empty() ? "" : "; ") + std::string(::dlerror());
    }
    throw JobError(Failure::kBatchMissing, tried);
}

}  // namespace ternview
