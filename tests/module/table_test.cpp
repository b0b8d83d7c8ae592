// The exported descriptors and the 107-row callback table; the wrappers and
// the accept-and-do-nothing rows; and the frame every profile-level handler of
// the detection, exception and whitelist families runs.
#include <regex>
#include <sstream>

#include "module_fixture.hpp"

namespace {

using namespace tktest;

// ---- the expected table --------------------------------------------------

enum class Kind { NoOp, Add, Delete };
struct Row {
    std::string path;
    std::string function;
    int priority;
    Kind kind;
    std::string handler;  // wrappers only
};

// A configuration node: an accept-and-do-nothing row, or a wrapper pair whose
// ADD row carries `priority` and whose Delete row the matching delete priority.
struct ConfigNode {
    const char* path;
    const char* function;
    bool pair;
    int priority;
};
constexpr const char* P = "vsys/profiles/profile/";
const std::vector<ConfigNode> kConfigNodes = {
    {"vsys", "callback_AV_Vsys", false, 0},
    {"vsys/name", "callback_AV_VsysName", false, 0},
    {"vsys/antivirus-enable", "callback_AV_VsysEnable", true, 6},
    {"vsys/profiles", "callback_AV_AllProfile", false, 0},
    {"vsys/profiles/profile", "callback_AV_Profile", true, 6},
    {"name", "callback_AV_ProfileName", false, 6},
    {"description", "callback_AV_ProfileDescription", true, 3},
    {"collect-attack-evidence-enable", "callback_AV_ProfileAttack", true, 3},
    {"interworking-detect-enable", "callback_AV_ProfileInterworking", true, 3},
    {"heuristic-detect-enable", "callback_AV_ProfileHeuristic", true, 3},
    {"detect", "callback_AV_ProfileDetect", true, 3},
    {"detect/protocol-type", "callback_AV_ProfileProtocolType_ADD", false, 3},
    {"detect/detect-configuration", "callback_AV_ProfileDetectConfig", true, 3},
    {"detect/detect-configuration/direction", "callback_AV_ProfileDetectConfigDirection", true, 3},
    {"detect/detect-configuration/action", "callback_AV_ProfileDetectConfigAction", true, 3},
    {"exception-application", "callback_AV_ProfileExceptApplication", true, 3},
    {"exception-application/application-name", "callback_AV_ProfileApplicationName_ADD", false, 3},
    {"exception-application/application-action", "callback_AV_ProfileApplicationAction", true, 3},
    {"exception-signature-id", "callback_AV_ProfileExceptID", true, 3},
    {"exception-signature", "callback_AV_ProfileExceptSignature", true, 3},
    {"exception-signature/id", "callback_AV_ProfileExceptSignatureId_ADD", false, 3},
    {"exception-signature/action", "callback_AV_ProfileExceptSignatureAction", true, 3},
    {"exception-signature/timeout", "callback_AV_ProfileExceptSignatureTimeout", true, 3},
    {"whitelists", "callback_AV_ProfileWhitelist_ADD", false, 3},
    {"whitelists/match-rules", "callback_AV_ProfileWhitelistMatchRules_ADD", false, 3},
    {"whitelists/match-rules/match-rule", "callback_AV_ProfileWhitelistMatchRule_ADD", false, 3},
    {"whitelists/match-rules/match-rule/scope", "callback_AV_ProfileWhitelistMatchRuleScope_ADD", false, 3},
    {"whitelists/match-rules/match-rule/type", "callback_AV_ProfileWhitelistMatchRuleType_ADD", false, 3},
    {"whitelists/match-rules/match-rule/value", "callback_AV_ProfileWhitelistMatchRuleValue", true, 3},
    {"whitelists/source-address", "callback_AV_ProfileWhitelistsourceAddress", true, 3},
    {"whitelists/source-address-range", "callback_AV_ProfileWhitelistsourceAddressRange", true, 3},
    {"whitelists/source-address-range/start-address", "callback_AV_ProfileWhitelistsourceAddressRangeStart_ADD", false, 3},
    {"whitelists/source-address-range/end-address", "callback_AV_ProfileWhitelistsourceAddressRangeEnd_ADD", false, 3},
    {"whitelists/destination-address", "callback_AV_ProfileWhitelistdestinationAddress", true, 3},
    {"whitelists/destination-address-range", "callback_AV_ProfileWhitelistdestinationAddressRange", true, 3},
    {"whitelists/destination-address-range/start-address", "callback_AV_ProfileWhitelistdestinationAddressRangeStart_ADD", false, 3},
    {"whitelists/destination-address-range/end-address", "callback_AV_ProfileWhitelistdestinationAddressRangeEnd_ADD", false, 3},
    {"global", "callback_AV_Global", false, 3},
    {"global/file-reputation-age-time", "callback_AV_GlobalFilerpuAgingTime", true, 3},
    {"global/file-reputation-age-time-hour", "callback_AV_GlobalFilerpuAgingTimeHour", true, 3},
};
// The state rows below "/tk-antivirus:antivirus-state", in row order.
const char* const kStatePaths = R"(
vsys vsys/name vsys/profiles vsys/profiles/profile vsys/profiles/profile/name
vsys/profiles/profile/reference-count vsys/profiles/profile/exception-signature
vsys/profiles/profile/exception-signature/signature-id vsys/profiles/profile/exception-signature/signature-name
exception-application exception-application/application-name exception-application/application-name/name
default-profile default-profile/profile default-profile/profile/name default-profile/profile/description
default-profile/profile/collect-attack-evidence-enable default-profile/profile/interworking-detect-enable
default-profile/profile/heuristic-detect-enable default-profile/profile/detect
default-profile/profile/detect/protocol-type default-profile/profile/detect/detect-configuration
default-profile/profile/detect/detect-configuration/direction
default-profile/profile/detect/detect-configuration/action default-profile/profile/exception-application
default-profile/profile/exception-application/application-name
default-profile/profile/exception-application/application-action default-profile/profile/exception-signature
default-profile/profile/exception-signature/signature-id
default-profile/profile/exception-signature/signature-name default-profile/profile/whitelists
default-profile/profile/whitelists/match-rules default-profile/profile/whitelists/match-rules/match-rule
default-profile/profile/whitelists/match-rules/match-rule/scope
default-profile/profile/whitelists/match-rules/match-rule/type
default-profile/profile/whitelists/match-rules/match-rule/value
default-profile/profile/whitelists/source-address default-profile/profile/whitelists/source-address-range
default-profile/profile/whitelists/source-address-range/start-address
default-profile/profile/whitelists/source-address-range/end-address
default-profile/profile/whitelists/destination-address
default-profile/profile/whitelists/destination-address-range
default-profile/profile/whitelists/destination-address-range/start-address
default-profile/profile/whitelists/destination-address-range/end-address)";

