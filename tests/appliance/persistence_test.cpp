// Saving and loading the appliance's state.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <system_error>

#include "support.hpp"

namespace {

using namespace appliance_test;
namespace av = tavrik::appliance;
namespace fs = std::filesystem;

class Persistence : public testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("appliance-test-" + std::to_string(::getpid()) + "-" +
                                           testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir);
        fs::create_directories(dir);
        file = dir / "appliance.xml";
    }
    void TearDown() override { fs::remove_all(dir); }

    static void write(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }
    static std::string read(const fs::path& path) {
        std::ifstream in(path);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    av::Appliance rich() {
        av::Appliance a;
        run_lines(a, rich_lines());
        EXPECT_TRUE(a.set_references("vs1", "my av", 4));
        return a;
    }

    fs::path dir, file;
};

TEST_F(Persistence, SaveAndLoad) {
    av::Appliance a = rich();
    a.save(file);
    av::Appliance b;
    b.load(file);
    EXPECT_EQ(b.configuration(), a.configuration());
    EXPECT_EQ(b.references("vs1", "my av"), 4u);
    EXPECT_EQ(b.state_xml(), a.state_xml());
    // Nothing but the file is left in the directory.
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 1);
    // The file is the running configuration plus the references, one item a line.
    std::string text = read(file);
    EXPECT_NE(text.find(a.running_config_xml().substr(0, 60)), std::string::npos);
    EXPECT_NE(text.find("<profile>my av</profile>\n      <count>4</count>"), std::string::npos);
}

TEST_F(Persistence, SaveReplacesTheFile) {
    av::Appliance a = rich();
    a.save(file);
    av::Appliance empty;
    empty.save(file);
    av::Appliance b = rich();
    b.load(file);
    EXPECT_TRUE(b.configuration().vsys.empty());
    EXPECT_EQ(b.references("vs1", "my av"), 0u);
}

TEST_F(Persistence, BadFilesChangeNothing) {
    av::Appliance a = rich();
    const auto before = a.configuration();
    a.save(file);
    const std::string good = read(file);
    struct Bad {
        std::string name;
        std::string text;
    };
    std::string nfs_action = good;
    nfs_action.insert(nfs_action.find("<direction>download</direction>") + 31, "<action>alert</action>");
    std::string bad_reference = good;
    bad_reference.replace(bad_reference.find("<count>4</count>"), 16, "<count>four</count>");
    std::string unknown_profile = good;
    unknown_profile.replace(unknown_profile.find("<profile>my av</profile>"), 24, "<profile>gone</profile>");
    const Bad cases[] = {
        {"truncated", good.substr(0, good.size() / 2)},
        {"not a saved state", "<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\"/>"},
        {"unknown protocol", std::string(good).replace(good.find("<protocol-type>ftp"), 18, "<protocol-type>xyz")},
        {"setting no line gives", nfs_action},
        {"bad reference count", bad_reference},
        {"reference to no profile", unknown_profile},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        write(file, c.text);
        EXPECT_THROW(a.load(file), av::ConfigurationError);
        EXPECT_EQ(a.configuration(), before);
        EXPECT_EQ(a.references("vs1", "my av"), 4u);
    }
    EXPECT_THROW(a.load(dir / "missing.xml"), std::system_error);
    EXPECT_EQ(a.configuration(), before);
}

TEST_F(Persistence, StoreSavesEveryAcceptedMessage) {
    av::Appliance a;
    a.set_store(file);
    EXPECT_EQ(a.deliver({sys("profile type av name p1").line}, ADD), 0);
    EXPECT_EQ(a.deliver({pv("telnet-detect direction both").line}, ADD), av::kSyntax);
    EXPECT_EQ(a.deliver({pv("description kept").line}, ADD), 0);
    av::Appliance restarted;
    restarted.load(file);
    EXPECT_EQ(restarted.configuration(), a.configuration());

    // A store that cannot be written refuses the message and keeps the state.
    a.set_store(dir / "no-such-dir" / "appliance.xml");
    const auto before = a.configuration();
    EXPECT_EQ(a.deliver({pv("heuristic-detect enable").line}, ADD), av::kStorage);
    EXPECT_EQ(a.configuration(), before);
    EXPECT_NE(a.last_refusal()->reason.find("no-such-dir"), std::string::npos);
}

TEST_F(Persistence, StoreSavesAVsysRemoval) {
    av::Appliance a = rich();
    a.set_store(file);
    EXPECT_EQ(a.remove_vsys({"vs1"}), 0);
    av::Appliance restarted;
    restarted.load(file);
    EXPECT_EQ(restarted.configuration(), a.configuration());
    EXPECT_FALSE(restarted.configuration().vsys.contains("vs1"));
    EXPECT_EQ(read(file).find("<references>"), std::string::npos);  // vs1's went with it

    a.set_store(dir / "no-such-dir" / "appliance.xml");
    const auto before = a.configuration();
    EXPECT_EQ(a.remove_vsys({"vs2"}), av::kStorage);
    EXPECT_EQ(a.configuration(), before);
}

}  // namespace
