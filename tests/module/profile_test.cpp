// The virtual-system switch, profile creation and deletion, a profile's
// description and switches, and what the change-handler frame does for all.
#include "module_fixture.hpp"

namespace {

using namespace tktest;

const std::string kPrefix = "/tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile";
const std::string kEnablePath = "/tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:antivirus-enable";

// <vsys><name>vs</name>{inside}</vsys> under the configuration root.
std::string vsysXml(const std::string& inside, const std::string& vsys = "<name>vs1</name>") {
    return "<antivirus><vsys>" + vsys + inside + "</vsys></antivirus>";
}
std::string profileXml(const std::string& inside, const std::string& profile = "<name>p1</name>",
                       const std::string& vsys = "<name>vs1</name>") {
    return vsysXml("<profiles><profile>" + profile + inside + "</profile></profiles>", vsys);
}

Line inProfileView(const std::string& line, unsigned op, const std::string& profile = "p1") {
    return {"vs1", "profile-av-" + profile, "profile-av", line, op};
}

// ---- vsys antivirus-enable ----------------------------------------------

class VsysEnable : public ModuleTest {
protected:
    int change(const std::string& value, int op, const std::string& vsys = "vs1") {
        tree.emplace(vsysXml("<antivirus-enable>" + value + "</antivirus-enable>", "<name>" + vsys + "</name>"));
        return call("callback_AV_VsysEnable", tree->at("vsys/antivirus-enable"), op);
    }
    std::optional<Tree> tree;
};

TEST_F(VsysEnable, LinesRunInTheRootSystemInTheViewOfTheVsys) {
    struct Case {
        const char* value;
        int op;
        const char* line;
        unsigned cmd;
    } cases[] = {
        {"true", ADD, "assign function av", CMD_ADD},
        {"false", ADD, "undo assign function av", CMD_ADD},
        {"true", MOD, "assign function av", CMD_ADD},
        {"false", MOD | CHAIN, "undo assign function av", CMD_ADD},
        {"true", REM, "assign function av", CMD_DEL},
        {"false", REM, "assign function av", CMD_DEL},
        {"anything", REM, "assign function av", CMD_DEL},
        {"true", ADD | REM, "assign function av", CMD_DEL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.value) + " op " + std::to_string(c.op));
        tavrik::runtime::reset();
        EXPECT_EQ(change(c.value, c.op), 0);
        expectSent({"public", "vsys-vs1", "mgmt-vsys", c.line, c.cmd, kEnablePath});
    }
}

TEST_F(VsysEnable, RefusalsInTheirOrder) {
    struct Case {
        std::string value;
        int op;
        std::string vsys;
        const char* message;
        int tag;
    } cases[] = {
        {"true", ADD, "public", "The public vsys is not support.", NC_ERR_MISSING_ELEM},
        {"bad?", REM, "public", "The public vsys is not support.", NC_ERR_MISSING_ELEM},
        {"", ADD, "vs1", "vsys antivirus-enable is null.", NC_ERR_MISSING_ELEM},
        {"tr?ue", REM, "vs1", "'?' is in the vsys antivirus-enable.", NC_ERR_BAD_ELEM},
        {"a ?", ADD, "vs1", "'?' is in the vsys antivirus-enable.", NC_ERR_BAD_ELEM},
        {"true ", ADD, "vs1", "blank is in the vsys antivirus-enable.", NC_ERR_BAD_ELEM},
        {"a b", REM, "vs1", "blank is in the vsys antivirus-enable.", NC_ERR_BAD_ELEM},
        {"true\t", ADD, "vs1", "Unknown value of vsys av-enable.", NC_ERR_OP_FAILED},
        {"True", ADD, "vs1", "Unknown value of vsys av-enable.", NC_ERR_OP_FAILED},
        {"yes", MOD, "vs1", "Unknown value of vsys av-enable.", NC_ERR_OP_FAILED},
        {"true", CHAIN, "vs1", "Unknown op.", NC_ERR_OP_FAILED},
        {"true", XMLDIFF_NONE, "vs1", "Unknown op.", NC_ERR_OP_FAILED},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value + " in " + c.vsys);
        tavrik::runtime::reset();
        expectRefused(change(c.value, c.op, c.vsys), c.message, kEnablePath, c.tag);
    }
}

