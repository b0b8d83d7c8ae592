// Rebuilding the running configuration in memory of its own after large
// edits: when it happens, and that the configuration and its implicit
// defaults come back exactly.
#include <libyang/libyang.h>

#include "engine_fixture.hpp"

namespace tktest {
namespace {

std::string with_defaults(const lyd_node* tree) {
    char* text = nullptr;
    lyd_print_mem(&text, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS | LYD_PRINT_WD_ALL_TAG);
    std::string out = text ? text : "";
    std::free(text);
    return out;
}

TEST_F(EngineTest, CompactRebuildsAfterLargeEditsOnly) {
    Engine& engine = start(av(vsys("vs1", profile("p0", leaf("description", "d")))));
    EXPECT_FALSE(engine.compact());
    std::string profiles;
    for (int i = 1; i <= 1500; ++i)
        profiles += profile("p" + std::to_string(i), leaf("description", "d") + leaf("heuristic-detect-enable", "true"));
    ASSERT_TRUE(edit(av(vsys("vs1", profiles))).ok);
    const std::string before = with_defaults(engine.running_tree());

    EXPECT_TRUE(engine.compact());
    EXPECT_EQ(with_defaults(engine.running_tree()), before);
    const auto result = edit(p1(leaf("description", "e")));
    ASSERT_TRUE(result.ok);
    EXPECT_THAT(engine.running_xml(), ::testing::HasSubstr("<description>e</description>"));
    EXPECT_FALSE(engine.compact());  // a small edit against a configuration of 1,500 profiles
}

}  // namespace
}  // namespace tktest
