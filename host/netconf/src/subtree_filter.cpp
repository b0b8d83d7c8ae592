#include "tavrik/netconf/subtree_filter.hpp"

#include <libyang/libyang.h>

#include <stdexcept>
#include <string_view>
#include <vector>

namespace tavrik::netconf {
namespace {

constexpr std::string_view kNetconfBase = "urn:ietf:params:xml:ns:netconf:base:1.0";

std::string_view namespace_of(const lyd_node* node) {
    if (node->schema) return node->schema->module->ns;
    const auto* opaq = reinterpret_cast<const lyd_node_opaq*>(node);
    if (opaq->format == LY_VALUE_XML && opaq->name.module_ns) return opaq->name.module_ns;
    return {};
}

bool has_text(std::string_view text) { return text.find_first_not_of(" \t\r\n") != std::string_view::npos; }

struct FilterNode {
    enum Kind { Containment, Selection, ContentMatch };
    const lyd_node* node;
    std::string_view name;
    std::string_view ns;  // empty: any module
    Kind kind;
    std::string_view text;

    bool matches(const lyd_node* data) const {
        return name == LYD_NAME(data) && (ns.empty() || ns == namespace_of(data));
    }
    bool value_matches(const lyd_node* data) const {
        const char* value = lyd_get_value(data);
        return value && text == value;
    }
};

// Namespace a filter element asks for; empty: any.
std::string_view filter_namespace(const lyd_node* node) {
    const std::string_view ns = namespace_of(node);
    return ns == kNetconfBase ? std::string_view() : ns;
}

std::vector<FilterNode> classify(const lyd_node* filter) {
    std::vector<FilterNode> nodes;
    for (const lyd_node* f = filter; f; f = f->next) {
        FilterNode node{f, LYD_NAME(f), filter_namespace(f), FilterNode::Selection, {}};
        if (lyd_child(f)) {
            node.kind = FilterNode::Containment;
        } else if (const char* text = lyd_get_value(f); text && has_text(text)) {
            node.kind = FilterNode::ContentMatch;
            node.text = text;
        }
        nodes.push_back(node);
    }
    return nodes;
}

void check(LY_ERR err) {
    if (err == LY_EMEM) throw std::bad_alloc();
    if (err != LY_SUCCESS) throw std::runtime_error("cannot copy data for the filter output");
}

// Where selected nodes go: under the copy of their parent, or the top-level
// list of the output.
class Output {
public:
    Output(lyd_node* parent, lyd_node** first) : parent_(parent), first_(first) {}

    // The copy of `data` made so far in this output, if any.
    lyd_node* existing(const lyd_node* data) const {
        lyd_node* match = nullptr;
        const lyd_node* siblings = parent_ ? lyd_child(parent_) : *first_;
        if (siblings && lyd_find_sibling_first(siblings, data, &match) == LY_SUCCESS) return match;
        return nullptr;
    }

    // Copies `data` with its whole subtree.
    void add_whole(const lyd_node* data) {
        produced_ = true;
        if (lyd_node* old = existing(data)) {
            // A key leaf arrives with its list entry; a partial copy is
            // superseded by the whole subtree.
            if (lysc_is_key(data->schema)) return;
            unlink(old);
        }
        attach(data, LYD_DUP_RECURSIVE);
    }

    // Copies `data` without its children (a list entry keeps its keys) or
    // finds the copy made before. `created` tells which.
    lyd_node* add_shell(const lyd_node* data, bool& created) {
        if (lyd_node* old = existing(data)) {
            created = false;
            return old;
        }
        created = true;
        return attach(data, 0);
    }

    void remove(lyd_node* copy) { unlink(copy); }
    void mark_produced() { produced_ = true; }
    bool produced() const { return produced_; }

private:
    lyd_node* attach(const lyd_node* data, uint32_t options) {
        lyd_node* copy = nullptr;
        check(lyd_dup_single(data, reinterpret_cast<lyd_node_inner*>(parent_), options, &copy));
        if (!parent_) check(lyd_insert_sibling(*first_, copy, first_));
        return copy;
    }

    void unlink(lyd_node* node) {
        if (!parent_ && *first_ == node) *first_ = node->next;
        lyd_free_tree(node);
    }

    lyd_node* parent_;
    lyd_node** first_;
    bool produced_ = false;
};

// Applies the filter siblings to the children of one data node (or to the
// top-level data). Returns false when a content match node finds no equal
// value: the data node is not selected then.
bool select(const lyd_node* data, const std::vector<FilterNode>& filter, Output& out) {
    bool only_content = true;
    for (const auto& f : filter) {
        if (f.kind != FilterNode::ContentMatch) {
            only_content = false;
            continue;
        }
        bool found = false;
        for (const lyd_node* d = data; d && !found; d = d->next) found = f.matches(d) && f.value_matches(d);
        if (!found) return false;
    }
    for (const lyd_node* d = data; d; d = d->next) {
        if (only_content) {
            out.add_whole(d);
            continue;
        }
        bool whole = false;
        std::vector<const FilterNode*> containments;
        for (const auto& f : filter) {
            if (!f.matches(d)) continue;
            if (f.kind == FilterNode::Selection || (f.kind == FilterNode::ContentMatch && f.value_matches(d)))
                whole = true;
            else if (f.kind == FilterNode::Containment && d->schema && (d->schema->nodetype & LYD_NODE_INNER))
                containments.push_back(&f);
        }
        if (whole) {
            out.add_whole(d);
            continue;
        }
        for (const FilterNode* f : containments) {
            bool created = false;
            lyd_node* copy = out.add_shell(d, created);
            lyd_node* unused_first = nullptr;
            Output inner(copy, &unused_first);
            const bool selected = select(lyd_child(d), classify(lyd_child(f->node)), inner);
            if (selected && inner.produced())
                out.mark_produced();
            else if (created)
                out.remove(copy);
        }
    }
    return true;
}

}  // namespace

bool filter_reaches(const lyd_node* filter, std::string_view ns) {
    for (const lyd_node* f = filter; f; f = f->next) {
        const std::string_view wanted = filter_namespace(f);
        if (wanted.empty() || wanted == ns) return true;
    }
    return false;
}

lyd_node* apply_subtree_filter(const lyd_node* data, const lyd_node* filter) {
    lyd_node* first = nullptr;
    if (!filter) return nullptr;
    try {
        Output out(nullptr, &first);
        if (!select(data, classify(filter), out)) {
            lyd_free_siblings(first);
            return nullptr;
        }
    } catch (...) {
        lyd_free_siblings(first);
        throw;
    }
    return first;
}

}  // namespace tavrik::netconf
