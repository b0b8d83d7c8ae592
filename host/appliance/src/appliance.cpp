// The appliance as the channel's platform: messages, documents, faults and
// the saved state.
#include <cerrno>
#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>

#include "detail.hpp"
#include "tavrik/atomic_file.hpp"

namespace tavrik::appliance {
namespace {

constexpr std::string_view kStoreNamespace = "urn:tavrik:appliance:saved-state";

// Builds `wanted` line by line on an empty appliance, so that a configuration
// from outside passes every check a line would; throws when it cannot be
// built exactly.
Configuration rebuild(const Configuration& wanted, const std::string& where) {
    Configuration built;
    detail::References none;
    for (const auto& [line, op] : detail::command_lines(wanted)) {
        detail::Outcome o = detail::execute_line(built, none, line, op);
        if (o.code != kAccepted)
            throw ConfigurationError(where + ": the line \"" + line.line + "\" is refused (" +
                                     std::string(code_name(o.code)) + "): " + o.reason);
    }
    if (built != wanted) {
        auto diff = differences(wanted, built);
        throw ConfigurationError(where + ": settings that no command line gives" +
                                 (diff.empty() ? std::string() : ": " + diff.front()));
    }
    return built;
}

std::string read_file(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) throw std::system_error(errno, std::generic_category(), "open " + file.string());
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool in_namespace(const xmlNode* node, std::string_view ns) {
    return node->ns != nullptr && ns == reinterpret_cast<const char*>(node->ns->href);
}

}  // namespace

Appliance::Appliance(Configuration config) : config_(rebuild(detail::aligned(std::move(config), false), "configuration")) {}

int Appliance::refuse(const runtime::CachedLine& line, unsigned cmd_op, int code, std::string reason) {
    last_refusal_ = Refusal{line, cmd_op, code, std::move(reason)};
    return code;
}

int Appliance::deliver(const std::vector<runtime::CachedLine>& lines, unsigned cmd_op) {
    if (fail_send_) {
        int code = *fail_send_;
        fail_send_.reset();
        return refuse({}, cmd_op, code, "the message was lost on its way to the appliance");
    }
    // A single line leaves the state alone when refused; several lines and a
    // failed save need the state from before the message.
    std::optional<std::pair<Configuration, detail::References>> before;
    if (lines.size() > 1 || !store_.empty()) before.emplace(config_, references_);
    auto give_up = [&](const runtime::CachedLine& line, int code, std::string reason) {
        if (before) std::tie(config_, references_) = std::move(*before);
        return refuse(line, cmd_op, code, std::move(reason));
    };
    for (const auto& line : lines) {
        ++lines_seen_;
        if (refuse_at_ && refuse_at_->line == lines_seen_) {
            int code = refuse_at_->code;
            refuse_at_.reset();
            return give_up(line, code, "refused by an injected fault");
        }
        detail::Outcome o = detail::execute_line(config_, references_, line, cmd_op);
        if (o.code != kAccepted) return give_up(line, o.code, std::move(o.reason));
    }
    if (auto failure = save_to_store()) return give_up({}, kStorage, std::move(*failure));
    lines_executed_ += lines.size();
    return kAccepted;
}

int Appliance::remove_vsys(const std::vector<std::string>& names) {
    const runtime::CachedLine where{names.empty() ? std::string() : names.front(), {}, std::nullopt, {}};
    if (fail_vsys_removal_) {
        int code = *fail_vsys_removal_;
        fail_vsys_removal_.reset();
        return refuse(where, CMD_DEL, code, "the vsys removal was refused by an injected fault");
    }
    auto before = std::make_pair(config_, references_);
    for (const auto& name : names) {
        config_.vsys.erase(name);
        std::erase_if(references_, [&name](const auto& reference) { return reference.first.first == name; });
    }
    if (auto failure = save_to_store()) {
        std::tie(config_, references_) = std::move(before);
        return refuse(where, CMD_DEL, kStorage, std::move(*failure));
    }
    return kAccepted;
}

std::optional<std::string> Appliance::save_to_store() const {
    if (store_.empty()) return std::nullopt;
    try {
        save(store_);
    } catch (const std::exception& e) {
        return e.what();
    }
    return std::nullopt;
}

std::vector<std::pair<runtime::CachedLine, unsigned>> Appliance::command_lines() const {
    return detail::command_lines(config_);
}

int Appliance::execute(const runtime::CachedLine& line, unsigned cmd_op) {
    detail::Outcome o = detail::execute_line(config_, references_, line, cmd_op);
    if (o.code != kAccepted) return refuse(line, cmd_op, o.code, std::move(o.reason));
    ++lines_executed_;
    return kAccepted;
}

runtime::DocumentReply Appliance::document(unsigned msg_type) {
    runtime::DocumentReply reply;
    if (msg_type == API_DP2QMX_GET_CONFIG) {
        reply.data = running_config_xml();
        reply.data.push_back('\0');  // the reader copies up to the NUL, which the length counts
    } else if (msg_type == API_DP2QMX_NC_STATE) {
        reply.data = state_xml();
    } else {
        return {kSyntax, false, {}};
    }
    return reply;
}

std::string Appliance::state_xml() const {
    detail::XmlWriter xml;
    xml.open("antivirus-state", kNamespace);
    for (const auto& [vname, vsys] : config_.vsys) {
        xml.open("vsys");
        xml.leaf("name", vname);
        if (!vsys.profiles.empty()) {
            xml.open("profiles");
            for (const auto& [pname, profile] : vsys.profiles) {
                xml.open("profile");
                xml.leaf("name", pname);
                xml.leaf("reference-count", std::to_string(references(vname, pname)));
                for (const auto& [id, exception] : profile.signatures) {
                    xml.open("exception-signature");
                    xml.leaf("signature-id", id);
                    xml.leaf("signature-name", signature_name(id));
                    xml.close();
                }
                xml.close();
            }
            xml.close();
        }
        xml.close();
    }
    xml.open("exception-application");
    for (auto name : application_catalogue()) {
        xml.open("application-name");
        xml.leaf("name", name);
        xml.close();
    }
    xml.close();
    xml.open("default-profile");
    detail::write_state_profile(xml, kDefaultProfileName, default_profile());
    xml.close();
    xml.close();
    return xml.take();
}

bool Appliance::set_references(const std::string& vsys, const std::string& profile, std::uint32_t count) {
    auto v = config_.vsys.find(vsys);
    if (v == config_.vsys.end() || !v->second.profiles.contains(profile)) return false;
    if (count == 0) references_.erase({vsys, profile});
    else references_[{vsys, profile}] = count;
    return true;
}

std::uint32_t Appliance::references(const std::string& vsys, const std::string& profile) const {
    auto it = references_.find({vsys, profile});
    return it == references_.end() ? 0 : it->second;
}

void Appliance::refuse_line(unsigned nth, int code) {
    if (nth == 0) throw std::invalid_argument("refuse_line: lines are counted from 1");
    refuse_at_ = RefuseAt{lines_seen_ + nth, code};
}

void Appliance::fail_send(int code) { fail_send_ = code; }

void Appliance::fail_vsys_removal(int code) { fail_vsys_removal_ = code; }

// ---- persistence ------------------------------------------------------------------------------

void Appliance::save(const std::filesystem::path& file) const {
    detail::XmlWriter xml;
    xml.open("appliance", kStoreNamespace);
    detail::write_configuration(xml, config_);
    if (!references_.empty()) {
        xml.open("references");
        for (const auto& [key, count] : references_) {
            xml.open("reference");
            xml.leaf("vsys", key.first);
            xml.leaf("profile", key.second);
            xml.leaf("count", std::to_string(count));
            xml.close();
        }
        xml.close();
    }
    xml.close();
    write_file_atomically(file.string(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + xml.take(), 0644, true);
}

void Appliance::load(const std::filesystem::path& file) {
    const std::string where = file.string();
    std::unique_ptr<xmlDoc, void (*)(xmlDoc*)> doc(detail::parse_xml(read_file(file), where), xmlFreeDoc);
    const xmlNode* root = xmlDocGetRootElement(doc.get());
    if (root == nullptr || !detail::is_element(root, "appliance") || !in_namespace(root, kStoreNamespace))
        throw ConfigurationError(where + ": not a saved appliance state");
    Configuration wanted;
    std::vector<std::tuple<std::string, std::string, std::string>> refs;
    for (const xmlNode* c = root->children; c != nullptr; c = c->next) {
        if (c->type != XML_ELEMENT_NODE) continue;
        if (detail::is_element(c, "antivirus") && in_namespace(c, kNamespace)) {
            wanted = detail::read_configuration(c);
        } else if (detail::is_element(c, "references")) {
            for (const xmlNode* r = c->children; r != nullptr; r = r->next) {
                if (r->type != XML_ELEMENT_NODE) continue;
                std::string vsys, profile, count;
                for (const xmlNode* f = r->children; f != nullptr; f = f->next) {
                    if (detail::is_element(f, "vsys")) vsys = detail::text_of(f);
                    else if (detail::is_element(f, "profile")) profile = detail::text_of(f);
                    else if (detail::is_element(f, "count")) count = detail::text_of(f);
                }
                refs.emplace_back(vsys, profile, count);
            }
        } else {
            throw ConfigurationError(where + ": unexpected element <" +
                                     std::string(reinterpret_cast<const char*>(c->name)) + ">");
        }
    }
    Appliance loaded;
    loaded.config_ = rebuild(wanted, where);
    for (const auto& [vsys, profile, count] : refs) {
        if (!detail::all_digits(count) || count.size() > 10 || std::stoull(count) > 0xFFFFFFFFull ||
            !loaded.set_references(vsys, profile, static_cast<std::uint32_t>(std::stoull(count))))
            throw ConfigurationError(where + ": bad reference count for profile \"" + profile + "\" in vsys \"" +
                                     vsys + "\"");
    }
    config_ = std::move(loaded.config_);
    references_ = std::move(loaded.references_);
}

}  // namespace tavrik::appliance
