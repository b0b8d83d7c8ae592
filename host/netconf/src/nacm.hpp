// NETCONF access control (RFC 8341) of tkav-netconfd: the /nacm
// configuration of the running datastore compiled into rules, and the
// decisions made from them for one requester.
//
// Who bypasses the rules: the superusers named on the command line (the
// recovery users), and sessions on the UNIX socket and the standard streams,
// whose peers are local accounts that can reach the daemon's state.
// Internal to tkav-netconfd.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tavrik/engine.hpp"

struct ly_ctx;
struct lyd_node;
struct lysc_node;

namespace tavrik::netconf {
class Datastore;
}

namespace tavrik::netconf::detail {

inline constexpr const char* kNacmModule = "ietf-netconf-acm";

// The access-operations bits of ietf-netconf-acm.
enum Access : unsigned { kCreate = 1, kRead = 2, kUpdate = 4, kDelete = 8, kExec = 16, kAll = 31 };

// One node of a data path: its schema node and, for a list entry or a
// leaf-list value, how to find its keys: in the data node, or as the
// predicates of a path.
struct PathStep {
    const lysc_node* schema = nullptr;
    const lyd_node* data = nullptr;
    std::vector<std::pair<std::string, std::string>> keys;  // name ("." a leaf-list value), value
};
using DataPath = std::vector<PathStep>;

// An instance path in libyang's notation (a module name before the first
// node of each module, key predicates) resolved in `ctx`; nullopt when it
// names no schema node.
std::optional<DataPath> parse_data_path(const ly_ctx* ctx, std::string_view path);

struct NacmRules;

// The decisions for one requester, on the rules as they were when it was
// made.
class NacmPolicy {
public:
    NacmPolicy(std::shared_ptr<const NacmRules> rules, const std::string& user, bool bypass);
    // False when nothing is checked (superuser, local session, enable-nacm false).
    bool enforced() const { return rules_ != nullptr; }

    bool may_exec(const lysc_node* rpc) const;
    bool may_access(const DataPath& path, Access access) const;
    bool may_receive(const lyd_node* notification) const;
    // Removes from `tree` (top-level siblings) every node the requester may
    // not read, with what is below it.
    void prune(lyd_node*& tree) const;

private:
    std::optional<bool> ruled(Access access, const char* module, const lysc_node* operation,
                              const DataPath* path) const;
    void prune_below(lyd_node*& first, DataPath& path) const;

    std::shared_ptr<const NacmRules> rules_;  // null: bypassed
    std::vector<std::size_t> lists_;          // the rule-lists of the requester's groups
    bool grouped_ = false;                    // the requester is in some group
};

class Nacm {
public:
    explicit Nacm(std::vector<std::string> superusers);
    ~Nacm();

    // Compiles the running configuration's /nacm when it changed since the
    // last call. Must not be called with the datastore's mutex held.
    void refresh(Datastore& datastore, const ly_ctx* ctx);
    // Compiles `nacm` (the /nacm container; null: none configured).
    void load(const ly_ctx* ctx, const lyd_node* nacm);

    // Whether the rules do not apply: a superuser, or `recovery` (a
    // session that bypasses them whatever its user).
    bool bypasses(const std::string& user, bool recovery = false) const;
    NacmPolicy policy(const std::string& user, bool recovery = false) const;

    // An rpc `rpc` of `user`: nullopt when permitted, else access-denied
    // (counted).
    std::optional<engine::RpcError> check_exec(const NacmPolicy& policy, const lyd_node* rpc);
    // The write check of an edit's changes for `policy` (denials counted).
    engine::ChangeCheck write_check(NacmPolicy policy);
    // Whether `user` gets `notification`: the notification rules, and read
    // access to every instance-identifier in it, on the rules of the running
    // configuration (refreshed: must not be called with the datastore's
    // mutex held). A refusal is counted as a denied notification.
    bool may_receive(Datastore& datastore, const std::string& user, bool recovery, const lyd_node* notification);

    // denied-operations, denied-data-writes and denied-notifications added
    // to the /nacm container of `tree` (made when missing).
    void report_counters(const ly_ctx* ctx, lyd_node*& tree) const;

private:
    std::vector<std::string> superusers_;
    mutable std::mutex mutex_;
    std::shared_ptr<const NacmRules> rules_;
    std::uint64_t version_ = 0;
    bool loaded_ = false;
    std::atomic<std::uint32_t> denied_operations_{0}, denied_data_writes_{0};
    mutable std::atomic<std::uint32_t> denied_notifications_{0};
};

}  // namespace tavrik::netconf::detail
