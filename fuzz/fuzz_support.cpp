// Shared pieces of the fuzz targets.
#include "fuzz_support.hpp"

#include <dlfcn.h>
#include <libxml/xmlerror.h>

#include <cstdio>
#include <cstdlib>

#include "tavrik/runtime.hpp"

namespace tkfuzz {

void broken(const char* what) {
    std::fprintf(stderr, "contract broken: %s\n", what);
    std::fflush(stderr);
    std::abort();
}

Module& Module::get() {
    static Module module;
    return module;
}

// The server's runtime is loaded before any module, which names it as a
// needed library: starting it from here keeps it a dependency of every target.
Module::Module() : handle_((tavrik::runtime::reset(), dlopen(TAVRIK_MODULE_PATH, RTLD_NOW | RTLD_LOCAL))) {
    if (handle_ == nullptr) {
        std::fprintf(stderr, "cannot load %s: %s\n", TAVRIK_MODULE_PATH, dlerror());
        std::abort();
    }
}

void* Module::sym(const char* name) const { return dlsym(handle_, name); }

namespace {
void ignoreXmlError(void*, const char*, ...) {}
}  // namespace

void quietXml() { xmlSetGenericErrorFunc(nullptr, ignoreXmlError); }

}  // namespace tkfuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) tkfuzz::broken("stdout to /dev/null");
    tkfuzz::prepare();
    return 0;
}