// "a/b" below `root` -> "/tk-antivirus:root/tk-antivirus:a/tk-antivirus:b".
std::string stored(const std::string& root, const std::string& below) {
    std::string out = "/tk-antivirus:" + root;
    for (size_t start = 0; start <= below.size();) {
        size_t end = std::min(below.find('/', start), below.size());
        out += "/tk-antivirus:" + below.substr(start, end - start);
        start = end + 1;
    }
    return out;
}

const std::vector<Row>& expectedRows() {
    static const std::vector<Row> rows = [] {
        std::vector<Row> r;
        for (const auto& n : kConfigNodes) {
            bool inProfile = std::string(n.path).rfind("vsys", 0) != 0 && std::string(n.path).rfind("global", 0) != 0;
            std::string path = stored("antivirus", (inProfile ? std::string(P) : "") + n.path);
            if (!n.pair) {
                r.push_back({path, n.function, n.priority, Kind::NoOp, ""});
                continue;
            }
            r.push_back({path, n.function + std::string("_ADD"), n.priority, Kind::Add, n.function});
            r.push_back({path, n.function + std::string("_Delete"), n.priority == 6 ? 64 : 67, Kind::Delete, n.function});
        }
        std::istringstream state(kStatePaths);
        for (std::string below; state >> below;) {
            std::string path = stored("antivirus-state", below);
            std::string name = "callback_" + path.substr(1);
            for (char& c : name)
                if (c == '-' || c == ':' || c == '/') c = '_';
            r.push_back({path, name, 0, Kind::NoOp, ""});
        }
        return r;
    }();
    return rows;
}

