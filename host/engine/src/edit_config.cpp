// NETCONF edit-config on a libyang tree. The payload is read with libxml2 so
// that the NETCONF operation attributes and the line of every element are at
// hand; nodes are created through libyang, which checks every value against
// its type.
#include "edit_config.hpp"

#include <libxml/parser.h>

#include <cctype>
#include <cstdlib>

namespace tavrik::engine {
namespace {

constexpr const char* kNetconfNs = "urn:ietf:params:xml:ns:netconf:base:1.0";

enum class Operation { Merge, Replace, Create, Delete, Remove, None };

constexpr std::pair<const char*, Operation> kOperations[] = {
    {"merge", Operation::Merge},   {"replace", Operation::Replace}, {"create", Operation::Create},
    {"delete", Operation::Delete}, {"remove", Operation::Remove},
};

Operation operation_of(DefaultOperation op) {
    switch (op) {
        case DefaultOperation::Replace: return Operation::Replace;
        case DefaultOperation::None: return Operation::None;
        case DefaultOperation::Merge: break;
    }
    return Operation::Merge;
}

bool is_blank(std::string_view text) { return text.find_first_not_of(" \t\r\n") == std::string_view::npos; }
bool is_blank(const xmlChar* text) { return !text || is_blank(reinterpret_cast<const char*>(text)); }

bool is_text(const xmlNode* n) { return n->type == XML_TEXT_NODE || n->type == XML_CDATA_SECTION_NODE; }

std::string name_of(const xmlNode* e) { return text_of(e->name); }

bool has_content(const lyd_node* node) {
    for (const lyd_node* c = lyd_child(node); c; c = c->next)
        if (!lysc_is_key(c->schema)) return true;
    return false;
}

class Applier {
public:
    Applier(const lys_module* model, Tree& tree) : model_(model), ctx_(model->ctx), tree_(tree) {}

    std::optional<RpcError> run(std::string_view xml, Operation default_op) {
        if (is_blank(xml)) return std::nullopt;
        XmlDoc doc = parse(xml);
        if (!doc) return error_;
        const xmlNode* root = xmlDocGetRootElement(doc.get());
        if (is_wrapper(root))
            apply_children(root, nullptr, default_op);
        else
            apply(root, nullptr, default_op);
        return error_;
    }

private:
    XmlDoc parse(std::string_view xml) {
        std::unique_ptr<xmlParserCtxt, void (*)(xmlParserCtxtPtr)> parser(xmlNewParserCtxt(), xmlFreeParserCtxt);
        if (!parser) return fail_doc("out of memory", 0);
        XmlDoc doc(xmlCtxtReadMemory(parser.get(), xml.data(), static_cast<int>(xml.size()), nullptr, nullptr,
                                     XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_BIG_LINES));
        if (doc && xmlDocGetRootElement(doc.get())) return doc;
        const xmlError* e = xmlCtxtGetLastError(parser.get());
        std::string message = e && e->message ? e->message : "not well-formed XML";
        while (!message.empty() && std::isspace(static_cast<unsigned char>(message.back()))) message.pop_back();
        return fail_doc("Malformed XML: " + message + ".", e ? e->line : 0);
    }

    XmlDoc fail_doc(std::string message, int line) {
        error_ = RpcError{"rpc", "malformed-message", std::move(message), "", line};
        return nullptr;
    }

    static bool is_wrapper(const xmlNode* root) {
        const std::string name = name_of(root);
        return (name == "config" || name == "data") && (!root->ns || text_of(root->ns->href) == kNetconfNs);
    }

    // Applies the element children of `e` below `node` (null: top level).
    bool apply_children(const xmlNode* e, lyd_node* node, Operation inherited) {
        for (const xmlNode* c = e->children; c; c = c->next) {
            if (c->type == XML_ELEMENT_NODE) {
                if (!apply(c, node, inherited)) return false;
            } else if (is_text(c) && !is_blank(c->content)) {
                return fail(e, "bad-element", "Unexpected text in element \"" + name_of(e) + "\".");
            }
        }
        return true;
    }

    bool apply(const xmlNode* e, lyd_node* parent, Operation inherited) {
        const lysc_node* schema = schema_of(e, parent);
        if (!schema) return false;
        if (lysc_is_key(schema)) return true;  // keys are the identity of their list entry
        Operation op = inherited;
        if (!read_operation(e, op)) return false;

        std::string lookup;  // list: key predicate; leaf-list: value; leaf: its value
        if (schema->nodetype & LYD_NODE_TERM) {
            if (!leaf_text(e, lookup)) return false;
        } else if (schema->nodetype == LYS_LIST) {
            if (!key_predicate(e, schema, lookup)) return false;
        }
        lyd_node* target = nullptr;
        if (!find(e, parent, schema, lookup, target)) return false;

        switch (op) {
            case Operation::Delete:
                if (!target)
                    return fail(e, "data-missing", "Cannot delete \"" + name_of(e) + "\": it does not exist.",
                                path_below(parent, schema, lookup));
                remove(target);
                return true;
            case Operation::Remove:
                if (target) remove(target);
                return true;
            case Operation::Create:
                if (target)
                    return fail(e, "data-exists", "Cannot create \"" + name_of(e) + "\": it already exists.",
                                path_of(target));
                return create(e, parent, schema, lookup, op);
            case Operation::Replace:
                if (target) remove(target);
                return create(e, parent, schema, lookup, op);
            case Operation::Merge:
                if (!target) return create(e, parent, schema, lookup, op);
                if (schema->nodetype == LYS_LEAF) return change_value(e, target, lookup);
                return (schema->nodetype & LYD_NODE_TERM) || apply_children(e, target, op);
            case Operation::None:
                if (target) return (schema->nodetype & LYD_NODE_TERM) || apply_children(e, target, op);
                if (schema->nodetype & LYD_NODE_TERM) return true;
                return none_on_missing(e, parent, schema, lookup);
        }
        return true;
    }

