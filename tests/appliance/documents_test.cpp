// The appliance's documents and its saved state: the running configuration
// (type 7), the state (type 2) and the saved file as a reviewed dump
// (cases/documents.golden; the round trip checks the documents against the
// data model); reading configurations back (cases/readings.cases); an
// appliance built from a configuration, kept in a store and loaded again.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

#include "support.hpp"

namespace appliance_test {
namespace {

namespace fs = std::filesystem;

std::string text_of(const fs::path& file) {
    std::ostringstream out;
    out << std::ifstream(file).rdbuf();
    return out.str();
}

// The rich appliance with "my av" referenced four times, and a file for it.
class ApplianceDocuments : public testing::Test {
protected:
    void SetUp() override {
        fs::remove_all(dir);
        fs::create_directories(dir);
        ASSERT_TRUE(a.set_references("vs1", "my av", 4));
    }
    void TearDown() override { fs::remove_all(dir); }

    // The documents, the answer to an unknown message type, the saved file.
    std::string dump() {
        std::string out;
        for (unsigned type : {unsigned{API_DP2QMX_GET_CONFIG}, unsigned{API_DP2QMX_NC_STATE}, 4u}) {
            auto reply = a.document(type);
            const bool nul = !reply.data.empty() && reply.data.back() == '\0';
            if (nul) reply.data.pop_back();
            out += "== document " + std::to_string(type) + ": result " + std::to_string(reply.result) +
                   (reply.with_reply ? "" : ", no reply") + (nul ? ", NUL-terminated" : "") + "\n" + reply.data;
        }
        a.save(file);
        return out + "== saved\n" + text_of(file);
    }

    const fs::path dir = fs::temp_directory_path() / ("appliance-test-" + std::to_string(::getpid()));
    const fs::path file = dir / "appliance.xml";
    av::Appliance a = rich();
};

// scripts/regen-golden.sh writes the file anew (TKTEST_REGEN_GOLDEN set).
TEST_F(ApplianceDocuments, AsReviewed) {
    const std::string golden = std::string(TKTEST_CASES_DIR) + "/documents.golden";
    if (std::getenv("TKTEST_REGEN_GOLDEN")) std::ofstream(golden) << dump();
    EXPECT_EQ(dump(), text_of(golden));
    EXPECT_EQ(av::parse_configuration(a.running_config_xml()), a.configuration());
}

// A file changed by hand (the first `from` replaced by `to`) that is not
// well-formed, not a saved state, or holds what no line gives, changes
// nothing.
TEST_F(ApplianceDocuments, BadFilesChangeNothing) {
    a.save(file);
    const std::string good = text_of(file), before = a.state_xml();
    const std::pair<std::string, std::string> edits[] = {
        {"</appliance>", ""},
        {":saved-state\"", ":other\""},
        {"<references>", "<colour/><references>"},
        {"<protocol-type>ftp", "<protocol-type>xyz"},
        {"<direction>download</direction>", "<direction>download</direction><action>alert</action>"},
        {"<count>4</count>", "<count>four</count>"},
        {"<count>4</count>", "<count>4294967296</count>"},
        {"<profile>my av</profile>", "<profile>gone</profile>"},
    };
    for (const auto& [from, to] : edits) {
        SCOPED_TRACE(from + " -> " + to);
        std::string changed = good;
        ASSERT_NE(changed.find(from), std::string::npos);
        std::ofstream(file) << changed.replace(changed.find(from), from.size(), to);
        EXPECT_THROW(a.load(file), av::ConfigurationError);
        EXPECT_EQ(a.state_xml(), before);
    }
    EXPECT_THROW(a.load(dir / "missing.xml"), std::system_error);
}

TEST_F(ApplianceDocuments, TheStoreKeepsEveryAcceptedChange) {
    a.set_store(file);
    EXPECT_EQ(a.deliver({at("profile", "telnet-detect direction both").line}, CMD_ADD), av::kSyntax);
    EXPECT_FALSE(fs::exists(file));
    av::Appliance restarted;
    for (const char* change : {"description kept", "remove vs1"}) {
        SCOPED_TRACE(change);
        EXPECT_EQ(change[0] == 'r' ? a.remove_vsys({"vs1"}) : a.deliver({at("profile", change).line}, CMD_ADD),
                  av::kAccepted);
        restarted.load(file);
        EXPECT_EQ(restarted.configuration(), a.configuration());
        EXPECT_EQ(restarted.state_xml(), a.state_xml());  // the references included
        EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 1);  // no temporary left
    }
    EXPECT_EQ(restarted.references("vs1", "my av"), 0u);  // vs1's went with it

    // A store that cannot be written refuses the message or the removal and
    // keeps the state.
    a.set_store(dir / "no-such-dir" / "appliance.xml");
    const auto before = a.configuration();
    EXPECT_EQ(a.deliver({at("root", "file-reputation set aging-time hour 5").line}, CMD_ADD), av::kStorage);
    EXPECT_NE(a.last_refusal()->reason.find("no-such-dir"), std::string::npos);
    EXPECT_EQ(a.remove_vsys({"vs2"}), av::kStorage);
    EXPECT_EQ(a.configuration(), before);
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
TEST(ApplianceBuilt, FromAConfiguration) {
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
