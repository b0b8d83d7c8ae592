#include "nacm.hpp"

#include <libyang/libyang.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "tavrik/netconf/datastore.hpp"

namespace tavrik::netconf::detail {

// One rule of a rule-list.
struct NacmRule {
    enum class Kind { Any, Operation, Notification, Data };
    std::string module = "*";
    Kind kind = Kind::Any;
    std::string name = "*";                // rpc-name or notification-name
    std::optional<DataPath> path;          // Data: nullopt when the path names no node
    unsigned access = kAll;
    bool permit = false;
};

struct NacmRuleList {
    std::vector<std::string> groups;
    std::vector<NacmRule> rules;
};

// The compiled /nacm configuration.
struct NacmRules {
    bool enabled = true;
    bool read_permit = true, write_permit = false, exec_permit = true;
    std::vector<std::pair<std::string, std::vector<std::string>>> groups;  // name, user names
    std::vector<NacmRuleList> lists;
};

namespace {

std::string_view value(const lyd_node* node) {
    const char* text = lyd_get_value(node);
    return text ? text : "";
}

unsigned access_bits(std::string_view text) {
    static constexpr std::pair<std::string_view, unsigned> kNames[] = {
        {"create", kCreate}, {"read", kRead}, {"update", kUpdate}, {"delete", kDelete}, {"exec", kExec}, {"*", kAll}};
    unsigned bits = 0;
    while (!text.empty()) {
        const auto space = text.find(' ');
        const std::string_view word = text.substr(0, space);
        for (const auto& [name, bit] : kNames)
            if (word == name) bits |= bit;
        text = space == std::string_view::npos ? std::string_view() : text.substr(space + 1);
    }
    return bits;
}

NacmRule compile_rule(const ly_ctx* ctx, const lyd_node* entry) {
    NacmRule rule;
    for (const lyd_node* leaf = lyd_child(entry); leaf; leaf = leaf->next) {
        const std::string_view name = LYD_NAME(leaf);
        if (name == "module-name") rule.module = value(leaf);
        else if (name == "access-operations") rule.access = access_bits(value(leaf));
        else if (name == "action") rule.permit = value(leaf) == "permit";
        else if (name == "rpc-name" || name == "notification-name") {
            rule.kind = name == "rpc-name" ? NacmRule::Kind::Operation : NacmRule::Kind::Notification;
            rule.name = value(leaf);
        } else if (name == "path") {
            rule.kind = NacmRule::Kind::Data;
            rule.path = value(leaf) == "/" ? DataPath{} : parse_data_path(ctx, value(leaf));
        }
    }
    return rule;
}

// Whether the schema node or one above it carries the ietf-netconf-acm
// extension `name`.
bool marked(const lysc_node* schema, const char* name) {
    for (; schema; schema = schema->parent) {
        LY_ARRAY_COUNT_TYPE i;
        LY_ARRAY_FOR(schema->exts, i) {
            const lysc_ext* def = schema->exts[i].def;
            if (!std::strcmp(def->name, name) && !std::strcmp(def->module->name, kNacmModule)) return true;
        }
    }
    return false;
}

bool marked(const DataPath& path, const char* name) {
    return std::any_of(path.begin(), path.end(), [&](const PathStep& step) { return marked(step.schema, name); });
}

// The value of key `name` of a path step.
std::optional<std::string_view> key_of(const PathStep& step, std::string_view name) {
    if (step.data) {
        if (name == ".") return value(step.data);
        for (const lyd_node* child = lyd_child(step.data); child; child = child->next)
            if (child->schema && child->schema->name == name) return value(child);
        return std::nullopt;
    }
    for (const auto& [key, text] : step.keys)
        if (key == name) return std::string_view(text);
    return std::nullopt;
}

// Whether the rule's path names the node of `path` or one above it.
bool covers(const DataPath& rule, const DataPath& path) {
    if (rule.size() > path.size()) return false;
    for (std::size_t i = 0; i < rule.size(); ++i) {
        if (rule[i].schema != path[i].schema) return false;
        for (const auto& [key, text] : rule[i].keys)
            if (key_of(path[i], key) != std::string_view(text)) return false;
    }
    return true;
}

}  // namespace

// ---- paths -------------------------------------------------------------------

std::optional<DataPath> parse_data_path(const ly_ctx* ctx, std::string_view path) {
    DataPath out;
    const lys_module* module = nullptr;
    std::size_t i = 0;
    const auto name_at = [&](std::size_t& at) {
        const std::size_t end = path.find_first_of("/[=]", at);
        std::string_view text = path.substr(at, end == std::string_view::npos ? path.size() - at : end - at);
        at += text.size();
        return text;
    };
    while (i < path.size()) {
        if (path[i++] != '/') return std::nullopt;
        std::string_view name = name_at(i);
        if (const auto colon = name.find(':'); colon != std::string_view::npos) {
            module = ly_ctx_get_module_implemented(const_cast<ly_ctx*>(ctx), std::string(name.substr(0, colon)).c_str());
            name.remove_prefix(colon + 1);
        }
        if (!module) return std::nullopt;
        PathStep step;
        step.schema = lys_find_child(out.empty() ? nullptr : out.back().schema, module, name.data(), name.size(), 0, 0);
        if (!step.schema) return std::nullopt;
        while (i < path.size() && path[i] == '[') {
            std::string_view key = name_at(++i);
            if (const auto colon = key.find(':'); colon != std::string_view::npos) key.remove_prefix(colon + 1);
            if (i + 2 >= path.size() || path[i] != '=' || (path[i + 1] != '\'' && path[i + 1] != '"')) return std::nullopt;
            const char quote = path[i + 1];
            const std::size_t close = path.find(quote, i + 2);
            if (close == std::string_view::npos || close + 1 >= path.size() || path[close + 1] != ']') return std::nullopt;
            step.keys.emplace_back(key, path.substr(i + 2, close - i - 2));
            i = close + 2;
        }
        out.push_back(std::move(step));
    }
    return out;
}

// ---- decisions ---------------------------------------------------------------

NacmPolicy::NacmPolicy(std::shared_ptr<const NacmRules> rules, const std::string& user, bool bypass) {
    if (bypass || !rules || !rules->enabled) return;
    rules_ = std::move(rules);
    std::vector<std::string_view> groups;
    for (const auto& [name, users] : rules_->groups)
        if (std::find(users.begin(), users.end(), user) != users.end()) groups.push_back(name);
    grouped_ = !groups.empty();
    for (std::size_t i = 0; grouped_ && i < rules_->lists.size(); ++i)
        for (const std::string& group : rules_->lists[i].groups)
            if (group == "*" || std::find(groups.begin(), groups.end(), group) != groups.end()) {
                lists_.push_back(i);
                break;
            }
}

// The action of the first rule of the requester's rule-lists that matches;
// nullopt when none does. `operation`: the rpc or notification asked for;
// `path`: the data node.
std::optional<bool> NacmPolicy::ruled(Access access, const char* module, const lysc_node* operation,
                                      const DataPath* path) const {
    using Kind = NacmRule::Kind;
    const Kind kind = path ? Kind::Data : access == kExec ? Kind::Operation : Kind::Notification;
    for (const std::size_t list : lists_) {
        for (const NacmRule& rule : rules_->lists[list].rules) {
            if (!(rule.access & access) || (rule.module != "*" && rule.module != module)) continue;
            if (rule.kind != Kind::Any && rule.kind != kind) continue;
            if (kind == Kind::Data && rule.kind == Kind::Data && !(rule.path && covers(*rule.path, *path))) continue;
            if (kind != Kind::Data && rule.kind != Kind::Any && rule.name != "*" && rule.name != operation->name)
                continue;
            return rule.permit;
        }
    }
    return std::nullopt;
}

bool NacmPolicy::may_exec(const lysc_node* rpc) const {
    if (!rules_) return true;
    const std::string_view name = rpc->name;
    const bool netconf = !std::strcmp(rpc->module->name, "ietf-netconf");
    if (netconf && name == "close-session") return true;
    if (auto action = ruled(kExec, rpc->module->name, rpc, nullptr)) return *action;
    if (marked(rpc, "default-deny-all")) return false;
    if (netconf && (name == "kill-session" || name == "delete-config")) return false;
    return rules_->exec_permit;
}

bool NacmPolicy::may_access(const DataPath& path, Access access) const {
    if (!rules_ || path.empty()) return true;
    if (auto action = ruled(access, path.back().schema->module->name, nullptr, &path)) return *action;
    if (marked(path, "default-deny-all")) return false;
    if (access != kRead && marked(path, "default-deny-write")) return false;
    return access == kRead ? rules_->read_permit : rules_->write_permit;
}

bool NacmPolicy::may_receive(const lyd_node* notification) const {
    if (!rules_) return true;
    const lyd_node* event = nullptr;
    const lyd_node* node = nullptr;
    bool readable = true;
    LYD_TREE_DFS_BEGIN(notification, node) {
        if (node->schema && node->schema->nodetype == LYS_NOTIF && !event) event = node;
        if (node->schema && (node->schema->nodetype & LYD_NODE_TERM) &&
            reinterpret_cast<const lysc_node_leaf*>(node->schema)->type->basetype == LY_TYPE_INST) {
            const auto path = parse_data_path(LYD_CTX(node), value(node));
            if (path && !may_access(*path, kRead)) readable = false;
        }
        LYD_TREE_DFS_END(notification, node);
    }
    if (!event || !readable) return readable;
    if (auto action = ruled(kRead, event->schema->module->name, event->schema, nullptr)) return *action;
    if (marked(event->schema, "default-deny-all")) return false;
    return rules_->read_permit;
}

void NacmPolicy::prune(lyd_node*& tree) const {
    if (!rules_) return;
    DataPath path;
    prune_below(tree, path);
}

void NacmPolicy::prune_below(lyd_node*& first, DataPath& path) const {
    for (lyd_node* node = first; node;) {
        lyd_node* next = node->next;
        if (node->schema && !(node->schema->flags & LYS_KEY)) {
            path.push_back(PathStep{node->schema, node, {}});
            if (!may_access(path, kRead)) {
                if (node == first) first = next;
                lyd_free_tree(node);
            } else if (lyd_node* child = lyd_child(node)) {
                prune_below(child, path);
            }
            path.pop_back();
        }
        node = next;
    }
}

// ---- the configuration -------------------------------------------------------

Nacm::Nacm(std::vector<std::string> superusers) : superusers_(std::move(superusers)), rules_(std::make_shared<NacmRules>()) {}

Nacm::~Nacm() = default;

void Nacm::refresh(Datastore& datastore, const ly_ctx* ctx) {
    const std::uint64_t version = datastore.running_version();
    {
        std::lock_guard lock(mutex_);
        if (loaded_ && version == version_) return;
    }
    ReadRequest request;
    request.module = kNacmModule;
    Reading reading = datastore.read(ctx, request);
    engine::DataTree owned(reading.running);
    load(ctx, owned.get());
    std::lock_guard lock(mutex_);
    version_ = version;
    loaded_ = true;
}

void Nacm::load(const ly_ctx* ctx, const lyd_node* nacm) {
    auto rules = std::make_shared<NacmRules>();
    for (const lyd_node* node = nacm ? lyd_child(nacm) : nullptr; node; node = node->next) {
        const std::string_view name = LYD_NAME(node);
        if (name == "enable-nacm") rules->enabled = value(node) == "true";
        else if (name == "read-default") rules->read_permit = value(node) == "permit";
        else if (name == "write-default") rules->write_permit = value(node) == "permit";
        else if (name == "exec-default") rules->exec_permit = value(node) == "permit";
        else if (name == "groups") {
            for (const lyd_node* group = lyd_child(node); group; group = group->next) {
                auto& [group_name, users] = rules->groups.emplace_back();
                for (const lyd_node* leaf = lyd_child(group); leaf; leaf = leaf->next)
                    (std::string_view(LYD_NAME(leaf)) == "name" ? group_name : users.emplace_back()) = value(leaf);
            }
        } else if (name == "rule-list") {
            NacmRuleList& list = rules->lists.emplace_back();
            for (const lyd_node* child = lyd_child(node); child; child = child->next) {
                const std::string_view field = LYD_NAME(child);
                if (field == "group") list.groups.emplace_back(value(child));
                else if (field == "rule") list.rules.push_back(compile_rule(ctx, child));
            }
        }
    }
    std::lock_guard lock(mutex_);
    rules_ = std::move(rules);
}

bool Nacm::bypasses(const std::string& user, bool recovery) const {
    return recovery || std::find(superusers_.begin(), superusers_.end(), user) != superusers_.end();
}

NacmPolicy Nacm::policy(const std::string& user, bool recovery) const {
    const bool bypass = bypasses(user, recovery);
    std::lock_guard lock(mutex_);
    return NacmPolicy(rules_, user, bypass);
}

std::optional<engine::RpcError> Nacm::check_exec(const NacmPolicy& policy, const lyd_node* rpc) {
    if (policy.may_exec(rpc->schema)) return std::nullopt;
    ++denied_operations_;
    return engine::RpcError(engine::ErrorType::Protocol, engine::ErrorTag::AccessDenied,
                            std::string("access to the operation <") + LYD_NAME(rpc) + "> is denied");
}

engine::ChangeCheck Nacm::write_check(NacmPolicy policy) {
    if (!policy.enforced()) return {};
    return [this, policy = std::move(policy)](const engine::ChangeView& changes) -> std::optional<engine::RpcError> {
        static constexpr std::pair<Access, const char*> kAccess[] = {
            {kCreate, "create"}, {kDelete, "delete"}, {kUpdate, "update"}};  // in the order of ChangeKind
        for (std::size_t i = 0; i < changes.size(); ++i) {
            const auto [access, verb] = kAccess[static_cast<std::size_t>(changes.kind(i))];
            const std::string where = changes.path(i);
            const std::optional<DataPath> path = parse_data_path(LYD_CTX(changes.node(i)), where);
            if (!path || policy.may_access(*path, access)) continue;
            ++denied_data_writes_;
            return engine::RpcError(engine::ErrorType::Application, engine::ErrorTag::AccessDenied,
                                    std::string("access denied: this user may not ") + verb + " " + where, where,
                                    LYD_NAME(changes.node(i)));
        }
        return std::nullopt;
    };
}

bool Nacm::may_receive(Datastore& datastore, const std::string& user, bool recovery, const lyd_node* notification) {
    if (bypasses(user, recovery)) return true;
    refresh(datastore, LYD_CTX(notification));
    if (policy(user, recovery).may_receive(notification)) return true;
    ++denied_notifications_;
    return false;
}

void Nacm::report_counters(const ly_ctx* ctx, lyd_node*& tree) const {
    const lys_module* module = ly_ctx_get_module_implemented(const_cast<ly_ctx*>(ctx), kNacmModule);
    if (!module) return;
    lyd_node* nacm = nullptr;
    for (lyd_node* node = tree; node && !nacm; node = node->next)
        if (node->schema && node->schema->module == module) nacm = node;
    if (!nacm) {
        if (lyd_new_inner(nullptr, module, "nacm", 0, &nacm) != LY_SUCCESS) return;
        lyd_insert_sibling(tree, nacm, &tree);
    }
    const std::pair<const char*, std::uint32_t> counters[] = {{"denied-operations", denied_operations_},
                                                              {"denied-data-writes", denied_data_writes_},
                                                              {"denied-notifications", denied_notifications_}};
    for (const auto& [name, count] : counters)
        lyd_new_term(nacm, module, name, std::to_string(count).c_str(), 0, nullptr);
}

}  // namespace tavrik::netconf::detail
