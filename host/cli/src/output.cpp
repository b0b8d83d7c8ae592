#include "output.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tavrik::cli {
namespace {

std::runtime_error system_error(const std::string& what, const std::filesystem::path& file) {
    return std::runtime_error(what + " " + file.string() + ": " + std::strerror(errno));
}

}  // namespace

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

std::optional<std::string> read_file(const std::filesystem::path& file) {
    std::error_code ec;
    if (std::filesystem::is_directory(file, ec)) throw std::runtime_error(file.string() + " is a directory");
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        if (errno == ENOENT) return std::nullopt;
        throw system_error("cannot read", file);
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) throw system_error("cannot read", file);
    return text.str();
}

void write_file_atomically(const std::filesystem::path& file, const std::string& text) {
    std::filesystem::path temp = file;
    temp += ".tmp-XXXXXX";
    std::string name = temp.string();
    int fd = mkstemp(name.data());
    if (fd < 0) throw system_error("cannot create a file beside", file);
    const char* data = text.data();
    size_t left = text.size();
    bool ok = true;
    while (ok && left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written < 0 && errno == EINTR) continue;
        ok = written > 0;
        if (ok) {
            data += written;
            left -= static_cast<size_t>(written);
        }
    }
    ok = ok && fchmod(fd, 0644) == 0 && fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (!ok || std::rename(name.c_str(), file.c_str()) != 0) {
        auto error = system_error("cannot write", file);
        std::remove(name.c_str());
        throw error;
    }
}

}  // namespace tavrik::cli