const transapi_data_callbacks& table() {
    return *static_cast<const transapi_data_callbacks*>(Module::get().sym("clbks"));
}

template <class T>
const T& descriptor(const char* name) {
    const void* p = Module::get().sym(name);
    if (p == nullptr) throw std::runtime_error(std::string(name) + " is not exported");
    return *static_cast<const T*>(p);
}

TEST(CallbackTable, RowsMatchTheDocumentedTable) {
    const auto& expected = expectedRows();
    ASSERT_EQ(expected.size(), 107u);
    EXPECT_EQ(std::count_if(expected.begin(), expected.end(), [](const Row& r) { return r.kind == Kind::NoOp; }), 61);
    EXPECT_EQ(expected[2].path, "/tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:antivirus-enable");
    EXPECT_EQ(expected[63].function, "callback_tk_antivirus_antivirus_state_tk_antivirus_vsys");

    ASSERT_NE(Module::get().sym("clbks"), nullptr);
    ASSERT_EQ(table().callbacks_count, 107);
    EXPECT_EQ(table().data, nullptr);
    for (size_t i = 0; i < expected.size(); ++i) {
        const clbk& row = table().callbacks[i];
        const Row& want = expected[i];
        SCOPED_TRACE("row " + std::to_string(i) + " " + want.function);
        ASSERT_NE(row.path, nullptr);
        EXPECT_EQ(std::string(row.path), want.path);
        void* named = Module::get().sym(want.function.c_str());
        EXPECT_NE(named, nullptr);
        EXPECT_EQ(reinterpret_cast<void*>(row.func), named);
        EXPECT_EQ(row.priority, want.priority);
        EXPECT_EQ(row.schema_path, nullptr);
    }
}

TEST(CallbackTable, Descriptors) {
    EXPECT_EQ(descriptor<int>("transapi_version"), 4);
    EXPECT_EQ(descriptor<int>("callbacks_order"), TRANSAPI_CLBCKS_ROOT_TO_LEAF);
    EXPECT_EQ(descriptor<int>("config_modified"), 0);
    EXPECT_EQ(descriptor<int>("erropt"), NC_EDIT_ERROPT_NOTSET);
    EXPECT_EQ(descriptor<transapi_rpc_callbacks>("rpc_clbks").callbacks_count, 0);

    const auto* ns = &descriptor<ns_pair>("namespace_mapping");
    EXPECT_STREQ(ns[0].prefix, "tk-antivirus");
    EXPECT_STREQ(ns[0].href, "urn:tavrik:params:xml:ns:yang:tavrik-antivirus");
    EXPECT_EQ(ns[1].prefix, nullptr);
    EXPECT_EQ(ns[1].href, nullptr);

    const auto& f = descriptor<ncds_custom_funcs>("custom_funcs");
    EXPECT_EQ(f.init, &custom_init);
    EXPECT_EQ(f.free, &custom_free);
    EXPECT_EQ(f.was_changed, &custom_changed);
    EXPECT_EQ(f.rollback, &custom_rollback);
    EXPECT_EQ(f.lock, &custom_lock);
    EXPECT_EQ(f.unlock, &custom_unlock);
    EXPECT_EQ(f.is_locked, nullptr);
    EXPECT_EQ(f.getconfig, &custom_getconfig);
    EXPECT_EQ(f.copyconfig, &custom_copyconfig);
    EXPECT_EQ(f.deleteconfig, &custom_deleteconfig);
    EXPECT_EQ(f.editconfig, &custom_editconfig);
}

const std::vector<int> kOps = {0, ADD, MOD, CHAIN, ADD | MOD, ADD | CHAIN | 16, REM, REM | ADD, REM | MOD, REM | CHAIN, 0xFFFF};

