// tkav: runs the antivirus configuration module on this machine, the way the
// firewall's NETCONF server does, and shows what reaches the appliance.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "output.hpp"
#include "tavrik/atomic_file.hpp"
#include "tavrik/appliance.hpp"
#include "tavrik/engine.hpp"
#include "tavrik/runtime.hpp"

namespace fs = std::filesystem;
using namespace tavrik;
using namespace tavrik::cli;

namespace {

enum Exit { kDone = 0, kRefused = 1, kUsage = 2, kSetup = 3 };

const char* const kGeneralHelp = R"(Usage: tkav COMMAND [ARGUMENTS] [OPTIONS]

Runs the antivirus configuration module the way the firewall's NETCONF
server does, against a simulated appliance, and shows every command line
the module sends.

Commands:
  apply EDIT.xml --running RUNNING.xml [--dry-run]
                        apply an edit to a running-configuration file
  get-config --running RUNNING.xml
                        print the running configuration read from the platform
  get --running RUNNING.xml
                        print the state document read from the platform
  help [COMMAND]        this text, or the help of COMMAND

Options of every command:
  --module FILE         the module (default: the one built beside tkav)
  --yang DIR            the directory of the data model (default: the
                        source tree's yang/)
  --platform NAME       "appliance" (default): the simulated appliance; its
                        state is kept beside the running file, in
                        RUNNING.xml.appliance. "recording": accepts every
                        line and keeps nothing.
  -h, --help            help

Exit status: 0 done, 1 refused (the error is printed), 2 wrong usage,
3 a file, the module or the data model could not be used.
)";

const std::map<std::string, std::string> kCommandHelp = {
    {"apply", R"(Usage: tkav apply EDIT.xml --running RUNNING.xml [--dry-run]
                  [--default-operation merge|replace|none]

Applies EDIT.xml, the payload of a NETCONF <edit-config> (the content of
<config>, with or without the <config> element; per-node operations with
the attribute operation="merge|replace|create|delete|remove" in the
namespace urn:ietf:params:xml:ns:netconf:base:1.0), to the configuration in
RUNNING.xml. Prints every command line sent to the appliance with its vsys,
view instance, view template and command op, then writes the new running
configuration back to RUNNING.xml (replaced atomically). A missing
RUNNING.xml is an empty configuration.

All or nothing: every callback of the module runs first without delivering
anything; a refusal prints the rpc-error and changes nothing. If the
appliance refuses a line, what was already sent is undone and RUNNING.xml
stays as it was.

  --dry-run             print the lines that would be sent; deliver nothing,
                        change no file
  --default-operation OP
                        merge (default), replace or none
)"},
    {"get-config", R"(Usage: tkav get-config --running RUNNING.xml

Prints the running configuration as the module reads it from the platform
(perform_getconfig).
)"},
    {"get", R"(Usage: tkav get --running RUNNING.xml

Prints the state document as the module reads it from the platform
(get_state_data).
)"},
    {"help", "Usage: tkav help [COMMAND]\n\nPrints the help of tkav or of COMMAND.\n"},
};

struct Options {
    std::string command;
    std::vector<std::string> arguments;
    std::optional<fs::path> running;
    bool dry_run = false;
    engine::DefaultOperation default_operation = engine::DefaultOperation::Merge;
    std::optional<fs::path> module;
    std::optional<fs::path> yang;
    std::string platform = "appliance";
    bool help = false;
};

struct UsageError {
    std::string message;
};

fs::path executable_dir() {
    std::error_code ec;
    fs::path self = fs::read_symlink("/proc/self/exe", ec);
    return ec ? fs::current_path() : self.parent_path();
}

// The first candidate that exists; else the first one, for the message.
fs::path first_existing(const std::vector<fs::path>& candidates) {
    for (const fs::path& candidate : candidates)
        if (fs::exists(candidate)) return candidate;
    return candidates.front();
}

fs::path default_module() {
    const fs::path dir = executable_dir();
    return first_existing({dir / TKAV_MODULE_FROM_EXE, dir / "../lib/tavrik/tavrik-antivirus.so",
                           "/usr/local/lib/tavrik-antivirus.so"});
}

fs::path default_yang() {
    const fs::path dir = executable_dir();
    return first_existing({dir / TKAV_YANG_FROM_EXE, dir / "../share/tavrik/yang", "/usr/local/share/tavrik/yang"});
}

Options parse(int argc, char** argv) {
    Options options;
    std::vector<std::string> args(argv + 1, argv + argc);
    for (size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i];
        std::optional<std::string> inline_value;
        if (arg.rfind("--", 0) == 0) {
            if (auto eq = arg.find('='); eq != std::string::npos) {
                inline_value = arg.substr(eq + 1);
                arg.resize(eq);
            }
        }
        auto value = [&]() -> std::string {
            if (inline_value) return *inline_value;
            if (i + 1 >= args.size()) throw UsageError{arg + " needs a value"};
            return args[++i];
        };
        if (arg == "-h" || arg == "--help") {
            options.help = true;
        } else if (arg == "--dry-run") {
            options.dry_run = true;
        } else if (arg == "--running") {
            options.running = value();
        } else if (arg == "--module") {
            options.module = value();
        } else if (arg == "--yang") {
            options.yang = value();
        } else if (arg == "--platform") {
            options.platform = value();
            if (options.platform != "appliance" && options.platform != "recording")
                throw UsageError{"unknown platform \"" + options.platform + "\" (appliance or recording)"};
        } else if (arg == "--default-operation") {
            const std::string op = value();
            const auto named = engine::default_operation_named(op);
            if (!named) throw UsageError{"unknown default operation \"" + op + "\" (merge, replace or none)"};
            options.default_operation = *named;
        } else if (arg.size() > 1 && arg[0] == '-') {
            throw UsageError{"unknown option " + arg};
        } else if (options.command.empty()) {
            options.command = arg;
        } else {
            options.arguments.push_back(arg);
        }
    }
    return options;
}

