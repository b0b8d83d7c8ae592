// The appliance's documents: the running configuration (message type 7) and
// the state document (type 2), checked against the data model with libyang.
#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include "support.hpp"

namespace {

using namespace appliance_test;
namespace av = tavrik::appliance;

// Validates XML data against yang/tavrik-antivirus.yang; the libyang error
// text on failure, empty when valid.
std::string model_error(const std::string& xml, bool state) {
    ly_ctx* ctx = nullptr;
    ly_log_options(LY_LOSTORE_LAST);  // the message is returned, not printed
    if (ly_ctx_new(TAVRIK_YANG_DIR, 0, &ctx) != LY_SUCCESS) return "no libyang context";
    std::string error;
    lyd_node* tree = nullptr;
    if (ly_ctx_load_module(ctx, "tavrik-antivirus", nullptr, nullptr) == nullptr) {
        error = "model not loaded";
    } else if (lyd_parse_data_mem(ctx, xml.c_str(), LYD_XML, LYD_PARSE_STRICT | (state ? 0 : LYD_PARSE_NO_STATE),
                                  state ? LYD_VALIDATE_PRESENT : LYD_VALIDATE_NO_STATE, &tree) != LY_SUCCESS) {
        const char* msg = ly_errmsg(ctx);
        error = msg ? msg : "invalid";
    }
    lyd_free_all(tree);
    ly_ctx_destroy(ctx);
    return error;
}

// The text without the indentation between elements.
std::string squash(const std::string& xml) {
    std::string out;
    for (std::size_t i = 0; i < xml.size(); ++i) {
        if (xml[i] != '\n') {
            out += xml[i];
            continue;
        }
        while (i + 1 < xml.size() && xml[i + 1] == ' ') ++i;
    }
    return out;
}

av::Appliance rich() {
    av::Appliance a;
    run_lines(a, rich_lines());
    return a;
}

TEST(ApplianceDocuments, RunningConfigurationIsNulTerminatedAndReadsBack) {
    av::Appliance a = rich();
    auto reply = a.document(API_DP2QMX_GET_CONFIG);
    EXPECT_EQ(reply.result, 0);
    EXPECT_TRUE(reply.with_reply);
    ASSERT_FALSE(reply.data.empty());
    EXPECT_EQ(reply.data.back(), '\0');
    EXPECT_EQ(reply.data.find('\0'), reply.data.size() - 1);  // the only NUL, counted in the length
    std::string text = reply.data.substr(0, reply.data.size() - 1);
    EXPECT_EQ(text, a.running_config_xml());
    EXPECT_EQ(av::parse_configuration(text), a.configuration());
    EXPECT_NE(text.find("<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\">"), std::string::npos);
}

TEST(ApplianceDocuments, RunningConfigurationFitsTheModel) {
    av::Appliance a = rich();
    EXPECT_EQ(model_error(a.running_config_xml(), false), "");
    EXPECT_EQ(model_error(av::Appliance().running_config_xml(), false), "");
    // The check can fail: a leaf the model does not have.
    std::string bad = a.running_config_xml();
    bad.insert(bad.find("<name>p1</name>"), "<colour>red</colour>");
    EXPECT_NE(model_error(bad, false), "");
}

TEST(ApplianceDocuments, ShapeOfTheRunningConfiguration) {
    std::string xml = squash(rich().running_config_xml());
    // Exceptions without action are the simple form, the others entries.
    EXPECT_NE(xml.find("<exception-signature-id>1001</exception-signature-id>"), std::string::npos);
    EXPECT_NE(xml.find("<id>1003</id>"), std::string::npos);
    EXPECT_EQ(xml.find("<id>1001</id>"), std::string::npos);
    // The match type follows from the asterisks; the URL's quote is decoded and escaped as text.
    EXPECT_NE(xml.find("<type>prefix</type><value>www.example.com/*</value>"), std::string::npos);
    EXPECT_NE(xml.find("<value>q\"x.com</value>"), std::string::npos);
    EXPECT_NE(xml.find("<description>Office &lt;traffic&gt; &amp; mail</description>"), std::string::npos);
    // Hours only; switches as true/false; vsys with an explicit unassignment.
    EXPECT_NE(xml.find("<file-reputation-age-time-hour>72</file-reputation-age-time-hour>"), std::string::npos);
    EXPECT_NE(xml.find("<interworking-detect-enable>false</interworking-detect-enable>"), std::string::npos);
    EXPECT_NE(xml.find("<name>vs2</name><antivirus-enable>false</antivirus-enable>"), std::string::npos);
}

TEST(ApplianceDocuments, StateDocument) {
    av::Appliance a = rich();
    ASSERT_TRUE(a.set_references("vs1", "p1", 3));
    auto reply = a.document(API_DP2QMX_NC_STATE);
    EXPECT_EQ(reply.result, 0);
    EXPECT_EQ(reply.data, a.state_xml());
    EXPECT_EQ(model_error(reply.data, true), "");
    const std::string xml = squash(reply.data);
    EXPECT_NE(xml.find("<name>p1</name><reference-count>3</reference-count>"), std::string::npos);
    EXPECT_NE(xml.find("<name>my av</name><reference-count>0</reference-count>"), std::string::npos);
    for (std::string id : {"1001", "1002", "1003"})
        EXPECT_NE(xml.find("<signature-id>" + id + "</signature-id><signature-name>" +
                           av::signature_name(id) + "</signature-name>"),
                  std::string::npos);
    EXPECT_NE(xml.find("<default-profile><profile><name>default</name>"), std::string::npos);
    EXPECT_NE(xml.find("<application-name><name>zoom</name>"), std::string::npos);
}

TEST(ApplianceDocuments, OtherMessageTypesAreRefused) {
    av::Appliance a;
    auto reply = a.document(4);
    EXPECT_NE(reply.result, 0);
    EXPECT_FALSE(reply.with_reply);
}

TEST(ApplianceDocuments, CommandLinesRebuildTheConfiguration) {
    av::Appliance a = rich();
    av::Appliance again(a.configuration());
    EXPECT_EQ(again.configuration(), a.configuration());
    // A configuration is taken in its comparison form: what the module's
    // lines give for it.
    av::Configuration shaped = a.configuration();
    shaped.vsys["vs1"].profiles["p1"].detect["nfs"].action = "alert";
    shaped.vsys["vs1"].profiles["my av"].detect["ftp"] = {};
    shaped.vsys["vs9"];
    EXPECT_EQ(av::Appliance(shaped).configuration(), a.configuration());
    // What the appliance refuses is not taken over.
    av::Configuration refused = a.configuration();
    refused.vsys["vs1"].profiles["p1"].applications["nosuch"] = std::nullopt;
    EXPECT_THROW(av::Appliance{refused}, av::ConfigurationError);
    refused = a.configuration();
    refused.aging_hours = 9000;
    EXPECT_THROW(av::Appliance{refused}, av::ConfigurationError);
}

}  // namespace
