// The processors: one record each, the rings between them, and the interrupt that wakes one.
//
// Processor 0 is the bootstrap processor; it alone keeps time, reaps tasks and records events. The
// records are filled at start-up, before a further processor runs, and only read afterwards.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/core/running.h"

constexpr uint32_t SMP_CHANNEL_SLOTS = 256;
constexpr uint32_t SMP_PAYLOAD_MAX = 256;
constexpr uint32_t CACHE_LINE = 64;

/// A message between two processors.
struct smp_msg_t {
    uint8_t type;
    uint8_t reserved;
    uint16_t len;  ///< bytes of `payload` in use
    uint8_t payload[SMP_PAYLOAD_MAX];
};
static_assert(sizeof(smp_msg_t) == 260);

/// A ring with one producer and one consumer; each index has a cache line of its own.
struct smp_channel_t {
    alignas(CACHE_LINE) volatile uint32_t head;  ///< next slot to read; the consumer's
    alignas(CACHE_LINE) volatile uint32_t tail;  ///< next slot to fill; the producer's
    alignas(CACHE_LINE) smp_msg_t messages[SMP_CHANNEL_SLOTS];
};
static_assert(offsetof(smp_channel_t, tail) - offsetof(smp_channel_t, head) == CACHE_LINE);

/// A processor.
struct cpu_state_t {
    uint32_t cpu_id;    ///< index, 0..15
    uint32_t lapic_id;  ///< where interrupts for it are sent
    bool active;        ///< it runs tasks
    bool is_bsp;        ///< the bootstrap processor
    uintptr_t stack_top;
    uint32_t pmm_start_frame, pmm_end_frame;  ///< its share of the frames, [start, end)
    smp_channel_t* send_to[CPU_MAX];
    smp_channel_t* recv_from[CPU_MAX];
};

/// Forgets all processors but this one, which becomes processor 0. Returns the number of processors
/// that run. Start-up only.
int smp_init(void);

/// Adds the record of a further processor, not yet active. Returns its index; -1 when the table is
/// full. Start-up only.
[[nodiscard]] int smp_add_cpu(uint32_t lapic_id);

/// Number of processors in the table, at least 1. Any context.
uint32_t smp_cpu_count(void);

/// The record of processor `cpu`; null beyond the table's end. Any context.
cpu_state_t* smp_cpu_state(uint32_t cpu);

/// Sends the interrupt `vector` to the processor with that local APIC id, fixed delivery (Intel SDM
/// volume 3, 10.6.1), after the one sent before has gone out. Interrupts are masked.
void smp_send_ipi(uint32_t lapic_id, uint8_t vector);
