// Tools for the engine's tests: configuration texts built from short pieces,
// an engine over the real module and model (the simulated appliance behind
// the channel if asked), and lines in a compact form
// ("vs1/profile-av-p1(profile-av) add: description x").
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "edit_text.hpp"
#include "print_tree.hpp"
#include "tavrik/appliance.hpp"
#include "tavrik/engine.hpp"
#include "tavrik/runtime.hpp"

namespace tktest {

using namespace tavrik::engine;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

inline const std::string kAv = "/tavrik-antivirus:antivirus";
inline const std::string kVs1 = kAv + "/vsys[name='vs1']";
inline const std::string kP1 = kVs1 + "/profiles/profile[name='p1']";
inline const std::vector<std::string> kNacm = {"ietf-netconf-acm"};

// An element with its text; `attributes` go into the start tag.
inline std::string leaf(const std::string& name, const std::string& text, const std::string& attributes = "") {
    return "<" + name + (attributes.empty() ? "" : " " + attributes) + ">" + text + "</" + name + ">";
}
inline std::string op(const std::string& operation) { return "nc:operation=\"" + operation + "\""; }
// A top-level element (the model's by default) with the prefix nc for operations.
inline std::string av(const std::string& body, const std::string& attributes = "", const std::string& name = "antivirus",
                      const std::string& ns = "urn:tavrik:params:xml:ns:yang:tavrik-antivirus") {
    return leaf(name, body, "xmlns=\"" + ns + "\" xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" " + attributes);
}
inline std::string nacm(const std::string& body) {
    return av(body, "", "nacm", "urn:ietf:params:xml:ns:yang:ietf-netconf-acm");
}
inline std::string group(const std::string& name, const std::string& user, const std::string& attributes = "") {
    return leaf("groups", leaf("group", leaf("name", name) + (user.empty() ? "" : leaf("user-name", user)), attributes));
}
inline std::string vsys(const std::string& name, const std::string& body, const std::string& attributes = "") {
    return leaf("vsys", leaf("name", name) + body, attributes);
}
inline std::string profile(const std::string& name, const std::string& body, const std::string& attributes = "") {
    return leaf("profiles", leaf("profile", leaf("name", name) + body, attributes));
}
// vsys vs1 / profile p1 with `body`.
inline std::string p1(const std::string& body) { return av(vsys("vs1", profile("p1", body))); }
inline std::string desc(const std::string& text) { return leaf("description", text); }

// Lines the engine reports sent, and what the runtime's recording platform
// received (a message a line), in the compact form.
template <class Line>
std::string brief(const Line& l, unsigned cmd_op) {
    return l.vsys + "/" + l.view + (l.view_template ? "(" + *l.view_template + ")" : "") +
           (cmd_op == 1 ? " del: " : " add: ") + l.line;
}
inline std::vector<std::string> brief(const std::vector<SentLine>& lines) {
    std::vector<std::string> out;
    for (const auto& l : lines) out.push_back(brief(l, l.cmd_op));
    return out;
}
inline std::vector<std::string> delivered() {
    std::vector<std::string> out;
    for (const auto& d : tavrik::runtime::default_platform().deliveries)
        for (const auto& l : d.lines) out.push_back(brief(l, d.cmd_op));
    return out;
}
// Parameterised tests take their cases' names.
inline const auto by_name = [](const auto& info) { return std::string(info.param.name); };
// A check that refuses every edit.
inline std::optional<RpcError> deny(const ChangeView&) { return RpcError(ErrorType::Protocol, ErrorTag::AccessDenied, "no"); }

// Cases of parameterised tests print as their names (in this file's
// unnamed namespace, where the tests keep their cases).
namespace {
template <class Case>
auto operator<<(std::ostream& out, const Case& c) -> decltype(out << c.name) { return out << c.name; }
}  // namespace

class EngineTest : public ::testing::Test {
protected:
    void SetUp() override { tavrik::runtime::reset(); }
    void TearDown() override { engine_.reset(), tavrik::runtime::reset(); }
    // A fresh engine whose running configuration is `running`, serving the
    // data modules named beside the model; `with_appliance`: the appliance
    // starts from the same configuration. The platform has received nothing.
    Engine& start(const std::string& running = "", const std::vector<std::string>& data_modules = {},
                  bool with_appliance = false) {
        if (with_appliance)
            appliance = tavrik::appliance::Appliance(tavrik::appliance::parse_configuration(running)),
            tavrik::runtime::set_platform(&appliance);
        engine_ = std::make_unique<Engine>(
            EngineOptions{TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR, running, nullptr, data_modules});
        if (with_appliance) engine_->set_vsys_feature(&appliance);
        tavrik::runtime::default_platform().deliveries.clear();
        return *engine_;
    }
    EditResult edit(const std::string& xml, const EditOptions& options = {}) { return edit_text(*engine_, xml, options); }
    // The running configuration to the byte, implicit nodes included.
    std::string running() { return print_all(engine_->running_tree()); }
    tavrik::appliance::Appliance appliance;  // outlives the engine

private:
    std::unique_ptr<Engine> engine_;
};

}  // namespace tktest
