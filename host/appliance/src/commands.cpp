// The appliance's command-line interpreter: every line the antivirus module
// sends, in the views it sends them to, as one table of command forms.
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "detail.hpp"

namespace tavrik::appliance::detail {
namespace {

// ---- lines -------------------------------------------------------------------------

struct Token {
    std::string text;    // without the quotes of a quoted token
    std::size_t begin;   // offset in the line
    bool quoted;
};

// Splits at white space. A token that begins with a double quote and has a
// closing one followed by white space or the end is quoted and may hold
// white space; any other double quote is an ordinary character.
std::vector<Token> tokenize(std::string_view line) {
    std::vector<Token> tokens;
    std::size_t i = 0;
    for (;;) {
        while (i < line.size() && is_space(line[i])) ++i;
        if (i == line.size()) return tokens;
        const std::size_t begin = i;
        if (line[i] == '"') {
            auto close = line.find('"', i + 1);
            if (close != std::string_view::npos && (close + 1 == line.size() || is_space(line[close + 1]))) {
                tokens.push_back({std::string(line.substr(i + 1, close - i - 1)), begin, true});
                i = close + 1;
                continue;
            }
        }
        while (i < line.size() && !is_space(line[i])) ++i;
        tokens.push_back({std::string(line.substr(begin, i - begin)), begin, false});
    }
}

using Captures = std::vector<std::string>;

// Pattern words: a keyword, "{x}" (one token), "{x}-suffix" (the part of an
// unquoted token before the suffix) or "{text...}" (the rest of the line,
// verbatim but for the white space around it).
std::optional<Captures> match(std::string_view pattern, const std::vector<Token>& tokens, std::string_view line) {
    Captures captures;
    std::size_t i = 0;
    while (!pattern.empty()) {
        auto space = pattern.find(' ');
        std::string_view word = pattern.substr(0, space);
        pattern = space == std::string_view::npos ? std::string_view{} : pattern.substr(space + 1);
        if (i == tokens.size()) return std::nullopt;
        const Token& token = tokens[i++];
        if (word == "{text...}") {
            captures.push_back(trim(line.substr(token.begin)));
            i = tokens.size();
        } else if (word.front() == '{') {
            std::string_view suffix = word.substr(word.find('}') + 1);
            if (suffix.empty()) {
                captures.push_back(token.text);
                continue;
            }
            if (token.quoted || token.text.size() <= suffix.size() || !token.text.ends_with(suffix)) return std::nullopt;
            captures.push_back(token.text.substr(0, token.text.size() - suffix.size()));
        } else if (token.quoted || token.text != word) {
            return std::nullopt;
        }
    }
    if (i != tokens.size()) return std::nullopt;
    return captures;
}

// ---- views ----------------------------------------------------------------------------

// Root is the system view of the vsys "public": System's commands and the
// global ones.
enum class View { Vsys, System, Root, Profile };

bool fits(View command, View line) { return command == line || (command == View::System && line == View::Root); }

struct Context {
    Configuration& config;
    References& references;
    const runtime::CachedLine& line;
    std::string target;          // the vsys of a vsys view, the profile of a profile view
    Profile* profile = nullptr;  // in a profile view
    Vsys& vsys() { return config.vsys[line.vsys]; }
};

Outcome ok() { return {}; }
Outcome refuse(int code, std::string reason) { return {code, std::move(reason)}; }
std::string in_quotes(std::string_view text) { return "\"" + std::string(text) + "\""; }

std::optional<std::string> vsys_name_problem(std::string_view name) {
    if (name.empty()) return "empty vsys name";
    if (name.size() > 31) return "vsys name longer than 31 characters";
    if (std::any_of(name.begin(), name.end(), is_space)) return "white space in the vsys name";
    return std::nullopt;
}

Outcome enter(Context& c, View& view) {
    const runtime::CachedLine& l = c.line;
    if (auto problem = vsys_name_problem(l.vsys)) return refuse(kView, *problem);
    if (!l.view_template && l.view == "system") {
        view = l.vsys == "public" ? View::Root : View::System;
        return ok();
    }
    if (l.view_template == "mgmt-vsys" && l.view.starts_with("vsys-")) {
        if (l.vsys != "public") return refuse(kView, "vsys views exist in the vsys \"public\" only");
        c.target = l.view.substr(5);
        if (auto problem = vsys_name_problem(c.target)) return refuse(kView, *problem);
        if (c.target == "public") return refuse(kView, "the vsys \"public\" has no vsys view");
        view = View::Vsys;
        return ok();
    }
    if (l.view_template == "profile-av" && l.view.starts_with("profile-av-")) {
        c.target = l.view.substr(11);
        auto vsys = c.config.vsys.find(l.vsys);
        auto profile = vsys == c.config.vsys.end() ? nullptr : &vsys->second.profiles;
        if (profile == nullptr || !profile->contains(c.target))
            return refuse(kView, "no antivirus profile " + in_quotes(c.target) + " in vsys " + in_quotes(l.vsys));
        c.profile = &profile->at(c.target);
        view = View::Profile;
        return ok();
    }
    return refuse(kView, "no view " + in_quotes(l.view) + " with template " + in_quotes(l.view_template.value_or("(none)")));
}

// ---- command forms ----------------------------------------------------------------------

using Effect = std::function<Outcome(Context&, const Captures&)>;

struct Command {
    View view = View::System;
    std::string pattern;
    Effect add;  // with CMD_ADD; empty: not accepted
    Effect del;  // with CMD_DEL; empty: not accepted
};

// Settings with an explicit "off".
using SettingOf = std::function<Setting&(Context&)>;

Effect put(SettingOf of, Setting value) {
    return [=](Context& c, const Captures&) {
        of(c) = value;
        return ok();
    };
}

Effect clear(SettingOf of, std::string what) {
    return [=](Context& c, const Captures&) {
        Setting& s = of(c);
        if (s == Setting::Unset) return refuse(kAbsent, what + " is not configured");
        s = Setting::Unset;
        return ok();
    };
}

// Removes `key` from the container `of` returns, or refuses.
template <typename Of>
Effect erase(Of of, std::string what, std::size_t capture = 0) {
    return [=](Context& c, const Captures& k) {
        if (of(c, k).erase(k[capture]) == 0) return refuse(kAbsent, what + " " + in_quotes(k[capture]) + " is not configured");
        return ok();
    };
}

// ---- values ----

std::optional<std::string> profile_name_problem(std::string_view name) {
    if (name.empty() || name.size() > 127) return "profile names have 1 to 127 characters";
    if (name.find_first_of("\"?") != std::string_view::npos) return "double quote or question mark in the profile name";
    if (is_space(name.front()) || is_space(name.back())) return "white space around the profile name";
    return std::nullopt;
}

bool number_in(std::string_view text, std::uint64_t low, std::uint64_t high) {
    if (!all_digits(text) || text.size() > 10) return false;
    auto value = std::stoull(std::string(text));
    return value >= low && value <= high;
}

// Binary form of an IPv4 or IPv6 address, family first; empty when the text
// is neither.
std::string address_key(const std::string& text) {
    unsigned char buffer[16];
    if (inet_pton(AF_INET, text.c_str(), buffer) == 1) return "4" + std::string(reinterpret_cast<char*>(buffer), 4);
    if (inet_pton(AF_INET6, text.c_str(), buffer) == 1) return "6" + std::string(reinterpret_cast<char*>(buffer), 16);
    return {};
}

Outcome check_address(const std::string& text) {
    if (address_key(text).empty()) return refuse(kValue, in_quotes(text) + " is not an IPv4 or IPv6 address");
    return ok();
}

Outcome check_range(const std::string& start, const std::string& end) {
    if (Outcome o = check_address(start); o.code) return o;
    if (Outcome o = check_address(end); o.code) return o;
    auto a = address_key(start), b = address_key(end);
    if (a[0] != b[0]) return refuse(kValue, "the ends of a range are of different address families");
    if (a > b) return refuse(kValue, "the range starts after its end");
    return ok();
}

// ---- the table ----

Profile& profile(Context& c) { return *c.profile; }

void add_system_commands(std::vector<Command>& t) {
    SettingOf assignment = [](Context& c) -> Setting& { return c.config.vsys[c.target].antivirus; };
    t.push_back({View::Vsys, "assign function av", put(assignment, Setting::On),
                 clear(assignment, "the antivirus assignment")});
    t.push_back({View::Vsys, "undo assign function av", put(assignment, Setting::Off),
                 clear(assignment, "the antivirus assignment")});

    Effect create = [](Context& c, const Captures& k) {
        if (auto problem = profile_name_problem(k[0])) return refuse(kValue, *problem);
        if (k[0] == kDefaultProfileName) return refuse(kReserved, "the profile \"default\" is built in");
        c.vsys().profiles.try_emplace(k[0]);  // an existing profile is entered, not changed
        return ok();
    };
    Effect remove = [](Context& c, const Captures& k) {
        if (k[0] == kDefaultProfileName) return refuse(kReserved, "the profile \"default\" is built in");
        auto& profiles = c.vsys().profiles;
        if (!profiles.contains(k[0])) return refuse(kAbsent, "no antivirus profile " + in_quotes(k[0]));
        auto key = std::make_pair(c.line.vsys, k[0]);
        if (auto refs = c.references.find(key); refs != c.references.end() && refs->second > 0)
            return refuse(kInUse, "the profile is referenced " + std::to_string(refs->second) + " times");
        profiles.erase(k[0]);
        c.references.erase(key);
        return ok();
    };
    t.push_back({View::System, "profile type av name {name}", create, nullptr});
    t.push_back({View::System, "undo profile type av name {name}", remove, remove});

    Effect set_aging = [](Context& c, const Captures& k) {
        if (!number_in(k[0], 1, 8760)) return refuse(kValue, "the aging time has 1 to 8760 hours");
        c.config.aging_hours = static_cast<std::uint32_t>(std::stoul(k[0]));
        return ok();
    };
    Effect unset_aging = [](Context& c, const Captures&) {
        if (!c.config.aging_hours) return refuse(kAbsent, "the aging time is not configured");
        c.config.aging_hours.reset();
        return ok();
    };
    t.push_back({View::Root, "file-reputation set aging-time hour {hours}", set_aging, nullptr});
    t.push_back({View::Root, "undo file-reputation set aging-time", unset_aging, unset_aging});
}

void add_setting_commands(std::vector<Command>& t) {
    Effect describe = [](Context& c, const Captures& k) {
        profile(c).description = k[0];
        return ok();
    };
    Effect undescribe = [](Context& c, const Captures&) {
        if (!profile(c).description) return refuse(kAbsent, "the description is not configured");
        profile(c).description.reset();
        return ok();
    };
    t.push_back({View::Profile, "description {text...}", describe, nullptr});
    t.push_back({View::Profile, "undo description", undescribe, undescribe});

    for (std::size_t i = 0; i < kSwitchCount; ++i) {
        SettingOf of = [i](Context& c) -> Setting& { return profile(c).switches[i]; };
        std::string command(kSwitches[i].command);
        t.push_back({View::Profile, command, put(of, Setting::On), nullptr});
        t.push_back({View::Profile, "undo " + command, put(of, Setting::Off), clear(of, in_quotes(command))});
    }
}

// Detection: capture 0 is the protocol. Each form is for some groups only.
void add_detect_commands(std::vector<Command>& t) {
    auto form = [&t](std::string pattern, std::initializer_list<Group> groups, Effect add, Effect del) {
        std::vector<Group> admitted(groups);
        auto guard = [admitted](Effect effect) -> Effect {
            if (!effect) return nullptr;
            return [admitted, effect](Context& c, const Captures& k) {
                auto group = protocol_group(k[0]);
                if (!group) return refuse(kSyntax, in_quotes(k[0] + "-detect") + " is not a command");
                if (std::find(admitted.begin(), admitted.end(), *group) == admitted.end())
                    return refuse(kSyntax, "this form is not a command for the protocol " + in_quotes(k[0]));
                return effect(c, k);
            };
        };
        t.push_back({View::Profile, std::move(pattern), guard(std::move(add)), guard(std::move(del))});
    };
    auto check_direction = [](const Captures& k, std::size_t at) {
        return admits_direction(k[0], k[at]) ? ok() : refuse(kValue, in_quotes(k[at]) + " is no direction for " + k[0]);
    };
    auto check_action = [](const Captures& k, std::size_t at) {
        return admits_action(k[0], k[at]) ? ok() : refuse(kValue, in_quotes(k[at]) + " is no action for " + k[0]);
    };
    // Clears one part of a protocol's record; a record left empty goes.
    auto unset = [](std::optional<std::string> Detection::*part) -> Effect {
        return [part](Context& c, const Captures& k) {
            auto it = profile(c).detect.find(k[0]);
            if (it == profile(c).detect.end()) return refuse(kAbsent, "scanning of " + k[0] + " is not configured");
            if (part == nullptr) it->second = {};
            else (it->second.*part).reset();
            if (!it->second.direction && !it->second.action) profile(c).detect.erase(it);
            return ok();
        };
    };
    const auto mail = {Group::Mail};
    const auto directed = {Group::Nfs, Group::Other};

    form("{p}-detect", mail, [](Context& c, const Captures& k) {
        profile(c).detect[k[0]].direction = std::string(implied_direction(k[0]));
        return ok();
    }, nullptr);
    form("{p}-detect action {a}", mail, [=](Context& c, const Captures& k) {
        if (Outcome o = check_action(k, 1); o.code) return o;
        profile(c).detect[k[0]] = {std::string(implied_direction(k[0])), k[1]};
        return ok();
    }, nullptr);
    form("{p}-detect direction {d}", directed, [=](Context& c, const Captures& k) {
        if (Outcome o = check_direction(k, 1); o.code) return o;
        profile(c).detect[k[0]].direction = k[1];
        return ok();
    }, nullptr);
    form("{p}-detect direction {d} action {a}", {Group::Other}, [=](Context& c, const Captures& k) {
        if (Outcome o = check_direction(k, 1); o.code) return o;
        if (Outcome o = check_action(k, 2); o.code) return o;
        profile(c).detect[k[0]] = {k[1], k[2]};
        return ok();
    }, nullptr);
    // Scanning off with CMD_ADD; back to not configured with CMD_DEL, which
    // a protocol never configured accepts as well.
    form("undo {p}-detect", {Group::Mail, Group::Nfs, Group::Other}, [](Context& c, const Captures& k) {
        profile(c).detect[k[0]].direction = "none";
        return ok();
    }, [](Context& c, const Captures& k) {
        profile(c).detect.erase(k[0]);
        return ok();
    });
    form("undo {p}-detect direction", directed, unset(&Detection::direction), unset(&Detection::direction));
    form("undo {p}-detect action", {Group::Mail, Group::Other}, unset(&Detection::action), unset(&Detection::action));
    form("undo {p}-detect direction action", {Group::Other}, unset(nullptr), unset(nullptr));
}

void add_exception_commands(std::vector<Command>& t) {
    Effect application = [](Context& c, const Captures& k) {
        const auto& catalogue = application_catalogue();
        if (std::find(catalogue.begin(), catalogue.end(), k[0]) == catalogue.end())
            return refuse(kValue, "no application " + in_quotes(k[0]) + " is known");
        std::optional<std::string> action;
        if (k.size() > 1) {
            if (k[1] != "alert" && k[1] != "allow" && k[1] != "block")
                return refuse(kValue, in_quotes(k[1]) + " is no application action");
            action = k[1];
        }
        profile(c).applications[k[0]] = action;
        return ok();
    };
    auto applications = [](Context& c, const Captures&) -> auto& { return profile(c).applications; };
    t.push_back({View::Profile, "exception application name {app}", application, nullptr});
    t.push_back({View::Profile, "exception application name {app} action {a}", application, nullptr});
    Effect unexcept = erase(applications, "the application exception");
    t.push_back({View::Profile, "undo exception application name {app}", unexcept, unexcept});

    // Sets an exception exactly as the line states it.
    Effect signature = [](Context& c, const Captures& k) {
        if (!number_in(k[0], 1, 0xFFFFFFFFull)) return refuse(kValue, in_quotes(k[0]) + " is no signature id");
        SignatureException s;
        if (k.size() > 1) {
            if (k[1] != "allow" && k[1] != kBlockSourceIp) return refuse(kValue, in_quotes(k[1]) + " is no signature action");
            s.action = k[1];
        }
        if (k.size() > 2) {
            if (k[1] != kBlockSourceIp) return refuse(kValue, "a timeout goes with the action block-source-ip only");
            if (!number_in(k[2], 1, 65535)) return refuse(kValue, "the timeout is 1 to 65535");
            s.timeout = k[2];
        }
        profile(c).signatures[k[0]] = s;
        return ok();
    };
    // With CMD_DEL the line restates what is left: "action allow" drops the
    // action (and timeout), "action block-source-ip" drops the timeout.
    Effect restate = [](Context& c, const Captures& k) {
        auto it = profile(c).signatures.find(k[0]);
        if (it == profile(c).signatures.end()) return refuse(kAbsent, "no signature exception " + in_quotes(k[0]));
        if (k[1] == "allow") it->second = {};
        else if (k[1] == kBlockSourceIp) it->second = {std::string(kBlockSourceIp), std::nullopt};
        else return refuse(kValue, in_quotes(k[1]) + " is no signature action");
        return ok();
    };
    auto signatures = [](Context& c, const Captures&) -> auto& { return profile(c).signatures; };
    Effect unsign = erase(signatures, "the signature exception");
    t.push_back({View::Profile, "exception av-signature-id {id}", signature, nullptr});
    t.push_back({View::Profile, "exception av-signature-id {id} action {a}", signature, restate});
    t.push_back({View::Profile, "exception av-signature-id {id} action {a} timeout {t}", signature, nullptr});
    t.push_back({View::Profile, "undo exception av-signature-id {id}", unsign, unsign});
}

void add_whitelist_commands(std::vector<Command>& t) {
    for (std::string scope : {"url", "host"}) {
        // URL lines carry a double quote as "%22".
        auto rule = [scope](const Captures& k) { return MatchRule{scope, scope == "url" ? decode_quotes(k[0]) : k[0]}; };
        Effect add = [=](Context& c, const Captures& k) {
            MatchRule r = rule(k);
            if (r.value.empty() || r.value.size() > 127) return refuse(kValue, "whitelist values have 1 to 127 characters");
            profile(c).match_rules.insert(std::move(r));
            return ok();
        };
        Effect remove = [=](Context& c, const Captures& k) {
            if (profile(c).match_rules.erase(rule(k)) == 0) return refuse(kAbsent, "no " + scope + " rule " + in_quotes(k[0]));
            return ok();
        };
        t.push_back({View::Profile, "whitelist " + scope + " {value}", add, nullptr});
        t.push_back({View::Profile, "undo whitelist " + scope + " {value}", remove, remove});
    }
    for (std::size_t side = 0; side < 2; ++side) {
        const std::string word(kSides[side]);
        auto addresses = [side](Context& c, const Captures&) -> auto& { return profile(c).addresses[side].addresses; };
        Effect add = [=](Context& c, const Captures& k) {
            if (Outcome o = check_address(k[0]); o.code) return o;
            addresses(c, k).insert(k[0]);
            return ok();
        };
        Effect remove = erase(addresses, "the address");
        auto ranges = [side](Context& c) -> auto& { return profile(c).addresses[side].ranges; };
        Effect add_range = [=](Context& c, const Captures& k) {
            if (Outcome o = check_range(k[0], k[1]); o.code) return o;
            ranges(c).insert({k[0], k[1]});
            return ok();
        };
        Effect remove_range = [=](Context& c, const Captures& k) {
            if (ranges(c).erase({k[0], k[1]}) == 0) return refuse(kAbsent, "no range " + k[0] + " " + k[1]);
            return ok();
        };
        t.push_back({View::Profile, "whitelist " + word + " {address}", add, nullptr});
        t.push_back({View::Profile, "undo whitelist " + word + " {address}", remove, remove});
        t.push_back({View::Profile, "whitelist " + word + " range {start} {end}", add_range, nullptr});
        t.push_back({View::Profile, "undo whitelist " + word + " range {start} {end}", remove_range, remove_range});
    }
}

const std::vector<Command>& commands() {
    static const std::vector<Command> table = [] {
        std::vector<Command> t;
        add_system_commands(t);
        add_setting_commands(t);
        add_detect_commands(t);
        add_exception_commands(t);
        add_whitelist_commands(t);
        return t;
    }();
    return table;
}

void prune(Configuration& config, const std::string& vsys) {
    if (auto it = config.vsys.find(vsys); it != config.vsys.end() && it->second.empty()) config.vsys.erase(it);
}

}  // namespace

Outcome execute_line(Configuration& config, References& references, const runtime::CachedLine& line,
                     unsigned cmd_op) {
    if (cmd_op != CMD_ADD && cmd_op != CMD_DEL)
        return refuse(kSyntax, "command op " + std::to_string(cmd_op) + " is not accepted");
    if (std::any_of(line.line.begin(), line.line.end(),
                    [](char ch) { return static_cast<unsigned char>(ch) < 0x20 && ch != '\t'; }))
        return refuse(kSyntax, "control character in the line");
    const auto tokens = tokenize(line.line);
    if (tokens.empty()) return refuse(kSyntax, "empty line");

    Context c{config, references, line, {}, nullptr};
    View view = View::System;
    if (Outcome o = enter(c, view); o.code) return o;
    bool elsewhere = false;
    for (const Command& command : commands()) {
        auto captures = match(command.pattern, tokens, line.line);
        if (!captures) continue;
        if (!fits(command.view, view)) {
            elsewhere = true;
            continue;
        }
        const Effect& effect = cmd_op == CMD_ADD ? command.add : command.del;
        if (!effect) return refuse(kSyntax, cmd_op == CMD_ADD ? "not accepted with CMD_ADD" : "not accepted with CMD_DEL");
        Outcome outcome = effect(c, *captures);
        prune(config, line.vsys);
        if (view == View::Vsys) prune(config, c.target);
        return outcome;
    }
    if (elsewhere) return refuse(kView, "not a command of the view " + in_quotes(line.view));
    return refuse(kSyntax, "unrecognised command");
}

// ---- building a configuration from lines ----------------------------------------------------

std::vector<std::pair<runtime::CachedLine, unsigned>> command_lines(const Configuration& config) {
    std::vector<std::pair<runtime::CachedLine, unsigned>> out;
    auto emit = [&out](std::string vsys, std::string view, std::optional<std::string> view_template, std::string line,
                       unsigned op = CMD_ADD) {
        out.push_back({{std::move(vsys), std::move(view), std::move(view_template), std::move(line)}, op});
    };
    auto quote_if = [](const std::string& text, bool needed) { return needed ? in_quotes(text) : text; };
    auto has_space = [](const std::string& text) { return std::any_of(text.begin(), text.end(), is_space); };

    if (config.aging_hours)
        emit("public", "system", std::nullopt, "file-reputation set aging-time hour " + std::to_string(*config.aging_hours));
    for (const auto& [vname, vsys] : config.vsys) {
        if (vsys.antivirus != Setting::Unset)
            emit("public", "vsys-" + vname, "mgmt-vsys",
                 vsys.antivirus == Setting::On ? "assign function av" : "undo assign function av");
        for (const auto& [pname, p] : vsys.profiles) {
            emit(vname, "system", std::nullopt, "profile type av name " + quote_if(pname, has_space(pname)));
            auto in_view = [&](std::string line, unsigned op = CMD_ADD) {
                emit(vname, "profile-av-" + pname, "profile-av", std::move(line), op);
            };
            if (p.description) in_view("description " + *p.description);
            for (std::size_t i = 0; i < kSwitchCount; ++i)
                if (p.switches[i] != Setting::Unset)
                    in_view((p.switches[i] == Setting::Off ? "undo " : "") + std::string(kSwitches[i].command));
            for (const auto& [protocol, d] : p.detect) {
                const std::string head = protocol + "-detect";
                const bool off = d.direction == "none";
                if (protocol_group(protocol) == Group::Mail) {
                    if (d.action) in_view(head + " action " + *d.action);
                    else if (d.direction) in_view(head);
                } else {
                    std::string direction = d.direction && !off ? *d.direction : "both";
                    if (d.action) in_view(head + " direction " + direction + " action " + *d.action);
                    else if (d.direction) in_view(head + " direction " + direction);
                    if (!d.direction) in_view("undo " + head + " direction", CMD_DEL);
                }
                if (off) in_view("undo " + head);
            }
            for (const auto& [app, action] : p.applications)
                in_view("exception application name " + app + (action ? " action " + *action : ""));
            for (const auto& [id, s] : p.signatures)
                in_view("exception av-signature-id " + id + (s.action ? " action " + *s.action : "") +
                        (s.timeout ? " timeout " + *s.timeout : ""));
            for (const auto& rule : p.match_rules) {
                std::string value = rule.value;
                if (rule.scope == "url") {
                    for (std::size_t at; (at = value.find('"')) != std::string::npos;) value.replace(at, 1, "%22");
                    value = quote_if(value, has_space(value) || value.find('?') != std::string::npos);
                }
                in_view("whitelist " + rule.scope + " " + value);
            }
            for (std::size_t side = 0; side < 2; ++side) {
                const std::string word = "whitelist " + std::string(kSides[side]) + " ";
                for (const auto& a : p.addresses[side].addresses) in_view(word + a);
                for (const auto& r : p.addresses[side].ranges) in_view(word + "range " + r.start + " " + r.end);
            }
        }
    }
    return out;
}

}  // namespace tavrik::appliance::detail
