// Commands for debugging: a look into memory, and faults on demand.
#include <algorithm>
#include <iterator>

#include "arch/x86/faults.h"
#include "kernel/apps/cmd_system.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/core/tempcap.h"

namespace {

constexpr uint32_t LINE_BYTES = 16;
constexpr uint32_t DUMP_DEFAULT = 128;
constexpr uint32_t DUMP_MAX = 4096;
constexpr size_t ADDRESS_DIGITS = 8;
constexpr uintptr_t UNMAPPED = 0xFFFFF000;

/// One optional "0x", then 1 to 8 hexadecimal digits and nothing else; false otherwise.
bool parse_address(const char* text, uint32_t* addr) {
    const char* digits = strncmp(text, "0x", 2) == 0 ? text + 2 : text;
    const size_t length = strlen(digits);
    if (length == 0 || length > ADDRESS_DIGITS)
        return false;
    if (!std::all_of(digits, digits + length, [](char c) { return hexval(c) >= 0; }))
        return false;
    *addr = parse_hex(digits);
    return true;
}

/// How many of `count` bytes from `addr` can be read; they reach over at most one page boundary.
uint32_t readable(uint32_t addr, uint32_t count) {
    if (!vmm_is_mapped(addr))
        return 0;
    const uint32_t in_page = PAGE_SIZE - addr % PAGE_SIZE;
    return count <= in_page || vmm_is_mapped(addr + in_page) ? count : in_page;
}

void dump(uint32_t addr, uint32_t len) {
    while (len > 0) {
        const uint32_t wanted = std::min(len, LINE_BYTES);
        const uint32_t count = readable(addr, wanted);
        if (count > 0) {
            char line[HEXDUMP_LINE_BYTES];
            hexdump_line(line, addr, reinterpret_cast<const uint8_t*>(addr), count);
            kprintf("%s\n", line);
        }
        if (count < wanted) {
            kprintf("hexdump: 0x%08x is not mapped\n", addr + count);
            return;
        }
        addr += count;
        len -= count;
    }
}

/// The stack check at the next switch ends the task.
void overrun_stack() {
    if (task_t* task = task_current(); task != nullptr && task->stack_bottom != 0)
        *reinterpret_cast<volatile uint32_t*>(task->stack_bottom) = 0;
    task_yield();
}

struct crash_t {
    const char* kind;
    const char* effect;
    void (*run)();
};

constexpr crash_t CRASHES[] = {
    {"div0", "divide error", fault_divide},
    {"break", "breakpoint", fault_breakpoint},
    {"opcode", "invalid opcode", fault_opcode},
    {"gpf", "general protection fault", fault_protection},
    {"page", "page fault", [] { fault_page(UNMAPPED); }},
    {"stack", "stack overrun of this task", overrun_stack},
};

}  // namespace

void hexdump_line(char* out, uint32_t addr, const uint8_t* bytes, uint32_t count) {
    int at = ksnprintf(out, HEXDUMP_LINE_BYTES, "%08x ", addr);
    char text[LINE_BYTES + 1] = {};
    for (uint32_t i = 0; i < LINE_BYTES; ++i) {
        const size_t room = HEXDUMP_LINE_BYTES - static_cast<size_t>(at);
        const char* gap = i == LINE_BYTES / 2 ? "  " : " ";
        if (i >= count) {
            at += ksnprintf(out + at, room, "%s  ", gap);
            continue;
        }
        at += ksnprintf(out + at, room, "%s%02x", gap, bytes[i]);
        const bool printable = bytes[i] >= ' ' && bytes[i] < 127;
        text[i] = printable ? static_cast<char>(bytes[i]) : '.';
    }
    ksnprintf(out + at, HEXDUMP_LINE_BYTES - static_cast<size_t>(at), "  |%s|", text);
}

void cmd_hexdump(int argc, char** argv) {
    uint32_t addr = 0;
    uint32_t len = DUMP_DEFAULT;
    const bool good = (argc == 2 || argc == 3) && parse_address(argv[1], &addr) &&
                      (argc == 2 || safe_parse_uint(argv[2], &len) == 0);
    if (!good || len == 0 || len > DUMP_MAX) {
        kprintf("Usage: hexdump <hex-address> [1..%u]\n", DUMP_MAX);
        return;
    }
    // Nothing lies behind the last address.
    const uint32_t behind = UINT32_MAX - addr;
    dump(addr, len - 1 > behind ? behind + 1 : len);
}

void cmd_crash(int argc, char** argv) {
    for (const crash_t& crash : CRASHES) {
        if (argc != 2 || strcmp(argv[1], crash.kind) != 0)
            continue;
        if (tempcap_require(CAP_ADMIN, "raise exception"))
            crash.run();
        else
            kprintf("crash: permission denied (need admin)\n");
        return;
    }
    kprintf("Usage: crash <kind>\n");
    for (const crash_t& crash : CRASHES)
        kprintf("  %-8s %s\n", crash.kind, crash.effect);
}
