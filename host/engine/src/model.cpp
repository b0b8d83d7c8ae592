#include "model.hpp"

#include <cstring>
#include <filesystem>

namespace tavrik::engine {
namespace {

// Parses every model of `yang_dir` into `ctx` (those already there stay).
void load_directory(ly_ctx* ctx, const std::string& yang_dir) {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(yang_dir, ec)) {
        if (entry.path().extension() != ".yang") continue;
        const LY_ERR err = lys_parse_path(ctx, entry.path().c_str(), LYS_IN_YANG, nullptr);
        if (err != LY_SUCCESS && err != LY_EEXIST)
            throw EngineError("data model " + entry.path().string() + ": " +
                              describe(libyang_error(ctx, ErrorTag::OperationFailed)));
    }
    if (ec) throw EngineError("cannot read the data model directory " + yang_dir + ": " + ec.message());
}

bool references(const lysc_type* type) {
    if (type->basetype == LY_TYPE_LEAFREF || type->basetype == LY_TYPE_INST) return true;
    if (type->basetype != LY_TYPE_UNION) return false;
    const auto* u = reinterpret_cast<const lysc_type_union*>(type);
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(u->types, i) if (references(u->types[i])) return true;
    return false;
}

std::string schema_path(const lysc_node* node) { return take_text(lysc_path(node, LYSC_PATH_DATA, nullptr, 0)); }

void scan(const lysc_node* first, std::vector<std::string>& found) {
    for (const lysc_node* node = first; node; node = node->next) {
        if (node->flags & LYS_CONFIG_R) continue;  // state data is never edited
        const auto note = [&](const char* what) { found.push_back(std::string(what) + " at " + schema_path(node)); };
        if (LY_ARRAY_COUNT(lysc_node_when(node))) note("when");
        if (LY_ARRAY_COUNT(lysc_node_musts(node))) note("must");
        if (node->flags & LYS_MAND_TRUE) note("mandatory");
        switch (node->nodetype) {
            case LYS_CHOICE: note("choice"); break;
            case LYS_ANYDATA:
            case LYS_ANYXML: note("anydata"); break;
            case LYS_LEAF: {
                const auto* leaf = reinterpret_cast<const lysc_node_leaf*>(node);
                if (references(leaf->type)) note("reference");
                if (leaf->dflt) note("default");
                break;
            }
            case LYS_LEAFLIST: {
                const auto* list = reinterpret_cast<const lysc_node_leaflist*>(node);
                if (references(list->type)) note("reference");
                if (LY_ARRAY_COUNT(list->dflts)) note("default");
                if (list->min > 0 || list->max != UINT32_MAX) note("min-elements/max-elements");
                break;
            }
            case LYS_LIST: {
                const auto* list = reinterpret_cast<const lysc_node_list*>(node);
                if (LY_ARRAY_COUNT(list->uniques)) note("unique");
                if (list->min > 0 || list->max != UINT32_MAX) note("min-elements/max-elements");
                break;
            }
            default: break;
        }
        scan(lysc_node_child(node), found);
    }
}

}  // namespace

std::vector<std::string> nonlocal_constraints(const lys_module* module) {
    std::vector<std::string> found;
    if (module->compiled) scan(module->compiled->data, found);
    return found;
}

bool present(const lyd_node* node) {
    if (node->flags & LYD_DEFAULT) return false;
    if (!node->schema || node->schema->nodetype != LYS_CONTAINER || (node->schema->flags & LYS_PRESENCE)) return true;
    for (const lyd_node* child = lyd_child(node); child; child = child->next)
        if (present(child)) return true;
    return false;
}

Model::Model(const std::string& yang_dir, const std::string& ns, ly_ctx* host,
             const std::vector<std::string>& data_modules)
    : ctx_(host) {
    QuietLibyang quiet;
    if (!ctx_) {
        if (ly_ctx_new(yang_dir.c_str(), LY_CTX_DISABLE_SEARCHDIR_CWD, &ctx_) != LY_SUCCESS)
            throw EngineError("cannot use the data model directory " + yang_dir);
        owned_ = true;
        ly_ctx_set_searchdir(ctx_, TAVRIK_IETF_YANG_DIR);
        if (!ly_ctx_load_module(ctx_, "ietf-netconf", nullptr, nullptr)) {
            ly_ctx_destroy(ctx_);
            throw EngineError("cannot load ietf-netconf from " TAVRIK_IETF_YANG_DIR " (Debian package libyuma-base)");
        }
    }
    try {
        netconf_ = ly_ctx_get_module_implemented(ctx_, "ietf-netconf");
        if (!netconf_) throw EngineError("the host's schema context lacks ietf-netconf");
        module_ = ly_ctx_get_module_implemented_ns(ctx_, ns.c_str());
        if (!module_) {
            load_directory(ctx_, yang_dir);
            module_ = ly_ctx_get_module_implemented_ns(ctx_, ns.c_str());
        }
        if (!module_) throw EngineError("no data model in " + yang_dir + " has the module's namespace " + ns);
        vsys_ = lys_find_path(ctx_, nullptr, ("/" + std::string(module_->name) + ":antivirus/vsys").c_str(), 0);
        served_.push_back({module_, nonlocal_constraints(module_)});
        for (const std::string& name : data_modules) {
            const lys_module* data = ly_ctx_get_module_implemented(ctx_, name.c_str());
            if (!data) data = ly_ctx_load_module(ctx_, name.c_str(), nullptr, nullptr);
            if (!data)
                throw EngineError("cannot load the YANG module " + name + ": " +
                                  describe(libyang_error(ctx_, ErrorTag::OperationFailed)));
            if (served(data)) throw EngineError("the YANG module " + name + " is served already");
            served_.push_back({data, nonlocal_constraints(data)});
        }
    } catch (...) {
        if (owned_) ly_ctx_destroy(ctx_);
        throw;
    }
}

Model::~Model() {
    if (owned_) ly_ctx_destroy(ctx_);
}

const Model::Served* Model::served(const lys_module* module) const {
    for (const Served& s : served_)
        if (s.module == module) return &s;
    return nullptr;
}

const Model::Served* Model::served_ns(const char* ns) const {
    for (const Served& s : served_)
        if (ns && std::strcmp(s.module->ns, ns) == 0) return &s;
    return nullptr;
}

std::string Model::foreign(const std::string& element) const {
    std::string names;
    for (const Served& s : served_)
        names += (names.empty() ? "" : " or ") + std::string(s.module->name) + " (" + s.module->ns + ")";
    return "Element \"" + element + "\" is not in the namespace of " + names + ".";
}

int Model::order(const lysc_node* schema) const {
    if (auto found = order_.find(schema); found != order_.end()) return found->second;
    // Siblings in the order libyang keeps their data: lys_getnext over the
    // parent, through choices and cases; top-level nodes after those of
    // the served modules whose names sort before their module's.
    const lysc_node* parent = lysc_data_parent(schema);
    int index = 0;
    if (!parent)
        for (const Served& s : served_)
            if (std::strcmp(s.module->name, schema->module->name) < 0)
                for (const lysc_node* n = nullptr; (n = lys_getnext(n, nullptr, s.module->compiled, 0));) ++index;
    const lysc_module* compiled = parent ? nullptr : schema->module->compiled;
    for (const lysc_node* s = nullptr; (s = lys_getnext(s, parent, compiled, 0));) order_[s] = index++;
    return order_[schema];
}

}  // namespace tavrik::engine
