#include "tavrik/netconf/datastore.hpp"

#include <fcntl.h>
#include <libyang/libyang.h>
#include <malloc.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

#include "tavrik/atomic_file.hpp"
#include "journal.hpp"
#include "tavrik/appliance.hpp"
#include "tavrik/runtime.hpp"
#include "tavrik/vsys_feature.hpp"

namespace tavrik::netconf {
namespace {

// Files of the state directory beside the journal.
constexpr const char* kStartupFile = "startup.xml";
// The running configuration before a pending confirmed commit.
constexpr const char* kRollbackFile = "confirmed-commit.xml";

constexpr DatastoreId kDatastores[] = {DatastoreId::Running, DatastoreId::Candidate, DatastoreId::Startup};

// The platform the runtime delivers to: the appliance, watched, so that
// clients can see the lines it received, and so that what it carried out
// goes into the journal with the next commit. It stands in for the server's
// vsys feature as the appliance does. Muted, it accepts everything and
// passes nothing on (the module's lines while the journal is replayed).
class WatchedAppliance final : public runtime::Platform, public engine::VsysFeature {
public:
    explicit WatchedAppliance(appliance::Appliance& appliance) : appliance_(appliance) {}

    int deliver(const std::vector<runtime::CachedLine>& lines, unsigned cmd_op) override {
        if (muted_) return 0;
        const int result = appliance_.deliver(lines, cmd_op);
        for (const auto& line : lines) {
            if (recent_.size() == Datastore::kRecentLines) recent_.pop_front();
            recent_.push_back(ReceivedLine{++received_, line.vsys, line.view, line.view_template, cmd_op, line.line, result});
            if (result != 0) ++refused_;
            if (result == 0) steps_.add_line(line, cmd_op);
        }
        return result;
    }

    runtime::DocumentReply document(unsigned msg_type) override { return appliance_.document(msg_type); }

    int remove_vsys(const std::vector<std::string>& names) override {
        if (muted_) return 0;
        const int result = appliance_.remove_vsys(names);
        if (result == 0) steps_.add_removal(names);
        return result;
    }

    void read(PlatformReading& reading) const {
        reading.received = received_;
        reading.refused = refused_;
        reading.recent.assign(recent_.begin(), recent_.end());
    }

    // What the appliance carried out since the last call.
    ApplianceSteps take_steps() { return std::exchange(steps_, {}); }

    class Mute {
    public:
        explicit Mute(WatchedAppliance& w) : w_(w) { w_.muted_ = true; }
        ~Mute() { w_.muted_ = false; }
        Mute(const Mute&) = delete;
        Mute& operator=(const Mute&) = delete;

