// What every fuzz target shares: the input reader, the module loaded as the
// server loads it, and the check that turns a broken contract into a finding.
#pragma once

#include "fuzz_input.hpp"

namespace tkfuzz {

// Prints what broke and aborts, so that the fuzzer keeps the input.
[[noreturn]] void broken(const char* what);

#define TKFUZZ_STR2(x) #x
#define TKFUZZ_STR(x) TKFUZZ_STR2(x)
#define TKFUZZ_CHECK(cond) ((cond) ? (void)0 : ::tkfuzz::broken(#cond " at " __FILE__ ":" TKFUZZ_STR(__LINE__)))

// The antivirus module, loaded once with dlopen; symbols by name.
class Module {
public:
    static Module& get();
    void* sym(const char* name) const;
    // The function `name`, or null when the module does not export it.
    template <class F>
    F fn(const char* name) const {
        return reinterpret_cast<F>(sym(name));
    }
    // The function `name`; a missing one is a finding.
    template <class F>
    F require(const char* name) const {
        F f = fn<F>(name);
        if (f == nullptr) broken(name);
        return f;
    }

private:
    Module();
    void* handle_;
};

// What a target sets up once and keeps for the whole run (the module's
// functions, an engine): made on first use, which prepare() makes early.
template <class T>
T& state() {
    static T s;
    return s;
}

// Sends libxml2's parser complaints nowhere: most fuzzed payloads are not
// well-formed, and the messages would only slow the fuzzer and fill its log.
void quietXml();

// The target's one-time set-up, run by LLVMFuzzerInitialize (fuzz_support.cpp)
// after standard output, where the module traces, has been sent nowhere: the
// fuzzer reports on standard error.
void prepare();

}  // namespace tkfuzz
