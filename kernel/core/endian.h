// Byte orders at the edge. Big-endian fields of wire formats have types of their own, so that none
// is read in the wrong order; little-endian fields of byte strings go through load and store.
// Nothing here needs alignment. The processor itself is little-endian.
#pragma once

#include <stdint.h>

inline uint16_t load_le16(const void* from) {
    uint16_t value;
    __builtin_memcpy(&value, from, sizeof value);
    return value;
}

inline uint32_t load_le32(const void* from) {
    uint32_t value;
    __builtin_memcpy(&value, from, sizeof value);
    return value;
}

inline uint64_t load_le64(const void* from) {
    uint64_t value;
    __builtin_memcpy(&value, from, sizeof value);
    return value;
}

inline void store_le16(void* to, uint16_t value) { __builtin_memcpy(to, &value, sizeof value); }
inline void store_le32(void* to, uint32_t value) { __builtin_memcpy(to, &value, sizeof value); }
inline void store_le64(void* to, uint64_t value) { __builtin_memcpy(to, &value, sizeof value); }

inline uint16_t load_be16(const void* from) { return __builtin_bswap16(load_le16(from)); }
inline uint32_t load_be32(const void* from) { return __builtin_bswap32(load_le32(from)); }
inline uint64_t load_be64(const void* from) { return __builtin_bswap64(load_le64(from)); }

inline void store_be16(void* to, uint16_t value) { store_le16(to, __builtin_bswap16(value)); }
inline void store_be32(void* to, uint32_t value) { store_le32(to, __builtin_bswap32(value)); }
inline void store_be64(void* to, uint64_t value) { store_le64(to, __builtin_bswap64(value)); }

/// A 16-bit field in network order; reads and assigns as the number it means.
struct be16_t {
    uint8_t bytes[2];
    operator uint16_t() const { return load_be16(bytes); }
    be16_t& operator=(uint16_t value) {
        store_be16(bytes, value);
        return *this;
    }
};
static_assert(sizeof(be16_t) == 2 && alignof(be16_t) == 1);

/// A 32-bit field in network order; reads and assigns as the number it means.
struct be32_t {
    uint8_t bytes[4];
    operator uint32_t() const { return load_be32(bytes); }
    be32_t& operator=(uint32_t value) {
        store_be32(bytes, value);
        return *this;
    }
};
static_assert(sizeof(be32_t) == 4 && alignof(be32_t) == 1);
