// Saving and loading the appliance's state, and the store.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <system_error>

#include "support.hpp"

namespace appliance_test {
namespace {

namespace fs = std::filesystem;

class Persistence : public testing::Test {
protected:
    void SetUp() override {
        fs::remove_all(dir);
        fs::create_directories(dir);
        ASSERT_TRUE(a.set_references("vs1", "my av", 4));
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string text() const {
        std::ostringstream out;
        out << std::ifstream(file).rdbuf();
        return out.str();
    }

    const fs::path dir = fs::temp_directory_path() / ("appliance-test-" + std::to_string(::getpid()));
    const fs::path file = dir / "appliance.xml";
    av::Appliance a = rich();
};

TEST_F(Persistence, SaveAndLoad) {
    a.save(file);
    av::Appliance b;
    b.load(file);
    EXPECT_EQ(b.configuration(), a.configuration());
    EXPECT_EQ(b.state_xml(), a.state_xml());  // the references included
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 1);  // no temporary left
    // The running configuration, one item a line, then the references.
    EXPECT_NE(text().find(a.running_config_xml().substr(0, 60)), std::string::npos);
    EXPECT_NE(text().find("<profile>my av</profile>\n      <count>4</count>"), std::string::npos);
    // Saving again replaces the file.
    av::Appliance().save(file);
    b.load(file);
    EXPECT_EQ(b.configuration(), av::Configuration{});
    EXPECT_EQ(b.references("vs1", "my av"), 0u);
}

// A file changed by hand (the first `from` replaced by `to`) that is not
// well-formed, not a saved state, or holds what no line gives, changes
// nothing.
TEST_F(Persistence, BadFilesChangeNothing) {
    a.save(file);
    const std::string good = text(), before = a.state_xml();
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

TEST_F(Persistence, TheStoreKeepsEveryAcceptedChange) {
    a.set_store(file);
    EXPECT_EQ(a.deliver({at("profile", "telnet-detect direction both").line}, CMD_ADD), av::kSyntax);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(a.deliver({at("profile", "description kept").line}, CMD_ADD), av::kAccepted);
    av::Appliance restarted;
    restarted.load(file);
    EXPECT_EQ(restarted.configuration(), a.configuration());
    EXPECT_EQ(a.remove_vsys({"vs1"}), av::kAccepted);
    restarted.load(file);
    EXPECT_EQ(restarted.configuration(), a.configuration());
    EXPECT_EQ(text().find("<references>"), std::string::npos);  // vs1's went with it

    // A store that cannot be written refuses the message or the removal and
    // keeps the state.
    a.set_store(dir / "no-such-dir" / "appliance.xml");
    const auto before = a.configuration();
    EXPECT_EQ(a.deliver({at("root", "file-reputation set aging-time hour 5").line}, CMD_ADD), av::kStorage);
    EXPECT_NE(a.last_refusal()->reason.find("no-such-dir"), std::string::npos);
    EXPECT_EQ(a.remove_vsys({"vs2"}), av::kStorage);
    EXPECT_EQ(a.configuration(), before);
}

}  // namespace
}  // namespace appliance_test
