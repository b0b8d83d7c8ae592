// One edit end to end: a profile with a description and a scanned protocol,
// then removals of the profile and of the whole vsys (with the recording
// platform, and with the appliance standing in for the vsys feature).
#include "engine_fixture.hpp"

namespace tktest {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class EndToEnd : public EngineTest {};

const std::string kNewProfile =
    p1(leaf("description", "first profile") +
       leaf("detect", leaf("protocol-type", "http") +
                          leaf("detect-configuration", leaf("direction", "both") + leaf("action", "block"))));

TEST_F(EndToEnd, ProfileDescriptionAndDetectionInPriorityOrder) {
    Engine& engine = start();
    const auto result = edit(kNewProfile);
    ASSERT_TRUE(result.ok) << result.error->message;
    // The profile (priority 6) comes before its settings (priority 3); the
    // detect-configuration container and its two leaves are each reported
    // as added, and the leaf handlers restate the line of the container.
    const std::vector<std::string> expected = {
        "vs1/system add: profile type av name p1",
        "vs1/profile-av-p1(profile-av) add: description first profile",
        "vs1/profile-av-p1(profile-av) add: http-detect direction both action block",
        "vs1/profile-av-p1(profile-av) add: http-detect direction both",
        "vs1/profile-av-p1(profile-av) add: http-detect direction both action block",
    };
    EXPECT_EQ(brief(result.lines), expected);
    EXPECT_EQ(delivered(), expected);
    // Every line travels in a message of its own.
    EXPECT_EQ(tavrik::runtime::default_platform().deliveries.size(), expected.size());
    EXPECT_NE(engine.running_xml().find("<description>first profile</description>"), std::string::npos);
}

TEST_F(EndToEnd, RemovingOneProfileSendsOnlyItsUndoLine) {
    Engine& engine = start(kNewProfile);
    const auto result = edit(av(vsys("vs1", profile("p1", "", op("delete")))));
    ASSERT_TRUE(result.ok) << result.error->message;
    EXPECT_THAT(delivered(), ElementsAre("vs1/system del: undo profile type av name p1"));
    EXPECT_EQ(engine.running_xml().find("p1"), std::string::npos);
}

TEST_F(EndToEnd, RemovingTheVsysSendsNothingForItsProfiles) {
    Engine& engine = start(av(vsys("vs1", leaf("antivirus-enable", "true") +
                                            profile("p1", leaf("description", "x")) + profile("p2", ""))));
    const auto result = edit(av(leaf("vsys", leaf("name", "vs1"), op("delete"))));
    ASSERT_TRUE(result.ok) << result.error->message;
    EXPECT_TRUE(result.lines.empty());
    EXPECT_TRUE(delivered().empty());
    EXPECT_EQ(engine.running_xml(), "");
}

// The host stands in for the server's vsys feature: the appliance drops a
// removed vsys, and only when the whole edit goes through.
class VsysRemoval : public ApplianceTest {
protected:
    void SetUp() override {
        ApplianceTest::SetUp();
        start_with_appliance("");
        const auto created = edit(av(kVs1 + kVs2 + leaf("global", leaf("file-reputation-age-time-hour", "12"))));
        ASSERT_TRUE(created.ok) << created.error->message;
        ASSERT_TRUE(appliance.configuration().vsys.contains("vs1"));
        before_ = appliance.configuration();
    }
    const tavrik::appliance::Configuration& before() const { return before_; }

