// Pieces shared by the appliance's sources: keyword tables, the XML writer,
// the command interpreter and the configuration reader.
#pragma once

#include <libxml/tree.h>

#include <array>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tavrik/appliance.hpp"

namespace tavrik::appliance::detail {

// ---- keywords ----------------------------------------------------------------

struct SwitchName {
    std::string_view leaf;     // node of the model
    std::string_view command;  // the line that switches it on
};
inline constexpr std::array<SwitchName, kSwitchCount> kSwitches{{
    {"collect-attack-evidence-enable", "collect-attack-evidence enable"},
    {"interworking-detect-enable", "file-reputation enable"},
    {"heuristic-detect-enable", "heuristic-detect enable"},
}};

// Node of the model and word of the whitelist command, by Side; the range
// list's node is the same name followed by "-range".
inline constexpr std::array<std::string_view, 2> kSides{"source-address", "destination-address"};

inline constexpr std::string_view kBlockSourceIp = "block-source-ip";

// Protocols differ in what their lines name: the mail protocols imply their
// one direction, nfs takes no action, the others take both.
enum class Group { Mail, Nfs, Other };
std::optional<Group> protocol_group(std::string_view protocol);
// "upload" for smtp, "download" for pop3; empty for the others.
std::string_view implied_direction(std::string_view protocol);
bool admits_direction(std::string_view protocol, std::string_view direction);
bool admits_action(std::string_view protocol, std::string_view action);

// The comparison form (comparing), or the form the module's lines give a
// configuration, which keeps the action of a protocol switched off.
Configuration aligned(Configuration config, bool comparing);

// "true" or "false".
std::string_view setting_text(Setting s);
// A URL as a line carries it has "%22" for each double quote.
std::string decode_quotes(std::string url);

// The protocol keyword of a protocol-type text, as the module reads it:
// what follows the first colon, further colons dropped, trimmed.
std::string protocol_keyword(std::string text);

bool is_space(char c);
std::string trim(std::string_view text);
bool all_digits(std::string_view text);

// ---- XML -------------------------------------------------------------------------

// Writes indented XML, one element per line.
class XmlWriter {
public:
    explicit XmlWriter(int depth = 0) : depth_(depth) {}
    void open(std::string_view name, std::string_view xmlns = {});
    void leaf(std::string_view name, std::string_view value);
    void close();
    std::string take() { return std::move(out_); }

private:
    void indent();
    std::string out_;
    std::vector<std::string> open_;
    int depth_;
};

void write_configuration(XmlWriter& xml, const Configuration& config);
// A profile as the state document's default-profile shows it.
void write_state_profile(XmlWriter& xml, std::string_view name, const Profile& profile);

// Reads an <antivirus> element (namespace already checked by the caller).
Configuration read_configuration(const xmlNode* antivirus);
// Parses XML text; throws ConfigurationError naming `what` when it is not
// well-formed. The caller frees the document with xmlFreeDoc.
xmlDoc* parse_xml(std::string_view text, std::string_view what);
bool is_element(const xmlNode* node, std::string_view name);
std::string text_of(const xmlNode* node);

// ---- commands ----------------------------------------------------------------------

using References = std::map<std::pair<std::string, std::string>, std::uint32_t>;

struct Outcome {
    int code = kAccepted;
    std::string reason;
};

// Executes one line on `config`. A refused line leaves `config` and
// `references` as they were.
Outcome execute_line(Configuration& config, References& references, const runtime::CachedLine& line,
                     unsigned cmd_op);

// Lines (with their command op) that build `config` on an empty appliance.
std::vector<std::pair<runtime::CachedLine, unsigned>> command_lines(const Configuration& config);

}  // namespace tavrik::appliance::detail
