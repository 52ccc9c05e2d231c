// Binary search in the table of functions.
#include "kernel/core/ksyms.h"

#include <algorithm>

const char* ksym_lookup(uint32_t address, uint32_t* offset) {
    if (ksyms_table == nullptr || &ksyms_count == nullptr || ksyms_count == 0)
        return nullptr;
    const ksym_t* const end = ksyms_table + ksyms_count;
    const ksym_t* next = std::upper_bound(
        ksyms_table, end, address, [](uint32_t a, const ksym_t& sym) { return a < sym.address; });
    if (next == ksyms_table || next == end)
        return nullptr;
    const ksym_t& sym = next[-1];
    if (offset != nullptr)
        *offset = address - sym.address;
    return sym.name;
}
