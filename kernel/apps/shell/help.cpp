// The help screen: all commands by subject, those of subsystems still to come among them.
#include "kernel/apps/shell.h"
#include "kernel/core/kprintf.h"
#include "kernel/drivers/console.h"

namespace {

/// A line of the screen; the name is a text for people, not always one command's name.
struct help_item_t {
    const char* name;
    const char* description;
};

struct help_section_t {
    console_color_t color;
    const char* title;
    const help_item_t* items;
    int count;
};

constexpr help_item_t SYSTEM[] = {
    {"help", "Show this help"},
    {"status", "System status dashboard"},
    {"uname", "Kernel version info"},
    {"termsize", "Show terminal dimensions"},
    {"uptime", "System uptime"},
    {"halt", "Shut down the system"},
    {"clear", "Clear the screen"},
    {"demo", "Interactive guided tour"},
    {"demo tour", "Self-playing feature walkthrough"},
    {"ulimit", "Task resource limits"},
    {"dmesg", "Kernel ring buffer"},
};

constexpr help_item_t PROCESSES[] = {
    {"ps", "List running tasks"},
    {"top", "Live task monitor"},
    {"exec", "Run a user-space program"},
    {"strace", "Trace syscalls of a program"},
};

constexpr help_item_t FILES[] = {
    {"ls", "List directory contents"},
    {"cat", "Display file contents"},
    {"head/tail", "Show first/last lines from overlay files"},
    {"grep/wc", "Search/count overlay text files"},
    {"cp/mv", "Copy or move overlay files"},
    {"more/less", "Page through an overlay file"},
    {"mkdir", "Create a directory"},
    {"touch", "Create an empty file"},
    {"write", "Write text to a file"},
    {"rm", "Remove a file"},
    {"disktail", "Show last lines of persistent file"},
    {"diskhead", "Show start of persistent file"},
    {"diskgrep/wc", "Search/count persistent text"},
    {"diskrgrep", "Recursive persistent text search"},
    {"diskhash/cmp", "Hash/compare persistent files"},
    {"diskcache", "Persistent disk cache stats"},
    {"diskcd/pwd", "Persistent disk working directory"},
    {"diskfill", "Create repeated persistent data"},
    {"disktruncate", "Resize persistent file"},
    {"disktouch", "Create/update persistent mtime"},
    {"diskro/rw", "Toggle persistent read-only flag"},
    {"disktree", "Show persistent directory tree"},
    {"diskdu/find", "Persistent usage and search"},
    {"cd", "Change directory"},
    {"pwd", "Print working directory"},
    {"edit", "Open text editor"},
};

constexpr help_item_t MEMORY[] = {
    {"free", "Memory usage"},
    {"memmap", "Visual memory layout"},
    {"irqstat", "Interrupt statistics"},
    {"hexdump", "Hex dump of memory"},
    {"crash", "Trigger CPU exception (debug)"},
    {"heap", "Heap diagnostics"},
    {"memleak", "Show unfreed allocations"},
    {"memtrace", "Memory provenance via causal graph"},
};

constexpr help_item_t NETWORK[] = {
    {"ifconfig", "Network configuration"},
    {"dhcp", "Auto-configure via DHCP"},
    {"ping", "ICMP echo request"},
    {"netstat", "TCP connection status"},
    {"arp", "ARP cache"},
    {"wget", "HTTP GET request"},
    {"httpd", "Start web server"},
    {"telnetd", "Start telnet shell server"},
    {"noiseshd", "Start encrypted shell server"},
    {"chatd", "Start TCP multi-user chat server"},
    {"resolve", "DNS hostname resolution"},
};

constexpr help_item_t ACTORS[] = {
    {"actors", "List registered actors"},
    {"send", "Send message to an actor"},
    {"aping", "Measure actor routing latency"},
    {"recv", "Receive from an actor"},
    {"routes", "View routing table"},
    {"watch", "Supervise an actor"},
    {"mesh", "Mesh transport status"},
    {"federation", "Federation statistics"},
    {"cluster", "Distributed cluster overview"},
};

constexpr help_item_t OBSERVABILITY[] = {
    {"observe", "Live system dashboard"},
    {"cpu", "Per-CPU scheduler snapshot"},
    {"events", "Recent causal events"},
    {"effects", "Forward-trace effects"},
    {"blast", "Show downstream impact of event"},
    {"autopsy", "Explain an incident's causes and effects"},
    {"trace", "Trace causal chain"},
    {"why", "Trace root cause across tasks"},
    {"graph", "ASCII causal DAG"},
    {"graph-health", "Causal graph health metrics"},
    {"rewind", "Time-travel: rewind"},
    {"replay", "Time-travel: replay"},
    {"proc", "Process timeline viewer"},
    {"explore", "Interactive causal graph explorer"},
    {"query", "Query causal events"},
    {"cwatch", "Watch causal events live"},
    {"whatif", "What-if scenario analysis"},
    {"orphans", "Find orphan graph nodes"},
    {"rthreshold", "Cell-to-trigger thresholds"},
    {"dag", "Visual DAG swim-lane viewer"},
    {"cflush", "Flush causal graph to disk"},
    {"crestore", "Restore causal graph from disk"},
};

constexpr help_item_t TIMELINES[] = {
    {"tl", "Timeline commands"},
    {"mail", "Actor-based mail"},
    {"note", "Timeline-backed notes"},
    {"schedule", "Schedule future commands"},
};

constexpr help_item_t PUBSUB[] = {
    {"pub", "Publish to topic"},         {"sub", "Subscribe to topic"},
    {"unsub", "Unsubscribe from topic"}, {"topics", "List active topics"},
    {"dsync", "Distributed sync"},
};

constexpr help_item_t DISK[] = {
    {"diskls", "List disk files (VoFS)"},   {"diskcat", "Read disk file"},
    {"diskwrite", "Write disk file"},       {"diskappend", "Append disk file"},
    {"diskmkdir", "Create disk directory"}, {"diskrm", "Remove disk file/dir"},
    {"diskcp/mv", "Copy/move disk file"},   {"diskstat", "Show disk metadata"},
    {"diskdf", "Show disk usage"},
};

constexpr help_item_t GAMES[] = {
    {"doom", "DOOM (yes, really)"},          {"rogue", "Roguelike dungeon crawler"},
    {"matrix", "Matrix rain animation"},     {"neofetch", "System information display"},
    {"ringdemo", "Ring 0/3 privilege demo"},
};

template <int N>
constexpr help_section_t section(console_color_t color, const char* title,
                                 const help_item_t (&items)[N]) {
    return {color, title, items, N};
}

constexpr help_section_t help_sections[] = {
    section(CONSOLE_BRIGHT_GREEN, "System", SYSTEM),
    section(CONSOLE_BRIGHT_CYAN, "Processes", PROCESSES),
    section(CONSOLE_YELLOW, "Files", FILES),
    section(CONSOLE_BRIGHT_MAGENTA, "Memory & Debug", MEMORY),
    section(CONSOLE_BRIGHT_BLUE, "Network", NETWORK),
    section(CONSOLE_BRIGHT_RED, "Actors & Mesh", ACTORS),
    section(CONSOLE_WHITE, "Observability", OBSERVABILITY),
    section(CONSOLE_BRIGHT_GREEN, "Timelines & Apps", TIMELINES),
    section(CONSOLE_BRIGHT_CYAN, "Pub/Sub & Sync", PUBSUB),
    section(CONSOLE_YELLOW, "Disk I/O", DISK),
    section(CONSOLE_BRIGHT_MAGENTA, "Games & Programs", GAMES),
};

// Code-page 437 double lines.
constexpr const char* TITLE =
    "\n \xC9\xCD\xCD Vorn Commands "
    "\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD"
    "\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD"
    "\xBB\n\n";

constexpr const char* NOTES =
    "  Scripts: run <file>, vorsh <file>\n"
    "  Timelines: tl show <name>, tl export <name> <path>\n"
    "  Aliases: timeline = tl, scheduled = list schedules\n\n";

void print_section(const help_section_t& section) {
    console_set_color(section.color, CONSOLE_BLACK);
    kprintf("  %s\n", section.title);
    for (int i = 0; i < section.count; ++i) {
        console_set_color(CONSOLE_WHITE, CONSOLE_BLACK);
        kprintf("    %-12s", section.items[i].name);
        console_set_color(CONSOLE_DARK_GREY, CONSOLE_BLACK);
        kprintf("%s\n", section.items[i].description);
    }
    kprintf("\n");
}

}  // namespace

void cmd_help(int, char**) {
    console_set_color(CONSOLE_BRIGHT_CYAN, CONSOLE_BLACK);
    kprint_text(TITLE);
    for (const help_section_t& section : help_sections)
        print_section(section);
    console_set_color(CONSOLE_DARK_GREY, CONSOLE_BLACK);
    kprint_text(NOTES);
    console_set_color(CONSOLE_GREY, CONSOLE_BLACK);
}
