#include "journal.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>

#include "tavrik/atomic_file.hpp"

namespace tavrik::netconf {
namespace {

constexpr std::string_view kSnapshotMagic = "TKAVSNP1";
constexpr std::string_view kJournalMagic = "TKAVJNL1";
constexpr std::size_t kFileHeader = 16;    // magic, generation
constexpr std::size_t kRecordHeader = 16;  // length, its check, checksum

// FNV-1a over 64-bit words. It recognises a record cut short or damaged, it
// does not resist forgery; every step is a bijection, so a difference in one
// word always shows.
std::uint64_t checksum(std::string_view body) {
    constexpr std::uint64_t kPrime = 0x100000001b3ull;
    std::uint64_t hash = (0xcbf29ce484222325ull ^ body.size()) * kPrime;
    std::size_t i = 0;
    for (; i + 8 <= body.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, body.data() + i, sizeof word);
        hash = (hash ^ word) * kPrime;
    }
    for (; i < body.size(); ++i) hash = (hash ^ static_cast<unsigned char>(body[i])) * kPrime;
    return hash;
}

// The check of a record's length, so that a damaged length is told from a
// record that runs past the end of the file.
std::uint32_t length_check(std::uint32_t length) { return ~(length * 0x9e3779b1u); }

class Writer {
public:
    explicit Writer(std::string out = {}) : out_(std::move(out)) {}
    void u8(std::uint8_t v) { out_.push_back(static_cast<char>(v)); }
    void u32(std::uint32_t v) {
        for (int i = 0; i < 4; ++i) u8(static_cast<std::uint8_t>(v >> (8 * i)));
    }
    void u64(std::uint64_t v) {
        for (int i = 0; i < 8; ++i) u8(static_cast<std::uint8_t>(v >> (8 * i)));
    }
    void bytes(std::string_view s) {
        u32(static_cast<std::uint32_t>(s.size()));
        out_ += s;
    }
    std::string take() { return std::move(out_); }

private:
    std::string out_;
};

struct Malformed {
    std::size_t at;  // offset within the text read
    const char* what;
};

class Reader {
public:
    explicit Reader(std::string_view in) : in_(in) {}
    std::uint8_t u8() { return static_cast<std::uint8_t>(take(1)[0]); }
    std::uint32_t u32() { return static_cast<std::uint32_t>(little_endian(take(4))); }
    std::uint64_t u64() { return little_endian(take(8)); }
    std::string bytes() {
        const std::uint32_t n = u32();
        return std::string(take(n));
    }
    bool done() const { return at_ == in_.size(); }
    std::size_t at() const { return at_; }

private:
    static std::uint64_t little_endian(std::string_view b) {
        std::uint64_t v = 0;
        for (std::size_t i = b.size(); i-- > 0;) v = v << 8 | static_cast<unsigned char>(b[i]);
        return v;
    }
    std::string_view take(std::size_t n) {
        if (in_.size() - at_ < n) throw Malformed{at_, "the record ends inside a field"};
        const std::string_view out = in_.substr(at_, n);
        at_ += n;
        return out;
    }
    std::string_view in_;
    std::size_t at_ = 0;
};

void put_line(Writer& w, const runtime::CachedLine& line, unsigned cmd_op) {
    w.u8(0);
    w.u32(cmd_op);
    w.bytes(line.vsys);
    w.bytes(line.view);
    w.u8(line.view_template ? 1 : 0);
    w.bytes(line.view_template.value_or(""));
    w.bytes(line.line);
}

void put_removal(Writer& w, const std::vector<std::string>& names) {
    w.u8(1);
    w.u32(static_cast<std::uint32_t>(names.size()));
    for (const std::string& name : names) w.bytes(name);
}

ApplianceStep take_step(Reader& r) {
    ApplianceStep step;
    if (r.u8() != 0) {
        for (std::uint32_t names = r.u32(); names > 0; --names) step.removed_vsys.push_back(r.bytes());
        if (step.removed_vsys.empty()) throw Malformed{r.at(), "a vsys removal names no vsys"};
        return step;
    }
    step.cmd_op = r.u32();
    step.line.vsys = r.bytes();
    step.line.view = r.bytes();
    const bool has_template = r.u8() != 0;
    std::string view_template = r.bytes();
    if (has_template) step.line.view_template = std::move(view_template);
    step.line.line = r.bytes();
    return step;
}

std::string payload_of(const Record& record) {
    Writer w;
    w.u8(static_cast<std::uint8_t>(record.running));
    w.u8(static_cast<std::uint8_t>(record.default_operation));
    w.bytes(record.running_xml);
    w.u32(record.appliance.size());
    w.bytes(record.appliance.bytes());
    return w.take();
}

Record record_of(std::string_view payload) {
    Reader r(payload);
    Record record;
    const std::uint8_t running = r.u8();
    const std::uint8_t operation = r.u8();
    if (running > static_cast<std::uint8_t>(Record::Running::Whole) ||
        operation > static_cast<std::uint8_t>(engine::DefaultOperation::None))
        throw Malformed{0, "the record is of an unknown kind"};
    record.running = static_cast<Record::Running>(running);
    record.default_operation = static_cast<engine::DefaultOperation>(operation);
    record.running_xml = r.bytes();
    const std::uint32_t count = r.u32();
    const std::size_t at = r.at();
    record.appliance = ApplianceSteps::from_bytes(count, r.bytes());
    try {
        record.appliance.decode();
    } catch (const std::invalid_argument&) {
        throw Malformed{at, "the appliance's steps do not read"};
    }
    if (!r.done()) throw Malformed{r.at(), "the record has bytes after its last field"};
    return record;
}

std::string file_header(std::string_view magic, std::uint64_t generation) {
    Writer w;
    w.u64(generation);
    return std::string(magic) + w.take();
}

// The generation in the header of `text`; throws Malformed.
std::uint64_t generation_of(std::string_view text, std::string_view magic) {
    if (text.size() < kFileHeader || text.substr(0, magic.size()) != magic)
        throw Malformed{0, "this is not a state file of tkav-netconfd"};
    return Reader(text.substr(magic.size(), 8)).u64();
}

[[noreturn]] void unreadable(const std::string& path, std::uint64_t offset, const char* what) {
    throw StateError(path + ": offset " + std::to_string(offset) + ": " + what +
                     "; tkav-netconfd does not start on a state it cannot read, and leaves the file as it is");
}

void write_at(int fd, std::string_view bytes, std::uint64_t offset) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::pwrite(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw std::system_error(n < 0 ? errno : ENOSPC, std::generic_category());
        done += static_cast<std::size_t>(n);
    }
}

}  // namespace

