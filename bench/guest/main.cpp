// The measuring image: the kernel's own objects under a start-up that times them. Each line reads
// "bench NAME MEDIAN MIN MAX" in time-stamp counts for one operation; bench/run.py boots it twice,
// once counting instructions (one count each) and once in plain time for what the devices cost.
// With a disk it measures the storage instead, or the journal under a load (sustain.cpp). The lines
// go out on the second serial port: the first one belongs to the console under test.
#include "kernel/core/main.h"
#include "arch/x86/hal.h"
#include "arch/x86/ports.h"
#include "bench/guest/measure.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"
#include "kernel/core/running.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/core/x86.h"
#include "kernel/drivers/console.h"
#include "kernel/drivers/pci.h"
#include "kernel/drivers/virtio_blk.h"
#include "kernel/graph/causal.h"

namespace {

constexpr uint16_t COM2_DATA = 0x2F8;
constexpr uint16_t PIC_MASTER_MASK = 0x21;
constexpr int BENCH_LINE = 5;  // an interrupt line with no device behind it

/// kprintf's console while figures are printed.
void put_on_second_port(const char* text) {
    for (; *text != '\0'; ++text)
        outb(COM2_DATA, static_cast<uint8_t>(*text));
}

void measure_events() {
    constexpr uint32_t REPEATS = 1000;
    static uint8_t payload[24] = {8, 0, 1};
    uint32_t parent = causal_emit(CAUSAL_USER, "bench", "root of the measured events", nullptr, 0);
    measure_each("event-one-parent", REPEATS, [&] {
        parent = causal_emit(CAUSAL_FS, "vofs", "write ino=12 len=512 off=4096", &parent, 1);
    });
    measure_each("event-payload-24", REPEATS, [&] {
        parent = causal_emit_payload(CAUSAL_NET, "tcp", "rx seq=100 len=512", &parent, 1, payload,
                                     sizeof payload);
    });
    measure_each("event-formatted", REPEATS, [&] {
        parent = causal_event_fmt(CAUSAL_SCHED, "sched", "pid=%d name=%s pri=%d", 42, "worker", 4);
    });
}

void measure_memory() {
    constexpr uint32_t REPEATS = 200;
    constexpr size_t PAGE = 4096;
    constexpr size_t EVENT = sizeof(causal_event_t);
    static uint32_t from[PAGE / 4], to[PAGE / 4];
    measure_each("memcpy-4096", REPEATS, [] { memcpy(to, from, PAGE); });
    measure_each("movsl-4096", REPEATS, [] { cpu_copy_words(to, from, PAGE / 4); });
    measure_each("memcpy-608", REPEATS, [] { memcpy(to, from, EVENT); });
    measure_each("movsl-608", REPEATS, [] { cpu_copy_words(to, from, EVENT / 4); });
    measure_each("memset-4096", REPEATS, [] { memset(to, 1, PAGE); });
    measure_each("stosl-4096", REPEATS, [] { cpu_fill_words(to, 0x01010101, PAGE / 4); });
    measure_each("memset-608", REPEATS, [] { memset(to, 1, EVENT); });
    measure_each("stosl-608", REPEATS, [] { cpu_fill_words(to, 0x01010101, EVENT / 4); });
}

void measure_heap() {
    constexpr uint32_t LIVE = 100;
    static std::array<void*, LIVE> live;
    uint32_t seed = 1;
    for (void*& block : live)
        block = kmalloc(16 + krng(&seed) % 1000);
    uint32_t next = 0;
    measure_each("kmalloc-kfree-100-live", 1000, [&] {
        kfree(live[next]);
        live[next] = kmalloc(16 + krng(&seed) % 1000);
        next = (next + 37) % LIVE;
    });
    for (void* block : live)
        kfree(block);
}

void measure_formatting() {
    static char text[128];
    measure_each("format-event-line", 500, [] {
        ksnprintf(text, sizeof text, "[%u] T+%u %s %s: %s", 123456u, 98765u, "sched", "sched",
                  "switch idle->shell");
    });
}

void measure_interrupt() {
    irq_install_handler(BENCH_LINE, [](registers_t*) {});
    measure_each("interrupt", 1000, [] { asm volatile("int %0" : : "i"(32 + BENCH_LINE)); });
}

constexpr uint32_t SWITCHES = 1000;
volatile bool partner_stops;
volatile bool switches_recorded;

/// Leaves the processor; where switches are recorded, as a task does that has recorded something.
void leave_processor() {
    running().recorded = switches_recorded;
    task_yield();
}

void partner_task() {
    while (!partner_stops)
        leave_processor();
}

void measure_switches(const char* name, bool recorded) {
    switches_recorded = recorded;
    measure(name, 2 * SWITCHES, [] {
        for (uint32_t i = 0; i < SWITCHES; ++i)
            leave_processor();
    });
}

void measure_switch() {
    task_create("partner", partner_task, 4);
    sched_start();
    task_yield();
    measure_switches("switch-recorded", true);
    measure_switches("switch-unrecorded", false);
    partner_stops = true;
    task_yield();
}

void measure_console() {
    constexpr uint16_t LINE_STATUS = 0x3FD;
    auto* cell = reinterpret_cast<volatile uint16_t*>(0xB8000);
    measure_each("port-read-and-cell", 1000, [&] {
        (void)inb(LINE_STATUS);
        *cell = 0x0720;
    });
    constexpr uint32_t COLUMNS = 80;
    static uint8_t row[COLUMNS];
    memset(row, '.', sizeof row);
    measure("console-character", COLUMNS, [] {
        console_set_cursor(12, 0);
        console_write_len(row, sizeof row);
    });
    measure_each("console-scrolled-line", 50, [] { console_putchar('\n'); });
}

void measure_processor() {
    measure_events();
    measure_memory();
    measure_heap();
    measure_formatting();
    measure_interrupt();
    measure_console();
    measure_graph();
    measure_switch();
}

}  // namespace

void kernel_main(uint32_t, multiboot_info_t* info) {
    const sustained_t sustained = sustained_load_wanted(info);
    console_init();
    kprintf_set_console(put_on_second_port);
    gdt_init();
    idt_init();
    hal_irq_init();
    outb(PIC_MASTER_MASK, 0xFF);
    pmm_init(info);
    vmm_init();
    heap_init();
    causal_init();
    tss_init();
    task_init();
    pci_init();
    if (blk_init() != 0)
        measure_processor();
    else if (sustained.rate != 0)
        measure_sustained(sustained);
    else
        measure_storage();
    kprintf("bench done\n");
    hal_shutdown();
}