    private:
        WatchedAppliance& w_;
    };

private:
    appliance::Appliance& appliance_;
    std::deque<ReceivedLine> recent_;
    std::uint64_t received_ = 0;
    std::uint64_t refused_ = 0;
    ApplianceSteps steps_;
    bool muted_ = false;
};

using engine::DataTree;

// Carries out a step the journal recorded on `appliance`; the code of a
// refusal.
int replay_step(appliance::Appliance& appliance, const ApplianceStep& step) {
    if (!step.removed_vsys.empty()) return appliance.remove_vsys(step.removed_vsys);
    return appliance.execute(step.line, step.cmd_op);
}

// The edit-config payload as text that Engine::parse reads back.
std::string edit_text(const lyd_node* edit) {
    char* text = nullptr;
    if (edit && lyd_print_mem(&text, edit, LYD_XML, LYD_PRINT_WITHSIBLINGS | LYD_PRINT_SHRINK | LYD_PRINT_KEEPEMPTYCONT) != LY_SUCCESS)
        throw DatastoreError("cannot print the edit for the journal");
    std::string out = text ? text : "";
    std::free(text);
    return out;
}

// What a commit changed in the running configuration: the edit-config
// payload and its default operation, or (no edit) the whole configuration,
// as after Engine::replace_running.
struct RunningChange {
    const lyd_node* edit = nullptr;
    engine::DefaultOperation default_operation = engine::DefaultOperation::Merge;
    bool whole = true;
};

RunningChange edit_change(const lyd_node* edit, engine::DefaultOperation op) { return {edit, op, false}; }

// Datastore calls that take this long have allocated and freed much (a
// large edit or read): the server releases freed memory once the reply is
// out (release_memory()).
constexpr auto kLargeWork = std::chrono::milliseconds(10);

using engine::ErrorTag;
using engine::ErrorType;

DataTree duplicate(const lyd_node* tree) {
    lyd_node* copy = nullptr;
    if (tree && lyd_dup_siblings(tree, nullptr, LYD_DUP_RECURSIVE, &copy) != LY_SUCCESS)
        throw DatastoreError("cannot copy a configuration");
    return DataTree(copy);
}

std::string print(const lyd_node* tree) {
    char* text = nullptr;
    if (tree && lyd_print_mem(&text, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS) != LY_SUCCESS)
        throw DatastoreError("cannot print a configuration");
    std::string out = text ? text : "";
    std::free(text);
    return out;
}

std::string configuration_name(DatastoreId datastore) {
    return "the " + std::string(name_of(datastore)) + " configuration";
}

RpcError in_use(DatastoreId datastore, std::uint32_t holder) {
    return RpcError(ErrorType::Protocol, ErrorTag::InUse,
                    configuration_name(datastore) + " is locked by session " + std::to_string(holder));
}

RpcError failed(std::string message) {
    return RpcError(ErrorType::Application, ErrorTag::OperationFailed, std::move(message));
}

struct Lock {
    std::uint32_t holder = 0;
    std::chrono::system_clock::time_point since;
};

// A confirmed commit waiting for its confirmation.
struct PendingCommit {
    std::string before;  // the running configuration before the first confirmed commit
    std::uint32_t session = 0;  // the session of the last confirmed commit
    std::optional<std::string> persist;
    std::chrono::steady_clock::time_point deadline;
};

}  // namespace

std::string_view name_of(DatastoreId datastore) {
    switch (datastore) {
    case DatastoreId::Candidate: return "candidate";
    case DatastoreId::Startup: return "startup";
    case DatastoreId::Running: break;
    }
    return "running";
}

// An exclusive lock on the state directory for the lifetime of the
// datastore: two daemons on one state would overwrite each other's commits.
class DirectoryLock {
public:
    explicit DirectoryLock(const std::string& dir) {
        const std::string path = dir + "/lock";
        fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd_ < 0) throw DatastoreError("cannot open " + path + ": " + std::strerror(errno));
        if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
            ::close(fd_);
            throw DatastoreError("the state directory " + dir + " is in use by another tkav-netconfd");
        }
    }
    ~DirectoryLock() { ::close(fd_); }
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;

private:
    int fd_ = -1;
};

struct Datastore::Impl {
    DatastoreOptions options;
    std::optional<DirectoryLock> directory_lock;
    std::mutex mutex;
    appliance::Appliance appliance;
    WatchedAppliance platform{appliance};
    std::unique_ptr<engine::Engine> engine;
    std::optional<StateStore> store;  // none: nothing persists
    std::atomic<bool> memory_to_release{false};
    std::atomic<std::uint64_t> running_version{0};
    std::array<Lock, std::size(kDatastores)> locks;
    std::optional<DataTree> candidate;          // none: equal to the running configuration
    std::set<std::uint32_t> candidate_editors;  // the sessions whose changes the candidate holds
    std::optional<DataTree> startup;            // none: there is no startup configuration
    std::optional<PendingCommit> pending;
    std::condition_variable timer_wake;
    bool stopping = false;
    std::thread timer;  // rolls back a confirmed commit that timed out

    ~Impl() {
        {
            std::lock_guard lock(mutex);
            stopping = true;
        }
        timer_wake.notify_all();
        if (timer.joinable()) timer.join();
        // The trees go before the engine, whose context may be theirs.
        candidate.reset();
        startup.reset();
        engine.reset();  // the module closes while its platform is still there
        runtime::set_platform(nullptr);
    }

    // Writes the change of the running configuration and what the appliance
    // carried out since the last commit to disk: one journal record, or a
    // new snapshot when the change is whole or the journal has grown. The
    // change is committed when this returns; it throws when nothing could be
    // written. The one way of every change of the running configuration to
    // disk.
    void commit(const RunningChange& change = {}) {
        Record record;
        record.appliance = platform.take_steps();
        if (!store) return;
        if (change.whole) {
            record.running = Record::Running::Whole;
        } else if (change.edit) {
            record.running = Record::Running::Edit;
            record.default_operation = change.default_operation;
            record.running_xml = edit_text(change.edit);
        }
        if (record.running == Record::Running::None && record.appliance.size() == 0) return;
        store->commit(record, [this] { return whole_state(); });
    }

