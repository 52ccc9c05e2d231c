// Numbers from text and to text.
#include "kernel/core/string.h"

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }

/// Strict unsigned decimal: at least one digit, nothing else, at most `limit`.
bool parse_digits(const char* s, uint32_t limit, uint32_t* out) {
    if (*s == '\0')
        return false;
    uint32_t value = 0;
    for (; *s != '\0'; ++s) {
        if (!is_digit(*s))
            return false;
        const auto digit = static_cast<uint32_t>(*s - '0');
        if (value > (limit - digit) / 10)
            return false;
        value = value * 10 + digit;
    }
    *out = value;
    return true;
}

}  // namespace

int atoi(const char* s) {
    while (*s == ' ')
        ++s;
    const bool negative = *s == '-';
    if (*s == '+' || *s == '-')
        ++s;
    uint32_t value = 0;
    for (; is_digit(*s); ++s)
        value = value * 10 + static_cast<uint32_t>(*s - '0');
    return static_cast<int>(negative ? 0 - value : value);
}

void itoa(int value, char* buf, int base) {
    const bool negative = base == 10 && value < 0;
    auto rest = static_cast<uint32_t>(value);
    if (negative)
        rest = 0 - rest;
    char digits[32];
    size_t count = 0;
    do {
        digits[count++] =
            "0123456789abcdefghijklmnopqrstuvwxyz"[rest % static_cast<uint32_t>(base)];
        rest /= static_cast<uint32_t>(base);
    } while (rest != 0);
    if (negative)
        *buf++ = '-';
    while (count > 0)
        *buf++ = digits[--count];
    *buf = '\0';
}

uint32_t parse_tick(const char* s) {
    if (s == nullptr)
        return 0;
    if (*s == 'T' || *s == 't')
        ++s;
    if (*s == '+')
        ++s;
    return static_cast<uint32_t>(atoi(s));
}

int hexval(char c) {
    if (is_digit(c))
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

uint32_t parse_hex(const char* s) {
    if (s[0] == '0' && (s[1] == 'x' || s[1] == 'X'))
        s += 2;
    uint32_t value = 0;
    for (int digit = hexval(*s); digit >= 0; digit = hexval(*++s))
        value = value << 4 | static_cast<uint32_t>(digit);
    return value;
}

int safe_atoi(const char* s, int* out) {
    if (s == nullptr || out == nullptr)
        return -1;
    const bool negative = *s == '-';
    if (*s == '+' || *s == '-')
        ++s;
    uint32_t magnitude;
    if (!parse_digits(s, INT32_MAX, &magnitude))
        return -1;
    *out = negative ? -static_cast<int>(magnitude) : static_cast<int>(magnitude);
    return 0;
}

int safe_parse_uint(const char* s, uint32_t* out) {
    if (s == nullptr || out == nullptr)
        return -1;
    if (*s == '+')
        ++s;
    return parse_digits(s, UINT32_MAX, out) ? 0 : -1;
}

uint32_t krng(uint32_t* state) {
    *state = *state * 1103515245u + 12345u;
    return (*state >> 16) & 0x7FFF;
}

char* format_mac(char* buf, const uint8_t* mac) {
    constexpr size_t MAC_BYTES = 6;
    char* to = buf;
    for (size_t i = 0; i < MAC_BYTES; ++i) {
        if (i > 0)
            *to++ = ':';
        *to++ = "0123456789abcdef"[mac[i] >> 4];
        *to++ = "0123456789abcdef"[mac[i] & 15];
    }
    *to = '\0';
    return buf;
}
