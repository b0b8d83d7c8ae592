// XML forms of the configuration: writing the running configuration and the
// profiles of the state document, reading a running configuration back.
#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <cstring>
#include <memory>

#include "detail.hpp"

namespace tavrik::appliance {
namespace detail {

// ---- writer ----------------------------------------------------------------------

namespace {

void escape_into(std::string& out, std::string_view text, bool attribute) {
    for (char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '\r': out += "&#13;"; break;  // a parser would turn a raw one into a line feed
            case '"': out += attribute ? "&quot;" : "\""; break;
            case '\t': out += attribute ? "&#9;" : "\t"; break;
            case '\n': out += attribute ? "&#10;" : "\n"; break;
            default: out += c;
        }
    }
}

}  // namespace

void XmlWriter::indent() { out_.append(2 * static_cast<std::size_t>(depth_), ' '); }

void XmlWriter::open(std::string_view name, std::string_view xmlns) {
    indent();
    out_ += '<';
    out_ += name;
    if (!xmlns.empty()) {
        out_ += " xmlns=\"";
        escape_into(out_, xmlns, true);
        out_ += '"';
    }
    out_ += ">\n";
    open_.emplace_back(name);
    ++depth_;
}

void XmlWriter::leaf(std::string_view name, std::string_view value) {
    indent();
    out_ += '<';
    out_ += name;
    out_ += '>';
    escape_into(out_, value, false);
    out_ += "</";
    out_ += name;
    out_ += ">\n";
}

void XmlWriter::close() {
    --depth_;
    indent();
    out_ += "</";
    out_ += open_.back();
    out_ += ">\n";
    open_.pop_back();
}

// ---- writing the model ------------------------------------------------------------

namespace {

enum class Flavour { Config, State };

void write_whitelists(XmlWriter& xml, const Profile& p) {
    bool any = !p.match_rules.empty();
    for (const auto& side : p.addresses) any = any || !side.addresses.empty() || !side.ranges.empty();
    if (!any) return;
    xml.open("whitelists");
    if (!p.match_rules.empty()) {
        xml.open("match-rules");
        for (const auto& rule : p.match_rules) {
            xml.open("match-rule");
            xml.leaf("scope", rule.scope);
            xml.leaf("type", match_type(rule.value));
            xml.leaf("value", rule.value);
            xml.close();
        }
        xml.close();
    }
    for (std::size_t side = 0; side < 2; ++side) {
        const std::string range_node = std::string(kSides[side]) + "-range";
        for (const auto& a : p.addresses[side].addresses) xml.leaf(kSides[side], a);
        for (const auto& r : p.addresses[side].ranges) {
            xml.open(range_node);
            xml.leaf("start-address", r.start);
            xml.leaf("end-address", r.end);
            xml.close();
        }
    }
    xml.close();
}

void write_profile(XmlWriter& xml, std::string_view name, const Profile& p, Flavour flavour) {
    xml.open("profile");
    xml.leaf("name", name);
    if (p.description) xml.leaf("description", *p.description);
    for (std::size_t i = 0; i < kSwitchCount; ++i)
        if (p.switches[i] != Setting::Unset) xml.leaf(kSwitches[i].leaf, setting_text(p.switches[i]));
    for (const auto& [protocol, d] : p.detect) {
        xml.open("detect");
        xml.leaf("protocol-type", protocol);
        xml.open("detect-configuration");
        if (d.direction) xml.leaf("direction", *d.direction);
        if (d.action) xml.leaf("action", *d.action);
        xml.close();
        xml.close();
    }
    for (const auto& [app, action] : p.applications) {
        xml.open("exception-application");
        xml.leaf("application-name", app);
        if (action) xml.leaf("application-action", *action);
        xml.close();
    }
    if (flavour == Flavour::State) {
        for (const auto& [id, s] : p.signatures) {
            xml.open("exception-signature");
            xml.leaf("signature-id", id);
            xml.leaf("signature-name", signature_name(id));
            xml.close();
        }
    } else {
        // An exception without action is the simple form; the others are entries.
        for (const auto& [id, s] : p.signatures)
            if (!s.action) xml.leaf("exception-signature-id", id);
        for (const auto& [id, s] : p.signatures) {
            if (!s.action) continue;
            xml.open("exception-signature");
            xml.leaf("id", id);
            xml.leaf("action", *s.action);
            if (s.timeout) xml.leaf("timeout", *s.timeout);
            xml.close();
        }
    }
    write_whitelists(xml, p);
    xml.close();
}

}  // namespace

void write_configuration(XmlWriter& xml, const Configuration& config) {
    xml.open("antivirus", kNamespace);
    for (const auto& [name, vsys] : config.vsys) {
        xml.open("vsys");
        xml.leaf("name", name);
        if (vsys.antivirus != Setting::Unset) xml.leaf("antivirus-enable", setting_text(vsys.antivirus));
        if (!vsys.profiles.empty()) {
            xml.open("profiles");
            for (const auto& [pname, profile] : vsys.profiles) write_profile(xml, pname, profile, Flavour::Config);
            xml.close();
        }
        xml.close();
    }
    if (config.aging_hours) {
        xml.open("global");
        xml.leaf("file-reputation-age-time-hour", std::to_string(*config.aging_hours));
        xml.close();
    }
    xml.close();
}

void write_state_profile(XmlWriter& xml, std::string_view name, const Profile& profile) {
    write_profile(xml, name, profile, Flavour::State);
}

// ---- reading -------------------------------------------------------------------------

xmlDoc* parse_xml(std::string_view text, std::string_view what) {
    xmlResetLastError();
    xmlDoc* doc = xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                                XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    if (doc == nullptr) {
        const xmlError* error = xmlGetLastError();
        std::string message = error && error->message ? trim(error->message) : "unknown error";
        throw ConfigurationError(std::string(what) + ": not well-formed XML: " + message);
    }
    return doc;
}

bool is_element(const xmlNode* node, std::string_view name) {
    return node->type == XML_ELEMENT_NODE && name == reinterpret_cast<const char*>(node->name);
}

std::string text_of(const xmlNode* node) {
    std::unique_ptr<xmlChar, void (*)(void*)> content(xmlNodeGetContent(node), xmlFree);
    return content ? std::string(reinterpret_cast<const char*>(content.get())) : std::string();
}

namespace {

std::string node_name(const xmlNode* node) { return reinterpret_cast<const char*>(node->name); }

[[noreturn]] void fail(const std::string& where, const std::string& what) {
    throw ConfigurationError(where + ": " + what);
}

[[noreturn]] void unexpected(const xmlNode* node, const std::string& where) {
    fail(where, "unexpected element <" + node_name(node) + ">");
}

// Calls visit(child) for every element child of `node`.
template <typename Visit>
void each_element(const xmlNode* node, Visit&& visit) {
    for (const xmlNode* c = node->children; c != nullptr; c = c->next)
        if (c->type == XML_ELEMENT_NODE) visit(c);
}

// The trimmed text of a leaf; an empty text reads as absent.
std::optional<std::string> trimmed(const xmlNode* node) {
    std::string t = trim(text_of(node));
    return t.empty() ? std::nullopt : std::optional(std::move(t));
}

std::string required(const std::optional<std::string>& key, const std::string& where, std::string_view leaf) {
    if (!key) fail(where, "no " + std::string(leaf));
    return *key;
}

// Days as the module sends them: digits times 24, anything else one day.
std::uint32_t days_to_hours(std::string_view days) {
    std::uint32_t value = 0;
    for (char c : days) {
        if (c < '0' || c > '9') return 24;
        value = value * 10 + static_cast<std::uint32_t>(c - '0');
    }
    return days.empty() || value == 0xFFFFFFFFu ? 24 : value * 24;
}

Setting read_setting(const xmlNode* node, const std::string& where, bool trimming) {
    std::string text = trimming ? trim(text_of(node)) : text_of(node);
    if (text == "true") return Setting::On;
    if (text == "false") return Setting::Off;
    fail(where + "/" + node_name(node), "neither true nor false: \"" + text + "\"");
}

template <typename Map>
auto& insert_new(Map& map, const std::string& key, const std::string& where) {
    auto [it, fresh] = map.try_emplace(key);
    if (!fresh) fail(where, "duplicate entry \"" + key + "\"");
    return it->second;
}

void read_detect(Profile& p, const xmlNode* node, const std::string& where) {
    std::optional<std::string> protocol;
    Detection d;
    each_element(node, [&](const xmlNode* c) {
        if (is_element(c, "protocol-type")) {
            protocol = protocol_keyword(text_of(c));
        } else if (is_element(c, "detect-configuration")) {
            each_element(c, [&](const xmlNode* leaf) {
                if (is_element(leaf, "direction")) d.direction = trimmed(leaf);
                else if (is_element(leaf, "action")) d.action = trimmed(leaf);
                else unexpected(leaf, where + "/detect-configuration");
            });
        } else {
            unexpected(c, where);
        }
    });
    insert_new(p.detect, required(protocol, where, "protocol-type"), where) = std::move(d);
}

void read_application(Profile& p, const xmlNode* node, const std::string& where) {
    std::optional<std::string> name, action;
    each_element(node, [&](const xmlNode* c) {
        if (is_element(c, "application-name")) name = trimmed(c);
        else if (is_element(c, "application-action")) action = trimmed(c);
        else unexpected(c, where);
    });
    insert_new(p.applications, required(name, where, "application-name"), where) = action;
}

void read_signature(Profile& p, const xmlNode* node, const std::string& where) {
    std::optional<std::string> id;
    SignatureException s;
    each_element(node, [&](const xmlNode* c) {
        if (is_element(c, "id")) id = trimmed(c);
        else if (is_element(c, "action")) s.action = trimmed(c);
        else if (is_element(c, "timeout")) s.timeout = trimmed(c);
        else unexpected(c, where);
    });
    insert_new(p.signatures, required(id, where, "id"), where) = s;
}

void read_range(std::set<AddressRange>& ranges, const xmlNode* node, const std::string& where) {
    std::optional<std::string> start, end;
    each_element(node, [&](const xmlNode* c) {
        if (is_element(c, "start-address")) start = trimmed(c);
        else if (is_element(c, "end-address")) end = trimmed(c);
        else unexpected(c, where);
    });
    if (!ranges.insert({required(start, where, "start-address"), required(end, where, "end-address")}).second)
        fail(where, "duplicate range");
}

void read_whitelists(Profile& p, const xmlNode* node, const std::string& where) {
    each_element(node, [&](const xmlNode* c) {
        if (is_element(c, "match-rules")) {
            each_element(c, [&](const xmlNode* rule) {
                std::string at = where + "/match-rule";
                if (!is_element(rule, "match-rule")) unexpected(rule, at);
                std::optional<std::string> scope, value;
                each_element(rule, [&](const xmlNode* leaf) {
                    if (is_element(leaf, "scope")) scope = text_of(leaf);
                    else if (is_element(leaf, "value")) value = trimmed(leaf);
                    else if (!is_element(leaf, "type")) unexpected(leaf, at);  // implied by the value
                });
                if (!p.match_rules.insert({required(scope, at, "scope"), required(value, at, "value")}).second)
                    fail(at, "duplicate rule");
            });
            return;
        }
        for (std::size_t side = 0; side < 2; ++side) {
            std::string name(kSides[side]);
            if (is_element(c, name)) {
                std::string at = where + "/" + name;
                if (!p.addresses[side].addresses.insert(required(trimmed(c), at, "address")).second)
                    fail(at, "duplicate address");
                return;
            }
            if (is_element(c, name + "-range")) return read_range(p.addresses[side].ranges, c, where + "/" + name + "-range");
        }
        unexpected(c, where);
    });
}

void read_profile(Vsys& vsys, const xmlNode* node, const std::string& where) {
    std::optional<std::string> name;
    each_element(node, [&](const xmlNode* c) {
        if (is_element(c, "name")) name = trimmed(c);
    });
    std::string at = where + "/profile[" + required(name, where + "/profile", "name") + "]";
    Profile& p = insert_new(vsys.profiles, *name, where + "/profile");
    each_element(node, [&](const xmlNode* c) {
        if (is_element(c, "name")) return;
        if (is_element(c, "description")) { p.description = trimmed(c); return; }
        for (std::size_t i = 0; i < kSwitchCount; ++i)
            if (is_element(c, kSwitches[i].leaf)) { p.switches[i] = read_setting(c, at, true); return; }
        if (is_element(c, "detect")) return read_detect(p, c, at + "/detect");
        if (is_element(c, "exception-application")) return read_application(p, c, at + "/exception-application");
        if (is_element(c, "exception-signature")) return read_signature(p, c, at + "/exception-signature");
        if (is_element(c, "exception-signature-id")) {
            std::string id = required(trimmed(c), at + "/exception-signature-id", "value");
            insert_new(p.signatures, id, at + "/exception-signature-id");
            return;
        }
        if (is_element(c, "whitelists")) return read_whitelists(p, c, at + "/whitelists");
        unexpected(c, at);
    });
}

void read_vsys(Configuration& config, const xmlNode* node) {
    std::optional<std::string> name;
    each_element(node, [&](const xmlNode* c) {
        if (is_element(c, "name")) name = text_of(c);  // the module passes vsys names verbatim
    });
    const std::string where = "vsys[" + required(name, "vsys", "name") + "]";
    Vsys& vsys = insert_new(config.vsys, *name, "vsys");
    each_element(node, [&](const xmlNode* c) {
        if (is_element(c, "name")) return;
        if (is_element(c, "antivirus-enable")) { vsys.antivirus = read_setting(c, where, false); return; }
        if (!is_element(c, "profiles")) unexpected(c, where);
        each_element(c, [&](const xmlNode* p) {
            if (!is_element(p, "profile")) unexpected(p, where + "/profiles");
            read_profile(vsys, p, where);
        });
    });
}

void read_global(Configuration& config, const xmlNode* node) {
    std::optional<std::uint32_t> days, hours;
    each_element(node, [&](const xmlNode* c) {
        std::string text = trim(text_of(c));
        if (is_element(c, "file-reputation-age-time")) {
            days = days_to_hours(text);
        } else if (is_element(c, "file-reputation-age-time-hour")) {
            if (!all_digits(text) || text.size() > 10 || std::stoull(text) > 0xFFFFFFFFull)
                fail("global/file-reputation-age-time-hour", "not a number of hours: \"" + text + "\"");
            hours = static_cast<std::uint32_t>(std::stoull(text));
        } else {
            unexpected(c, "global");
        }
    });
    // Both leaves send the same command; the hours leaf comes last.
    config.aging_hours = hours ? hours : days;
}

}  // namespace

Configuration read_configuration(const xmlNode* antivirus) {
    Configuration config;
    each_element(antivirus, [&](const xmlNode* c) {
        if (is_element(c, "vsys")) read_vsys(config, c);
        else if (is_element(c, "global")) read_global(config, c);
        else unexpected(c, "antivirus");
    });
    return config;
}

}  // namespace detail

