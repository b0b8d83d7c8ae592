// The command table (cases/commands.cases): each line the module sends and
// each line a CLI would refuse, with its code and exactly what changed.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "support.hpp"

namespace appliance_test {
namespace {

// The row's given lines, after the profile p1 in vs1.
std::vector<Line> given(const std::string& text) {
    std::vector<Line> lines{at("system", "profile type av name p1")};
    for (const std::string& one : parts(text))
        lines.push_back(at(one.substr(0, one.find(' ')), one.substr(one.find(' ') + 1)));
    return lines;
}

// "+item" for what `after` has in addition, "-item" for what it lacks; sorted.
std::vector<std::string> changes(const av::Configuration& before, const av::Configuration& after) {
    const auto b = av::describe(before), a = av::describe(after);
    std::set<std::string> out;
    for (const auto& item : a)
        if (!std::binary_search(b.begin(), b.end(), item)) out.insert("+" + item);
    for (const auto& item : b)
        if (!std::binary_search(a.begin(), a.end(), item)) out.insert("-" + item);
    return {out.begin(), out.end()};
}

class Commands : public testing::TestWithParam<tktest::CaseSection> {};

TEST_P(Commands, CodeAndChange) {
    for (const Case& c : GetParam().cases) {
        SCOPED_TRACE(c.where);
        av::Appliance a;
        for (const Line& l : given(c.setting("given"))) run(a, l);
        const Line l = line_of(c);
        const av::Configuration before = a.configuration();
        const int code = a.execute(l.line, l.op);
        EXPECT_EQ(av::code_name(code), c.columns.at(3)) << (a.last_refusal() ? a.last_refusal()->reason : "");
        EXPECT_EQ(changes(before, a.configuration()), items(c.columns.at(4)));
        if (code != av::kAccepted) {
            EXPECT_EQ(a.configuration(), before);
            ASSERT_TRUE(a.last_refusal());
            EXPECT_EQ(std::tie(a.last_refusal()->line, a.last_refusal()->cmd_op, a.last_refusal()->code),
                      std::tie(l.line, l.op, code));
        }
        for (const auto& [name, vsys] : a.configuration().vsys) EXPECT_FALSE(vsys.empty()) << "empty vsys " << name;
    }
}

INSTANTIATE_TEST_SUITE_P(Appliance, Commands, testing::ValuesIn(sections("commands.cases", "commands")));

}  // namespace
}  // namespace appliance_test
