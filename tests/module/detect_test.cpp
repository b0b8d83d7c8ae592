// Detection matrix, the child readers, and the handlers of detected protocols
// and of their direction and action.
#include "module_fixture.hpp"

namespace {

using namespace tktest;

// ---- detection matrix --------------------------------------------------

struct MatrixFunctions {
    unsigned (*protocol)(const char*, char*, unsigned) = Module::get().fn<decltype(protocol)>("AV_CheckProtocolAndGetValid");
    unsigned (*direction)(char*, char*) = Module::get().fn<decltype(direction)>("AV_CheckDetectDirConfig");
    unsigned (*action)(char*, char*) = Module::get().fn<decltype(action)>("AV_CheckDetectActionConfig");
    unsigned (*both)(char*, char*, char*) = Module::get().fn<decltype(both)>("AV_CheckDetectConfig");
};
const MatrixFunctions& matrix() {
    static MatrixFunctions f;
    return f;
}
unsigned checkDirection(std::string d, std::string p) { return matrix().direction(d.data(), p.data()); }
unsigned checkAction(std::string a, std::string p) { return matrix().action(a.data(), p.data()); }
unsigned checkBoth(std::string d, std::string a, std::string p) { return matrix().both(d.data(), a.data(), p.data()); }

// The admitted combinations: 'Y' per keyword of kDirections / kActions in
// order; `anyAction`: a text outside the four action keywords passes too.
struct Rules {
    const char* protocol;
    const char* directions;
    const char* actions;
    bool anyAction;
};
const std::vector<std::string> kDirections = {"none", "both", "upload", "download"};
const std::vector<std::string> kActions = {"alert", "block", "declare", "delete-attachment"};
const std::vector<std::string> kOtherDirections = {"Upload", "upload ", " none", "NONE", "sideways"};
const std::vector<std::string> kOtherActions = {"Alert", "block ", "quarantine"};
const std::vector<Rules> kRules = {
    {"http", "YYYY", "YYNN", false}, {"ftp", "YYYY", "YYNN", false},  {"smb", "YYYY", "YYNN", false},
    {"nfs", "YYYY", "YNNN", false},  {"imap", "YYYY", "YYYY", true},  {"smtp", "YNYN", "YNYY", false},
    {"pop3", "YNNY", "YNYY", false}, {"gopher", "YYYY", "YYYY", true},  // not a keyword: like http, any action
};

unsigned expectedDirection(const Rules& r, const std::string& d) {
    if (d.empty()) return 0;
    for (size_t i = 0; i < kDirections.size(); ++i)
        if (d == kDirections[i]) return r.directions[i] == 'Y' ? 0 : 1;
    return 1;
}
unsigned expectedAction(const Rules& r, const std::string& a) {
    if (a.empty()) return 0;
    for (size_t i = 0; i < kActions.size(); ++i)
        if (a == kActions[i]) return r.actions[i] == 'Y' ? 0 : 1;
    return r.anyAction ? 0 : 1;
}
std::vector<std::string> withEmptyAndOthers(std::vector<std::string> v, const std::vector<std::string>& others) {
    v.push_back("");
    v.insert(v.end(), others.begin(), others.end());
    return v;
}

using DetectMatrix = ModuleTest;  // the debug switch starts at 0
using ChildReaders = ModuleTest;

TEST_F(DetectMatrix, ProtocolKeywordsAreExactAfterTrimming) {
    const std::vector<std::pair<std::string, std::optional<std::string>>> cases = {
        {"http", "http"}, {"ftp", "ftp"},     {"smtp", "smtp"}, {"pop3", "pop3"}, {"imap", "imap"},
        {"nfs", "nfs"},   {"smb", "smb"},     {" smtp ", "smtp"}, {"\tnfs\r\n", "nfs"},
        {"HTTP", {}},     {"Http", {}},       {"http2", {}},    {"s mtp", {}},    {"", {}},
        {"   ", {}},      {"telnet", {}},     {"tk-antivirus:http", {}}};
    for (const auto& [in, out] : cases) {
        char dst[32] = "#";
        EXPECT_EQ(matrix().protocol(in.c_str(), dst, sizeof dst), out ? 0u : 1u) << "'" << in << "'";
        if (out) {
            EXPECT_STREQ(dst, out->c_str()) << in;
        }
    }
    char small[4] = "#";
    EXPECT_EQ(matrix().protocol("smtp", small, sizeof small), 1u) << "must be shorter than the destination";
    EXPECT_EQ(matrix().protocol("nfs", small, sizeof small), 0u);
    EXPECT_EQ(matrix().protocol(nullptr, small, sizeof small), 1u);
    EXPECT_EQ(matrix().protocol("http", nullptr, 32), 1u);
}

TEST_F(DetectMatrix, DirectionsFollowTheTable) {
    for (const auto& r : kRules)
        for (const auto& d : withEmptyAndOthers(kDirections, kOtherDirections))
            EXPECT_EQ(checkDirection(d, r.protocol), expectedDirection(r, d)) << r.protocol << " / '" << d << "'";
}

TEST_F(DetectMatrix, ActionsFollowTheTable) {
    for (const auto& r : kRules)
        for (const auto& a : withEmptyAndOthers(kActions, kOtherActions))
            EXPECT_EQ(checkAction(a, r.protocol), expectedAction(r, a)) << r.protocol << " / '" << a << "'";
}

TEST_F(DetectMatrix, CombinedTestNeedsBoth) {
    for (const auto& r : kRules)
        for (const auto& d : withEmptyAndOthers(kDirections, {"Upload"}))
            for (const auto& a : withEmptyAndOthers(kActions, {"quarantine"}))
                EXPECT_EQ(checkBoth(d, a, r.protocol), expectedDirection(r, d) | expectedAction(r, a))
                    << r.protocol << " / '" << d << "' / '" << a << "'";
    char alert[] = "alert", both[] = "both", http[] = "http";
    EXPECT_EQ(matrix().both(nullptr, alert, http), 1u);
    EXPECT_EQ(matrix().both(both, nullptr, http), 1u);
}

TEST_F(DetectMatrix, RefusedDirectionLeavesTheActionUntested) {
    Module::get().debug() = 1;
    auto traced = [](const char* d, const char* a) {
        testing::internal::CaptureStdout();
        unsigned r = checkBoth(d, a, "smtp");
        fflush(stdout);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(r, 1u) << d << "/" << a;
        return out;
    };
    std::string refusedDirection = traced("both", "block");
    EXPECT_NE(refusedDirection.find("direction"), std::string::npos) << refusedDirection;
    EXPECT_EQ(refusedDirection.find("action"), std::string::npos) << refusedDirection;
    EXPECT_NE(traced("upload", "block").find("action"), std::string::npos) << "the action is traced when tested";
}

// ---- child readers -----------------------------------------------------

// The three readers of one child element: the first name fills the first
// buffer, the second name the second; anything else or an untrimmable text
// leaves both as they were.
struct Reader {
    const char* function;
    const char* first;
    const char* second;
};
TEST_F(ChildReaders, FillTheirBuffersByElementName) {
    using Fn = void (*)(xmlNodePtr, char*, unsigned, char*, unsigned);
    const std::string n31(31, 'n'), n32(32, 'n');
    for (const Reader& r : {Reader{"AV_GetDetectConfig", "direction", "action"},
                            Reader{"AV_GetExceptAppConfig", "application-name", "application-action"},
                            Reader{"AV_GetSourceRangeConfig", "start-address", "end-address"}}) {
        auto element = [](const std::string& name, const std::string& text) {
            return "<" + name + ">" + text + "</" + name + ">";
        };
        const std::string f = r.first, s = r.second;
        std::string capital = f;
        capital[0] = static_cast<char>(std::toupper(capital[0]));
        const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
            {element(f, " v 1 "), "v 1", "old"},
            {element(s, "\tw\n"), "old", "w"},
            {element(f, n31), n31, "old"},
            {element(f, n32), "old", "old"},
            {element(s, "   "), "old", "old"},
            {"<" + f + "/>", "old", "old"},
            {element("x" + f, "v"), "old", "old"},
            {element(capital, "v"), "old", "old"},
            {"<tk:" + s + " xmlns:tk=\"urn:x\">w</tk:" + s + ">", "old", "w"},
        };
        for (const auto& [xml, want1, want2] : cases) {
            Tree tree(xml);
            char buf1[32] = "old", buf2[32] = "old";
            Module::get().fn<Fn>(r.function)(tree.root(), buf1, sizeof buf1, buf2, sizeof buf2);
            EXPECT_EQ(buf1, want1) << r.function << ": " << xml;
            EXPECT_EQ(buf2, want2) << r.function << ": " << xml;
        }
    }
}

