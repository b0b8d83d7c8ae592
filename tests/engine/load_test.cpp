// Loading: the module's descriptors, the data model, the initial running
// configuration; and the module's reads.
#include "engine_fixture.hpp"

namespace tktest {
namespace {

using tavrik::engine::EngineError;
using ::testing::HasSubstr;

struct LoadError {
    std::string what = "(loaded)";
    std::optional<tavrik::engine::RpcError> detail;
};
LoadError refusal(const std::string& module, const std::string& yang, const std::string& running = "") {
    try {
        Engine engine(module, yang, running);
    } catch (const EngineError& e) {
        return {e.what(), e.detail()};
    }
    return {};
}
std::string load_error(const std::string& module, const std::string& yang) { return refusal(module, yang).what; }

TEST(Loading, RefusesWhatTheServerCannotUse) {
    const std::string fake = FAKE_MODULE_DIR;
    EXPECT_THAT(load_error("/nonexistent/module.so", TAVRIK_YANG_DIR), HasSubstr("cannot load module"));
    EXPECT_THAT(load_error(fake + "/fake-module-version.so", TAVRIK_YANG_DIR),
                HasSubstr("plug-in interface version 3"));
    EXPECT_THAT(load_error(fake + "/fake-module-incomplete.so", TAVRIK_YANG_DIR), HasSubstr("\"clbks\""));
    EXPECT_THAT(load_error(TAVRIK_MODULE_PATH, "/nonexistent"), HasSubstr("/nonexistent"));
    EXPECT_THAT(load_error(TAVRIK_MODULE_PATH, FAKE_MODULE_DIR), HasSubstr("no data model"));
}

// An unknown element is found walking the parsed tree: it is named by its
// path; malformed text by its line.
TEST(Loading, InitialRunningConfigurationErrorsNameThePlace) {
    const LoadError unknown = refusal(TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR, av("\n" + leaf("global", "\n<age/>")));
    ASSERT_TRUE(unknown.detail);
    EXPECT_EQ(unknown.detail->tag, ErrorTag::UnknownElement);
    EXPECT_EQ(unknown.detail->path, "/tavrik-antivirus:antivirus/global/age");
    EXPECT_THAT(unknown.what, HasSubstr("/global/"));
    const LoadError malformed = refusal(TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR, av("\n" + leaf("global", "\n<age>")));
    ASSERT_TRUE(malformed.detail);
    EXPECT_EQ(malformed.detail->tag, ErrorTag::MalformedMessage);
    EXPECT_THAT(malformed.what, HasSubstr("line 3"));
}

class Reads : public EngineTest {};

TEST_F(Reads, ConfigurationAndStateComeFromThePlatformThroughTheModule) {
    Engine& engine = start();
    auto& platform = tavrik::runtime::default_platform();
    platform.config_reply = {0, true, std::string("<antivirus xmlns=\"urn:x\"/>") + '\0'};
    platform.state_reply = {0, true, "<antivirus-state xmlns=\"urn:x\">  <vsys><name>vs1</name></vsys></antivirus-state>"};
    EXPECT_EQ(engine.module_config(), "<antivirus xmlns=\"urn:x\"/>");
    tavrik::runtime::reset_journal();
    const auto state = engine.module_state();
    ASSERT_TRUE(state);
    EXPECT_THAT(*state, HasSubstr("<vsys>\n    <name>vs1</name>\n  </vsys>"));
    EXPECT_EQ(tavrik::runtime::journal().releases, 1);  // the module released the reply

    platform.config_reply = {3, true, ""};
    platform.state_reply = {0, false, ""};
    EXPECT_EQ(engine.module_config(), std::nullopt);
    EXPECT_EQ(engine.module_state(), std::nullopt);
}

}  // namespace
}  // namespace tktest
