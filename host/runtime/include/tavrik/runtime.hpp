// Host side of the stand-in server runtime (ietf-interfaces.so).
//
// The runtime implements the server functions a configuration module calls
// (host-interface/). This header is for the programs that host a module: the
// engine, the simulated appliance, the NETCONF daemon and the tests. It lets
// them
//   - give each callback a data handle that answers parent-operation look-ups,
//   - plug in the platform that receives delivered lines and answers document
//     requests,
//   - choose whether sends are delivered or only recorded,
//   - learn per callback what it sent and whether its wrapper let the change
//     through (a CallRecord the host installs),
//   - for tests only: read a journal of everything the module did.
//
// The runtime is single-threaded by design, like the server it stands in for:
// one edit or read at a time. Hosts that serve several clients serialise.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "qmx_channel.h"
#include "transapi.h"

// The server's error record, as fail_nc_err fills it.
struct nc_err {
    int tag = 0;   // NC_ERR value
    int flag = 0;  // fourth argument of fail_nc_err
    std::string message;
    std::string path;
};

namespace tavrik::runtime {

// ---- data handle ---------------------------------------------------------

// What priority_transapi_find_parent_op_by_xmldiff asks. A host makes the
// data handle of a callback point at one of these:
//     void* handle = &context;  callback(&handle, op, node, &error);
class EditContext {
public:
    virtual ~EditContext() = default;
    // Operation bits of the ancestor `level` steps above the changed node of
    // the current call (1 = parent). 0 beyond the root.
    virtual int parentOp(int level) const = 0;
};

// Fixed answers by level; unlisted levels answer 0. For tests.
class ScriptedParents final : public EditContext {
public:
    ScriptedParents() = default;
    ScriptedParents(std::initializer_list<std::pair<const int, int>> ops);
    void set(int level, int op);
    int parentOp(int level) const override;

private:
    std::vector<std::pair<int, int>> ops_;
};

// ---- platform ------------------------------------------------------------

struct CachedLine {
    std::string vsys;
    std::string view;
    std::optional<std::string> view_template;  // null template -> nullopt
    std::string line;
    bool operator==(const CachedLine&) const = default;
};
std::ostream& operator<<(std::ostream& out, const CachedLine& line);

// Answer to a document request (message types 2 and 7).
struct DocumentReply {
    int result = 0;           // returned by transapi_comm_with_qmx
    bool with_reply = true;   // allocate a reply record at all
    std::string data;         // exact payload bytes; msg_length = data.size()
};

// Receives what the channel delivers.
class Platform {
public:
    virtual ~Platform() = default;
    // Lines of one type-1 message with its command op. Returns 0 when accepted.
    virtual int deliver(const std::vector<CachedLine>& lines, unsigned cmd_op) = 0;
    // Answer to a type-2 (state) or type-7 (running configuration) request.
    virtual DocumentReply document(unsigned msg_type) = 0;
};

// The embedded default: accepts and records every delivery; answers document
// requests with configurable replies; results can be scripted per send.
class RecordingPlatform : public Platform {
public:
    struct Delivery {
        std::vector<CachedLine> lines;
        unsigned cmd_op = 0;
    };
    int deliver(const std::vector<CachedLine>& lines, unsigned cmd_op) override;
    DocumentReply document(unsigned msg_type) override;

    std::vector<Delivery> deliveries;
    std::vector<int> next_results;         // consumed front first; then 0
    DocumentReply state_reply;             // type 2
    DocumentReply config_reply;            // type 7
};

// The platform the channel uses; null restores the built-in RecordingPlatform.
void set_platform(Platform* platform);
Platform& platform();
RecordingPlatform& default_platform();

// ---- channel mode --------------------------------------------------------

enum class Delivery {
    Deliver,     // type-1 sends reach the platform
    RecordOnly,  // type-1 sends are recorded (call record, journal) and answered 0; nothing delivered
};
void set_delivery(Delivery mode);
Delivery delivery();

// ---- call record (for the host) -----------------------------------------

// One type-1 send: the lines cached since the previous send, with its
// command op.
struct Message {
    std::vector<CachedLine> lines;
    unsigned cmd_op = 0;
    int result = 0;          // the platform's result; 0 when only recorded
    bool delivered = false;  // the platform received it
};

// What the callbacks a host runs do through the channel, appended while the
// record is installed: every type-1 send in order, and the number of
// transapi_transform_op calls (a wrapper calls it when it lets a change
// through to its handler). A host notes the sizes before a call to tell
// what that call did.
struct CallRecord {
    std::vector<Message> messages;
    int transforms = 0;
};

// The record the channel appends to; null (the default): none.
void set_call_record(CallRecord* record);
CallRecord* call_record();

// ---- journal (a test observer) --------------------------------------------

struct Send {
    std::array<std::uint8_t, sizeof(msg_dp_qmx_head_t)> header{};
    unsigned msg_type = 0;
    unsigned cmd_op = 0;
    std::optional<std::string> origin;  // fifth argument as text, when given
    std::vector<CachedLine> lines;      // lines cached since the previous send
    int result = 0;
    bool delivered = false;
};

struct Refusal {
    std::string message;
    std::string path;
    int flag = 0;
    int tag = 0;
};

// Everything the module did through the runtime since the last reset.
struct Journal {
    std::vector<CachedLine> cached;  // every api_script_cache_lines call
    int clears = 0;                  // api_script_clear_lines calls
    std::vector<Send> sends;
    std::vector<Refusal> refusals;
    int releases = 0;                // SOS_Free calls with a non-null record
    int transforms = 0;              // transapi_transform_op calls
};

Journal& journal();
void reset_journal();

// Journaling is off at load: production hosts neither pay for the journal
// nor read it. reset() turns it on (tests call reset() first); off again,
// the runtime keeps no journal at all and lines still reach the platform.
void set_journaling(bool on);
bool journaling();

// Lines cached and not yet sent or cleared.
const std::vector<CachedLine>& pending_lines();

// Texts handed out by get_node_content when a node's text had to be joined
// live until this is called (the host calls it when an edit ends).
void release_texts();

// Error records made by fail_nc_err.
void free_error(nc_err* error);
using ErrorPtr = std::unique_ptr<nc_err, void (*)(nc_err*)>;
inline ErrorPtr take_error(nc_err*& error) {
    ErrorPtr owned(error, &free_error);
    error = nullptr;
    return owned;
}

// Restores the runtime for a test: journal emptied and journaling on,
// pending lines, mode, platform, call record and the default platform's
// scripted answers as at load.
void reset();

}  // namespace tavrik::runtime