// ---- handlers ----------------------------------------------------------

const std::string kDetect = kInProfile + "detect";
const std::string kConfig = kDetect + "/detect-configuration";
const std::string kDetectPath = kProfilePath + "/detect";
const std::string kConfigPath = kDetectPath + "/configuration";

std::string detectTree(const std::string& protocolXml, const std::string& config = "") {
    return profileTree("<detect>" + protocolXml + config + "</detect>");
}
std::string proto(const std::string& text) { return "<protocol-type>" + text + "</protocol-type>"; }
// A detect entry of `protocol` whose container holds the given leaves (null: absent).
std::string configTree(const std::string& protocol, const char* direction, const char* action,
                       const std::string& more = "") {
    std::string leaves = more;
    if (direction) leaves += "<direction>" + std::string(direction) + "</direction>";
    if (action) leaves += "<action>" + std::string(action) + "</action>";
    return detectTree(proto(protocol), "<detect-configuration>" + leaves + "</detect-configuration>");
}

using DetectTest = ModuleTest;

TEST_F(DetectTest, EntryRemovalSendsTheUndoLineAndEverythingElseIsDropped) {
    std::vector<HandlerCase> cases;
    for (const char* k : {"http", "ftp", "smtp", "pop3", "imap", "nfs", "smb"}) {
        cases.push_back({k, detectTree(proto(k)), kDetect, REM, sent(std::string("undo ") + k + "-detect", 1)});
        for (int op : {ADD, MOD, CHAIN, ADD | CHAIN, MOD | CHAIN})
            cases.push_back({std::string(k) + " op " + std::to_string(op), detectTree(proto(k)), kDetect, op, dropped()});
    }
    const std::string bad = "av detect protocol-type is invalid.", null = "av detect protocol-type is null.";
    cases.insert(cases.end(), {
        {"prefixed", detectTree(proto("tk-antivirus:pop3")), kDetect, REM, sent("undo pop3-detect", 1)},
        {"prefix and blanks", detectTree(proto("tk-antivirus: nfs ")), kDetect, REM | ADD, sent("undo nfs-detect", 1)},
        {"later child", detectTree("<detect-configuration/>" + proto("smb")), kDetect, REM, sent("undo smb-detect", 1)},
        {"keyword cut to 31", detectTree(proto("x:http" + std::string(40, ' '))), kDetect, REM, sent("undo http-detect", 1)},
        {"unprefixed 31", detectTree(proto("http" + std::string(27, ' '))), kDetect, REM, sent("undo http-detect", 1)},
        {"unprefixed 32", detectTree(proto("http" + std::string(28, ' '))), kDetect, REM, refused(bad, 9)},
        {"two colons", detectTree(proto("x:a:http")), kDetect, REM, refused(bad, 9)},
        {"telnet", detectTree(proto("telnet")), kDetect, ADD, refused(bad, 9)},
        {"capitals", detectTree(proto("HTTP")), kDetect, REM, refused(bad, 9)},
        {"http2", detectTree(proto("http2")), kDetect, CHAIN, refused(bad, 9)},
        {"prefix only", detectTree(proto("tk-antivirus:")), kDetect, ADD, refused(bad, 9)},
        {"blank", detectTree(proto("   ")), kDetect, REM, refused(bad, 9)},
        {"no child, removal", detectTree(""), kDetect, REM, refused(null, 8)},
        {"no child, addition", detectTree("<detect-configuration/>"), kDetect, ADD, refused(null, 8)},
        {"no text", detectTree("<protocol-type/>"), kDetect, REM, refused(null, 8)},
        {"first child without text", detectTree("<protocol-type/>" + proto("http")), kDetect, REM, refused(null, 8)},
    });
    run("callback_AV_ProfileDetect", kDetectPath, cases);
}

