// The simulated appliance: an in-memory routing platform that executes the
// antivirus command lines the module sends and answers its document requests.
//
// It stands behind the runtime's channel as a tavrik::runtime::Platform:
//   deliver(lines, cmd_op)  executes each line in its vsys, view instance and
//                           view template, like the appliance's CLI would;
//   document(2)             answers the state document (antivirus-state);
//   document(7)             answers the running configuration as XML text in
//                           the model's namespace, NUL-terminated;
// and, as a tavrik::engine::VsysFeature, for the server's vsys feature:
//   remove_vsys(names)      drops everything of those vsys.
// A line that is not understood, that does not fit its view, or that undoes
// something absent is refused with one of the codes below, and a refused
// message changes nothing (all its lines are applied or none).
//
// Besides that it offers fault injection for tests, persistence to a file
// (atomic replace), and the configuration model with its XML form, which the
// round-trip tests use to compare the engine's running configuration with
// what the module reads back (docs/appliance.md lists the normalisations).
//
// Threads: like the runtime, one call at a time.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tavrik/runtime.hpp"
#include "tavrik/vsys_feature.hpp"

namespace tavrik::appliance {

// ---- result codes ----------------------------------------------------------

// What deliver() returns for a refused message (0: accepted). The module hands
// the code back unchanged as its callback result.
enum Code : int {
    kAccepted = 0,
    kSyntax = 701,    // the line is not a command, or not with this command op
    kView = 702,      // vsys, view instance or template does not fit the line
    kAbsent = 703,    // undo or removal of something that is not configured
    kValue = 704,     // a value out of range or not known to the appliance
    kInUse = 705,     // the profile is still referenced
    kReserved = 706,  // the name belongs to the appliance (the default profile)
    kInjected = 707,  // default code of an injected fault
    kStorage = 708,   // the configuration could not be saved to the store
};

// Short name of a code ("syntax", "view", ...); "accepted" for 0.
std::string_view code_name(int code);

// ---- configuration model ---------------------------------------------------

inline constexpr std::string_view kNamespace = "urn:tavrik:params:xml:ns:yang:tavrik-antivirus";

// A setting with an explicit "off": configured on, configured off (an undo
// line with CMD_ADD), or not configured (removed with CMD_DEL).
enum class Setting : std::uint8_t { Unset, On, Off };

// The three feature switches of a profile, as indexes into Profile::switches.
enum class Switch : std::uint8_t { AttackEvidence, FileReputation, Heuristic };
inline constexpr std::size_t kSwitchCount = 3;

// The two address whitelists, as indexes into Profile::addresses.
enum class Side : std::uint8_t { Source, Destination };

// Scanning of one protocol. direction "none" is scanning switched off.
struct Detection {
    std::optional<std::string> direction;
    std::optional<std::string> action;
    bool operator==(const Detection&) const = default;
};

// A signature exception. No action: exempted with the appliance's default
// treatment; the timeout only goes with the action "block-source-ip".
struct SignatureException {
    std::optional<std::string> action;
    std::optional<std::string> timeout;
    bool operator==(const SignatureException&) const = default;
};

// A URL or host whitelist rule; its match type follows from the asterisks at
// the ends of the value (match_type()).
struct MatchRule {
    std::string scope;  // "url" or "host"
    std::string value;  // as configured (URL double quotes decoded)
    auto operator<=>(const MatchRule&) const = default;
};

struct AddressRange {
    std::string start;
    std::string end;
    auto operator<=>(const AddressRange&) const = default;
};

struct AddressWhitelist {
    std::set<std::string> addresses;
    std::set<AddressRange> ranges;
    bool operator==(const AddressWhitelist&) const = default;
};

struct Profile {
    std::optional<std::string> description;
    std::array<Setting, kSwitchCount> switches{};
    std::map<std::string, Detection> detect;                           // by protocol keyword
    std::map<std::string, std::optional<std::string>> applications;   // name -> action
    std::map<std::string, SignatureException> signatures;             // by signature id
    std::set<MatchRule> match_rules;
    std::array<AddressWhitelist, 2> addresses;                        // by Side
    bool operator==(const Profile&) const = default;