class CallbackRows : public ModuleTest {
protected:
    void expectUntouched() {
        const auto& j = journal();
        EXPECT_TRUE(j.cached.empty());
        EXPECT_EQ(j.clears, 0);
        EXPECT_TRUE(j.sends.empty());
        EXPECT_TRUE(j.refusals.empty());
        EXPECT_EQ(j.transforms, 0);
        EXPECT_EQ(error_, nullptr);
    }
};

TEST_F(CallbackRows, NoOpRowsAcceptAnythingAndTouchNothing) {
    Tree tree(profileTree("<detect><protocol-type>telnet</protocol-type></detect>"));
    int seen = 0;
    for (size_t i = 0; i < expectedRows().size(); ++i) {
        if (expectedRows()[i].kind != Kind::NoOp) continue;
        ++seen;
        SCOPED_TRACE(expectedRows()[i].function);
        for (int op : kOps) {
            tavrik::runtime::reset();
            ScriptedParents parents{{1, REM}};
            void* handle = &parents;
            EXPECT_EQ(table().callbacks[i].func(&handle, static_cast<XMLDIFF_OP>(op), tree.at(kInProfile + "detect"), &error_), 0);
            EXPECT_EQ(table().callbacks[i].func(nullptr, static_cast<XMLDIFF_OP>(op), nullptr, nullptr), 0);
            expectUntouched();
        }
    }
    EXPECT_EQ(seen, 61);
}

// Every handler refuses a bare node before it looks at the operation, so a
// wrapper that lets a change through leaves the same refusal as its handler.
TEST_F(CallbackRows, WrappersLetThroughOnlyTheirHalf) {
    Tree bare("<x/>");
    int seen = 0;
    for (size_t i = 0; i < expectedRows().size(); ++i) {
        const Row& row = expectedRows()[i];
        if (row.kind == Kind::NoOp) continue;
        ++seen;
        SCOPED_TRACE(row.function);
        for (int op : kOps) {
            SCOPED_TRACE(op);
            tavrik::runtime::reset();
            int direct = call(row.handler.c_str(), bare.root(), op & (ADD | REM | MOD | CHAIN));
            ASSERT_EQ(journal().refusals.size(), 1u);
            const tavrik::runtime::Refusal refusal = journal().refusals[0];

            tavrik::runtime::reset();
            clearError();
            ScriptedParents none;
            void* handle = &none;
            int result = table().callbacks[i].func(&handle, static_cast<XMLDIFF_OP>(op), bare.root(), &error_);
            if (((op & REM) != 0) == (row.kind == Kind::Delete)) {
                EXPECT_EQ(result, direct);
                EXPECT_EQ(journal().transforms, 1);
                ASSERT_EQ(journal().refusals.size(), 1u);
                EXPECT_EQ(journal().refusals[0].message, refusal.message);
                EXPECT_EQ(journal().refusals[0].path, refusal.path);
                EXPECT_EQ(journal().refusals[0].tag, refusal.tag);
            } else {
                EXPECT_EQ(result, 0);
                expectUntouched();
            }
        }
    }
    EXPECT_EQ(seen, 46);
}

TEST_F(CallbackRows, WrapperReturnsTheSendResultUnchanged) {
    Tree tree("<antivirus><global><file-reputation-age-time>2</file-reputation-age-time></global></antivirus>");
    for (auto [wrapper, op, line] : {std::tuple{"callback_AV_GlobalFilerpuAgingTime_ADD", ADD, "file-reputation set aging-time hour 48"},
                                     std::tuple{"callback_AV_GlobalFilerpuAgingTime_Delete", REM, "undo file-reputation set aging-time"}}) {
        tavrik::runtime::reset();
        tavrik::runtime::default_platform().next_results = {7};
        EXPECT_EQ(call(wrapper, tree.at("global/file-reputation-age-time"), op), 7) << wrapper;
        ASSERT_EQ(journal().sends.size(), 1u);
        EXPECT_EQ(journal().sends[0].lines.at(0).line, line);
    }
}

// ---- the frame of the profile-level handlers -------------------------------

