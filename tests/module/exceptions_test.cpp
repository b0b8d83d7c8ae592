// Application and signature exceptions of a profile: the entry handlers that
// own the line and the leaf handlers that validate, drop, or restate it.
#include "module_fixture.hpp"

namespace {

using namespace tktest;

std::string el(const std::string& tag, const std::string& text) { return "<" + tag + ">" + text + "</" + tag + ">"; }
std::string appTree(const std::string& children) {
    return profileTree("<exception-application>" + children + "</exception-application>");
}
std::string app(const std::string& name, const std::string& action) {
    return appTree(el("application-name", name) + el("application-action", action));
}
std::string sigTree(const std::string& children) {
    return profileTree("<exception-signature>" + children + "</exception-signature>");
}
std::string sig(const std::string& id, const std::string& action, const std::string& timeout = "") {
    return sigTree(el("id", id) + el("action", action) + (timeout.empty() ? "" : el("timeout", timeout)));
}

const std::string kApp = kInProfile + "exception-application";
const std::string kSig = kInProfile + "exception-signature";
const std::string kAppNull = "av detect exception-application name is null.";
const std::string kAppAction = "Av except app action error";
const std::string kSpaces = "av remove spaces failed.";
const std::string kIdNull = "av signature id is null.";
const std::string kNotBlock = "av signature action is not block-source-ip.";
const std::string k30(30, '7'), k31(31, '7'), k32(32, '7');

using ExceptionsTest = ModuleTest;

TEST_F(ExceptionsTest, ApplicationEntryOwnsTheLine) {
    const std::string line = "exception application name app1", undo = "undo " + line;
    run("callback_AV_ProfileExceptApplication", kProfilePath + "/except-application", {
        {"block", app("app1", "block"), kApp, ADD, sent(line + " action block", 0)},
        {"alert", app("app1", "alert"), kApp, MOD, sent(line + " action alert", 0)},
        {"allow trimmed", app(" app1\t", " allow "), kApp, ADD | CHAIN, sent(line + " action allow", 0)},
        {"action first", appTree(el("application-action", "block") + el("application-name", "app1")), kApp, ADD,
         sent(line + " action block", 0)},
        {"name only", appTree(el("application-name", "app1")), kApp, ADD, sent(line, 0)},
        {"inner blank", appTree(el("application-name", "my app")), kApp, ADD, sent("exception application name my app", 0)},
        {"action without text", appTree(el("application-name", "app1") + "<application-action/>"), kApp, ADD, sent(line, 0)},
        {"blank action", app("app1", "   "), kApp, ADD, sent(line, 0)},
        {"action of 32", app("app1", k32), kApp, ADD, sent(line, 0)},
        {"name of 31", app(k31, "alert"), kApp, ADD, sent("exception application name " + k31 + " action alert", 0)},
        {"capital action", app("app1", "Block"), kApp, ADD, refused(kAppAction, 9)},
        {"deny", app("app1", "deny"), kApp, MOD, refused(kAppAction, 9)},
        {"removal", app("app1", "deny"), kApp, REM, sent(undo, 1)},
        {"removal with addition bit", app("app1", "block"), kApp, REM | ADD, sent(undo, 1)},
        {"chain", app("app1", "alert"), kApp, CHAIN, dropped()},
        {"chain, action not looked at", app("app1", "deny"), kApp, CHAIN, dropped()},
        {"no name", appTree(el("application-action", "block")), kApp, ADD, refused(kAppNull, 8)},
        {"no name, removal", appTree(""), kApp, REM, refused(kAppNull, 8)},
        {"no name, chain", appTree("<application-name/>"), kApp, CHAIN, refused(kAppNull, 8)},
        {"blank name", app("  ", "alert"), kApp, ADD, refused(kAppNull, 8)},
        {"name of 32", app(k32, "alert"), kApp, REM, refused(kAppNull, 8)},
    });
}

TEST_F(ExceptionsTest, ApplicationActionJoinsThePrecedingName) {
    const std::string n = kApp + "/application-action", line = "exception application name app1";
    run("callback_AV_ProfileApplicationAction", kProfilePath + "/except-application/action", {
        {"alert", app("app1", "alert"), n, ADD, sent(line + " action alert", 0)},
        {"block trimmed", app("\tapp1 ", " block "), n, MOD, sent(line + " action block", 0)},
        {"allow", app("app1", "allow"), n, ADD, sent(line + " action allow", 0)},
        {"action of 32", app("app1", k32), n, ADD, sent(line, 0)},
        {"blank action", app("app1", "  "), n, MOD, sent(line, 0)},
        {"deny", app("app1", "deny"), n, ADD, refused(kAppAction, 9)},
        {"capital", app("app1", "Alert"), n, MOD, refused(kAppAction, 9)},
        {"removal", app("app1", "block"), n, REM, quiet(0)},
        {"removal, invalid action", app("app1", "deny"), n, REM | ADD, quiet(0)},
        {"name after the action", appTree(el("application-action", "block") + el("application-name", "app1")), n, ADD,
         refused(kAppNull, 8)},
        {"name after the action, removal", appTree(el("application-action", "block") + el("application-name", "app1")), n, REM,
         refused(kAppNull, 8)},
        {"name of 32", app(k32, "alert"), n, ADD, refused(kAppNull, 8)},
        {"chain", app("app1", "alert"), n, CHAIN, refused("Unknown op.", 1)},
    });
}

TEST_F(ExceptionsTest, SignatureIdNode) {
    const std::string n = kInProfile + "exception-signature-id";
    auto tree = [](const std::string& id) { return profileTree(el("exception-signature-id", id)); };
    run("callback_AV_ProfileExceptID", kProfilePath + "/except-signature-id", {
        {"add", tree("1001"), n, ADD, sent("exception av-signature-id 1001", 0)},
        {"trimmed", tree(" 1001\t"), n, MOD, sent("exception av-signature-id 1001", 0)},
        {"not a number", tree("abc"), n, ADD, sent("exception av-signature-id abc", 0)},
        {"31 characters", tree(k31), n, ADD, sent("exception av-signature-id " + k31, 0)},
        {"removal", tree("1001"), n, REM, sent("undo exception av-signature-id 1001", 1)},
        {"removal with addition bit", tree("1001"), n, REM | ADD, sent("undo exception av-signature-id 1001", 1)},
        {"32 characters", tree(k32), n, ADD, refused(kSpaces, 9)},
        {"blank", tree("   "), n, REM, refused(kSpaces, 9)},
        {"no text", tree(""), n, ADD, refused("av except signature-id is null.", 8)},
        {"chain", tree("1001"), n, CHAIN, refused("Unknown op.", 1)},
    });
}

TEST_F(ExceptionsTest, SignatureEntryRebuildsTheWholeLine) {
    const std::string line = "exception av-signature-id 1001";
    const std::string neither = "av signature action is neither allow nor block-source-ip.";
    run("callback_AV_ProfileExceptSignature", kProfilePath + "/except-signatures", {
        {"with timeout", sig("1001", "block-source-ip", "60"), kSig, ADD, sent(line + " action block-source-ip timeout 60", 0)},
        {"block", sig("1001", "block-source-ip"), kSig, MOD, sent(line + " action block-source-ip", 0)},
        {"allow", sig(" 1001 ", "\tallow "), kSig, ADD, sent(line + " action allow", 0)},
        {"chain", sig("1001", "block-source-ip", "90"), kSig, CHAIN, sent(line + " action block-source-ip timeout 90", 0)},
        {"any order", sigTree(el("timeout", "5") + el("action", "block-source-ip") + el("id", "1001")), kSig, ADD,
         sent(line + " action block-source-ip timeout 5", 0)},
        {"no action", sigTree(el("id", "1001") + el("timeout", "60")), kSig, ADD, sent(line, 0)},
        {"blank action", sig("1001", "  ", "60"), kSig, ADD, sent(line, 0)},
        {"action of 31", sig("1001", k31, "60"), kSig, ADD, sent(line, 0)},
        {"timeout of 31", sig("1001", "block-source-ip", k31), kSig, ADD, sent(line + " action block-source-ip", 0)},
        {"timeout of 30", sig("1001", "block-source-ip", k30), kSig, ADD,
         sent(line + " action block-source-ip timeout " + k30, 0)},
        {"id of 30", sig(k30, "allow"), kSig, ADD, sent("exception av-signature-id " + k30 + " action allow", 0)},
        {"allow with timeout", sig("1001", "allow", "60"), kSig, ADD, refused(kNotBlock, 9)},
        {"allow with timeout, chain", sig("1001", "allow", "60"), kSig, CHAIN, refused(kNotBlock, 9)},
        {"deny", sig("1001", "deny"), kSig, ADD, refused(neither, 9)},
        {"capital", sig("1001", "Allow"), kSig, MOD, refused(neither, 9)},
        {"deny with timeout", sig("1001", "deny", "60"), kSig, CHAIN, refused(neither, 9)},
        {"removal", sig("1001", "deny", "60"), kSig, REM, sent("undo " + line, 1)},
        {"removal with addition bit", sig("1001", "allow"), kSig, REM | ADD, sent("undo " + line, 1)},
        {"id of 31", sig(k31, "allow"), kSig, ADD, refused(kSpaces, 9)},
        {"blank id", sig("  ", "allow"), kSig, REM, refused(kSpaces, 9)},
        {"id without text", sigTree("<id/>"), kSig, ADD, refused(kSpaces, 9)},
        {"no id", sigTree(el("action", "allow")), kSig, REM, refused(kIdNull, 9)},
    });
}

TEST_F(ExceptionsTest, SignatureActionRestatesAllowOnlyWhenRemoved) {
    const std::string n = kSig + "/action";
    run("callback_AV_ProfileExceptSignatureAction", kProfilePath + "/except-signatures/action", {
        {"removal", sig("1001", "block-source-ip", "60"), n, REM, sent("exception av-signature-id 1001 action allow", 1)},
        {"removal trimmed", sig("\t1001 ", "allow"), n, REM | ADD, sent("exception av-signature-id 1001 action allow", 1)},
        {"id of 30", sig(k30, "allow"), n, REM, sent("exception av-signature-id " + k30 + " action allow", 1)},
        {"add", sig("1001", "block-source-ip"), n, ADD, dropped()},
        {"modify, not compared", sig("1001", "deny"), n, MOD, dropped()},
        {"own value of 31", sig("1001", k31), n, ADD, dropped()},
        {"own value of 32", sig("1001", k32), n, ADD, refused(kSpaces, 9)},
        {"own value blank", sig("1001", "  "), n, REM, refused(kSpaces, 9)},
        {"own value without text", sigTree(el("id", "1001") + "<action/>"), n, ADD, refused(kSpaces, 9)},
        {"id of 31", sig(k31, "allow"), n, REM, refused(kSpaces, 9)},
        {"blank id", sig(" ", "allow"), n, ADD, refused(kSpaces, 9)},
        {"id after the action", sigTree(el("action", "allow") + el("id", "1001")), n, REM, refused(kIdNull, 9)},
        {"no id", sigTree(el("timeout", "5") + el("action", "allow")), n, ADD, refused(kIdNull, 9)},
        {"chain", sig("1001", "allow"), n, CHAIN, refused("Unknown op.", 1)},
    });
}

TEST_F(ExceptionsTest, SignatureTimeoutRestatesBlockOnlyWhenRemoved) {
    const std::string n = kSig + "/timeout";
    run("callback_AV_ProfileExceptSignatureTimeout", kProfilePath + "/except-signatures/timeout", {
        {"removal", sig("1001", "block-source-ip", "60"), n, REM, sent("exception av-signature-id 1001 action block-source-ip", 1)},
        {"removal trimmed", sig(" 1001", " block-source-ip\t", "60 "), n, REM | ADD,
         sent("exception av-signature-id 1001 action block-source-ip", 1)},
        {"add", sig("1001", "block-source-ip", "60"), n, ADD, dropped()},
        {"own value of 31", sig("1001", "block-source-ip", k31), n, MOD, dropped()},
        {"allow", sig("1001", "allow", "60"), n, MOD, refused(kNotBlock, 9)},
        {"allow, removal", sig("1001", "allow", "60"), n, REM, refused(kNotBlock, 9)},
        {"no action", sigTree(el("id", "1001") + el("timeout", "60")), n, REM, refused("av signature action is null.", 9)},
        {"action after the timeout", sigTree(el("id", "1001") + el("timeout", "60") + el("action", "block-source-ip")), n, ADD,
         refused("av signature action is null.", 9)},
        {"neither", sigTree(el("timeout", "60")), n, ADD, refused(kIdNull, 9)},
        {"id after the timeout", sigTree(el("action", "block-source-ip") + el("timeout", "60") + el("id", "1001")), n, REM,
         refused(kIdNull, 9)},
        {"action of 31", sig("1001", k31, "60"), n, ADD, refused(kSpaces, 9)},
        {"blank action", sig("1001", "  ", "60"), n, ADD, refused(kSpaces, 9)},
        {"blank id", sig(" ", "block-source-ip", "60"), n, ADD, refused(kSpaces, 9)},
        {"own value of 32", sig("1001", "block-source-ip", k32), n, ADD, refused(kSpaces, 9)},
        {"own value without text", sigTree(el("id", "1001") + el("action", "block-source-ip") + "<timeout/>"), n, REM,
         refused(kSpaces, 9)},
        {"chain", sig("1001", "block-source-ip", "60"), n, CHAIN, refused("Unknown op.", 1)},
    });
}

}  // namespace
