// The module's tests: calls of the module's exported callbacks as the server
// makes them, and what each call is to leave behind in the runtime's journal.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "module.hpp"
#include "xml.hpp"

namespace tktest {

using tavrik::runtime::CachedLine;
using tavrik::runtime::ScriptedParents;

inline constexpr int ADD = XMLDIFF_ADD;
inline constexpr int REM = XMLDIFF_REM;
inline constexpr int MOD = XMLDIFF_MOD;
inline constexpr int CHAIN = XMLDIFF_CHAIN;

// One vsys and one profile around `body` (the profile's other children); a
// null key leaves that key leaf out. `body` is at "vsys/profiles/profile/".
std::string profileTree(const std::string& body, const char* vsys = "vs1", const char* profile = "p1");
inline const std::string kInProfile = "vsys/profiles/profile/";

// What one call is to leave behind.
struct Expected {
    enum Kind { Sent, Dropped, Refused, Quiet } kind = Quiet;
    CachedLine line{};                    // Sent: the one line cached and sent
    unsigned cmdOp = 0;                   // Sent
    std::optional<std::string> origin{};  // Sent: the path string handed to the channel
    std::string message{}, path{};        // Refused
    int tag = 0;                          // Refused
    int result = 0;                       // Quiet
    static Expected refusal(int tag, std::string message, std::string path) {
        return {Refused, {}, 0, {}, std::move(message), std::move(path), tag};
    }
};

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { clearError(); }
    void clearError();

    // Calls the exported callback `name` as the server would.
    int call(const char* name, xmlNodePtr node, int op, const ScriptedParents& parents = {});
    // The call's result and journal are what `e` says, the message header
    // included; nothing else was cached, sent, cleared or refused.
    void expect(int result, const Expected& e);

    static const tavrik::runtime::Journal& journal() { return tavrik::runtime::journal(); }
    // Every byte of a header is zero but the message type and the module.
    static void expectHeader(const tavrik::runtime::Send& send, unsigned msgType);

    nc_err* error_ = nullptr;
};

}  // namespace tktest