struct FrameRow {
    const char* handler;
    std::string path;  // below the profile's error path
    std::string body;  // the profile's children
    std::string node;  // below the profile
    int op;
    std::string line;
    unsigned cmdOp;
    std::vector<int> screened;
    size_t viewSize;
};
const std::string kDetectBody =
    "<detect><protocol-type>http</protocol-type><detect-configuration><direction>both</direction><action>block</action>"
    "</detect-configuration></detect>";
const std::string kAppBody =
    "<exception-application><application-name>app1</application-name><application-action>block</application-action>"
    "</exception-application>";
const std::string kSigBody =
    "<exception-signature><id>1001</id><action>block-source-ip</action><timeout>60</timeout></exception-signature>";
const std::string kRuleBody =
    "<whitelists><match-rules><match-rule><scope>url</scope><type>exact</type><value>www.a.com</value></match-rule>"
    "</match-rules></whitelists>";
const std::string kRangeBody = "<start-address>10.0.0.1</start-address><end-address>10.0.0.9</end-address>";
const std::string kCfg = "detect/detect-configuration";
const std::vector<FrameRow> kFrameRows = {
    {"callback_AV_ProfileDetect", "/detect", kDetectBody, "detect", REM, "undo http-detect", 1, {3, 1}, 128},
    {"callback_AV_ProfileDetectConfig", "/detect/configuration", kDetectBody, kCfg, ADD,
     "http-detect direction both action block", 0, {4, 2, 1}, 128},
    {"callback_AV_ProfileDetectConfigDirection", "/detect/configuration/direction", kDetectBody, kCfg + "/direction", MOD,
     "http-detect direction both", 0, {5, 3, 2, 1}, 128},
    {"callback_AV_ProfileDetectConfigAction", "/detect/configuration/action", kDetectBody, kCfg + "/action", ADD,
     "http-detect direction both action block", 0, {5, 3, 2, 1}, 128},
    {"callback_AV_ProfileExceptApplication", "/except-application", kAppBody, "exception-application", ADD,
     "exception application name app1 action block", 0, {3, 1}, 128},
    {"callback_AV_ProfileApplicationAction", "/except-application/action", kAppBody,
     "exception-application/application-action", MOD, "exception application name app1 action block", 0, {4, 2, 1}, 128},
    {"callback_AV_ProfileExceptID", "/except-signature-id", "<exception-signature-id>1001</exception-signature-id>",
     "exception-signature-id", ADD, "exception av-signature-id 1001", 0, {3, 1}, 128},
    {"callback_AV_ProfileExceptSignature", "/except-signatures", kSigBody, "exception-signature", ADD,
     "exception av-signature-id 1001 action block-source-ip timeout 60", 0, {3, 1}, 128},
    {"callback_AV_ProfileExceptSignatureAction", "/except-signatures/action", kSigBody, "exception-signature/action", REM,
     "exception av-signature-id 1001 action allow", 1, {4, 2, 1}, 128},
    {"callback_AV_ProfileExceptSignatureTimeout", "/except-signatures/timeout", kSigBody, "exception-signature/timeout", REM,
     "exception av-signature-id 1001 action block-source-ip", 1, {4, 2, 1}, 128},
    {"callback_AV_ProfileWhitelistMatchRuleValue", "/match-rule/value", kRuleBody, "whitelists/match-rules/match-rule/value",
     ADD, "whitelist url www.a.com", 0, {6, 4}, 256},
    {"callback_AV_ProfileWhitelistsourceAddress", "/whitelist/sourceAddress",
     "<whitelists><source-address>10.0.0.1</source-address></whitelists>", "whitelists/source-address", ADD,
     "whitelist source-address 10.0.0.1", 0, {4, 2}, 256},
    {"callback_AV_ProfileWhitelistdestinationAddress", "/whitelist/destinationAddress",
     "<whitelists><destination-address>10.0.0.1</destination-address></whitelists>", "whitelists/destination-address", REM,
     "undo whitelist destination-address 10.0.0.1", 1, {4, 2}, 256},
    {"callback_AV_ProfileWhitelistsourceAddressRange", "/whitelist/sourceAddressRange",
     "<whitelists><source-address-range>" + kRangeBody + "</source-address-range></whitelists>",
     "whitelists/source-address-range", ADD, "whitelist source-address range 10.0.0.1 10.0.0.9", 0, {4, 2}, 256},
    {"callback_AV_ProfileWhitelistdestinationAddressRange", "/whitelist/destinationAddressRange",
     "<whitelists><destination-address-range>" + kRangeBody + "</destination-address-range></whitelists>",
     "whitelists/destination-address-range", REM, "undo whitelist destination-address range 10.0.0.1 10.0.0.9", 1, {4, 2},
     256},
};

