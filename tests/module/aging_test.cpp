// Global file-reputation aging time, given in days or in hours.
#include "module_fixture.hpp"

namespace {

using namespace tktest;

const std::string kGlobalPath = "/tk-antivirus:antivirus/tk-antivirus:global/tk-antivirus:";

struct AgingLeaf {
    const char* handler;
    std::string leaf;
    std::string noText;
    std::string untrimmable;
    std::string path() const { return kGlobalPath + leaf; }
    std::string tree(const std::string& text) const {
        return "<antivirus><global><" + leaf + ">" + text + "</" + leaf + "></global></antivirus>";
    }
    // A line for "public" in the system view, sent with the path string.
    Outcome sent(const std::string& line, unsigned cmdOp) const {
        return {Outcome::Sent, {"public", "system", std::nullopt, line, cmdOp, path()}};
    }
    // Cases both leaves share; `add` is the line of a valid value.
    std::vector<HandlerCase> common(const std::string& value, const std::string& add) const {
        const std::string n = "global/" + leaf, undo = "undo file-reputation set aging-time";
        return {
            {"removal", tree(value), n, REM, sent(undo, 1)},
            {"removal with addition bit", tree(value), n, REM | ADD, sent(undo, 1)},
            {"trimmed", tree(" " + value + "\t"), n, MOD, sent(add, 0)},
            {"no text", tree(""), n, ADD, refused(noText, 9)},
            {"blank", tree("   "), n, ADD, refused(untrimmable, 9)},
            {"blank, removal", tree("  "), n, REM, refused(untrimmable, 9)},
            {"32 characters", tree(std::string(32, 'x')), n, ADD, refused(untrimmable, 9)},
            {"chain", tree(value), n, CHAIN, refused("Unknown op.", 1)},
            {"no bits", tree(value), n, 0, refused("Unknown op.", 1)},
        };
    }
};
const AgingLeaf kDays{"callback_AV_GlobalFilerpuAgingTime", "file-reputation-age-time", "av get filerpu content error.",
                      "av get filerpu content remove spaces failed."};
const AgingLeaf kHours{"callback_AV_GlobalFilerpuAgingTimeHour", "file-reputation-age-time-hour",
                       "av get filerpu-hour content error.", "av get filerpu-hour content remove spaces failed."};

using AgingTest = ModuleTest;

TEST_F(AgingTest, DaysBecomeHours) {
    auto cases = kDays.common("7", "file-reputation set aging-time hour 168");
    const std::vector<std::pair<std::string, std::string>> days = {
        {"7", "168"}, {"0", "0"}, {"007", "168"}, {"178956970", "4294967280"}, {"1a", "24"}, {"-1", "24"},
        {"+3", "24"}, {"1.5", "24"}, {"1 2", "24"}, {"4294967295", "24"}, {std::string(31, 'd'), "24"}};
    for (const auto& [value, hours] : days)
        cases.push_back({value, kDays.tree(value), "global/" + kDays.leaf, ADD,
                         kDays.sent("file-reputation set aging-time hour " + hours, 0)});
    run(kDays.handler, kDays.path(), cases);
}

TEST_F(AgingTest, HoursPassUnchecked) {
    auto cases = kHours.common("36", "file-reputation set aging-time hour 36");
    for (const std::string& value : std::vector<std::string>{"36", "abc", "-1", "1 2", std::string(31, '9')})
        cases.push_back({value, kHours.tree(value), "global/" + kHours.leaf, ADD,
                         kHours.sent("file-reputation set aging-time hour " + value, 0)});
    run(kHours.handler, kHours.path(), cases);
}

TEST_F(AgingTest, NoParentScreeningAndSendResultPassesThrough) {
    for (const AgingLeaf* leaf : {&kDays, &kHours}) {
        SCOPED_TRACE(leaf->leaf);
        tavrik::runtime::reset();
        tavrik::runtime::default_platform().next_results = {5};
        Tree tree(leaf->tree("2"));
        int result = call(leaf->handler, tree.at("global/" + leaf->leaf), REM, {{1, REM}, {2, REM}, {3, REM}});
        EXPECT_EQ(result, 5);
        expectSent(leaf->sent("undo file-reputation set aging-time", 1).line);
    }
}

}  // namespace
