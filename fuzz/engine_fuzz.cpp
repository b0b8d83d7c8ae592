// Fuzz target: the engine applying fuzzed edit-config documents to a fixed
// running configuration, through the real module and data model. The text is
// read as the server reads <config> (libyang), then applied. Every edit
// is all-or-nothing: one that fails, a dry run and a test-only edit leave the
// running configuration as it was. One that succeeds is taken back by making
// the fixed configuration the running one again, so that every input starts
// from the same state.
#include <libyang/libyang.h>

#include <memory>
#include <string>

#include "fuzz_support.hpp"
#include "tavrik/engine.hpp"
#include "tavrik/runtime.hpp"

namespace {

namespace rt = tavrik::runtime;
using tavrik::engine::DefaultOperation;
using tavrik::engine::EditOptions;
using tavrik::engine::Engine;

constexpr char kRunning[] = R"(<antivirus xmlns="urn:tavrik:params:xml:ns:yang:tavrik-antivirus">
  <vsys><name>vs1</name><antivirus-enable>true</antivirus-enable>
    <profiles><profile><name>p1</name><description>web</description>
      <heuristic-detect-enable>true</heuristic-detect-enable>
      <detect><protocol-type>http</protocol-type>
        <detect-configuration><direction>both</direction><action>block</action></detect-configuration></detect>
      <detect><protocol-type>smtp</protocol-type>
        <detect-configuration><direction>upload</direction><action>declare</action></detect-configuration></detect>
      <exception-application><application-name>app1</application-name>
        <application-action>allow</application-action></exception-application>
      <exception-signature-id>1001</exception-signature-id>
      <exception-signature><id>2002</id><action>block-source-ip</action><timeout>60</timeout></exception-signature>
      <whitelists>
        <match-rules><match-rule><scope>url</scope><type>prefix</type>
          <value>www.example.com/*</value></match-rule></match-rules>
        <source-address>10.1.1.1</source-address>
        <destination-address-range><start-address>10.0.0.1</start-address>
          <end-address>10.0.0.9</end-address></destination-address-range>
      </whitelists>
    </profile></profiles>
  </vsys>
  <global><file-reputation-age-time>7</file-reputation-age-time></global>
</antivirus>)";

class Fixture {
public:
    Fixture() { start(); }

    Engine& engine() { return *engine_; }
    const std::string& runningXml() const { return runningXml_; }

    // Makes the fixed configuration the running one again; a fresh engine
    // when the module refuses the way back.
    void restore() {
        lyd_node* copy = nullptr;
        TKFUZZ_CHECK(lyd_dup_siblings(initial_.get(), nullptr, LYD_DUP_RECURSIVE, &copy) == LY_SUCCESS);
        rt::reset();
        if (!engine_->replace_running(tavrik::engine::DataTree(copy)).ok) start();
        TKFUZZ_CHECK(engine_->running_xml() == runningXml_);
    }

private:
    void start() {
        initial_.reset();
        engine_.reset();
        rt::reset();
        engine_ = std::make_unique<Engine>(TAVRIK_MODULE_PATH, TAVRIK_YANG_DIR, kRunning);
        initial_ = engine_->copy_running();
        runningXml_ = engine_->running_xml();
    }

    std::unique_ptr<Engine> engine_;
    tavrik::engine::DataTree initial_;
    std::string runningXml_;
};

}  // namespace

void tkfuzz::prepare() {
    tkfuzz::quietXml();
    tkfuzz::state<Fixture>();
}

// Input: flags (bits 0-1: default operation merge, replace, none, merge; bit
// 2: dry run; bit 3: test only; bit 4: the platform refuses a line), the
// number of lines the platform accepts before refusing one, then the
// edit-config payload.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fixture& f = tkfuzz::state<Fixture>();
    tkfuzz::FuzzInput in(data, size);
    unsigned flags = in.byte(), accepted = in.byte() % 8;
    std::string payload = in.rest();

    EditOptions options;
    const DefaultOperation defaults[] = {DefaultOperation::Merge, DefaultOperation::Replace, DefaultOperation::None,
                                         DefaultOperation::Merge};
    options.default_operation = defaults[flags & 3];
    options.dry_run = flags & 4;
    options.test_only = flags & 8;
    rt::reset();
    if (flags & 16) {
        rt::default_platform().next_results.assign(accepted, 0);
        rt::default_platform().next_results.push_back(9);
    }

    const tavrik::engine::ParsedXml parsed = f.engine().parse(payload);
    if (parsed.error) {
        TKFUZZ_CHECK(!parsed.tree);
        rt::reset();
        return 0;
    }
    auto result = f.engine().edit(parsed.tree.get(), options);
    TKFUZZ_CHECK(result.ok != result.error.has_value());
    if (!result.ok || options.dry_run || options.test_only)
        TKFUZZ_CHECK(f.engine().running_xml() == f.runningXml());
    else
        f.restore();
    rt::reset();
    return 0;
}
