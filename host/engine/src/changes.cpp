#include "changes.hpp"

#include <cstring>
#include <utility>

namespace tavrik::engine {
namespace {

bool is_term(const lyd_node* node) { return node->schema->nodetype & LYD_NODE_TERM; }

// Whether a node is configured: not an implicit default, and a non-presence
// container only while something in it is configured.
bool present(const lyd_node* node) {
    if (node->flags & LYD_DEFAULT) return false;
    if (node->schema->nodetype != LYS_CONTAINER || (node->schema->flags & LYS_PRESENCE)) return true;
    for (const lyd_node* child = lyd_child(node); child; child = child->next)
        if (present(child)) return true;
    return false;
}

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

bool same_value(const lyd_node* a, const lyd_node* b) {
    const char* x = lyd_get_value(a);
    const char* y = lyd_get_value(b);
    return x == y || (x && y && std::strcmp(x, y) == 0);  // values live in the context's dictionary
}

// Changes are found again while rendering through the nodes' user pointer:
// index + 1, 0 for an unchanged node.
void tag(const lyd_node* node, size_t value) {
    if (node) const_cast<lyd_node*>(node)->priv = reinterpret_cast<void*>(value);
}
size_t tag_of(const lyd_node* node) { return reinterpret_cast<size_t>(node->priv); }

const xmlChar* xml_text(const char* text) { return reinterpret_cast<const xmlChar*>(text); }

}  // namespace

ChangeSet::ChangeSet(const lyd_node* old_tree, const lyd_node* new_tree) {
    compare(old_tree, new_tree, -1);
    render(Old, old_tree);
    render(New, new_tree);
    for (const Change& change : changes_) {
        tag(change.data[Old], 0);
        tag(change.data[New], 0);
    }
}

int ChangeSet::add(int op, int parent, const lyd_node* old_node, const lyd_node* new_node) {
    const int index = static_cast<int>(changes_.size());
    Change& change = changes_.emplace_back();
    change.op = op;
    change.parent = parent;
    change.schema = (new_node ? new_node : old_node)->schema;
    change.data[Old] = old_node;
    change.data[New] = new_node;
    tag(old_node, index + 1);
    tag(new_node, index + 1);
    return index;
}

void ChangeSet::compare(const lyd_node* old_first, const lyd_node* new_first, int parent) {
    for (const lyd_node* node = new_first; node; node = node->next) {
        if (!present(node)) continue;
        const lyd_node* old_node = counterpart(old_first, node);
        if (!old_node) {
            subtree(node, New, XMLDIFF_ADD, parent);
        } else if (is_term(node)) {
            if (node->schema->nodetype == LYS_LEAF && !same_value(old_node, node))
                add(XMLDIFF_MOD, parent, old_node, node);
        } else {
            const int index = add(XMLDIFF_CHAIN, parent, old_node, node);
            compare(lyd_child(old_node), lyd_child(node), index);
            if (changes_.size() == static_cast<size_t>(index) + 1) {  // nothing below changed
                tag(old_node, 0);
                tag(node, 0);
                changes_.pop_back();
            }
        }
    }
    for (const lyd_node* node = old_first; node; node = node->next)
        if (present(node) && !counterpart(new_first, node)) subtree(node, Old, XMLDIFF_REM, parent);
}

void ChangeSet::subtree(const lyd_node* node, Side side, int op, int parent) {
    const int index = add(op, parent, side == Old ? node : nullptr, side == New ? node : nullptr);
    for (const lyd_node* child = lyd_child(node); child; child = child->next)
        if (present(child)) subtree(child, side, op, index);
}

void ChangeSet::render(Side side, const lyd_node* first) {
    xmlDoc* doc = xmlNewDoc(xml_text("1.0"));
    doc->dict = xmlDictCreate();  // element names are shared, not copied per node
    docs_[side].reset(doc);
    for (const lyd_node* node = first; node; node = node->next) render(side, node, nullptr, nullptr);
}

void ChangeSet::render(Side side, const lyd_node* node, xmlNode* parent, xmlNs* ns) {
    const size_t index = tag_of(node);
    if (!index && (!is_term(node) || (node->flags & LYD_DEFAULT))) return;  // outside the module's view
    xmlDoc* doc = docs_[side].get();
    xmlNode* element = xmlNewDocNode(doc, ns, xml_text(node->schema->name), nullptr);
    if (parent) {
        xmlAddChild(parent, element);
    } else {
        if (xmlNode* root = xmlDocGetRootElement(doc))
            xmlAddSibling(root, element);
        else
            xmlDocSetRootElement(doc, element);
        ns = xmlNewNs(element, xml_text(node->schema->module->ns), nullptr);
        xmlSetNs(element, ns);
    }
    if (index) changes_[index - 1].xml[side] = element;
    if (is_term(node)) {
        const char* value = lyd_get_value(node);
        if (value && *value) xmlAddChild(element, xmlNewDocText(doc, xml_text(value)));
        return;
    }
    for (const lyd_node* child = lyd_child(node); child; child = child->next) render(side, child, element, ns);
}

int ChangeSet::parent_op(size_t index, int level) const {
    int at = static_cast<int>(index);
    for (int step = 0; step < level; ++step) {
        at = changes_[at].parent;
        if (at < 0) return XMLDIFF_NONE;
    }
    return level < 1 ? XMLDIFF_NONE : changes_[at].op;
}

void ChangeSet::reverse(const std::vector<char>& undo) {
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
