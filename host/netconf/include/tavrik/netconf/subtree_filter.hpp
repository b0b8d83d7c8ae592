// NETCONF subtree filtering of a data tree.
//
// The filter is the content of a <filter type="subtree"> element as libyang
// parses it (opaque nodes, or data nodes): containment nodes (elements with
// child elements), selection nodes (empty elements) and content match nodes
// (elements with text). A filter element without a namespace, or in the
// NETCONF base namespace that unqualified elements inherit from the RPC,
// matches elements of any module.
#pragma once

#include <string_view>

struct lyd_node;

namespace tavrik::netconf {

// Returns the selected part of `data` (top-level siblings) as a new tree in
// the data's context (caller frees with lyd_free_siblings; null when nothing
// is selected). A null filter selects nothing. Throws std::bad_alloc or
// std::runtime_error when libyang fails to copy a node.
lyd_node* apply_subtree_filter(const lyd_node* data, const lyd_node* filter);

// Whether the filter can select anything of the module with namespace `ns`
// (a top-level filter element of that namespace or of any module). Lets a
// server skip building data that the filter would drop.
bool filter_reaches(const lyd_node* filter, std::string_view ns);

}  // namespace tavrik::netconf
