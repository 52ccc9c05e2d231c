// Names for code addresses: which function of the image an address lies in. The image is linked
// twice; the second link carries a table made from the first one's symbols (tools/ksyms.cpp) in
// section .ksyms behind the constants, so that no function moves between the two.
#pragma once

#include <stdint.h>

/// One function of the table: addresses ascend, names have neither arguments nor the unnamed
/// namespace. The last entry is the end of the text and has no name.
struct ksym_t {
    uint32_t address;
    const char* name;
};

/// The table and its number of entries, the end among them; absent in an image without one.
extern "C" {
[[gnu::weak]] extern const ksym_t ksyms_table[];
[[gnu::weak]] extern const uint32_t ksyms_count;
}

/// The name of the function that `address` lies in, and in `*offset` (may be null) how many bytes
/// behind its start. Null, with `*offset` untouched, outside the image's functions and when the
/// image has no table. Any context, faults included: it reads constants only.
const char* ksym_lookup(uint32_t address, uint32_t* offset);
