// The formatter. It stores at most size - 1 characters and checks every single write, so that a
// full buffer cuts the text wherever it stands. The writers take the next free place and the end,
// which is kept for the terminator, and return the next free place.
#include "kernel/core/string.h"

namespace {

constexpr size_t SPRINTF_BYTES = 512;
constexpr uint32_t MYRIAD = 10000;
constexpr int MYRIAD_DIGITS = 4;
constexpr int WIDTH_LIMIT = 1 << 20;  // far beyond any buffer; keeps the sum from overflowing

/// One conversion's flags, as parsed.
struct conversion_t {
    int width = 0;
    int precision = -1;  ///< -1: none given
    char pad = ' ';
    bool left = false;
    bool wide = false;  ///< "ll"
};

/// The arguments of one call; a struct, so that its address can be passed on.
struct arguments_t {
    va_list ap;
};

// What carries noinline stays apart from its callers so that its loop stays in registers.

[[gnu::noinline]] char* put_pad(char* at, char* end, char c, int count) {
    for (; count > 0 && at < end; --count)
        *at++ = c;
    return at;
}

[[gnu::noinline]] char* put_bytes(char* at, char* end, const char* from, int count) {
    char* const stop = end - at < count ? end : at + count;
    while (at < stop)
        *at++ = *from++;
    return at;
}

/// Copies what stands before the next conversion and moves `*fmt` there.
[[gnu::always_inline]] inline char* put_plain(char* at, char* end, const char** fmt) {
    const char* from = *fmt;
    for (; at < end; ++from) {
        const auto c = static_cast<uint8_t>(*from);
        if (c <= '%' && (c == '%' || c == '\0'))
            break;
        *at++ = static_cast<char>(c);
    }
    *fmt = from;
    return at;
}

/// Writes `value`'s decimal digits below `to`, least significant last; returns the first.
char* decimal_digits(uint32_t value, char* to) {
    do {
        *--to = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    return to;
}

/// Divides by 10^4 in steps of 16 bits, which needs no 64-bit division; returns the remainder.
uint32_t divide_myriad(uint64_t* value) {
    uint64_t quotient = 0;
    uint32_t rest = 0;
    for (int shift = 48; shift >= 0; shift -= 16) {
        const uint32_t part = rest << 16 | static_cast<uint16_t>(*value >> shift);
        quotient = quotient << 16 | part / MYRIAD;
        rest = part % MYRIAD;
    }
    *value = quotient;
    return rest;
}

char* decimal_digits_wide(uint64_t value, char* to) {
    while (value >> 32 != 0) {
        char* first = to - MYRIAD_DIGITS;
        to = decimal_digits(divide_myriad(&value), to);
        while (to > first)
            *--to = '0';
    }
    return decimal_digits(static_cast<uint32_t>(value), to);
}

/// Padding, then the sign, then the digits; or digits and then spaces when left aligned.
char* put_number(char* at, char* end, const conversion_t& c, bool negative, const char* first,
                 const char* last) {
    const int count = static_cast<int>(last - first);
    const int padding = c.width - count - (negative ? 1 : 0);
    if (padding > 0 && !c.left)
        at = put_pad(at, end, c.pad, padding);
    if (negative)
        at = put_pad(at, end, '-', 1);
    at = put_bytes(at, end, first, count);
    return padding > 0 && c.left ? put_pad(at, end, ' ', padding) : at;
}

char* put_decimal(char* at, char* end, const conversion_t& c, uint32_t value, bool negative) {
    char digits[10] = {};
    char* last = digits + sizeof digits;
    return put_number(at, end, c, negative, decimal_digits(value, last), last);
}

char* put_decimal_wide(char* at, char* end, const conversion_t& c, uint64_t value, bool negative) {
    char digits[20] = {};
    char* last = digits + sizeof digits;
    return put_number(at, end, c, negative, decimal_digits_wide(value, last), last);
}

char* put_signed(char* at, char* end, const conversion_t& c, arguments_t& args) {
    if (c.wide) {
        const auto bits = va_arg(args.ap, uint64_t);
        const bool negative = bits >> 63 != 0;
        return put_decimal_wide(at, end, c, negative ? 0 - bits : bits, negative);
    }
    const auto bits = va_arg(args.ap, uint32_t);
    const bool negative = bits >> 31 != 0;
    return put_decimal(at, end, c, negative ? 0 - bits : bits, negative);
}

char* put_unsigned(char* at, char* end, const conversion_t& c, arguments_t& args) {
    if (c.wide)
        return put_decimal_wide(at, end, c, va_arg(args.ap, uint64_t), false);
    return put_decimal(at, end, c, va_arg(args.ap, uint32_t), false);
}

char* put_hex(char* at, char* end, const conversion_t& c, uint64_t value, bool upper) {
    const char* names = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    char digits[16] = {};
    char* last = digits + sizeof digits;
    char* first = last;
    do {
        *--first = names[value & 15];
        value >>= 4;
    } while (value != 0);
    return put_number(at, end, c, false, first, last);
}

char* put_pointer(char* at, char* end, uint32_t value) {
    conversion_t c;
    c.pad = '0';
    c.width = 8;
    if (end - at > 2) {
        *at++ = '0';
        *at++ = 'x';
    }
    return put_hex(at, end, c, value, false);
}

[[gnu::always_inline]] inline char* put_whole(char* at, char* end, const char* s) {
    for (char c = *s; at < end && c != '\0'; c = *++s)
        *at++ = c;
    return at;
}

char* put_string(char* at, char* end, const conversion_t& c, const char* s) {
    if (s == nullptr)
        s = "(null)";
    if (c.width == 0 && c.precision < 0)
        return put_whole(at, end, s);
    int length = 0;
    while (length != c.precision && s[length] != '\0')
        ++length;
    const int padding = c.width - length;
    if (padding > 0 && !c.left)
        at = put_pad(at, end, ' ', padding);
    at = put_bytes(at, end, s, length);
    return padding > 0 && c.left ? put_pad(at, end, ' ', padding) : at;
}

/// How many decimal digits `value` has.
int decimal_width(uint32_t value) {
    if (value < 10)
        return 1;
    if (value < 100)
        return 2;
    int width = 2;
    for (value /= 100; value != 0; value /= 10)
        ++width;
    return width;
}

/// The conversions that nearly every text is made of, "%s", "%u" and "%d" without flags, straight
/// into the buffer; null when it is another one, or may lack room.
[[gnu::always_inline]] inline char* put_bare(char* at, char* end, char conversion,
                                             arguments_t& args) {
    constexpr int WIDEST = 11;
    if (conversion == 's') {
        const char* s = va_arg(args.ap, const char*);
        return put_whole(at, end, s != nullptr ? s : "(null)");
    }
    if ((conversion != 'u' && conversion != 'd') || end - at < WIDEST)
        return nullptr;
    auto value = va_arg(args.ap, uint32_t);
    if (conversion == 'd' && value >> 31 != 0) {
        *at++ = '-';
        value = 0 - value;
    }
    char* const last = at + decimal_width(value);
    decimal_digits(value, last);
    return last;
}

/// An unknown conversion stands as it was written, if it fits whole.
char* put_unknown(char* at, char* end, char conversion) {
    if (end - at < 2)
        return at;
    *at++ = '%';
    *at++ = conversion;
    return at;
}

int parse_count(const char** fmt) {
    int count = 0;
    for (; **fmt >= '0' && **fmt <= '9'; ++*fmt)
        if (count < WIDTH_LIMIT)
            count = count * 10 + (**fmt - '0');
    return count;
}

/// Reads flags, width, precision and length; returns the conversion character's place.
const char* parse_conversion(const char* fmt, conversion_t* c) {
    if (*fmt == '-') {
        c->left = true;
        ++fmt;
    }
    if (*fmt == '0') {
        c->pad = '0';
        ++fmt;
    }
    c->width = parse_count(&fmt);
    if (*fmt == '.') {
        ++fmt;
        c->precision = parse_count(&fmt);
        if (c->precision > 0) {
            c->width = c->precision;
            c->pad = '0';
        }
    }
    if (*fmt == 'l') {
        ++fmt;
        c->wide = *fmt == 'l';
        if (c->wide)
            ++fmt;
    }
    return fmt;
}

char* convert(char* at, char* end, const conversion_t& c, char conversion, arguments_t& args) {
    switch (conversion) {
        case 'd':
        case 'i':
            return put_signed(at, end, c, args);
        case 'u':
            return put_unsigned(at, end, c, args);
        case 's':
            return put_string(at, end, c, va_arg(args.ap, const char*));
        case 'x':
        case 'X':
            return put_hex(at, end, c,
                           c.wide ? va_arg(args.ap, uint64_t) : va_arg(args.ap, uint32_t),
                           conversion == 'X');
        case 'p':
            return put_pointer(at, end, va_arg(args.ap, uint32_t));
        case 'c':
            return put_pad(at, end, static_cast<char>(va_arg(args.ap, int)), 1);
        case '%':
            return put_pad(at, end, '%', 1);
        default:
            return put_unknown(at, end, conversion);
    }
}

/// Any conversion, `*fmt` standing behind its "%"; moves `*fmt` behind it.
[[gnu::noinline]] char* put_conversion(char* at, char* end, const char** fmt, arguments_t& args) {
    conversion_t c;
    const char* from = *fmt;
    // Flags, digits and the point stand before the letters.
    if (*from < 'A' || *from == 'l')
        from = parse_conversion(from, &c);
    *fmt = from;
    if (*from == '\0') {
        *at++ = '%';
        return at;
    }
    ++*fmt;
    return convert(at, end, c, *from, args);
}

}  // namespace

int kvsnprintf(char* buf, size_t size, const char* fmt, va_list ap) {
    char* at = buf;
    char* const end = buf + size - 1;
    arguments_t args;
    va_copy(args.ap, ap);
    for (;;) {
        at = put_plain(at, end, &fmt);
        if (*fmt == '\0' || at >= end)
            break;
        ++fmt;
        char* const next = put_bare(at, end, *fmt, args);
        if (next != nullptr) {
            at = next;
            ++fmt;
        } else {
            at = put_conversion(at, end, &fmt, args);
        }
    }
    va_end(args.ap);
    *at = '\0';
    return static_cast<int>(at - buf);
}

int ksnprintf(char* buf, size_t size, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int length = kvsnprintf(buf, size, fmt, ap);
    va_end(ap);
    return length;
}

int ksprintf(char* buf, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int length = kvsnprintf(buf, SPRINTF_BYTES, fmt, ap);
    va_end(ap);
    return length;
}
