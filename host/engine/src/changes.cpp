#include "changes.hpp"

#include <cstdint>
#include <cstring>
#include <utility>

namespace tavrik::engine {
namespace {

bool is_term(const lyd_node* node) { return node->schema->nodetype & LYD_NODE_TERM; }

// The instance of `node` among `siblings` (another tree), if configured:
// list entries and leaf-list values by their identity, anything else by its
// schema node (a leaf whatever its value).
const lyd_node* counterpart(const lyd_node* siblings, const lyd_node* node) {
    if (!siblings) return nullptr;
    lyd_node* match = nullptr;
    const LY_ERR found = (node->schema->nodetype & (LYS_LIST | LYS_LEAFLIST))
                             ? lyd_find_sibling_first(siblings, node, &match)
                             : lyd_find_sibling_val(siblings, node->schema, nullptr, 0, &match);
    return found == LY_SUCCESS && present(match) ? match : nullptr;
}

bool same_value(const char* x, const char* y) { return x == y || (x && y && std::strcmp(x, y) == 0); }

// Changed nodes are found again while rendering through their user pointer:
// index + 1, 0 for an unchanged node.
void tag(const lyd_node* node, size_t value) {
    if (node) const_cast<lyd_node*>(node)->priv = reinterpret_cast<void*>(value);
}
bool tagged(const lyd_node* node) { return node->priv != nullptr; }

const xmlChar* xml_text(const char* text) { return reinterpret_cast<const xmlChar*>(text); }

// Elements carry their node's position among its siblings, so that each
// goes to its place in document order.
int order_of(const xmlNode* element) { return static_cast<int>(reinterpret_cast<std::intptr_t>(element->_private)); }

}  // namespace

ChangeSet::ChangeSet(const Model& model, const lyd_node* old_tree, const lyd_node* new_tree) : model_(model) {
    compare(old_tree, new_tree, -1);
    render();
}

int ChangeSet::add(int op, int parent, const lyd_node* old_node, const lyd_node* new_node, const char* old_value) {
    const int index = static_cast<int>(changes_.size());
    Change& change = changes_.emplace_back();
    change.op = op;
    change.parent = parent;
    change.schema = (new_node ? new_node : old_node)->schema;
    change.data[Old] = old_node;
    change.data[New] = new_node;
    change.old_value = old_value;
    return index;
}

void ChangeSet::drop_if_last(int index) {
    if (changes_.size() == static_cast<size_t>(index) + 1) changes_.pop_back();
}

void ChangeSet::subtree(const lyd_node* node, Side side, int op, int parent) {
    const int index = add(op, parent, side == Old ? node : nullptr, side == New ? node : nullptr);
    for (const lyd_node* child = lyd_child(node); child; child = child->next)
        if (present(child)) subtree(child, side, op, index);
}

void ChangeSet::compare(const lyd_node* old_first, const lyd_node* new_first, int parent) {
    for (const lyd_node* node = new_first; node; node = node->next) {
        if (!present(node)) continue;
        if (const lyd_node* old_node = counterpart(old_first, node))
            compare_pair(old_node, node, parent);
        else
            subtree(node, New, XMLDIFF_ADD, parent);
    }
    for (const lyd_node* node = old_first; node; node = node->next)
        if (present(node) && !counterpart(new_first, node)) subtree(node, Old, XMLDIFF_REM, parent);
}

void ChangeSet::compare_pair(const lyd_node* old_node, const lyd_node* new_node, int parent) {
    const bool before = present(old_node), after = present(new_node);
    if (!before || !after) {
        if (before) subtree(old_node, Old, XMLDIFF_REM, parent);
        if (after) subtree(new_node, New, XMLDIFF_ADD, parent);
        return;
    }
    if (is_term(new_node)) {
        if (new_node->schema->nodetype == LYS_LEAF && !same_value(lyd_get_value(old_node), lyd_get_value(new_node)))
            add(XMLDIFF_MOD, parent, old_node, new_node);
        return;
    }
    const int index = add(XMLDIFF_CHAIN, parent, old_node, new_node);
    compare(lyd_child(old_node), lyd_child(new_node), index);
    drop_if_last(index);
}

void ChangeSet::detached(const lyd_node* root, const lyd_node* parent) { detached_[root] = parent; }

// ---- documents ------------------------------------------------------------------

// Whether the module reads the change: one of its model's (the data
// modules beside it have no callbacks).
bool ChangeSet::rendered(const Change& change) const {
    return lyd_owner_module(change.data[Old] ? change.data[Old] : change.data[New]) == model_.module();
}

// The old document is what the module reads of a removal, and of every
// change on the way back: made when there is a removal, else by reverse().
void ChangeSet::render() {
    render_side(New);
    for (const Change& change : changes_)
        if ((change.op & XMLDIFF_REM) && rendered(change)) return render_side(Old);
}

void ChangeSet::render_side(Side side) {
    for (size_t i = 0; i < changes_.size(); ++i) {
        tag(changes_[i].data[Old], i + 1);
        tag(changes_[i].data[New], i + 1);
    }
    xmlDoc* doc = xmlNewDoc(xml_text("1.0"));
    doc->dict = xmlDictCreate();  // element names are shared, not copied per node
    docs_[side].reset(doc);
    for (size_t i = 0; i < changes_.size(); ++i)
        if (changes_[i].data[side] && rendered(changes_[i])) render(side, i);
    for (const Change& change : changes_) {
        tag(change.data[Old], 0);
        tag(change.data[New], 0);
    }
}

void ChangeSet::render(Side side, size_t index) {
    Change& change = changes_[index];
    const lyd_node* node = change.data[side];
    xmlNode* parent = change.parent < 0 ? nullptr : changes_[change.parent].xml[side];
    const char* value = nullptr;
    if (is_term(node)) value = side == Old && change.old_value ? change.old_value : lyd_get_value(node);
    xmlNode* element = this->element(side, node, value, parent);
    change.xml[side] = element;
    if (change.op != XMLDIFF_CHAIN) return;  // every node below an added or removed one is a change itself
    // The leaves beside the changes below: what the module may look up.
    for (const lysc_node* s = nullptr; (s = lys_getnext(s, node->schema, nullptr, 0));) {
        if (s->nodetype != LYS_LEAF) continue;
        lyd_node* leaf = nullptr;
        if (lyd_find_sibling_val(lyd_child(node), s, nullptr, 0, &leaf) != LY_SUCCESS) continue;
        if (!tagged(leaf) && !(leaf->flags & LYD_DEFAULT)) this->element(side, leaf, lyd_get_value(leaf), element);
    }
}

// A new element for `node` (with `value` as its text) under `parent` (null:
// the document's top level), at its place among the elements there.
xmlNode* ChangeSet::element(Side side, const lyd_node* node, const char* value, xmlNode* parent) {
    xmlDoc* doc = docs_[side].get();
    xmlNode* element = xmlNewDocNode(doc, parent ? parent->ns : nullptr, xml_text(node->schema->name), nullptr);
    const int order = model_.order(node->schema);
    element->_private = reinterpret_cast<void*>(static_cast<std::intptr_t>(order));
    if (value && *value) xmlAddChild(element, xmlNewDocText(doc, xml_text(value)));
    xmlNode* last = parent ? xmlGetLastChild(parent) : nullptr;
    if (!parent) {
        for (xmlNode* n = xmlDocGetRootElement(doc); n; n = n->next) last = n;
    }
    xmlNode* before = last;
    while (before && order_of(before) > order) before = before->prev;
    if (before) {
        xmlAddNextSibling(before, element);
    } else if (last) {  // first of all
        xmlNode* first = last;
        while (first->prev) first = first->prev;
        xmlAddPrevSibling(first, element);
    } else if (parent) {
        xmlAddChild(parent, element);
    } else {
        xmlDocSetRootElement(doc, element);
    }
    if (!parent) xmlSetNs(element, xmlNewNs(element, xml_text(node->schema->module->ns), nullptr));
    return element;
}

// ---- using ------------------------------------------------------------------

int ChangeSet::parent_op(size_t index, int level) const {
    int at = static_cast<int>(index);
    for (int step = 0; step < level; ++step) {
        at = changes_[at].parent;
        if (at < 0) return XMLDIFF_NONE;
    }
    return level < 1 ? XMLDIFF_NONE : changes_[at].op;
}

std::string ChangeSet::path(size_t index) const { return path_of_node(changes_[index].node()); }

std::string ChangeSet::path_of_node(const lyd_node* node) const {
    const lyd_node* top = node;
    while (lyd_parent(top)) top = lyd_parent(top);
    const auto found = detached_.find(top);
    std::string own = engine::path_of(node);
    if (found == detached_.end() || !found->second) return own;
    // "/module:name[keys]/..." below its former parent; the prefix goes
    // where the parent is of the same module.
    const lyd_node* parent = found->second;
    const size_t colon = own.find(':');
    if (colon != std::string::npos && own.compare(1, colon - 1, parent->schema->module->name) == 0)
        own = "/" + own.substr(colon + 1);
    return engine::path_of(parent) + own;
}

void ChangeSet::reverse(const std::vector<char>& undo) {
    if (!docs_[Old]) render_side(Old);
    // The chain changes above whatever is undone run again too, whether or
    // not they ran before the refusal: an entry that states all its leaves in
    // one line (a signature exception) restores them this way, where the
    // leaf's own handler, given the leaf back, sends nothing.
    for (size_t i = 0; i < changes_.size(); ++i) {
        changes_[i].active = undo[i] != 0;
        if (!undo[i]) continue;
        for (int at = changes_[i].parent; at >= 0 && !changes_[at].active; at = changes_[at].parent)
            if (changes_[at].op == XMLDIFF_CHAIN) changes_[at].active = true;
    }
    for (Change& change : changes_) {
        if (!change.active) continue;
        std::swap(change.data[Old], change.data[New]);
        std::swap(change.xml[Old], change.xml[New]);
        if (change.op & (XMLDIFF_ADD | XMLDIFF_REM)) change.op ^= XMLDIFF_ADD | XMLDIFF_REM;
    }
}

}  // namespace tavrik::engine
