// Module loading: from an address inside a filter's code to its exports.

#include <dlfcn.h>

#include <cstring>

#include "ternbase/ternbase.h"

namespace {

template <typename Function>
bool lookUp(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function != nullptr;
}

}  // namespace

ternkit::Status TbModuleLoad(const void* moduleAddress, ternkit::TernModule* module) {
    if (moduleAddress == nullptr || module == nullptr || module->structSize != sizeof(ternkit::TernModule)) {
        return ternkit::kBadArgument;
    }
    Dl_info place{};
    if (dladdr(moduleAddress, &place) == 0 || place.dli_fname == nullptr ||
        std::strlen(place.dli_fname) >= sizeof(module->path)) {
        return ternkit::kBadArgument;
    }
    // This adds a reference that is never given back: the exports handed out stay valid for the life of the process.
    void* library = dlopen(place.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    if (library == nullptr || !lookUp(library, "fltInfo", module->fltInfo) || !lookUp(library, "fltLoad", module->fltLoad) ||
        !lookUp(library, "fltFreeData", module->fltFreeData)) {
        if (library != nullptr) {
            dlclose(library);
        }
        return ternkit::kBadArgument;
    }
    std::strcpy(module->path, place.dli_fname);
    return ternkit::kOk;
}
