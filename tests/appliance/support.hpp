// Helpers shared by the appliance tests: lines in their views, and an
// appliance holding something of every kind.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "tavrik/appliance.hpp"

namespace tavrik::appliance {
// Failure messages show a configuration item by item.
inline void PrintTo(const Configuration& config, std::ostream* out) {
    for (const auto& line : describe(config)) *out << "\n    " << line;
}
}  // namespace tavrik::appliance

namespace appliance_test {

using tavrik::runtime::CachedLine;

constexpr unsigned ADD = 0, DEL = 1;

struct Line {
    CachedLine line;
    unsigned op = 0;
};

inline Line in(std::string vsys, std::string view, std::optional<std::string> tmpl, std::string text, unsigned op = 0) {
    return {{std::move(vsys), std::move(view), std::move(tmpl), std::move(text)}, op};
}
// The view of profile p1 in vsys vs1.
inline Line pv(std::string text, unsigned op = 0) {
    return in("vs1", "profile-av-p1", "profile-av", std::move(text), op);
}
// The system view of vs1, and of the root system.
inline Line sys(std::string text, unsigned op = 0) { return in("vs1", "system", std::nullopt, std::move(text), op); }
inline Line root(std::string text, unsigned op = 0) {
    return in("public", "system", std::nullopt, std::move(text), op);
}
// The root system's view of a vsys.
inline Line vv(std::string vsys, std::string text, unsigned op = 0) {
    return in("public", "vsys-" + vsys, "mgmt-vsys", std::move(text), op);
}

// Lines that give vs1/p1 every kind of setting, plus a second vsys and the
// global aging time.
inline std::vector<Line> rich_lines() {
    return {
        root("file-reputation set aging-time hour 72"),
        vv("vs1", "assign function av"),
        vv("vs2", "undo assign function av"),
        sys("profile type av name p1"),
        sys("profile type av name \"my av\""),
        pv("description Office <traffic> & mail"),
        pv("collect-attack-evidence enable"),
        pv("undo file-reputation enable"),
        pv("heuristic-detect enable"),
        pv("http-detect direction both action block"),
        pv("ftp-detect direction upload"),
        pv("nfs-detect direction download"),
        pv("smtp-detect action delete-attachment"),
        pv("pop3-detect"),
        pv("imap-detect direction both action alert"),
        pv("undo imap-detect"),
        pv("smb-detect direction both action alert"),
        pv("undo smb-detect direction", DEL),
        pv("exception application name zoom action block"),
        pv("exception application name ssh"),
        pv("exception av-signature-id 1001"),
        pv("exception av-signature-id 1002 action allow"),
        pv("exception av-signature-id 1003 action block-source-ip timeout 30"),
        pv("whitelist url www.example.com/*"),
        pv("whitelist url \"a b.com\""),
        pv("whitelist url q%22x.com"),
        pv("whitelist host *.example.org"),
        pv("whitelist source-address 10.0.0.1"),
        pv("whitelist source-address range 10.0.0.1 10.0.0.9"),
        pv("whitelist destination-address 2001:db8::1"),
        pv("whitelist destination-address range ::1 ::9"),
    };
}

inline void run_lines(tavrik::appliance::Appliance& a, const std::vector<Line>& lines) {
    for (const auto& l : lines)
        if (a.execute(l.line, l.op) != 0) throw std::runtime_error("refused: " + l.line.line);
}

}  // namespace appliance_test
