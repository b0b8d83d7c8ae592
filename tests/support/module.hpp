// The antivirus module of this build, loaded on first use the way the server
// loads it: dlopen, and every symbol found by name.
#pragma once

#include <string>

#include "tavrik/runtime.hpp"

namespace tktest {

using Callback = int (*)(void**, XMLDIFF_OP, xmlNodePtr, nc_err**);

// The symbol `name`, or null when the module does not export it.
void* symbol(const char* name);
// The symbol `name`; the running test fails when the module does not export it.
void* required(const char* name);
template <class T>
T exported(const char* name) {
    return reinterpret_cast<T>(required(name));
}
inline Callback callback(const char* name) { return exported<Callback>(name); }
// The name the module exports at `address`, or "" when there is none.
std::string exportedName(const void* address);
inline unsigned char& debugSwitch() { return *exported<unsigned char*>("g_ucAvApiDebug"); }

}  // namespace tktest
