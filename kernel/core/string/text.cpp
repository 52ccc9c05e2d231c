// Strings ended by a zero byte, and the error messages.
#include <array>

#include "kernel/core/string.h"

namespace {

constexpr std::array<const char*, 13> ERROR_MESSAGES = {
    "success",          "invalid argument",  "no such file or directory",
    "out of memory",    "permission denied", "bad file descriptor",
    "file exists",      "no space left",     "try again",
    "result too large", "not implemented",   "I/O error",
    "timed out",
};

int difference(char a, char b) {
    return static_cast<unsigned char>(a) - static_cast<unsigned char>(b);
}

}  // namespace

size_t strlen(const char* s) {
    const char* end = s;
    while (*end != '\0')
        ++end;
    return static_cast<size_t>(end - s);
}

int strcmp(const char* a, const char* b) {
    while (*a != '\0' && *a == *b) {
        ++a;
        ++b;
    }
    return difference(*a, *b);
}

int strncmp(const char* a, const char* b, size_t n) {
    for (; n > 0; --n, ++a, ++b)
        if (*a != *b || *a == '\0')
            return difference(*a, *b);
    return 0;
}

char* strcpy(char* dest, const char* src) {
    char* to = dest;
    while ((*to++ = *src++) != '\0') {
    }
    return dest;
}

char* strncpy(char* dest, const char* src, size_t n) {
    size_t i = 0;
    for (; i < n && src[i] != '\0'; ++i)
        dest[i] = src[i];
    for (; i < n; ++i)
        dest[i] = '\0';
    return dest;
}

size_t string_copy(char* dest, const char* src, size_t size) {
    size_t i = 0;
    for (; i + 1 < size && src[i] != '\0'; ++i)
        dest[i] = src[i];
    dest[i] = '\0';
    return i;
}

void string_clean(char* dest, const void* field, size_t size) {
    constexpr uint8_t FIRST_PRINTABLE = ' ';
    constexpr uint8_t DELETE = 0x7F;
    const auto* from = static_cast<const uint8_t*>(field);
    size_t n = 0;
    for (; n < size - 1 && from[n] != 0; ++n) {
        const bool is_control = from[n] < FIRST_PRINTABLE || from[n] == DELETE;
        dest[n] = static_cast<char>(is_control ? '?' : from[n]);
    }
    memset(dest + n, 0, size - n);
}

char* strcat(char* dest, const char* src) {
    strcpy(dest + strlen(dest), src);
    return dest;
}

char* strchr(const char* s, int c) {
    for (;; ++s) {
        if (*s == static_cast<char>(c))
            return const_cast<char*>(s);
        if (*s == '\0')
            return nullptr;
    }
}

char* strrchr(const char* s, int c) {
    const char* found = nullptr;
    for (;; ++s) {
        if (*s == static_cast<char>(c))
            found = s;
        if (*s == '\0')
            return const_cast<char*>(found);
    }
}

char* strstr(const char* haystack, const char* needle) {
    const size_t length = strlen(needle);
    if (length == 0)
        return const_cast<char*>(haystack);
    for (; *haystack != '\0'; ++haystack)
        if (*haystack == *needle && strncmp(haystack, needle, length) == 0)
            return const_cast<char*>(haystack);
    return nullptr;
}

const char* strerror(int err) {
    const auto index = static_cast<size_t>(err);
    return index < ERROR_MESSAGES.size() ? ERROR_MESSAGES[index] : "unknown error";
}
