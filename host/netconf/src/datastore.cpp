#include "tavrik/netconf/datastore.hpp"

#include <fcntl.h>
#include <libyang/libyang.h>
#include <malloc.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <deque>
#include <mutex>

#include "atomic_file.hpp"
#include "journal.hpp"
#include "tavrik/appliance.hpp"
#include "tavrik/runtime.hpp"
#include "tavrik/vsys_feature.hpp"

namespace tavrik::netconf {
namespace {

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

}  // namespace

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
    std::uint32_t holder = 0;
    std::chrono::system_clock::time_point locked_since;
    std::atomic<bool> memory_to_release{false};

    ~Impl() {
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
};

Datastore::Datastore(const DatastoreOptions& options) : impl_(std::make_unique<Impl>()) {
    Impl& impl = *impl_;
    impl.options = options;
    std::optional<StoredState> state;
    if (!options.state_dir.empty()) {
        make_directories(options.state_dir);
        impl.directory_lock.emplace(options.state_dir);
        try {
            state = impl.store.emplace(options.state_dir, options.sync_writes).load();
        } catch (const StateError& e) {
            throw DatastoreError(e.what());
        }
        for (const std::string& warning : state->warnings) std::fprintf(stderr, "tkav-netconfd: warning: %s\n", warning.c_str());
    }
    runtime::set_platform(&impl.platform);
    const std::string running = state ? state->snapshot.record.running_xml : std::string();
    try {
        impl.engine = std::make_unique<engine::Engine>(options.module_path, options.yang_dir, running, options.context);
    } catch (const engine::EngineError& e) {
        if (!state || !e.detail()) throw;
        throw DatastoreError(impl.store->snapshot_path() + ": the running configuration cannot be read: " + e.what());
    }
    impl.engine->set_vsys_feature(&impl.platform);
    if (state) impl.restore(*state, true);
}

Datastore::~Datastore() = default;

std::optional<RpcError> Datastore::edit(std::uint32_t session, const EditRequest& request) {
    std::lock_guard lock(impl_->mutex);
    const Impl::Work work(*impl_);
    if (impl_->holder && impl_->holder != session)
        return RpcError(ErrorType::Protocol, ErrorTag::InUse,
                        "the running configuration is locked by session " + std::to_string(impl_->holder));
    engine::EditOptions options;
    options.default_operation = request.default_operation;
    options.dry_run = request.test_option == TestOption::TestOnly;
    engine::EditResult result = impl_->engine->edit(request.config, options);
    if (!result.ok) return result.error;
    if (options.dry_run) return std::nullopt;
    try {
        impl_->commit(edit_change(request.config, request.default_operation));
    } catch (const std::exception& e) {
        // Not on disk, so not committed: back to the state that is.
        impl_->restore_committed();
        return RpcError(ErrorType::Application, ErrorTag::OperationFailed,
                        std::string("the configuration could not be saved, the edit is undone: ") + e.what());
    }
    return std::nullopt;
}

std::optional<RpcError> Datastore::validate(const lyd_node* config) {
    std::lock_guard lock(impl_->mutex);
    const Impl::Work work(*impl_);
    engine::EditOptions options;
    options.default_operation = engine::DefaultOperation::Replace;
    options.dry_run = true;
    engine::EditResult result = impl_->engine->edit(config, options);
    return result.error;
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
    if (const lyd_node* running = impl_->engine->running_tree(); running && target) {
        const uint32_t options = LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS;
        const LY_ERR err = target == impl_->engine->context()
                               ? lyd_dup_siblings(running, nullptr, options, &reading.running)
                               : lyd_dup_siblings_to_ctx(running, target, nullptr, options, &reading.running);
        if (err != LY_SUCCESS) throw DatastoreError("cannot copy the running configuration");
    }
    if (request.state) reading.state = impl_->engine->module_state();
    if (request.platform) {
        reading.platform.configuration = impl_->engine->module_config();
        impl_->platform.read(reading.platform);
    }
    return reading;
}

std::uint32_t Datastore::lock(std::uint32_t session) {
    std::lock_guard lock(impl_->mutex);
    if (impl_->holder) return impl_->holder;
    impl_->holder = session;
    impl_->locked_since = std::chrono::system_clock::now();
    return 0;
}

bool Datastore::unlock(std::uint32_t session) {
    std::lock_guard lock(impl_->mutex);
    if (impl_->holder != session) return false;
    impl_->holder = 0;
    return true;
}

void Datastore::session_ended(std::uint32_t session) {
    std::lock_guard lock(impl_->mutex);
    if (impl_->holder == session) impl_->holder = 0;
}

std::vector<DatastoreStatus> Datastore::datastores() const {
    std::lock_guard lock(impl_->mutex);
    return {DatastoreStatus{"running", impl_->holder, impl_->locked_since}};
}

void Datastore::release_memory() {
    if (impl_->memory_to_release.exchange(false)) malloc_trim(0);
}

const std::string& Datastore::model_name() const { return impl_->engine->model_name(); }

}  // namespace tavrik::netconf