TEST_F(DetectTest, ContainerLineFollowsProtocolDirectionAndAction) {
    const std::string input = "Av protocol detect config input invalid.";
    const std::string x32(32, 'x');
    run("callback_AV_ProfileDetectConfig", kConfigPath, {
        {"http both block", configTree("http", "both", "block"), kConfig, ADD, sent("http-detect direction both action block", 0)},
        {"http upload", configTree("http", "upload", nullptr), kConfig, ADD, sent("http-detect direction upload", 0)},
        {"ftp modified", configTree("ftp", "download", "alert"), kConfig, MOD, sent("ftp-detect direction download action alert", 0)},
        {"trimmed leaves", configTree("smb", " both ", "\tblock "), kConfig, ADD, sent("smb-detect direction both action block", 0)},
        {"action first", configTree("http", nullptr, nullptr, "<action>block</action><direction>both</direction>"), kConfig, ADD,
         sent("http-detect direction both action block", 0)},
        {"unknown child", configTree("http", "both", nullptr, "<foo>bar</foo>"), kConfig, ADD, sent("http-detect direction both", 0)},
        {"blank action", configTree("http", "both", "  "), kConfig, ADD, sent("http-detect direction both", 0)},
        {"smtp with action", configTree("smtp", "upload", "delete-attachment"), kConfig, ADD, sent("smtp-detect action delete-attachment", 0)},
        {"smtp", configTree("smtp", "upload", nullptr), kConfig, ADD, sent("smtp-detect", 0)},
        {"pop3 with action", configTree("pop3", "download", "declare"), kConfig, ADD, sent("pop3-detect action declare", 0)},
        {"prefixed key", configTree("tk-antivirus:pop3", "download", nullptr), kConfig, ADD, sent("pop3-detect", 0)},
        {"nfs", configTree("nfs", "download", "alert"), kConfig, ADD, sent("nfs-detect direction download", 0)},
        {"none http", configTree("http", "none", "block"), kConfig, ADD, sent("undo http-detect", 0)},
        {"none smtp", configTree("smtp", "none", nullptr), kConfig, MOD, sent("undo smtp-detect", 0)},
        {"imap any action", configTree("imap", "both", "quarantine"), kConfig, ADD, sent("imap-detect direction both action quarantine", 0)},
        {"no keyword test", configTree("gopher", "both", "alert"), kConfig, ADD, sent("gopher-detect direction both action alert", 0)},
        {"longest line", configTree("x:" + std::string(31, 'g'), "download", std::string(31, 'a').c_str()), kConfig, ADD,
         sent(std::string(31, 'g') + "-detect direction download action " + std::string(31, 'a'), 0)},
        {"add and chain", configTree("http", "both", nullptr), kConfig, ADD | CHAIN, sent("http-detect direction both", 0)},
        {"chain alone", configTree("http", "both", "block"), kConfig, CHAIN, dropped()},
        {"smtp both", configTree("smtp", "both", nullptr), kConfig, ADD, refused(input, 9)},
        {"nfs block", configTree("nfs", "download", "block"), kConfig, ADD, refused(input, 9)},
        {"none declare", configTree("http", "none", "declare"), kConfig, ADD, refused(input, 9)},
        {"chain tested too", configTree("smtp", "both", nullptr), kConfig, CHAIN, refused(input, 9)},
        {"removal tested too", configTree("smtp", "both", nullptr), kConfig, REM, refused(input, 9)},
        {"no direction", configTree("http", nullptr, "alert"), kConfig, ADD, refused("Av detect direction is null.", 9)},
        {"blank direction", configTree("http", "  ", "block"), kConfig, ADD, refused("Av detect direction is null.", 9)},
        {"long direction", configTree("http", x32.c_str(), nullptr), kConfig, MOD, refused("Av detect direction is null.", 9)},
        {"remove pop3", configTree("pop3", "download", nullptr), kConfig, REM, sent("undo pop3-detect action", 1)},
        {"remove smtp", configTree("smtp", "upload", "alert"), kConfig, REM, sent("undo smtp-detect action", 1)},
        {"remove nfs", configTree("nfs", nullptr, "alert"), kConfig, REM, sent("undo nfs-detect direction", 1)},
        {"remove ftp", configTree("ftp", "both", nullptr), kConfig, REM | ADD, sent("undo ftp-detect direction action", 1)},
        {"remove action only", configTree("http", nullptr, "alert"), kConfig, REM, sent("undo http-detect direction action", 1)},
        {"remove empty", configTree("http", nullptr, nullptr), kConfig, REM, refused("Undo av detect protocol input error.", 9)},
        {"no protocol key", profileTree("<detect><detect-configuration><direction>both</direction></detect-configuration></detect>"),
         kConfig, ADD, refused("The profile detect protocol-type node is NULL.", 8)},
        {"profile name before protocol key", profileTree("<detect><detect-configuration/></detect>", "vs1", " "), kConfig, ADD,
         refused("av remove spaces failed.", 9)},
    });
}

