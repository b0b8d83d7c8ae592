// Fuzz target: the datastore reads on fuzzed device model names and platform
// replies (verdict, with or without a record, arbitrary payload bytes). Each
// reply that comes back must be released exactly once and never be reached
// through the result.
#include <libxml/parser.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.hpp"
#include "tavrik/runtime.hpp"

namespace {

namespace rt = tavrik::runtime;

using FeatureTest = int (*)();
using GetStateData = xmlDocPtr (*)(xmlDocPtr, xmlDocPtr, nc_err**);
using GetConfig = char* (*)(void*, NC_DATASTORE, nc_err**);

struct Reads {
    FeatureTest featureEnabled = tkfuzz::require<FeatureTest>("av_func_enable");
    GetStateData getStateData = tkfuzz::require<GetStateData>("get_state_data");
    GetConfig getConfig = tkfuzz::require<GetConfig>("perform_getconfig");
    unsigned char* debug = tkfuzz::require<unsigned char*>("g_ucAvApiDebug");
};

// Whole-name equality with one of "KX-11" to "KX-25".
bool isListed(const std::string& name) {
    return name.size() == 5 && name.compare(0, 3, "KX-") == 0 && name >= "KX-11" && name <= "KX-25" &&
           std::isdigit(static_cast<unsigned char>(name[3])) && std::isdigit(static_cast<unsigned char>(name[4]));
}

}  // namespace

void tkfuzz::prepare() {
    tkfuzz::quietXml();
    tkfuzz::state<Reads>();
}

// Input: model (0: unknown; 1 to 15: a model of the list; 16 to 31: a listed
// name with the text field appended; other values: the text field alone),
// flags (bit 0: a reply record comes back, bit 1: debug switch on), the
// platform's verdict (1 signed byte), the model text field, then the payload.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Reads& r = tkfuzz::state<Reads>();
    tkfuzz::FuzzInput in(data, size);
    unsigned model = in.byte(), flags = in.byte();
    int verdict = static_cast<int8_t>(in.byte());
    std::string name = in.text();
    if (model >= 1 && model <= 31) name = "KX-" + std::to_string(10 + (model - 1) % 15 + 1) + (model > 15 ? name : "");
    std::string payload = in.rest();

    rt::reset();
    *r.debug = flags & 2 ? 1 : 0;
    g_product_name_for_dp = model == 0 ? nullptr : name.data();
    bool listed = r.featureEnabled() == 0;
    TKFUZZ_CHECK(listed == (model != 0 && isListed(name.c_str())));
    rt::DocumentReply reply{verdict, (flags & 1) != 0, payload};
    rt::default_platform().state_reply = reply;
    rt::default_platform().config_reply = reply;

    nc_err* error = nullptr;
    xmlDocPtr doc = r.getStateData(nullptr, nullptr, &error);
    char* config = r.getConfig(nullptr, NC_DATASTORE_RUNNING, &error);
    g_product_name_for_dp = nullptr;

    const rt::Journal& j = rt::journal();
    TKFUZZ_CHECK(error == nullptr && j.cached.empty() && j.refusals.empty());
    TKFUZZ_CHECK(j.sends.size() == (listed ? 0u : 2u));
    TKFUZZ_CHECK(j.releases == (listed || !reply.with_reply ? 0 : 2));
    if (listed) {
        TKFUZZ_CHECK(doc != nullptr && xmlDocGetRootElement(doc) == nullptr);
        TKFUZZ_CHECK(config != nullptr && std::strlen(config) == 67);
    } else if (verdict != 0 || !reply.with_reply) {
        TKFUZZ_CHECK(doc == nullptr && config == nullptr);
    } else {
        xmlDocPtr same = payload.empty() ? nullptr
                                         : xmlReadMemory(payload.data(), static_cast<int>(payload.size()), nullptr,
                                                         nullptr, XML_PARSE_NOBLANKS | XML_PARSE_NSCLEAN);
        TKFUZZ_CHECK((doc == nullptr) == (same == nullptr));
        xmlFreeDoc(same);
        bool terminated = std::memchr(payload.data(), 0, payload.size()) != nullptr;
        TKFUZZ_CHECK(config != nullptr && std::string(config) == (terminated ? payload.c_str() : ""));
    }
    xmlFreeDoc(doc);
    std::free(config);
    rt::reset();
    return 0;
}