    Record whole_state() const {
        Record snapshot{Record::Running::Whole, engine::DefaultOperation::Merge, engine->running_xml(), {}};
        for (const auto& [line, cmd_op] : appliance.command_lines())
            snapshot.appliance.add_line(line, cmd_op);
        return snapshot;
    }

    // Makes the running configuration and the appliance what `state`
    // describes. The engine holds the snapshot's configuration already
    // (`at_snapshot`) or is given it; the journal's edits then run through
    // the engine with the platform muted, and the appliance is rebuilt from
    // the recorded steps. Throws DatastoreError naming the file and offset
    // of what does not apply.
    void restore(const StoredState& state, bool at_snapshot) {
        const WatchedAppliance::Mute mute(platform);
        const auto refused = [&](const std::string& file, std::uint64_t offset, const std::string& why) {
            return DatastoreError(file + ": offset " + std::to_string(offset) + ": " + why +
                                  "; tkav-netconfd does not start on a state it cannot apply, and leaves the file as it is");
        };
        const auto running = [&](const StoredRecord& stored, const std::string& file) {
            const Record& record = stored.record;
            if (record.running == Record::Running::None) return;
            engine::ParsedXml parsed = engine->parse(record.running_xml);
            std::optional<RpcError> error = parsed.error;
            if (!error && record.running == Record::Running::Whole)
                error = engine->replace_running(std::move(parsed.tree)).error;
            else if (!error)
                error = engine->edit(parsed.tree.get(), {record.default_operation}).error;
            if (error) throw refused(file, stored.offset, "the running configuration refuses it: " + error->message);
        };
        appliance::Appliance rebuilt;
        const auto steps = [&](const StoredRecord& stored, const std::string& file) {
            for (const ApplianceStep& step : stored.record.appliance.decode())
                if (const int code = replay_step(rebuilt, step))
                    throw refused(file, stored.offset,
                                  "the appliance refuses \"" + (step.removed_vsys.empty() ? step.line.line : "removing vsys") +
                                      "\" (" + std::string(appliance::code_name(code)) + ")");
        };
        if (!at_snapshot) running(state.snapshot, store->snapshot_path());
        steps(state.snapshot, store->snapshot_path());
        for (const StoredRecord& stored : state.journal) {
            running(stored, store->journal_path());
            steps(stored, store->journal_path());
        }
        appliance = std::move(rebuilt);
        platform.take_steps();
    }

    // Back to the state on disk (after a commit that could not be written).
    void restore_committed() { restore(store->load(), false); }

    // Marks the memory of a datastore call that took long for release.
    class Work {
    public:
        explicit Work(Impl& impl) : impl_(impl) {}
        ~Work() {
            if (std::chrono::steady_clock::now() - start_ >= kLargeWork) impl_.memory_to_release = true;
        }
        Work(const Work&) = delete;
        Work& operator=(const Work&) = delete;

    private:
        Impl& impl_;
        std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    };
    // Every change of the running configuration ends here: what the engine
    // did (`result`) is committed to disk, or undone when it cannot be, and
    // reported.
    std::optional<RpcError> settle(std::uint32_t session, std::optional<DatastoreId> source,
                                   engine::EditResult result, const RunningChange& change = {}) {
        if (!result.ok) return result.error;
        ++running_version;
        try {
            commit(change);
        } catch (const std::exception& e) {
            // Not on disk, so not committed: back to the state that is.
            restore_committed();
            return failed(std::string("the configuration could not be saved, the edit is undone: ") + e.what());
        }
        if (options.listener && !result.changes.empty())
            options.listener->running_changed(session, source, result.changes);
        return std::nullopt;
    }

    std::optional<RpcError> replace_running(std::uint32_t session, std::optional<DatastoreId> source, DataTree config,
                                            const engine::ChangeCheck& check = {}) {
        engine::EditOptions options;
        options.check = check;
        return settle(session, source, engine->replace_running(std::move(config), options));
    }

    bool persists() const { return !options.state_dir.empty(); }
    std::string file(const char* name) const { return options.state_dir + "/" + name; }
    void log(const std::string& text) const {
        if (options.log) options.log(text);
    }

