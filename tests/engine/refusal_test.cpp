// All or nothing: refusals of the module and of the platform, dry runs.
#include "engine_fixture.hpp"
#include "tavrik/appliance.hpp"

namespace tktest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class Refusals : public EngineTest {};

const std::string kProfilePath = "/tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile";
const std::string kP1 = "/tavrik-antivirus:antivirus/vsys[name='vs1']/profiles/profile[name='p1']";

struct ModuleRefusal {
    const char* name;
    std::string running;
    std::string edit;
    ErrorTag tag;
    std::string message;
    std::string path;         // the changed node's
    std::string module_path;  // the module's own
    int code;
};
std::ostream& operator<<(std::ostream& out, const ModuleRefusal& r) { return out << r.name; }

const ModuleRefusal kModuleRefusals[] = {
    // Accepted changes come before the refused one in the same edit; nothing
    // of them may reach the platform.
    {"InTheMiddleOfAnEdit", p1(""),
     p1(leaf("description", "fine") + leaf("collect-attack-evidence-enable", "true") +
        leaf("heuristic-detect-enable", "maybe") + leaf("exception-signature-id", "1001")),
     ErrorTag::OperationFailed, "Unknown input.", kP1 + "/heuristic-detect-enable",
     kProfilePath + "/heuristic-detect-enable", 1},
    {"BadElement", p1(""), p1(leaf("description", "why?")), ErrorTag::BadElement, "The profile description has '?'.",
     kP1 + "/description", kProfilePath + "/description", 9},
    {"MissingElement", "", av(vsys("public", leaf("antivirus-enable", "true"))), ErrorTag::MissingElement,
     "The public vsys is not support.", "/tavrik-antivirus:antivirus/vsys[name='public']/antivirus-enable",
     "/tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:antivirus-enable", 8},
    {"UnknownElement", av(vsys("vs1", "")), av(vsys("vs1", profile("   ", ""))), ErrorTag::UnknownElement,
     "AV netconf check Node Name failed.", "/tavrik-antivirus:antivirus/vsys[name='vs1']/profiles/profile[name='   ']",
     kProfilePath, 10},
};

class ModuleRefusals : public EngineTest, public ::testing::WithParamInterface<ModuleRefusal> {};

TEST_P(ModuleRefusals, LeaveThePlatformAndTheRunningConfigurationUntouched) {
    const ModuleRefusal& r = GetParam();
    Engine& engine = start(r.running);
    const std::string before = engine.running_xml();
    const auto result = edit(r.edit);
    ASSERT_FALSE(result.ok);
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->tag, r.tag);
    EXPECT_EQ(result.error->message, r.message);
    EXPECT_EQ(result.error->path, r.path);
    EXPECT_EQ(result.error->module_path, r.module_path);
    EXPECT_THAT(r.path, ::testing::EndsWith(result.error->bad_element + (r.code == 10 ? "[name='   ']" : "")));
    EXPECT_EQ(result.error->app_code, r.code);
    EXPECT_TRUE(result.lines.empty());
    EXPECT_TRUE(delivered().empty());
    EXPECT_EQ(engine.running_xml(), before);
}

INSTANTIATE_TEST_SUITE_P(Engine, ModuleRefusals, ::testing::ValuesIn(kModuleRefusals),
                         [](const auto& info) { return std::string(info.param.name); });

const std::string kHttp = leaf(
    "detect", leaf("protocol-type", "http") +
                  leaf("detect-configuration", leaf("direction", "both") + leaf("action", "alert")));

TEST_F(Refusals, FailureWithoutErrorRecordNamesTheCallbackAndTheNode) {
    start(p1(kHttp));
    // A direction leaf without text: its handler ends with 1 and says nothing.
    const auto result =
        edit(p1(leaf("detect", leaf("protocol-type", "http") + leaf("detect-configuration", "<direction/>"))));
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(result.error->tag, ErrorTag::OperationFailed);
    EXPECT_EQ(result.error->app_code, 1);
    EXPECT_THAT(result.error->message, HasSubstr("callback_AV_ProfileDetectConfigDirection_ADD"));
    EXPECT_EQ(result.error->path,
              "/tavrik-antivirus:antivirus/vsys[name='vs1']/profiles/profile[name='p1']/"
              "detect[protocol-type='http']/detect-configuration/direction");
    EXPECT_THAT(result.error->message, HasSubstr(result.error->path));
    EXPECT_TRUE(delivered().empty());
}

TEST_F(Refusals, PlatformRefusalIsUndoneAndReported) {
    Engine& engine = start(av(vsys("vs1", "")));
    const std::string before = engine.running_xml();
    tavrik::runtime::default_platform().next_results = {0, 0, 5};
    const auto result = edit(p1(leaf("description", "d") + leaf("collect-attack-evidence-enable", "true")));
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(result.error->tag, ErrorTag::OperationFailed);
    EXPECT_EQ(result.error->app_code, 5);
    EXPECT_THAT(result.error->message, HasSubstr("\"collect-attack-evidence enable\""));
    EXPECT_THAT(result.error->message, HasSubstr("code 5"));
    // What was carried out is taken back: the profile goes, and its
    // description with it.
    const std::vector<std::string> expected = {
        "vs1/system add: profile type av name p1",
        "vs1/profile-av-p1(profile-av) add: description d",
        "vs1/profile-av-p1(profile-av) add: collect-attack-evidence enable",
        "vs1/system del: undo profile type av name p1",
    };
    EXPECT_EQ(delivered(), expected);
    EXPECT_EQ(brief(result.lines), expected);
    EXPECT_EQ(engine.running_xml(), before);
}

