// Start-up: the one list that wires the house. Each step prints its line once it is done; the
// order is part of the contract, because later steps rest on earlier ones.
#include "kernel/core/main.h"

#include "arch/x86/cpu.h"
#include "arch/x86/hal.h"
#include "arch/x86/image.h"
#include "kernel/apps/mail.h"
#include "kernel/apps/mood.h"
#include "kernel/apps/notes.h"
#include "kernel/apps/power.h"
#include "kernel/apps/sched_app.h"
#include "kernel/apps/shell.h"
#include "kernel/apps/surgeon.h"
#include "kernel/apps/sysdigest.h"
#include "kernel/core/cap.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/liveness.h"
#include "kernel/core/memory.h"
#include "kernel/core/noise.h"
#include "kernel/core/smp.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/core/tempcap.h"
#include "kernel/core/version.h"
#include "kernel/core/x86.h"
#include "kernel/drivers/acpi.h"
#include "kernel/drivers/console.h"
#include "kernel/drivers/dmesg.h"
#include "kernel/drivers/hwrng.h"
#include "kernel/drivers/keyboard.h"
#include "kernel/drivers/pci.h"
#include "kernel/drivers/virtio_blk.h"
#include "kernel/drivers/virtio_net.h"
#include "kernel/fs/blockfs.h"
#include "kernel/fs/ramfs.h"
#include "kernel/graph/actor.h"
#include "kernel/graph/blame.h"
#include "kernel/graph/causal.h"
#include "kernel/graph/causal_persist.h"
#include "kernel/graph/cjournal.h"
#include "kernel/graph/epattern.h"
#include "kernel/graph/eset.h"
#include "kernel/graph/provenance.h"
#include "kernel/graph/replay.h"
#include "kernel/graph/search.h"
#include "kernel/graph/timeline.h"
#include "kernel/graph/tldiff.h"
#include "kernel/graph/whatif.h"

namespace {

constexpr uint32_t TIMER_HZ = 100;
constexpr int IDLE_PRIORITY = 7;
constexpr int SHELL_PRIORITY = 2;
constexpr uint8_t COLOR_CYAN = 11;
constexpr uint8_t COLOR_GREY = 7;

constexpr const char* BANNER =
    " __     __\n"
    " \\ \\   / /__  _ __ _ __\n"
    "  \\ \\ / / _ \\| '__| '_ \\\n"
    "   \\ V / (_) | |  | | | |\n"
    "    \\_/ \\___/|_|  |_| |_|\n";

constexpr const char* WELCOME_BOX =
    "  ┌─────────────────────────────────────────────────┐\n"
    "  │ Vorn — A Causal Graph-Native Operating System   │\n"
    "  │                                                 │\n"
    "  │ Unique features:                                │\n"
    "  │   events   — Browse recent causal events        │\n"
    "  │   why      — Trace causality                    │\n"
    "  │   whatif   — Counterfactual analysis            │\n"
    "  │   status   — System health snapshot             │\n"
    "  │   showcase — Guided feature map                 │\n"
    "  │ Type 'help' for all commands                    │\n"
    "  └─────────────────────────────────────────────────┘\n";

void print_banner() {
    console_set_color(COLOR_CYAN, 0);
    kprint_text(BANNER);
    console_set_color(COLOR_GREY, 0);
    kprintf("Vorn %s — %s\n\n", VORN_VERSION, VORN_LONG_NAME);
}

void start_interrupts() {
    gdt_init();
    kprintf("[boot] GDT initialized (ring 0 + ring 3 segments)\n");
    idt_init();
    kprintf("[boot] IDT initialized (256 vectors)\n");
    hal_irq_init();
    kprintf("[boot] Interrupt controller initialized\n");
    interrupt_set_fault_hook(surgeon_enter);
}

/// Before paging is on, every physical address can be read.
const uint8_t* physical_memory(uint32_t address, uint32_t) {
    return reinterpret_cast<const uint8_t*>(address);
}

void start_memory(multiboot_info_t* info) {
    constexpr uint32_t FRAME_KB = 4;
    pmm_init(info);
    const uint32_t total = pmm_total_frames();
    const uint32_t used = pmm_used_frames();
    kprintf("[boot] PMM: %u KB total, %u KB used, %u KB free\n", total * FRAME_KB, used * FRAME_KB,
            (total - used) * FRAME_KB);
    vmm_init();
    vmm_protect_readonly(image_start(), image_readonly_end());
    kprintf("[boot] VMM: Paging enabled, 128 MB identity mapped\n");
    heap_init();
    kprintf("[boot] Heap initialized (48 MB)\n");
}

void start_bus() {
    pci_init();
    kprintf("[boot] PCI bus scanned (%d devices found)\n", pci_device_count_get());
}

/// Without a disk everything that needs none goes on.
void start_storage() {
    constexpr int MB_SHIFT = 20;
    if (blk_init() != 0)
        return;
    kprintf("[boot] VirtIO block device ready (%llu MB)\n",
            blk_capacity() * BLK_SECTOR_SIZE >> MB_SHIFT);
    if (blockfs_init() != 0)
        return;
    kprintf("[boot] VoFS persistent filesystem mounted\n");
    cjournal_continue_numbering();
    causal_persist_init();
}

/// The console's question where the running task's output goes.
bool running_task_session(console_session_t* out) {
    const task_t* task = task_current();
    if (task == nullptr || task->io_write == nullptr)
        return false;
    *out = {task->io_write, task->io_ctx};
    return true;
}

void start_tasks() {
    tss_init();
    kprintf("[boot] TSS installed (ring 0/3 transitions ready)\n");
    keyboard_init();
    kprintf("[boot] PS/2 keyboard driver ready\n");
    task_init();
    timeline_watch_tasks();
    console_set_session_hook(running_task_session);
    kprintf("[boot] Task manager initialized\n");
}

void start_ram_filesystem() {
    fs_init();
    kprintf("[boot] RAM filesystem mounted\n");
}

/// Without a card it is silent.
void start_network() {
    constexpr size_t MAC_BYTES = 6;
    uint8_t mac[MAC_BYTES];
    char text[18];
    if (net_init() != 0)
        return;
    net_get_mac(mac);
    kprintf("[boot] VirtIO net ready (MAC %s)\n", format_mac(text, mac));
}

void start_actors() {
    constexpr pid_t START_UP = 0;
    actor_init();
    actor_register("kernel", START_UP);
    actor_register("net", START_UP);
    actor_register("fs", START_UP);
}

void start_timer() {
    hal_timer_init(TIMER_HZ);
    kprintf("[boot] Timer at %u Hz\n", TIMER_HZ);
    cpu_sti();
}

/// Without a volume it does nothing.
void save_history() {
    for (int i = 0; i < TIMELINE_SLOTS; ++i) {
        const timeline_t* tl = timeline_get(i);
        if (tl != nullptr && timeline_persist(i) != 0 && blockfs_mounted())
            kprintf("[shutdown] Timeline %s not saved\n", tl->name);
    }
    cjournal_shutdown();
    const int flushed = causal_flush();
    if (flushed > 0)
        kprintf("[shutdown] Flushed %d causal events to disk\n", flushed);
}

/// At priority 7 it runs only when nothing else is ready; it never blocks.
void idle_task() {
    for (;;) {
        task_yield();
        task_idle_wait();
    }
}

void start_system_tasks(const acpi_button_t& button) {
    const int cpus = smp_init();
    if (cpus > 1)
        kprintf("[boot] SMP: %d CPUs, inter-core channels active\n", cpus);
    const task_t* idle = task_create("idle", idle_task, IDLE_PRIORITY);
    const task_t* shell = task_create("shell", shell_task, SHELL_PRIORITY);
    if (idle == nullptr || shell == nullptr) {
        kprintf("[boot] ERROR: no memory for the system tasks\n");
        cpu_halt_forever();
    }
    // Who sits at the machine may do everything with it.
    (void)cap_grant(shell->pid, CAP_ALL);
    power_init(button, kernel_shutdown);
    kprintf("[boot] System tasks created\n");
}

}  // namespace

