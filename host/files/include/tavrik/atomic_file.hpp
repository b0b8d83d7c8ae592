// Whole-file replacement that a crash cannot tear: the new content goes to a
// temporary file beside the target, which is then renamed over it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace tavrik {

// Replaces `path` with `content` (file mode `mode`). With `sync`, the data
// and the directory entry are flushed to disk before returning. Throws
// std::system_error naming the path on failure; `path` is then unchanged.
void write_file_atomically(const std::string& path, std::string_view content, mode_t mode, bool sync);

// The whole content of `path`; nullopt when it does not exist. Throws
// std::system_error on other failures.
std::optional<std::string> read_file(const std::string& path);

// Removes `path` when it exists; with `sync` the removal is flushed to disk.
// Throws std::system_error on failure.
void remove_file(const std::string& path, bool sync);

// Flushes the directory entry of `path` to disk.
void sync_directory_of(const std::string& path);

// Creates `path` and its missing parents (mode 0700).
void make_directories(const std::string& path);

}  // namespace tavrik