void ApplianceSteps::add_line(const runtime::CachedLine& line, unsigned cmd_op) {
    Writer w(std::move(bytes_));
    put_line(w, line, cmd_op);
    bytes_ = w.take();
    ++count_;
}

void ApplianceSteps::add_removal(const std::vector<std::string>& names) {
    Writer w(std::move(bytes_));
    put_removal(w, names);
    bytes_ = w.take();
    ++count_;
}

ApplianceSteps ApplianceSteps::from_bytes(std::uint32_t count, std::string bytes) {
    ApplianceSteps steps;
    steps.count_ = count;
    steps.bytes_ = std::move(bytes);
    return steps;
}

std::vector<ApplianceStep> ApplianceSteps::decode() const {
    std::vector<ApplianceStep> steps;
    Reader r(bytes_);
    try {
        for (std::uint32_t n = 0; n < count_; ++n) steps.push_back(take_step(r));
    } catch (const Malformed&) {
        throw std::invalid_argument("the appliance's steps do not read");
    }
    if (!r.done()) throw std::invalid_argument("the appliance's steps do not read");
    return steps;
}

std::string encode_record(const Record& record) {
    const std::string payload = payload_of(record);
    Writer w;
    const auto length = static_cast<std::uint32_t>(payload.size());
    w.u32(length);
    w.u32(length_check(length));
    w.u64(checksum(payload));
    return w.take() + payload;
}

StateStore::StateStore(std::string dir, bool sync) : dir_(std::move(dir)), sync_(sync) {}

StateStore::~StateStore() {
    if (fd_ >= 0) ::close(fd_);
}

