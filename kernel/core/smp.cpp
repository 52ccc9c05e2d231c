#include "kernel/core/smp.h"

#include <array>

#include "arch/x86/cpu.h"
#include "arch/x86/lapic.h"

namespace {

constexpr uint32_t ICR_PENDING = 1u << 12;
constexpr uint32_t ICR_ASSERT = 1u << 14;
constexpr uint32_t ICR_DESTINATION_SHIFT = 24;

struct {
    std::array<cpu_state_t, CPU_MAX> cpus;
    uint32_t count;
} state = {{}, 1};

}  // namespace

int smp_init(void) {
    state.cpus = {};
    state.cpus[0].active = true;
    state.cpus[0].is_bsp = true;
    state.count = 1;
    return static_cast<int>(state.count);
}

int smp_add_cpu(uint32_t lapic_id) {
    if (state.count == CPU_MAX)
        return -1;
    cpu_state_t& cpu = state.cpus[state.count];
    cpu.cpu_id = state.count;
    cpu.lapic_id = lapic_id;
    return static_cast<int>(state.count++);
}

uint32_t smp_cpu_count(void) { return state.count; }

cpu_state_t* smp_cpu_state(uint32_t cpu) { return cpu < state.count ? &state.cpus[cpu] : nullptr; }

void smp_send_ipi(uint32_t lapic_id, uint8_t vector) {
    while ((lapic_read(LAPIC_ICR_LOW) & ICR_PENDING) != 0)
        cpu_pause();
    lapic_write(LAPIC_ICR_HIGH, lapic_id << ICR_DESTINATION_SHIFT);
    lapic_write(LAPIC_ICR_LOW, ICR_ASSERT | vector);
}
