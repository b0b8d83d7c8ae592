// The state of tkav-netconfd on disk: a snapshot of the running
// configuration and the appliance, and a journal of what each commit changed
// since, so that a commit writes what it changed and not the whole state.
//
//     STATE-DIR/snapshot   header, one record: the whole running configuration
//                          and the lines that rebuild the appliance
//     STATE-DIR/journal    header, then one record per commit: the edit and
//                          the appliance's accepted lines and vsys removals
//
// A header is an 8-byte magic and the generation (little-endian 64 bits);
// the journal belongs to the snapshot of its generation. A record is
//
//     u32 length, u32 check of the length, u64 checksum of the payload, payload
//
// with the payload made of length-prefixed byte strings: the appliance's
// lines are bytes (a line cut by the module's buffer may end inside a UTF-8
// character), never read as text.
//
// Compaction writes a new snapshot (temporary file and rename) with the next
// generation, then a new empty journal of that generation; a crash between
// the two leaves a journal of the older generation, whose records the new
// snapshot already holds, so it is ignored.
#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tavrik/engine.hpp"
#include "tavrik/runtime.hpp"

namespace tavrik::netconf {

// One thing the appliance carried out: an accepted line, or the removal of
// vsys (then `removed_vsys` names them and `line` is unused).
struct ApplianceStep {
    runtime::CachedLine line;
    unsigned cmd_op = 0;
    std::vector<std::string> removed_vsys;
    bool operator==(const ApplianceStep&) const = default;
};

// Steps of the appliance in the form a record holds them: one buffer, no
// allocation per line (a create of 10,000 profiles is 60,000 lines, whose
// strings would otherwise be scattered among the appliance's own data).
class ApplianceSteps {
public:
    void add_line(const runtime::CachedLine& line, unsigned cmd_op);
    void add_removal(const std::vector<std::string>& names);
    std::uint32_t size() const { return count_; }
    std::vector<ApplianceStep> decode() const;  // throws std::invalid_argument for bytes that are no steps
    const std::string& bytes() const { return bytes_; }
    static ApplianceSteps from_bytes(std::uint32_t count, std::string bytes);
    bool operator==(const ApplianceSteps&) const = default;

private:
    std::uint32_t count_ = 0;
    std::string bytes_;
};

struct Record {
    enum class Running : std::uint8_t {
        None,   // the running configuration did not change
        Edit,   // `running_xml` is the edit-config payload, applied with `default_operation`
        Whole,  // `running_xml` is the whole running configuration
    };
    Running running = Running::None;
    engine::DefaultOperation default_operation = engine::DefaultOperation::Merge;
    std::string running_xml;
    ApplianceSteps appliance;
    bool operator==(const Record&) const = default;
};

// A record framed for a file: header and payload.
std::string encode_record(const Record& record);

// A record read back, with where it starts in its file.
struct StoredRecord {
    std::uint64_t offset = 0;
    Record record;
};

struct StoredState {
    StoredRecord snapshot;                // Whole; an empty configuration when none was written
    std::vector<StoredRecord> journal;    // after the snapshot, in order
    std::vector<std::string> warnings;    // what was discarded (a torn last record)
};

// A state file that cannot be read: the message names the file and the
// offset; the file is left as it is.
class StateError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class StateStore {
public:
    // `dir` must exist. With `sync`, every append and compaction is on disk
    // before it returns.
    StateStore(std::string dir, bool sync);
    ~StateStore();
    StateStore(const StateStore&) = delete;
    StateStore& operator=(const StateStore&) = delete;

    // Reads the snapshot and the journal and opens the journal for appends.
    // A torn last record (the journal ends inside it) is cut off, with a
    // warning. Throws StateError for anything else that does not read.
    StoredState load();

    // Commits `change`: appends it to the journal, or, when it changes the
    // whole running configuration or the journal has outgrown the snapshot,
    // writes `whole()` (the whole state, Running::Whole) as the new snapshot
    // and starts an empty journal after it. Throws std::system_error when
    // nothing could be written; the state on disk is then as before (the
    // journal cut back to its last whole record, or, if even that fails, the
    // next commit compacts).
    void commit(const Record& change, const std::function<Record()>& whole);

    std::string snapshot_path() const { return dir_ + "/snapshot"; }
    std::string journal_path() const { return dir_ + "/journal"; }

    // The journal is compacted once it would be larger than the snapshot and this.
    static constexpr std::size_t kCompactionFloor = 1 << 20;

private:
    void append(const std::string& bytes);
    void compact(const Record& snapshot);
    void start_journal();  // a new journal of generation_, opened for appends

    std::string dir_;
    bool sync_;
    int fd_ = -1;                  // the journal, for appends
    std::uint64_t generation_ = 0;
    std::uint64_t journal_end_ = 0;
    std::uint64_t snapshot_bytes_ = 0;
    bool broken_ = false;          // the journal may hold a partial record
};

}  // namespace tavrik::netconf
