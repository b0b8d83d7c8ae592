/* Compile-time layout checks usable from C and C++. */
#ifndef TAVRIK_HOST_ABI_CHECK_H
#define TAVRIK_HOST_ABI_CHECK_H

#include <stddef.h>

#ifdef __cplusplus
#define TK_ABI_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define TK_ABI_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

#endif
