// Datastore reads: whether this device model has the antivirus feature, the
// state document and the running configuration, both asked of the platform.
#include <libxml/parser.h>
#include <limits.h>

#include "av_frame.h"

namespace {

// Device models that lack the antivirus feature, compared whole.
constexpr const char* kModelsWithoutAntivirus[] = {
    "KX-11", "KX-12", "KX-13", "KX-14", "KX-15", "KX-16", "KX-17", "KX-18",
    "KX-19", "KX-20", "KX-21", "KX-22", "KX-23", "KX-24", "KX-25",
};

// The running configuration of a model without the feature: the empty
// top-level element of the data model.
constexpr char kEmptyConfig[] = "<antivirus xmlns=\"urn:tavrik:params:xml:ns:yang:tavrik-antivirus\"/>";
static_assert(sizeof kEmptyConfig == 68, "67 characters and the NUL");

// One header-only request for a document of the platform. The reply record,
// when the channel hands one back, is released once when the request goes
// out of scope, whatever the outcome.
class DocumentRequest {
public:
    DocumentRequest(DPQMX_MSG_TYPE type, struct nc_err** error, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE())
        : file_(file), line_(line) {
        msg_dp_qmx_head_t header;
        memset_s(&header, sizeof header, 0, sizeof header);
        header.msg_type = type;
        header.model_type = API_MODULE_TK_AV;
        ret_ = transapi_comm_with_qmx(header, CMD_ADD, &rcv_data_, error, nullptr);
    }
    ~DocumentRequest() {
        if (rcv_data_ != nullptr) SOS_Free(reinterpret_cast<void**>(&rcv_data_), file_, static_cast<uint64_t>(line_));
    }
    DocumentRequest(const DocumentRequest&) = delete;
    DocumentRequest& operator=(const DocumentRequest&) = delete;

    // The reply of a successful request, or null.
    const msg_to_dp_t* reply() const { return ret_ == 0 ? rcv_data_ : nullptr; }

private:
    msg_to_dp_t* rcv_data_ = nullptr;
    int ret_ = 0;
    const char* file_;
    int line_;
};

}  // namespace

AV_EXPORT int av_func_enable(void) {
    const char* model = g_product_name_for_dp;
    if (model == nullptr) return 1;
    for (const char* name : kModelsWithoutAntivirus)
        if (strcmp(model, name) == 0) return 0;
    return 1;
}

AV_EXPORT xmlDocPtr get_state_data(xmlDocPtr /*model*/, xmlDocPtr /*running*/, struct nc_err** err) {
    if (av_func_enable() == 0) {
        AV_TRACE("av get state,in %d\r\n", __LINE__);
        return xmlNewDoc(reinterpret_cast<const xmlChar*>("1.0"));
    }
    DocumentRequest request(API_DP2QMX_NC_STATE, err);
    const msg_to_dp_t* reply = request.reply();
    // libxml2 takes an int length: a longer reply cannot be parsed whole.
    if (reply == nullptr || reply->msg_length == 0 || reply->msg_length > INT_MAX) return nullptr;
    return xmlReadMemory(reply->data, static_cast<int>(reply->msg_length), nullptr, nullptr,
                         XML_PARSE_NOBLANKS | XML_PARSE_NSCLEAN);
}

AV_EXPORT char* perform_getconfig(void* /*data*/, NC_DATASTORE /*target*/, struct nc_err** error) {
    if (av_func_enable() == 0) {
        AV_TRACE("av perform getconfig,in %d\r\n", __LINE__);
        char* empty = static_cast<char*>(malloc(sizeof kEmptyConfig));
        if (empty != nullptr) strncpy_s(empty, sizeof kEmptyConfig, kEmptyConfig, sizeof kEmptyConfig - 1);
        return empty;
    }
    DocumentRequest request(API_DP2QMX_GET_CONFIG, error);
    const msg_to_dp_t* reply = request.reply();
    if (reply == nullptr) return nullptr;
    size_t len = reply->msg_length;
    if (len == 0) return static_cast<char*>(calloc(1, 1));
    // The text up to its first NUL; without a NUL in the data, an empty text.
    char* cfg_ret = static_cast<char*>(malloc(len));
    if (cfg_ret != nullptr) strncpy_s(cfg_ret, len, reply->data, len);
    return cfg_ret;
}

AV_EXPORT int perform_copyconfig(void* /*data*/, NC_DATASTORE /*target*/, NC_DATASTORE /*source*/, char* /*config*/,
                                 struct nc_err** /*error*/) {
    return 0;
}
