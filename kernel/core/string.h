// The kernel's own memory, string, number and formatting routines. Nothing here allocates or keeps
// state; everything may be called from any context. The memory and string calls keep the contracts
// of their well-known names, with bytes compared as unsigned.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "kernel/core/compiler.h"

extern "C" {

/// Fills `n` bytes with the low byte of `c`; returns `s`.
void* memset(void* s, int c, size_t n);

/// Copies `n` bytes forwards; returns `dest`.
void* memcpy(void* dest, const void* src, size_t n);

/// Copies `n` bytes as if through a buffer of its own: the ranges may overlap. Returns `dest`.
void* memmove(void* dest, const void* src, size_t n);

/// Difference of the first differing bytes; 0 if equal or `n` is 0.
int memcmp(const void* a, const void* b, size_t n);

/// Number of bytes before the terminator.
size_t strlen(const char* s);

/// Difference of the first differing bytes.
int strcmp(const char* a, const char* b);

/// As strcmp over at most `n` bytes; 0 when `n` is 0.
int strncmp(const char* a, const char* b, size_t n);

/// Copies up to and including the terminator; returns `dest`.
char* strcpy(char* dest, const char* src);

/// Copies at most `n` bytes and fills the rest of them with zeros; writes no terminator when `src`
/// has `n` or more bytes. Returns `dest`.
char* strncpy(char* dest, const char* src, size_t n);

/// Appends `src` at the terminator of `dest`; returns `dest`.
char* strcat(char* dest, const char* src);

/// First byte equal to (char)c; c = 0 finds the terminator. Null if absent.
char* strchr(const char* s, int c);

/// Last byte equal to (char)c; c = 0 finds the terminator. Null if absent.
char* strrchr(const char* s, int c);

/// First occurrence of `needle`; an empty needle yields `haystack`. Null if absent.
char* strstr(const char* haystack, const char* needle);

/// Skips spaces, takes one optional sign, then decimal digits; no digits yield 0. An overflow
/// wraps. (<algorithm> brings the C library's declaration of it, which this one must not
/// contradict, and its inline body, which does not link here: no file calls this and includes
/// that.)
int atoi(const char*);  // NOLINT(readability-redundant-declaration)

/// The message of an error code 0..12; any other value is "unknown error".
const char* strerror(int err);

}  // extern "C"

/// Copies `src` into `dest` of `size` bytes, cut to size - 1 and always terminated. Returns the
/// number of bytes before the terminator. `size` is at least 1.
size_t string_copy(char* dest, const char* src, size_t size);

/// Copies a text field of `size` bytes (at least 1) that came from outside: it need not be
/// terminated, control characters become "?", and `dest`, of the same size, is terminated and zero
/// behind the text.
void string_clean(char* dest, const void* field, size_t size);

/// Writes `value` in `base` 2..36 with lower-case letters; a minus sign only in base 10, other
/// bases print the 32-bit pattern. `buf` holds 34 bytes at most.
void itoa(int value, char* buf, int base);

/// A tick-number argument: one optional leading 'T' or 't', one optional '+', then atoi of the
/// rest. Null yields 0.
uint32_t parse_tick(const char* s);

/// 0..15 for a hexadecimal digit, -1 otherwise.
int hexval(char c);

/// One optional "0x", then hexadecimal digits up to the first other character; empty input yields
/// 0; excess digits shift out.
uint32_t parse_hex(const char* s);

/// Strict signed decimal within +-2147483647. Returns 0 and stores the value, or -1 and leaves
/// `out` alone.
[[nodiscard]] int safe_atoi(const char* s, int* out);

/// Strict unsigned decimal within 32 bits after one optional '+'. Returns 0 and stores the value,
/// or -1 and leaves `out` alone.
[[nodiscard]] int safe_parse_uint(const char* s, uint32_t* out);

/// Linear congruential generator: advances `state` and returns 15 bits. Not for secrets.
uint32_t krng(uint32_t* state);

/// Writes six bytes as "52:54:00:12:34:56" into `buf` of at least 18 bytes; returns `buf`.
char* format_mac(char* buf, const uint8_t* mac);

/// Formats into `buf` of `size` bytes (at least 1), always terminated; returns the number of
/// characters stored, not the length that the full output would have had. Conversions: %% c d i u
/// x X p s, with '-', then '0', width, precision (a string's cut; for numbers "%.3d" is "%03d"),
/// then "l" (nothing) or "ll" (64 bits, for d i u x X). The sign stands after the padding: "%05d"
/// of -42 gives "00-42". Any other conversion is written as it stands.
int kvsnprintf(char* buf, size_t size, const char* fmt, va_list ap) VORN_PRINTF(3, 0);

/// kvsnprintf with its arguments inline.
int ksnprintf(char* buf, size_t size, const char* fmt, ...) VORN_PRINTF(3, 4);

/// ksnprintf with a size of 512: `buf` holds that much, or the output is known to be shorter.
int ksprintf(char* buf, const char* fmt, ...) VORN_PRINTF(2, 3);