// The platform behind the channel for this run, and where its state lives.
class Platform {
public:
    Platform(const Options& options, const fs::path& running, const std::string& running_text) {
        if (options.platform == "recording") return;
        state_file_ = running;
        state_file_ += ".appliance";
        if (fs::exists(state_file_))
            appliance_.load(state_file_);
        else
            appliance_ = appliance::Appliance(appliance::parse_configuration(running_text));
        if (!options.dry_run) appliance_.set_store(state_file_);
        runtime::set_platform(&appliance_);
        used_ = true;
    }
    ~Platform() { runtime::set_platform(nullptr); }
    Platform(const Platform&) = delete;
    Platform& operator=(const Platform&) = delete;

    // For the recording platform: answer configuration reads with `text`.
    void answer_config_with(const std::string& text) {
        if (!used_) runtime::default_platform().config_reply = {0, true, text + '\0'};
    }
    // The appliance stands in for the server's vsys feature; the recording
    // platform keeps nothing to remove.
    engine::VsysFeature* vsys_feature() { return used_ ? &appliance_ : nullptr; }

private:
    appliance::Appliance appliance_;
    fs::path state_file_;
    bool used_ = false;
};

int fail(const std::string& message) {
    std::cerr << "tkav: " << message << '\n';
    return kSetup;
}

// Runs `work` with the engine over RUNNING; reports setup problems.
template <class Work>
int with_engine(const Options& options, bool running_may_be_missing, Work work) {
    if (!options.running) throw UsageError{options.command + " needs --running RUNNING.xml"};
    const fs::path running = *options.running;
    std::optional<std::string> running_text = read_file(running.string());
    if (!running_text) {
        if (!running_may_be_missing) return fail(running.string() + " does not exist");
        std::cerr << "tkav: " << running.string() << " does not exist; starting from an empty configuration\n";
        running_text.emplace();
    }
    try {
        Platform platform(options, running, *running_text);
        engine::Engine engine(options.module.value_or(default_module()), options.yang.value_or(default_yang()),
                              *running_text);
        platform.answer_config_with(engine.running_xml());
        engine.set_vsys_feature(platform.vsys_feature());
        return work(engine, running);
    } catch (const engine::EngineError& e) {
        if (!e.detail()) return fail(e.what());
        print_error(std::cerr, running.string(), *e.detail());
        return kSetup;
    } catch (const appliance::ConfigurationError& e) {
        return fail(running.string() + ".appliance: " + e.what());
    }
}

int apply(const Options& options) {
    if (options.arguments.size() != 1) throw UsageError{"apply needs exactly one edit file"};
    const fs::path edit_file = options.arguments.front();
    const std::optional<std::string> edit = read_file(edit_file.string());
    if (!edit) return fail(edit_file.string() + " does not exist");
    return with_engine(options, true, [&](engine::Engine& engine, const fs::path& running) {
        const std::string before = engine.running_xml();
        const engine::ParsedXml parsed = engine.parse(*edit);
        if (parsed.error) {
            print_error(std::cerr, edit_file.string(), *parsed.error);
            return kRefused;
        }
        const engine::EditResult result = engine.edit(
            parsed.tree.get(), {.default_operation = options.default_operation, .dry_run = options.dry_run});
        if (!result.lines.empty()) print_transcript(std::cout, result.lines);
        if (!result.ok) {
            std::cout.flush();
            print_error(std::cerr, edit_file.string(), *result.error);
            return kRefused;
        }
        const size_t n = result.lines.size();
        const std::string count = std::to_string(n) + (n == 1 ? " line" : " lines");
        if (options.dry_run) {
            std::cout << "Dry run: " << count << " would be sent; nothing was delivered and " << running.string()
                      << " is unchanged.\n";
            return kDone;
        }
        const std::string after = engine.running_xml();
        if (after == before) {
            std::cout << count << " sent; the configuration did not change.\n";
            return kDone;
        }
        write_file_atomically(running.string(), after, 0644, true);
        std::cout << count << " sent; " << running.string() << " updated.\n";
        return kDone;
    });
}

int read_document(const Options& options, bool state) {
    if (!options.arguments.empty()) throw UsageError{options.command + " takes no file argument"};
    return with_engine(options, false, [&](engine::Engine& engine, const fs::path&) {
        const std::optional<std::string> text = state ? engine.module_state() : engine.module_config();
        if (!text) {
            std::cerr << "tkav: the platform answered no " << (state ? "state document" : "configuration") << '\n';
            return kRefused;
        }
        std::cout << *text;
        if (!text->empty() && text->back() != '\n') std::cout << '\n';
        return kDone;
    });
}

int help(const std::string& command) {
    auto found = kCommandHelp.find(command);
    if (command.empty() || found == kCommandHelp.end()) {
        std::cout << kGeneralHelp;
        return command.empty() ? kDone : kUsage;
    }
    std::cout << found->second;
    return kDone;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const Options options = parse(argc, argv);
        if (options.command == "help") return help(options.arguments.empty() ? "" : options.arguments.front());
        if (options.help || options.command.empty()) return help(options.command);
        if (options.command == "apply") return apply(options);
        if (options.command == "get-config") return read_document(options, false);
        if (options.command == "get") return read_document(options, true);
        throw UsageError{"unknown command \"" + options.command + "\""};
    } catch (const UsageError& e) {
        std::cerr << "tkav: " << e.message << "\nTry \"tkav --help\".\n";
        return kUsage;
    } catch (const std::exception& e) {
        return fail(e.what());
    }
}