class HandlerFrame : public ModuleTest {
protected:
    // One call of the row's handler on a tree with the given keys.
    int callWith(const FrameRow& row, const char* vsys, const char* profile, int op, const ScriptedParents& parents = {},
                 const std::string& body = "") {
        tavrik::runtime::reset();
        Tree tree(profileTree(body.empty() ? row.body : body, vsys, profile));
        return call(row.handler, tree.at(kInProfile + row.node), op, parents);
    }
};

TEST_F(HandlerFrame, ScreensParentsThenKeysThenOperation) {
    const std::string p127(127, 'p');
    testing::internal::CaptureStdout();
    for (const FrameRow& row : kFrameRows) {
        SCOPED_TRACE(row.handler);
        const std::string path = kProfilePath + row.path;
        const Line line = profileLine(row.line, row.cmdOp);
        expectOutcome(callWith(row, "vs1", "p1", row.op), {Outcome::Sent, line}, path);


        // A removed ancestor ends the call before any key or value is read.
        const std::string blank = std::regex_replace(row.body, std::regex(">[^<]+<"), "><");
        for (int level = 1; level <= 7; ++level) {
            bool screened = std::find(row.screened.begin(), row.screened.end(), level) != row.screened.end();
            SCOPED_TRACE("level " + std::to_string(level));
            if (screened) {
                for (int parentOp : {REM, REM | ADD, REM | CHAIN})
                    expectQuiet(callWith(row, nullptr, nullptr, row.op, {{level, parentOp}}, blank));
            } else {
                expectOutcome(callWith(row, "vs1", "p1", row.op, {{level, REM}}), {Outcome::Sent, line},
                              path);
            }
        }
        for (int level : row.screened)
            expectOutcome(callWith(row, "vs1", "p1", row.op, {{level, ADD | MOD | CHAIN}}), {Outcome::Sent, line}, path);

        expectRefused(callWith(row, nullptr, nullptr, row.op), "The vsys name node is NULL.", path, 8);
        expectRefused(callWith(row, nullptr, "p1", row.op), "The vsys name node is NULL.", path, 8);
        expectRefused(callWith(row, "vs1", nullptr, row.op), "The profile name node is NULL.", path, 8);
        expectRefused(callWith(row, "vs1", " \t ", row.op), "av remove spaces failed.", path, 9);
        expectRefused(callWith(row, "vs1", (p127 + "p").c_str(), row.op), "av remove spaces failed.", path, 9);
        for (int op : {0, 16, 32})
            expectRefused(callWith(row, "vs1", "p1", op), "Unknown op.", path, 1);

        expectOutcome(callWith(row, "vs1", "\t p1 \n", row.op), {Outcome::Sent, line}, path);
        const std::string longView = ("profile-av-" + p127).substr(0, row.viewSize - 1);
        expectOutcome(callWith(row, "vs1", (" " + p127 + " ").c_str(), row.op),
                      {Outcome::Sent, {"vs1", longView, "profile-av", row.line, row.cmdOp}}, path);

        tavrik::runtime::reset();
        Tree tree(profileTree(row.body));
        tavrik::runtime::default_platform().next_results = {5};
        EXPECT_EQ(call(row.handler, tree.at(kInProfile + row.node), row.op), 5) << "send result returned unchanged";
        ASSERT_EQ(journal().sends.size(), 1u);
        EXPECT_EQ(journal().sends[0].lines, std::vector<CachedLine>{CachedLine({"vs1", "profile-av-p1", "profile-av", row.line})});
    }
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "nothing is traced with the debug switch at 0";
}

}  // namespace
