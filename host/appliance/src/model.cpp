// The configuration model: keywords, the appliance's fixed data, and the
// comparison form of a configuration.
#include <algorithm>
#include <cctype>

#include "detail.hpp"

namespace tavrik::appliance {

std::string_view code_name(int code) {
    switch (code) {
        case kAccepted: return "accepted";
        case kSyntax: return "syntax";
        case kView: return "view";
        case kAbsent: return "absent";
        case kValue: return "value";
        case kInUse: return "in-use";
        case kReserved: return "reserved";
        case kInjected: return "injected";
        case kStorage: return "storage";
        default: return "unknown";
    }
}

std::string_view match_type(std::string_view value) {
    bool prefix = !value.empty() && value.back() == '*';
    bool suffix = !value.empty() && value.front() == '*';
    if (prefix && suffix) return "fuzzy";
    if (prefix) return "prefix";
    if (suffix) return "suffix";
    return "exact";
}

const std::vector<std::string_view>& application_catalogue() {
    static const std::vector<std::string_view> names{
        "bittorrent", "dropbox", "edonkey",  "ftp-client", "git",      "gmail",    "imap-mail",
        "irc",        "netflix", "onedrive", "rdp",        "sftp",     "skype",    "slack",
        "smb-share",  "ssh",     "steam",    "teams",      "telegram", "vnc",      "webex",
        "whatsapp",   "youtube", "zoom",
    };
    return names;
}

const Profile& default_profile() {
    static const Profile profile = [] {
        Profile p;
        p.description = "Built-in antivirus profile";
        p.at(Switch::AttackEvidence) = Setting::Off;
        p.at(Switch::FileReputation) = Setting::On;
        p.at(Switch::Heuristic) = Setting::On;
        p.detect = {
            {"ftp", {"both", "block"}},      {"http", {"both", "block"}},   {"imap", {"both", "alert"}},
            {"nfs", {"both", std::nullopt}}, {"pop3", {"download", "alert"}}, {"smb", {"both", "block"}},
            {"smtp", {"upload", "alert"}},
        };
        return p;
    }();
    return profile;
}

std::string signature_name(std::string_view id) { return "Sim.Virus.Generic." + std::string(id); }

namespace detail {

std::optional<Group> protocol_group(std::string_view protocol) {
    if (protocol == "smtp" || protocol == "pop3") return Group::Mail;
    if (protocol == "nfs") return Group::Nfs;
    if (protocol == "http" || protocol == "ftp" || protocol == "smb" || protocol == "imap") return Group::Other;
    return std::nullopt;
}

std::string_view implied_direction(std::string_view protocol) {
    if (protocol == "smtp") return "upload";
    if (protocol == "pop3") return "download";
    return {};
}

bool admits_direction(std::string_view protocol, std::string_view direction) {
    auto group = protocol_group(protocol);
    if (!group) return false;
    if (*group == Group::Mail) return direction == implied_direction(protocol);
    return direction == "both" || direction == "upload" || direction == "download";
}

bool admits_action(std::string_view protocol, std::string_view action) {
    auto group = protocol_group(protocol);
    if (!group || *group == Group::Nfs) return false;
    if (*group == Group::Mail) return action == "alert" || action == "declare" || action == "delete-attachment";
    return action == "alert" || action == "block";  // imap takes what http takes
}

std::string_view setting_text(Setting s) { return s == Setting::On ? "true" : "false"; }

std::string decode_quotes(std::string url) {
    for (std::size_t at; (at = url.find("%22")) != std::string::npos;) url.replace(at, 3, "\"");
    return url;
}

std::string protocol_keyword(std::string text) {
    if (auto colon = text.find(':'); colon != std::string::npos) {
        text.erase(0, colon + 1);
        std::erase(text, ':');
    }
    return trim(text);
}

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::string trim(std::string_view text) {
    while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
    while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
    return std::string(text);
}

bool all_digits(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace detail

// ---- comparison ------------------------------------------------------------------

namespace {

using detail::Group;

void align(Profile& profile, bool comparing) {
    for (auto it = profile.detect.begin(); it != profile.detect.end();) {
        auto& [protocol, d] = *it;
        auto group = detail::protocol_group(protocol);
        if (group == Group::Nfs || (comparing && d.direction == "none")) d.action.reset();
        if (group == Group::Mail && !d.direction && d.action) d.direction = std::string(detail::implied_direction(protocol));
        it = (d.direction || d.action) ? std::next(it) : profile.detect.erase(it);
    }
    for (auto& [id, exception] : profile.signatures)
        if (exception.action != detail::kBlockSourceIp) exception.timeout.reset();
    std::set<MatchRule> rules;
    for (MatchRule rule : profile.match_rules) {
        if (rule.scope == "url") rule.value = detail::decode_quotes(std::move(rule.value));
        rules.insert(std::move(rule));
    }
    profile.match_rules = std::move(rules);
}

using detail::setting_text;

// One line per configured item, path first, sorted.
std::set<std::string> flatten(const Configuration& config) {
    std::set<std::string> out;
    if (config.aging_hours) out.insert("global/file-reputation-age-time-hour = " + std::to_string(*config.aging_hours));
    for (const auto& [vname, vsys] : config.vsys) {
        std::string v = "vsys[" + vname + "]";
        if (vsys.antivirus != Setting::Unset) out.insert(v + "/antivirus-enable = " + std::string(setting_text(vsys.antivirus)));
        for (const auto& [pname, p] : vsys.profiles) {
            std::string at = v + "/profile[" + pname + "]";
            out.insert(at);
            if (p.description) out.insert(at + "/description = \"" + *p.description + "\"");
            for (std::size_t i = 0; i < kSwitchCount; ++i)
                if (p.switches[i] != Setting::Unset)
                    out.insert(at + "/" + std::string(detail::kSwitches[i].leaf) + " = " + std::string(setting_text(p.switches[i])));
            for (const auto& [protocol, d] : p.detect) {
                std::string e = at + "/detect[" + protocol + "]";
                out.insert(e);
                if (d.direction) out.insert(e + "/direction = " + *d.direction);
                if (d.action) out.insert(e + "/action = " + *d.action);
            }
            for (const auto& [name, action] : p.applications) {
                std::string e = at + "/exception-application[" + name + "]";
                out.insert(e);
                if (action) out.insert(e + "/application-action = " + *action);
            }
            for (const auto& [id, s] : p.signatures) {
                std::string e = at + "/exception-signature[" + id + "]";
                out.insert(e);
                if (s.action) out.insert(e + "/action = " + *s.action);
                if (s.timeout) out.insert(e + "/timeout = " + *s.timeout);
            }
            for (const auto& rule : p.match_rules) out.insert(at + "/match-rule[" + rule.scope + " \"" + rule.value + "\"]");
            for (std::size_t side = 0; side < 2; ++side) {
                std::string name(detail::kSides[side]);
                for (const auto& a : p.addresses[side].addresses) out.insert(at + "/" + name + "[" + a + "]");
                for (const auto& r : p.addresses[side].ranges)
                    out.insert(at + "/" + name + "-range[" + r.start + " " + r.end + "]");
            }
        }
    }
    return out;
}

}  // namespace

std::vector<std::string> describe(const Configuration& config) {
    auto lines = flatten(config);
    return {lines.begin(), lines.end()};
}

namespace detail {

Configuration aligned(Configuration config, bool comparing) {
    std::erase_if(config.vsys, [](const auto& entry) { return entry.second.empty(); });
    for (auto& [name, vsys] : config.vsys)
        for (auto& [pname, profile] : vsys.profiles) align(profile, comparing);
    return config;
}

}  // namespace detail

Configuration comparable(Configuration config) { return detail::aligned(std::move(config), true); }

std::vector<std::string> differences(const Configuration& expected, const Configuration& actual) {
    auto want = flatten(comparable(expected));
    auto got = flatten(comparable(actual));
    std::vector<std::string> out;
    for (const auto& line : want)
        if (!got.contains(line)) out.push_back("missing: " + line);
    for (const auto& line : got)
        if (!want.contains(line)) out.push_back("unexpected: " + line);
    return out;
}

}  // namespace tavrik::appliance
