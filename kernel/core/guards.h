// Critical sections as scopes: interrupts masked on this processor, and the spinlock that adds
// the other processors. Both are for a bounded handful of stores; what waits uses mutex_t.
#pragma once

#include <stdint.h>

#include "arch/x86/cpu.h"
#include "kernel/core/compiler.h"

/// The capability that irq_guard stands for: "interrupts are masked on this processor".
class CAPABILITY("irq") irq_mask_t {};

/// Data that only this processor's tasks and interrupt handlers share is GUARDED_BY(irq_mask).
inline irq_mask_t irq_mask;

/// Masks interrupts for its scope and puts the former state back; nests. Any context.
class SCOPED_CAPABILITY irq_guard {
public:
    irq_guard() ACQUIRE(irq_mask) : flags_(cpu_flags()) { cpu_cli(); }
    ~irq_guard() RELEASE() {
        if ((flags_ & EFLAGS_IF) != 0)
            cpu_sti();
    }
    irq_guard(const irq_guard&) = delete;
    irq_guard& operator=(const irq_guard&) = delete;

private:
    uint32_t flags_;
};

/// An exchange-based spinlock: 1 = held.
struct CAPABILITY("spinlock") spinlock_t {
    volatile uint32_t held = 0;
};

/// Takes `lock`, spinning with PAUSE while it reads as held. Interrupts must be masked.
inline void spin_lock(spinlock_t& lock) ACQUIRE(lock) NO_THREAD_SAFETY_ANALYSIS {
    while (__atomic_exchange_n(&lock.held, 1u, __ATOMIC_ACQUIRE) != 0) {
        while (lock.held != 0)
            cpu_pause();
    }
}

/// Releases `lock`.
inline void spin_unlock(spinlock_t& lock) RELEASE(lock) NO_THREAD_SAFETY_ANALYSIS {
    __atomic_store_n(&lock.held, 0u, __ATOMIC_RELEASE);
}

/// Masks interrupts and holds `lock` for its scope. Any context.
class SCOPED_CAPABILITY spin_guard {
public:
    explicit spin_guard(spinlock_t& lock) ACQUIRE(lock) : lock_(lock) { spin_lock(lock_); }
    ~spin_guard() RELEASE() { spin_unlock(lock_); }
    spin_guard(const spin_guard&) = delete;
    spin_guard& operator=(const spin_guard&) = delete;

private:
    irq_guard irq_;
    spinlock_t& lock_;
};
