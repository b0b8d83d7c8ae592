// Command lines on the appliance: for every form the module sends, and for
// the lines a CLI would refuse, the result code and what changed.
#include <gtest/gtest.h>

#include <algorithm>

#include "support.hpp"

namespace {

using namespace appliance_test;
using tavrik::appliance::Appliance;
namespace av = tavrik::appliance;

const std::string P = "vsys[vs1]/profile[p1]";

struct Case {
    std::string name;
    std::vector<Line> setup;  // after "profile type av name p1" in vs1
    Line line;
    int code;
    std::vector<std::string> added;
    std::vector<std::string> removed;
};

std::vector<std::string> minus(const std::vector<std::string>& a, const std::vector<std::string>& b) {
    std::vector<std::string> out;
    std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(out));
    return out;
}

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

class Commands : public testing::TestWithParam<Case> {};

TEST_P(Commands, CodeAndChange) {
    const Case& c = GetParam();
    Appliance a;
    ASSERT_EQ(a.execute(sys("profile type av name p1").line, ADD), 0);
    for (const auto& s : c.setup) ASSERT_EQ(a.execute(s.line, s.op), 0) << s.line.line;
    const auto before = av::describe(a.configuration());
    EXPECT_EQ(a.execute(c.line.line, c.line.op), c.code) << (a.last_refusal() ? a.last_refusal()->reason : "");
    const auto after = av::describe(a.configuration());
    auto sorted = [](std::vector<std::string> v) {
        std::sort(v.begin(), v.end());
        return v;
    };
    EXPECT_EQ(minus(after, before), sorted(c.added));
    EXPECT_EQ(minus(before, after), sorted(c.removed));
}

const Line kHttp = pv("http-detect direction both action block");
const Line kBsi = pv("exception av-signature-id 1001 action block-source-ip timeout 30");