TEST_F(VsysEnable, OnlyTheExactNamePublicIsTheRootSystem) {
    for (const char* vsys : {"Public", "public1", " public"}) {
        tavrik::runtime::reset();
        EXPECT_EQ(change("true", ADD, vsys), 0) << vsys;
        expectSent({"public", std::string("vsys-") + vsys, "mgmt-vsys", "assign function av", CMD_ADD, kEnablePath});
    }
}

TEST_F(VsysEnable, NothingForTheLeafOfARemovedVsysEvenWhenInvalid) {
    Tree t("<antivirus><vsys><antivirus-enable>?x ?</antivirus-enable></vsys></antivirus>");
    expectQuiet(call("callback_AV_VsysEnable", t.at("vsys/antivirus-enable"), REM, {{1, REM}}));
    expectRefused(call("callback_AV_VsysEnable", t.at("vsys/antivirus-enable"), ADD, {{1, CHAIN}}),
                  "The vsys name node is NULL.", kEnablePath, NC_ERR_MISSING_ELEM);
}

TEST_F(VsysEnable, VsysNameTooLongForTheViewLeavesItEmpty) {
    EXPECT_EQ(change("true", ADD, std::string(122, 'v')), 0);
    ASSERT_EQ(journal().sends.size(), 1u);
    EXPECT_EQ(journal().sends[0].lines[0].view, "vsys-" + std::string(122, 'v'));
    tavrik::runtime::reset();
    EXPECT_EQ(change("true", ADD, std::string(123, 'v')), 0);
    ASSERT_EQ(journal().sends.size(), 1u);
    EXPECT_EQ(journal().sends[0].lines[0].view, "");
}

// ---- profile entries ------------------------------------------------------

class Profile : public ModuleTest {
protected:
    int change(const std::string& nameXml, int op, const ScriptedParents& parents = {}) {
        tree.emplace(profileXml("<description>d</description>", nameXml));
        return call("callback_AV_Profile", tree->at("vsys/profiles/profile"), op, parents);
    }
    std::optional<Tree> tree;
};

TEST_F(Profile, CreatesAndDeletesInTheSystemViewOfItsVsys) {
    struct Case {
        std::string name;
        int op;
        std::string line;
        unsigned cmd;
    } cases[] = {
        {"p1", ADD, "profile type av name p1", CMD_ADD},
        {"p1", MOD, "profile type av name p1", CMD_ADD},
        {" p1 ", ADD, "profile type av name p1", CMD_ADD},
        {"av one", REM, "undo profile type av name \"av one\"", CMD_DEL},
        {"my\tav", ADD, "profile type av name \"my\tav\"", CMD_ADD},
        {"p1", ADD | REM, "undo profile type av name p1", CMD_DEL},
        {std::string(127, 'n'), ADD, "profile type av name " + std::string(127, 'n'), CMD_ADD},
        {std::string(124, 'n') + " m", ADD, "profile type av name \"" + std::string(124, 'n') + " m", CMD_ADD},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        tavrik::runtime::reset();
        EXPECT_EQ(change("<name>" + c.name + "</name>", c.op), 0);
        expectSent({"vs1", "system", std::nullopt, c.line, c.cmd, kPrefix});
    }
}

TEST_F(Profile, RefusalsInTheirOrder) {
    struct Case {
        std::string nameXml;
        int op;
        const char* message;
        int tag;
    } cases[] = {
        {"", ADD, "The pcValue is NULL.", NC_ERR_MISSING_ELEM},
        {"<name/>", ADD, "The pcValue is NULL.", NC_ERR_MISSING_ELEM},
        {"<name><!-- only a comment --></name>", REM, "The pcValue is NULL.", NC_ERR_MISSING_ELEM},
        {"<name>a?\"b</name>", REM, "'?' is in the profile name.", NC_ERR_BAD_ELEM},
        {"<name>a\"b</name>", REM, "double quotation is in the profile name.", NC_ERR_BAD_ELEM},
        {"<name>   </name>", ADD, "AV netconf check Node Name failed.", NC_ERR_UNKNOWN_ELEM},
        {"<name>" + std::string(128, 'n') + "</name>", ADD, "AV netconf check Node Name failed.",
         NC_ERR_UNKNOWN_ELEM},
        {"<name>p1</name>", XMLDIFF_NONE, "Unknown op.", NC_ERR_OP_FAILED},
        {"<name>p1</name>", XMLDIFF_SIBLING, "Unknown op.", NC_ERR_OP_FAILED},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.nameXml);
        tavrik::runtime::reset();
        expectRefused(change(c.nameXml, c.op), c.message, kPrefix, c.tag);
    }
}

