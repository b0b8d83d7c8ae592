#include "module.hpp"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace tktest {

Module& Module::get() {
    static Module module;
    return module;
}

Module::Module() {
    // The module finds the server functions in the runtime this program
    // links: its needed entry names the runtime's SONAME, already loaded.
    static void (*volatile const linked)() = &tavrik::runtime::reset;
    static_cast<void>(linked);
    handle_ = dlopen(TAVRIK_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) throw std::runtime_error(dlerror());
}

void* Module::sym(const char* name) const { return dlsym(handle_, name); }

void* Module::require(const char* name) const {
    void* p = sym(name);
    EXPECT_NE(p, nullptr) << name << " is not exported";
    return p;
}

std::string Module::nameOf(const void* address) const {
    Dl_info info{};
    if (dladdr(address, &info) == 0 || info.dli_sname == nullptr || info.dli_saddr != address) return "";
    return info.dli_sname;
}

}  // namespace tktest
