// Loading: the module's descriptors, the data model, the initial running
// configuration; the module's reads; and rebuilding the running
// configuration in memory of its own after large edits: when it happens,
// and that the configuration and its implicit defaults come back exactly.
#include "engine_fixture.hpp"

namespace tktest {
namespace {

// What the constructor throws; "(loaded)" when it does not.
std::pair<std::string, std::optional<RpcError>> load_error(const std::string& module, const std::string& yang,
                                                          const std::string& running = "") {
    try {
        Engine engine(module, yang, running);
    } catch (const tavrik::engine::EngineError& e) {
        return {e.what(), e.detail()};
    }
    return {"(loaded)", std::nullopt};
}

TEST(Loading, RefusesWhatTheServerCannotUse) {
    EXPECT_THAT(load_error("/nonexistent/module.so", TAVRIK_YANG_DIR).first, HasSubstr("cannot load module"));
    EXPECT_THAT(load_error(FAKE_MODULE_DIR "/fake-module-version.so", TAVRIK_YANG_DIR).first, HasSubstr("interface version 3"));
    EXPECT_THAT(load_error(FAKE_MODULE_DIR "/fake-module-incomplete.so", TAVRIK_YANG_DIR).first, HasSubstr("\"clbks\""));
    EXPECT_THAT(load_error(TAVRIK_MODULE_PATH, "/nonexistent").first, HasSubstr("/nonexistent"));
    EXPECT_THAT(load_error(TAVRIK_MODULE_PATH, FAKE_MODULE_DIR).first, HasSubstr("no data model"));
    // The initial running configuration: an unknown element by its path,
    // malformed text by its line.
    const RpcError unknown =
        load_error(TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR, av("\n" + leaf("global", "\n<age/>"))).second.value_or(RpcError());
    EXPECT_EQ(std::pair(unknown.tag, unknown.path), std::pair(ErrorTag::UnknownElement, kAv + "/global/age"));
    const auto malformed = load_error(TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR, av("\n" + leaf("global", "\n<age>")));
    EXPECT_EQ(malformed.second.value_or(RpcError()).tag, ErrorTag::MalformedMessage);
    EXPECT_THAT(malformed.first, HasSubstr("line 3"));
}

TEST_F(EngineTest, ConfigurationAndStateComeFromThePlatformThroughTheModule) {
    Engine& engine = start();
    auto& platform = tavrik::runtime::default_platform();
    platform.config_reply = {0, true, std::string("<antivirus xmlns=\"urn:x\"/>") + '\0'};
    platform.state_reply = {0, true, "<antivirus-state xmlns=\"urn:x\">  <vsys><name>vs1</name></vsys></antivirus-state>"};
    EXPECT_EQ(engine.module_config(), "<antivirus xmlns=\"urn:x\"/>");
    tavrik::runtime::reset_journal();
    EXPECT_THAT(engine.module_state().value_or(""), HasSubstr("<vsys>\n    <name>vs1</name>\n  </vsys>"));
    EXPECT_EQ(tavrik::runtime::journal().releases, 1);  // the module released the reply
    platform.config_reply = {3, true, ""};
    platform.state_reply = {0, false, ""};
    EXPECT_EQ(engine.module_config(), std::nullopt);
    EXPECT_EQ(engine.module_state(), std::nullopt);
}

TEST_F(EngineTest, CompactRebuildsAfterLargeEditsOnly) {
    Engine& engine = start(p1(desc("d")));
    EXPECT_FALSE(engine.compact());
    std::string profiles;
    for (int i = 2; i <= 1500; ++i)
        profiles += profile("p" + std::to_string(i), desc("d") + leaf("heuristic-detect-enable", "true"));
    ASSERT_TRUE(edit(av(vsys("vs1", profiles))).ok);
    const std::string before = print_tree(engine.running_tree(), LYD_PRINT_WD_ALL_TAG);
    EXPECT_TRUE(engine.compact());
    EXPECT_EQ(print_tree(engine.running_tree(), LYD_PRINT_WD_ALL_TAG), before);
    ASSERT_TRUE(edit(p1(desc("e"))).ok);
    EXPECT_THAT(engine.running_xml(), HasSubstr("<description>e</description>"));
    EXPECT_FALSE(engine.compact());  // a small edit against a configuration of 1,500 profiles
}

}  // namespace
}  // namespace tktest
