// One edit end to end: a profile with a description and a scanned protocol,
// then removals of the profile and of the whole vsys.
#include "engine_fixture.hpp"

namespace tktest {
namespace {

using ::testing::ElementsAre;

class EndToEnd : public EngineTest {};

const std::string kNewProfile =
    p1(leaf("description", "first profile") +
       leaf("detect", leaf("protocol-type", "http") +
                          leaf("detect-configuration", leaf("direction", "both") + leaf("action", "block"))));

TEST_F(EndToEnd, ProfileDescriptionAndDetectionInPriorityOrder) {
    Engine& engine = start();
    const auto result = engine.edit(kNewProfile);
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
    const auto result = engine.edit(av(vsys("vs1", profile("p1", "", op("delete")))));
    ASSERT_TRUE(result.ok) << result.error->message;
    EXPECT_THAT(delivered(), ElementsAre("vs1/system del: undo profile type av name p1"));
    EXPECT_EQ(engine.running_xml().find("p1"), std::string::npos);
}

TEST_F(EndToEnd, RemovingTheVsysSendsNothingForItsProfiles) {
    Engine& engine = start(av(vsys("vs1", leaf("antivirus-enable", "true") +
                                            profile("p1", leaf("description", "x")) + profile("p2", ""))));
    const auto result = engine.edit(av(leaf("vsys", leaf("name", "vs1"), op("delete"))));
    ASSERT_TRUE(result.ok) << result.error->message;
    EXPECT_TRUE(result.lines.empty());
    EXPECT_TRUE(delivered().empty());
    EXPECT_EQ(engine.running_xml(), "");
}

}  // namespace
}  // namespace tktest
