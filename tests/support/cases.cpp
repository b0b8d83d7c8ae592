#include "cases.hpp"

#include <fstream>
#include <regex>
#include <stdexcept>

namespace tktest {

namespace {

std::string trim(const std::string& s) {
    size_t begin = s.find_first_not_of(" \t");
    if (begin == std::string::npos) return "";
    return s.substr(begin, s.find_last_not_of(" \t") - begin + 1);
}

}  // namespace

std::string Case::setting(const std::string& name) const {
    auto it = settings.find(name);
    return it == settings.end() ? "" : it->second;
}

std::vector<CaseSection> readCases(const std::string& file, const std::string& sectionKey) {
    std::ifstream in(file);
    if (!in) throw std::runtime_error("cannot read " + file);
    std::vector<CaseSection> sections;
    std::map<std::string, std::string> settings;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        line = trim(line);
        if (line.empty() || line[0] == '#') continue;
        std::string where = file.substr(file.rfind('/') + 1) + ":" + std::to_string(number);
        if (line.find('|') != std::string::npos) {
            if (sections.empty()) throw std::runtime_error(where + ": row before the first section");
            std::vector<std::string> columns;
            for (size_t start = 0; start <= line.size();) {
                size_t end = std::min(line.find('|', start), line.size());
                columns.push_back(trim(line.substr(start, end - start)));
                start = end + 1;
            }
            sections.back().cases.push_back({where, settings, columns});
            continue;
        }
        size_t blank = line.find_first_of(" \t");
        std::string name = line.substr(0, blank), value = blank == std::string::npos ? "" : trim(line.substr(blank));
        if (name == sectionKey) {
            sections.push_back({value, {}});
            settings.clear();
        }
        settings[name] = value;
    }
    return sections;
}

std::string decode(const std::string& column) {
    std::string s = column;
    if (s.size() >= 2 && s.front() == '"' && s.back() == '"') s = s.substr(1, s.size() - 2);
    static const std::regex repeat(R"(\{([^{}*]+)\*(\d+)\})");
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        std::smatch m;
        std::string rest = s.substr(i);
        if (s[i] == '{' && std::regex_search(rest, m, repeat, std::regex_constants::match_continuous)) {
            for (int n = std::stoi(m[2]); n > 0; --n) out += m[1];
            i += m.length(0) - 1;
        } else if (s[i] == '\\' && s.compare(i, 2, "\\x") == 0 && i + 3 < s.size()) {
            out += static_cast<char>(std::stoi(s.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else if (s[i] == '\\' && i + 1 < s.size()) {
            static const std::string from = "tnrvf0", to("\t\n\r\v\f\0", 6);
            char c = s[++i];
            out += from.find(c) != std::string::npos ? to[from.find(c)] : c;
        } else {
            out += s[i];
        }
    }
    return out;
}

std::vector<std::string> words(const std::string& text) {
    std::vector<std::string> out;
    for (size_t i = text.find_first_not_of(' '); i != std::string::npos; i = text.find_first_not_of(' ', i)) {
        size_t end = text[i] == '"' ? text.find('"', i + 1) + 1 : text.find(' ', i);
        if (end == 0 || end > text.size()) end = text.size();
        out.push_back(decode(text.substr(i, end - i)));
        i = end;
    }
    return out;
}

}  // namespace tktest