    Setting& at(Switch s) { return switches[static_cast<std::size_t>(s)]; }
    AddressWhitelist& at(Side s) { return addresses[static_cast<std::size_t>(s)]; }
};

struct Vsys {
    Setting antivirus = Setting::Unset;
    std::map<std::string, Profile> profiles;
    bool operator==(const Vsys&) const = default;
    // Nothing configured: the appliance keeps no record of such a vsys.
    bool empty() const { return antivirus == Setting::Unset && profiles.empty(); }
};

struct Configuration {
    std::map<std::string, Vsys> vsys;
    std::optional<std::uint32_t> aging_hours;  // global file-reputation aging time
    bool operator==(const Configuration&) const = default;
};

// "prefix", "suffix", "fuzzy" or "exact", from the asterisks at the ends.
std::string_view match_type(std::string_view value);

// ---- XML forms -----------------------------------------------------------

// Thrown when a configuration text or a saved file cannot be read.
class ConfigurationError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The running configuration as the appliance shows it: the element
// <antivirus> in the model's namespace, indented, without NUL.
std::string render_configuration(const Configuration& config);

// Reads a running configuration: the appliance's own, or one in the model's
// form as a NETCONF server keeps it (the top-level elements, optionally inside
// <config> or <data>; an empty text is an empty configuration). Where the
// model allows more than the appliance records, it is mapped as
// docs/appliance.md says (trimmed values, days read as hours, the two
// signature-exception forms merged, match types implied by the value). The
// appliance's own text reads back to exactly what was rendered.
Configuration parse_configuration(std::string_view xml);

// The comparison form: drops and aligns what the appliance cannot show as the
// model holds it (docs/appliance.md, "Comparing configurations").
Configuration comparable(Configuration config);

// One line per configured item, path first ("vsys[vs1]/profile[p1]/detect[http]/
// direction = both"), sorted: a configuration as a reader or a diff wants it.
std::vector<std::string> describe(const Configuration& config);

// Differences between two configurations, one readable line each, compared
// in their comparison form; empty when they agree.
std::vector<std::string> differences(const Configuration& expected, const Configuration& actual);

// ---- the appliance -----------------------------------------------------------

// Applications known to the appliance: an application exception must name one.
const std::vector<std::string_view>& application_catalogue();

// The built-in profile "default", shown in the state document; its name is
// reserved in every vsys.
const Profile& default_profile();
inline constexpr std::string_view kDefaultProfileName = "default";

// Name the simulated signature database gives a signature id.
std::string signature_name(std::string_view id);

struct Refusal {
    runtime::CachedLine line;  // empty line for a failed send or vsys removal (vsys: the first one)
    unsigned cmd_op = 0;
    int code = 0;
    std::string reason;
};

class Appliance : public runtime::Platform, public engine::VsysFeature {
public:
    Appliance() = default;
    // An appliance holding `config` as the module would have configured it
    // (the comparison form of comparable(), except that a protocol switched
    // off keeps its action), built line by line so that every value passes
    // the checks a line would. Throws ConfigurationError naming the first
    // line the appliance refuses.
    explicit Appliance(Configuration config);

    // Platform.
    int deliver(const std::vector<runtime::CachedLine>& lines, unsigned cmd_op) override;
    runtime::DocumentReply document(unsigned msg_type) override;

    // VsysFeature: the vsys go, with their assignment, profiles and the
    // policy references to them, as when the server removes a vsys ("public"
    // included: the root system stays, its antivirus configuration goes).
    // The global aging time stays. A vsys the appliance has no record of is
    // no error. Refused, with nothing dropped: an injected fault, or kStorage
    // when the store cannot be saved.
    int remove_vsys(const std::vector<std::string>& names) override;

    // Executes one line directly (no faults, no store); 0 or a Code.
    int execute(const runtime::CachedLine& line, unsigned cmd_op);

    const Configuration& configuration() const { return config_; }
    // The lines (with their command op) that build this configuration on an
    // empty appliance, each accepted by execute(): the configuration as
    // bytes, exactly, where its XML text cannot carry every byte a line can.
    std::vector<std::pair<runtime::CachedLine, unsigned>> command_lines() const;
    std::string running_config_xml() const { return render_configuration(config_); }
    std::string state_xml() const;

    // Policy references to a profile, which the appliance has no command for;
    // a referenced profile cannot be deleted. False when the profile does
    // not exist.
    bool set_references(const std::string& vsys, const std::string& profile, std::uint32_t count);
    std::uint32_t references(const std::string& vsys, const std::string& profile) const;

    // Faults, each used once. refuse_line: the nth line delivered from now
    // on (1 = the next) is refused with `code`, and its message with it.
    void refuse_line(unsigned nth, int code = kInjected);
    // The next configuration message is refused before any line runs.
    void fail_send(int code = kInjected);
    // The next remove_vsys() is refused.
    void fail_vsys_removal(int code = kInjected);

    // The last refusal of deliver() or execute(), until the next one.
    const std::optional<Refusal>& last_refusal() const { return last_refusal_; }
    // Lines executed by accepted messages and execute() since construction.
    std::uint64_t lines_executed() const { return lines_executed_; }

    // Persistence. save() replaces `file` atomically (temporary file, fsync,
    // rename, fsync of the directory); load() replaces the whole state, or
    // throws ConfigurationError / std::system_error and changes nothing.
    void save(const std::filesystem::path& file) const;
    void load(const std::filesystem::path& file);
    // When set, every accepted message is saved to `file` before deliver()
    // returns; when the save fails the message is refused with kStorage and
    // changes nothing. Empty path: no store.
    void set_store(std::filesystem::path file) { store_ = std::move(file); }

    // Moves the state into new memory and frees the old: after a large change
    // its records lie scattered among the freed memory of the work that made
    // them, and hold that memory's pages.
    void compact() {
        Configuration config = config_;
        auto references = references_;
        config_ = std::move(config);
        references_ = std::move(references);
    }

private:
    struct RefuseAt {
        std::uint64_t line;  // absolute line number
        int code;
    };

    int refuse(const runtime::CachedLine& line, unsigned cmd_op, int code, std::string reason);
    // Saves the state to the store, when there is one; why it failed, if it did.
    std::optional<std::string> save_to_store() const;

    Configuration config_;
    std::map<std::pair<std::string, std::string>, std::uint32_t> references_;
    std::uint64_t lines_seen_ = 0;
    std::uint64_t lines_executed_ = 0;
    std::optional<RefuseAt> refuse_at_;
    std::optional<int> fail_send_;
    std::optional<int> fail_vsys_removal_;
    std::optional<Refusal> last_refusal_;
    std::filesystem::path store_;
};

}  // namespace tavrik::appliance
