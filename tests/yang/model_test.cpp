// The data model against the module: every callback-table path names a node
// of the model, and every node of the model has a row.
#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "module.hpp"

namespace {

TEST(Model, TablePathsAndModelNodesMatchOneToOne) {
    const auto* table = tktest::exported<const transapi_data_callbacks*>("clbks");
    ly_ctx* ctx = nullptr;
    ASSERT_EQ(ly_ctx_new(TAVRIK_YANG_DIR, 0, &ctx), LY_SUCCESS);
    const std::unique_ptr<ly_ctx, decltype(&ly_ctx_destroy)> owner(ctx, &ly_ctx_destroy);
    const lys_module* model = ly_ctx_load_module(ctx, "tavrik-antivirus", nullptr, nullptr);
    ASSERT_NE(model, nullptr);
    std::set<const lysc_node*> with_row;
    for (int row = 0; row < table->callbacks_count; ++row) {
        // The path in libyang's notation: module names for the prefixes of the namespace mapping.
        std::string path = table->callbacks[row].path;
        for (const auto* pair = tktest::exported<const ns_pair*>("namespace_mapping"); pair->prefix; ++pair)
            if (const lys_module* module = ly_ctx_get_module_implemented_ns(ctx, pair->href))
                for (size_t at = path.find(pair->prefix + std::string(":")); at != std::string::npos;
                     at = path.find(pair->prefix + std::string(":"), at))
                    path.replace(at, strlen(pair->prefix), module->name);
        const lysc_node* node = lys_find_path(ctx, nullptr, path.c_str(), 0);
        ASSERT_NE(node, nullptr) << "row " << row << ": " << table->callbacks[row].path;
        with_row.insert(node);
        // Rows 0..62 are configuration, 63..106 state.
        EXPECT_EQ((node->flags & LYS_CONFIG_W) != 0, row < 63) << path;
    }
    size_t nodes = 0;
    for (const lysc_node* top = model->compiled->data; top; top = top->next) {
        const lysc_node* node = nullptr;
        LYSC_TREE_DFS_BEGIN(top, node) {
            // The two roots carry no row: the table lists the nodes below them.
            if (node != top && (node->nodetype & (LYS_CONTAINER | LYS_LIST | LYS_LEAF | LYS_LEAFLIST))) {
                ++nodes;
                EXPECT_TRUE(with_row.count(node)) << node->name << " has no row in the callback table";
            }
            LYSC_TREE_DFS_END(top, node);
        }
    }
    EXPECT_EQ(nodes, with_row.size());
    // The timeout handler reads the preceding action: action comes first.
    const lysc_node* action = lys_find_path(ctx, nullptr, "/tavrik-antivirus:antivirus/vsys/profiles/profile/exception-signature/action", 0);
    EXPECT_STREQ(action && action->next ? action->next->name : "", "timeout");
}

}  // namespace