void kernel_main(uint32_t magic, multiboot_info_t* info) {
    console_init();
    dmesg_init();
    print_banner();
    if (magic != MULTIBOOT_LOADER_MAGIC) {
        kprintf("ERROR: Not booted by a Multiboot loader (magic=0x%x)\n", magic);
        cpu_halt_forever();
    }
    kprintf("[boot] Multiboot OK, info at 0x%x\n", reinterpret_cast<uintptr_t>(info));
    start_interrupts();
    const acpi_button_t button = acpi_find_button(physical_memory);
    start_memory(info);
    causal_init();
    replay_init();
    timeline_init();
    causal_emit(CAUSAL_SCHED, "boot", "kernel boot started", nullptr, 0);
    timeline_create("system", "shell");
    start_bus();
    start_tasks();
    start_ram_filesystem();
    start_storage();
    start_timer();
    start_network();
    start_actors();
    hwrng_init();
    noise_init();
    cap_init();
    mail_init();
    notes_init();
    sched_app_init();
    provenance_init();
    cjournal_init();
    csearch_init();
    tldiff_init();
    blame_init();
    tempcap_init();
    liveness_init();
    whatif_init();
    sysdigest_init();
    eset_init();
    epattern_init();
    mood_init();
    mail_seed_welcome();
    start_system_tasks(button);
    sched_start();
    kprintf("[boot] Scheduler active\n\n");
    kprint_text(WELCOME_BOX);
    kprintf("\n");
    task_set_priority(task_getpid(), IDLE_PRIORITY);
    for (;;) {
        sched_app_revive();
        task_yield();
        task_idle_wait();
    }
}

void kernel_shutdown(bool reboot) {
    static bool begun;
    // Whoever comes second waits for the first to end the machine.
    while (__atomic_exchange_n(&begun, true, __ATOMIC_SEQ_CST))
        task_block(task_current());
    console_force_local();
    const char* word = reboot ? "reboot" : "halt";
    kprintf("[shutdown] Initiating %s...\n", word);
    causal_event_fmt(CAUSAL_SCHED, "kernel", "shutdown type=%s", word);
    save_history();
    kprintf("[shutdown] System %s\n", reboot ? "rebooting" : "halted");
    if (reboot)
        hal_reboot();
    hal_shutdown();
}
