// The appliance as a platform: messages all or nothing, references,
// removing vsys. (The round trip injects failed sends and refused lines into edits.)
#include <gtest/gtest.h>

#include "support.hpp"

namespace appliance_test {
namespace {

using namespace std::string_literals;

TEST(AppliancePlatform, MessagesAreAllOrNothing) {
    av::Appliance a;
    run(a, at("system", "profile type av name p1"));
    const auto before = a.configuration();
    const auto description = at("profile", "description first").line;
    EXPECT_EQ(a.deliver({description, at("profile", "telnet-detect direction both").line}, CMD_ADD), av::kSyntax);
    EXPECT_EQ(a.configuration(), before);  // the accepted first line is gone as well
    EXPECT_EQ(a.last_refusal()->line.line, "telnet-detect direction both");
    a.refuse_line(2);
    EXPECT_EQ(a.deliver({description, at("profile", "heuristic-detect enable").line}, CMD_ADD), av::kInjected);
    EXPECT_EQ(a.configuration(), before);
    EXPECT_EQ(a.lines_executed(), 1u);
    EXPECT_EQ(a.deliver({description, at("profile", "heuristic-detect enable").line}, CMD_ADD), av::kAccepted);
    EXPECT_EQ(a.lines_executed(), 3u);
    EXPECT_THROW(a.refuse_line(0), std::invalid_argument);
}

// A referenced profile stays. Removing vsys (the appliance standing in for
// the server's vsys feature) drops everything of them, references included.
TEST(AppliancePlatform, ReferencesAndRemovingVsys) {
    av::Appliance a = rich();
    const Line remove = at("system", "undo profile type av name \"my av\"", "del");
    EXPECT_FALSE(a.set_references("vs1", "p9", 2));
    ASSERT_TRUE(a.set_references("vs1", "my av", 2));
    EXPECT_EQ(a.execute(remove.line, remove.op), av::kInUse);
    EXPECT_EQ(a.references("vs1", "my av"), 2u);
    ASSERT_TRUE(a.set_references("vs1", "my av", 0));
    EXPECT_EQ(a.execute(remove.line, remove.op), av::kAccepted);
    run(a, at("root", "profile type av name pp"));
    ASSERT_TRUE(a.set_references("vs1", "p1", 3));
    const auto before = a.configuration();
    a.fail_vsys_removal(5);
    EXPECT_EQ(a.remove_vsys({"vs2", "vs1"}), 5);
    EXPECT_EQ(a.configuration(), before);
    EXPECT_EQ(a.references("vs1", "p1"), 3u);
    EXPECT_EQ(std::tie(a.last_refusal()->line.vsys, a.last_refusal()->code), std::make_tuple("vs2"s, 5));
    EXPECT_EQ(a.remove_vsys({"vs2", "vs1"}), av::kAccepted);  // the fault is used once

    // Unknown names are no error; "public" loses its profiles, the global
    // aging time stays.
    EXPECT_EQ(a.remove_vsys({"public", "nosuch"}), av::kAccepted);
    av::Configuration expected = before;
    for (const char* name : {"vs1", "vs2", "public"}) expected.vsys.erase(name);
    EXPECT_EQ(a.configuration(), expected);
    // Made again, nothing of the old vsys comes back, references included.
    run(a, at("system", "profile type av name p1"));
    EXPECT_EQ(a.configuration().vsys.at("vs1").profiles.at("p1"), av::Profile{});
    EXPECT_EQ(a.references("vs1", "p1"), 0u);
}

}  // namespace
}  // namespace appliance_test
