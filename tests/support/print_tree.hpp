// A libyang data tree (with its siblings) as XML text.
#pragma once

#include <libyang/libyang.h>

#include <cstdlib>
#include <string>

namespace tktest {

inline std::string print_tree(const lyd_node* tree, uint32_t options = 0) {
    char* text = nullptr;
    lyd_print_mem(&text, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS | options);
    std::string out = text ? text : "";
    std::free(text);
    return out;
}

// Implicit nodes (defaults, non-presence containers) included.
inline std::string print_all(const lyd_node* tree) { return print_tree(tree, LYD_PRINT_WD_ALL); }

}  // namespace tktest
