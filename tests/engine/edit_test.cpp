// NETCONF edit-config on the running configuration: operations and default
// operation; which callback runs with which operation and in which order;
// the errors of bad input, named by line or path.
#include "engine_fixture.hpp"

namespace tktest {
namespace {

const std::string kRunning =
    av(vsys("vs1", profile("p1", desc("d") + leaf("heuristic-detect-enable", "true")) + profile("p2", "")));

struct EditCase {
    const char* name;
    std::string edit;
    DefaultOperation default_operation = DefaultOperation::Merge;
    std::vector<std::string> present = {}, absent = {};  // parts of the running configuration afterwards
    std::string running = kRunning;
    std::optional<std::vector<std::string>> lines = {};  // sent, each in a message of its own
    std::optional<ErrorTag> refused = {};                // and nothing changes, the module is not asked
    std::string path = {};
    int line = 0;
    std::string message = {};  // a part of the error's
};

const std::string kView = "vs1/profile-av-p1(profile-av) ";
const std::string kDirection = kP1 + "/detect[protocol-type='http']/detect-configuration/direction";
std::string http(const std::string& action) {
    return leaf("detect", leaf("protocol-type", "http") +
                              leaf("detect-configuration", leaf("direction", "both") + leaf("action", action)));
}

const EditCase kEdits[] = {
    // Operations.
    {"MergeKeepsWhatIsNotNamed", p1(desc("e")), DefaultOperation::Merge,
     {"<description>e</description>", "<heuristic-detect-enable>true", "<name>p2</name>"}},
    {"ReplaceOnANodeDropsWhatIsNotNamed", p1(desc("e")), DefaultOperation::Replace, {"<description>e</description>"},
     {"heuristic-detect-enable", "<name>p2</name>"}},
    {"RemoveOfAMissingNodeIsFine", p1(leaf("collect-attack-evidence-enable", "", op("remove"))),
     DefaultOperation::Merge, {"<description>d</description>"}, {"collect-attack"}},
    {"NoneChangesOnlyWhatCarriesAnOperation",
     av(vsys("vs1", profile("p1", desc("ignored") + leaf("heuristic-detect-enable", "", op("delete"))))),
     DefaultOperation::None, {"<description>d</description>"}, {"ignored", "heuristic-detect-enable"}},
    {"NoneDoesNotCreateEmptyEntries", av(vsys("vs9", profile("p9", leaf("description", "", op("remove"))))),
     DefaultOperation::None, {"<name>vs1</name>"}, {"vs9", "p9"}},
    {"NoneCreatesParentsOfACreatedNode", av(vsys("vs9", profile("p9", "", op("create")))), DefaultOperation::None,
     {"<name>vs9</name>", "<name>p9</name>"}},
    // Callbacks: removals (priorities 67, 64) before additions (6, 3); a
    // container and both its leaves are added, after the profile.
    {"ProfileBeforeItsSettings", p1(desc("first") + http("block")), {}, {}, {}, av(vsys("vs1", "")),
     std::vector<std::string>{"vs1/system add: profile type av name p1", kView + "add: description first",
                              kView + "add: http-detect direction both action block", kView + "add: http-detect direction both",
                              kView + "add: http-detect direction both action block"}},
    {"RemovalsBeforeAdditions", av(vsys("vs1", profile("p1", "", op("delete")) + profile("p3", desc("new")))), {}, {},
     {}, p1(desc("old")),
     std::vector<std::string>{"vs1/system del: undo profile type av name p1", "vs1/system add: profile type av name p3",
                              "vs1/profile-av-p3(profile-av) add: description new"}},
    {"ALeafOfAnEntryIsAChainOfTheEntry",
     p1(leaf("detect", leaf("protocol-type", "http") + leaf("detect-configuration", leaf("action", "block")))), {}, {},
     {}, p1(http("alert")), std::vector<std::string>{kView + "add: http-detect direction both action block"}},
    {"ARemovedLeafThenItsEntry", p1(leaf("exception-signature", leaf("id", "2002") + leaf("timeout", "", op("delete")))),
     {}, {}, {},
     p1(leaf("exception-signature", leaf("id", "2002") + leaf("action", "block-source-ip") + leaf("timeout", "60"))),
     std::vector<std::string>{kView + "del: exception av-signature-id 2002 action block-source-ip",
                              kView + "add: exception av-signature-id 2002 action block-source-ip"}},
    {"RemovedVsysSendsNothingForItsProfiles", av(vsys("vs1", "", op("delete"))), {}, {}, {},
     av(vsys("vs1", leaf("antivirus-enable", "true") + profile("p1", ""))), std::vector<std::string>{}},
    // Bad input: errors of the text libyang reads carry its line; errors
    // found walking the parsed tree carry the node's instance path.
    {.name = "CreateOfAnExistingEntry", .edit = av(vsys("vs1", profile("p1", "", op("create")))),
     .refused = ErrorTag::DataExists, .path = kP1},
    {.name = "DeleteOfAMissingEntry", .edit = av(vsys("vs1", profile("p7", "", op("delete")))),
     .refused = ErrorTag::DataMissing, .path = kVs1 + "/profiles/profile[name='p7']"},
    {.name = "MalformedXml", .edit = "<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\">\n<vsys>\n</antivirus>",
     .refused = ErrorTag::MalformedMessage, .path = kAv, .line = 3},
    {.name = "UnknownElement", .edit = av("\n\n" + vsys("vs1", "\n<colour>red</colour>")),
     .refused = ErrorTag::UnknownElement, .path = kVs1 + "/colour"},
    {.name = "ValueOutOfRange", .edit = av(leaf("global", leaf("file-reputation-age-time", "178956971"))),
     .refused = ErrorTag::InvalidValue, .path = kAv + "/global/file-reputation-age-time"},
    {.name = "MissingKey", .edit = av(vsys("vs1", leaf("profiles", leaf("profile", desc("x"))))),
     .refused = ErrorTag::MissingElement, .path = kVs1 + "/profiles/profile"},
    {.name = "UnknownOperation", .edit = av(vsys("vs1", "", op("rename"))), .refused = ErrorTag::BadAttribute,
     .path = kAv, .line = 1},
    {.name = "ElementsInALeaf", .edit = p1(desc("<b>bold</b>")), .refused = ErrorTag::MalformedMessage,
     .path = kP1 + "/description", .line = 1},
    // A handler that ends with 1 and says nothing (a direction leaf without
    // text): the error names its callback and the node.
    {.name = "ModuleFailureWithoutErrorRecord",
     .edit = p1(leaf("detect", leaf("protocol-type", "http") + leaf("detect-configuration", "<direction/>"))),
     .running = p1(http("alert")), .refused = ErrorTag::OperationFailed, .path = kDirection,
     .message = "callback_AV_ProfileDetectConfigDirection_ADD refused the change of " + kDirection + " (result 1)"},
};

class Edits : public EngineTest, public ::testing::WithParamInterface<EditCase> {};

TEST_P(Edits, ChangeTheRunningConfiguration) {
    const EditCase& c = GetParam();
    Engine& engine = start(c.running);
    const std::string before = running();
    const auto result = edit(c.edit, {.default_operation = c.default_operation});
    ASSERT_EQ(result.ok, !c.refused) << result.error.value_or(RpcError()).message;
    if (c.refused) {
        EXPECT_EQ(result.error->tag, *c.refused);
        EXPECT_EQ(std::pair(result.error->path, result.error->line), std::pair(c.path, c.line));
        EXPECT_THAT(result.error->message, HasSubstr(c.message));
        EXPECT_EQ(running(), before);
        EXPECT_TRUE(tavrik::runtime::journal().cached.empty());
        return;
    }
    for (const std::string& part : c.present) EXPECT_THAT(engine.running_xml(), HasSubstr(part));
    for (const std::string& part : c.absent) EXPECT_THAT(engine.running_xml(), ::testing::Not(HasSubstr(part)));
    if (!c.lines) return;
    EXPECT_EQ(brief(result.lines), *c.lines);
    EXPECT_EQ(delivered(), *c.lines);
    EXPECT_EQ(tavrik::runtime::default_platform().deliveries.size(), c.lines->size());
}

INSTANTIATE_TEST_SUITE_P(Engine, Edits, ::testing::ValuesIn(kEdits), by_name);

TEST_F(EngineTest, DefaultOperationsByTheirWordsAndEmptyEdits) {
    EXPECT_EQ(default_operation_named("replace"), DefaultOperation::Replace);
    EXPECT_EQ(default_operation_named("none"), DefaultOperation::None);
    Engine& engine = start(kRunning);
    const std::string before = running();
    for (const char* text : {"", "  \n", "<config xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"/>"})
        EXPECT_TRUE(edit(text).ok && edit(text).changes.empty()) << text;
    EXPECT_EQ(engine.validate(av(vsys(std::string(40, 'x'), ""))).value_or(RpcError()).tag, ErrorTag::InvalidValue);
    EXPECT_EQ(running(), before);
}

}  // namespace
}  // namespace tktest
