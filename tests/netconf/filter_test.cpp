// Subtree and XPath filtering of the daemon's data trees.
#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "print_tree.hpp"
#include "tavrik/netconf/subtree_filter.hpp"
#include "tavrik/netconf/xpath_filter.hpp"

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

const std::string kVs1Profiles = "<vsys><name>vs1</name><profiles><profile><name>p1</name><description>office</description>"
                                 "<detect><protocol-type>http</protocol-type></detect></profile>"
                                 "<profile><name>p2</name></profile></profiles></vsys>";

INSTANTIATE_TEST_SUITE_P(
    Filters, SubtreeFilterTest,
    ::testing::Values(
        Case{"selection of the top", av(""), kData},
        Case{"in the NETCONF namespace", av("", "urn:ietf:params:xml:ns:netconf:base:1.0"), kData},
        Case{"another namespace", av("", "urn:example:other"), ""},
        Case{"list entry by key", av("<vsys><name>vs1</name></vsys>"), av(kVs1Profiles)},
        Case{"two entries by key", av("<vsys><name>vs2</name></vsys><vsys><name>vs1</name></vsys>"), kData},
        Case{"no such key", av("<vsys><name>vs9</name></vsys>"), ""},
        Case{"selection below a key", av("<vsys><name>vs1</name><profiles><profile><name/></profile></profiles></vsys>"),
             av("<vsys><name>vs1</name><profiles><profile><name>p1</name></profile><profile><name>p2</name></profile>"
                "</profiles></vsys>")},
        Case{"entries that have the selected leaf", av("<vsys><antivirus-enable/></vsys>"),
             av("<vsys><name>vs2</name><antivirus-enable>true</antivirus-enable></vsys>")},
        Case{"content match with another value", av("<vsys><antivirus-enable>false</antivirus-enable></vsys>"), ""},
        Case{"content match beside a selection", av("<vsys><antivirus-enable>true</antivirus-enable><profiles/></vsys>"),
             av("<vsys><name>vs2</name><antivirus-enable>true</antivirus-enable></vsys>")},
        Case{"content match and selection",
             av("<vsys><profiles><profile><name>p1</name><description/></profile></profiles></vsys>"),
             av("<vsys><name>vs1</name><profiles><profile><name>p1</name><description>office</description></profile>"
                "</profiles></vsys>")},
        Case{"two filters on one entry merge",
             av("<vsys><name>vs1</name><profiles><profile><name>p1</name><description/></profile></profiles></vsys>"
                "<vsys><name>vs1</name><profiles><profile><name>p1</name><detect/></profile></profiles></vsys>"),
             av("<vsys><name>vs1</name><profiles><profile><name>p1</name><description>office</description>"
                "<detect><protocol-type>http</protocol-type></detect></profile></profiles></vsys>")},
        Case{"a whole subtree and a part of it",
             av("<vsys><name>vs1</name></vsys><vsys><name>vs1</name><profiles><profile><name/></profile></profiles>"
                "</vsys>"),
             av(kVs1Profiles)}),
    [](const auto& info) {
        std::string name = info.param.what;
        for (char& ch : name)
            if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
        return name;
    });

// Selected nodes come with their ancestors and the keys of those, nothing
// else of the ancestors.
TEST(XPathFilterTest, SelectsNodesWithTheirAncestorsAndKeys) {
    Trees trees;
    lyd_node* data = trees.data(kData);
    const std::string av_ = "/tavrik-antivirus:antivirus";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {av_ + "/vsys/profiles/profile[name='p2']",
         av("<vsys><name>vs1</name><profiles><profile><name>p2</name></profile></profiles></vsys>")},
        {av_ + "/vsys/profiles/profile/description",
         av("<vsys><name>vs1</name><profiles><profile><name>p1</name><description>office</description></profile>"
            "</profiles></vsys>")},
        {av_ + "/vsys[antivirus-enable='true'] | //tavrik-antivirus:protocol-type",
         av("<vsys><name>vs1</name><profiles><profile><name>p1</name><detect><protocol-type>http</protocol-type>"
            "</detect></profile></profiles></vsys><vsys><name>vs2</name><antivirus-enable>true</antivirus-enable>"
            "</vsys>")},
        {av_ + "/vsys[name='none']", ""},
    };
    for (const auto& [select, expected] : cases) {
        SCOPED_TRACE(select);
        lyd_node* selected = apply_xpath_filter(data, select);
        EXPECT_EQ(print(selected), expected);
        lyd_free_siblings(selected);
    }
    EXPECT_THROW(apply_xpath_filter(data, "count(" + av_ + "/vsys)"), XPathError);
    lyd_free_siblings(data);
}

}  // namespace
}  // namespace tavrik::netconf
