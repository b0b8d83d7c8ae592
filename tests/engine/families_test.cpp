// Every handler family driven through the engine: additions, modifications,
// removals and changes below a list entry (chain), each compared with the
// lines the module sends.
#include "engine_fixture.hpp"

namespace tktest {
namespace {

struct Case {
    const char* name;
    std::string running;
    std::string edit;
    std::vector<std::string> lines;
};

std::ostream& operator<<(std::ostream& out, const Case& c) { return out << c.name; }

const std::string kView = "vs1/profile-av-p1(profile-av)";
std::string add(const std::string& line) { return kView + " add: " + line; }
std::string del(const std::string& line) { return kView + " del: " + line; }

const std::string kHttp = leaf(
    "detect", leaf("protocol-type", "http") +
                  leaf("detect-configuration", leaf("direction", "both") + leaf("action", "alert")));
const std::string kDropbox =
    leaf("exception-application", leaf("application-name", "dropbox") + leaf("application-action", "block"));
const std::string kSignature = leaf(
    "exception-signature", leaf("id", "2002") + leaf("action", "block-source-ip") + leaf("timeout", "60"));
std::string whitelists(const std::string& body, const std::string& attributes = "") {
    return leaf("whitelists", body, attributes);
}
const std::string kUrlRule =
    leaf("match-rules", leaf("match-rule", leaf("scope", "url") + leaf("type", "prefix") +
                                               leaf("value", "www.example.com/*")));
const std::string kRange =
    leaf("destination-address-range", leaf("start-address", "10.0.0.1") + leaf("end-address", "10.0.0.9"));
std::string global(const std::string& body) { return av(leaf("global", body)); }

const Case kCases[] = {
    // vsys antivirus-enable: lines run in the root system.
    {"VsysEnableAdd", av(vsys("vs1", "")), av(vsys("vs1", leaf("antivirus-enable", "true"))),
     {"public/vsys-vs1(mgmt-vsys) add: assign function av"}},
    {"VsysEnableModify", av(vsys("vs1", leaf("antivirus-enable", "true"))),
     av(vsys("vs1", leaf("antivirus-enable", "false"))),
     {"public/vsys-vs1(mgmt-vsys) add: undo assign function av"}},
    {"VsysEnableRemove", av(vsys("vs1", leaf("antivirus-enable", "false"))),
     av(vsys("vs1", leaf("antivirus-enable", "", op("delete")))),
     {"public/vsys-vs1(mgmt-vsys) del: assign function av"}},
    // Profiles.
    {"ProfileAdd", av(vsys("vs1", "")), p1(""), {"vs1/system add: profile type av name p1"}},
    {"ProfileWithBlankName", av(vsys("vs1", "")), av(vsys("vs1", profile(" my av ", ""))),
     {"vs1/system add: profile type av name \"my av\""}},
    {"ProfileRemove", p1(leaf("description", "x")), av(vsys("vs1", profile("p1", "", op("remove")))),
     {"vs1/system del: undo profile type av name p1"}},
    // Description and the three switches.
    {"DescriptionAdd", p1(""), p1(leaf("description", " two  words ")), {add("description  two  words ")}},
    {"DescriptionModify", p1(leaf("description", "a")), p1(leaf("description", "b")), {add("description b")}},
    {"DescriptionRemove", p1(leaf("description", "a")), p1(leaf("description", "", op("delete"))),
     {del("undo description")}},
    {"SwitchesAdd", p1(""),
     p1(leaf("collect-attack-evidence-enable", "true") + leaf("interworking-detect-enable", "false") +
        leaf("heuristic-detect-enable", " true ")),
     {add("collect-attack-evidence enable"), add("undo file-reputation enable"), add("heuristic-detect enable")}},
    {"SwitchRemove", p1(leaf("heuristic-detect-enable", "true")),
     p1(leaf("heuristic-detect-enable", "", op("delete"))), {del("undo heuristic-detect enable")}},
    // Detection: the entry's own line only on removal; the container and
    // its leaves carry the settings.
    {"DetectAdd", p1(""),
     p1(leaf("detect", leaf("protocol-type", "smtp") +
                           leaf("detect-configuration", leaf("direction", "upload") +
                                                            leaf("action", "delete-attachment")))),
     {add("smtp-detect action delete-attachment"), add("smtp-detect"), add("smtp-detect action delete-attachment")}},
    {"DetectActionModifyIsAChainOfTheEntry", p1(kHttp),
     p1(leaf("detect", leaf("protocol-type", "http") + leaf("detect-configuration", leaf("action", "block")))),
     {add("http-detect direction both action block")}},
    {"DetectDirectionModify", p1(kHttp),
     p1(leaf("detect", leaf("protocol-type", "http") + leaf("detect-configuration", leaf("direction", "none")))),
     {add("undo http-detect")}},
    {"DetectRemove", p1(kHttp), p1(leaf("detect", leaf("protocol-type", "http"), op("delete"))),
     {del("undo http-detect")}},
    // Application exceptions.
    {"ExceptApplicationAdd", p1(""), p1(kDropbox),
     {add("exception application name dropbox action block"), add("exception application name dropbox action block")}},
    {"ExceptApplicationActionModify", p1(kDropbox),
     p1(leaf("exception-application", leaf("application-name", "dropbox") + leaf("application-action", "alert"))),
     {add("exception application name dropbox action alert")}},
    {"ExceptApplicationActionRemoveSendsNothing", p1(kDropbox),
     p1(leaf("exception-application",
             leaf("application-name", "dropbox") + leaf("application-action", "", op("delete")))),
     {}},
    {"ExceptApplicationRemove", p1(kDropbox),
     p1(leaf("exception-application", leaf("application-name", "dropbox"), op("delete"))),
     {del("undo exception application name dropbox")}},
    // Signature exceptions: the leaf-list and the list.
    {"ExceptSignatureIdsAreNodesEach", p1(""),
     p1(leaf("exception-signature-id", "1001") + leaf("exception-signature-id", "1002")),
     {add("exception av-signature-id 1001"), add("exception av-signature-id 1002")}},
    {"ExceptSignatureIdRemove", p1(leaf("exception-signature-id", "1001")),
     p1(leaf("exception-signature-id", "1001", op("delete"))), {del("undo exception av-signature-id 1001")}},
    {"ExceptSignatureAdd", p1(""), p1(kSignature),
     {add("exception av-signature-id 2002 action block-source-ip timeout 60")}},
    {"ExceptSignatureTimeoutModifyIsAChain", p1(kSignature),
     p1(leaf("exception-signature", leaf("id", "2002") + leaf("timeout", "90"))),
     {add("exception av-signature-id 2002 action block-source-ip timeout 90")}},
    {"ExceptSignatureTimeoutRemove", p1(kSignature),
     p1(leaf("exception-signature", leaf("id", "2002") + leaf("timeout", "", op("delete")))),
     {del("exception av-signature-id 2002 action block-source-ip"),
      add("exception av-signature-id 2002 action block-source-ip")}},
    {"ExceptSignatureRemove", p1(kSignature), p1(leaf("exception-signature", leaf("id", "2002"), op("delete"))),
     {del("undo exception av-signature-id 2002")}},
    // Whitelists.
    {"MatchRuleAdd", p1(""), p1(whitelists(kUrlRule)), {add("whitelist url www.example.com/*")}},
    {"MatchRuleRemove", p1(whitelists(kUrlRule)),
     p1(whitelists(leaf("match-rules", "", op("delete")))), {del("undo whitelist url www.example.com/*")}},
    {"AddressesAdd", p1(""),
     p1(whitelists(leaf("source-address", " 10.1.1.1 ") + leaf("destination-address", "10.2.2.2") + kRange)),
     {add("whitelist source-address 10.1.1.1"), add("whitelist destination-address 10.2.2.2"),
      add("whitelist destination-address range 10.0.0.1 10.0.0.9")}},
    {"AddressesRemove", p1(whitelists(leaf("source-address", "10.1.1.1") + kRange)),
     p1(whitelists("", op("delete"))),
     {del("undo whitelist source-address 10.1.1.1"), del("undo whitelist destination-address range 10.0.0.1 10.0.0.9")}},
    // The global aging time.
    {"AgingDays", "", global(leaf("file-reputation-age-time", "7")),
     {"public/system add: file-reputation set aging-time hour 168"}},
    {"AgingHoursModify", global(leaf("file-reputation-age-time-hour", "5")),
     global(leaf("file-reputation-age-time-hour", "36")),
     {"public/system add: file-reputation set aging-time hour 36"}},
    {"AgingRemove", global(leaf("file-reputation-age-time", "7")),
     global(leaf("file-reputation-age-time", "", op("delete"))),
     {"public/system del: undo file-reputation set aging-time"}},
    // Priorities across families: removals (67, 64) before additions (6, 3).
    {"ReplaceOneProfileByAnother", p1(leaf("description", "old")),
     av(vsys("vs1", profile("p1", "", op("delete")) + profile("p2", leaf("description", "new")))),
     {"vs1/system del: undo profile type av name p1", "vs1/system add: profile type av name p2",
      "vs1/profile-av-p2(profile-av) add: description new"}},
};

class Families : public EngineTest, public ::testing::WithParamInterface<Case> {};

TEST_P(Families, SendTheLinesOfTheChange) {
    const Case& c = GetParam();
    start(c.running);
    const auto result = edit(c.edit);
    ASSERT_TRUE(result.ok) << result.error->message << " at " << result.error->path;
    EXPECT_EQ(brief(result.lines), c.lines);
    EXPECT_EQ(delivered(), c.lines);
}

INSTANTIATE_TEST_SUITE_P(Engine, Families, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tktest
