// The running datastore of tkav-netconfd: the engine that drives the
// configuration module, the embedded simulated appliance the module talks
// to, the lock of the running configuration, and the snapshot on disk that
// lets a restarted daemon continue with the last committed configuration
// and the appliance that goes with it.
//
// Every call is serialised (the engine and the runtime under it run one call
// at a time), so a read sees one committed state and edits apply one after
// the other. Calls may come from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tavrik/engine.hpp"

struct ly_ctx;
struct lyd_node;

namespace tavrik::netconf {

using engine::RpcError;

struct DatastoreOptions {
    std::string module_path;
    std::string yang_dir;
    std::string state_dir;     // empty: nothing persists
    bool sync_writes = false;  // flush each commit to disk
    // The server's schema context (IETF NETCONF modules; the model is
    // loaded into it when missing); it outlives the datastore. Null: the
    // engine makes its own.
    ly_ctx* context = nullptr;
    // YANG modules whose configuration is kept beside the model's as plain
    // data (engine::EngineOptions::data_modules).
    std::vector<std::string> data_modules = {};
};

enum class TestOption { TestThenSet, Set, TestOnly };

struct EditRequest {
    const lyd_node* config = nullptr;  // content of <config> as libyang parsed it, in context(); null: empty
    engine::DefaultOperation default_operation = engine::DefaultOperation::Merge;
    TestOption test_option = TestOption::TestThenSet;
    bool complete = false;  // a whole configuration (copy-config): what it does not name goes
};

// A command line as the appliance received it.
struct ReceivedLine {
    std::uint64_t sequence = 0;  // from 1 since the daemon started
    std::string vsys;
    std::string view;
    std::optional<std::string> view_template;
    unsigned cmd_op = 0;
    std::string line;
    int result = 0;  // 0: the appliance accepted the line's message
};

// What the embedded appliance holds and received.
struct PlatformReading {
    std::optional<std::string> configuration;  // as the module reads it; nullopt: read failed
    std::uint64_t received = 0;
    std::uint64_t refused = 0;
    std::vector<ReceivedLine> recent;  // the last kRecentLines, oldest first
};

struct ReadRequest {
    bool state = false;     // the module's state document
    bool platform = false;  // the appliance
};

// A consistent read: the running configuration copied into the caller's
// context (none without a context) and what else was asked for.
struct Reading {
    lyd_node* running = nullptr;       // caller frees (lyd_free_siblings)
    std::optional<std::string> state;  // nullopt: not asked, or the module returned none
    PlatformReading platform;
};

// A configuration datastore the daemon serves, and its lock.
struct DatastoreStatus {
    std::string name;               // "running"
    std::uint32_t lock_holder = 0;  // the session holding the lock; 0: none
    std::chrono::system_clock::time_point locked_since;
};

class DatastoreError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Datastore {
public:
    // Loads the module and, when the state directory holds a snapshot, the
    // running configuration and the appliance it describes. Throws
    // DatastoreError (or engine::EngineError) when that fails; nothing on
    // disk is touched then.
    explicit Datastore(const DatastoreOptions& options);
    ~Datastore();
    Datastore(const Datastore&) = delete;
    Datastore& operator=(const Datastore&) = delete;

    // Applies an edit-config for session `session` all-or-nothing and
    // commits it to disk before returning. Refused with in-use while
    // another session holds the lock.
    std::optional<RpcError> edit(std::uint32_t session, const EditRequest& request);

    // Checks a complete configuration (content of <config>, as for edit())
    // as a replacement of the running one: the model's rules and the
    // module's checks; nothing changes.
    std::optional<RpcError> validate(const lyd_node* config);

    // XML text read as the server reads <config> (Engine::parse).
    engine::ParsedXml parse(std::string_view xml) const;

    Reading read(const ly_ctx* target, const ReadRequest& request = {});

    // The schema context of the running configuration and of edits.
    ly_ctx* context() const;

    static constexpr std::size_t kRecentLines = 1000;

    // Lock of the running configuration. lock() returns 0 when granted,
    // else the id of the session holding it.
    std::uint32_t lock(std::uint32_t session);
    bool unlock(std::uint32_t session);   // false: the session does not hold it
    void session_ended(std::uint32_t session);

    // Every datastore served, with its lock: what ietf-netconf-monitoring
    // and ietf-yang-library report.
    std::vector<DatastoreStatus> datastores() const;

    const std::string& model_name() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tavrik::netconf
