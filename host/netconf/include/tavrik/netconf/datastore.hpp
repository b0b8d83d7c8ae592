// The configuration datastores of tkav-netconfd: the running configuration
// (the engine that drives the configuration module, and the embedded
// simulated appliance the module talks to), the candidate configuration
// that is committed to it, the startup configuration, their locks, a
// pending confirmed commit, and the state on disk (a snapshot and a journal
// of the commits since) that lets a restarted
// daemon continue with the last committed configuration and the appliance
// that goes with it.
//
// Every call is serialised (the engine and the runtime under it run one call
// at a time), so a read sees one committed state and edits apply one after
// the other. Calls may come from any thread; a confirmed commit that times
// out is rolled back on a thread of the datastore's own.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
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

// The configuration datastores served.
enum class DatastoreId { Running, Candidate, Startup };
// "running", "candidate", "startup".
std::string_view name_of(DatastoreId datastore);

enum class ConfirmedCommitEvent { Start, Extend, Confirm, Cancel, Timeout };

// What the datastore reports to the rest of the daemon (notifications).
// Called with the datastore's mutex held, on the thread that made the
// change: a listener must not call back into the datastore.
class DatastoreListener {
public:
    virtual ~DatastoreListener() = default;
    // The running configuration changed. `session`: the session whose
    // request changed it; 0 the daemon itself (a confirmed commit that timed
    // out or was pending at start, the start from the startup
    // configuration). `source`: the datastore the new configuration came
    // from (running for edit-config, candidate for commit, startup); none for
    // inline <config> and for the configuration a confirmed commit restores.
    // `changes` as the engine reported them (never empty).
    virtual void running_changed(std::uint32_t session, std::optional<DatastoreId> source,
                                 const std::vector<engine::ChangedNode>& changes) = 0;
    // A confirmed commit started, was extended by a follow-up confirmed
    // commit, confirmed, cancelled (<cancel-commit>, the end of the session
    // that issued it, a daemon restart: session 0) or timed out (session 0).
    // `timeout`: the time given to confirm, for Start and Extend; else 0.
    virtual void confirmed_commit(ConfirmedCommitEvent event, std::uint32_t session, std::chrono::seconds timeout) = 0;
};

struct DatastoreOptions {
    std::string module_path;
    std::string yang_dir;
    std::string state_dir;     // empty: nothing persists
    bool sync_writes = false;  // flush each commit to disk
    // The server's schema context (IETF NETCONF modules; the model is
    // loaded into it when missing); it outlives the datastore. Null: the
    // engine makes its own.
    ly_ctx* context = nullptr;
    // At start, when there is a startup configuration, make it the running
    // one (through the module, so that the appliance matches it).
    bool boot_from_startup = false;
    DatastoreListener* listener = nullptr;  // optional; outlives the datastore
    // What the datastore has to tell the operator on its own (a rollback, a
    // startup configuration refused); optional.
    std::function<void(const std::string&)> log;
    // YANG modules whose configuration is kept beside the model's as plain
    // data (engine::EngineOptions::data_modules).
    std::vector<std::string> data_modules = {};
};

enum class TestOption { TestThenSet, Set, TestOnly };

struct EditRequest {
    const lyd_node* config = nullptr;  // content of <config> as libyang parsed it, in context(); null: empty
    engine::DefaultOperation default_operation = engine::DefaultOperation::Merge;
    TestOption test_option = TestOption::TestThenSet;
    DatastoreId target = DatastoreId::Running;  // running or candidate
    // Sees the edit's changes before they are kept (access control); an
    // error refuses the edit. Optional.
    engine::ChangeCheck check = {};
};

// The <source> of copy-config and validate: a datastore, or the content of
// an inline <config> (a complete configuration; null: empty).
struct ConfigSource {
    std::optional<DatastoreId> datastore;
    const lyd_node* config = nullptr;
};

// The parameters of <commit>.
struct CommitRequest {
    bool confirmed = false;
    std::chrono::seconds timeout{600};
    std::optional<std::string> persist;
    std::optional<std::string> persist_id;
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
    DatastoreId source = DatastoreId::Running;
    std::string module = {};  // only the top-level nodes of this YANG module; empty: all
};