TEST_F(Profile, OnlyTheFirstNameElementCounts) {
    tree.emplace(profileXml("<name>second</name>", "text<!--c--><name>first</name>"));
    EXPECT_EQ(call("callback_AV_Profile", tree->at("vsys/profiles/profile"), ADD), 0);
    expectSent({"vs1", "system", std::nullopt, "profile type av name first", CMD_ADD, kPrefix});
}

TEST_F(Profile, ChainAloneAndARemovedVsysSendNothing) {
    expectQuiet(change("<name>p1</name>", CHAIN));
    expectQuiet(change("<name>bad?name</name>", REM, {{2, REM}}));
    // Only the vsys level is screened: a created vsys, or the container, does not matter.
    EXPECT_EQ(change("<name>p1</name>", ADD, {{2, ADD}, {1, REM}}), 0);
    EXPECT_EQ(journal().sends.size(), 1u);
}

// ---- description and switches ---------------------------------------------

class ProfileLeaf : public ModuleTest {
protected:
    int change(const char* handler, const std::string& leaf, const std::string& inner, int op,
               const std::string& profileXmlName = "<name>p1</name>", const ScriptedParents& parents = {}) {
        std::string content = inner == "<none/>" ? "<" + leaf + "/>" : "<" + leaf + ">" + inner + "</" + leaf + ">";
        tree.emplace(profileXml(content, profileXmlName));
        return call(handler, tree->at("vsys/profiles/profile/" + leaf), op, parents);
    }
    std::optional<Tree> tree;
};

struct SwitchRow {
    const char* handler;
    const char* leaf;
    const char* command;
    const char* nullMessage;
    int nullTag;
    int trimTag;
};
const SwitchRow kSwitches[] = {
    {"callback_AV_ProfileAttack", "collect-attack-evidence-enable", "collect-attack-evidence enable",
     "Av profile collect_attack_evidence content is null.", NC_ERR_OP_FAILED, NC_ERR_OP_FAILED},
    {"callback_AV_ProfileInterworking", "interworking-detect-enable", "file-reputation enable",
     "Av profile interworking-detect-enable content is null.", NC_ERR_MISSING_ELEM, NC_ERR_BAD_ELEM},
    {"callback_AV_ProfileHeuristic", "heuristic-detect-enable", "heuristic-detect enable",
     "Av profile heuristic-detect-enable content is null.", NC_ERR_MISSING_ELEM, NC_ERR_MISSING_ELEM},
};

TEST_F(ProfileLeaf, SwitchLines) {
    for (const auto& s : kSwitches) {
        std::string on = s.command, off = std::string("undo ") + s.command;
        struct Case {
            std::string value;
            int op;
            std::string line;
            unsigned cmd;
        } cases[] = {
            {"true", ADD, on, CMD_ADD},
            {" true\t", MOD, on, CMD_ADD},
            {"false", ADD, off, CMD_ADD},
            {"false", REM, off, CMD_DEL},
            {"neither", REM, off, CMD_DEL},
            {"true", REM | ADD, on, CMD_ADD},  // mask 5 is tested first
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(s.leaf) + "=" + c.value);
            tavrik::runtime::reset();
            EXPECT_EQ(change(s.handler, s.leaf, c.value, c.op), 0);
            expectSent(inProfileView(c.line, c.cmd));
        }
    }
}