TEST_F(DetectTest, DirectionLineFollowsProtocol) {
    const std::string n = kConfig + "/direction", invalid = "Av protocol detect direction config invalid.";
    const std::string b31(31, 'b'), b32(32, 'b');
    run("callback_AV_ProfileDetectConfigDirection", kConfigPath + "/direction", {
        {"pop3", configTree("pop3", "download", nullptr), n, ADD, sent("pop3-detect", 0)},
        {"smtp", configTree("tk-antivirus:smtp", " upload ", "alert"), n, MOD, sent("smtp-detect", 0)},
        {"http", configTree("http", "both", "declare"), n, ADD, sent("http-detect direction both", 0)},
        {"nfs", configTree("nfs", "upload", nullptr), n, ADD, sent("nfs-detect direction upload", 0)},
        {"imap", configTree("imap", "\tdownload", nullptr), n, MOD, sent("imap-detect direction download", 0)},
        {"none", configTree("smtp", "none", nullptr), n, ADD, sent("undo smtp-detect", 0)},
        {"pop3 upload", configTree("pop3", "upload", nullptr), n, ADD, refused(invalid, 9)},
        {"capitals", configTree("http", "Both", nullptr), n, ADD, refused(invalid, 9)},
        {"31 characters", configTree("http", b31.c_str(), nullptr), n, ADD, refused(invalid, 9)},
        {"32 characters", configTree("http", b32.c_str(), nullptr), n, ADD, refused("av remove spaces failed.", 9)},
        {"blank", configTree("http", "   ", nullptr), n, REM, refused("av remove spaces failed.", 9)},
        {"no text", configTree("http", "", nullptr), n, ADD, quiet(1)},
        {"remove pop3", configTree("pop3", "download", nullptr), n, REM, dropped()},
        {"remove smtp", configTree("tk-antivirus:smtp", "upload", nullptr), n, REM, dropped()},
        {"remove http", configTree("http", "both", nullptr), n, REM, sent("undo http-detect direction", 1)},
        {"remove nfs", configTree("nfs", "download", nullptr), n, REM | ADD, sent("undo nfs-detect direction", 1)},
        {"remove none", configTree("ftp", "none", nullptr), n, REM, sent("undo ftp-detect direction", 1)},
        {"remove invalid", configTree("pop3", "upload", nullptr), n, REM, refused(invalid, 9)},
        {"chain", configTree("http", "both", nullptr), n, CHAIN, refused("Unknown op.", 1)},
        {"protocol key before profile name",
         profileTree("<detect><detect-configuration><direction>both</direction></detect-configuration></detect>", "vs1", " "), n,
         ADD, refused("The profile detect protocol-type node is NULL.", 8)},
    });
}