    Lock& lock_of(DatastoreId datastore) { return locks[static_cast<std::size_t>(datastore)]; }
    // in-use when another session holds the lock of `datastore`.
    std::optional<RpcError> check_lock(std::uint32_t session, DatastoreId datastore) {
        const std::uint32_t holder = lock_of(datastore).holder;
        if (holder && holder != session) return in_use(datastore, holder);
        return std::nullopt;
    }
    bool release(std::uint32_t session, DatastoreId datastore) {
        Lock& lock = lock_of(datastore);
        if (lock.holder != session) return false;
        lock.holder = 0;
        if (datastore == DatastoreId::Candidate) discard_candidate();
        return true;
    }

    // The configuration of a datastore; null: empty.
    const lyd_node* tree_of(DatastoreId datastore) const {
        if (datastore == DatastoreId::Startup) return startup ? startup->get() : nullptr;
        if (datastore == DatastoreId::Candidate && candidate) return candidate->get();
        return engine->running_tree();
    }

    // The complete configuration `source` names, as a tree of its own.
    std::optional<RpcError> configuration(const ConfigSource& source, DataTree& out) const {
        out.reset();
        if (!source.datastore) return engine->apply(out, source.config).error;
        if (source.datastore == DatastoreId::Startup && !startup) return failed("there is no startup configuration");
        out = duplicate(tree_of(*source.datastore));
        return std::nullopt;
    }

    void discard_candidate() {
        candidate.reset();
        candidate_editors.clear();
    }

    std::optional<RpcError> edit_candidate(std::uint32_t session, const EditRequest& request) {
        const bool test_only = request.test_option == TestOption::TestOnly;
        // The candidate is copied from the running configuration by its
        // first change.
        DataTree scratch;
        if (test_only || !candidate) scratch = duplicate(tree_of(DatastoreId::Candidate));
        DataTree& tree = test_only || !candidate ? scratch : *candidate;
        engine::EditResult result = engine->apply(tree, request.config, request.default_operation, request.check);
        if (!result.ok || test_only || result.changes.empty()) return result.error;
        if (!candidate) candidate = std::move(scratch);
        candidate_editors.insert(session);
        return std::nullopt;
    }

    std::optional<RpcError> save_startup(DataTree config) {
        try {
            if (persists()) write_file_atomically(file(kStartupFile), print(config.get()), 0600, options.sync_writes);
        } catch (const std::exception& e) {
            return failed(std::string("the startup configuration could not be saved: ") + e.what());
        }
        startup = std::move(config);
        return std::nullopt;
    }

    void report(ConfirmedCommitEvent event, std::uint32_t session, std::chrono::seconds timeout = {}) const {
        if (options.listener) options.listener->confirmed_commit(event, session, timeout);
    }

    // Whether `session`, giving `persist_id`, may confirm, extend or cancel
    // the pending confirmed commit.
    std::optional<RpcError> may_settle(std::uint32_t session, const std::optional<std::string>& persist_id) const {
        if (pending->persist) {
            if (persist_id == pending->persist) return std::nullopt;
            return RpcError(ErrorType::Protocol, ErrorTag::InvalidValue,
                            persist_id ? "the persist-id does not match the pending confirmed commit"
                                       : "a persistent confirmed commit is pending: give its persist-id");
        }
        if (persist_id)
            return RpcError(ErrorType::Protocol, ErrorTag::InvalidValue,
                            "the pending confirmed commit is not persistent and has no persist-id");
        if (session != pending->session)
            return RpcError(ErrorType::Protocol, ErrorTag::InUse,
                            "the confirmed commit of session " + std::to_string(pending->session) +
                                " is pending; only that session can confirm, extend or cancel it");
        return std::nullopt;
    }

    // Ends the pending confirmed commit by restoring the running
    // configuration from before it, through the module. When that is
    // refused the configuration stays as it is and the commit ends all the
    // same.
    std::optional<RpcError> roll_back(std::uint32_t session, ConfirmedCommitEvent event) {
        engine::ParsedXml before = engine->parse(pending->before);
        std::optional<RpcError> error =
            before.error ? before.error : replace_running(session, std::nullopt, std::move(before.tree));
        end_pending();
        report(event, session);
        if (error) log("the configuration before the confirmed commit could not be restored: " + error->message);
        return error;
    }

    void end_pending() {
        pending.reset();
        try {
            if (persists()) remove_file(file(kRollbackFile), options.sync_writes);
        } catch (const std::exception& e) {
            log(e.what());
        }
    }

