// Server functions that configuration modules call while handling a change.
#include <cstring>
#include <deque>
#include <string>

#include "tavrik/runtime.hpp"

namespace tavrik::runtime {

ScriptedParents::ScriptedParents(std::initializer_list<std::pair<const int, int>> ops) {
    for (const auto& [level, op] : ops) set(level, op);
}

void ScriptedParents::set(int level, int op) {
    for (auto& entry : ops_) {
        if (entry.first == level) {
            entry.second = op;
            return;
        }
    }
    ops_.emplace_back(level, op);
}

int ScriptedParents::parentOp(int level) const {
    for (const auto& [l, op] : ops_)
        if (l == level) return op;
    return 0;
}

namespace {
std::deque<std::string>& joined_texts() {
    static std::deque<std::string> texts;
    return texts;
}

bool is_text(const xmlNode* n) {
    return n->type == XML_TEXT_NODE || n->type == XML_CDATA_SECTION_NODE;
}

// The text of `node` when it is not one text child: none, or several
// joined and kept until release_texts().
const char* joined_content(const xmlNode* node) {
    const xmlNode* only = nullptr;
    int texts = 0;
    for (const xmlNode* c = node->children; c != nullptr; c = c->next) {
        if (is_text(c)) {
            if (texts++ == 0) only = c;
        }
    }
    if (texts == 0) return nullptr;
    if (texts == 1) return reinterpret_cast<const char*>(only->content);
    std::string joined;
    for (const xmlNode* c = node->children; c != nullptr; c = c->next)
        if (is_text(c) && c->content != nullptr) joined += reinterpret_cast<const char*>(c->content);
    return joined_texts().emplace_back(std::move(joined)).c_str();
}

// The text of `node` (see get_node_content): a single text child in place,
// inline; anything else through joined_content.
inline const char* content_of(const xmlNode* node) {
    const xmlNode* only = node->children;
    if (only != nullptr && only->next == nullptr && is_text(only)) return reinterpret_cast<const char*>(only->content);
    return joined_content(node);
}
}  // namespace

void release_texts() { joined_texts().clear(); }

void free_error(nc_err* error) { delete error; }

}  // namespace tavrik::runtime

using namespace tavrik::runtime;

extern "C" XMLDIFF_OP priority_transapi_find_parent_op_by_xmldiff(void** data, int level) {
    if (data == nullptr || *data == nullptr || level < 1) return XMLDIFF_NONE;
    return static_cast<XMLDIFF_OP>(static_cast<const EditContext*>(*data)->parentOp(level));
}

extern "C" const char* get_node_content(xmlNodePtr node) { return node == nullptr ? nullptr : content_of(node); }

extern "C" const char* priority_transapi_find_parent_key_node_content(int level, xmlNodePtr node, const char* key) {
    if (node == nullptr || key == nullptr) return nullptr;
    xmlNode* ancestor = node;
    for (int i = 0; i < level; ++i) {
        ancestor = ancestor->parent;
        if (ancestor == nullptr || ancestor->type != XML_ELEMENT_NODE) return nullptr;
    }
    // Keys come first in their entry: the C library's compare, not a call into libxml2 per byte.
    for (xmlNode* c = ancestor->children; c != nullptr; c = c->next) {
        if (c->type == XML_ELEMENT_NODE && std::strcmp(reinterpret_cast<const char*>(c->name), key) == 0)
            return content_of(c);
    }
    return nullptr;
}

extern "C" int fail_nc_err(struct nc_err** error, char* message, char* path, int flag, int tag) {
    Refusal refusal{message ? message : "", path ? path : "", flag, tag};
    if (journaling()) journal().refusals.push_back(refusal);
    if (error != nullptr) {
        delete *error;
        *error = new nc_err{tag, flag, refusal.message, refusal.path};
    }
    return 1;
}

// The datastore of this server keeps the module's configuration itself (the
// host engine); these entries exist so that modules can name them and do
// nothing of their own.
extern "C" int custom_init(void*) { return 0; }
extern "C" void custom_free(void*) {}
extern "C" int custom_changed(void*) { return 0; }
extern "C" int custom_rollback(void*) { return 0; }
extern "C" int custom_lock(void*, NC_DATASTORE, const char*, struct nc_err**) { return 0; }
extern "C" int custom_unlock(void*, NC_DATASTORE, const char*, struct nc_err**) { return 0; }
extern "C" char* custom_getconfig(void*, NC_DATASTORE, struct nc_err**) { return nullptr; }
extern "C" int custom_copyconfig(void*, NC_DATASTORE, NC_DATASTORE, char*, struct nc_err**) { return 0; }
extern "C" int custom_deleteconfig(void*, NC_DATASTORE, struct nc_err**) { return 0; }
extern "C" int custom_editconfig(void*, const void*, NC_DATASTORE, const char*, int, NC_EDIT_ERROPT_TYPE,
                                 struct nc_err**) {
    return 0;
}
