// What tkav prints and writes: the transcript of sent lines, rpc-errors, and
// files replaced atomically.
#pragma once

#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "tavrik/engine.hpp"

namespace tavrik::cli {

// The lines as an aligned table: vsys, view, template, command op, line.
void print_transcript(std::ostream& out, const std::vector<engine::SentLine>& lines);

// "FILE:LINE: message" (or "FILE: message" where no line is known) with the
// tag, the instance path, the module's own path and the refusing party's
// code on the lines below.
void print_error(std::ostream& out, const std::string& file, const engine::RpcError& error);

// The whole content of a file; nullopt when it does not exist. Throws
// std::runtime_error when it cannot be read.
std::optional<std::string> read_file(const std::filesystem::path& file);

// Replaces `file` with `text`: a temporary file beside it, flushed to disk,
// renamed over the old one. Throws std::runtime_error.
void write_file_atomically(const std::filesystem::path& file, const std::string& text);

}  // namespace tavrik::cli
