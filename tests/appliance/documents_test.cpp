// The appliance's documents: the running configuration (type 7) and the state
// (type 2) as a reviewed dump (cases/documents.golden; the round trip checks
// them against the data model); reading configurations back
// (cases/readings.cases); building an appliance from a configuration.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "support.hpp"

namespace appliance_test {
namespace {

// The documents of the rich appliance with p1 referenced three times, and
// the answer to an unknown message type.
std::string documents(const av::Appliance& rich) {
    av::Appliance a = rich;
    std::string out;
    for (unsigned type : {unsigned{API_DP2QMX_GET_CONFIG}, unsigned{API_DP2QMX_NC_STATE}, 4u}) {
        auto reply = a.document(type);
        const bool nul = !reply.data.empty() && reply.data.back() == '\0';
        if (nul) reply.data.pop_back();
        out += "== document " + std::to_string(type) + ": result " + std::to_string(reply.result) +
               (reply.with_reply ? "" : ", no reply") + (nul ? ", NUL-terminated" : "") + "\n" + reply.data;
    }
    return out;
}

// scripts/regen-golden.sh writes the file anew (TKTEST_REGEN_GOLDEN set).
TEST(ApplianceDocuments, AsReviewed) {
    av::Appliance a = rich();
    ASSERT_TRUE(a.set_references("vs1", "p1", 3));
    const std::string file = std::string(TKTEST_CASES_DIR) + "/documents.golden";
    if (std::getenv("TKTEST_REGEN_GOLDEN")) std::ofstream(file) << documents(a);
    std::ostringstream golden;
    golden << std::ifstream(file).rdbuf();
    EXPECT_EQ(documents(a), golden.str());
    EXPECT_EQ(av::parse_configuration(a.running_config_xml()), a.configuration());
}

class Readings : public testing::TestWithParam<tktest::CaseSection> {};

TEST_P(Readings, ComparisonForm) {
    for (const Case& c : GetParam().cases) {
        SCOPED_TRACE(c.where);
        const std::string wrap = c.setting("wrap");
        std::string xml = tktest::decode(c.columns.at(0));
        if (wrap == "profile")
            xml = "<vsys><name>vs1</name><profiles><profile><name>p1</name>" + xml + "</profile></profiles></vsys>";
        if (wrap != "none") xml = "<antivirus xmlns=\"" + std::string(av::kNamespace) + "\">" + xml + "</antivirus>";
        const auto expected = items(c.columns.at(1));
        if (expected == std::vector<std::string>{"error"})
            EXPECT_THROW(av::parse_configuration(xml), av::ConfigurationError);
        else
            EXPECT_EQ(av::describe(av::comparable(av::parse_configuration(xml))), expected);
    }
}

INSTANTIATE_TEST_SUITE_P(Appliance, Readings, testing::ValuesIn(sections("readings.cases", "reading")));

// An appliance made from a configuration takes it in the form the module's
// lines give it, and refuses what a line would refuse.
TEST(ApplianceDocuments, BuiltFromAConfiguration) {
    const av::Configuration rich_config = rich().configuration();
    EXPECT_EQ(av::Appliance(rich_config).configuration(), rich_config);
    av::Configuration shaped = rich_config;
    shaped.vsys["vs1"].profiles["p1"].detect["nfs"].action = "alert";
    shaped.vsys["vs1"].profiles["my av"].detect["ftp"] = {};
    shaped.vsys["vs9"];
    EXPECT_EQ(av::Appliance(shaped).configuration(), rich_config);
    av::Configuration refused = rich_config;
    refused.vsys["vs1"].profiles["p1"].applications["nosuch"] = std::nullopt;
    EXPECT_THROW(av::Appliance{refused}, av::ConfigurationError);
    refused = rich_config;
    refused.aging_hours = 9000;
    EXPECT_THROW(av::Appliance{refused}, av::ConfigurationError);
}

}  // namespace
}  // namespace appliance_test
