// An edit refused at any stage leaves the running configuration as it was
// to the byte; what an edit reports about its changes and lets a check
// refuse; edits of trees other than the running one; validation of what an
// edit can affect, and of everything when the model asks for it.
#include <filesystem>
#include <fstream>
#include <sstream>

#include "engine_fixture.hpp"
#include "model.hpp"
#include "print_tree.hpp"

namespace tktest {
namespace {

std::string desc(const std::string& text) { return leaf("description", text); }
std::string ids(std::initializer_list<const char*> values) {
    std::string out;
    for (const char* v : values) out += leaf("exception-signature-id", v);
    return out;
}

// Entries in the middle of their lists go and come back in their place.
const std::string kRunning =
    av(vsys("vs1", leaf("antivirus-enable", "true") +
                       leaf("profiles", leaf("profile", leaf("name", "p1") + desc("a") + ids({"1", "2", "3"})) +
                                            leaf("profile", leaf("name", "p2") + desc("b")) +
                                            leaf("profile", leaf("name", "p3") + desc("c") +
                                                                leaf("whitelists", leaf("source-address", "10.0.0.1"))))) +
       vsys("vs2", profile("q1", "")) + leaf("global", leaf("file-reputation-age-time", "3")));
const std::string kEdit = av(
    vsys("vs1", leaf("profiles", leaf("profile", leaf("name", "p1") + desc("changed") +
                                                     leaf("exception-signature-id", "2", op("delete"))) +
                                     leaf("profile", leaf("name", "p2"), op("delete")) +
                                     leaf("profile", leaf("name", "p3") + desc("new"), op("replace")) +
                                     leaf("profile", leaf("name", "p4") + desc("d")))) +
    vsys("vs2", "", op("delete")));

struct Stage {
    const char* name;
    std::string fault;       // more of the edit, inside <antivirus>
    int refused_line = 0;    // the appliance refuses this line (1: the first, -1: the last); 0: none
    bool vsys_refused = false;
    bool check_refuses = false;
    bool dry_run = false, test_only = false;
};
std::ostream& operator<<(std::ostream& out, const Stage& s) { return out << s.name; }

const Stage kStages[] = {
    {"ByTheModel", leaf("global", leaf("file-reputation-age-time", "many"))},
    {"ByTheModule", vsys("vs1", profile("p4", desc("why?")))},
    {"ByTheCheck", "", 0, false, true},
    {"ThePlatformsFirstLine", "", 1},
    {"ThePlatformsSecondLine", "", 2},
    {"ThePlatformsThirdLine", "", 3},
    {"ThePlatformsLastLine", "", -1},
    {"ByTheVsysFeature", "", 0, true},
    {"DryRun", "", 0, false, false, true},
    {"TestOnly", "", 0, false, false, false, true},
};

class RefusedAtEveryStage : public ApplianceTest, public ::testing::WithParamInterface<Stage> {};

// The running configuration to the byte (entries in their order, implicit
// nodes) and the appliance as they were.
TEST_P(RefusedAtEveryStage, LeavesRunningAndThePlatformAsTheyWere) {
    const Stage& s = GetParam();
    Engine& engine = start_with_appliance(kRunning);
    const std::string before = print_all(engine.running_tree());
    const auto platform = appliance.configuration();
    const std::string edit_xml =
        kEdit.substr(0, kEdit.size() - std::string("</antivirus>").size()) + s.fault + "</antivirus>";
    const size_t lines = edit(edit_xml, {.dry_run = true}).lines.size();
    ASSERT_GE(lines, s.fault.empty() ? 5u : 0u);
    if (s.refused_line) appliance.refuse_line(s.refused_line > 0 ? s.refused_line : static_cast<unsigned>(lines), 9);
    if (s.vsys_refused) appliance.fail_vsys_removal(42);
    EditOptions options{.test_only = s.test_only, .dry_run = s.dry_run};
    if (s.check_refuses)
        options.check = [](const ChangeView&) {
            return std::optional<RpcError>(RpcError(tavrik::engine::ErrorType::Protocol, ErrorTag::AccessDenied, "no"));
        };
    const auto result = edit(edit_xml, options);
    EXPECT_EQ(result.ok, s.dry_run || s.test_only);
    if (s.refused_line || s.vsys_refused) {
        ASSERT_TRUE(result.error);
        EXPECT_EQ(result.error->app_code, s.refused_line ? 9 : 42);
    }
    EXPECT_EQ(print_all(engine.running_tree()), before);
    EXPECT_EQ(appliance.configuration(), platform)
        << ::testing::PrintToString(tavrik::appliance::differences(platform, appliance.configuration()));
    // And the same edit goes through afterwards.
    if (!result.ok && s.fault.empty() && !s.check_refuses) {
        EXPECT_TRUE(edit(edit_xml).ok);
        EXPECT_THAT(appliance_differences(), IsEmpty());
    }
}

INSTANTIATE_TEST_SUITE_P(Engine, RefusedAtEveryStage, ::testing::ValuesIn(kStages),
                         [](const auto& info) { return std::string(info.param.name); });

class Hooks : public EngineTest {};

TEST_F(Hooks, TheResultListsTheTopmostChangesInDocumentOrder) {
    start(kRunning);
    const auto result = edit(kEdit);
    ASSERT_TRUE(result.ok) << result.error->message;
    const std::string vs1 = "/tavrik-antivirus:antivirus/vsys[name='vs1']";
    const std::string p = vs1 + "/profiles/profile[name=";
    std::vector<std::pair<ChangeKind, std::string>> listed;
    for (const auto& c : result.changes) listed.emplace_back(c.kind, c.path);
    EXPECT_EQ(listed, (std::vector<std::pair<ChangeKind, std::string>>{
                          {ChangeKind::Modify, p + "'p1']/description"},
                          {ChangeKind::Delete, p + "'p1']/exception-signature-id[.='2']"},
                          {ChangeKind::Modify, p + "'p3']/description"},
                          {ChangeKind::Delete, p + "'p3']/whitelists"},
                          {ChangeKind::Create, p + "'p4']"},
                          {ChangeKind::Delete, p + "'p2']"},
                          {ChangeKind::Delete, "/tavrik-antivirus:antivirus/vsys[name='vs2']"},
                      }));
}

TEST_F(Hooks, TheCheckSeesEveryChangedNodeAndItsRefusalCallsNoCallback) {
    Engine& engine = start(kRunning);
    const std::string before = engine.running_xml();
    std::vector<std::string> seen;
    EditOptions options;
    options.check = [&](const ChangeView& changes) -> std::optional<RpcError> {
        for (size_t i = 0; i < changes.size(); ++i) {
            const char* kind = changes.kind(i) == ChangeKind::Create ? "create "
                               : changes.kind(i) == ChangeKind::Delete ? "delete "
                                                                      : "modify ";
            if (std::string(LYD_NAME(changes.node(i))) == "name") seen.push_back(kind + changes.path(i));
        }
        return RpcError(tavrik::engine::ErrorType::Protocol, ErrorTag::AccessDenied, "access denied");
    };
    const auto result = edit(av(vsys("vs1", profile("p2", "", op("delete")) + profile("p9", ""))), options);
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(result.error->tag, ErrorTag::AccessDenied);
    // Every node of a created or deleted entry, the deleted one at its place.
    EXPECT_EQ(seen, (std::vector<std::string>{
                        "create /tavrik-antivirus:antivirus/vsys[name='vs1']/profiles/profile[name='p9']/name",
                        "delete /tavrik-antivirus:antivirus/vsys[name='vs1']/profiles/profile[name='p2']/name"}));
    EXPECT_TRUE(tavrik::runtime::journal().cached.empty());
    EXPECT_TRUE(delivered().empty());
    EXPECT_EQ(engine.running_xml(), before);
}

// A datastore of its own (a candidate): edited and validated, never the
// module's business.
TEST_F(Hooks, ATreeOtherThanRunningIsEditedWithoutTheModule) {
    Engine& engine = start(kRunning);
    const std::string running = engine.running_xml();
    tavrik::engine::DataTree candidate = engine.copy_running();
    auto parsed = engine.parse(p1(desc("candidate")));
    const auto applied = engine.apply(candidate, parsed.tree.get());
    ASSERT_TRUE(applied.ok);
    ASSERT_EQ(applied.changes.size(), 1u);
    EXPECT_EQ(applied.changes[0].kind, ChangeKind::Modify);
    EXPECT_NE(print_all(candidate.get()).find("candidate"), std::string::npos);
    const std::string edited = print_all(candidate.get());
    auto again = engine.parse(av(vsys("vs1", profile("p1", "", op("create")))));
    EXPECT_EQ(engine.apply(candidate, again.tree.get()).error->tag, ErrorTag::DataExists);
    EXPECT_EQ(print_all(candidate.get()), edited);
    EXPECT_TRUE(tavrik::runtime::journal().cached.empty());
    EXPECT_EQ(engine.running_xml(), running);
    // Committed as a whole new configuration.
    const auto committed = engine.replace_running(std::move(candidate));
    ASSERT_TRUE(committed.ok);
    EXPECT_EQ(brief(committed.lines), std::vector<std::string>{"vs1/profile-av-p1(profile-av) add: description candidate"});
    EXPECT_THAT(engine.running_xml(), HasSubstr("<description>candidate</description>"));
}

// Every edit the engine accepts (checked where it changes the configuration)
// leaves a configuration libyang's validation of the whole accepts.
TEST_F(Hooks, LocalValidationAgreesWithValidatingTheWhole) {
    Engine& engine = start(kRunning);
    EXPECT_THAT(engine.nonlocal_constraints(), IsEmpty());
    const std::string edits[] = {
        av(vsys("vs1", profile("p5", desc("1")) + profile("p5", desc("2")) + profile("p5", ids({"7", "7", "8"})))),
        av(vsys("vs1", profile("p1", ids({"1", "9"}), op("replace")) + profile("p1", ids({"9", "10"})))),
        av(vsys("vs1", profile("p2", "", op("delete")) + profile("p2", desc("again"), op("create")))),
        av(vsys("vs1", profile("p3", leaf("whitelists", leaf("source-address", "10.0.0.1", op("delete")) +
                                                          leaf("source-address", "10.0.0.1", op("create")))))),
    };
    for (const std::string& e : edits) {
        const auto result = edit(e);
        ASSERT_TRUE(result.ok) << result.error->message << "\n" << e;
        lyd_node* copy = nullptr;
        ASSERT_EQ(lyd_dup_siblings(engine.running_tree(), nullptr, LYD_DUP_RECURSIVE, &copy), LY_SUCCESS);
        tavrik::engine::DataTree whole(copy);
        lyd_node* first = whole.release();
        EXPECT_EQ(lyd_validate_all(&first, engine.context(), LYD_VALIDATE_NO_STATE, nullptr), LY_SUCCESS)
            << ly_errmsg(engine.context()) << "\nafter " << e;
        whole.reset(first);
    }
}

// The model of this build with a constraint across entries: the engine sees
// it in the schema and validates every edit as a whole configuration.
TEST_F(Hooks, AModelWithAConstraintAcrossEntriesIsValidatedWhole) {
    namespace fs = std::filesystem;
    const fs::path dir = fs::temp_directory_path() / ("tkav-model-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    std::ifstream in(fs::path(TAVRIK_YANG_DIR) / "tavrik-antivirus.yang");
    std::stringstream text;
    text << in.rdbuf();
    std::string model = text.str();
    const std::string global = "container global {";
    model.insert(model.find(global) + global.size(),
                 "\n must \"not(file-reputation-age-time and file-reputation-age-time-hour)\";");
    std::ofstream(dir / "tavrik-antivirus.yang") << model;

    Engine engine(TAVRIK_MODULE_PATH, dir.string(), av(leaf("global", leaf("file-reputation-age-time", "1"))));
    fs::remove_all(dir);
    EXPECT_EQ(engine.nonlocal_constraints(),
              std::vector<std::string>{"must at /tavrik-antivirus:antivirus/global"});
    const std::string before = engine.running_xml();
    auto both = engine.parse(av(leaf("global", leaf("file-reputation-age-time-hour", "5"))));
    const auto refused = engine.edit(both.tree.get());
    ASSERT_FALSE(refused.ok);
    EXPECT_EQ(refused.error->tag, ErrorTag::InvalidValue);
    EXPECT_EQ(refused.error->path, "/tavrik-antivirus:antivirus/global");
    EXPECT_EQ(refused.error->bad_element, "global");
    EXPECT_EQ(engine.running_xml(), before);
    auto one = engine.parse(av(leaf("global", leaf("file-reputation-age-time", "", op("delete")) +
                                                  leaf("file-reputation-age-time-hour", "5"))));
    const auto accepted = engine.edit(one.tree.get());
    ASSERT_TRUE(accepted.ok) << accepted.error->message;
    EXPECT_EQ(brief(accepted.lines), (std::vector<std::string>{"public/system del: undo file-reputation set aging-time",
                                                               "public/system add: file-reputation set aging-time hour 5"}));
}

struct Constraint {
    const char* name;
    const char* body;    // inside container c of module t
    const char* found;   // what is reported; "" for nothing
};
std::ostream& operator<<(std::ostream& out, const Constraint& c) { return out << c.name; }

const Constraint kConstraints[] = {
    {"Local", "leaf l { type string { length 1..3; } } list e { key k; leaf k { type uint8; } }", ""},
    {"Must", "leaf l { type string; must \". != 'x'\"; }", "must at /t:c/l"},
    {"When", "leaf l { type string; when \"../m\"; } leaf m { type string; }", "when at /t:c/l"},
    {"Leafref", "leaf l { type leafref { path \"../m\"; } } leaf m { type string; }", "reference at /t:c/l"},
    {"InstanceIdentifierInAUnion", "leaf l { type union { type uint8; type instance-identifier; } }",
     "reference at /t:c/l"},
    {"Unique", "list e { key k; unique v; leaf k { type string; } leaf v { type string; } }", "unique at /t:c/e"},
    {"MaxElements", "leaf-list v { type string; max-elements 2; }", "min-elements/max-elements at /t:c/v"},
    {"Mandatory", "leaf l { type string; mandatory true; }", "mandatory at /t:c"},
    {"Default", "leaf l { type string; default x; }", "default at /t:c/l"},
    {"StateData", "container s { config false; leaf l { type leafref { path \"../m\"; } } leaf m { type string; } }",
     ""},
};

class Constraints : public ::testing::TestWithParam<Constraint> {};

TEST_P(Constraints, AcrossEntriesAreFoundInTheSchema) {
    ly_ctx* ctx = nullptr;
    ASSERT_EQ(ly_ctx_new(nullptr, 0, &ctx), LY_SUCCESS);
    const std::string module = std::string("module t { namespace \"urn:t\"; prefix t; container c { ") +
                               GetParam().body + " } }";
    lys_module* parsed = nullptr;
    ASSERT_EQ(lys_parse_mem(ctx, module.c_str(), LYS_IN_YANG, &parsed), LY_SUCCESS) << module;
    const auto found = tavrik::engine::nonlocal_constraints(parsed);
    EXPECT_EQ(found.empty() ? "" : found.front(), GetParam().found);
    ly_ctx_destroy(ctx);
}

INSTANTIATE_TEST_SUITE_P(Engine, Constraints, ::testing::ValuesIn(kConstraints),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tktest
