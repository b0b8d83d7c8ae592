// Message channel to the platform: cached lines, sends, replies.
#include <cstdlib>
#include <cstring>

#include "tavrik/runtime.hpp"

extern "C" {
char* g_product_name_for_dp = nullptr;
}

namespace tavrik::runtime {
namespace {

struct State {
    RecordingPlatform builtin;
    Platform* current = nullptr;
    Delivery mode = Delivery::Deliver;
    bool journaling = false;
    Journal journal;
    std::vector<CachedLine> pending;
    CallRecord* record = nullptr;
};

State& state() {
    static State s;
    return s;
}

}  // namespace

int RecordingPlatform::deliver(const std::vector<CachedLine>& lines, unsigned cmd_op) {
    deliveries.push_back({lines, cmd_op});
    if (next_results.empty()) return 0;
    int result = next_results.front();
    next_results.erase(next_results.begin());
    return result;
}

DocumentReply RecordingPlatform::document(unsigned msg_type) {
    return msg_type == API_DP2QMX_NC_STATE ? state_reply : config_reply;
}

std::ostream& operator<<(std::ostream& out, const CachedLine& line) {
    return out << "[vsys " << line.vsys << " | view " << line.view << " | template "
               << line.view_template.value_or("(none)") << "] " << line.line;
}

void set_platform(Platform* p) { state().current = p; }
Platform& platform() { return state().current ? *state().current : state().builtin; }
RecordingPlatform& default_platform() { return state().builtin; }

void set_delivery(Delivery mode) { state().mode = mode; }
void set_call_record(CallRecord* record) { state().record = record; }
CallRecord* call_record() { return state().record; }
Delivery delivery() { return state().mode; }

Journal& journal() { return state().journal; }
void reset_journal() { state().journal = Journal{}; }
void set_journaling(bool on) { state().journaling = on; }
bool journaling() { return state().journaling; }
const std::vector<CachedLine>& pending_lines() { return state().pending; }

void reset() {
    auto& s = state();
    s.builtin = RecordingPlatform{};
    s.current = nullptr;
    s.mode = Delivery::Deliver;
    s.journaling = true;
    s.journal = Journal{};
    s.pending.clear();
    s.record = nullptr;
    release_texts();
}

}  // namespace tavrik::runtime

using namespace tavrik::runtime;

extern "C" unsigned int api_script_cache_lines(const char* vsys, const char* view, const char* view_template,
                                               const char* line) {
    CachedLine cached{vsys ? vsys : "", view ? view : "",
                      view_template ? std::optional<std::string>(view_template) : std::nullopt, line ? line : ""};
    auto& s = tavrik::runtime::state();
    if (s.journaling) s.journal.cached.push_back(cached);
    s.pending.push_back(std::move(cached));
    return 0;
}

// Next to the channel's state: one look at it per call, as every wrapper
// that lets a change through calls this.
extern "C" XMLDIFF_OP transapi_transform_op(XMLDIFF_OP op) {
    auto& s = tavrik::runtime::state();
    if (s.journaling) ++s.journal.transforms;
    if (s.record) ++s.record->transforms;
    return static_cast<XMLDIFF_OP>(op & (XMLDIFF_ADD | XMLDIFF_REM | XMLDIFF_MOD | XMLDIFF_CHAIN));
}

extern "C" void api_script_clear_lines(void) {
    auto& s = tavrik::runtime::state();
    if (s.journaling) ++s.journal.clears;
    s.pending.clear();
}

extern "C" int transapi_comm_with_qmx(msg_dp_qmx_head_t header, unsigned int cmd_op, msg_to_dp_t** reply,
                                      struct nc_err** /*error*/, void* origin) {
    auto& s = tavrik::runtime::state();
    if (header.msg_type == API_DP2QMX_CMD_CONFIG) {
        Message message{std::move(s.pending), cmd_op, 0, false};
        s.pending.clear();
        if (s.mode == Delivery::Deliver) {
            message.delivered = true;
            message.result = platform().deliver(message.lines, cmd_op);
        }
        const int result = message.result;
        if (s.journaling) {
            Send send;
            std::memcpy(send.header.data(), &header, sizeof header);
            send.msg_type = header.msg_type;
            send.cmd_op = cmd_op;
            if (origin != nullptr) send.origin = static_cast<const char*>(origin);
            send.lines = message.lines;
            send.result = result;
            send.delivered = message.delivered;
            s.journal.sends.push_back(std::move(send));
        }
        if (s.record) s.record->messages.push_back(std::move(message));
        return result;
    }
    Send send;
    std::memcpy(send.header.data(), &header, sizeof header);
    send.msg_type = header.msg_type;
    send.cmd_op = cmd_op;
    if (origin != nullptr) send.origin = static_cast<const char*>(origin);
    if (header.msg_type == API_DP2QMX_NC_STATE || header.msg_type == API_DP2QMX_GET_CONFIG) {
        DocumentReply answer = platform().document(header.msg_type);
        send.result = answer.result;
        if (answer.with_reply && reply != nullptr) {
            auto* record = static_cast<msg_to_dp_t*>(std::calloc(1, sizeof(msg_to_dp_t) + answer.data.size()));
            if (record == nullptr) {
                send.result = -1;
            } else {
                record->header = header;
                record->err_code = static_cast<uint32_t>(answer.result);
                record->msg_length = static_cast<uint32_t>(answer.data.size());
                std::memcpy(record->data, answer.data.data(), answer.data.size());
                *reply = record;
            }
        }
    } else {
        send.result = -1;  // this channel carries no other message type
    }
    const int result = send.result;
    if (s.journaling) s.journal.sends.push_back(std::move(send));
    return result;
}

extern "C" uint64_t SOS_Free(void** p, const char* /*file*/, uint64_t /*line*/) {
    if (p == nullptr || *p == nullptr) return 0;
    if (journaling()) ++journal().releases;
    std::free(*p);
    *p = nullptr;
    return 0;
}
