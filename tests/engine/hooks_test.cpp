// What an edit reports about its changes and lets a check refuse; edits of
// trees other than the running one; data modules served as plain data
// beside the model; the constraints that make edits validated whole.
#include "engine_fixture.hpp"
#include "model.hpp"

namespace tktest {
namespace {

using Listed = std::vector<std::pair<ChangeKind, std::string>>;
const std::string kRunning = av(vsys("vs1", profile("p1", desc("a") + leaf("exception-signature-id", "2")) +
                                                 profile("p2", "") + profile("p3", leaf("heuristic-detect-enable", "true"))) +
                                vsys("vs2", ""));

TEST_F(EngineTest, TheResultListsTheTopmostChangesInDocumentOrder) {
    start(kRunning);
    const auto result =
        edit(av(vsys("vs1", profile("p1", desc("changed") + leaf("exception-signature-id", "2", op("delete"))) +
                                profile("p2", "", op("delete")) + profile("p3", desc("new"), op("replace")) +
                                profile("p4", "")) +
                vsys("vs2", "", op("delete"))));
    ASSERT_TRUE(result.ok) << result.error->message;
    const std::string p = kVs1 + "/profiles/profile[name=";
    EXPECT_EQ(listed(result), (Listed{{ChangeKind::Modify, p + "'p1']/description"},
                                      {ChangeKind::Delete, p + "'p1']/exception-signature-id[.='2']"},
                                      {ChangeKind::Create, p + "'p3']/description"},
                                      {ChangeKind::Delete, p + "'p3']/heuristic-detect-enable"},
                                      {ChangeKind::Create, p + "'p4']"},
                                      {ChangeKind::Delete, p + "'p2']"},
                                      {ChangeKind::Delete, kAv + "/vsys[name='vs2']"}}));
    EXPECT_EQ(edit(nacm(group("admins", "alice"))).error.value_or(RpcError()).tag, ErrorTag::UnknownElement);  // not served
}

TEST_F(EngineTest, TheCheckSeesEveryChangedNodeAndItsRefusalCallsNoCallback) {
    start(kRunning);
    const std::string before = running();
    std::vector<std::string> seen;
    const auto result = edit(av(vsys("vs1", profile("p2", "", op("delete")) + profile("p9", ""))),
                             {.check = [&](const ChangeView& changes) {
                                  for (size_t i = 0; i < changes.size(); ++i)
                                      if (std::string(LYD_NAME(changes.node(i))) == "name")
                                          seen.push_back(std::to_string(int(changes.kind(i))) + " " + changes.path(i));
                                  return deny(changes);
                              }});
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(result.error->tag, ErrorTag::AccessDenied);
    // Every node of a created or deleted entry, the deleted one at its place.
    EXPECT_EQ(seen, (std::vector<std::string>{"0 " + kVs1 + "/profiles/profile[name='p9']/name",
                                              "1 " + kVs1 + "/profiles/profile[name='p2']/name"}));
    EXPECT_TRUE(tavrik::runtime::journal().cached.empty());
    EXPECT_EQ(running(), before);
}

// A datastore of its own (a candidate), plain data included: edited and
// validated, never the module's business, then committed whole.
TEST_F(EngineTest, ATreeOtherThanRunningIsEditedWithoutTheModule) {
    Engine& engine = start(kRunning, kNacm);
    const std::string before = running();
    tavrik::engine::DataTree candidate = engine.copy_running();
    auto parsed = engine.parse(p1(desc("candidate")) + nacm(group("admins", "alice")));
    const auto applied = engine.apply(candidate, parsed.tree.get());
    ASSERT_TRUE(applied.ok) << applied.error->message;
    EXPECT_EQ(listed(applied), (Listed{{ChangeKind::Create, kNacmPath}, {ChangeKind::Modify, kP1 + "/description"}}));
    EXPECT_EQ(applied.validated_whole, kNacm);
    const std::string edited = print_all(candidate.get());
    auto bad = engine.parse(av(vsys("vs1", profile("p1", "", op("create")))) +
                            nacm(leaf("rule-list", leaf("name", "r") + leaf("rule", leaf("name", "r1")))));
    EXPECT_FALSE(engine.apply(candidate, bad.tree.get()).ok);
    EXPECT_EQ(print_all(candidate.get()), edited);
    EXPECT_TRUE(tavrik::runtime::journal().cached.empty());
    EXPECT_EQ(running(), before);
    const auto committed = engine.replace_running(std::move(candidate));
    ASSERT_TRUE(committed.ok) << committed.error->message;
    EXPECT_EQ(brief(committed.lines), std::vector<std::string>{"vs1/profile-av-p1(profile-av) add: description candidate"});
    EXPECT_EQ(committed.validated_whole, (std::vector<std::string>{"tavrik-antivirus", "ietf-netconf-acm"}));
    EXPECT_THAT(engine.running_xml(), HasSubstr("<user-name>alice</user-name>"));
}

// The plain data is edited in the same edits, listed among the changes in
// libyang's order (by module name), validated whole only by the edits that
// change it, and never reaches the module.
TEST_F(EngineTest, DataModulesAreEditedBesideTheModelWithoutTheModule) {
    Engine& engine = start(p1(""), kNacm);
    EXPECT_THAT(engine.nonlocal_constraints(), IsEmpty());
    EXPECT_THAT(engine.nonlocal_constraints("ietf-netconf-acm"), ::testing::Not(IsEmpty()));
    const auto both = edit(p1(desc("d")) + nacm(group("admins", "alice")));
    ASSERT_TRUE(both.ok) << both.error->message;
    EXPECT_EQ(listed(both), (Listed{{ChangeKind::Create, kNacmPath}, {ChangeKind::Create, kP1 + "/description"}}));
    EXPECT_EQ(both.validated_whole, kNacm);
    EXPECT_THAT(edit(p1(desc("x"))).validated_whole, IsEmpty());
    tavrik::runtime::reset_journal();
    const auto plain = edit(nacm(group("admins", "bob")));
    ASSERT_TRUE(plain.ok) << plain.error->message;
    EXPECT_THAT(plain.lines, IsEmpty());
    EXPECT_EQ(tavrik::runtime::journal().transforms, 0);
    EXPECT_THAT(tavrik::runtime::journal().cached, IsEmpty());
    EXPECT_THAT(engine.running_xml(), HasSubstr("<user-name>bob</user-name>"));
}

// libyang's implicit defaults stay implicit: not reported, not printed, not
// deletable; a value set takes a default's place and its removal brings the
// default back.
TEST_F(EngineTest, DataModulesKeepDefaultsImplicit) {
    Engine& engine = start("", kNacm);
    EXPECT_EQ(edit(nacm(leaf("enable-nacm", "", op("delete")))).error.value_or(RpcError()).tag, ErrorTag::DataMissing);
    EXPECT_EQ(listed(edit(nacm(leaf("enable-nacm", "true")))), (Listed{{ChangeKind::Create, kNacmPath}}));
    EXPECT_EQ(listed(edit(nacm(leaf("enable-nacm", "", op("delete"))))), (Listed{{ChangeKind::Delete, kNacmPath}}));
    EXPECT_EQ(engine.running_xml(), "");
    EXPECT_THAT(running(), HasSubstr("<enable-nacm>true</enable-nacm>"));

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
        const auto constraints = tavrik::engine::nonlocal_constraints(parsed);
        EXPECT_EQ(constraints.empty() ? "" : constraints.front(), std::string(found)) << body;
        ly_ctx_destroy(ctx);
    }
}

}  // namespace
}  // namespace tktest
