// Access control decisions of tkav-netconfd (RFC 8341, section 3.4) on rpcs,
// data nodes and notifications, in the daemon's schema context; the same
// rules end to end over SSH: nacm_test.py.
#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include "nacm.hpp"
#include "tavrik/netconf/options.hpp"
#include "tavrik/netconf/server.hpp"

namespace tavrik::netconf::detail {
namespace {

// Nodes marked with the ietf-netconf-acm extensions, which the served modules lack.
constexpr const char* kMarked = R"(module m { namespace "urn:m"; prefix m; import ietf-netconf-acm { prefix a; }
  leaf w { a:default-deny-write; type string; } rpc r { a:default-deny-all; } notification n { a:default-deny-all; }})";

// The /nacm configurations (JSON, inside the container): none, the defaults set, access control disabled, and rules
// for alice in group ops, bob in audit and ops, nobody (and the superuser admin) in none.
enum Config { kNone, kSet, kOff, kRules };
const std::string kConfigs[] = {"", R"("read-default": "deny", "write-default": "permit", "exec-default": "deny")",
    R"("enable-nacm": false, "exec-default": "deny")",
    R"("groups": {"group": [{"name": "ops", "user-name": ["alice", "bob"]}, {"name": "audit", "user-name": ["bob"]}]},
  "rule-list": [
   {"name": "audit", "group": ["audit"], "rule": [
    {"name": "a", "rpc-name": "kill-session", "access-operations": "exec", "action": "deny"}]},
   {"name": "ops", "group": ["ops"], "rule": [
    {"name": "a", "module-name": "ietf-netconf", "rpc-name": "kill-session", "access-operations": "*",
     "action": "permit"},
    {"name": "b", "notification-name": "netconf-session-end", "action": "deny"},
    {"name": "c", "path": "/tavrik-antivirus:antivirus/vsys[name='vs1']", "access-operations": "create update",
     "action": "permit"},
    {"name": "d", "path": "/tavrik-antivirus:antivirus", "access-operations": "update delete", "action": "deny"},
    {"name": "e", "module-name": "ietf-netconf-monitoring", "access-operations": "read", "action": "deny"}]},
   {"name": "all", "group": ["*"], "rule": [
    {"name": "a", "module-name": "*", "rpc-name": "get", "action": "deny"}]}])"};

const std::string kP1 = "/tavrik-antivirus:antivirus/vsys[name='vs1']/profiles/profile[name='p1']/description",
                  kVs2 = "/tavrik-antivirus:antivirus/vsys[name='vs2']/antivirus-enable", kGet = "/ietf-netconf:get",
                  kKill = "/ietf-netconf:kill-session", kEnd = "/ietf-netconf-notifications:netconf-session-end";
// node: an rpc (op kExec), a notification (kRead) or a data node.
struct Row { Config config; std::string node; Access op; bool permit; const char* user = "alice"; bool recovery{}; };
const Row kRows[] = {
    // No /nacm: the defaults and the built-in denials; the superuser and a recovery session bypass them.
    {kNone, kKill, kExec, false}, {kNone, "/ietf-netconf:delete-config", kExec, false}, {kNone, "/m:r", kExec, false},
    {kNone, "/ietf-netconf-acm:nacm", kRead, false}, {kNone, kP1, kUpdate, false}, {kNone, kKill, kExec, true, "admin"},
    {kNone, "/m:n", kRead, false}, {kNone, kP1, kUpdate, true, "admin"}, {kNone, kKill, kExec, true, "alice", true},
    // The defaults set, default-deny-write holding against write-default permit; access control disabled.
    {kSet, kGet, kExec, false}, {kSet, "/ietf-netconf:close-session", kExec, true}, {kSet, kP1, kRead, false},
    {kSet, kP1, kUpdate, true}, {kSet, "/m:w", kUpdate, false}, {kSet, kEnd, kRead, false},
    {kOff, kKill, kExec, true}, {kOff, "/ietf-netconf-acm:nacm", kRead, true},
    // The rule-lists of the user's groups in order; the first rule that matches decides.
    {kRules, kKill, kExec, true}, {kRules, kKill, kExec, false, "bob"}, {kRules, kP1, kUpdate, true, "bob"},
    {kRules, kP1, kCreate, true}, {kRules, kP1, kDelete, false}, {kRules, kVs2, kUpdate, false},
    {kRules, kP1, kRead, true}, {kRules, "/ietf-netconf-monitoring:netconf-state", kRead, false},
    {kRules, kEnd, kRead, false}, {kRules, "/ietf-netconf-notifications:netconf-config-change", kRead, true},
    {kRules, kGet, kExec, false}, {kRules, kGet, kExec, true, "nobody"}};

TEST(NacmDecisionTest, FollowsTheRules) {
    ly_ctx* ctx = build_context(default_options());
    ASSERT_TRUE(!lys_parse_path(ctx, TKAV_YANG_DIR "/tavrik-antivirus.yang", LYS_IN_YANG, nullptr) &&
                !lys_parse_mem(ctx, kMarked, LYS_IN_YANG, nullptr));
    for (Nacm nacm({"admin"}); const Row& row : kRows) {
        lyd_node *config = nullptr, *event = nullptr;
        const auto json = row.config == kNone ? "" : R"({"ietf-netconf-acm:nacm":{)" + kConfigs[row.config] + "}}";
        ASSERT_FALSE(lyd_parse_data_mem(ctx, json.c_str(), LYD_JSON, LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &config));
        nacm.load(ctx, config);
        const NacmPolicy policy = nacm.policy(row.user, row.recovery);
        const DataPath path = parse_data_path(ctx, row.node).value();
        if (path.back().schema->nodetype == LYS_NOTIF) lyd_new_path(nullptr, ctx, row.node.c_str(), nullptr, 0, &event);
        EXPECT_EQ(row.op == kExec ? policy.may_exec(path.back().schema)
                  : event         ? policy.may_receive(event) : policy.may_access(path, row.op), row.permit)
            << row.config << " " << row.user << " " << row.node << " " << row.op;
        lyd_free_all(event);
        lyd_free_all(config);
    }
    ly_ctx_destroy(ctx);
}

}  // namespace
}  // namespace tavrik::netconf::detail