// A consistent read: the configuration of the datastore asked for, copied
// into the caller's context (none without a context, or when the datastore
// is empty), and what else was asked for.
struct Reading {
    lyd_node* running = nullptr;       // caller frees (lyd_free_siblings)
    std::optional<std::string> state;  // nullopt: not asked, or the module returned none
    PlatformReading platform;
};

// A configuration datastore the daemon serves, and its lock.
struct DatastoreStatus {
    std::string name;               // "running", "candidate", "startup"
    std::uint32_t lock_holder = 0;  // the session holding the lock; 0: none
    std::chrono::system_clock::time_point locked_since;
};

// Why a lock is not granted: the session that holds the lock or stands in
// the way (0: none), and the reason.
struct LockRefusal {
    std::uint32_t session = 0;
    std::string message;
};

class DatastoreError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Datastore {
public:
    // Loads the module and, when the state directory holds them, the running
    // configuration and the appliance it describes, and the startup
    // configuration. A confirmed commit that was pending when the daemon
    // stopped is rolled back, then the startup configuration becomes the
    // running one when options.boot_from_startup asks for it (a refusal of
    // either keeps the running configuration, and is logged). Throws
    // DatastoreError (or engine::EngineError) naming the file and offset of
    // what cannot be read or applied (a torn last journal record is cut off,
    // with a warning on stderr); the files are left as they are then.
    explicit Datastore(const DatastoreOptions& options);
    ~Datastore();
    Datastore(const Datastore&) = delete;
    Datastore& operator=(const Datastore&) = delete;

    // Applies an edit-config for session `session` all-or-nothing: to the
    // running configuration (committed to disk before returning), or to the
    // candidate (checked by the model only). Refused with in-use while
    // another session holds the target's lock.
    std::optional<RpcError> edit(std::uint32_t session, const EditRequest& request);

    // copy-config: replaces `target` with the complete configuration
    // `source`. The running configuration changes through the module; the
    // startup configuration is written to disk.
    // `check` (optional) sees the changes of the target first.
    std::optional<RpcError> copy(std::uint32_t session, DatastoreId target, const ConfigSource& source,
                                 const engine::ChangeCheck& check = {});
    // delete-config of the startup configuration.
    std::optional<RpcError> delete_startup(std::uint32_t session);

    // Checks a complete configuration as a replacement of the running one:
    // the model's rules and the module's checks; nothing changes.
    std::optional<RpcError> validate(const ConfigSource& source);

    // <commit>: makes the running configuration equal to the candidate
    // through the module, all or nothing; confirmed commits and their
    // confirmation (RFC 6241 8.4).
    std::optional<RpcError> commit(std::uint32_t session, const CommitRequest& request);
    std::optional<RpcError> cancel_commit(std::uint32_t session, const std::optional<std::string>& persist_id);
    // <discard-changes>: the candidate becomes the running configuration.
    std::optional<RpcError> discard_changes(std::uint32_t session);

    // XML text read as the server reads <config> (Engine::parse).
    engine::ParsedXml parse(std::string_view xml) const;

    Reading read(const ly_ctx* target, const ReadRequest& request = {});
    // Grows with every change of the running configuration.
    std::uint64_t running_version() const;

    // The schema context of the configurations and of edits.
    ly_ctx* context() const;

    static constexpr std::size_t kRecentLines = 1000;

    // Locks; nullopt when granted.
    std::optional<LockRefusal> lock(std::uint32_t session, DatastoreId datastore = DatastoreId::Running);
    // False: the session does not hold the lock. Unlocking the candidate
    // discards its uncommitted changes.
    bool unlock(std::uint32_t session, DatastoreId datastore = DatastoreId::Running);
    // Releases the session's locks (discarding uncommitted changes of a
    // candidate it locked) and rolls back its confirmed commit unless that
    // was persistent.
    void session_ended(std::uint32_t session);

    // Every datastore served, with its lock: what ietf-netconf-monitoring
    // and ietf-yang-library report.
    std::vector<DatastoreStatus> datastores() const;

    const std::string& model_name() const;

    // Returns freed memory to the system after a call that did much work
    // (a large edit or read), rebuilding the running configuration in
    // memory of its own after large edits (engine::Engine::compact); cheap
    // otherwise. The server calls it once a reply is out, when the request
    // and the reply are freed too.
    void release_memory();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tavrik::netconf
