// What stands in the place of the kernel's lower floors: one thread, no interrupts, no events.
#include <cstdint>
#include <cstdlib>

#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"
#include "kernel/core/mutex.h"
#include "kernel/core/task.h"
#include "kernel/graph/causal.h"
#include "tools/host/host.h"

// The host's clock says nothing about the machine's ticks: what is written bears the first one.
volatile uint32_t system_ticks = 0;

void host_set_print(void (*print)(const char* text)) { kprintf_set_console(print); }

void* kmalloc(size_t size) { return malloc(size == 0 ? 1 : size); }

void* kmalloc_aligned(size_t size, size_t alignment) {
    constexpr size_t LEAST = sizeof(void*);
    const size_t to = alignment < LEAST ? LEAST : alignment;
    if (size > HEAP_BYTES || (to & (to - 1)) != 0)
        return nullptr;
    return aligned_alloc(to, (size + to) / to * to);
}

void kfree(void* ptr) { free(ptr); }

void mutex_lock(mutex_t&) NO_THREAD_SAFETY_ANALYSIS {}

void mutex_unlock(mutex_t&) NO_THREAD_SAFETY_ANALYSIS {}

pid_t task_getpid() { return 0; }

uint32_t causal_event_fmt(uint8_t, const char*, const char*, ...) { return 0; }
