// The formatter. It stores at most size - 1 characters and checks every single write, so that a
// full buffer cuts the text wherever it stands.
#include "kernel/core/string.h"

namespace {

constexpr size_t SPRINTF_BYTES = 512;
constexpr uint32_t MYRIAD = 10000;
constexpr int MYRIAD_DIGITS = 4;
constexpr int WIDTH_LIMIT = 1 << 20;  // far beyond any buffer; keeps the sum from overflowing

/// Where the text goes: `at` never passes `end`, which is kept for the terminator.
struct sink_t {
    char* at;
    char* end;

    void put(char c) {
        if (at < end)
            *at++ = c;
    }
    void pad(char c, int count) {
        for (; count > 0 && at < end; --count)
            *at++ = c;
    }
    bool holds(int count) const { return end - at >= count; }
};

/// One conversion's flags, as parsed.
struct conversion_t {
    bool left = false;
    bool wide = false;  ///< "ll"
    char pad = ' ';
    int width = 0;
    int precision = -1;  ///< -1: none given
};

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

char* hex_digits(uint64_t value, bool upper, char* to) {
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    do {
        *--to = digits[value & 15];
        value >>= 4;
    } while (value != 0);
    return to;
}

/// Padding, then the sign, then the digits; or digits and then spaces when left aligned.
void put_number(sink_t& out, const conversion_t& c, bool negative, const char* first,
                const char* last) {
    const int total = static_cast<int>(last - first) + (negative ? 1 : 0);
    if (!c.left)
        out.pad(c.pad, c.width - total);
    if (negative)
        out.put('-');
    while (first < last)
        out.put(*first++);
    if (c.left)
        out.pad(' ', c.width - total);
}

void put_decimal(sink_t& out, const conversion_t& c, uint64_t value, bool negative) {
    char digits[20];
    char* last = digits + sizeof digits;
    put_number(out, c, negative, decimal_digits_wide(value, last), last);
}

void put_hex(sink_t& out, const conversion_t& c, uint64_t value, bool upper) {
    char digits[16];
    char* last = digits + sizeof digits;
    put_number(out, c, false, hex_digits(value, upper, last), last);
}

void put_pointer(sink_t& out, uint32_t value) {
    if (out.holds(3)) {
        out.put('0');
        out.put('x');
    }
    conversion_t c;
    c.pad = '0';
    c.width = 8;
    put_hex(out, c, value, false);
}

void put_string(sink_t& out, const conversion_t& c, const char* s) {
    if (s == nullptr)
        s = "(null)";
    int length = 0;
    while ((c.precision < 0 || length < c.precision) && s[length] != '\0')
        ++length;
    if (!c.left)
        out.pad(' ', c.width - length);
    for (int i = 0; i < length; ++i)
        out.put(s[i]);
    if (c.left)
        out.pad(' ', c.width - length);
}

int parse_count(const char** fmt) {
    int count = 0;
    for (; **fmt >= '0' && **fmt <= '9'; ++*fmt)
        if (count < WIDTH_LIMIT)
            count = count * 10 + (**fmt - '0');
    return count;
}

/// Reads flags, width, precision and length; leaves `fmt` at the conversion character.
conversion_t parse_conversion(const char** fmt) {
    conversion_t c;
    if (**fmt == '-') {
        c.left = true;
        ++*fmt;
    }
    if (**fmt == '0') {
        c.pad = '0';
        ++*fmt;
    }
    c.width = parse_count(fmt);
    if (**fmt == '.') {
        ++*fmt;
        c.precision = parse_count(fmt);
        if (c.precision > 0) {
            c.width = c.precision;
            c.pad = '0';
        }
    }
    if (**fmt == 'l') {
        ++*fmt;
        if (**fmt == 'l') {
            c.wide = true;
            ++*fmt;
        }
    }
    return c;
}

/// An unknown conversion stands as it was written, if it fits whole.
void put_unknown(sink_t& out, char conversion) {
    if (!out.holds(2))
        return;
    out.put('%');
    out.put(conversion);
}

/// The arguments of one call; a struct, so that its address can be passed on.
struct arguments_t {
    va_list ap;

    uint64_t next_unsigned(bool wide) { return wide ? va_arg(ap, uint64_t) : va_arg(ap, uint32_t); }
    int64_t next_signed(bool wide) { return wide ? va_arg(ap, int64_t) : va_arg(ap, int32_t); }
};

void convert(sink_t& out, const conversion_t& c, char conversion, arguments_t& args) {
    switch (conversion) {
        case '%':
            return out.put('%');
        case 'c':
            return out.put(static_cast<char>(va_arg(args.ap, int)));
        case 'd':
        case 'i': {
            const int64_t value = args.next_signed(c.wide);
            const auto bits = static_cast<uint64_t>(value);
            return put_decimal(out, c, value < 0 ? 0 - bits : bits, value < 0);
        }
        case 'u':
            return put_decimal(out, c, args.next_unsigned(c.wide), false);
        case 'x':
        case 'X':
            return put_hex(out, c, args.next_unsigned(c.wide), conversion == 'X');
        case 'p':
            return put_pointer(out, va_arg(args.ap, uint32_t));
        case 's':
            return put_string(out, c, va_arg(args.ap, const char*));
        default:
            return put_unknown(out, conversion);
    }
}

}  // namespace

int kvsnprintf(char* buf, size_t size, const char* fmt, va_list ap) {
    sink_t out = {buf, buf + size - 1};
    arguments_t args;
    va_copy(args.ap, ap);
    while (*fmt != '\0' && out.at < out.end) {
        if (*fmt != '%') {
            *out.at++ = *fmt++;
            continue;
        }
        ++fmt;
        const conversion_t c = parse_conversion(&fmt);
        if (*fmt == '\0') {
            out.put('%');
            break;
        }
        convert(out, c, *fmt++, args);
    }
    va_end(args.ap);
    *out.at = '\0';
    return static_cast<int>(out.at - buf);
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
