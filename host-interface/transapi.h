/*
 * Plug-in interface of the NETCONF server: what a configuration module
 * exports (descriptors, callback table) and the server functions it may call
 * while handling a configuration change.
 */
#ifndef TAVRIK_HOST_TRANSAPI_H
#define TAVRIK_HOST_TRANSAPI_H

#include <libxml/tree.h>

#include "abi_check.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Operation bits of a node in the configuration difference. */
typedef enum {
    XMLDIFF_ERR = -1,
    XMLDIFF_NONE = 0,
    XMLDIFF_ADD = 1,
    XMLDIFF_REM = 2,
    XMLDIFF_MOD = 4,
    XMLDIFF_CHAIN = 8, /* only descendants changed */
    XMLDIFF_SIBLING = 16,
    XMLDIFF_REORDER = 32,
    XMLDIFF_CFGR = 16384,
    XMLDIFF_ROLLBACK = 32768
} XMLDIFF_OP;

/* Error tags of a refusal (the subset the server maps to rpc-error tags). */
typedef enum {
    NC_ERR_EMPTY = 0,
    NC_ERR_OP_FAILED = 1,
    NC_ERR_MISSING_ELEM = 8,
    NC_ERR_BAD_ELEM = 9,
    NC_ERR_UNKNOWN_ELEM = 10
} NC_ERR;

typedef enum {
    NC_EDIT_ERROPT_ERROR = -1,
    NC_EDIT_ERROPT_NOTSET = 0,
    NC_EDIT_ERROPT_STOP = 1,
    NC_EDIT_ERROPT_CONT = 2,
    NC_EDIT_ERROPT_ROLLBACK = 3
} NC_EDIT_ERROPT_TYPE;

typedef enum {
    TRANSAPI_CLBCKS_LEAF_TO_ROOT = 0,
    TRANSAPI_CLBCKS_ROOT_TO_LEAF = 1,
    TRANSAPI_CLBCKS_ORDER_DEFAULT = 0
} TRANSAPI_CLBCKS_ORDER_TYPE;

/* Datastores named by the datastore functions. */
typedef enum {
    NC_DATASTORE_RUNNING = 3,
    NC_DATASTORE_STARTUP = 4,
    NC_DATASTORE_CANDIDATE = 5
} NC_DATASTORE;

/* Callback priorities. Values 16..28 and 50..62 belong to other feature modules. */
enum {
    CLBCKS_PRIORITY_FUNC_DISABLE = 0,
    CLBCKS_PRIORITY_PLY_REF_OBJ = 1,
    CLBCKS_PRIORITY_CERTAIN_ADD = 2,
    CLBCKS_PRIORITY_COMMON_ADD = 3,
    CLBCKS_PRIORITY_CHILD_PLY_ADD = 4,
    CLBCKS_PRIORITY_PLY_ADD = 5,
    CLBCKS_PRIORITY_OBJECT_ADD = 6,
    CLBCKS_PRIORITY_PG_ADD = 15,
    CLBCKS_PRIORITY_VSYS_ADD = 29,
    CLBCKS_PRIORITY_RES_DEL = 30,
    CLBCKS_PRIORITY_VSYS_DEL = 31,
    CLBCKS_PRIORITY_PG_DEL = 63,
    CLBCKS_PRIORITY_OBJECT_DEL = 64,
    CLBCKS_PRIORITY_PLY_DEL = 65,
    CLBCKS_PRIORITY_CHILD_PLY_DEL = 66,
    CLBCKS_PRIORITY_COMMON_DEL = 67,
    CLBCKS_PRIORITY_PLY_UNREF_OBJ = 68,
    CLBCKS_PRIORITY_CERTAIN_DEL = 69,
    CLBCKS_PRIORITY_FUNC_ENABLE = 70,
    CLBCKS_PRIORITY_MAX = 71
};

/* The server's error record; opaque to modules. */
struct nc_err;

/* Signature shared by every row of a data callback table. */
typedef int (*transapi_data_clbk)(void** data, XMLDIFF_OP op, xmlNodePtr node, struct nc_err** error);

struct ns_pair {
    const char* prefix;
    const char* href;
};

