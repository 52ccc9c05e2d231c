// Runs the kernel's own cryptography objects, as the image links them, under valgrind's memcheck
// with every secret marked as uninitialised: a branch or an address that depends on a secret is
// then an error. Without an argument it runs them all; "leaky" branches on a secret to show that
// the check sees it; "stack" prints the deepest use of the stack and what is left on it.
//
// There is no C library below: the kernel's objects bring memcpy and its kin.
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"
#include "kernel/core/noise.h"
#include "kernel/core/string.h"

namespace {

constexpr uint32_t MESSAGE_BYTES = 300;
constexpr size_t STACK_BYTES = 32768;  // as a kernel task has
constexpr uint8_t PAINT = 0xA5;

uint8_t secret[64], output[5000], tag[16], nonce[12];
const uint8_t point[32] = {9, 1};
uint8_t message[5000], heap_block[8192];

int system_call(int number, int a, const void* b, int c) {
    int result;
    asm volatile("int $0x80" : "=a"(result) : "a"(number), "b"(a), "c"(b), "d"(c) : "memory");
    return result;
}

void say(const char* text) { system_call(4, 1, text, static_cast<int>(strlen(text))); }

[[noreturn]] void leave(int status) {
    for (;;)
        system_call(1, status, nullptr, 0);
}

// Requests to valgrind, as valgrind.h and memcheck.h number them; without valgrind the instructions
// do nothing.
enum request_t : uint32_t {
    RUNNING_UNDER_VALGRIND = 0x1001,
    COUNT_ERRORS = 0x1201,
    MAKE_UNDEFINED = ('M' << 24) + ('C' << 16) + 1,
    MAKE_DEFINED = ('M' << 24) + ('C' << 16) + 2,
};

uint32_t ask(request_t request, const void* start = nullptr, size_t length = 0) {
    volatile uint32_t args[6] = {request, reinterpret_cast<uintptr_t>(start), length, 0, 0, 0};
    uint32_t result = 0;
    asm volatile(
        "roll $3, %%edi; roll $13, %%edi; roll $29, %%edi; roll $19, %%edi\n"
        "xchgl %%ebx, %%ebx"
        : "+d"(result)
        : "a"(args)
        : "cc", "memory");
    return result;
}

void hide() {
    for (size_t i = 0; i < sizeof secret; ++i)
        secret[i] = static_cast<uint8_t>(i * 7 + 1);
    ask(MAKE_UNDEFINED, secret, sizeof secret);
}

struct operation_t {
    const char* name;
    void (*run)();
};

void sign() {
    // The public half of the key is public.
    ask(MAKE_DEFINED, secret + 32, 32);
    (void)ed25519_sign(output, message, MESSAGE_BYTES, secret);
}

void seal(uint32_t length) {
    ask(MAKE_UNDEFINED, message, sizeof message);
    chacha20poly1305_encrypt(output, tag, message, length, nonce, sizeof nonce, secret, nonce);
}

void compare() {
    const int result = crypto_verify_32(secret, secret + 32);
    memcpy(output, &result, sizeof result);
}

const operation_t OPERATIONS[] = {
    {"x25519", [] { curve25519(output, secret, point); }},
    {"x25519-base", [] { curve25519_base(output, secret); }},
    {"ed25519-keypair", [] { ed25519_keypair(output, secret); }},
    {"ed25519-sign", sign},
    {"aead-stack", [] { seal(1000); }},
    {"aead-heap", [] { seal(5000); }},
    {"blake2s", [] { blake2s(output, secret, sizeof secret); }},
    {"sha512", [] { sha512(output, secret, sizeof secret); }},
    {"compare", compare},
};

/// Runs every operation and says how many have errors under memcheck.
int run_all() {
    int bad = 0;
    for (const operation_t& operation : OPERATIONS) {
        hide();
        const uint32_t before = ask(COUNT_ERRORS);
        operation.run();
        if (ask(COUNT_ERRORS) == before)
            continue;
        say(operation.name);
        say(" depends on its secret\n");
        ++bad;
    }
    return bad;
}

/// Paints a bit more than is looked at, whatever the frames around it take.
[[gnu::noinline]] void paint_stack() {
    uint8_t below[STACK_BYTES + 512];
    memset(below, PAINT, sizeof below);
    asm volatile("" : : "r"(below) : "memory");
}

/// Counts, in the stack below the caller, the bytes from the deepest one touched, and those of
/// them that are neither zero nor paint.
[[gnu::noinline]] void measure_stack(size_t& depth, size_t& residue) {
    uint8_t below[STACK_BYTES];
    asm volatile("" : "=m"(below));
    size_t deepest = 0;
    while (deepest < sizeof below && below[deepest] == PAINT)
        ++deepest;
    depth = sizeof below - deepest;
    residue = 0;
    for (size_t i = deepest; i < sizeof below; ++i)
        residue += below[i] != 0 && below[i] != PAINT;
}

void print_stacks() {
    for (const operation_t& operation : OPERATIONS) {
        char line[80];
        size_t depth, residue;
        hide();
        paint_stack();
        operation.run();
        measure_stack(depth, residue);
        ksnprintf(line, sizeof line, "%s %u %u\n", operation.name, depth, residue);
        say(line);
    }
}

int run(const char* mode) {
    if (mode != nullptr && strcmp(mode, "stack") == 0) {
        print_stacks();
        return 0;
    }
    if (ask(RUNNING_UNDER_VALGRIND) == 0) {
        say("run me under valgrind\n");
        return 2;
    }
    if (mode == nullptr)
        return run_all() == 0 ? 0 : 1;
    hide();
    const uint32_t before = ask(COUNT_ERRORS);
    if ((secret[5] & 1) != 0)
        say("");
    return ask(COUNT_ERRORS) == before ? 0 : 1;
}

}  // namespace

// What the cryptography takes from the rest of the kernel.

void* kmalloc(size_t size) { return size <= sizeof heap_block ? heap_block : nullptr; }

void kfree(void*) {}

int kprintf(const char* fmt, ...) {
    say(fmt);
    return 0;
}

void kassert_fail(const char* expr, const char*, int) {
    say(expr);
    leave(3);
}

/// Called with the initial stack: argc, argv.
extern "C" [[noreturn, gnu::used]] void start(const uint32_t* stack) {
    const uint32_t argc = stack[0];
    leave(run(argc > 1 ? reinterpret_cast<const char*>(stack[2]) : nullptr));
}

asm(".globl _start\n"
    "_start: xorl %ebp, %ebp\n"
    "movl %esp, %eax\n"
    "andl $-16, %esp\n"
    "subl $12, %esp\n"
    "pushl %eax\n"
    "call start\n");
