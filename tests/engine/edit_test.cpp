// NETCONF edit-config on the running configuration: operations, default
// operation, and the errors of bad input (with the line of the element).
#include "engine_fixture.hpp"

namespace tktest {
namespace {

using ::testing::HasSubstr;

const std::string kRunning =
    av(vsys("vs1", profile("p1", leaf("description", "d") + leaf("heuristic-detect-enable", "true")) +
                       profile("p2", "")));

struct Applied {
    const char* name;
    std::string edit;
    DefaultOperation default_operation;
    std::vector<std::string> present;  // fragments of the running configuration afterwards
    std::vector<std::string> absent;
};
std::ostream& operator<<(std::ostream& out, const Applied& a) { return out << a.name; }

const Applied kApplied[] = {
    {"MergeKeepsWhatIsNotNamed", p1(leaf("description", "e")), DefaultOperation::Merge,
     {"<description>e</description>", "<heuristic-detect-enable>true", "<name>p2</name>"}, {}},
    {"ReplaceOnANodeDropsWhatIsNotNamed", p1(leaf("description", "e")) , DefaultOperation::Replace,
     {"<description>e</description>"}, {"heuristic-detect-enable", "<name>p2</name>"}},
    {"ReplaceAttributeOnOneEntry", av(vsys("vs1", profile("p1", leaf("description", "e"), op("replace")))),
     DefaultOperation::Merge, {"<description>e</description>", "<name>p2</name>"}, {"heuristic-detect-enable"}},
    {"CreateANewEntry", av(vsys("vs1", profile("p3", "", op("create")))), DefaultOperation::Merge,
     {"<name>p3</name>", "<name>p1</name>"}, {}},
    {"DeleteALeaf", p1(leaf("description", "", op("delete"))), DefaultOperation::Merge,
     {"<heuristic-detect-enable>true"}, {"description"}},
    {"RemoveOfAMissingNodeIsFine", p1(leaf("collect-attack-evidence-enable", "", op("remove"))),
     DefaultOperation::Merge, {"<description>d</description>"}, {"collect-attack"}},
    {"NoneChangesOnlyWhatCarriesAnOperation",
     av(vsys("vs1", profile("p1", leaf("description", "ignored") + leaf("heuristic-detect-enable", "", op("delete"))))),
     DefaultOperation::None, {"<description>d</description>"}, {"ignored", "heuristic-detect-enable"}},
    {"NoneDoesNotCreateEmptyEntries", av(vsys("vs9", profile("p9", leaf("description", "", op("remove"))))),
     DefaultOperation::None, {"<name>vs1</name>"}, {"vs9", "p9"}},
    {"NoneCreatesParentsOfACreatedNode", av(vsys("vs9", profile("p9", "", op("create")))), DefaultOperation::None,
     {"<name>vs9</name>", "<name>p9</name>"}, {}},
    {"InsideAConfigElement",
     std::string("<config xmlns=\"") + kNetconfNs + "\">" + p1(leaf("description", "e")) + "</config>",
     DefaultOperation::Merge, {"<description>e</description>"}, {}},
};

class Operations : public EngineTest, public ::testing::WithParamInterface<Applied> {};

TEST_P(Operations, ChangeTheRunningConfiguration) {
    const Applied& a = GetParam();
    Engine& engine = start(kRunning);
    EditOptions options;
    options.default_operation = a.default_operation;
    const auto result = edit(a.edit, options);
    ASSERT_TRUE(result.ok) << result.error->message;
    const std::string running = engine.running_xml();
    for (const std::string& fragment : a.present) EXPECT_THAT(running, HasSubstr(fragment));
    for (const std::string& fragment : a.absent) EXPECT_THAT(running, ::testing::Not(HasSubstr(fragment)));
}

INSTANTIATE_TEST_SUITE_P(Engine, Operations, ::testing::ValuesIn(kApplied),
                         [](const auto& info) { return std::string(info.param.name); });

// Errors of the text libyang reads carry its line; errors found walking the
// parsed tree carry the node's instance path.
struct Refused {
    const char* name;
    std::string edit;
    ErrorTag tag;
    std::string message;  // a part of the message
    int line;
    std::string path;
};
std::ostream& operator<<(std::ostream& out, const Refused& r) { return out << r.name; }

const std::string kVs1 = "/tavrik-antivirus:antivirus/vsys[name='vs1']";

const Refused kRefused[] = {
    {"CreateOfAnExistingEntry", av(vsys("vs1", profile("p1", "", op("create")))), ErrorTag::DataExists,
     "already exists", 0, kVs1 + "/profiles/profile[name='p1']"},
    {"DeleteOfAMissingEntry", av(vsys("vs1", profile("p7", "", op("delete")))), ErrorTag::DataMissing,
     "does not exist", 0, kVs1 + "/profiles/profile[name='p7']"},
    {"MalformedXml", "<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\">\n<vsys>\n</antivirus>",
     ErrorTag::MalformedMessage, "Malformed XML", 3, "/tavrik-antivirus:antivirus"},
    {"UnknownElement", av("\n\n" + vsys("vs1", "\n<colour>red</colour>")), ErrorTag::UnknownElement,
     "Unknown element \"colour\" in \"vsys\"", 0, kVs1 + "/colour"},
    {"ForeignNamespace", "<antivirus xmlns=\"urn:example\"/>", ErrorTag::UnknownElement, "not in the namespace", 0,
     "/antivirus"},
    {"StateData", "<antivirus-state xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\"/>",
     ErrorTag::InvalidValue, "state data", 0, "/tavrik-antivirus:antivirus-state"},
    {"ValueOutOfRange", av("\n" + leaf("global", "\n" + leaf("file-reputation-age-time", "178956971"))),
     ErrorTag::InvalidValue, "178956971", 0,
     "/tavrik-antivirus:antivirus/global/file-reputation-age-time"},
    {"VsysNameTooLong", av(vsys(std::string(32, 'v'), "")), ErrorTag::InvalidValue, "length", 0,
     "/tavrik-antivirus:antivirus/vsys/name"},
    {"MissingKey", av(vsys("vs1", "\n" + leaf("profiles", leaf("profile", leaf("description", "x"))))),
     ErrorTag::MissingElement, "has no key \"name\"", 0, kVs1 + "/profiles/profile"},
    {"UnknownOperation", av(vsys("vs1", "", op("rename"))), ErrorTag::BadAttribute, "\"rename\"", 1,
     "/tavrik-antivirus:antivirus"},
    {"TextWhereElementsBelong", av("words"), ErrorTag::BadElement, "Unexpected text", 0,
     "/tavrik-antivirus:antivirus"},
    {"ElementsInALeaf", p1(leaf("description", "<b>bold</b>")), ErrorTag::MalformedMessage, "inside a terminal node",
     1, kVs1 + "/profiles/profile[name='p1']/description"},
};

class BadInput : public EngineTest, public ::testing::WithParamInterface<Refused> {};

TEST_P(BadInput, IsRefusedWithItsLineAndChangesNothing) {
    const Refused& r = GetParam();
    Engine& engine = start(kRunning);
    const std::string before = engine.running_xml();
    const auto result = edit(r.edit);
    ASSERT_FALSE(result.ok);
    EXPECT_EQ(result.error->tag, r.tag);
    EXPECT_THAT(result.error->message, HasSubstr(r.message));
    EXPECT_EQ(result.error->line, r.line);
    EXPECT_EQ(result.error->path, r.path);
    EXPECT_EQ(engine.running_xml(), before);
    EXPECT_TRUE(tavrik::runtime::journal().cached.empty());  // the module was not asked
}

INSTANTIATE_TEST_SUITE_P(Engine, BadInput, ::testing::ValuesIn(kRefused),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(EngineTest, EmptyEditChangesNothing) {
    Engine& engine = start(kRunning);
    const std::string before = engine.running_xml();
    for (const char* text : {"", "  \n", "<config xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"/>"}) {
        const auto result = edit(text);
        EXPECT_TRUE(result.ok) << text;
        EXPECT_TRUE(result.lines.empty());
    }
    EXPECT_TRUE(engine.edit(nullptr).ok);
    EXPECT_EQ(engine.running_xml(), before);
}

TEST_F(EngineTest, ValidateReportsABadValue) {
    Engine& engine = start();
    EXPECT_FALSE(engine.validate(kRunning));
    const auto error = engine.validate(av("\n" + vsys(std::string(40, 'x'), "")));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->tag, ErrorTag::InvalidValue);
    EXPECT_THAT(error->message, HasSubstr("length"));
    EXPECT_EQ(engine.running_xml(), "");
}

TEST_F(EngineTest, RunningConfigurationRoundTrips) {
    Engine& engine = start(kRunning);
    const std::string text = engine.running_xml();
    Engine again(TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR, text);
    EXPECT_EQ(again.running_xml(), text);
    EXPECT_EQ(engine.model_name(), "tavrik-antivirus");
    EXPECT_EQ(engine.model_namespace(), "urn:tavrik:params:xml:ns:yang:tavrik-antivirus");
}

}  // namespace
}  // namespace tktest