// With the simulated appliance behind the channel, a refused line leaves the
// appliance exactly as it was, whatever the edit had already changed.
class ApplianceRefusals : public ApplianceTest {};

TEST_F(ApplianceRefusals, ApplianceIsRestoredAfterARefusedLine) {
    const std::string running = av(vsys("vs1", leaf("antivirus-enable", "true") +
                                                   profile("p1", leaf("description", "a") + kHttp) +
                                                   profile("p2", leaf("heuristic-detect-enable", "true"))) +
                                   leaf("global", leaf("file-reputation-age-time-hour", "48")));
    Engine& engine = start_with_appliance(running);
    const auto before = appliance.configuration();

    // Removal of p2 (64), then at 67 the aging time, then at 3 the new
    // description, the changed detection and an address the appliance
    // refuses.
    const auto result = edit(
        av(vsys("vs1", profile("p2", "", op("delete")) +
                           profile("p1", leaf("description", "b") +
                                             leaf("detect", leaf("protocol-type", "http") +
                                                                leaf("detect-configuration", leaf("action", "block"))) +
                                             leaf("whitelists", leaf("source-address", "not-an-address")))) +
           leaf("global", leaf("file-reputation-age-time-hour", "", op("delete")))));
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(result.error->app_code, tavrik::appliance::kValue);
    EXPECT_THAT(result.error->message, HasSubstr("whitelist source-address not-an-address"));
    EXPECT_EQ(appliance.configuration(), before) << ::testing::PrintToString(
        tavrik::appliance::differences(before, appliance.configuration()));
    EXPECT_NE(engine.running_xml().find("<description>a</description>"), std::string::npos);
}

// A signature exception whose action or timeout goes: the leaf's removal
// line (priority 67) reaches the appliance, then a line at priority 3 is
// refused before the entry's own line is sent. The restore re-adds the leaf,
// whose handler sends nothing; the entry's line, carried by its chain change,
// must restore the appliance even though that change never ran.
struct HalfDoneSignature {
    const char* name;
    std::string exception;  // the entry's leaves beside its id
    std::string removed;    // the leaf the edit removes
    std::string restoring;  // the line that brings the appliance back
};
std::ostream& operator<<(std::ostream& out, const HalfDoneSignature& c) { return out << c.name; }

class HalfDoneSignatures : public ApplianceTest, public ::testing::WithParamInterface<HalfDoneSignature> {};

TEST_P(HalfDoneSignatures, RestoreSendsTheEntrysLine) {
    const HalfDoneSignature& c = GetParam();
    const std::string running =
        p1(leaf("description", "a") + leaf("exception-signature", leaf("id", "100") + c.exception));
    Engine& engine = start_with_appliance(running);
    const auto before = appliance.configuration();

    appliance.refuse_line(2);  // the description, after the leaf's removal
    const auto result = edit(
        p1(leaf("description", "b") + leaf("exception-signature", leaf("id", "100") + leaf(c.removed, "", op("delete")))));
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(result.error->app_code, tavrik::appliance::kInjected);
    EXPECT_THAT(result.error->message, HasSubstr("\"description b\""));
    EXPECT_EQ(describe(appliance.configuration()), describe(before));
    EXPECT_THAT(appliance_differences(), IsEmpty());
    EXPECT_NE(engine.running_xml().find("<" + c.removed + ">"), std::string::npos);
    ASSERT_FALSE(result.lines.empty());
    EXPECT_EQ(result.lines.back().line, c.restoring);
}

INSTANTIATE_TEST_SUITE_P(
    Engine, HalfDoneSignatures,
    ::testing::Values(HalfDoneSignature{"Action", leaf("action", "allow"), "action",
                                        "exception av-signature-id 100 action allow"},
                      HalfDoneSignature{"Timeout", leaf("action", "block-source-ip") + leaf("timeout", "30"),
                                        "timeout", "exception av-signature-id 100 action block-source-ip timeout 30"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Refusals, DryRunReturnsTheLinesAndDeliversNothing) {
    Engine& engine = start(p1(""));
    const std::string before = engine.running_xml();
    const auto result = edit(p1(leaf("description", "d")), {.dry_run = true});
    ASSERT_TRUE(result.ok);
    EXPECT_THAT(brief(result.lines), ElementsAre("vs1/profile-av-p1(profile-av) add: description d"));
    EXPECT_TRUE(delivered().empty());
    EXPECT_EQ(engine.running_xml(), before);
}

TEST_F(Refusals, TestOnlyValidatesWithoutCallingTheModule) {
    Engine& engine = start(p1(""));
    const std::string before = engine.running_xml();
    const EditOptions options{.test_only = true};
    const auto accepted = edit(p1(leaf("description", "why?")), options);
    EXPECT_TRUE(accepted.ok);  // only the module would refuse this
    EXPECT_TRUE(accepted.lines.empty());
    EXPECT_TRUE(tavrik::runtime::journal().cached.empty());
    const auto refused = edit(av(vsys(std::string(32, 'v'), "")), options);
    ASSERT_FALSE(refused.ok);
    EXPECT_EQ(refused.error->tag, ErrorTag::InvalidValue);
    EXPECT_EQ(engine.running_xml(), before);
    EXPECT_TRUE(delivered().empty());
}

}  // namespace
}  // namespace tktest
