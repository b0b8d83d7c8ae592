#include "snapshot.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "atomic_file.hpp"

namespace tavrik::netconf {
namespace {

constexpr std::string_view kMagic = "tkav-netconfd snapshot 1 ";

// FNV-1a over 64-bit words, over the generation, the length and the body.
// It is there to recognise a slot cut short, not to resist forgery; every
// step is a bijection, so a difference in one word always shows.
std::uint64_t checksum(std::uint64_t generation, std::string_view body) {
    constexpr std::uint64_t kPrime = 0x100000001b3ull;
    std::uint64_t hash = ((0xcbf29ce484222325ull ^ generation) * kPrime ^ body.size()) * kPrime;
    std::size_t i = 0;
    for (; i + 8 <= body.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, body.data() + i, sizeof word);
        hash = (hash ^ word) * kPrime;
    }
    for (; i < body.size(); ++i) hash = (hash ^ static_cast<unsigned char>(body[i])) * kPrime;
    return hash;
}

// Reads "<number><separator>" from the front of `text`.
template <typename T>
bool take_number(std::string_view& text, char separator, T& value, int base = 10) {
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (ec != std::errc() || ptr == text.data() + text.size() || *ptr != separator) return false;
    text.remove_prefix(static_cast<std::size_t>(ptr - text.data()) + 1);
    return true;
}

}  // namespace

std::string encode_snapshot(const Snapshot& snapshot) {
    std::size_t size = 0;
    for (const auto& [name, content] : snapshot.sections) size += name.size() + content.size() + 24;
    std::string body;
    body.reserve(size);
    for (const auto& [name, content] : snapshot.sections) {
        body += name;
        body += ' ';
        body += std::to_string(content.size());
        body += '\n';
        body += content;
        body += '\n';
    }
    char header[96];
    const int length =
        std::snprintf(header, sizeof header, "%.*s%llu %zu %016llx\n", static_cast<int>(kMagic.size()), kMagic.data(),
                      static_cast<unsigned long long>(snapshot.generation), body.size(),
                      static_cast<unsigned long long>(checksum(snapshot.generation, body)));
    return body.insert(0, header, static_cast<std::size_t>(length));
}

std::optional<Snapshot> decode_snapshot(std::string_view text) {
    if (text.substr(0, kMagic.size()) != kMagic) return std::nullopt;
    text.remove_prefix(kMagic.size());
    Snapshot snapshot;
    std::size_t length = 0;
    std::uint64_t sum = 0;
    if (!take_number(text, ' ', snapshot.generation) || !take_number(text, ' ', length) ||
        !take_number(text, '\n', sum, 16) || text.size() != length || checksum(snapshot.generation, text) != sum)
        return std::nullopt;
    while (!text.empty()) {
        const auto space = text.find(' ');
        if (space == 0 || space == std::string_view::npos) return std::nullopt;
        std::string name(text.substr(0, space));
        text.remove_prefix(space + 1);
        std::size_t size = 0;
        if (!take_number(text, '\n', size) || text.size() < size + 1 || text[size] != '\n') return std::nullopt;
        snapshot.sections.emplace_back(std::move(name), std::string(text.substr(0, size)));
        text.remove_prefix(size + 1);
    }
    return snapshot;
}

std::optional<std::string> section_of(const Sections& sections, std::string_view name) {
    for (const auto& [n, content] : sections)
        if (n == name) return content;
    return std::nullopt;
}

std::optional<Sections> SnapshotStore::load() {
    std::optional<Snapshot> best;
    bool any_file = false;
    for (int slot = 0; slot < 2; ++slot) {
        const auto text = read_file(slot_path(slot));
        if (!text) continue;
        any_file = true;
        auto snapshot = decode_snapshot(*text);
        if (snapshot && (!best || snapshot->generation > best->generation)) best = std::move(snapshot);
    }
    if (!best) {
        if (any_file) throw SnapshotError(slot_path(0) + " and " + slot_path(1) + " hold no whole snapshot");
        return std::nullopt;
    }
    generation_ = best->generation;
    return std::move(best->sections);
}

void SnapshotStore::save(const Sections& sections) {
    const Snapshot snapshot{generation_ + 1, sections};
    const std::string path = slot_path(static_cast<int>(snapshot.generation % 2));
    const std::string text = encode_snapshot(snapshot);
    const bool created = ::access(path.c_str(), F_OK) != 0;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "cannot open " + path);
    const auto fail = [&](const char* what) {
        const int saved = errno;
        ::close(fd);
        throw std::system_error(saved, std::generic_category(), what + path);
    };
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = ::pwrite(fd, text.data() + done, text.size() - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) fail("cannot write ");
        done += static_cast<std::size_t>(n);
    }
    if (::ftruncate(fd, static_cast<off_t>(text.size())) != 0) fail("cannot truncate ");
    if (sync_ && ::fdatasync(fd) != 0) fail("cannot flush ");
    if (::close(fd) != 0) throw std::system_error(errno, std::generic_category(), "cannot write " + path);
    if (sync_ && created) sync_directory_of(path);
    generation_ = snapshot.generation;
}

}  // namespace tavrik::netconf
