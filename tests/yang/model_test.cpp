// The data model against the module: every callback-table path names a node
// of the model, and every node of the model has a row.
#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <set>
#include <string>

#include "module.hpp"

namespace {

class Model : public ::testing::Test {
protected:
    void SetUp() override {
        tavrik::runtime::reset();
        table_ = tktest::exported<const transapi_data_callbacks*>("clbks");
        mapping_ = tktest::exported<const ns_pair*>("namespace_mapping");
        ASSERT_EQ(ly_ctx_new(TAVRIK_YANG_DIR, 0, &ctx_), LY_SUCCESS);
        model_ = ly_ctx_load_module(ctx_, "tavrik-antivirus", nullptr, nullptr);
        ASSERT_NE(model_, nullptr);
    }
    void TearDown() override { ly_ctx_destroy(ctx_); }
    // A table path in libyang's notation: module names for the prefixes of
    // the namespace mapping.
    std::string schema_path(std::string path) const {
        for (const ns_pair* pair = mapping_; pair->prefix; ++pair) {
            const lys_module* module = ly_ctx_get_module_implemented_ns(ctx_, pair->href);
            if (!module) continue;
            const std::string prefix = std::string(pair->prefix) + ":";
            for (size_t at = path.find(prefix); at != std::string::npos; at = path.find(prefix, at))
                path.replace(at, prefix.size(), std::string(module->name) + ":");
        }
        return path;
    }

    const transapi_data_callbacks* table_ = nullptr;
    const ns_pair* mapping_ = nullptr;
    ly_ctx* ctx_ = nullptr;
    const lys_module* model_ = nullptr;
};

TEST_F(Model, TablePathsAndModelNodesMatchOneToOne) {
    std::set<const lysc_node*> with_row;
    for (int row = 0; row < table_->callbacks_count; ++row) {
        const std::string path = schema_path(table_->callbacks[row].path);
        const lysc_node* node = lys_find_path(ctx_, nullptr, path.c_str(), 0);
        EXPECT_NE(node, nullptr) << "row " << row << ": " << table_->callbacks[row].path;
        if (!node) continue;
        with_row.insert(node);
        // Rows 0..62 are configuration, 63..106 state.
        EXPECT_EQ((node->flags & LYS_CONFIG_W) != 0, row < 63) << path;
    }
    size_t nodes = 0;
    for (const lysc_node* top = model_->compiled->data; top; top = top->next) {
        const lysc_node* node = nullptr;
        LYSC_TREE_DFS_BEGIN(top, node) {
            // The two roots carry no row: the table lists the nodes below them.
            if (node != top && (node->nodetype & (LYS_CONTAINER | LYS_LIST | LYS_LEAF | LYS_LEAFLIST))) {
                ++nodes;
                char* path = lysc_path(node, LYSC_PATH_DATA, nullptr, 0);
                EXPECT_TRUE(with_row.count(node)) << path << " has no row in the callback table";
                free(path);
            }
            LYSC_TREE_DFS_END(top, node);
        }
    }
    EXPECT_EQ(nodes, with_row.size());
}

// The timeout handler reads the preceding action: action comes first.
TEST_F(Model, SignatureActionComesBeforeItsTimeout) {
    const lysc_node* action =
        lys_find_path(ctx_, nullptr, "/tavrik-antivirus:antivirus/vsys/profiles/profile/exception-signature/action", 0);
    ASSERT_NE(action, nullptr);
    ASSERT_NE(action->next, nullptr);
    EXPECT_STREQ(action->next->name, "timeout");
}

}  // namespace