// clang-format off
const Case kCases[] = {
    // antivirus assignment, in the root system's view of the vsys
    {"AssignOn", {}, vv("vs1", "assign function av"), 0, {"vsys[vs1]/antivirus-enable = true"}, {}},
    {"AssignOff", {}, vv("vs1", "undo assign function av"), 0, {"vsys[vs1]/antivirus-enable = false"}, {}},
    {"AssignRemoved", {vv("vs1", "assign function av")}, vv("vs1", "assign function av", DEL), 0, {}, {"vsys[vs1]/antivirus-enable = true"}},
    {"AssignOffRemoved", {vv("vs1", "undo assign function av")}, vv("vs1", "assign function av", DEL), 0, {}, {"vsys[vs1]/antivirus-enable = false"}},
    {"AssignRemovedAbsent", {}, vv("vs1", "assign function av", DEL), av::kAbsent, {}, {}},
    {"AssignNewVsys", {}, vv("vs2", "assign function av"), 0, {"vsys[vs2]/antivirus-enable = true"}, {}},
    {"AssignOutsideRoot", {}, in("vs1", "vsys-vs1", "mgmt-vsys", "assign function av"), av::kView, {}, {}},
    {"AssignToRoot", {}, vv("public", "assign function av"), av::kView, {}, {}},
    {"AssignLongVsys", {}, vv(std::string(32, 'v'), "assign function av"), av::kView, {}, {}},
    {"AssignInSystemView", {}, root("assign function av"), av::kView, {}, {}},
    // profiles, in the system view of their vsys
    {"ProfileCreate", {}, sys("profile type av name p2"), 0, {"vsys[vs1]/profile[p2]"}, {}},
    {"ProfileQuoted", {}, sys("profile type av name \"my av\""), 0, {"vsys[vs1]/profile[my av]"}, {}},
    {"ProfileEnterExisting", {pv("description kept")}, sys("profile type av name p1"), 0, {}, {}},
    {"ProfileOtherVsys", {}, in("vs2", "system", std::nullopt, "profile type av name p1"), 0, {"vsys[vs2]/profile[p1]"}, {}},
    {"ProfileDefault", {}, sys("profile type av name default"), av::kReserved, {}, {}},
    {"ProfileQuestionMark", {}, sys("profile type av name bad?"), av::kValue, {}, {}},
    {"ProfileCutQuote", {}, sys("profile type av name \"cut short"), av::kSyntax, {}, {}},
    {"ProfileUnterminated", {}, sys("profile type av name \"cut"), av::kValue, {}, {}},
    {"ProfileDelete", {pv("description d")}, sys("undo profile type av name p1", DEL), 0, {}, {P, P + "/description = \"d\""}},
    {"ProfileDeleteAdd", {}, sys("undo profile type av name p1"), 0, {}, {P}},
    {"ProfileDeleteAbsent", {}, sys("undo profile type av name p9", DEL), av::kAbsent, {}, {}},
    {"ProfileDeleteDefault", {}, sys("undo profile type av name default", DEL), av::kReserved, {}, {}},
    {"ProfileCreateDel", {}, sys("profile type av name p2", DEL), av::kSyntax, {}, {}},
    {"ProfileNoName", {}, sys("profile type av name"), av::kSyntax, {}, {}},
    {"ProfileUnquotedBlank", {}, sys("profile type av name a b"), av::kSyntax, {}, {}},
    // views and lines that are no command
    {"MissingProfileView", {}, in("vs1", "profile-av-p9", "profile-av", "description x"), av::kView, {}, {}},
    {"ProfileViewOtherVsys", {}, in("vs2", "profile-av-p1", "profile-av", "description x"), av::kView, {}, {}},
    {"ProfileViewNoTemplate", {}, in("vs1", "profile-av-p1", std::nullopt, "description x"), av::kView, {}, {}},
    {"DescriptionInSystemView", {}, sys("description x"), av::kView, {}, {}},
    {"GlobalOutsideRoot", {}, sys("file-reputation set aging-time hour 24"), av::kView, {}, {}},
    {"UnknownCommand", {}, pv("frobnicate now"), av::kSyntax, {}, {}},
    {"LineBreak", {}, pv("description a\nb"), av::kSyntax, {}, {}},
    {"EmptyLine", {}, pv("   "), av::kSyntax, {}, {}},
    {"CommandOpMod", {}, pv("description x", 2), av::kSyntax, {}, {}},
    // description
    {"Description", {}, pv("description   two  words  "), 0, {P + "/description = \"two  words\""}, {}},
    {"DescriptionReplaced", {pv("description old")}, pv("description new"), 0, {P + "/description = \"new\""}, {P + "/description = \"old\""}},
    {"DescriptionRemoved", {pv("description d")}, pv("undo description", DEL), 0, {}, {P + "/description = \"d\""}},
    {"DescriptionRemovedAbsent", {}, pv("undo description", DEL), av::kAbsent, {}, {}},
    {"DescriptionNoText", {}, pv("description"), av::kSyntax, {}, {}},
    // switches
    {"AttackEvidenceOn", {}, pv("collect-attack-evidence enable"), 0, {P + "/collect-attack-evidence-enable = true"}, {}},
    {"FileReputationOff", {}, pv("undo file-reputation enable"), 0, {P + "/interworking-detect-enable = false"}, {}},
    {"HeuristicRemoved", {pv("heuristic-detect enable")}, pv("undo heuristic-detect enable", DEL), 0, {}, {P + "/heuristic-detect-enable = true"}},
    {"HeuristicRemovedAbsent", {}, pv("undo heuristic-detect enable", DEL), av::kAbsent, {}, {}},
    {"SwitchOnWithDel", {}, pv("heuristic-detect enable", DEL), av::kSyntax, {}, {}},
    // detection
    {"DetectDirectionAction", {}, kHttp, 0, {P + "/detect[http]", P + "/detect[http]/direction = both", P + "/detect[http]/action = block"}, {}},
    {"DetectNfs", {}, pv("nfs-detect direction download"), 0, {P + "/detect[nfs]", P + "/detect[nfs]/direction = download"}, {}},
    {"DetectSmtp", {}, pv("smtp-detect"), 0, {P + "/detect[smtp]", P + "/detect[smtp]/direction = upload"}, {}},
    {"DetectPop3Action", {}, pv("pop3-detect action declare"), 0, {P + "/detect[pop3]", P + "/detect[pop3]/direction = download", P + "/detect[pop3]/action = declare"}, {}},
    {"DetectOff", {}, pv("undo ftp-detect"), 0, {P + "/detect[ftp]", P + "/detect[ftp]/direction = none"}, {}},
    {"DetectOffKeepsAction", {kHttp}, pv("undo http-detect"), 0, {P + "/detect[http]/direction = none"}, {P + "/detect[http]/direction = both"}},
    {"DetectForgottenAbsent", {}, pv("undo ftp-detect", DEL), 0, {}, {}},
    {"DetectForgotten", {kHttp}, pv("undo http-detect", DEL), 0, {}, {P + "/detect[http]", P + "/detect[http]/direction = both", P + "/detect[http]/action = block"}},
    {"DetectDirectionRemoved", {kHttp}, pv("undo http-detect direction", DEL), 0, {}, {P + "/detect[http]/direction = both"}},
    {"DetectActionRemoved", {kHttp}, pv("undo http-detect action", DEL), 0, {}, {P + "/detect[http]/action = block"}},
    {"DetectBothRemoved", {kHttp}, pv("undo http-detect direction action", DEL), 0, {}, {P + "/detect[http]", P + "/detect[http]/direction = both", P + "/detect[http]/action = block"}},
    {"DetectActionRemovedAbsent", {}, pv("undo http-detect action", DEL), av::kAbsent, {}, {}},
    {"DetectDirectionChanged", {kHttp}, pv("http-detect direction upload"), 0, {P + "/detect[http]/direction = upload"}, {P + "/detect[http]/direction = both"}},
    {"SmtpNoDirectionForm", {}, pv("smtp-detect direction upload"), av::kSyntax, {}, {}},
    {"NfsNoActionForm", {}, pv("nfs-detect direction both action alert"), av::kSyntax, {}, {}},
    {"HttpNoBareForm", {}, pv("http-detect"), av::kSyntax, {}, {}},
    {"UnknownProtocol", {}, pv("telnet-detect direction both"), av::kSyntax, {}, {}},
    {"NfsNoActionUndo", {}, pv("undo nfs-detect action", DEL), av::kSyntax, {}, {}},
    {"SmtpNoDirectionUndo", {}, pv("undo smtp-detect direction", DEL), av::kSyntax, {}, {}},
    {"BadDirection", {}, pv("http-detect direction sideways"), av::kValue, {}, {}},
    {"DirectionNoneIsUndo", {}, pv("http-detect direction none"), av::kValue, {}, {}},
    {"SmtpBlock", {}, pv("smtp-detect action block"), av::kValue, {}, {}},
    {"ImapDeclare", {}, pv("imap-detect direction both action declare"), av::kValue, {}, {}},
    // application exceptions
    {"Application", {}, pv("exception application name zoom action block"), 0, {P + "/exception-application[zoom]", P + "/exception-application[zoom]/application-action = block"}, {}},
    {"ApplicationRestated", {pv("exception application name zoom action block")}, pv("exception application name zoom"), 0, {}, {P + "/exception-application[zoom]/application-action = block"}},
    {"ApplicationUnknown", {}, pv("exception application name nosuch"), av::kValue, {}, {}},
    {"ApplicationBadAction", {}, pv("exception application name zoom action deny"), av::kValue, {}, {}},
    {"ApplicationRemoved", {pv("exception application name ssh")}, pv("undo exception application name ssh", DEL), 0, {}, {P + "/exception-application[ssh]"}},
    {"ApplicationRemovedAbsent", {}, pv("undo exception application name ssh", DEL), av::kAbsent, {}, {}},
    // signature exceptions
    {"Signature", {}, pv("exception av-signature-id 1001"), 0, {P + "/exception-signature[1001]"}, {}},
    {"SignatureTimeout", {}, kBsi, 0, {P + "/exception-signature[1001]", P + "/exception-signature[1001]/action = block-source-ip", P + "/exception-signature[1001]/timeout = 30"}, {}},
    {"SignatureAllowTimeout", {}, pv("exception av-signature-id 1001 action allow timeout 30"), av::kValue, {}, {}},
    {"SignatureActionRemoved", {kBsi}, pv("exception av-signature-id 1001 action allow", DEL), 0, {}, {P + "/exception-signature[1001]/action = block-source-ip", P + "/exception-signature[1001]/timeout = 30"}},
    {"SignatureTimeoutRemoved", {kBsi}, pv("exception av-signature-id 1001 action block-source-ip", DEL), 0, {}, {P + "/exception-signature[1001]/timeout = 30"}},
    {"SignatureRestatedAbsent", {}, pv("exception av-signature-id 1001 action allow", DEL), av::kAbsent, {}, {}},
    {"SignatureNotNumber", {}, pv("exception av-signature-id abc"), av::kValue, {}, {}},
    {"SignatureBadAction", {}, pv("exception av-signature-id 1001 action deny"), av::kValue, {}, {}},
    {"SignatureRemoved", {kBsi}, pv("undo exception av-signature-id 1001", DEL), 0, {}, {P + "/exception-signature[1001]", P + "/exception-signature[1001]/action = block-source-ip", P + "/exception-signature[1001]/timeout = 30"}},
    {"SignatureIdWithDel", {}, pv("exception av-signature-id 1001", DEL), av::kSyntax, {}, {}},
    // whitelists
    {"UrlPrefix", {}, pv("whitelist url www.example.com/*"), 0, {P + "/match-rule[url \"www.example.com/*\"]"}, {}},
    {"UrlQuoted", {}, pv("whitelist url \"a b.com\""), 0, {P + "/match-rule[url \"a b.com\"]"}, {}},
    {"UrlEncodedQuote", {}, pv("whitelist url q%22x.com"), 0, {P + "/match-rule[url \"q\"x.com\"]"}, {}},
    {"HostSuffix", {}, pv("whitelist host *.example.org"), 0, {P + "/match-rule[host \"*.example.org\"]"}, {}},
    {"HostBlank", {}, pv("whitelist host a b"), av::kSyntax, {}, {}},
    {"UrlRemovedAbsent", {}, pv("undo whitelist url x.com", DEL), av::kAbsent, {}, {}},
    {"HostRemoved", {pv("whitelist host h.com")}, pv("undo whitelist host h.com", DEL), 0, {}, {P + "/match-rule[host \"h.com\"]"}},
    {"SourceAddress", {}, pv("whitelist source-address 10.0.0.1"), 0, {P + "/source-address[10.0.0.1]"}, {}},
    {"DestinationAddress6", {}, pv("whitelist destination-address 2001:db8::1"), 0, {P + "/destination-address[2001:db8::1]"}, {}},
    {"AddressNotAddress", {}, pv("whitelist source-address not-an-ip"), av::kValue, {}, {}},
    {"SourceRange", {}, pv("whitelist source-address range 10.0.0.1 10.0.0.9"), 0, {P + "/source-address-range[10.0.0.1 10.0.0.9]"}, {}},
    {"RangeReversed", {}, pv("whitelist source-address range 10.0.0.9 10.0.0.1"), av::kValue, {}, {}},
    {"RangeMixed", {}, pv("whitelist destination-address range 10.0.0.1 ::9"), av::kValue, {}, {}},
    {"RangeRemoved", {pv("whitelist destination-address range ::1 ::9")}, pv("undo whitelist destination-address range ::1 ::9", DEL), 0, {}, {P + "/destination-address-range[::1 ::9]"}},
    {"RangeRemovedAbsent", {}, pv("undo whitelist destination-address range ::1 ::9", DEL), av::kAbsent, {}, {}},
    // global aging time, in the root system
    {"Aging", {}, root("file-reputation set aging-time hour 168"), 0, {"global/file-reputation-age-time-hour = 168"}, {}},
    {"AgingZero", {}, root("file-reputation set aging-time hour 0"), av::kValue, {}, {}},
    {"AgingTooLong", {}, root("file-reputation set aging-time hour 8761"), av::kValue, {}, {}},
    {"AgingWords", {}, root("file-reputation set aging-time hour abc"), av::kValue, {}, {}},
    {"AgingRemoved", {root("file-reputation set aging-time hour 36")}, root("undo file-reputation set aging-time", DEL), 0, {}, {"global/file-reputation-age-time-hour = 36"}},
    {"AgingRemovedAbsent", {}, root("undo file-reputation set aging-time", DEL), av::kAbsent, {}, {}},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Appliance, Commands, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& info) { return info.param.name; });