TEST_F(DetectTest, ActionLineReadsTheSiblingDirection) {
    const std::string n = kConfig + "/action";
    const std::string actionInvalid = "Av protocol detect action config invalid.";
    const std::string directionInvalid = "Av protocol detect direction config invalid.";
    run("callback_AV_ProfileDetectConfigAction", kConfigPath + "/action", {
        {"http", configTree("http", "both", "block"), n, ADD, sent("http-detect direction both action block", 0)},
        {"ftp trimmed", configTree("ftp", "upload", " alert\t"), n, MOD, sent("ftp-detect direction upload action alert", 0)},
        {"direction later", configTree("smb", nullptr, "block", "<action>block</action><direction>download</direction>"), n, ADD,
         sent("smb-detect direction download action block", 0)},
        {"smtp", configTree("smtp", "upload", "delete-attachment"), n, ADD, sent("smtp-detect action delete-attachment", 0)},
        {"pop3", configTree("tk-antivirus:pop3", "download", "alert"), n, MOD, sent("pop3-detect action alert", 0)},
        {"imap", configTree("imap", "both", "anything"), n, ADD, sent("imap-detect direction both action anything", 0)},
        {"direction none", configTree("http", "none", "block"), n, ADD, dropped()},
        {"smtp none", configTree("smtp", "none", "delete-attachment"), n, ADD, dropped()},
        {"nfs", configTree("nfs", "download", "alert"), n, ADD, dropped()},
        {"nfs block", configTree("nfs", "download", "block"), n, ADD, refused(actionInvalid, 9)},
        {"smtp block", configTree("smtp", "upload", "block"), n, ADD, refused(actionInvalid, 9)},
        {"http declare", configTree("http", "both", "declare"), n, ADD, refused(actionInvalid, 9)},
        {"action before direction", configTree("smtp", "both", "block"), n, ADD, refused(actionInvalid, 9)},
        {"no direction", configTree("http", nullptr, "block"), n, ADD,
         refused("The profile detect direction in action node is NULL.", 8)},
        {"direction not admitted", configTree("smtp", "both", "alert"), n, ADD, refused(directionInvalid, 9)},
        {"direction unaltered", configTree("http", " both ", "alert"), n, ADD, refused(directionInvalid, 9)},
        {"blank", configTree("http", "both", "  "), n, ADD, refused("av remove spaces failed.", 9)},
        {"32 characters", configTree("imap", "both", std::string(32, 'a').c_str()), n, ADD, refused("av remove spaces failed.", 9)},
        {"no text", configTree("http", "both", ""), n, ADD, quiet(1)},
        {"remove smtp", configTree("tk-antivirus:smtp", "upload", "alert"), n, REM, sent("undo smtp-detect action", 1)},
        {"remove http", configTree("http", "both", "block"), n, REM, sent("undo http-detect action", 1)},
        {"remove without direction", configTree("http", nullptr, "block"), n, REM, sent("undo http-detect action", 1)},
        {"remove with direction none", configTree("ftp", "none", "alert"), n, REM | ADD, sent("undo ftp-detect action", 1)},
        {"remove nfs", configTree("nfs", "download", "alert"), n, REM, dropped()},
        {"remove invalid", configTree("http", "both", "declare"), n, REM, refused(actionInvalid, 9)},
        {"chain", configTree("http", "both", "block"), n, CHAIN, refused("Unknown op.", 1)},
        {"profile name before protocol key",
         profileTree("<detect><detect-configuration><action>alert</action></detect-configuration></detect>", "vs1", " "), n,
         ADD, refused("av remove spaces failed.", 9)},
    });
}

}  // namespace