std::string render_configuration(const Configuration& config) {
    detail::XmlWriter xml;
    detail::write_configuration(xml, config);
    return xml.take();
}

Configuration parse_configuration(std::string_view xml) {
    std::string text = detail::trim(xml);
    if (text.empty()) return {};
    if (text.starts_with("<?xml")) {
        auto end = text.find("?>");
        if (end == std::string::npos) throw ConfigurationError("configuration: unterminated XML declaration");
        text.erase(0, end + 2);
    }
    // A wrapper makes several top-level elements one document.
    std::unique_ptr<xmlDoc, void (*)(xmlDoc*)> doc(
        detail::parse_xml("<configuration-text>" + text + "</configuration-text>", "configuration"), xmlFreeDoc);
    std::optional<Configuration> config;
    auto visit = [&](auto& self, const xmlNode* node) -> void {
        for (const xmlNode* c = node->children; c != nullptr; c = c->next) {
            if (c->type != XML_ELEMENT_NODE) continue;
            if (detail::is_element(c, "config") || detail::is_element(c, "data")) {
                self(self, c);
            } else if (detail::is_element(c, "antivirus") && c->ns != nullptr &&
                       kNamespace == reinterpret_cast<const char*>(c->ns->href)) {
                if (config) throw ConfigurationError("configuration: more than one <antivirus> element");
                config = detail::read_configuration(c);
            } else {
                throw ConfigurationError("configuration: unexpected element <" +
                                         std::string(reinterpret_cast<const char*>(c->name)) + ">");
            }
        }
    };
    visit(visit, xmlDocGetRootElement(doc.get()));
    return config ? std::move(*config) : Configuration{};
}

}  // namespace tavrik::appliance
