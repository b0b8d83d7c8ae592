// The change-handler frame shared by every configuration handler.
#include "av_frame.h"

extern "C" {
AV_VISIBLE unsigned char g_ucAvApiDebug = 0;
}

namespace av {

void trace(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
}

void copyCut(char* out, size_t size, const char* source) {
    if (out == nullptr || size == 0) return;
    const size_t n = strnlen(source, size - 1);
    memcpy_s(out, size, source, n);
    out[n] = '\0';
}

Change::Change(const Call& call, const char* path, int tracePoint) : call_(call) {
    memset_s(&header_, sizeof header_, 0, sizeof header_);
    header_.msg_type = API_DP2QMX_CMD_CONFIG;
    header_.model_type = API_MODULE_TK_AV;
    AV_TRACE("in %d, op is %d\r\n", tracePoint, static_cast<int>(call.op));
    if (asprintf(&path_, "%s", path) < 0) path_ = nullptr;
}

Change::~Change() {
    if (message_ != nullptr) free(message_);  // only a refusal makes one
    free(path_);
}

Step Change::screen(std::initializer_list<int> levels) const {
    int ops = 0;
    for (int level : levels) ops |= priority_transapi_find_parent_op_by_xmldiff(call_.data, level);
    AV_TRACE("in %d, parent op is %d\r\n", __LINE__, ops);
    if (!removes(ops)) return {};
    AV_TRACE("SUCCESS: The parent operation is deleted.\r\n");
    return kDone;
}

Result Change::refuse(const char* message, NC_ERR code) {
    AV_TRACE("ERROR: %s\r\n", message);
    free(message_);
    if (asprintf(&message_, "%s", message) < 0) message_ = nullptr;
    return Result(fail_nc_err(call_.error, message_, path_, 1, code));
}

Result Change::drop() {
    AV_TRACE("SUCCESS: The op is OK.\r\n");
    api_script_clear_lines();
    return kDone;
}

Result Change::send(const char* vsys, const char* view, const char* viewTemplate, const char* line, CMD_OPERATION cmdOp,
                    bool withOrigin) {
    msg_to_dp_t* reply = nullptr;
    api_script_cache_lines(vsys, view, viewTemplate, line);
    AV_TRACE(" %s \r\n", line);
    int ret = transapi_comm_with_qmx(header_, cmdOp, &reply, call_.error, withOrigin ? path_ : nullptr);
    if (ret != 0) AV_TRACE("The send of \"%s\" failed: %d.\r\n", line, ret);
    return Result(ret);
}

Step ProfileChange::open(std::initializer_list<int> screened, Normalise when) {
    if (auto end = screen(screened)) return end;
    const int* levels = screened.begin();
    vsys_ = key(levels[0], "name");
    if (vsys_ == nullptr) return refuse("The vsys name node is NULL.", NC_ERR_MISSING_ELEM);
    profileKey_ = key(levels[1], "name");
    if (profileKey_ == nullptr) return refuse("The profile name node is NULL.", NC_ERR_MISSING_ELEM);
    if (when == Normalise::Now) return normalise();
    return {};
}

Step ProfileChange::normalise() {
    if (!trimInto(profileKey_, profile_)) return refuse("av remove spaces failed.", NC_ERR_BAD_ELEM);
    return {};
}

}  // namespace av