    void run_timer() {
        std::unique_lock lock(mutex);
        while (!stopping) {
            if (!pending) {
                timer_wake.wait(lock);
            } else if (std::chrono::steady_clock::now() < pending->deadline) {
                timer_wake.wait_until(lock, pending->deadline);
            } else {
                log("a confirmed commit was not confirmed in time; the configuration before it is restored");
                roll_back(0, ConfirmedCommitEvent::Timeout);
            }
        }
    }
};

Datastore::Datastore(const DatastoreOptions& options) : impl_(std::make_unique<Impl>()) {
    Impl& d = *impl_;
    d.options = options;
    std::optional<StoredState> state;
    std::optional<std::string> startup, rollback;
    if (d.persists()) {
        make_directories(options.state_dir);
        d.directory_lock.emplace(options.state_dir);
        try {
            state = d.store.emplace(options.state_dir, options.sync_writes).load();
            startup = read_file(d.file(kStartupFile));
            rollback = read_file(d.file(kRollbackFile));
        } catch (const StateError& e) {
            throw DatastoreError(e.what());
        } catch (const std::system_error& e) {
            throw DatastoreError(e.what());
        }
        for (const std::string& warning : state->warnings) std::fprintf(stderr, "tkav-netconfd: warning: %s\n", warning.c_str());
    }
    runtime::set_platform(&d.platform);
    const std::string running = state ? state->snapshot.record.running_xml : std::string();
    try {
        d.engine = std::make_unique<engine::Engine>(
            engine::EngineOptions{options.module_path, options.yang_dir, running, options.context, options.data_modules});
    } catch (const engine::EngineError& e) {
        if (!state || !e.detail()) throw;
        throw DatastoreError(d.store->snapshot_path() + ": the running configuration cannot be read: " + e.what());
    }
    d.engine->set_vsys_feature(&d.platform);
    if (state) d.restore(*state, true);
    if (startup) {
        engine::ParsedXml parsed = d.engine->parse(*startup);
        DataTree tree;
        std::optional<RpcError> error = parsed.error ? parsed.error : d.engine->apply(tree, parsed.tree.get()).error;
        if (error)
            throw DatastoreError("the startup configuration " + d.file(kStartupFile) +
                                 " cannot be read: " + error->message);
        d.startup = std::move(tree);
    }
    // The daemon stopped before a confirmed commit was confirmed: the
    // configuration goes back to what it was before the commit.
    if (rollback) {
        d.pending = PendingCommit{std::move(*rollback), 0, std::nullopt, {}};
        if (!d.roll_back(0, ConfirmedCommitEvent::Cancel))
            d.log("a confirmed commit was pending when the daemon stopped; the configuration before it is restored");
    }
    if (options.boot_from_startup && d.startup) {
        if (auto error = d.replace_running(0, DatastoreId::Startup, duplicate(d.startup->get())))
            d.log("the startup configuration was not loaded, the running configuration stays: " + error->message);
    }
    d.timer = std::thread([&d] { d.run_timer(); });
}

Datastore::~Datastore() = default;

std::optional<RpcError> Datastore::edit(std::uint32_t session, const EditRequest& request) {
    std::lock_guard lock(impl_->mutex);
    const Impl::Work work(*impl_);
    Impl& d = *impl_;
    if (auto error = d.check_lock(session, request.target)) return error;
    if (request.target == DatastoreId::Candidate) return d.edit_candidate(session, request);
    engine::EditOptions options;
    options.default_operation = request.default_operation;
    options.dry_run = request.test_option == TestOption::TestOnly;
    options.check = request.check;
    engine::EditResult result = d.engine->edit(request.config, options);
    if (!result.ok || options.dry_run) return result.error;
    return d.settle(session, DatastoreId::Running, std::move(result), edit_change(request.config, request.default_operation));
}

