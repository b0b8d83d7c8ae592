// NETCONF XPath filtering (the :xpath capability) of a data tree.
//
// The expression is in libyang's JSON form, with module names as prefixes:
// that is how libyang keeps the select attribute of a <filter> it parsed,
// having resolved the prefixes the client declared (on the filter element
// or its ancestors) against the namespaces in scope.
#pragma once

#include <stdexcept>
#include <string_view>

struct lyd_node;
struct ly_ctx;

namespace tavrik::netconf {

// An expression libyang cannot evaluate to a node set; libyang's message.
class XPathError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Returns the nodes `select` selects in `data` (top-level siblings) with
// their ancestors and the keys of their list ancestors, as a new tree in the
// data's context (caller frees with lyd_free_siblings; null when nothing is
// selected). Throws XPathError, or std::runtime_error when libyang fails to
// copy a node.
lyd_node* apply_xpath_filter(const lyd_node* data, std::string_view select);

// Whether `select` can select anything of the module with namespace `ns`:
// some node the expression names lies in a top-level node of that module.
// True when the expression names no node, or libyang cannot tell.
bool xpath_reaches(const ly_ctx* ctx, std::string_view select, std::string_view ns);

}  // namespace tavrik::netconf
