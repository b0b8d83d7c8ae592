#include "tavrik/netconf/datastore.hpp"

#include <fcntl.h>
#include <libyang/libyang.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <deque>
#include <mutex>

#include "atomic_file.hpp"
#include "snapshot.hpp"
#include "tavrik/appliance.hpp"
#include "tavrik/runtime.hpp"
#include "tavrik/vsys_feature.hpp"

namespace tavrik::netconf {
namespace {

constexpr const char* kRunningSection = "running";
constexpr const char* kApplianceSection = "appliance";

// The platform the runtime delivers to: the appliance, watched, so that
// clients can see the lines it received. It stands in for the server's vsys
// feature as the appliance does.
class WatchedAppliance final : public runtime::Platform, public engine::VsysFeature {
public:
    explicit WatchedAppliance(appliance::Appliance& appliance) : appliance_(appliance) {}

    int deliver(const std::vector<runtime::CachedLine>& lines, unsigned cmd_op) override {
        const int result = appliance_.deliver(lines, cmd_op);
        for (const auto& line : lines) {
            if (recent_.size() == Datastore::kRecentLines) recent_.pop_front();
            recent_.push_back(ReceivedLine{++received_, line.vsys, line.view, line.view_template, cmd_op, line.line, result});
            if (result != 0) ++refused_;
        }
        return result;
    }

    runtime::DocumentReply document(unsigned msg_type) override { return appliance_.document(msg_type); }

    int remove_vsys(const std::vector<std::string>& names) override { return appliance_.remove_vsys(names); }

    void read(PlatformReading& reading) const {
        reading.received = received_;
        reading.refused = refused_;
        reading.recent.assign(recent_.begin(), recent_.end());
    }

private:
    appliance::Appliance& appliance_;
    std::deque<ReceivedLine> recent_;
    std::uint64_t received_ = 0;
    std::uint64_t refused_ = 0;
};

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
    std::optional<SnapshotStore> store;  // none: nothing persists
    std::string committed;  // running configuration as last written to disk
    std::uint32_t holder = 0;
    std::chrono::system_clock::time_point locked_since;

    ~Impl() {
        engine.reset();  // the module closes while its platform is still there
        runtime::set_platform(nullptr);
    }

    // Back to the configuration on disk (after a commit that failed).
    void restore_committed() {
        engine->replace_running(engine->parse(committed).tree);
    }

    // Writes the running configuration and the appliance to disk together;
    // the edit that led to them is committed when this returns.
    void commit() {
        std::string running = engine->running_xml();
        if (store) store->save({{kRunningSection, running}, {kApplianceSection, appliance.running_config_xml()}});
        committed = std::move(running);
    }
};

Datastore::Datastore(const DatastoreOptions& options) : impl_(std::make_unique<Impl>()) {
    impl_->options = options;
    std::string running;
    if (!options.state_dir.empty()) {
        make_directories(options.state_dir);
        impl_->directory_lock.emplace(options.state_dir);
        auto& store = impl_->store.emplace(options.state_dir, options.sync_writes);
        std::optional<Sections> sections;
        try {
            sections = store.load();
        } catch (const SnapshotError& e) {
            throw DatastoreError(e.what());
        }
        if (sections) {
            running = section_of(*sections, kRunningSection).value_or("");
            try {
                impl_->appliance = appliance::Appliance(
                    appliance::parse_configuration(section_of(*sections, kApplianceSection).value_or("")));
            } catch (const appliance::ConfigurationError& e) {
                throw DatastoreError("the appliance cannot be restored from " + options.state_dir + ": " + e.what());
            }
        }
    }
    runtime::set_platform(&impl_->platform);
    impl_->engine = std::make_unique<engine::Engine>(
        engine::EngineOptions{options.module_path, options.yang_dir, running, options.context, options.data_modules});
    impl_->engine->set_vsys_feature(&impl_->platform);
    impl_->committed = std::move(running);
}

Datastore::~Datastore() = default;

std::optional<RpcError> Datastore::edit(std::uint32_t session, const EditRequest& request) {
    std::lock_guard lock(impl_->mutex);
    if (impl_->holder && impl_->holder != session)
        return RpcError(ErrorType::Protocol, ErrorTag::InUse,
                        "the running configuration is locked by session " + std::to_string(impl_->holder));
    engine::EditOptions options;
    options.default_operation = request.default_operation;
    options.dry_run = request.test_option == TestOption::TestOnly;
    options.complete = request.complete;
    engine::EditResult result = impl_->engine->edit(request.config, options);
    if (!result.ok) return result.error;
    if (options.dry_run) return std::nullopt;
    try {
        impl_->commit();
    } catch (const std::exception& e) {
        // Not on disk, so not committed: back to the configuration that is.
        impl_->restore_committed();
        return RpcError(ErrorType::Application, ErrorTag::OperationFailed,
                        std::string("the configuration could not be saved, the edit is undone: ") + e.what());
    }
    return std::nullopt;
}

std::optional<RpcError> Datastore::validate(const lyd_node* config) {
    std::lock_guard lock(impl_->mutex);
    engine::EditOptions options;
    options.default_operation = engine::DefaultOperation::Replace;
    options.dry_run = true;
    options.complete = true;
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

const std::string& Datastore::model_name() const { return impl_->engine->model_name(); }

}  // namespace tavrik::netconf