std::optional<RpcError> Datastore::copy(std::uint32_t session, DatastoreId target, const ConfigSource& source,
                                        const engine::ChangeCheck& check) {
    std::lock_guard lock(impl_->mutex);
    const Impl::Work work(*impl_);
    Impl& d = *impl_;
    if (auto error = d.check_lock(session, target)) return error;
    if (source.datastore == target) return std::nullopt;
    DataTree config;
    if (auto error = d.configuration(source, config)) return error;
    if (check && target != DatastoreId::Running)
        if (auto error = d.engine->check_changes(d.tree_of(target), config.get(), check)) return error;
    switch (target) {
    case DatastoreId::Running:
        return d.replace_running(session, source.datastore, std::move(config), check);
    case DatastoreId::Candidate:
        d.discard_candidate();
        if (source.datastore != DatastoreId::Running) {
            d.candidate = std::move(config);
            d.candidate_editors.insert(session);
        }
        return std::nullopt;
    case DatastoreId::Startup:
        break;
    }
    return d.save_startup(std::move(config));
}

std::optional<RpcError> Datastore::delete_startup(std::uint32_t session) {
    std::lock_guard lock(impl_->mutex);
    Impl& d = *impl_;
    if (auto error = d.check_lock(session, DatastoreId::Startup)) return error;
    try {
        if (d.persists()) remove_file(d.file(kStartupFile), d.options.sync_writes);
    } catch (const std::exception& e) {
        return failed(e.what());
    }
    d.startup.reset();
    return std::nullopt;
}

std::optional<RpcError> Datastore::validate(const ConfigSource& source) {
    std::lock_guard lock(impl_->mutex);
    const Impl::Work work(*impl_);
    Impl& d = *impl_;
    if (source.datastore == DatastoreId::Running || (source.datastore == DatastoreId::Candidate && !d.candidate))
        return std::nullopt;
    DataTree config;
    if (auto error = d.configuration(source, config)) return error;
    engine::EditOptions options;
    options.dry_run = true;
    return d.engine->replace_running(std::move(config), options).error;
}

std::optional<RpcError> Datastore::commit(std::uint32_t session, const CommitRequest& request) {
    std::lock_guard lock(impl_->mutex);
    const Impl::Work work(*impl_);
    Impl& d = *impl_;
    for (const DatastoreId datastore : {DatastoreId::Running, DatastoreId::Candidate})
        if (auto error = d.check_lock(session, datastore)) return error;
    if (d.pending) {
        if (auto error = d.may_settle(session, request.persist_id)) return error;
    } else if (request.persist_id) {
        return RpcError(ErrorType::Protocol, ErrorTag::InvalidValue, "no confirmed commit is pending");
    }
    const bool starts = request.confirmed && !d.pending;
    std::string before;
    if (starts) {
        // On disk before the commit, so that a restart in between rolls back.
        before = d.engine->running_xml();
        try {
            if (d.persists()) write_file_atomically(d.file(kRollbackFile), before, 0600, d.options.sync_writes);
        } catch (const std::exception& e) {
            return failed(std::string("the configuration to roll back to could not be saved: ") + e.what());
        }
    }
    if (d.candidate) {
        if (auto error = d.replace_running(session, DatastoreId::Candidate, duplicate(d.candidate->get()))) {
            if (starts) d.end_pending();
            return error;
        }
        d.discard_candidate();
    }
    if (!request.confirmed) {
        if (d.pending) {
            d.end_pending();
            d.report(ConfirmedCommitEvent::Confirm, session);
        }
        return std::nullopt;
    }
    if (starts) d.pending = PendingCommit{std::move(before), 0, std::nullopt, {}};
    d.pending->session = session;
    if (request.persist) d.pending->persist = request.persist;
    d.pending->deadline = std::chrono::steady_clock::now() + request.timeout;
    d.report(starts ? ConfirmedCommitEvent::Start : ConfirmedCommitEvent::Extend, session, request.timeout);
    d.timer_wake.notify_all();
    return std::nullopt;
}

std::optional<RpcError> Datastore::cancel_commit(std::uint32_t session, const std::optional<std::string>& persist_id) {
    std::lock_guard lock(impl_->mutex);
    Impl& d = *impl_;
    if (!d.pending) return failed("no confirmed commit is pending");
    if (auto error = d.may_settle(session, persist_id)) return error;
    return d.roll_back(session, ConfirmedCommitEvent::Cancel);
}

std::optional<RpcError> Datastore::discard_changes(std::uint32_t session) {
    std::lock_guard lock(impl_->mutex);
    if (auto error = impl_->check_lock(session, DatastoreId::Candidate)) return error;
    impl_->discard_candidate();
    return std::nullopt;
}

engine::ParsedXml Datastore::parse(std::string_view xml) const {
    std::lock_guard lock(impl_->mutex);
    return impl_->engine->parse(xml);
}

