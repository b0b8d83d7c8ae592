// Configuration of a YANG module without callbacks beside the model
// (ietf-netconf-acm): edited in the same all-or-nothing edits, listed among
// the changes, validated whole only when an edit changes it, with its
// defaults and choices as libyang has them.
#include "engine_fixture.hpp"
#include "print_tree.hpp"

namespace tktest {
namespace {

using ::testing::Not;

const std::vector<std::string> kNacm = {"ietf-netconf-acm"};
const std::string kNacmPath = "/ietf-netconf-acm:nacm";

std::string nacm(const std::string& body, const std::string& attributes = "") {
    return std::string("<nacm xmlns=\"urn:ietf:params:xml:ns:yang:ietf-netconf-acm\" xmlns:nc=\"") + kNetconfNs +
           "\"" + (attributes.empty() ? "" : " " + attributes) + ">" + body + "</nacm>";
}
std::string group(const std::string& name, const std::string& user, const std::string& attributes = "") {
    return leaf("groups", leaf("group", leaf("name", name) + (user.empty() ? "" : leaf("user-name", user)), attributes));
}
// Rule r1 of rule-list ops, with `body` beside its name.
std::string rule(const std::string& body) {
    return leaf("rule-list", leaf("name", "ops") + leaf("group", "oper") + leaf("rule", leaf("name", "r1") + body));
}

std::vector<std::pair<ChangeKind, std::string>> listed(const tavrik::engine::EditResult& result) {
    std::vector<std::pair<ChangeKind, std::string>> out;
    for (const auto& c : result.changes) out.emplace_back(c.kind, c.path);
    return out;
}

class DataModules : public EngineTest {};

TEST_F(DataModules, AreEditedBesideTheModelAndListedWithoutReachingTheModule) {
    Engine& engine = start(p1(""), kNacm);
    EXPECT_EQ(engine.data_modules(), kNacm);
    EXPECT_THAT(engine.nonlocal_constraints(), IsEmpty());
    EXPECT_THAT(engine.nonlocal_constraints("ietf-netconf-acm"), Not(IsEmpty()));
    EXPECT_THROW(engine.nonlocal_constraints("ietf-interfaces"), std::out_of_range);

    std::vector<std::string> checked;
    EditOptions options;
    options.check = [&](const ChangeView& changes) -> std::optional<RpcError> {
        for (size_t i = 0; i < changes.size(); ++i) checked.push_back(changes.path(i));
        return std::nullopt;
    };
    const auto result = edit(p1(leaf("description", "d")) + nacm(group("admins", "alice")), options);
    ASSERT_TRUE(result.ok) << result.error->message;
    // Top-level data in libyang's order: by module name.
    EXPECT_EQ(listed(result), (std::vector<std::pair<ChangeKind, std::string>>{
                                  {ChangeKind::Create, kNacmPath},
                                  {ChangeKind::Create, "/tavrik-antivirus:antivirus/vsys[name='vs1']/profiles/"
                                                       "profile[name='p1']/description"}}));
    EXPECT_THAT(checked, ::testing::Contains(kNacmPath + "/groups/group[name='admins']/user-name[.='alice']"));
    EXPECT_EQ(brief(result.lines), std::vector<std::string>{"vs1/profile-av-p1(profile-av) add: description d"});
    EXPECT_EQ(result.validated_whole, kNacm);
    EXPECT_THAT(engine.running_xml(), HasSubstr("<user-name>alice</user-name>"));

    // Only the plain data: nothing reaches the module.
    tavrik::runtime::reset_journal();
    const auto plain = edit(nacm(group("admins", "bob")));
    ASSERT_TRUE(plain.ok) << plain.error->message;
    EXPECT_THAT(plain.lines, IsEmpty());
    EXPECT_EQ(tavrik::runtime::journal().transforms, 0);
    EXPECT_THAT(tavrik::runtime::journal().cached, IsEmpty());

    // Unknown namespaces stay refused.
    const auto foreign = edit("<interfaces xmlns=\"urn:ietf:params:xml:ns:yang:ietf-interfaces\"/>");
    ASSERT_FALSE(foreign.ok);
    EXPECT_EQ(foreign.error->tag, ErrorTag::UnknownElement);
    EXPECT_THAT(foreign.error->message, HasSubstr("ietf-netconf-acm (urn:ietf:params:xml:ns:yang:ietf-netconf-acm)"));
}

// The plain data module is validated (whole, with libyang) only by the
// edits that change it; an edit of the model alone stays where it changes
// the configuration.
TEST_F(DataModules, OnlyEditsThatChangeThemValidateThemWhole) {
    start(p1("") + nacm(group("admins", "alice")), kNacm);
    const struct {
        const char* name;
        std::string edit;
        std::vector<std::string> validated;
    } cases[] = {
        {"model only", p1(leaf("description", "x")), {}},
        {"model and nacm", p1(leaf("description", "y")) + nacm(group("admins", "carol")), kNacm},
        {"nacm only", nacm(group("admins", "bob")), kNacm},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto result = edit(c.edit);
        ASSERT_TRUE(result.ok) << result.error->message;
        EXPECT_EQ(result.validated_whole, c.validated);
    }
}

struct Refusal {
    const char* name;
    std::string fault;  // more of the edit
    bool check_refuses = false;
    int refused_line = 0;  // the appliance refuses this line; 0: none
    ErrorTag tag;
};
std::ostream& operator<<(std::ostream& out, const Refusal& r) { return out << r.name; }

const Refusal kRefusals[] = {
    {"ByTheModule", p1(leaf("description", "why?")), false, 0, ErrorTag::BadElement},
    {"ByTheCheck", "", true, 0, ErrorTag::AccessDenied},
    {"ByThePlatform", "", false, 2, ErrorTag::OperationFailed},
    // A rule without its mandatory action: libyang's validation of the module.
    {"ByTheDataModulesModel", nacm(rule(leaf("module-name", "*"))), false, 0, ErrorTag::InvalidValue},
};

class MixedEditRefused : public ApplianceTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(MixedEditRefused, UndoesThePlainDataToo) {
    const Refusal& r = GetParam();
    Engine& engine = start_with_appliance(p1(""), kNacm);
    ASSERT_TRUE(edit(nacm(group("admins", "alice") + leaf("read-default", "deny"))).ok);
    const std::string before = print_all(engine.running_tree());
    const auto platform = appliance.configuration();
    EditOptions options;
    if (r.check_refuses)
        options.check = [](const ChangeView&) {
            return std::optional<RpcError>(RpcError(tavrik::engine::ErrorType::Protocol, ErrorTag::AccessDenied, "no"));
        };
    if (r.refused_line) appliance.refuse_line(r.refused_line, 9);
    const auto result = edit(p1(leaf("description", "d") + leaf("heuristic-detect-enable", "true")) +
                                 nacm(group("admins", "", op("delete")) + leaf("enable-nacm", "false") +
                                      leaf("read-default", "permit") + group("ops", "oper")) +
                                 r.fault,
                             options);
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(result.error->tag, r.tag) << result.error->message;
    EXPECT_EQ(print_all(engine.running_tree()), before);
    EXPECT_EQ(appliance.configuration(), platform);
}

INSTANTIATE_TEST_SUITE_P(Engine, MixedEditRefused, ::testing::ValuesIn(kRefusals),
                         [](const auto& info) { return std::string(info.param.name); });

// libyang's implicit defaults stay implicit: not reported, not printed, not
// deletable; a value set takes a default's place and its removal brings the
// default back.
TEST_F(DataModules, DefaultsAreImplicitUntilSet) {
    Engine& engine = start("", kNacm);
    EXPECT_THAT(print_all(engine.running_tree()), HasSubstr("<enable-nacm>true</enable-nacm>"));
    EXPECT_EQ(engine.running_xml(), "");

    const auto missing = edit(nacm(leaf("enable-nacm", "", op("delete"))));
    ASSERT_FALSE(missing.ok);
    EXPECT_EQ(missing.error->tag, ErrorTag::DataMissing);

    const auto set = edit(nacm(leaf("enable-nacm", "true")));
    ASSERT_TRUE(set.ok) << set.error->message;
    EXPECT_EQ(listed(set), (std::vector<std::pair<ChangeKind, std::string>>{{ChangeKind::Create, kNacmPath}}));
    EXPECT_THAT(engine.running_xml(), HasSubstr("<enable-nacm>true</enable-nacm>"));
    EXPECT_THAT(engine.running_xml(), Not(HasSubstr("write-default")));

    const auto removed = edit(nacm(leaf("enable-nacm", "", op("delete"))));
    ASSERT_TRUE(removed.ok) << removed.error->message;
    EXPECT_EQ(listed(removed), (std::vector<std::pair<ChangeKind, std::string>>{{ChangeKind::Delete, kNacmPath}}));
    EXPECT_EQ(engine.running_xml(), "");
    EXPECT_THAT(print_all(engine.running_tree()), HasSubstr("<enable-nacm>true</enable-nacm>"));
}

// A node created in one case of a choice removes the other cases' nodes,
// and the change set says so.
TEST_F(DataModules, ANewCaseRemovesTheOtherOnes) {
    Engine& engine = start(nacm(rule(leaf("path", "/") + leaf("action", "permit"))), kNacm);
    const std::string r1 = kNacmPath + "/rule-list[name='ops']/rule[name='r1']";
    const auto result = edit(nacm(rule(leaf("rpc-name", "edit-config"))));
    ASSERT_TRUE(result.ok) << result.error->message;
    EXPECT_EQ(listed(result), (std::vector<std::pair<ChangeKind, std::string>>{
                                  {ChangeKind::Create, r1 + "/rpc-name"}, {ChangeKind::Delete, r1 + "/path"}}));
    EXPECT_THAT(engine.running_xml(), Not(HasSubstr("<path>")));
    // Both cases in one edit: the model refuses.
    const auto both = edit(nacm(rule(leaf("notification-name", "x") + leaf("path", "/"))));
    ASSERT_FALSE(both.ok);
    EXPECT_THAT(both.error->message, HasSubstr("both cases"));
}

// A complete edit (copy-config) is the whole new configuration: what it
// does not name goes, of the model and of the data modules.
TEST_F(DataModules, ACompleteEditRemovesWhatItDoesNotName) {
    Engine& engine = start(p1("") + nacm(group("admins", "alice")), kNacm);
    const EditOptions copy{.default_operation = DefaultOperation::Replace, .complete = true};
    const auto only_nacm = edit(nacm(group("ops", "oper")), copy);
    ASSERT_TRUE(only_nacm.ok) << only_nacm.error->message;
    EXPECT_THAT(listed(only_nacm), ::testing::Contains(std::pair{ChangeKind::Delete, std::string("/tavrik-antivirus:antivirus")}));
    EXPECT_THAT(engine.running_xml(), Not(HasSubstr("antivirus")));
    EXPECT_THAT(engine.running_xml(), Not(HasSubstr("admins")));  // replaced as a whole

    const auto only_model = edit(p1(""), copy);
    ASSERT_TRUE(only_model.ok) << only_model.error->message;
    EXPECT_EQ(listed(only_model).back(), std::pair(ChangeKind::Delete, kNacmPath));
    EXPECT_THAT(engine.running_xml(), Not(HasSubstr("nacm")));
    EXPECT_THAT(print_all(engine.running_tree()), HasSubstr("<enable-nacm>true</enable-nacm>"));

    const auto nothing = edit("", copy);
    ASSERT_TRUE(nothing.ok) << nothing.error->message;
    EXPECT_EQ(engine.running_xml(), "");
}

// A candidate tree and a whole configuration hold the plain data as well.
TEST_F(DataModules, CandidatesAndWholeConfigurationsHoldThem) {
    Engine& engine = start(p1(""), kNacm);
    tavrik::engine::DataTree candidate = engine.copy_running();
    auto parsed = engine.parse(nacm(group("admins", "alice")));
    const auto applied = engine.apply(candidate, parsed.tree.get());
    ASSERT_TRUE(applied.ok) << applied.error->message;
    EXPECT_EQ(applied.validated_whole, kNacm);
    auto bad = engine.parse(nacm(rule(leaf("path", "/"))));
    const std::string edited = print_all(candidate.get());
    const auto refused = engine.apply(candidate, bad.tree.get());
    ASSERT_FALSE(refused.ok);
    EXPECT_EQ(refused.error->tag, ErrorTag::InvalidValue);
    EXPECT_EQ(refused.error->path, kNacmPath + "/rule-list/rule/action");  // missing: its schema path
    EXPECT_EQ(print_all(candidate.get()), edited);

    const auto committed = engine.replace_running(std::move(candidate));
    ASSERT_TRUE(committed.ok) << committed.error->message;
    EXPECT_EQ(committed.validated_whole, (std::vector<std::string>{"tavrik-antivirus", "ietf-netconf-acm"}));
    EXPECT_THAT(committed.lines, IsEmpty());
    EXPECT_THAT(engine.running_xml(), HasSubstr("<user-name>alice</user-name>"));
    EXPECT_THAT(print_all(engine.copy_running().get()), HasSubstr("<write-default>deny</write-default>"));
    EXPECT_EQ(engine.validate(engine.running_xml()), std::nullopt);
}

TEST_F(DataModules, AreServedOnlyWhenNamed) {
    Engine& engine = start(p1(""));
    auto parsed = engine.parse(nacm(group("admins", "alice")));
    ASSERT_TRUE(parsed.tree);
    const auto edited = engine.edit(parsed.tree.get());
    ASSERT_FALSE(edited.ok);
    EXPECT_EQ(edited.error->tag, ErrorTag::UnknownElement);
    const auto replaced = engine.replace_running(std::move(parsed.tree));
    ASSERT_FALSE(replaced.ok);
    EXPECT_EQ(replaced.error->tag, ErrorTag::UnknownElement);
    EXPECT_THROW(Engine(tavrik::engine::EngineOptions{TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR, "", nullptr,
                                                      {"no-such-module"}}),
                 tavrik::engine::EngineError);
}

}  // namespace
}  // namespace tktest
