// All or nothing: an edit refused at any stage (the model, the module, the
// check, a line of the platform, the vsys feature) leaves the running
// configuration, plain data included, and the platform as they were; what
// the platform already carried out is taken back.
#include "engine_fixture.hpp"

namespace tktest {
namespace {

// Entries in the middle of their lists go and come back in their place.
const std::string kIds = leaf("exception-signature-id", "1") + leaf("exception-signature-id", "2");
const std::string kRunning =
    av(vsys("vs1", leaf("antivirus-enable", "true") + profile("p1", desc("a") + kIds) + profile("p2", desc("b")) +
                       profile("p3", desc("c") + leaf("whitelists", leaf("source-address", "10.0.0.1")))) +
       vsys("vs2", profile("q1", "")) + leaf("global", leaf("file-reputation-age-time", "3")));
const std::string kEdit =
    av(vsys("vs1", profile("p1", desc("changed") + leaf("exception-signature-id", "1", op("delete"))) +
                       profile("p2", "", op("delete")) + profile("p3", desc("new"), op("replace")) +
                       profile("p4", desc("d"))) +
       vsys("vs2", "", op("delete"))) +
    nacm(group("admins", "", op("delete")) + leaf("read-default", "permit") + group("ops", "oper"));

struct Stage {
    const char* name;
    std::string fault;      // more of the edit
    ErrorTag tag = ErrorTag::OperationFailed;
    // The refusing party's code; the line the appliance refuses (-1: the last; 0: none).
    int code = 0, refused_line = 0;
    bool vsys_refused = false, check_refuses = false, dry_run = false, test_only = false;
};

const Stage kStages[] = {
    {"ByTheModel", av(leaf("global", leaf("file-reputation-age-time", "many"))), ErrorTag::InvalidValue},
    // The module's code gives the tag.
    {"ByTheModule", p1(desc("why?")), ErrorTag::BadElement, 9},
    {"ByTheModuleWithoutTag", p1(leaf("heuristic-detect-enable", "maybe")), ErrorTag::OperationFailed, 1},
    {"ByTheModuleForAMissingElement", av(vsys("public", leaf("antivirus-enable", "true"))), ErrorTag::MissingElement, 8},
    {"ByTheModuleForAnUnknownElement", av(vsys("vs1", profile("   ", ""))), ErrorTag::UnknownElement, 10},
    // A rule without its mandatory action: libyang's validation of the data module.
    {"ByTheDataModulesModel", nacm(leaf("rule-list", leaf("name", "r") + leaf("rule", leaf("name", "r1")))),
     ErrorTag::InvalidValue},
    {"ByTheCheck", "", ErrorTag::AccessDenied, 0, 0, false, true},
    {"ThePlatformsFirstLine", "", ErrorTag::OperationFailed, 9, 1},
    {"ThePlatformsLastLine", "", ErrorTag::OperationFailed, 9, -1},
    {"ByTheVsysFeature", "", ErrorTag::OperationFailed, 42, 0, true},
    {"DryRun", "", ErrorTag::OperationFailed, 0, 0, false, false, true},
    {"TestOnlyAsksNoModule", p1(desc("why?")), ErrorTag::OperationFailed, 0, 0, false, false, false, true},
};

class RefusedAtEveryStage : public EngineTest, public ::testing::WithParamInterface<Stage> {};

TEST_P(RefusedAtEveryStage, LeavesRunningAndThePlatformAsTheyWere) {
    const Stage& s = GetParam();
    Engine& engine = start(kRunning, kNacm, true);
    ASSERT_TRUE(edit(nacm(group("admins", "alice") + leaf("read-default", "deny"))).ok);
    const std::string before = running();
    const auto platform = appliance.configuration();
    const std::string edit_xml = kEdit + s.fault;
    const size_t lines = edit(edit_xml, {.dry_run = true}).lines.size();
    if (s.refused_line) appliance.refuse_line(s.refused_line > 0 ? s.refused_line : static_cast<unsigned>(lines), 9);
    if (s.vsys_refused) appliance.fail_vsys_removal(42);
    tavrik::runtime::reset_journal();
    const auto result =
        edit(edit_xml, {.test_only = s.test_only, .dry_run = s.dry_run, .check = s.check_refuses ? deny : nullptr});
    ASSERT_EQ(result.ok, s.dry_run || s.test_only);
    if (s.test_only) { EXPECT_TRUE(tavrik::runtime::journal().cached.empty()); }
    if (!result.ok) {
        EXPECT_EQ(result.error->tag, s.tag) << result.error->message;
        EXPECT_EQ(result.error->app_code, s.code);
        EXPECT_EQ(result.lines.empty(), !s.refused_line && !s.vsys_refused);  // sent: restored too
    }
    EXPECT_EQ(running(), before);
    EXPECT_EQ(tavrik::appliance::differences(platform, appliance.configuration()), std::vector<std::string>{});
    // And the same edit goes through afterwards.
    if (!result.ok && s.fault.empty() && !s.check_refuses) {
        EXPECT_TRUE(edit(edit_xml).ok);
        // The appliance holds the model's part of the running configuration.
        const std::string xml = engine.running_xml();
        const size_t from = std::min(xml.find("<antivirus"), xml.size()), to = xml.find("</antivirus>");
        EXPECT_EQ(appliance.configuration(), tavrik::appliance::parse_configuration(xml.substr(from, to + 12 - from)));
    }
}

INSTANTIATE_TEST_SUITE_P(Engine, RefusedAtEveryStage, ::testing::ValuesIn(kStages), by_name);

// What was carried out is taken back, in reverse: the profile goes, and its
// description with it.
TEST_F(EngineTest, PlatformRefusalIsUndoneAndReported) {
    start(av(vsys("vs1", "")));
    const std::string before = running();
    tavrik::runtime::default_platform().next_results = {0, 0, 5};
    const auto result = edit(p1(desc("d") + leaf("collect-attack-evidence-enable", "true")));
    EXPECT_THAT(result.error.value_or(RpcError()).message, HasSubstr("line \"collect-attack-evidence enable\" (vsys"));
    const std::vector<std::string> expected = {
        "vs1/system add: profile type av name p1", "vs1/profile-av-p1(profile-av) add: description d",
        "vs1/profile-av-p1(profile-av) add: collect-attack-evidence enable", "vs1/system del: undo profile type av name p1"};
    EXPECT_EQ(delivered(), expected);
    EXPECT_EQ(brief(result.lines), expected);
    EXPECT_EQ(running(), before);
}

// A signature exception whose action or timeout goes: the leaf's removal
// line (priority 67) reaches the appliance, then the description (priority
// 3) is refused before the entry's own line is sent. The restore re-adds the
// leaf, whose handler sends nothing; the entry's line, carried by its chain
// change, must restore the appliance even though that change never ran.
TEST_F(EngineTest, HalfDoneSignatureRestoreSendsTheEntrysLine) {
    const std::string cases[][2] = {  // the entry's leaves beside its id, the leaf the edit removes
        {leaf("action", "allow"), "action"}, {leaf("action", "block-source-ip") + leaf("timeout", "30"), "timeout"}};
    for (const auto& [exception, removed] : cases) {
        start(p1(desc("a") + leaf("exception-signature", leaf("id", "100") + exception)), {}, true);
        const auto before = appliance.configuration();
        appliance.refuse_line(2);
        EXPECT_FALSE(
            edit(p1(desc("b") + leaf("exception-signature", leaf("id", "100") + leaf(removed, "", op("delete"))))).ok);
        EXPECT_EQ(appliance.configuration(), before) << removed;
    }
}

}  // namespace
}  // namespace tktest
