// Bounds-checked memory and string functions.
#include "securec.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {
constexpr int kOk = 0;
constexpr int kInvalid = 22;    // null pointer or zero size
constexpr int kTooLong = 34;    // result did not fit, destination emptied or cut
constexpr int kOverlap = 54;
}  // namespace

extern "C" int memset_s(void* dest, size_t dest_size, int c, size_t count) {
    if (dest == nullptr || dest_size == 0) return kInvalid;
    if (count > dest_size) {
        std::memset(dest, c, dest_size);
        return kTooLong;
    }
    std::memset(dest, c, count);
    return kOk;
}

extern "C" int memcpy_s(void* dest, size_t dest_size, const void* src, size_t count) {
    if (dest == nullptr || dest_size == 0) return kInvalid;
    if (src == nullptr) {
        std::memset(dest, 0, dest_size);
        return kInvalid;
    }
    if (count > dest_size) {
        std::memset(dest, 0, dest_size);
        return kTooLong;
    }
    auto* d = static_cast<char*>(dest);
    const auto* s = static_cast<const char*>(src);
    if ((d < s && d + count > s) || (s < d && s + count > d)) {
        std::memset(dest, 0, dest_size);
        return kOverlap;
    }
    std::memcpy(dest, src, count);
    return kOk;
}

extern "C" int strncpy_s(char* dest, size_t dest_size, const char* src, size_t count) {
    if (dest == nullptr || dest_size == 0) return kInvalid;
    if (src == nullptr) {
        dest[0] = '\0';
        return kInvalid;
    }
    if (count < dest_size) {
        size_t n = strnlen(src, count);
        std::memmove(dest, src, n);
        dest[n] = '\0';
        return kOk;
    }
    size_t n = strnlen(src, dest_size);
    if (n >= dest_size) {  // no terminator within the destination size
        dest[0] = '\0';
        return kTooLong;
    }
    std::memmove(dest, src, n + 1);
    return kOk;
}

extern "C" int snprintf_s(char* dest, size_t dest_size, size_t count, const char* format, ...) {
    if (dest == nullptr || dest_size == 0) return -1;
    if (format == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    va_list args;
    va_start(args, format);
    if (count < dest_size) {
        // Cut at count characters.
        int full = std::vsnprintf(dest, count + 1, format, args);
        va_end(args);
        if (full < 0) {
            dest[0] = '\0';
            return -1;
        }
        return static_cast<size_t>(full) > count ? -1 : full;
    }
    int full = std::vsnprintf(dest, dest_size, format, args);
    va_end(args);
    if (full < 0 || static_cast<size_t>(full) >= dest_size) {
        dest[0] = '\0';
        return -1;
    }
    return full;
}
