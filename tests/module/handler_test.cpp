// The change handlers, family by family, from the case tables in cases/: the
// tree around the changed node, the operation and the parents' operations ->
// the line sent (vsys, view, template, command op), the change dropped, the
// refusal (message, error path, tag), or a result with nothing done. Then
// what the frame does the same way for every profile-level handler.
#include <regex>

#include "cases.hpp"
#include "fixture.hpp"

namespace tktest {
namespace {

namespace rt = tavrik::runtime;

// One row of a case table, ready to run.
struct HandlerCall {
    std::string handler, body, node;
    bool inProfile = true;  // body is the children of profile p1 in vsys vs1
    int op = 0;
    ScriptedParents parents;
    Expected expected;
};

int parseOp(const std::string& text) {
    static const std::map<std::string, int> names = {
        {"ADD", ADD}, {"REM", REM}, {"MOD", MOD}, {"CHAIN", CHAIN}, {"SIBLING", XMLDIFF_SIBLING}};
    int op = 0;
    for (size_t start = 0; start < text.size();) {
        size_t end = std::min(text.find('+', start), text.size());
        std::string name = text.substr(start, end - start);
        op |= names.count(name) ? names.at(name) : std::stoi(name);
        start = end + 1;
    }
    return op;
}

int parseTag(const std::string& name) {
    static const std::map<std::string, int> tags = {{"OP_FAILED", NC_ERR_OP_FAILED}, {"MISSING_ELEM", NC_ERR_MISSING_ELEM},
                                                    {"BAD_ELEM", NC_ERR_BAD_ELEM}, {"UNKNOWN_ELEM", NC_ERR_UNKNOWN_ELEM}};
    return tags.at(name);
}

// `text` with $1, $2... replaced by the row's values.
std::string substitute(std::string text, const std::vector<std::string>& values) {
    for (size_t k = values.size(); k > 0; --k) {
        const std::string mark = "$" + std::to_string(k);
        for (size_t at; (at = text.find(mark)) != std::string::npos;) text.replace(at, mark.size(), values[k - 1]);
    }
    return text;
}

// Columns: op and parent ops ("REM 1:REM") | values $1, $2... | expected:
// "add LINE", "del LINE", "refused TAG MESSAGE", "dropped" or "quiet RESULT".
// Settings: handler, path (error path), tree (with $1.., "-" leaves the
// element around it out), node, view (vsys view template [origin], $1..).
HandlerCall parse(const Case& c) {
    HandlerCall call;
    call.handler = c.setting("handler");
    call.body = c.setting("tree");
    call.node = c.setting("node");
    std::vector<std::string> values;
    for (size_t k = 1; k + 1 < c.columns.size(); ++k) {
        values.push_back(decode(c.columns[k]));
        if (c.columns[k] == "-")
            call.body = std::regex_replace(call.body, std::regex("<([\\w-]+)>\\$" + std::to_string(k) + "</\\1>"), "");
    }
    call.body = substitute(call.body, values);
    call.inProfile = call.body.rfind("<antivirus>", 0) != 0;
    std::vector<std::string> op = words(c.columns[0]);
    call.op = parseOp(op[0]);
    for (size_t i = 1; i < op.size(); ++i)
        call.parents.set(std::stoi(op[i]), parseOp(op[i].substr(op[i].find(':') + 1)));

    const std::string& expected = c.columns.back();
    const std::string kind = expected.substr(0, expected.find(' '));
    const std::string rest = kind.size() < expected.size() ? expected.substr(kind.size() + 1) : "";
    Expected& e = call.expected;
    if (kind == "add" || kind == "del") {
        std::vector<std::string> view =
            words(c.settings.count("view") ? c.setting("view") : "vs1 profile-av-p1 profile-av");
        for (std::string& word : view) word = substitute(word, values);
        e = {Expected::Sent,
             {view[0], view[1], view[2] == "-" ? std::nullopt : std::optional(view[2]), decode(rest)},
             kind == "add" ? 0u : 1u};
        if (view.size() > 3) e.origin = c.setting("path");
    } else if (kind == "refused") {
        e = Expected::refusal(parseTag(rest.substr(0, rest.find(' '))), rest.substr(rest.find(' ') + 1), c.setting("path"));
    } else {
        e = {kind == "dropped" ? Expected::Dropped : Expected::Quiet};
        e.result = kind == "quiet" ? std::stoi(rest) : 0;
        if (kind != "dropped" && kind != "quiet") throw std::runtime_error(c.where + ": unknown outcome " + kind);
    }
    return call;
}

// Every family's sections; `profileLevel`: only those of profile-level handlers.
std::vector<CaseSection> handlerSections(bool profileLevel = false) {
    std::vector<CaseSection> all;
    for (const char* family : {"vsys_profile", "settings", "detect", "exceptions", "whitelist", "aging"})
        for (CaseSection& s : readCases(std::string(TKTEST_CASES_DIR) + "/" + family + ".cases", "handler"))
            if (!profileLevel || !s.cases.front().setting("screens").empty()) all.push_back(std::move(s));
    return all;
}

class Handler : public ModuleTest, public ::testing::WithParamInterface<CaseSection> {
protected:
    // Runs `call` from a fresh runtime, on a tree with the given profile keys.
    // With the debug switch at 0 nothing is printed, on any path.
    int run(const HandlerCall& call, const char* vsys = "vs1", const char* profile = "p1") {
        rt::reset();
        Tree tree(call.inProfile ? profileTree(call.body, vsys, profile) : call.body);
        xmlNodePtr node = tree.at((call.inProfile ? kInProfile : "") + call.node);
        testing::internal::CaptureStdout();
        int result = ModuleTest::call(call.handler.c_str(), node, call.op, call.parents);
        fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        return result;
    }
};
using ProfileFrame = Handler;

TEST_P(Handler, Cases) {
    for (const Case& c : GetParam().cases) {
        SCOPED_TRACE(c.where);
        HandlerCall call = parse(c);
        expect(run(call), call.expected);
    }
}

// A profile-level handler (setting "screens": the levels of its screened
// ancestors, the vsys and the profile entry first), on its first case that
// sends a line without parent operations.
TEST_P(ProfileFrame, KeysScreeningViewAndVerdict) {
    const Case& first = GetParam().cases.front();
    HandlerCall call;
    for (const Case& c : GetParam().cases)
        if (call = parse(c); call.expected.kind == Expected::Sent && c.columns[0].find(':') == std::string::npos) break;
    ASSERT_EQ(call.expected.kind, Expected::Sent);
    const std::vector<std::string> screened = words(first.setting("screens"));
    const Expected sent = call.expected;
    auto refused = [&](const char* message, int tag) { return Expected::refusal(tag, message, first.setting("path")); };

    // A removed ancestor ends the call before any key or value is read.
    HandlerCall blank = call;
    blank.body = std::regex_replace(call.body, std::regex(">[^<]+<"), "><");
    for (int level = 1; level <= 7; ++level) {
        SCOPED_TRACE("parent level " + std::to_string(level));
        bool isScreened = std::count(screened.begin(), screened.end(), std::to_string(level)) > 0;
        for (int parentOp : {REM, REM | ADD, REM | CHAIN, ADD | MOD | CHAIN}) {
            bool silenced = isScreened && (parentOp & REM);
            HandlerCall& c = silenced ? blank : call;
            c.parents = ScriptedParents{{level, parentOp}};
            expect(silenced ? run(c, nullptr, nullptr) : run(c), silenced ? Expected{} : sent);
        }
    }
    call.parents = {};
    expect(run(call, nullptr, nullptr), refused("The vsys name node is NULL.", NC_ERR_MISSING_ELEM));
    expect(run(call, nullptr, "p1"), refused("The vsys name node is NULL.", NC_ERR_MISSING_ELEM));
    expect(run(call, "vs1", nullptr), refused("The profile name node is NULL.", NC_ERR_MISSING_ELEM));
    expect(run(call, "vs1", " \t "), refused("av remove spaces failed.", NC_ERR_BAD_ELEM));
    const std::string p127(127, 'p');
    expect(run(call, "vs1", (p127 + "p").c_str()), refused("av remove spaces failed.", NC_ERR_BAD_ELEM));
    expect(run(call, "vs1", "\t p1 \n"), sent);
    Expected longView = sent;
    const size_t viewSize = first.setting("viewsize").empty() ? 128 : std::stoul(first.setting("viewsize"));
    longView.line.view = ("profile-av-" + p127).substr(0, viewSize - 1);
    expect(run(call, "vs1", (" " + p127 + " ").c_str()), longView);

    for (int op : {0, 16, 32}) {
        HandlerCall other = call;
        other.op = op;
        expect(run(other), refused("Unknown op.", NC_ERR_OP_FAILED));
    }
    rt::default_platform().next_results = {5};  // run() resets the runtime: script it after
    Tree tree(profileTree(call.body));
    EXPECT_EQ(ModuleTest::call(call.handler.c_str(), tree.at(kInProfile + call.node), call.op), 5)
        << "the platform's verdict comes back unchanged";
    EXPECT_EQ(journal().sends.size(), 1u);
}

std::string title(const ::testing::TestParamInfo<CaseSection>& info) {
    return info.param.title.substr(sizeof "callback_AV_" - 1);
}
INSTANTIATE_TEST_SUITE_P(, Handler, ::testing::ValuesIn(handlerSections()), title);
INSTANTIATE_TEST_SUITE_P(, ProfileFrame, ::testing::ValuesIn(handlerSections(true)), title);

}  // namespace
}  // namespace tktest