    // "none" on a node that does not exist: the node comes into being only
    // if an operation below it creates something.
    bool none_on_missing(const xmlNode* e, lyd_node* parent, const lysc_node* schema, const std::string& lookup) {
        lyd_node* shell = new_node(e, parent, schema, lookup);
        if (!shell || !apply_children(e, shell, Operation::None)) return false;
        if (!has_content(shell)) remove(shell);
        return true;
    }

    bool create(const xmlNode* e, lyd_node* parent, const lysc_node* schema, const std::string& lookup,
                Operation op) {
        lyd_node* node = new_node(e, parent, schema, lookup);
        if (!node) return false;
        return (schema->nodetype & LYD_NODE_TERM) || apply_children(e, node, op);
    }

    lyd_node* new_node(const xmlNode* e, lyd_node* parent, const lysc_node* schema, const std::string& lookup) {
        const lys_module* module = parent ? nullptr : model_;
        lyd_node* node = nullptr;
        LY_ERR err;
        if (schema->nodetype == LYS_LIST)
            err = lyd_new_list2(parent, module, schema->name, lookup.c_str(), 0, &node);
        else if (schema->nodetype & LYD_NODE_TERM)
            err = lyd_new_term(parent, module, schema->name, lookup.c_str(), 0, &node);
        else
            err = lyd_new_inner(parent, module, schema->name, 0, &node);
        if (err != LY_SUCCESS) {
            fail_libyang(e, "invalid-value", path_below(parent, schema, lookup));
            return nullptr;
        }
        if (!parent) {
            lyd_node* first = tree_.release();
            lyd_insert_sibling(first, node, &first);
            tree_.reset(first);
        }
        return node;
    }

    bool change_value(const xmlNode* e, lyd_node* leaf, const std::string& value) {
        LY_ERR err = lyd_change_term(leaf, value.c_str());
        if (err == LY_SUCCESS || err == LY_EEXIST || err == LY_ENOT) return true;
        return fail_libyang(e, "invalid-value", path_of(leaf));
    }

    void remove(lyd_node* node) {
        if (node->parent) {
            lyd_free_tree(node);
            return;
        }
        lyd_node* first = tree_.release();
        if (first == node) first = node->next;
        lyd_free_tree(node);
        tree_.reset(first);
    }

    bool find(const xmlNode* e, lyd_node* parent, const lysc_node* schema, const std::string& lookup,
              lyd_node*& target) {
        const lyd_node* siblings = parent ? lyd_child(parent) : tree_.get();
        target = nullptr;
        if (!siblings) return true;
        const char* key = (schema->nodetype & (LYS_LIST | LYS_LEAFLIST)) ? lookup.c_str() : nullptr;
        LY_ERR err = lyd_find_sibling_val(siblings, schema, key, 0, &target);
        if (err == LY_SUCCESS || err == LY_ENOTFOUND) return true;
        return fail_libyang(e, "invalid-value", path_below(parent, schema, lookup));
    }

    const lysc_node* schema_of(const xmlNode* e, const lyd_node* parent) {
        const std::string name = name_of(e);
        if (!e->ns || text_of(e->ns->href) != model_->ns)
            return fail_schema(e, "Element \"" + name + "\" is not in the namespace of " + model_->name + " (" +
                                      model_->ns + ").");
        const lysc_node* schema =
            lys_find_child(parent ? parent->schema : nullptr, model_, name.c_str(), 0, 0, 0);
        if (!schema) {
            std::string where = parent ? "in \"" + std::string(parent->schema->name) + "\"" : "at the top level";
            return fail_schema(e, "Unknown element \"" + name + "\" " + where + ".");
        }
        if (!(schema->flags & LYS_CONFIG_W)) {
            fail(e, "invalid-value", "\"" + name + "\" is state data; it cannot be configured.");
            return nullptr;
        }
        return schema;
    }

    const lysc_node* fail_schema(const xmlNode* e, std::string message) {
        fail(e, "unknown-element", std::move(message));
        return nullptr;
    }

