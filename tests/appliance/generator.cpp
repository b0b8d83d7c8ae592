#include "generator.hpp"

#include <libyang/libyang.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "detail.hpp"

namespace appliance_test {
namespace {

std::string name_of(const Node& n) { return n.schema->name; }

bool is_key(const lysc_node* s) { return s->nodetype == LYS_LEAF && (s->flags & LYS_KEY) != 0; }
bool is_config(const lysc_node* s) { return (s->flags & LYS_CONFIG_W) != 0; }
bool is_value(const lysc_node* s) { return (s->nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0; }
bool is_entry(const lysc_node* s) { return (s->nodetype & (LYS_LIST | LYS_LEAFLIST)) != 0; }

const Node* child(const Node& n, std::string_view name) {
    for (const auto& c : n.children)
        if (name == c.schema->name) return &c;
    return nullptr;
}

std::string text_of(const Node& n, std::string_view name) { return child(n, name) ? child(n, name)->value : ""; }

using tavrik::appliance::detail::protocol_keyword;
using tavrik::appliance::detail::trim;

bool mail(const std::string& protocol) { return protocol == "smtp" || protocol == "pop3"; }

std::string protocol_of(const Chain& chain) {
    for (auto it = chain.rbegin(); it != chain.rend(); ++it)
        if (name_of(**it) == "detect") return protocol_keyword(text_of(**it, "protocol-type"));
    return {};
}

// How the appliance tells list entries and leaf-list values apart: trimmed
// keys, protocol keywords without prefix, the match type implied by the
// value, and one name space for the two forms of signature exceptions.
std::string identity(const Node& n) {
    const std::string name = name_of(n);
    if (n.schema->nodetype == LYS_LEAFLIST)
        return (name == "exception-signature-id" ? "signature" : name) + " " + trim(n.value);
    if (name == "vsys") return "vsys " + text_of(n, "name");
    if (name == "detect") return "detect " + protocol_keyword(text_of(n, "protocol-type"));
    if (name == "exception-signature") return "signature " + trim(text_of(n, "id"));
    if (name == "match-rule") return "rule " + text_of(n, "scope") + " " + trim(text_of(n, "value"));
    std::string id = name;
    for (const auto& c : n.children)
        if (is_key(c.schema)) id += " " + trim(c.value);
    return id;
}

// An entry of the same identity among `siblings`.
bool has_twin(const std::vector<Node>& siblings, const Node& n) {
    return is_entry(n.schema) && std::any_of(siblings.begin(), siblings.end(), [&](const Node& o) {
               return is_entry(o.schema) && identity(o) == identity(n);
           });
}

std::string schema_path(const lysc_node* s) {
    std::unique_ptr<char, void (*)(void*)> path(lysc_path(s, LYSC_PATH_DATA, nullptr, 0), std::free);
    return path ? path.get() : s->name;
}

// Children in the model's order, entries of a list in their own order.
void render(const Node& n, tavrik::appliance::detail::XmlWriter& xml) {
    if (is_value(n.schema)) return xml.leaf(n.schema->name, n.value);
    xml.open(n.schema->name, n.schema->parent ? "" : tavrik::appliance::kNamespace);
    for (const lysc_node* s = lysc_node_child(n.schema); s != nullptr; s = s->next)
        for (const auto& c : n.children)
            if (c.schema == s) render(c, xml);
    xml.close();
}

// States the module cannot carry are not generated: a protocol switched off
// keeps no action, and the aging time has one leaf at a time.
void repair(Node& n) {
    if (name_of(n) == "detect-configuration" && trim(text_of(n, "direction")) == "none")
        std::erase_if(n.children, [](const Node& c) { return name_of(c) == "action"; });
    if (name_of(n) == "global" && child(n, "file-reputation-age-time") && child(n, "file-reputation-age-time-hour"))
        n.children.erase(n.children.begin());
    for (auto& c : n.children) repair(c);
}

}  // namespace

Generator::Generator(const ly_ctx* ctx, std::uint64_t seed, double invalid_rate)
    : rng_(seed), invalid_rate_(invalid_rate) {
    root_.schema = lys_find_path(ctx, nullptr, "/tavrik-antivirus:antivirus", 0);
    if (root_.schema == nullptr) throw std::runtime_error("the model tavrik-antivirus is not loaded");
    previous_ = root_;
}

std::set<std::string> Generator::model_leaves(const ly_ctx* ctx) {
    std::set<std::string> out;
    auto add = [](lysc_node* s, void* leaves, ly_bool*) {
        if (is_config(s) && is_value(s)) static_cast<std::set<std::string>*>(leaves)->insert(schema_path(s));
        return LY_SUCCESS;
    };
    lysc_module_dfs_full(ly_ctx_get_module_implemented(ctx, "tavrik-antivirus"), add, &out);
    return out;
}

namespace {

// Plausible values of a leaf by name (a leading '*' matches the end of the
// name) under a parent ("" for any): the valid ones, the invalid ones (""
// for none; see one_of), and whether a valid one gets blanks around it now
// and then. The first row that matches is used.
struct LeafKind { std::string_view leaf, parent, valid, invalid; bool pad; };
const LeafKind kLeafKinds[] = {
    {"name", "vsys", "vs1|vs2|vs3|public", "vs 4", false},
    {"antivirus-enable", "", "true|false", "True", false},
    {"name", "profile", "p1|p2|web|av one|mail\tscan", "default|bad?", true},
    {"description", "", "Office|  spaced  text |mail & web <all>|x", "why?", false},
    {"*-enable", "", "true|false", "yes", true},
    {"protocol-type", "", "http|ftp|smtp|pop3|imap|nfs|smb", "telnet|HTTP", true},  // with a prefix now and then
    {"application-action", "", "alert|allow|block", "Block", false},
    {"exception-signature-id", "", "#1-400", "abc", true},
    {"id", "exception-signature", "#1-400", "abc", true},
    {"action", "exception-signature", "allow|block-source-ip", "deny", false},
    {"timeout", "", "#1-600", "0", false},
    {"scope", "", "url|host", "URL", false},
    {"type", "", "exact", "", false},  // made to agree with the value when the rule is made
    {"value", "", "www.example.com|*.example.org|example.net/*|*cdn*|a b.com/*|x?y.com|q\"x.com|*", "", true},
    {"*-address", "", "10.0.0.#1-40|10.0.0.#1-40|2001:db8::#1-40", "not-an-ip", false},
    {"file-reputation-age-time", "", "#1-365", "0", false},
    {"file-reputation-age-time-hour", "", "#1-8760", "9000", false},
};

}  // namespace

std::string Generator::one_of(std::string_view options) {
    std::vector<std::string_view> all;
    for (std::size_t start = 0, end = 0; end != options.size(); start = end + 1)
        all.push_back(options.substr(start, (end = std::min(options.find('|', start), options.size())) - start));
    const std::string v(all[pick(all.size())]);
    const std::size_t at = v.find('#');
    if (at == std::string::npos) return v;
    std::uniform_int_distribution<int> number(std::stoi(v.substr(at + 1)), std::stoi(v.substr(v.find('-', at) + 1)));
    return v.substr(0, at) + std::to_string(number(rng_));
}

std::string Generator::value(const lysc_node* leaf, const Chain& chain) {
    coverage_.insert(schema_path(leaf));
    const std::string name = leaf->name, parent = chain.empty() ? "" : name_of(*chain.back());
    const bool bad = chance(invalid_rate_);
    auto pad = [this](std::string v) { return chance(0.15) ? "  " + v + " " : v; };
    if (parent == "detect-configuration") {  // what the protocol admits
        const std::string protocol = protocol_of(chain);
        if (name == "direction" && (bad || chance(0.15))) return bad ? "sideways" : "none";
        if (name == "direction" && mail(protocol)) return protocol == "smtp" ? "upload" : "download";
        if (name == "direction") return pad(one_of("both|upload|download"));
        return bad ? "deny" : one_of(mail(protocol) ? "alert|declare|delete-attachment" : protocol == "nfs" ? "alert" : "alert|block");
    }
    if (name == "application-name") {
        const auto& apps = tavrik::appliance::application_catalogue();
        return bad ? "nosuch" : pad(std::string(apps[pick(apps.size())]));
    }
    for (const LeafKind& k : kLeafKinds) {
        if (!(k.leaf[0] == '*' ? name.ends_with(k.leaf.substr(1)) : name == k.leaf) || !(k.parent.empty() || k.parent == parent))
            continue;
        if (bad && !k.invalid.empty()) return one_of(k.invalid);
        const std::string v = (name == "protocol-type" && chance(0.2) ? "tk-antivirus:" : "") + one_of(k.valid);
        return k.pad ? pad(v) : v;
    }
    throw std::logic_error("the generator has no values for the leaf " + schema_path(leaf));
}

bool Generator::unwanted_timeout(const lysc_node* s, const Node& parent, double keep) {
    return std::string_view(s->name) == "timeout" && text_of(parent, "action") != "block-source-ip" && !chance(keep);
}

Node Generator::make(const lysc_node* schema, Chain chain, int depth) {
    if (is_value(schema)) return {schema, value(schema, chain), {}};
    Node n{schema, {}, {}};
    chain.push_back(&n);
    for (const lysc_node* s = lysc_node_child(schema); s != nullptr; s = s->next)
        if (is_key(s)) n.children.push_back(make(s, chain, depth + 1));
    const std::string name = name_of(n);
    if (name == "match-rule") {
        // The declared type mostly agrees with the value's asterisks.
        std::string implied(tavrik::appliance::match_type(trim(text_of(n, "value"))));
        for (auto& c : n.children)
            if (name_of(c) == "type") c.value = chance(invalid_rate_) ? (implied == "exact" ? "fuzzy" : "exact") : implied;
    }
    if (name.ends_with("-range")) {
        // Both ends of one family, in order (reversed now and then).
        const bool v4 = chance(0.7);
        int a = std::uniform_int_distribution<int>(1, 40)(rng_), b = std::uniform_int_distribution<int>(1, 40)(rng_);
        if ((a > b) != chance(invalid_rate_)) std::swap(a, b);
        for (auto& c : n.children)
            c.value = (v4 ? "10.0.0." : "2001:db8::") + std::to_string(name_of(c) == "start-address" ? a : b);
    }
    const double p = depth < 3 ? 0.7 : 0.45;
    for (const lysc_node* s = lysc_node_child(schema); s != nullptr; s = s->next) {
        if (!is_config(s) || is_key(s) || !chance(p)) continue;
        if (unwanted_timeout(s, n, 0.1)) continue;
        for (std::size_t i = is_entry(s) ? pick(2) : 1; i < 2; ++i) {  // lists: one or two entries
            Node c = make(s, chain, depth + 1);
            if (!has_twin(n.children, c)) n.children.push_back(std::move(c));
        }
    }
    return n;
}

// Adds a node where the model has room for one (r < 0.5), changes a leaf
// (r < 0.75) or removes a node.
bool Generator::mutate(double r) {
    struct Site { Node* parent; std::size_t index; const lysc_node* schema; Chain chain; };  // chain: up to the parent
    std::vector<Site> sites;
    Chain chain;
    auto walk = [&](auto& self, Node& n) -> void {
        chain.push_back(&n);
        for (const lysc_node* s = lysc_node_child(n.schema); r < 0.5 && s != nullptr; s = s->next) {
            auto count = std::count_if(n.children.begin(), n.children.end(), [s](const Node& c) { return c.schema == s; });
            if (is_config(s) && !is_key(s) && count < (is_entry(s) ? 3 : 1)) sites.push_back({&n, 0, s, chain});
        }
        for (std::size_t i = 0; i < n.children.size(); ++i) {
            const lysc_node* s = n.children[i].schema;
            if (r >= 0.5 && !is_key(s) && (r >= 0.75 || s->nodetype == LYS_LEAF)) sites.push_back({&n, i, s, chain});
            if (!is_value(s)) self(self, n.children[i]);
        }
        chain.pop_back();
    };
    walk(walk, root_);
    if (sites.empty()) return false;
    const Site& site = sites[pick(sites.size())];
    auto& siblings = site.parent->children;
    if (r >= 0.75) siblings.erase(siblings.begin() + static_cast<std::ptrdiff_t>(site.index));
    else if (r >= 0.5) siblings[site.index].value = value(site.schema, site.chain);
    else {
        Node made = make(site.schema, site.chain, static_cast<int>(site.chain.size()));
        if (has_twin(siblings, made)) return false;
        if (unwanted_timeout(made.schema, *site.parent, 0.2)) return false;
        siblings.push_back(std::move(made));
    }
    return true;
}

namespace {

const Node* counterpart(const Node& b, const Node& after) {
    for (const auto& a : after.children)
        if (a.schema == b.schema && (!is_entry(b.schema) || identity(a) == identity(b))) return &a;
    return nullptr;
}

// Whether the module's lines carry the change from `before` to `after` to
// the appliance. They do not when an application exception loses its action
// alone, or when a mail protocol's direction goes while its entry stays. (A
// vsys that goes sends nothing, but the engine has the appliance drop it.)
bool carried(const Node& before, const Node& after, Chain& chain) {
    for (const auto& b : before.children) {
        if (is_value(b.schema)) continue;
        const std::string name = name_of(b);
        const Node* a = counterpart(b, after);
        const bool mail_config = name == "detect-configuration" && mail(protocol_of(chain)) && child(b, "direction");
        if (a == nullptr && mail_config) return false;
        if (a == nullptr) continue;
        auto loses = [&](std::string_view leaf) { return child(b, leaf) && !child(*a, leaf); };
        if (name == "exception-application" && loses("application-action")) return false;
        if (mail_config && loses("direction")) return false;
        Chain inner = chain;
        inner.push_back(&b);
        if (!carried(b, *a, inner)) return false;
    }
    return true;
}

// The leaf of `n` the module refuses to make as `n` stands ("" for none):
// the action of a detect-configuration without direction or with white space
// around it (the action handler checks the direction untrimmed), the timeout
// of a signature exception without action. Such nodes arise when another leaf
// is removed or changed alone.
std::string refused_leaf(const Node& n) {
    const std::string direction = text_of(n, "direction");
    const bool undirected = direction.empty() || trim(direction) != direction;
    if (name_of(n) == "detect-configuration" && child(n, "action") && undirected) return "action";
    return name_of(n) == "exception-signature" && child(n, "timeout") && !child(n, "action") ? "timeout" : "";
}

// Whether `after` makes such a leaf anew or with another value.
bool makes_refused(const Node* before, const Node& after) {
    if (const std::string leaf = refused_leaf(after); !leaf.empty())
        return !before || !child(*before, leaf) || text_of(*before, leaf) != text_of(after, leaf);
    return std::any_of(after.children.begin(), after.children.end(), [&](const Node& c) {
        return !is_value(c.schema) && makes_refused(before ? counterpart(c, *before) : nullptr, c);
    });
}

// Carried both ways: the engine undoes a refused edit with the reverse
// change.
bool carried_both_ways(const Node& before, const Node& after) {
    Chain chain;
    return carried(before, after, chain) && carried(after, before, chain) &&
           !makes_refused(&before, after) && !makes_refused(&after, before);
}

}  // namespace

std::string Generator::next() {
    for (int attempt = 0; attempt < 20; ++attempt) {
        root_ = previous_;
        const std::size_t changes = 1 + pick(3);
        for (std::size_t done = 0, tries = 0; done < changes && tries < 50; ++tries) {
            if (mutate(std::uniform_real_distribution<double>(0, 1)(rng_))) ++done;
        }
        repair(root_);
        if (carried_both_ways(previous_, root_)) break;
        root_ = previous_;
    }
    tavrik::appliance::detail::XmlWriter xml;
    render(root_, xml);
    return xml.take();
}

}  // namespace appliance_test
