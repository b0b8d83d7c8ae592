// Access control decisions on notifications: the notification rules and
// read access to the data an event names (nacm_test.py shows a subscriber
// held to them).
#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <string>

#include "nacm.hpp"

namespace tavrik::netconf::detail {
namespace {

constexpr const char* kAv = "urn:tavrik:params:xml:ns:yang:tavrik-antivirus";
const std::string kProfile = "/av:antivirus/av:vsys[av:name='vs1']/av:profiles/av:profile[av:name='p1']/";

struct Context {
    Context() {
        ly_ctx_new(TKAV_YANG_DIR, 0, &ctx);
        ly_ctx_set_searchdir(ctx, TKAV_IETF_YANG_DIR);
        for (const char* module : {"tavrik-antivirus", "ietf-netconf-acm", "ietf-netconf-notifications"})
            EXPECT_TRUE(ly_ctx_load_module(ctx, module, nullptr, nullptr)) << module;
    }
    ~Context() { ly_ctx_destroy(ctx); }
    lyd_node* parse(const std::string& xml, lyd_type type) const {
        ly_in* in = nullptr;
        lyd_node* tree = nullptr;
        ly_in_new_memory(xml.c_str(), &in);
        const LY_ERR err = type == LYD_TYPE_DATA_YANG
                               ? lyd_parse_data(ctx, nullptr, in, LYD_XML, LYD_PARSE_ONLY, 0, &tree)
                               : lyd_parse_op(ctx, nullptr, in, LYD_XML, type, &tree, nullptr);
        ly_in_free(in, 0);
        EXPECT_EQ(err, LY_SUCCESS) << xml;
        return tree;
    }
    ly_ctx* ctx = nullptr;
};

std::string change_of(const std::string& target) {
    return "<netconf-config-change xmlns='urn:ietf:params:xml:ns:yang:ietf-netconf-notifications'>"
           "<changed-by><username>admin</username><session-id>1</session-id></changed-by>"
           "<edit><target xmlns:av='" + std::string(kAv) + "'>" + target + "</target><operation>merge</operation>"
           "</edit></netconf-config-change>";
}

TEST(NacmTest, NotificationsFollowTheirRulesAndReadAccessToWhatTheyName) {
    const std::string deny_whitelists =
        "<rule><name>w</name><path xmlns:av='" + std::string(kAv) + "'>" + kProfile +
        "av:whitelists</path><access-operations>read</access-operations><action>deny</action></rule>";
    const std::string deny_changes =
        "<rule><name>n</name><notification-name>netconf-config-change</notification-name>"
        "<action>deny</action></rule>";
    struct Case {
        const char* name;
        std::string rule, user, target;
        bool received;
    } cases[] = {
        {"unreadable target", deny_whitelists, "oper", kProfile + "av:whitelists", false},
        {"readable target", deny_whitelists, "oper", kProfile + "av:description", true},
        {"another entry", deny_whitelists, "oper", "/av:antivirus/av:vsys[av:name='vs2']", true},
        {"notification denied", deny_changes, "oper", kProfile + "av:description", false},
        {"user in no group", deny_changes, "bob", kProfile + "av:description", true},
        {"superuser", deny_changes, "admin", kProfile + "av:description", true},
    };
    Context c;
    for (const Case& k : cases) {
        SCOPED_TRACE(k.name);
        engine::DataTree config(c.parse(
            "<nacm xmlns='urn:ietf:params:xml:ns:yang:ietf-netconf-acm'><groups><group><name>g</name>"
            "<user-name>oper</user-name><user-name>admin</user-name></group></groups>"
            "<rule-list><name>l</name><group>g</group>" + k.rule + "</rule-list></nacm>", LYD_TYPE_DATA_YANG));
        Nacm nacm({"admin"});
        nacm.load(c.ctx, config.get());
        engine::DataTree event(c.parse(change_of(k.target), LYD_TYPE_NOTIF_YANG));
        EXPECT_EQ(nacm.policy(k.user).may_receive(event.get()), k.received);
    }
}

}  // namespace
}  // namespace tavrik::netconf::detail