    bool read_operation(const xmlNode* e, Operation& op) {
        xmlChar* value = xmlGetNsProp(e, reinterpret_cast<const xmlChar*>("operation"),
                                      reinterpret_cast<const xmlChar*>(kNetconfNs));
        if (!value) return true;
        const std::string name = text_of(value);
        xmlFree(value);
        for (const auto& [word, operation] : kOperations) {
            if (name == word) {
                op = operation;
                return true;
            }
        }
        RpcError error{"protocol", "bad-attribute",
                       "Unknown operation \"" + name + "\" on \"" + name_of(e) +
                           "\" (merge, replace, create, delete or remove).",
                       "", static_cast<int>(xmlGetLineNo(e))};
        error_ = std::move(error);
        return false;
    }

    bool leaf_text(const xmlNode* e, std::string& text) {
        for (const xmlNode* c = e->children; c; c = c->next) {
            if (is_text(c))
                text += text_of(c->content);
            else if (c->type == XML_ELEMENT_NODE)
                return fail(e, "bad-element", "\"" + name_of(e) + "\" holds a value, not elements.");
        }
        return true;
    }

    // The list entry's keys as a predicate "[k1='v1'][k2='v2']".
    bool key_predicate(const xmlNode* e, const lysc_node* list, std::string& predicate) {
        for (const lysc_node* key = lysc_node_child(list); key && lysc_is_key(key); key = key->next) {
            const xmlNode* element = nullptr;
            for (const xmlNode* c = e->children; c && !element; c = c->next)
                if (c->type == XML_ELEMENT_NODE && name_of(c) == key->name) element = c;
            if (!element)
                return fail(e, "missing-element",
                            "List entry \"" + name_of(e) + "\" has no key \"" + key->name + "\".");
            std::string value;
            if (!leaf_text(element, value)) return false;
            char quote = value.find('\'') == std::string::npos ? '\'' : '"';
            if (quote == '"' && value.find('"') != std::string::npos)
                return fail(element, "invalid-value",
                            "Key \"" + std::string(key->name) + "\" holds both kinds of quotes, which cannot be named.");
            predicate += "[" + std::string(key->name) + "=" + quote + value + quote + "]";
        }
        return true;
    }

    std::string path_below(const lyd_node* parent, const lysc_node* schema, const std::string& lookup) const {
        std::string path = parent ? path_of(parent) + "/" : "/" + std::string(model_->name) + ":";
        path += schema->name;
        if (schema->nodetype == LYS_LIST) path += lookup;
        if (schema->nodetype == LYS_LEAFLIST) path += "[.='" + lookup + "']";
        return path;
    }

    bool fail(const xmlNode* e, const char* tag, std::string message, std::string path = {}) {
        error_ = RpcError{"application", tag, std::move(message), std::move(path), static_cast<int>(xmlGetLineNo(e))};
        return false;
    }

    bool fail_libyang(const xmlNode* e, const char* tag, const std::string& path) {
        error_ = libyang_error(ctx_, tag, path);
        error_->line = static_cast<int>(xmlGetLineNo(e));
        return false;
    }

    const lys_module* model_;
    const ly_ctx* ctx_;
    Tree& tree_;
    std::optional<RpcError> error_;
};

}  // namespace

RpcError libyang_error(const ly_ctx* ctx, const char* tag, const std::string& fallback_path) {
    RpcError error{"application", tag, "", fallback_path, 0};
    const ly_err_item* e = ly_err_last(ctx);
    error.message = e && e->msg ? e->msg : "The data model refused the data.";
    const std::string where = e && e->path ? e->path : "";
    constexpr std::string_view kData = "Data location \"";
    if (auto at = where.find(kData); at != std::string::npos) {
        auto start = at + kData.size();
        error.path = where.substr(start, where.find('"', start) - start);
    }
    constexpr std::string_view kLine = "ine number ";
    if (auto at = where.find(kLine); at != std::string::npos) error.line = std::atoi(where.c_str() + at + kLine.size());
    return error;
}

std::string path_of(const lyd_node* node) {
    char* path = lyd_path(node, LYD_PATH_STD, nullptr, 0);
    std::string result = path ? path : "";
    std::free(path);
    return result;
}

std::optional<RpcError> apply_edit(const lys_module* model, std::string_view xml,
                                   DefaultOperation default_operation, Tree& tree) {
    QuietLibyang quiet;
    return Applier(model, tree).run(xml, operation_of(default_operation));
}

std::optional<RpcError> validate_tree(const lys_module* model, Tree& tree) {
    QuietLibyang quiet;
    lyd_node* first = tree.release();
    LY_ERR err = lyd_validate_all(&first, model->ctx, LYD_VALIDATE_NO_STATE, nullptr);
    tree.reset(first);
    if (err == LY_SUCCESS) return std::nullopt;
    return libyang_error(model->ctx, "invalid-value");
}

std::optional<RpcError> parse_config(const lys_module* model, std::string_view xml, Tree& tree) {
    if (auto error = apply_edit(model, xml, DefaultOperation::Merge, tree)) return error;
    return validate_tree(model, tree);
}

}  // namespace tavrik::engine