TEST_F(ProfileLeaf, SwitchRefusals) {
    for (const auto& s : kSwitches) {
        std::string path = kPrefix + "/" + s.leaf;
        struct Case {
            std::string value;
            int op;
            std::string message;
            int tag;
        } cases[] = {
            {"<none/>", ADD, s.nullMessage, s.nullTag},
            {"<none/>", REM, s.nullMessage, s.nullTag},
            {"   ", ADD, "av remove spaces failed.", s.trimTag},
            {std::string(32, 't'), REM, "av remove spaces failed.", s.trimTag},
            {"True", ADD, "Unknown input.", NC_ERR_OP_FAILED},
            {"1", MOD, "Unknown input.", NC_ERR_OP_FAILED},
            {std::string(31, 't'), ADD, "Unknown input.", NC_ERR_OP_FAILED},
            {"true", CHAIN, "Unknown op.", NC_ERR_OP_FAILED},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(s.leaf) + "=" + c.value);
            tavrik::runtime::reset();
            expectRefused(change(s.handler, s.leaf, c.value, c.op), c.message, path, c.tag);
        }
    }
}

TEST_F(ProfileLeaf, DescriptionIsSentAsWritten) {
    struct Case {
        std::string text;
        int op;
        std::string line;
        unsigned cmd;
    } cases[] = {
        {"office profile", ADD, "description office profile", CMD_ADD},
        {"  padded  ", MOD, "description   padded  ", CMD_ADD},
        {"gone", REM, "undo description", CMD_DEL},
        {std::string(499, 'd'), ADD, "description " + std::string(499, 'd'), CMD_ADD},
        {std::string(600, 'd'), ADD, "description " + std::string(499, 'd'), CMD_ADD},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 20));
        tavrik::runtime::reset();
        EXPECT_EQ(change("callback_AV_ProfileDescription", "description", c.text, c.op), 0);
        expectSent(inProfileView(c.line, c.cmd));
    }
}

TEST_F(ProfileLeaf, DescriptionRefusals) {
    const std::string path = kPrefix + "/description";
    expectRefused(change("callback_AV_ProfileDescription", "description", "<none/>", ADD),
                  "The profile description node is NULL.", path, NC_ERR_MISSING_ELEM);
    tavrik::runtime::reset();
    expectRefused(change("callback_AV_ProfileDescription", "description", "why?", REM),
                  "The profile description has '?'.", path, NC_ERR_BAD_ELEM);
    tavrik::runtime::reset();
    expectRefused(change("callback_AV_ProfileDescription", "description", "ok", CHAIN), "Unknown op.", path,
                  NC_ERR_OP_FAILED);
}

// ---- the frame, seen through a profile-level handler ----------------------

TEST_F(ProfileLeaf, KeysAreLookedUpVsysFirstThenProfile) {
    const std::string path = kPrefix + "/description";
    Tree noKeys("<antivirus><vsys><profiles><profile><description>x</description></profile></profiles></vsys>"
                "</antivirus>");
    expectRefused(call("callback_AV_ProfileDescription", noKeys.at("vsys/profiles/profile/description"), ADD),
                  "The vsys name node is NULL.", path, NC_ERR_MISSING_ELEM);
    tavrik::runtime::reset();
    expectRefused(change("callback_AV_ProfileDescription", "description", "x", ADD, ""),
                  "The profile name node is NULL.", path, NC_ERR_MISSING_ELEM);
    for (const std::string& name : {std::string(" \t "), std::string(128, 'p')}) {
        tavrik::runtime::reset();
        expectRefused(change("callback_AV_ProfileDescription", "description", "x", ADD, "<name>" + name + "</name>"),
                      "av remove spaces failed.", path, NC_ERR_BAD_ELEM);
    }
}

TEST_F(ProfileLeaf, ViewIsFormedFromTheTrimmedProfileName) {
    EXPECT_EQ(change("callback_AV_ProfileHeuristic", "heuristic-detect-enable", "true", ADD, "<name>  p1 </name>"), 0);
    expectSent(inProfileView("heuristic-detect enable", CMD_ADD));
    tavrik::runtime::reset();
    EXPECT_EQ(change("callback_AV_ProfileHeuristic", "heuristic-detect-enable", "true", ADD, "<name>av one</name>"), 0);
    expectSent(inProfileView("heuristic-detect enable", CMD_ADD, "av one"));
    tavrik::runtime::reset();
    EXPECT_EQ(change("callback_AV_ProfileHeuristic", "heuristic-detect-enable", "true", ADD,
                     "<name>" + std::string(127, 'q') + "</name>"),
              0);
    expectSent(inProfileView("heuristic-detect enable", CMD_ADD, std::string(116, 'q')));
}

