// tkav as people use it: the examples, dry runs, refusals, bad files, help.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "engine_fixture.hpp"
#include "tavrik/appliance.hpp"

namespace tktest {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

std::string slurp(const fs::path& file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

class Cli : public ::testing::Test {
protected:
    void SetUp() override {
        std::string name = (fs::temp_directory_path() / "tkav-test-XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        dir_ = name;
        running_ = dir_ / "running.xml";
        fs::copy_file(fs::path(TAVRIK_EXAMPLES_DIR) / "running.xml", running_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    Outcome tkav(const std::string& arguments) {
        const fs::path out = dir_ / "stdout", err = dir_ / "stderr";
        const std::string command =
            std::string(TKAV_PATH) + " " + arguments + " >" + out.string() + " 2>" + err.string();
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(out), slurp(err)};
    }
    std::string example(const std::string& name) { return (fs::path(TAVRIK_EXAMPLES_DIR) / name).string(); }
    std::string apply(const std::string& edit, const std::string& options = "") {
        return "apply " + edit + " --running " + running_.string() + options;
    }
    fs::path write(const std::string& name, const std::string& text) {
        std::ofstream(dir_ / name) << text;
        return dir_ / name;
    }

    fs::path dir_;
    fs::path running_;
};

TEST_F(Cli, DryRunPrintsTheLinesAndChangesNothing) {
    const std::string before = slurp(running_);
    const Outcome run = tkav(apply(example("01-new-profile.xml"), " --dry-run"));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.out, HasSubstr("VSYS  VIEW           TEMPLATE    OP   LINE\n"
                                   "vs1   system         -           add  profile type av name p2\n"
                                   "vs1   profile-av-p2  profile-av  add  description branch offices\n"));
    EXPECT_THAT(run.out, HasSubstr("Dry run: 8 lines would be sent"));
    EXPECT_EQ(slurp(running_), before);
    EXPECT_FALSE(fs::exists(dir_ / "running.xml.appliance"));
}

TEST_F(Cli, ExamplesRunInOrderAndTheApplianceAgreesWithTheRunningFile) {
    for (const char* edit : {"01-new-profile.xml", "02-vsys-enable.xml", "03-detect.xml", "04-exceptions.xml",
                             "05-whitelists.xml", "06-aging-time.xml", "07-modify.xml", "08-removals.xml"}) {
        const Outcome run = tkav(apply(example(edit)));
        ASSERT_EQ(run.status, 0) << edit << ": " << run.out << run.err;
        EXPECT_THAT(run.out, HasSubstr("updated.")) << edit;
    }
    EXPECT_THAT(slurp(running_), HasSubstr("<antivirus-enable>true</antivirus-enable>"));
    EXPECT_TRUE(fs::exists(dir_ / "running.xml.appliance"));

    const Outcome config = tkav("get-config --running " + running_.string());
    ASSERT_EQ(config.status, 0) << config.err;
    using namespace tavrik::appliance;
    EXPECT_EQ(differences(parse_configuration(slurp(running_)), parse_configuration(config.out)),
              std::vector<std::string>{});

    const Outcome state = tkav("get --running " + running_.string());
    ASSERT_EQ(state.status, 0) << state.err;
    EXPECT_THAT(state.out, HasSubstr("<antivirus-state"));
    EXPECT_THAT(state.out, HasSubstr("<name>p1</name>"));
}

// The saved appliance loses a removed vsys with the running file, and the
// vsys can be made again.
TEST_F(Cli, RemovedVsysLeavesTheSavedAppliance) {
    ASSERT_EQ(tkav(apply(example("02-vsys-enable.xml"))).status, 0);
    const fs::path removal = write("remove.xml", av(vsys("vs1", "", op("delete"))));
    const Outcome run = tkav(apply(removal.string()));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(slurp(running_), "");
    EXPECT_EQ(slurp(dir_ / "running.xml.appliance").find("vs1"), std::string::npos);
    ASSERT_EQ(tkav(apply(example("01-new-profile.xml"))).status, 0);
    const Outcome config = tkav("get-config --running " + running_.string());
    ASSERT_EQ(config.status, 0) << config.err;
    using namespace tavrik::appliance;
    EXPECT_EQ(differences(parse_configuration(slurp(running_)), parse_configuration(config.out)),
              std::vector<std::string>{});
    EXPECT_THAT(config.out, ::testing::Not(HasSubstr("office traffic")));
}

TEST_F(Cli, RefusedEditPrintsTheErrorAndChangesNothing) {
    const std::string before = slurp(running_);
    const Outcome run = tkav(apply(example("09-refused.xml")));
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, HasSubstr("09-refused.xml: The profile description has '?'.\n"
                                   "  error-tag:   bad-element\n"
                                   "  error-path:  /tavrik-antivirus:antivirus/vsys[name='vs1']/profiles/"
                                   "profile[name='p1']/description\n"
                                   "  module-path: /tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:profiles/"
                                   "tk-antivirus:profile/description\n"
                                   "  code:        9\n"));
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(slurp(running_), before);
}

TEST_F(Cli, RefusalByTheApplianceIsReportedWithItsCode) {
    const fs::path edit = write("edit.xml", p1(leaf("exception-application", leaf("application-name", "nosuchapp"))));
    const Outcome run = tkav(apply(edit.string()));
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, HasSubstr("The platform refused the line \"exception application name nosuchapp\""));
    EXPECT_THAT(run.err, HasSubstr("code:        704"));
}

// Malformed text is named by its line; what the model refuses in well-formed
// text by its path.
TEST_F(Cli, BadFilesGetTheirLineOrPath) {
    const fs::path edit = write("edit.xml", av("\n<vsys>\n<name>vs1</nam>\n</vsys>"));
    Outcome run = tkav(apply(edit.string()));
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, HasSubstr("edit.xml:3: Malformed XML"));

    write("running.xml", av("\n" + leaf("global", leaf("file-reputation-age-time", "many"))));
    run = tkav(apply(example("02-vsys-enable.xml")));
    EXPECT_EQ(run.status, 3);
    EXPECT_THAT(run.err, HasSubstr("running.xml: Invalid type uint32 value \"many\".\n"
                                   "  error-tag:   invalid-value\n"
                                   "  error-path:  /tavrik-antivirus:antivirus/global/file-reputation-age-time\n"));

    run = tkav(apply((dir_ / "missing.xml").string()));
    EXPECT_EQ(run.status, 3);
    EXPECT_THAT(run.err, HasSubstr("missing.xml does not exist"));
}

TEST_F(Cli, MissingRunningFileStartsEmpty) {
    fs::remove(running_);
    const Outcome run = tkav(apply(example("06-aging-time.xml")));
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.err, HasSubstr("starting from an empty configuration"));
    EXPECT_THAT(slurp(running_), HasSubstr("<file-reputation-age-time>7</file-reputation-age-time>"));
}

TEST_F(Cli, HelpAndUsage) {
    for (const char* command : {"--help", "help", "apply --help", "help apply", "get-config -h", "get --help"}) {
        const Outcome run = tkav(command);
        EXPECT_EQ(run.status, 0) << command;
        EXPECT_THAT(run.out, HasSubstr("Usage: tkav")) << command;
    }
    EXPECT_THAT(tkav("apply --help").out, HasSubstr("--dry-run"));
    EXPECT_EQ(tkav("frobnicate").status, 2);
    EXPECT_EQ(tkav("apply " + example("02-vsys-enable.xml")).status, 2);  // no --running
    EXPECT_EQ(tkav(apply(example("02-vsys-enable.xml"), " --default-operation sideways")).status, 2);
}

}  // namespace
}  // namespace tktest
