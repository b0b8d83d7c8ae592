// The antivirus module, loaded the way the server loads it: dlopen, and
// every symbol found by name.
#pragma once

#include <string>

#include "tavrik/runtime.hpp"

namespace tktest {

using Callback = int (*)(void**, XMLDIFF_OP, xmlNodePtr, nc_err**);

class Module {
public:
    // The module of this build, loaded once per program.
    static Module& get();

    void* sym(const char* name) const;
    // The symbol `name`; a test fails when it is not exported.
    template <class F>
    F fn(const char* name) const {
        return reinterpret_cast<F>(require(name));
    }
    Callback callback(const char* name) const { return fn<Callback>(name); }
    // The exported name at `address`, or "" when there is none.
    std::string nameOf(const void* address) const;
    unsigned char& debug() const { return *static_cast<unsigned char*>(require("g_ucAvApiDebug")); }

private:
    Module();
    void* require(const char* name) const;
    void* handle_ = nullptr;
};

}  // namespace tktest
