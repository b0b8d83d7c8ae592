// What the appliance tests share: lines in views named as the case tables in
// cases/ name them, and the appliance that holds something of every kind.
#pragma once

#include <algorithm>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "cases.hpp"
#include "tavrik/appliance.hpp"

namespace tavrik::appliance {
// Failure messages show a configuration item by item.
inline void PrintTo(const Configuration& config, std::ostream* out) {
    for (const auto& line : describe(config)) *out << "\n    " << line;
}
}  // namespace tavrik::appliance

namespace appliance_test {

namespace av = tavrik::appliance;
using tktest::Case;

struct Line {
    tavrik::runtime::CachedLine line;
    unsigned op = CMD_ADD;
};

// `text` in a view: vsys:N (the view of vsys N in "public"), system (of vs1),
// root (the system view of "public"), profile (p1 of vs1), or "VSYS VIEW
// TEMPLATE" with "-" for no template. op: add, del or a number.
inline Line at(const std::string& view, std::string text, const std::string& op = "add") {
    const auto w = tktest::words(view);
    const unsigned code = op == "add" ? unsigned{CMD_ADD} : op == "del" ? unsigned{CMD_DEL} : std::stoul(op);
    auto in = [&](std::string vsys, std::string name, std::optional<std::string> tmpl) {
        return Line{{std::move(vsys), std::move(name), std::move(tmpl), std::move(text)}, code};
    };
    if (w.size() == 3) return in(w[0], w[1], w[2] == "-" ? std::nullopt : std::optional(w[2]));
    if (w.at(0).starts_with("vsys:")) return in("public", "vsys-" + w[0].substr(5), "mgmt-vsys");
    if (w[0] == "system") return in("vs1", "system", std::nullopt);
    if (w[0] == "root") return in("public", "system", std::nullopt);
    if (w[0] == "profile") return in("vs1", "profile-av-p1", "profile-av");
    throw std::invalid_argument("no view " + view);
}

// A row "op | view | line | ...".
inline Line line_of(const Case& c) { return at(c.columns.at(1), tktest::decode(c.columns.at(2)), c.columns.at(0)); }

// The parts of a column between " ; ", each decoded.
inline std::vector<std::string> parts(const std::string& column) {
    std::vector<std::string> out;
    for (std::size_t start = 0; start < column.size();) {
        const std::size_t end = std::min(column.find(" ; ", start), column.size());
        out.push_back(tktest::decode(column.substr(start, end - start)));
        start = end + 3;
    }
    return out;
}

// A column of describe() items, "P" standing for vsys[vs1]/profile[p1] (also
// after a leading "+" or "-"); sorted.
inline std::vector<std::string> items(const std::string& column) {
    std::vector<std::string> out = parts(column);
    for (std::string& item : out) {
        const std::size_t p = item.find_first_not_of("+-");
        if (item.compare(p, 2, "P/") == 0 || item.substr(p) == "P") item.replace(p, 1, "vsys[vs1]/profile[p1]");
    }
    std::sort(out.begin(), out.end());
    return out;
}

inline std::vector<tktest::CaseSection> sections(const std::string& file, const std::string& key) {
    return tktest::readCases(std::string(TKTEST_CASES_DIR) + "/" + file, key);
}

inline void run(av::Appliance& a, const Line& l) {
    if (a.execute(l.line, l.op) != av::kAccepted) throw std::runtime_error("refused: " + l.line.line);
}

// Every kind of setting in vs1/p1, a second profile and vsys, the global
// aging time (cases/rich.cases).
inline av::Appliance rich() {
    av::Appliance a;
    const auto lines = sections("rich.cases", "appliance");
    for (const Case& c : lines.at(0).cases) run(a, line_of(c));
    return a;
}

}  // namespace appliance_test