    static inline const std::string kVs1 =
        vsys("vs1", leaf("antivirus-enable", "true") +
                        profile("p1", leaf("description", "old") + leaf("heuristic-detect-enable", "true") +
                                          leaf("exception-signature", leaf("id", "7") + leaf("action", "allow"))));
    static inline const std::string kVs2 = vsys("vs2", profile("p2", leaf("description", "kept")));
    static inline const std::string kRemoveVs1 = vsys("vs1", "", op("delete"));

private:
    tavrik::appliance::Configuration before_;
};

TEST_F(VsysRemoval, TakesEverythingOfTheVsysFromTheAppliance) {
    appliance.set_references("vs1", "p1", 2);
    const auto removed = edit(av(kRemoveVs1));
    ASSERT_TRUE(removed.ok) << removed.error->message;
    EXPECT_TRUE(removed.lines.empty());  // the module sends nothing for it
    EXPECT_FALSE(appliance.configuration().vsys.contains("vs1"));
    EXPECT_EQ(appliance.references("vs1", "p1"), 0u);
    EXPECT_EQ(appliance.configuration().vsys.at("vs2"), before().vsys.at("vs2"));
    EXPECT_EQ(appliance.configuration().aging_hours, 12u);
    EXPECT_THAT(appliance_differences(), IsEmpty());

    // Created again, the vsys starts from nothing: no description, no
    // switch, no exception left over from before.
    const auto again = edit(av(vsys("vs1", profile("p1", leaf("collect-attack-evidence-enable", "true")))));
    ASSERT_TRUE(again.ok) << again.error->message;
    EXPECT_THAT(brief(again.lines), Contains("vs1/system add: profile type av name p1"));
    EXPECT_THAT(appliance_differences(), IsEmpty());
    const auto& p1 = appliance.configuration().vsys.at("vs1").profiles.at("p1");
    EXPECT_EQ(p1.description, std::nullopt);
    EXPECT_TRUE(p1.signatures.empty());
    EXPECT_EQ(appliance.configuration().vsys.at("vs1").antivirus, tavrik::appliance::Setting::Unset);
    // What the module reads back agrees as well.
    const auto read_back = engine().module_config();
    ASSERT_TRUE(read_back);
    EXPECT_THAT(tavrik::appliance::differences(tavrik::appliance::parse_configuration(engine().running_xml()),
                                               tavrik::appliance::parse_configuration(*read_back)),
                IsEmpty());
}

TEST_F(VsysRemoval, RemovingTheWholeConfigurationRemovesEveryVsys) {
    const auto removed = edit(std::string("<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\" "
                                                   "xmlns:nc=\"") + kNetconfNs + "\" " + op("delete") + "/>");
    ASSERT_TRUE(removed.ok) << removed.error->message;
    EXPECT_EQ(engine().running_xml(), "");
    EXPECT_TRUE(appliance.configuration().vsys.empty());
    EXPECT_EQ(appliance.configuration().aging_hours, std::nullopt);  // by the module's own line
}

TEST_F(VsysRemoval, DryRunDropsNothing) {
    const auto dry = edit(av(kRemoveVs1), {.dry_run = true});
    ASSERT_TRUE(dry.ok);
    EXPECT_EQ(appliance.configuration(), before());
}

// Refused edits that remove vs1: nothing of vs1 may go, and what the edit
// sent for vs2 is taken back.
struct RefusedRemoval {
    const char* name;
    std::string vs2;         // the rest of the edit
    bool removal_refused;    // the appliance refuses to remove the vsys
    ErrorTag tag;
    int code;
    std::string message;
};
std::ostream& operator<<(std::ostream& out, const RefusedRemoval& r) { return out << r.name; }

const RefusedRemoval kRefusedRemovals[] = {
    {"ByTheModule", profile("p2", leaf("description", "why?")), false, ErrorTag::BadElement, 9,
     "The profile description has '?'."},
    {"ByTheApplianceForALine", profile("p2", leaf("whitelists", leaf("source-address", "not-an-address"))), false,
     ErrorTag::OperationFailed, tavrik::appliance::kValue, "\"whitelist source-address not-an-address\""},
    {"ByTheApplianceForTheVsys", profile("p2", leaf("description", "new")), true, ErrorTag::OperationFailed, 42,
     "The platform refused to remove the vsys \"vs1\" with code 42; the configuration is unchanged."},
};

class RefusedRemovals : public VsysRemoval, public ::testing::WithParamInterface<RefusedRemoval> {};

TEST_P(RefusedRemovals, DropNothing) {
    const RefusedRemoval& r = GetParam();
    const std::string running = engine().running_xml();
    if (r.removal_refused) appliance.fail_vsys_removal(42);
    const auto result = edit(av(kRemoveVs1 + vsys("vs2", r.vs2)));
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(result.error->tag, r.tag);
    EXPECT_EQ(result.error->app_code, r.code);
    EXPECT_THAT(result.error->message, HasSubstr(r.message));
    EXPECT_EQ(appliance.configuration(), before())
        << ::testing::PrintToString(tavrik::appliance::differences(before(), appliance.configuration()));
    EXPECT_EQ(engine().running_xml(), running);
    if (r.removal_refused) {
        // The description had reached the appliance and was restored.
        EXPECT_EQ(result.error->path, "/tavrik-antivirus:antivirus/vsys[name='vs1']");
        EXPECT_THAT(brief(result.lines), ElementsAre("vs2/profile-av-p2(profile-av) add: description new",
                                                     "vs2/profile-av-p2(profile-av) add: description kept"));
        // With the fault gone the same edit goes through.
        EXPECT_TRUE(edit(av(kRemoveVs1 + vsys("vs2", r.vs2))).ok);
        EXPECT_FALSE(appliance.configuration().vsys.contains("vs1"));
        EXPECT_THAT(appliance_differences(), IsEmpty());
    }
}

INSTANTIATE_TEST_SUITE_P(Engine, RefusedRemovals, ::testing::ValuesIn(kRefusedRemovals),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tktest