ly_ctx* Datastore::context() const { return impl_->engine->context(); }

Reading Datastore::read(const ly_ctx* target, const ReadRequest& request) {
    std::lock_guard lock(impl_->mutex);
    const Impl::Work work(*impl_);
    Reading reading;
    const uint32_t options = LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS;
    const bool same = target == impl_->engine->context();
    const lyd_node* tree = target ? impl_->tree_of(request.source) : nullptr;
    if (tree && request.module.empty()) {
        const LY_ERR err = same ? lyd_dup_siblings(tree, nullptr, options, &reading.running)
                                : lyd_dup_siblings_to_ctx(tree, target, nullptr, options, &reading.running);
        if (err != LY_SUCCESS) throw DatastoreError("cannot copy " + configuration_name(request.source));
    }
    for (const lyd_node* node = request.module.empty() ? nullptr : tree; node; node = node->next) {
        if (!node->schema || request.module != node->schema->module->name) continue;
        lyd_node* copy = nullptr;
        const LY_ERR err = same ? lyd_dup_single(node, nullptr, options, &copy)
                                : lyd_dup_single_to_ctx(node, target, nullptr, options, &copy);
        if (err != LY_SUCCESS) throw DatastoreError("cannot copy " + configuration_name(request.source));
        lyd_insert_sibling(reading.running, copy, &reading.running);
    }
    if (request.state) reading.state = impl_->engine->module_state();
    if (request.platform) {
        reading.platform.configuration = impl_->engine->module_config();
        impl_->platform.read(reading.platform);
    }
    return reading;
}

std::optional<LockRefusal> Datastore::lock(std::uint32_t session, DatastoreId datastore) {
    std::lock_guard lock(impl_->mutex);
    Impl& d = *impl_;
    Lock& held = d.lock_of(datastore);
    const std::string name = configuration_name(datastore);
    if (held.holder) {
        if (held.holder == session) return LockRefusal{session, "this session already holds the lock of " + name};
        return LockRefusal{held.holder, name + " is locked by session " + std::to_string(held.holder)};
    }
    // RFC 6241 7.5: not while the candidate holds changes of another session,
    // nor while another session's confirmed commit is pending.
    if (datastore == DatastoreId::Candidate)
        for (const std::uint32_t editor : d.candidate_editors)
            if (editor != session)
                return LockRefusal{editor, name + " holds uncommitted changes of session " + std::to_string(editor) +
                                               "; commit or discard them first"};
    if (datastore == DatastoreId::Running && d.pending && d.pending->session != session)
        return LockRefusal{d.pending->session,
                           "a confirmed commit of session " + std::to_string(d.pending->session) + " is pending"};
    held = Lock{session, std::chrono::system_clock::now()};
    return std::nullopt;
}

bool Datastore::unlock(std::uint32_t session, DatastoreId datastore) {
    std::lock_guard lock(impl_->mutex);
    return impl_->release(session, datastore);
}

void Datastore::session_ended(std::uint32_t session) {
    std::lock_guard lock(impl_->mutex);
    Impl& d = *impl_;
    for (const DatastoreId datastore : kDatastores) d.release(session, datastore);
    if (d.pending && !d.pending->persist && d.pending->session == session)
        d.roll_back(session, ConfirmedCommitEvent::Cancel);
}

std::vector<DatastoreStatus> Datastore::datastores() const {
    std::lock_guard lock(impl_->mutex);
    std::vector<DatastoreStatus> out;
    for (const DatastoreId datastore : kDatastores) {
        const Lock& held = impl_->lock_of(datastore);
        out.push_back(DatastoreStatus{std::string(name_of(datastore)), held.holder, held.since});
    }
    return out;
}

void Datastore::release_memory() {
    bool rebuilt = false;
    // Busy: another session's request is at work; the next reply looks again.
    if (std::unique_lock lock(impl_->mutex, std::try_to_lock); lock.owns_lock()) {
        rebuilt = impl_->engine->compact();
        if (rebuilt) impl_->appliance.compact();
    }
    if (impl_->memory_to_release.exchange(false) || rebuilt) malloc_trim(0);
}

std::uint64_t Datastore::running_version() const { return impl_->running_version; }

const std::string& Datastore::model_name() const { return impl_->engine->model_name(); }

}  // namespace tavrik::netconf
