/*
 * Bounds-checked memory and string functions of the platform. Every function
 * returns 0 on success and a non-zero error code otherwise, and never writes
 * past the destination size it is given.
 */
#ifndef TAVRIK_HOST_SECUREC_H
#define TAVRIK_HOST_SECUREC_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

int memset_s(void* dest, size_t dest_size, int c, size_t count);
int memcpy_s(void* dest, size_t dest_size, const void* src, size_t count);
/* count < dest_size: at most count characters, then NUL.
 * count >= dest_size: src must end within dest_size, else dest becomes empty. */
int strncpy_s(char* dest, size_t dest_size, const char* src, size_t count);
/* Writes at most count characters and a NUL, never past dest_size. When
 * count >= dest_size and the text does not fit, dest becomes empty. */
int snprintf_s(char* dest, size_t dest_size, size_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif
