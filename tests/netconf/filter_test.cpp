// Subtree filtering of the daemon's data trees (XPath filters: ncclient_test.py).
#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <memory>
#include <string>

#include "print_tree.hpp"
#include "tavrik/netconf/subtree_filter.hpp"

namespace tavrik::netconf {
namespace {

constexpr const char* kNs = "urn:tavrik:params:xml:ns:yang:tavrik-antivirus";

std::string av(const std::string& body, const std::string& ns = kNs) {
    return "<antivirus xmlns=\"" + ns + "\">" + body + "</antivirus>";
}

const std::string kData = av(
    "<vsys><name>vs1</name><profiles><profile><name>p1</name><description>office</description>"
    "<detect><protocol-type>http</protocol-type></detect></profile>"
    "<profile><name>p2</name></profile></profiles></vsys>"
    "<vsys><name>vs2</name><antivirus-enable>true</antivirus-enable></vsys>");

struct Trees {
    Trees() {
        ly_ctx_new(TKAV_YANG_DIR, 0, &model);
        ly_ctx_load_module(model, "tavrik-antivirus", nullptr, nullptr);
        ly_ctx_new(nullptr, 0, &bare);
    }
    ~Trees() {
        ly_ctx_destroy(model);
        ly_ctx_destroy(bare);
    }
    lyd_node* data(const std::string& xml) const { return parse(model, xml, LYD_PARSE_STRICT); }
    // As the daemon gets a filter: opaque nodes, no schema.
    lyd_node* filter(const std::string& xml) const { return parse(bare, xml, LYD_PARSE_OPAQ); }
    static lyd_node* parse(const ly_ctx* ctx, const std::string& xml, uint32_t options) {
        lyd_node* tree = nullptr;
        EXPECT_EQ(lyd_parse_data_mem(ctx, xml.c_str(), LYD_XML, LYD_PARSE_ONLY | options, 0, &tree), LY_SUCCESS)
            << xml;
        return tree;
    }
    ly_ctx* model = nullptr;
    ly_ctx* bare = nullptr;
};

std::string print(const lyd_node* tree) { return tktest::print_tree(tree, LYD_PRINT_SHRINK); }

struct Case {
    const char* what;
    std::string filter;
    std::string expected;  // data selected; "" nothing
};

class SubtreeFilterTest : public ::testing::TestWithParam<Case> {};

TEST_P(SubtreeFilterTest, SelectsWhatTheFilterAsks) {
    const Case& c = GetParam();
    Trees trees;
    lyd_node* data = trees.data(kData);
    lyd_node* filter = trees.filter(c.filter);
    lyd_node* selected = apply_subtree_filter(data, filter);
    lyd_node* expected = c.expected.empty() ? nullptr : trees.data(c.expected);
    EXPECT_EQ(print(selected), print(expected));
    lyd_free_siblings(selected);
    lyd_free_siblings(expected);
    lyd_free_siblings(filter);
    lyd_free_siblings(data);
}

INSTANTIATE_TEST_SUITE_P(
    Filters, SubtreeFilterTest,
    ::testing::Values(
        Case{"selection of the top", av(""), kData},
        Case{"another namespace", av("", "urn:example:other"), ""},
        Case{"no such key", av("<vsys><name>vs9</name></vsys>"), ""},
        Case{"content match beside a selection", av("<vsys><antivirus-enable>true</antivirus-enable><profiles/></vsys>"),
             av("<vsys><name>vs2</name><antivirus-enable>true</antivirus-enable></vsys>")},
        Case{"two filters on one entry merge",
             av("<vsys><name>vs1</name><profiles><profile><name>p1</name><description/></profile></profiles></vsys>"
                "<vsys><name>vs1</name><profiles><profile><name>p1</name><detect/></profile></profiles></vsys>"),
             av("<vsys><name>vs1</name><profiles><profile><name>p1</name><description>office</description>"
                "<detect><protocol-type>http</protocol-type></detect></profile></profiles></vsys>")}));

}  // namespace
}  // namespace tavrik::netconf