TEST_F(ProfileLeaf, RemovedAncestorsSilenceEveryHandlerEvenForInvalidValues) {
    Tree bad("<antivirus><vsys><profiles><profile><description>?x?</description>"
             "<collect-attack-evidence-enable>nonsense</collect-attack-evidence-enable></profile></profiles></vsys>"
             "</antivirus>");
    for (int level : {1, 3}) {
        for (const char* handler : {"callback_AV_ProfileDescription", "callback_AV_ProfileAttack"}) {
            tavrik::runtime::reset();
            const char* leaf = std::string(handler) == "callback_AV_ProfileAttack"
                                   ? "vsys/profiles/profile/collect-attack-evidence-enable"
                                   : "vsys/profiles/profile/description";
            expectQuiet(call(handler, bad.at(leaf), REM, {{level, REM}}));
        }
    }
    // A changed (not removed) ancestor does not silence.
    expectRefused(call("callback_AV_ProfileDescription", bad.at("vsys/profiles/profile/description"), ADD,
                       {{1, CHAIN}, {3, ADD}}),
                  "The vsys name node is NULL.", kPrefix + "/description", NC_ERR_MISSING_ELEM);
}

TEST_F(ProfileLeaf, SendResultIsReturnedUnchanged) {
    tavrik::runtime::default_platform().next_results = {5};
    EXPECT_EQ(change("callback_AV_ProfileDescription", "description", "x", ADD), 5);
    ASSERT_EQ(journal().sends.size(), 1u);
    EXPECT_TRUE(journal().refusals.empty());
    tavrik::runtime::default_platform().next_results = {-7};
    EXPECT_EQ(change("callback_AV_ProfileAttack", "collect-attack-evidence-enable", "true", REM), -7);
}

TEST_F(ProfileLeaf, NothingIsPrintedWithTheDebugSwitchOff) {
    auto exercise = [&] {
        change("callback_AV_ProfileDescription", "description", "x", ADD);
        change("callback_AV_ProfileDescription", "description", "x?", ADD);
        change("callback_AV_ProfileAttack", "collect-attack-evidence-enable", "maybe", ADD);
        change("callback_AV_ProfileInterworking", "interworking-detect-enable", "true", REM, "", {{3, REM}});
    };
    testing::internal::CaptureStdout();
    exercise();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    Module::get().debug() = 1;
    testing::internal::CaptureStdout();
    exercise();
    EXPECT_NE(testing::internal::GetCapturedStdout(), "");
}

TEST_F(ProfileLeaf, ValuesLongerThanEveryBufferAreCutOrRefused) {
    const std::string huge(5000, 'x');
    EXPECT_EQ(change("callback_AV_ProfileDescription", "description", huge, ADD), 0);
    ASSERT_EQ(journal().sends.size(), 1u);
    EXPECT_EQ(journal().sends[0].lines[0].line.size(), 511u);
    for (const auto& s : kSwitches) {
        tavrik::runtime::reset();
        EXPECT_EQ(change(s.handler, s.leaf, huge, ADD), 1);
    }
    tavrik::runtime::reset();
    EXPECT_EQ(change("callback_AV_ProfileDescription", "description", "x", ADD, "<name>" + huge + "</name>"), 1);
    Tree vsys(vsysXml("<antivirus-enable>" + huge + "</antivirus-enable>", "<name>" + huge + "</name>"));
    tavrik::runtime::reset();
    EXPECT_EQ(call("callback_AV_VsysEnable", vsys.at("vsys/antivirus-enable"), ADD), 1);
    Tree profile(profileXml("", "<name>" + huge + "</name>"));
    tavrik::runtime::reset();
    EXPECT_EQ(call("callback_AV_Profile", profile.at("vsys/profiles/profile"), ADD), 1);
}

}  // namespace
