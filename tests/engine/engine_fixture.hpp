// Tools for the engine's tests: configuration texts built from short pieces,
// an engine over the real module and model, and lines in a compact form
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

using tavrik::engine::ChangeKind;
using tavrik::engine::ChangeView;
using tavrik::engine::DefaultOperation;
using tavrik::engine::EditOptions;
using tavrik::engine::EditResult;
using tavrik::engine::Engine;
using tavrik::engine::ErrorTag;
using tavrik::engine::RpcError;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

inline const std::string kAv = "/tavrik-antivirus:antivirus";
inline const std::string kVs1 = kAv + "/vsys[name='vs1']";
inline const std::string kP1 = kVs1 + "/profiles/profile[name='p1']";
inline const std::string kNacmPath = "/ietf-netconf-acm:nacm";
inline const std::vector<std::string> kNacm = {"ietf-netconf-acm"};

// An element with its text; `attributes` go into the start tag.
inline std::string leaf(const std::string& name, const std::string& text, const std::string& attributes = "") {
    return "<" + name + (attributes.empty() ? "" : " " + attributes) + ">" + text + "</" + name + ">";
}
inline std::string op(const std::string& operation) { return "nc:operation=\"" + operation + "\""; }
// A top-level element of `ns` with the prefix nc for operations.
inline std::string top(const std::string& name, const std::string& ns, const std::string& body,
                       const std::string& attributes = "") {
    return leaf(name, body, "xmlns=\"" + ns + "\" xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" " + attributes);
}
inline std::string av(const std::string& body, const std::string& attributes = "") {
    return top("antivirus", "urn:tavrik:params:xml:ns:yang:tavrik-antivirus", body, attributes);
}
inline std::string nacm(const std::string& body) { return top("nacm", "urn:ietf:params:xml:ns:yang:ietf-netconf-acm", body); }
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

inline std::string brief(const std::string& vsys, const std::string& view, const std::optional<std::string>& tmpl,
                         unsigned cmd_op, const std::string& line) {
    return vsys + "/" + view + (tmpl ? "(" + *tmpl + ")" : "") + (cmd_op == 1 ? " del: " : " add: ") + line;
}
inline std::vector<std::string> brief(const std::vector<tavrik::engine::SentLine>& lines) {
    std::vector<std::string> out;
    for (const auto& l : lines) out.push_back(brief(l.vsys, l.view, l.view_template, l.cmd_op, l.line));
    return out;
}
// What the runtime's recording platform received, a message a line.
inline std::vector<std::string> delivered() {
    std::vector<std::string> out;
    for (const auto& d : tavrik::runtime::default_platform().deliveries)
        for (const auto& l : d.lines) out.push_back(brief(l.vsys, l.view, l.view_template, d.cmd_op, l.line));
    return out;
}
// The topmost changes an edit reports.
inline std::vector<std::pair<ChangeKind, std::string>> listed(const EditResult& result) {
    std::vector<std::pair<ChangeKind, std::string>> out;
    for (const auto& c : result.changes) out.emplace_back(c.kind, c.path);
    return out;
}
// A check that refuses every edit.
inline std::optional<RpcError> deny(const ChangeView&) {
    return RpcError(tavrik::engine::ErrorType::Protocol, ErrorTag::AccessDenied, "no");
}

class EngineTest : public ::testing::Test {
protected:
    void SetUp() override { tavrik::runtime::reset(); }
    void TearDown() override { engine_.reset(), tavrik::runtime::reset(); }
    // A fresh engine whose running configuration is `running`, serving the
    // data modules named beside the model; the platform has received
    // nothing yet.
    Engine& start(const std::string& running = "", const std::vector<std::string>& data_modules = {}) {
        engine_ = std::make_unique<Engine>(
            tavrik::engine::EngineOptions{TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR, running, nullptr, data_modules});
        tavrik::runtime::default_platform().deliveries.clear();
        return *engine_;
    }
    Engine& engine() { return *engine_; }
    EditResult edit(const std::string& xml, const EditOptions& options = {}) { return edit_text(*engine_, xml, options); }
    // The running configuration to the byte, implicit nodes included.
    std::string running() { return print_all(engine_->running_tree()); }

private:
    std::unique_ptr<Engine> engine_;
};

// The engine with the simulated appliance behind the channel, both starting
// from the same running configuration.
class ApplianceTest : public EngineTest {
protected:
    Engine& start_with_appliance(const std::string& running, const std::vector<std::string>& data_modules = {}) {
        appliance = tavrik::appliance::Appliance(tavrik::appliance::parse_configuration(running));
        tavrik::runtime::set_platform(&appliance);
        Engine& engine = start(running, data_modules);
        engine.set_vsys_feature(&appliance);
        return engine;
    }
    // What the appliance holds against the model's part of the engine's
    // running configuration; empty when they agree.
    std::vector<std::string> appliance_differences() {
        const std::string xml = engine().running_xml();
        const size_t from = std::min(xml.find("<antivirus"), xml.size()), to = xml.find("</antivirus>");
        return tavrik::appliance::differences(tavrik::appliance::parse_configuration(xml.substr(from, to + 12 - from)),
                                              appliance.configuration());
    }

    tavrik::appliance::Appliance appliance;  // outlives the engine (TearDown)
};

}  // namespace tktest
