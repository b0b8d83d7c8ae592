#include "tavrik/netconf/xpath_filter.hpp"

#include <libyang/libyang.h>

#include <memory>
#include <string>

namespace tavrik::netconf {
namespace {

struct SetFree {
    void operator()(ly_set* set) const { ly_set_free(set, nullptr); }
};
using Set = std::unique_ptr<ly_set, SetFree>;

struct TreeFree {
    void operator()(lyd_node* tree) const { lyd_free_siblings(tree); }
};

}  // namespace

lyd_node* apply_xpath_filter(const lyd_node* data, std::string_view select) {
    if (!data) return nullptr;
    const std::string expression(select);
    ly_set* found = nullptr;
    if (lyd_find_xpath3(nullptr, data, expression.c_str(), nullptr, &found) != LY_SUCCESS) {
        const char* message = ly_errmsg(LYD_CTX(data));
        throw XPathError(message ? message : "the XPath expression cannot be evaluated");
    }
    const Set set(found);
    std::unique_ptr<lyd_node, TreeFree> result;
    for (uint32_t i = 0; i < set->count; ++i) {
        lyd_node* copy = nullptr;
        if (lyd_dup_single(set->dnodes[i], nullptr, LYD_DUP_RECURSIVE | LYD_DUP_WITH_PARENTS | LYD_DUP_WITH_FLAGS,
                           &copy) != LY_SUCCESS)
            throw std::runtime_error("cannot copy a selected node");
        while (copy->parent) copy = lyd_parent(copy);
        lyd_node* first = result.release();
        const LY_ERR merged = lyd_merge_siblings(&first, copy, LYD_MERGE_DESTRUCT);
        result.reset(first);
        if (merged != LY_SUCCESS) throw std::runtime_error("cannot merge a selected node");
    }
    return result.release();
}

bool xpath_reaches(const ly_ctx* ctx, std::string_view select, std::string_view ns) {
    const std::string expression(select);
    ly_set* found = nullptr;
    if (lys_find_xpath_atoms(ctx, nullptr, expression.c_str(), 0, &found) != LY_SUCCESS) return true;
    const Set atoms(found);
    if (atoms->count == 0) return true;
    for (uint32_t i = 0; i < atoms->count; ++i) {
        const lysc_node* top = atoms->snodes[i];
        while (top->parent) top = top->parent;
        if (ns == top->module->ns) return true;
    }
    return false;
}

}  // namespace tavrik::netconf
