// The antivirus module of this build, loaded once the way the server loads
// it (the engine's loader, tavrik/module.hpp), and its symbols by name.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tavrik/module.hpp"
#include "tavrik/runtime.hpp"

namespace tktest {

using Callback = int (*)(void**, XMLDIFF_OP, xmlNodePtr, nc_err**);

// The module, loaded on first use and kept for the whole run.
const tavrik::engine::Module& module();
// The symbol `name`, or null when the module does not export it.
inline void* symbol(const char* name) { return module().symbol(name); }
// The symbol `name`; the running test fails when the module does not export it.
template <class T>
T exported(const char* name) {
    void* p = symbol(name);
    EXPECT_NE(p, nullptr) << name << " is not exported";
    return reinterpret_cast<T>(p);
}
inline Callback callback(const char* name) { return exported<Callback>(name); }
// The name the module exports at `address`, or "" when there is none.
inline std::string exportedName(const void* address) { return tavrik::engine::Module::exported_name(address); }
inline unsigned char& debugSwitch() { return *exported<unsigned char*>("g_ucAvApiDebug"); }

}  // namespace tktest
