/*
 * Message channel between the NETCONF server and the routing platform:
 * message records, message types, module identifiers, command op, and the
 * server functions that cache command lines and send messages.
 */
#ifndef TAVRIK_HOST_QMX_CHANNEL_H
#define TAVRIK_HOST_QMX_CHANNEL_H

#include <stdint.h>

#include "abi_check.h"
#include "transapi.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
    uint32_t user_id;
    uint16_t vrf_id;
    uint8_t rsv[2];
    uint32_t ipv4;
    char vrf_name[32];
    char user_name[256];
} user_info_t;

typedef struct {
    uint16_t vsys_num;
    uint8_t flag;
    uint8_t rsv;
    char vsys_name[5][32];
} vsys_info_t;

typedef struct {
    uint32_t msg_check;
    uint32_t msg_type;
    uint32_t model_type;
    uint32_t rpc_type;
    uint32_t slot_id;
    uint32_t cpu_id;
    uint16_t msg_slow;
    uint16_t malloc_type;
    user_info_t user_msg;
    vsys_info_t vsys_msg;
} msg_dp_qmx_head_t;

typedef struct {
    msg_dp_qmx_head_t header;
    uint32_t err_code;
    uint32_t msg_length;
    char data[]; /* msg_length bytes */
} msg_to_dp_t;

TK_ABI_ASSERT(sizeof(user_info_t) == 300, "user_info_t");
TK_ABI_ASSERT(offsetof(user_info_t, vrf_id) == 4, "user_info_t.vrf_id");
TK_ABI_ASSERT(offsetof(user_info_t, rsv) == 6, "user_info_t.rsv");
TK_ABI_ASSERT(offsetof(user_info_t, ipv4) == 8, "user_info_t.ipv4");
TK_ABI_ASSERT(offsetof(user_info_t, vrf_name) == 12, "user_info_t.vrf_name");
TK_ABI_ASSERT(offsetof(user_info_t, user_name) == 44, "user_info_t.user_name");
TK_ABI_ASSERT(sizeof(vsys_info_t) == 164, "vsys_info_t");
TK_ABI_ASSERT(offsetof(vsys_info_t, flag) == 2, "vsys_info_t.flag");
TK_ABI_ASSERT(offsetof(vsys_info_t, rsv) == 3, "vsys_info_t.rsv");
TK_ABI_ASSERT(offsetof(vsys_info_t, vsys_name) == 4, "vsys_info_t.vsys_name");
TK_ABI_ASSERT(sizeof(msg_dp_qmx_head_t) == 492, "msg_dp_qmx_head_t");
TK_ABI_ASSERT(offsetof(msg_dp_qmx_head_t, msg_type) == 4, "head.msg_type");
TK_ABI_ASSERT(offsetof(msg_dp_qmx_head_t, model_type) == 8, "head.model_type");
TK_ABI_ASSERT(offsetof(msg_dp_qmx_head_t, rpc_type) == 12, "head.rpc_type");
TK_ABI_ASSERT(offsetof(msg_dp_qmx_head_t, slot_id) == 16, "head.slot_id");
TK_ABI_ASSERT(offsetof(msg_dp_qmx_head_t, cpu_id) == 20, "head.cpu_id");
TK_ABI_ASSERT(offsetof(msg_dp_qmx_head_t, msg_slow) == 24, "head.msg_slow");
TK_ABI_ASSERT(offsetof(msg_dp_qmx_head_t, malloc_type) == 26, "head.malloc_type");
TK_ABI_ASSERT(offsetof(msg_dp_qmx_head_t, user_msg) == 28, "head.user_msg");
TK_ABI_ASSERT(offsetof(msg_dp_qmx_head_t, vsys_msg) == 328, "head.vsys_msg");
TK_ABI_ASSERT(offsetof(msg_to_dp_t, err_code) == 492, "reply.err_code");
TK_ABI_ASSERT(offsetof(msg_to_dp_t, msg_length) == 496, "reply.msg_length");
TK_ABI_ASSERT(offsetof(msg_to_dp_t, data) == 500, "reply.data");
TK_ABI_ASSERT(sizeof(msg_to_dp_t) == 500, "reply head");

typedef enum {
    API_DP2QMX_CMD_CONFIG = 1,
    API_DP2QMX_NC_STATE = 2,
    API_DP2QMX_ANONYM_MSG = 3,
    API_DP2QMX_RPC_MSG = 4,
    API_QMX2DP_MANUAL_CONFIG = 5,
    API_QMX2DP_NOTIFICATION = 6,
    API_DP2QMX_GET_CONFIG = 7,
    API_QMX2DP_USER_AUTH = 8,
    API_DP2QMX_LOG_MSG = 9,
    API_QMX2DP_BOOT_CFG_MSG = 10,
    API_DP2QMX_GET_PUBKEY = 11,
    API_DP2QMX_AUTH_PUBKEY = 12,
    API_QMX2DP_AUTH_PUBKEY = 13,
    API_DPQMX_MAX_NUMBER = 14
} DPQMX_MSG_TYPE;

/* Feature modules of the platform: 0..89; only the antivirus identifier is named here. */
typedef enum {
    API_MODULE_TK_AV = 3,
    API_MODULE_MAX = 90
} API_MODULE_TYPE;

typedef enum {
    CMD_ADD = 0,
    CMD_DEL = 1,
    CMD_MOD = 2
} CMD_OPERATION;

/*
 * Sends one message. Type 1 carries the lines cached since the last send;
 * types 2 and 7 return a reply record in *reply that the caller releases
 * with SOS_Free. Returns 0 on success.
 */
int transapi_comm_with_qmx(msg_dp_qmx_head_t header, unsigned int cmd_op, msg_to_dp_t** reply,
                           struct nc_err** error, void* origin);
/* Releases a record allocated by the channel and sets *p to null. */
uint64_t SOS_Free(void** p, const char* file, uint64_t line);
/* Records one command line (vsys, view instance, view template or null, line) for the next send. */
unsigned int api_script_cache_lines(const char* vsys, const char* view, const char* view_template,
                                    const char* line);
/* Discards the lines cached for the next send. */
void api_script_clear_lines(void);

/* Device model name published by the server; may be null. */
extern char* g_product_name_for_dp;

#ifdef __cplusplus
}
#endif

#endif
