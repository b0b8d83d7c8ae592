// The snapshot of tkav-netconfd: the running configuration and the appliance
// it describes, as named sections of text, committed together.
//
// Two slot files take turns ("snapshot.0", "snapshot.1"); each commit
// overwrites the older one in place. A slot starts with a header that names
// its generation, the length of its body and a checksum:
//
//     tkav-netconfd snapshot 1 <generation> <length> <checksum>
//     <name> <length>
//     <length bytes>
//     ...
//
// A slot cut short by a crash fails its checksum, so the other slot, the
// previous commit, is the one loaded. Overwriting in place keeps commits
// cheap: no new file per commit.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavrik::netconf {

using Sections = std::vector<std::pair<std::string, std::string>>;

struct Snapshot {
    std::uint64_t generation = 0;
    Sections sections;
    bool operator==(const Snapshot&) const = default;
};

std::string encode_snapshot(const Snapshot& snapshot);
// nullopt when `text` is not a whole slot (header, length or checksum wrong).
std::optional<Snapshot> decode_snapshot(std::string_view text);
std::optional<std::string> section_of(const Sections& sections, std::string_view name);

class SnapshotError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class SnapshotStore {
public:
    // `dir` must exist. With `sync`, every commit is flushed to disk before
    // save() returns.
    SnapshotStore(std::string dir, bool sync) : dir_(std::move(dir)), sync_(sync) {}

    // The last commit; nullopt when nothing was ever committed. Throws
    // SnapshotError when slot files exist but none is whole (they are left
    // as they are).
    std::optional<Sections> load();
    // Commits `sections`. Throws std::system_error; the previous commit
    // stays loadable then.
    void save(const Sections& sections);

    std::string slot_path(int slot) const { return dir_ + "/snapshot." + std::to_string(slot); }

private:
    std::string dir_;
    bool sync_;
    std::uint64_t generation_ = 0;  // of the last commit
};

}  // namespace tavrik::netconf
