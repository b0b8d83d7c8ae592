// Shared pieces of the fuzz targets.
#include "fuzz_support.hpp"

#include <libxml/xmlerror.h>

#include <cstdio>
#include <cstdlib>

namespace tkfuzz {

void broken(const char* what) {
    std::fprintf(stderr, "contract broken: %s\n", what);
    std::fflush(stderr);
    std::abort();
}

const tavrik::engine::Module& module() {
    static const auto* const loaded = new tavrik::engine::Module(TAVRIK_MODULE_PATH);  // never unloaded
    return *loaded;
}

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
