// tkav-netconfd through libnetconf2's C client on its UNIX socket: a
// one-leaf edit-config on configurations of 0, 1,000 and 10,000 profiles,
// the create of 10,000 profiles in one edit and their get-config, and the
// daemon's memory after the create and after deleting them again, next to
// what libyang's tree of that configuration needs by itself.
//
//   netconf_bench [--daemon PATH] [--label NAME] [--csv FILE] [--sizes 0,1000,10000] [--seconds S]
//
// Every size runs on a daemon of its own (a fresh state directory, --sync
// no). The one-leaf edit changes the description of a profile "x" beside
// the N others, alternately "a" and "b", for about S seconds (at least 10
// edits): wall time per edit-config round trip, client and daemon, median.
// --csv appends "label size median_us" lines for the scaling plot.
#include <libyang/libyang.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "netconf_client.hpp"
#include "tavrik/appliance.hpp"

namespace {

using namespace tavrik::netconf::test;
using Clock = std::chrono::steady_clock;

std::string profile(const std::string& name, const std::string& description) {
    return "<profile><name>" + name + "</name><description>" + description +
           "</description><heuristic-detect-enable>true</heuristic-detect-enable><detect>"
           "<protocol-type>http</protocol-type><detect-configuration><direction>both</direction>"
           "<action>alert</action></detect-configuration></detect></profile>";
}

std::string profiles(int count) {
    std::string xml;
    for (int i = 0; i < count; ++i) xml += profile("p" + std::to_string(i), "profile " + std::to_string(i));
    return antivirus("<vsys><name>vs1</name><profiles>" + xml + "</profiles></vsys>");
}

// Resident memory of a process in MiB (VmRSS), once the reply's memory is
// released (the daemon does that after sending it).
// The daemon's RSS once it is idle: the work after a reply (returning
// memory, rebuilding the running configuration) done, the CPU time it has
// used steady for 200 ms.
double rss_mib(pid_t pid) {
    const std::string proc = "/proc/" + std::to_string(pid);
    const auto cpu_ticks = [&] {
        std::ifstream in(proc + "/stat");
        std::string field;
        unsigned long long ticks = 0;
        for (int i = 1; i <= 15 && in >> field; ++i)
            if (i == 14 || i == 15) ticks += std::stoull(field);  // utime, stime (after a name without spaces)
        return ticks;
    };
    for (auto ticks = cpu_ticks();;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const auto now = cpu_ticks();
        if (now == ticks) break;
        ticks = now;
    }
    std::ifstream in(proc + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
    return 0;
}

double ms_since(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

struct Size {
    int profiles = 0;
    double median_us = 0;
    int edits = 0;
    double create_ms = 0, get_config_ms = 0, delete_ms = 0;
    double rss_empty = 0, rss_created = 0, rss_deleted = 0, rss_created_again = 0, rss_deleted_again = 0;
};

// The heap libyang's tree of `xml` takes in this process, in MiB: the bytes
// malloc hands out for parsing it and keeping it (its dictionary strings
// included), measured around lyd_parse_data_mem.
double tree_mib(const std::string& xml) {
    ly_ctx* ctx = nullptr;
    if (ly_ctx_new(TAVRIK_YANG_DIR, 0, &ctx) != LY_SUCCESS || !ly_ctx_load_module(ctx, "tavrik-antivirus", nullptr, nullptr))
        return 0;
    const auto before = mallinfo2().uordblks;
    lyd_node* tree = nullptr;
    lyd_parse_data_mem(ctx, xml.c_str(), LYD_XML, LYD_PARSE_ONLY, 0, &tree);
    const auto after = mallinfo2().uordblks;
    lyd_free_all(tree);
    ly_ctx_destroy(ctx);
    return static_cast<double>(after - before) / (1024.0 * 1024.0);
}

// The heap the simulated appliance's model of `xml` takes, in MiB, measured
// the same way: memory of the daemon's process that a real appliance keeps on
// its own side.
double appliance_mib(const std::string& xml) {
    const auto before = mallinfo2().uordblks;
    const auto model = std::make_unique<tavrik::appliance::Configuration>(tavrik::appliance::parse_configuration(xml));
    return static_cast<double>(mallinfo2().uordblks - before) / (1024.0 * 1024.0);
}

bool ok(const Reply& reply, const char* what) {
    if (reply.ok || (reply.data && reply.errors.empty())) return true;
    std::fprintf(stderr, "%s failed: %s\n", what, reply.errors.empty() ? "no reply" : reply.errors[0].message.c_str());
    return false;
}

bool measure(const std::string& program, double seconds, Size& size) {
    Daemon daemon;
    if (!program.empty()) daemon.set_program(program);
    if (!daemon.launch()) {
        std::fprintf(stderr, "the daemon did not start:\n%s\n", daemon.stderr_text().c_str());
        return false;
    }
    auto client = daemon.connect();
    const std::string leaf = antivirus("<vsys><name>vs1</name><profiles>" + profile("x", "a") + "</profiles></vsys>");
    if (!client || !ok(client->edit(leaf), "the first edit")) return false;
    size.rss_empty = rss_mib(daemon.pid());
    const std::string all = profiles(size.profiles);
    const std::string remove = antivirus(
        "<vsys><name>vs1</name><profiles xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" + [&] {
            std::string xml;  // every profile but "x"
            for (int i = 0; i < size.profiles; ++i)
                xml += "<profile nc:operation=\"delete\"><name>p" + std::to_string(i) + "</name></profile>";
            return xml;
        }() + "</profiles></vsys>");
    if (size.profiles > 0) {
        auto start = Clock::now();
        if (!ok(client->edit(all), "the create")) return false;
        size.create_ms = ms_since(start);
        size.rss_created = rss_mib(daemon.pid());
        start = Clock::now();
        if (!ok(client->get_config(), "get-config")) return false;
        size.get_config_ms = ms_since(start);
    }
    std::vector<double> us;
    const auto until = Clock::now() + std::chrono::duration<double>(seconds);
    for (int i = 0; us.size() < 10 || Clock::now() < until; ++i) {
        const std::string edit = antivirus("<vsys><name>vs1</name><profiles><profile><name>x</name><description>" +
                                           std::string(i % 2 ? "a" : "b") + "</description></profile></profiles></vsys>");
        const auto start = Clock::now();
        if (!ok(client->edit(edit), "a one-leaf edit")) return false;
        us.push_back(ms_since(start) * 1000);
    }
    std::sort(us.begin(), us.end());
    size.median_us = us[us.size() / 2];
    size.edits = static_cast<int>(us.size());
    if (size.profiles > 0) {
        const auto start = Clock::now();
        if (!ok(client->edit(remove), "the delete")) return false;
        size.delete_ms = ms_since(start);
        size.rss_deleted = rss_mib(daemon.pid());
        if (!ok(client->edit(all), "the second create")) return false;
        size.rss_created_again = rss_mib(daemon.pid());
        if (!ok(client->edit(remove), "the second delete")) return false;
        size.rss_deleted_again = rss_mib(daemon.pid());
    }
    client.reset();
    daemon.stop();
    return true;
}

std::string mib(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MiB", v);
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    std::string program, label = "this build", csv;
    std::vector<int> sizes{0, 1000, 10000};
    double seconds = 2;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i], value = argv[i + 1];
        if (option == "--daemon") program = value;
        else if (option == "--label") label = value;
        else if (option == "--csv") csv = value;
        else if (option == "--seconds") seconds = std::stod(value);
        else if (option == "--sizes") {
            sizes.clear();
            std::stringstream in(value);
            for (std::string n; std::getline(in, n, ',');) sizes.push_back(std::stoi(n));
        } else {
            std::fprintf(stderr, "usage: netconf_bench [--daemon PATH] [--label NAME] [--csv FILE] [--sizes N,...] [--seconds S]\n");
            return 2;
        }
    }
    std::vector<Size> results;
    for (const int n : sizes) {
        Size size;
        size.profiles = n;
        if (!measure(program, seconds, size)) return 1;
        results.push_back(size);
    }
    std::printf("tkav-netconfd (%s): one-leaf edit-config through the C client on the UNIX socket\n"
                "(wall time per round trip, median; target: <= 1.50x of 0)\n\n",
                label.c_str());
    std::printf("profiles    edits      median  against 0\n");
    for (const Size& s : results)
        std::printf("%-8d %8d %10.1f us %9.2fx\n", s.profiles, s.edits, s.median_us, s.median_us / results[0].median_us);
    const Size& largest = results.back();
    if (largest.profiles > 0) {
        const double tree = tree_mib(profiles(largest.profiles));
        const double appliance = appliance_mib(profiles(largest.profiles));
        const double grown = largest.rss_created - largest.rss_empty;
        std::printf("\n%d profiles                       %s\n", largest.profiles, label.c_str());
        std::printf("  create, one edit-config         %10.1f ms\n", largest.create_ms);
        std::printf("  get-config                      %10.1f ms\n", largest.get_config_ms);
        std::printf("  delete, one edit-config         %10.1f ms\n", largest.delete_ms);
        std::printf("  libyang tree by itself          %13s\n", mib(tree).c_str());
        std::printf("  RSS, empty daemon               %13s\n", mib(largest.rss_empty).c_str());
        std::printf("  simulated appliance's model     %13s\n", mib(appliance).c_str());
        std::printf("  RSS after create                %13s  (%.2fx the tree; target <= 2x)\n",
                    mib(largest.rss_created).c_str(), largest.rss_created / tree);
        std::printf("    grown by                      %13s  (%.2fx the tree; without the appliance's model %.2fx)\n",
                    mib(grown).c_str(), grown / tree, (grown - appliance) / tree);
        std::printf("  RSS after delete                %13s  (+%.1f MiB over empty; target <= 20)\n",
                    mib(largest.rss_deleted).c_str(), largest.rss_deleted - largest.rss_empty);
        std::printf("  RSS after create, delete again  %13s / %s\n", mib(largest.rss_created_again).c_str(),
                    mib(largest.rss_deleted_again).c_str());
    }
    if (!csv.empty()) {
        std::ofstream out(csv, std::ios::app);
        for (const Size& s : results) out << '"' << label << "\" " << s.profiles << ' ' << s.median_us << '\n';
    }
    return 0;
}
