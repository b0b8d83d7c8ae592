// Datastore reads: the feature test by device model, state data and the
// running-configuration export, with what each read sends and releases.
#include <cctype>
#include <vector>

#include "module_fixture.hpp"

namespace {

using tavrik::runtime::DocumentReply;
using Result = std::optional<std::string>;  // nullopt: the read returned null

constexpr char kEmptyConfig[] = "<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\"/>";
const std::vector<std::string> kListedModels = {"KX-11", "KX-12", "KX-13", "KX-14", "KX-15", "KX-16", "KX-17", "KX-18",
                                                "KX-19", "KX-20", "KX-21", "KX-22", "KX-23", "KX-24", "KX-25"};
// Names that are not in the list, some of them only just.
const std::vector<std::optional<std::string>> kUnlistedModels = {
    std::nullopt, "",     "KX-11 ", " KX-11", "KX-11\t", "kx-11",   "Kx-25",        "KX-110",
    "KX-25a",     "KX-1", "KX-",    "KX-10",  "KX-26",   "KX-11\n", "firewall-9000"};
const std::vector<NC_DATASTORE> kTargets = {NC_DATASTORE_RUNNING, NC_DATASTORE_STARTUP, NC_DATASTORE_CANDIDATE,
                                            static_cast<NC_DATASTORE>(0), static_cast<NC_DATASTORE>(7)};

// A document as the reads' results are compared: libxml2's serialisation.
std::string serialise(xmlDocPtr doc) {
    xmlChar* text = nullptr;
    int size = 0;
    xmlDocDumpMemory(doc, &text, &size);
    std::string s(reinterpret_cast<const char*>(text), static_cast<size_t>(size));
    xmlFree(text);
    return s;
}
std::string document(const std::string& body) { return "<?xml version=\"1.0\"?>\n" + body + "\n"; }

// A reply of the platform and what a read makes of it.
struct ReplyCase {
    const char* what;
    DocumentReply reply;
    Result expected;
    int releases;
};

class DatastoreTest : public tktest::ModuleTest {
protected:
    void TearDown() override {
        g_product_name_for_dp = nullptr;
        tktest::ModuleTest::TearDown();
    }

    // Publishes the device model name as the server does; nullopt: unknown.
    void setModel(const std::optional<std::string>& name) {
        model_ = name.value_or("");
        g_product_name_for_dp = name ? model_.data() : nullptr;
    }

    static int featureEnabled() { return tktest::Module::get().fn<int (*)()>("av_func_enable")(); }

    Result readState(xmlDocPtr model = nullptr, xmlDocPtr running = nullptr) {
        using Fn = xmlDocPtr (*)(xmlDocPtr, xmlDocPtr, nc_err**);
        xmlDocPtr doc = tktest::Module::get().fn<Fn>("get_state_data")(model, running, &error_);
        if (doc == nullptr) return std::nullopt;
        Result r = serialise(doc);
        xmlFreeDoc(doc);
        return r;
    }

    Result readConfig(NC_DATASTORE target = NC_DATASTORE_RUNNING) {
        using Fn = char* (*)(void*, NC_DATASTORE, nc_err**);
        char* text = tktest::Module::get().fn<Fn>("perform_getconfig")(nullptr, target, &error_);
        if (text == nullptr) return std::nullopt;
        Result r = std::string(text);
        free(text);
        return r;
    }

    static auto& platform() { return tavrik::runtime::default_platform(); }

    // Exactly one header-only request of `msgType` went out (or none), and
    // `releases` reply records came back to the channel; no error recorded.
    void expectTraffic(size_t sends, int releases, unsigned msgType = 0) {
        const auto& j = journal();
        ASSERT_EQ(j.sends.size(), sends);
        EXPECT_EQ(j.releases, releases);
        EXPECT_TRUE(j.cached.empty());
        EXPECT_EQ(j.clears, 0);
        EXPECT_TRUE(j.refusals.empty());
        EXPECT_EQ(error_, nullptr);
        if (sends == 0) return;
        EXPECT_EQ(j.sends[0].msg_type, msgType);
        EXPECT_EQ(j.sends[0].cmd_op, 0u);
        EXPECT_EQ(j.sends[0].origin, std::nullopt);
        EXPECT_TRUE(j.sends[0].lines.empty());
    }

