#include "module.hpp"

#include <gtest/gtest.h>

namespace tktest {

const tavrik::engine::Module& module() {
    static const auto* const loaded = new tavrik::engine::Module(TAVRIK_MODULE_PATH);  // never unloaded
    return *loaded;
}

void* required(const char* name) {
    void* p = symbol(name);
    EXPECT_NE(p, nullptr) << name << " is not exported";
    return p;
}

}  // namespace tktest
