#include "output.hpp"

#include <algorithm>
#include <array>

namespace tavrik::cli {

void print_transcript(std::ostream& out, const std::vector<engine::SentLine>& lines) {
    using Row = std::array<std::string, 5>;
    std::vector<Row> rows{{"VSYS", "VIEW", "TEMPLATE", "OP", "LINE"}};
    for (const engine::SentLine& l : lines)
        rows.push_back({l.vsys, l.view, l.view_template.value_or("-"), l.cmd_op == 1 ? "del" : "add", l.line});
    std::array<size_t, 4> width{};
    for (const Row& row : rows)
        for (size_t c = 0; c < width.size(); ++c) width[c] = std::max(width[c], row[c].size());
    for (const Row& row : rows) {
        for (size_t c = 0; c < width.size(); ++c) out << row[c] << std::string(width[c] - row[c].size() + 2, ' ');
        out << row[4] << '\n';
    }
}

void print_error(std::ostream& out, const std::string& file, const engine::RpcError& error) {
    out << file << ':';
    if (error.line) out << error.line << ':';
    out << ' ' << error.message << '\n';
    out << "  error-tag:   " << engine::name_of(error.tag) << '\n';
    if (!error.path.empty()) out << "  error-path:  " << error.path << '\n';
    if (!error.module_path.empty()) out << "  module-path: " << error.module_path << '\n';
    if (error.app_code) out << "  code:        " << error.app_code << '\n';
}

}  // namespace tavrik::cli
