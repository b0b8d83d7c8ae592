#include "module.hpp"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace tktest {

namespace {

void* handle() {
    // The module finds the server functions in the runtime this program
    // links: its needed entry names the runtime's SONAME, already loaded.
    static void (*volatile const linked)() = &tavrik::runtime::reset;
    static_cast<void>(linked);
    static void* const loaded = dlopen(TAVRIK_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    if (loaded == nullptr) throw std::runtime_error(dlerror());
    return loaded;
}

}  // namespace

void* symbol(const char* name) { return dlsym(handle(), name); }

void* required(const char* name) {
    void* p = symbol(name);
    EXPECT_NE(p, nullptr) << name << " is not exported";
    return p;
}

std::string exportedName(const void* address) {
    Dl_info info{};
    if (dladdr(address, &info) == 0 || info.dli_sname == nullptr || info.dli_saddr != address) return "";
    return info.dli_sname;
}

}  // namespace tktest
