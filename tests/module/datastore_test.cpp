// Datastore reads, from the tables in cases/datastore.cases: the feature test
// by device model, state data and the running-configuration export, with the
// requests each read sends and the reply records it releases.
#include <regex>

#include "cases.hpp"
#include "fixture.hpp"

namespace tktest {
namespace {

const NC_DATASTORE kTargets[] = {NC_DATASTORE_RUNNING, NC_DATASTORE_STARTUP, NC_DATASTORE_CANDIDATE,
                                 static_cast<NC_DATASTORE>(7)};
std::string column(const Case& c, size_t i) { return c.columns.at(i) == "-" ? "-" : decode(c.columns[i]); }
tavrik::runtime::DocumentReply reply(const Case& c) {
    return {std::stoi(c.columns[0]), c.columns[1] == "yes", decode(c.columns[2])};
}

class Datastore : public ModuleTest {
protected:
    void TearDown() override {
        g_product_name_for_dp = nullptr;
        ModuleTest::TearDown();
    }
    // Publishes the device model name as the server does ("-": none).
    void setModel(const std::string& column) {
        model_ = decode(column);
        g_product_name_for_dp = column == "-" ? nullptr : model_.data();
    }
    static auto& platform() { return tavrik::runtime::default_platform(); }
    // The state document after its XML declaration, or "-".
    std::string readState(xmlDocPtr model = nullptr, xmlDocPtr running = nullptr) {
        xmlDocPtr doc =
            exported<xmlDocPtr (*)(xmlDocPtr, xmlDocPtr, nc_err**)>("get_state_data")(model, running, &error_);
        if (doc == nullptr) return "-";
        xmlChar* text = nullptr;
        int size = 0;
        xmlDocDumpMemory(doc, &text, &size);
        std::string s(reinterpret_cast<const char*>(text), static_cast<size_t>(size));
        xmlFree(text);
        xmlFreeDoc(doc);
        const std::string declaration = "<?xml version=\"1.0\"?>\n";
        EXPECT_EQ(s.rfind(declaration, 0), 0u) << s;
        return s.substr(declaration.size(), s.size() - declaration.size() - 1);
    }
    std::string readConfig(NC_DATASTORE target = NC_DATASTORE_RUNNING) {
        char* text = exported<char* (*)(void*, NC_DATASTORE, nc_err**)>("perform_getconfig")(nullptr, target, &error_);
        std::string r = text ? text : "-";
        free(text);
        return r;
    }
    // `sends` header-only requests of `msgType` went out, `releases` reply
    // records came back to the channel; nothing else happened.
    void expectTraffic(size_t sends, int releases, unsigned msgType) {
        const auto& j = journal();
        ASSERT_EQ(j.sends.size(), sends);
        EXPECT_EQ(j.releases, releases);
        EXPECT_TRUE(j.cached.empty() && j.refusals.empty() && j.clears == 0 && error_ == nullptr);
        for (const auto& send : j.sends) {
            expectHeader(send, msgType);
            EXPECT_EQ(std::tie(send.cmd_op, send.origin), std::make_tuple(0u, std::optional<std::string>()));
        }
        tavrik::runtime::reset_journal();
    }
    // Each target's configuration text is `expected`, read with the traffic given.
    void expectConfig(const std::string& expected, size_t sends, int releases) {
        for (NC_DATASTORE target : kTargets) {
            EXPECT_EQ(readConfig(target), expected);
            expectTraffic(sends, releases, API_DP2QMX_GET_CONFIG);
        }
    }
    std::string model_;
};

TEST_F(Datastore, AsTheTablesSay) {
    const std::vector<CaseSection> tables = readCases(std::string(TKTEST_CASES_DIR) + "/datastore.cases", "read");
    const CaseSection& models = tables.at(0);
    for (const Case& c : models.cases) {
        SCOPED_TRACE(c.where);
        platform().state_reply = {0, true, decode(c.setting("state"))};
        platform().config_reply = {0, true, decode(c.setting("config"))};
        setModel(c.columns[0]);
        const int enabled = std::stoi(c.columns[1]);
        EXPECT_EQ(exported<int (*)()>("av_func_enable")(), enabled);
        EXPECT_EQ(readState(), column(c, 2));
        expectTraffic(enabled, enabled, API_DP2QMX_NC_STATE);
        expectConfig(column(c, 3), enabled, enabled);
    }
    setModel("KX-11");
    model_[4] = '0';  // the server rewrites its text in place: read at every call
    EXPECT_EQ(exported<int (*)()>("av_func_enable")(), 1);
    setModel("-");
    for (const Case& c : tables.at(1).cases) {
        SCOPED_TRACE(c.where);
        platform().state_reply = reply(c);
        EXPECT_EQ(readState(), column(c, 3));
        expectTraffic(1, std::stoi(c.columns[4]), API_DP2QMX_NC_STATE);
    }
    for (const Case& c : tables.at(2).cases) {
        SCOPED_TRACE(c.where);
        platform().config_reply = reply(c);
        expectConfig(column(c, 3), 1, std::stoi(c.columns[4]));
    }
    platform().state_reply = {0, true, "<s/>"};
    Tree model("<module/>"), running("<antivirus/>");
    EXPECT_EQ(readState(model.doc(), running.doc()), "<s/>") << "the documents given are not read";
    EXPECT_EQ(xmlDocGetRootElement(running.doc())->children, nullptr);
}

TEST_F(Datastore, CopyConfigTouchesNothing) {
    auto copyconfig = exported<int (*)(void*, NC_DATASTORE, NC_DATASTORE, char*, nc_err**)>("perform_copyconfig");
    char config[] = "<antivirus/>";
    nc_err existing{NC_ERR_OP_FAILED, 1, "earlier", "/"};
    nc_err* error = &existing;
    for (NC_DATASTORE target : kTargets) {
        EXPECT_EQ(copyconfig(&existing, target, NC_DATASTORE_RUNNING, config, &error), 0);
        EXPECT_EQ(copyconfig(nullptr, target, target, nullptr, nullptr), 0);
    }
    EXPECT_EQ(error, &existing);
    EXPECT_EQ(existing.message, "earlier");
    EXPECT_STREQ(config, "<antivirus/>");
    expectTraffic(0, 0, 0);
}

TEST_F(Datastore, ReadsOfAModelWithoutTheFeatureTraceOnlyWithTheDebugSwitch) {
    setModel("KX-13");
    for (unsigned char debug : {0, 1}) {
        debugSwitch() = debug;
        testing::internal::CaptureStdout();
        readState();
        readConfig();
        fflush(stdout);
        const std::string out = std::regex_replace(testing::internal::GetCapturedStdout(), std::regex("\\d+"), "N");
        EXPECT_EQ(out, debug == 0 ? "" : "av get state,in N\r\nav perform getconfig,in N\r\n");
    }
}

}  // namespace
}  // namespace tktest