StoredState StateStore::load() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    StoredState state;
    state.snapshot.record.running = Record::Running::Whole;
    const auto snapshot = read_file(snapshot_path());
    const auto journal = read_file(journal_path());
    generation_ = 0;
    snapshot_bytes_ = 0;
    if (!snapshot && !journal) {
        for (const char* slot : {"/snapshot.0", "/snapshot.1"})
            if (read_file(dir_ + slot))
                unreadable(dir_ + slot, 0, "a state file of an earlier tkav-netconfd, which this one does not read");
    }
    if (snapshot) {
        try {
            generation_ = generation_of(*snapshot, kSnapshotMagic);
            const std::string_view body = std::string_view(*snapshot).substr(kFileHeader);
            Reader header(body);
            const std::uint32_t length = body.size() >= kRecordHeader ? header.u32() : 0;
            if (body.size() < kRecordHeader || header.u32() != length_check(length) ||
                body.size() != kRecordHeader + length)
                throw Malformed{kFileHeader, "the snapshot is not one whole record"};
            const std::uint64_t sum = header.u64();
            const std::string_view payload = body.substr(kRecordHeader);
            if (checksum(payload) != sum) throw Malformed{kFileHeader, "the snapshot's checksum does not match"};
            state.snapshot = {kFileHeader, record_of(payload)};
            if (state.snapshot.record.running != Record::Running::Whole)
                throw Malformed{kFileHeader, "the snapshot holds no whole configuration"};
        } catch (const Malformed& m) {
            unreadable(snapshot_path(), m.at == 0 ? 0 : kFileHeader, m.what);
        }
        snapshot_bytes_ = snapshot->size();
    }

    std::uint64_t end = kFileHeader;
    bool fresh = !journal;
    if (journal) {
        std::uint64_t generation = 0;
        try {
            generation = generation_of(*journal, kJournalMagic);
        } catch (const Malformed& m) {
            unreadable(journal_path(), 0, m.what);
        }
        if (generation > generation_)
            unreadable(journal_path(), 8, "the journal is newer than the snapshot (a snapshot is missing)");
        // Older: a compaction was interrupted after its snapshot; the
        // snapshot holds these records.
        fresh = generation < generation_;
        const std::string_view text = *journal;
        while (!fresh && end < text.size()) {
            const std::string_view rest = text.substr(end);
            // A file extended but not written (a power loss) ends in zeros.
            const auto zeros = [&](std::size_t from = 0) {
                return std::all_of(rest.begin() + static_cast<std::ptrdiff_t>(from), rest.end(),
                                   [](char c) { return c == 0; });
            };
            std::uint32_t length = 0;
            bool torn = rest.size() < kRecordHeader;
            if (!torn) {
                Reader header(rest);
                length = header.u32();
                if (header.u32() != length_check(length)) {
                    if (!zeros()) unreadable(journal_path(), end, "a record's header is damaged");
                    torn = true;
                } else if (rest.size() < kRecordHeader + length) {
                    torn = true;
                } else if (const std::string_view payload = rest.substr(kRecordHeader, length);
                           checksum(payload) != header.u64()) {
                    // The last record (nothing but zeros after it), written
                    // in part: torn. Any other record is damaged.
                    if (!zeros(kRecordHeader + length))
                        unreadable(journal_path(), end, "a record's checksum does not match");
                    torn = true;
                } else {
                    try {
                        state.journal.push_back({end, record_of(payload)});
                    } catch (const Malformed& m) {
                        unreadable(journal_path(), end + kRecordHeader + m.at, m.what);
                    }
                }
            }
            if (torn) {
                state.warnings.push_back(journal_path() + ": offset " + std::to_string(end) + ": the last record (" +
                                         std::to_string(rest.size()) +
                                         " bytes) is torn, written in part when the daemon stopped; it is discarded");
                break;
            }
            end += kRecordHeader + length;
        }
    }
    if (fresh) {
        start_journal();
    } else {
        fd_ = ::open(journal_path().c_str(), O_WRONLY | O_CLOEXEC);
        if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "cannot open " + journal_path());
        if (end != journal->size() && (::ftruncate(fd_, static_cast<off_t>(end)) != 0 || (sync_ && ::fdatasync(fd_) != 0)))
            throw std::system_error(errno, std::generic_category(), "cannot cut the torn record off " + journal_path());
        journal_end_ = end;
    }
    broken_ = false;
    return state;
}

void StateStore::start_journal() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    write_file_atomically(journal_path(), file_header(kJournalMagic, generation_), 0600, sync_);
    fd_ = ::open(journal_path().c_str(), O_WRONLY | O_CLOEXEC);
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "cannot open " + journal_path());
    journal_end_ = kFileHeader;
}

void StateStore::commit(const Record& change, const std::function<Record()>& whole) {
    if (change.running == Record::Running::Whole) return compact(whole());
    const std::string bytes = encode_record(change);
    const bool compacting = broken_ || fd_ < 0 ||
                            journal_end_ - kFileHeader + bytes.size() >
                                std::max<std::uint64_t>(kCompactionFloor, snapshot_bytes_);
    if (compacting) return compact(whole());
    append(bytes);
}

void StateStore::append(const std::string& bytes) {
    try {
        write_at(fd_, bytes, journal_end_);
        if (sync_ && ::fdatasync(fd_) != 0) throw std::system_error(errno, std::generic_category());
    } catch (const std::system_error& e) {
        // Cut back, so that the next record follows the last whole one.
        if (::ftruncate(fd_, static_cast<off_t>(journal_end_)) != 0) broken_ = true;
        throw std::system_error(e.code(), "cannot write " + journal_path());
    }
    journal_end_ += bytes.size();
}

void StateStore::compact(const Record& snapshot) {
    const std::string text = file_header(kSnapshotMagic, generation_ + 1) + encode_record(snapshot);
    write_file_atomically(snapshot_path(), text, 0600, sync_);
    ++generation_;
    snapshot_bytes_ = text.size();
    // The snapshot is the commit. A journal that cannot be started again is
    // of the older generation, ignored on the next start; until one can be
    // started, every commit compacts.
    try {
        start_journal();
        broken_ = false;
    } catch (const std::system_error&) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
}

}  // namespace tavrik::netconf