struct clbk {
    const char* path;
    transapi_data_clbk func;
    int priority;
    const char* schema_path;
};

struct transapi_data_callbacks {
    int callbacks_count;
    void* data;
    struct clbk callbacks[]; /* callbacks_count rows */
};

struct transapi_rpc_clbk {
    const char* name;
    int arg_count;
    void* (*func)(xmlNodePtr values[]);
    const char* arg_order[64];
};

struct transapi_rpc_callbacks {
    int callbacks_count;
    struct transapi_rpc_clbk callbacks[];
};

/* Datastore operations of a custom datastore, in this order. */
struct ncds_custom_funcs {
    int (*init)(void* data);
    void (*free)(void* data);
    int (*was_changed)(void* data);
    int (*rollback)(void* data);
    int (*lock)(void* data, NC_DATASTORE target, const char* session_id, struct nc_err** error);
    int (*unlock)(void* data, NC_DATASTORE target, const char* session_id, struct nc_err** error);
    int (*is_locked)(void* data, NC_DATASTORE target, const char** session_id, const char** datetime);
    char* (*getconfig)(void* data, NC_DATASTORE target, struct nc_err** error);
    int (*copyconfig)(void* data, NC_DATASTORE target, NC_DATASTORE source, char* config, struct nc_err** error);
    int (*deleteconfig)(void* data, NC_DATASTORE target, struct nc_err** error);
    int (*editconfig)(void* data, const void* rpc, NC_DATASTORE target, const char* config, int defop,
                      NC_EDIT_ERROPT_TYPE errop, struct nc_err** error);
};

TK_ABI_ASSERT(sizeof(XMLDIFF_OP) == sizeof(int), "XMLDIFF_OP is int-sized");
TK_ABI_ASSERT(sizeof(struct clbk) == 32, "clbk row: path, func, priority, schema_path");
TK_ABI_ASSERT(offsetof(struct clbk, priority) == 16, "clbk.priority");
TK_ABI_ASSERT(offsetof(struct clbk, schema_path) == 24, "clbk.schema_path");
TK_ABI_ASSERT(offsetof(struct transapi_data_callbacks, data) == 8, "callbacks header");
TK_ABI_ASSERT(offsetof(struct transapi_data_callbacks, callbacks) == 16, "rows follow the header");
TK_ABI_ASSERT(sizeof(struct ncds_custom_funcs) == 11 * sizeof(void*), "eleven datastore functions");

/* ---- Server functions a module calls ---- */

/* Operation bits the change handler acts on, from the bits the server gave a wrapper. */
XMLDIFF_OP transapi_transform_op(XMLDIFF_OP op);
/* Operation bits of the ancestor `level` steps above the changed node of the current call. */
XMLDIFF_OP priority_transapi_find_parent_op_by_xmldiff(void** data, int level);
/* Text of the key leaf `key` of the ancestor `level` steps above `node`; null if missing. */
const char* priority_transapi_find_parent_key_node_content(int level, xmlNodePtr node, const char* key);
/* Text content of `node`; null when it has none. Owned by the server. */
const char* get_node_content(xmlNodePtr node);
/* Records a refusal for the client; returns the value the callback is to return. */
int fail_nc_err(struct nc_err** error, char* message, char* path, int flag, int tag);

/* The server's custom datastore implementation. */
int custom_init(void* data);
void custom_free(void* data);
int custom_changed(void* data);
int custom_rollback(void* data);
int custom_lock(void* data, NC_DATASTORE target, const char* session_id, struct nc_err** error);
int custom_unlock(void* data, NC_DATASTORE target, const char* session_id, struct nc_err** error);
char* custom_getconfig(void* data, NC_DATASTORE target, struct nc_err** error);
int custom_copyconfig(void* data, NC_DATASTORE target, NC_DATASTORE source, char* config, struct nc_err** error);
int custom_deleteconfig(void* data, NC_DATASTORE target, struct nc_err** error);
int custom_editconfig(void* data, const void* rpc, NC_DATASTORE target, const char* config, int defop,
                      NC_EDIT_ERROPT_TYPE errop, struct nc_err** error);

#ifdef __cplusplus
}
#endif

#endif
