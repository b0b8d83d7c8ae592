// What every fuzz target shares: the input reader, the module loaded as the
// server loads it, and the check that turns a broken contract into a finding.
#pragma once

#include "fuzz_input.hpp"
#include "tavrik/module.hpp"

namespace tkfuzz {

// Prints what broke and aborts, so that the fuzzer keeps the input.
[[noreturn]] void broken(const char* what);

#define TKFUZZ_STR2(x) #x
#define TKFUZZ_STR(x) TKFUZZ_STR2(x)
#define TKFUZZ_CHECK(cond) ((cond) ? (void)0 : ::tkfuzz::broken(#cond " at " __FILE__ ":" TKFUZZ_STR(__LINE__)))

// The antivirus module, loaded once the way the server loads it (the
// engine's loader) and kept for the whole run.
const tavrik::engine::Module& module();

// The exported function or data `name`; a missing one is a finding.
template <class T>
T require(const char* name) {
    void* p = module().symbol(name);
    if (p == nullptr) broken(name);
    return reinterpret_cast<T>(p);
}

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
