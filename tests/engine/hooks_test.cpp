// What an edit reports about its changes and lets a check refuse; edits of
// trees other than the running one; data modules served as plain data
// beside the model; the constraints that make edits validated whole.
#include "engine_fixture.hpp"
#include "model.hpp"

namespace tktest {
namespace {

using Listed = std::vector<std::string>;
const std::string kNacmPath = "/ietf-netconf-acm:nacm";
const std::string kRunning = av(vsys("vs1", profile("p1", desc("a") + leaf("exception-signature-id", "2")) +
                                                 profile("p2", "") + profile("p3", leaf("heuristic-detect-enable", "true"))) +
                                vsys("vs2", ""));
// A change as "create <path>"; the topmost changes an edit reports.
std::string change(ChangeKind kind, const std::string& path) {
    return std::string(kind == ChangeKind::Create ? "create " : kind == ChangeKind::Delete ? "delete " : "modify ") + path;
}
Listed listed(const EditResult& result) {
    Listed out;
    for (const auto& c : result.changes) out.push_back(change(c.kind, c.path));
    return out;
}

// The check sees every node of a created or deleted entry, the deleted ones
// at their place, and its refusal calls no callback; the result lists the
// topmost changes in the same order.
TEST_F(EngineTest, TheCheckSeesEveryChangedNodeAndTheResultTheTopmostOnes) {
    start(kRunning);
    const std::string xml =
        av(vsys("vs1", profile("p1", desc("changed") + leaf("exception-signature-id", "2", op("delete"))) +
                           profile("p2", "", op("delete")) + profile("p3", desc("new"), op("replace")) + profile("p4", "")) +
           vsys("vs2", "", op("delete")));
    std::vector<std::string> seen;
    edit(xml, {.check = [&](const ChangeView& changes) {
                   for (size_t i = 0; i < changes.size(); ++i)
                       if (std::string(LYD_NAME(changes.node(i))) == "name")
                           seen.push_back(change(changes.kind(i), changes.path(i)));
                   return deny(changes);
               }});
    const std::string p = kVs1 + "/profiles/profile[name=", vs2 = kAv + "/vsys[name='vs2']";
    EXPECT_EQ(seen, (Listed{"create " + p + "'p4']/name", "delete " + p + "'p2']/name", "delete " + vs2 + "/name"}));
    EXPECT_TRUE(tavrik::runtime::journal().cached.empty());
    EXPECT_EQ(listed(edit(xml)),
              (Listed{"modify " + p + "'p1']/description", "delete " + p + "'p1']/exception-signature-id[.='2']",
                      "create " + p + "'p3']/description", "delete " + p + "'p3']/heuristic-detect-enable",
                      "create " + p + "'p4']", "delete " + p + "'p2']", "delete " + vs2}));
    EXPECT_EQ(edit(nacm(group("admins", "alice"))).error.value_or(RpcError()).tag, ErrorTag::UnknownElement);  // not served
}

// Plain data is edited in the same edits, listed among the changes in
// libyang's order (by module name), validated whole only by the edits that
// change it, and never reaches the module. libyang's implicit defaults stay
// implicit: not reported, not printed, not deletable; a value set takes a
// default's place and its removal brings the default back. A datastore of
// its own (a candidate) is edited and validated without the module, then
// committed whole.
TEST_F(EngineTest, DataModulesAndCandidatesAreEditedWithoutTheModule) {
    Engine& engine = start(kRunning, kNacm);
    const auto both = edit(p1(desc("d")) + nacm(group("admins", "alice")));
    EXPECT_EQ(listed(both), (Listed{"create " + kNacmPath, "modify " + kP1 + "/description"}));
    EXPECT_EQ(both.validated_whole, kNacm);
    EXPECT_THAT(edit(p1(desc("x"))).validated_whole, IsEmpty());
    tavrik::runtime::reset_journal();
    EXPECT_TRUE(edit(nacm(group("admins", "", op("delete")))).ok);
    EXPECT_EQ(tavrik::runtime::journal().transforms, 0);
    EXPECT_EQ(edit(nacm(leaf("enable-nacm", "", op("delete")))).error.value_or(RpcError()).tag, ErrorTag::DataMissing);
    EXPECT_EQ(listed(edit(nacm(leaf("enable-nacm", "true")))), (Listed{"create " + kNacmPath}));
    EXPECT_EQ(listed(edit(nacm(leaf("enable-nacm", "", op("delete"))))), (Listed{"delete " + kNacmPath}));
    EXPECT_THAT(engine.running_xml(), ::testing::Not(HasSubstr("nacm")));
    const std::string before = running();
    EXPECT_THAT(before, HasSubstr("<enable-nacm>true</enable-nacm>"));

    DataTree candidate = engine.copy_running();
    const auto parsed = engine.parse(p1(desc("candidate")) + nacm(group("admins", "alice")));
    const auto applied = engine.apply(candidate, parsed.tree.get());
    EXPECT_EQ(listed(applied), (Listed{"create " + kNacmPath, "modify " + kP1 + "/description"}));
    EXPECT_EQ(applied.validated_whole, kNacm);
    const std::string edited = print_all(candidate.get());
    auto bad = engine.parse(av(vsys("vs1", profile("p1", "", op("create")))) +
                            nacm(leaf("rule-list", leaf("name", "r") + leaf("rule", leaf("name", "r1")))));
    EXPECT_FALSE(engine.apply(candidate, bad.tree.get()).ok);
    EXPECT_EQ(print_all(candidate.get()), edited);
    EXPECT_EQ(tavrik::runtime::journal().transforms, 0);
    EXPECT_EQ(running(), before);
    const auto committed = engine.replace_running(std::move(candidate));
    EXPECT_EQ(brief(committed.lines), std::vector<std::string>{"vs1/profile-av-p1(profile-av) add: description candidate"});
    EXPECT_EQ(committed.validated_whole, (std::vector<std::string>{"tavrik-antivirus", "ietf-netconf-acm"}));
    EXPECT_THAT(engine.running_xml(), HasSubstr("<user-name>alice</user-name>"));
}

// What makes edits of a schema validated as a whole configuration.
TEST(Constraints, AcrossEntriesAreFoundInTheSchema) {
    const std::pair<const char*, const char*> cases[] = {
        {"leaf l { type string { length 1..3; } } list e { key k; leaf k { type uint8; } }", ""},
        {"leaf l { type string; must \". != 'x'\"; }", "must at /t:c/l"},
        {"leaf l { type string; when \"../m\"; } leaf m { type string; }", "when at /t:c/l"},
        {"leaf l { type leafref { path \"../m\"; } } leaf m { type string; }", "reference at /t:c/l"},
        {"list e { key k; unique v; leaf k { type string; } leaf v { type string; } }", "unique at /t:c/e"},
    };
    for (const auto& [body, found] : cases) {
        ly_ctx* ctx = nullptr;
        ASSERT_EQ(ly_ctx_new(nullptr, 0, &ctx), LY_SUCCESS);
        const std::string module = std::string("module t { namespace \"urn:t\"; prefix t; container c { ") + body + " } }";
        lys_module* parsed = nullptr;
        ASSERT_EQ(lys_parse_mem(ctx, module.c_str(), LYS_IN_YANG, &parsed), LY_SUCCESS) << module;
        EXPECT_EQ(nonlocal_constraints(parsed), std::vector<std::string>(*found ? 1 : 0, found)) << body;
        ly_ctx_destroy(ctx);
    }
}

}  // namespace
}  // namespace tktest