    std::string model_;
};

TEST_F(DatastoreTest, FeatureMissingOnlyOnListedModels) {
    for (const auto& name : kListedModels) {
        setModel(name);
        EXPECT_EQ(featureEnabled(), 0) << name;
    }
    for (const auto& name : kUnlistedModels) {
        setModel(name);
        EXPECT_EQ(featureEnabled(), 1) << (name ? "'" + *name + "'" : "null");
    }
}

TEST_F(DatastoreTest, FeatureTestReadsTheModelNameAtEveryCall) {
    tktest::Module::get().debug() = 1;
    testing::internal::CaptureStdout();
    char name[] = "KX-11";
    g_product_name_for_dp = name;
    EXPECT_EQ(featureEnabled(), 0);
    name[4] = '0';  // the server rewrites its text in place: "KX-10"
    EXPECT_EQ(featureEnabled(), 1);
    name[3] = '2';  // "KX-20"
    EXPECT_EQ(featureEnabled(), 0);
    g_product_name_for_dp = nullptr;
    EXPECT_EQ(featureEnabled(), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "the feature test prints no trace";
}

TEST_F(DatastoreTest, ListedModelsAnswerEmptyWithoutAskingThePlatform) {
    platform().state_reply = {0, true, "<antivirus-state/>"};
    platform().config_reply = {0, true, "<antivirus/>"};
    for (const char* name : {"KX-11", "KX-12", "KX-18", "KX-25"}) {
        SCOPED_TRACE(name);
        setModel(name);
        tavrik::runtime::reset_journal();

        EXPECT_EQ(readState(), "<?xml version=\"1.0\"?>\n") << "version 1.0, no root element";
        for (NC_DATASTORE target : kTargets) EXPECT_EQ(readConfig(target), kEmptyConfig) << target;
        expectTraffic(0, 0);
    }
    EXPECT_EQ(std::string(kEmptyConfig).size(), 67u);
}

TEST_F(DatastoreTest, UnlistedModelsAskThePlatform) {
    platform().state_reply = {0, true, "<antivirus-state><vsys/></antivirus-state>"};
    platform().config_reply = {0, true, std::string("<antivirus><vsys/></antivirus>\0", 31)};
    for (const auto& name : kUnlistedModels) {
        SCOPED_TRACE(name ? "'" + *name + "'" : "null");
        setModel(name);
        tavrik::runtime::reset_journal();
        EXPECT_EQ(readState(), document("<antivirus-state><vsys/></antivirus-state>"));
        expectTraffic(1, 1, API_DP2QMX_NC_STATE);
        tavrik::runtime::reset_journal();
        EXPECT_EQ(readConfig(), "<antivirus><vsys/></antivirus>");
        expectTraffic(1, 1, API_DP2QMX_GET_CONFIG);
    }
}

TEST_F(DatastoreTest, RequestsAreHeaderOnlyWithTypeAndModule) {
    platform().state_reply = {0, true, "<s/>"};
    platform().config_reply = {0, true, std::string("<c/>\0", 5)};
    readState();
    readConfig();
    const auto& sends = journal().sends;
    ASSERT_EQ(sends.size(), 2u);
    const unsigned types[] = {API_DP2QMX_NC_STATE, API_DP2QMX_GET_CONFIG};
    for (size_t s = 0; s < 2; ++s) {
        for (size_t i = 0; i < sends[s].header.size(); ++i) {
            uint8_t want = i == 4 ? types[s] : i == 8 ? API_MODULE_TK_AV : 0;
            ASSERT_EQ(sends[s].header[i], want) << "request " << s << ", header byte " << i;
        }
    }
}

TEST_F(DatastoreTest, StateDataFromEveryKindOfReply) {
    const ReplyCase cases[] = {
        {"document", {0, true, "<a><b>1</b></a>"}, document("<a><b>1</b></a>"), 1},
        {"blank text nodes dropped",
         {0, true, "<a>\n  <b> x </b>\n\t<c/>\r\n</a>"},
         document("<a><b> x </b><c/></a>"),
         1},
        {"redundant namespace declarations removed",
         {0, true, "<a xmlns=\"urn:x\"><b xmlns=\"urn:x\"/></a>"},
         document("<a xmlns=\"urn:x\"><b/></a>"),
         1},
        {"empty reply", {0, true, ""}, std::nullopt, 1},
        {"malformed XML", {0, true, "<a><b></a>"}, std::nullopt, 1},
        {"not XML", {0, true, "vsys public"}, std::nullopt, 1},
        {"success without a reply", {0, false, ""}, std::nullopt, 0},
        {"failure with a reply", {-1, true, "<a/>"}, std::nullopt, 1},
        {"failure with a reply, positive code", {7, true, "<a/>"}, std::nullopt, 1},
        {"failure without a reply", {-1, false, ""}, std::nullopt, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        tavrik::runtime::reset_journal();
        platform().state_reply = c.reply;
        EXPECT_EQ(readState(), c.expected);
        expectTraffic(1, c.releases, API_DP2QMX_NC_STATE);
    }
}

TEST_F(DatastoreTest, StateDataIgnoresModelAndRunningDocuments) {
    platform().state_reply = {0, true, "<antivirus-state><vsys><name>vs1</name></vsys></antivirus-state>"};
    tktest::Tree model("<module><name>tavrik-antivirus</name></module>");
    tktest::Tree running("<antivirus><vsys><name>vs2</name></vsys></antivirus>");
    const std::string modelBefore = serialise(model.root()->doc), runningBefore = serialise(running.root()->doc);

    Result withoutDocuments = readState();
    Result withDocuments = readState(model.root()->doc, running.root()->doc);
    ASSERT_TRUE(withoutDocuments.has_value());
    EXPECT_EQ(withDocuments, withoutDocuments);
    EXPECT_EQ(serialise(model.root()->doc), modelBefore);
    EXPECT_EQ(serialise(running.root()->doc), runningBefore);
    EXPECT_EQ(journal().releases, 2);
}

TEST_F(DatastoreTest, RunningConfigurationFromEveryKindOfReplyForEveryTarget) {
    using namespace std::string_literals;
    const ReplyCase cases[] = {
        {"text ending in its NUL",
         {0, true, "<antivirus><global/></antivirus>\0"s},
         "<antivirus><global/></antivirus>",
         1},
        {"text cut at the first NUL", {0, true, "<a/>\0<b/>\0"s}, "<a/>", 1},
        {"a lone NUL", {0, true, "\0"s}, "", 1},
        {"no NUL within msg_length", {0, true, "<a/>"}, "", 1},
        {"empty reply", {0, true, ""}, "", 1},
        {"success without a reply", {0, false, ""}, std::nullopt, 0},
        {"failure with a reply", {-1, true, "<a/>\0"s}, std::nullopt, 1},
        {"failure with a reply, positive code", {3, true, "<a/>\0"s}, std::nullopt, 1},
        {"failure without a reply", {-1, false, ""}, std::nullopt, 0},
    };
    for (const auto& c : cases) {
        platform().config_reply = c.reply;
        for (NC_DATASTORE target : kTargets) {
            SCOPED_TRACE(std::string(c.what) + ", target " + std::to_string(target));
            tavrik::runtime::reset_journal();
            EXPECT_EQ(readConfig(target), c.expected);
            expectTraffic(1, c.releases, API_DP2QMX_GET_CONFIG);
        }
    }
}

TEST_F(DatastoreTest, CopyConfigTouchesNothing) {
    using Fn = int (*)(void*, NC_DATASTORE, NC_DATASTORE, char*, nc_err**);
    auto copyconfig = tktest::Module::get().fn<Fn>("perform_copyconfig");
    char config[] = "<antivirus><vsys><name>vs1</name></vsys></antivirus>";
    const std::string before = config;
    nc_err existing{NC_ERR_OP_FAILED, 1, "earlier", "/"};
    int data = 7;
    for (char* text : {config, static_cast<char*>(nullptr)}) {
        for (NC_DATASTORE target : kTargets) {
            nc_err* error = &existing;
            EXPECT_EQ(copyconfig(&data, target, NC_DATASTORE_RUNNING, text, &error), 0);
            EXPECT_EQ(copyconfig(nullptr, target, target, text, nullptr), 0);
            EXPECT_EQ(error, &existing);
        }
    }
    EXPECT_EQ(config, before);
    EXPECT_EQ(data, 7);
    EXPECT_EQ(existing.message, "earlier");
    expectTraffic(0, 0);
}

TEST_F(DatastoreTest, ListedModelReadsTraceOnlyWithTheDebugSwitch) {
    setModel("KX-13");
    for (unsigned char debug : {0, 1}) {
        tktest::Module::get().debug() = debug;
        testing::internal::CaptureStdout();
        readState();
        readConfig();
        // Trace-point numbers read as "N".
        std::string out;
        for (char c : testing::internal::GetCapturedStdout())
            if (!isdigit(static_cast<unsigned char>(c)) || out.empty() || out.back() != 'N')
                out += isdigit(static_cast<unsigned char>(c)) ? 'N' : c;
        EXPECT_EQ(out, debug == 0 ? "" : "av get state,in N\r\nav perform getconfig,in N\r\n");
    }
}

}  // namespace
