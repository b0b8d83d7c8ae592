// What tkav prints: the transcript of sent lines and rpc-errors.
#pragma once

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

}  // namespace tavrik::cli