TEST(ApplianceProfiles, ReferencedProfileIsNotDeleted) {
    Appliance a;
    ASSERT_EQ(a.execute(sys("profile type av name p1").line, ADD), 0);
    EXPECT_FALSE(a.set_references("vs1", "p9", 2));
    ASSERT_TRUE(a.set_references("vs1", "p1", 2));
    EXPECT_EQ(a.execute(sys("undo profile type av name p1", DEL).line, DEL), av::kInUse);
    EXPECT_EQ(a.references("vs1", "p1"), 2u);
    ASSERT_TRUE(a.set_references("vs1", "p1", 0));
    EXPECT_EQ(a.execute(sys("undo profile type av name p1", DEL).line, DEL), 0);
    // A profile made again starts without references.
    ASSERT_EQ(a.execute(sys("profile type av name p1").line, ADD), 0);
    EXPECT_EQ(a.references("vs1", "p1"), 0u);
}

TEST(ApplianceProfiles, EmptyVsysIsForgotten) {
    Appliance a;
    ASSERT_EQ(a.execute(vv("vs3", "assign function av").line, ADD), 0);
    ASSERT_EQ(a.execute(vv("vs3", "assign function av", DEL).line, DEL), 0);
    EXPECT_TRUE(a.configuration().vsys.empty());
    // A refused line in a new vsys leaves no trace of it either.
    EXPECT_EQ(a.execute(vv("vs4", "assign function av", DEL).line, DEL), av::kAbsent);
    EXPECT_TRUE(a.configuration().vsys.empty());
}

}  // namespace
