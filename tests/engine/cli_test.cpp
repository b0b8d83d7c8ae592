// tkav as people use it: exit codes, the transcript and error formats, the
// running file written only when an edit goes through.
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>

#include "engine_fixture.hpp"
#include "tavrik/atomic_file.hpp"

namespace tktest {
namespace {

namespace fs = std::filesystem;

std::string slurp(const fs::path& file) { return tavrik::read_file(file.string()).value_or(""); }

struct Invocation {
    const char* name;
    std::string arguments;
    int status;
    std::string out, err;  // parts of what it prints
    bool writes = false;   // running.xml changes
};

const std::string kApply = "apply $E/01-new-profile.xml --running $D/running.xml";
const Invocation kRuns[] = {
    {"Applied", kApply, 0,
     "VSYS  VIEW           TEMPLATE    OP   LINE\n"
     "vs1   system         -           add  profile type av name p2\n"
     "vs1   profile-av-p2  profile-av  add  description branch offices\n",
     "", true},
    {"DryRun", kApply + " --dry-run", 0, "Dry run: 8 lines would be sent", ""},
    {"RefusedByTheModule", "apply $E/09-refused.xml --running $D/running.xml", 1, "",
     "09-refused.xml: The profile description has '?'.\n"
     "  error-tag:   bad-element\n"
     "  error-path:  /tavrik-antivirus:antivirus/vsys[name='vs1']/profiles/profile[name='p1']/description\n"
     "  module-path: /tk-antivirus:antivirus/tk-antivirus:vsys/tk-antivirus:profiles/tk-antivirus:profile/description\n"
     "  code:        9\n"},
    {"RefusedByTheAppliance", "apply $D/app.xml --running $D/running.xml", 1, "", "code:        704"},
    {"MalformedEdit", "apply $D/bad.xml --running $D/running.xml", 1, "", "bad.xml:3: Malformed XML"},
    {"BadRunningFile", "apply $E/02-vsys-enable.xml --running $D/broken.xml", 3, "",
     "broken.xml: Invalid type uint32 value \"many\".\n  error-tag:   invalid-value\n"},
    {"MissingEdit", "apply $D/missing.xml --running $D/running.xml", 3, "", "missing.xml does not exist"},
    {"MissingRunningForAnEdit", "apply $E/06-aging-time.xml --running $D/new.xml", 0, "updated.",
     "starting from an empty configuration"},
    {"Help", "help apply", 0, "Usage: tkav apply", ""},
    {"UnknownCommand", "frobnicate", 2, "", "Try \"tkav --help\""},
    {"NoRunningFile", "apply $E/02-vsys-enable.xml", 2, "", "needs --running"},
    {"UnknownDefaultOperation", kApply + " --default-operation sideways", 2, "", "\"sideways\""},
};

class Runs : public ::testing::TestWithParam<Invocation> {};

// `arguments` with $E for the examples directory and $D for this test's.
TEST_P(Runs, ExitWithTheirStatusAndPrintTheirFormat) {
    const Invocation& r = GetParam();
    const fs::path dir = fs::path(::testing::TempDir()) / ("tkav-" + std::string(r.name));
    fs::create_directories(dir);
    fs::copy_file(fs::path(TAVRIK_EXAMPLES_DIR) / "running.xml", dir / "running.xml", fs::copy_options::overwrite_existing);
    std::ofstream(dir / "bad.xml") << av("\n<vsys>\n<name>vs1</nam>\n</vsys>");
    std::ofstream(dir / "broken.xml") << av("\n" + leaf("global", leaf("file-reputation-age-time", "many")));
    std::ofstream(dir / "app.xml") << p1(leaf("exception-application", leaf("application-name", "nosuchapp")));
    const std::string args = std::regex_replace(std::regex_replace(r.arguments, std::regex("\\$E"), TAVRIK_EXAMPLES_DIR),
                                                std::regex("\\$D"), dir.string());
    const int status = std::system((TKAV_PATH " " + args + " >" + (dir / "out").string() + " 2>" + (dir / "err").string()).c_str());
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, r.status) << slurp(dir / "err");
    EXPECT_THAT(slurp(dir / "out"), HasSubstr(r.out));
    EXPECT_THAT(slurp(dir / "err"), HasSubstr(r.err));
    EXPECT_EQ(slurp(dir / "running.xml") != slurp(TAVRIK_EXAMPLES_DIR "/running.xml"), r.writes);
    fs::remove_all(dir);
}

INSTANTIATE_TEST_SUITE_P(Tkav, Runs, ::testing::ValuesIn(kRuns), by_name);

}  // namespace
}  // namespace tktest
