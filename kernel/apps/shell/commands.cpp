// The command table, and the dispatcher that records what it runs.
#include <algorithm>
#include <iterator>
#include <string_view>

#include "kernel/apps/cmd_actors.h"
#include "kernel/apps/cmd_cap.h"
#include "kernel/apps/cmd_crypto.h"
#include "kernel/apps/cmd_disk.h"
#include "kernel/apps/cmd_files.h"
#include "kernel/apps/cmd_graph.h"
#include "kernel/apps/cmd_journal.h"
#include "kernel/apps/cmd_liveness.h"
#include "kernel/apps/cmd_schema.h"
#include "kernel/apps/cmd_system.h"
#include "kernel/apps/cmd_timeline.h"
#include "kernel/apps/cmd_whatif.h"
#include "kernel/apps/mail.h"
#include "kernel/apps/mood.h"
#include "kernel/apps/notes.h"
#include "kernel/apps/sched_app.h"
#include "kernel/apps/shell.h"
#include "kernel/apps/sysdigest.h"
#include "kernel/apps/vorsh.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/drivers/console.h"
#include "kernel/graph/attest.h"
#include "kernel/graph/capsule.h"
#include "kernel/graph/causal.h"
#include "kernel/graph/causal_persist.h"
#include "kernel/graph/cbisect.h"
#include "kernel/graph/cdb.h"
#include "kernel/graph/cprof.h"
#include "kernel/graph/eset.h"
#include "kernel/graph/provenance.h"
#include "kernel/graph/replay.h"
#include "kernel/graph/timeline.h"
#include "kernel/graph/tldiff.h"

namespace {

/// Commands that read the graph: they add nothing to what they look at.
constexpr std::string_view UNRECORDED[] = {
    "events",     "graph",    "trace",     "why",         "effects",  "blast",   "autopsy",
    "tl",         "timeline", "observe",   "meshview",    "demo",     "top",     "prov",
    "journal",    "flame",    "waterfall", "prove",       "cproof",   "suptree", "elect",
    "contract",   "cell",     "ghost",     "diagnose",    "kv",       "capflow", "patch",
    "trigger",    "triggers", "energy",    "clusterview", "annotate", "cbreak",  "cascade",
    "search",     "narrate",  "tldiff",    "heal",        "sysrec",   "sysplay", "actver",
    "policy",     "blame",    "entropy",   "snapshot",    "critpath", "cbisect", "cdb",
    "cprof",      "attest",   "capsule",   "context",     "tempcap",  "kvwatch", "liveness",
    "whatif",     "digest",   "eset",      "merkle",      "verify",   "pattern", "mood",
    "barrier",    "diffuse",  "explore",   "actormap",    "query",    "dag",     "dagview",
    "dagexplore", "memtrace",
};
static_assert(std::size(UNRECORDED) == 72);

constexpr pid_t NO_TASK = -1;

/// Who runs a line where nobody answers.
pid_t unattended = NO_TASK;

const command_t* find_command(const char* name) {
    for (const command_t* command = commands; command->name != nullptr; ++command) {
        if (strcmp(command->name, name) == 0)
            return command;
    }
    return nullptr;
}

bool is_recorded(std::string_view name) {
    return std::find(std::begin(UNRECORDED), std::end(UNRECORDED), name) == std::end(UNRECORDED);
}

/// The command's event stays current, also where the system's timeline notes it: it is the parent
/// of what the command does.
void record_command(const char* name) {
    constexpr uint32_t COMMAND_NOTED = 0x50;
    char desc[KPRINTF_BYTES];
    ksprintf(desc, "cmd: %s", name);
    const uint32_t id = causal_emit(CAUSAL_SHELL, "shell", desc, nullptr, 0);
    if (timeline_emit(timeline_find("system"), COMMAND_NOTED, nullptr, 0, desc) != 0)
        causal_set_current(id);
}

}  // namespace

constinit const command_t commands[] = {
    {"help", cmd_help},
    {"echo", cmd_echo},
    {"exit", cmd_exit},
    {"logout", cmd_exit},
    {"clear", cmd_clear},
    {"ls", cmd_ls},
    {"cat", cmd_cat},
    {"head", cmd_head},
    {"tail", cmd_tail},
    {"wc", cmd_wc},
    {"grep", cmd_grep},
    {"cp", cmd_cp},
    {"mv", cmd_mv},
    {"more", cmd_more},
    {"less", cmd_more},
    {"mkdir", cmd_mkdir},
    {"touch", cmd_touch},
    {"write", cmd_write},
    {"rm", cmd_rm},
    {"cd", cmd_cd},
    {"pwd", cmd_pwd},
    {"ps", cmd_ps},
    {"top", cmd_top},
    {"free", cmd_free},
    {"memmap", cmd_memmap},
    {"uname", cmd_uname},
    {"termsize", cmd_termsize},
    {"uptime", cmd_uptime},
    {"status", cmd_status},
    {"irqstat", cmd_irqstat},
    {"run", cmd_run},
    {"vorsh", cmd_vorsh},
    {"edit", cmd_edit},
    {"halt", cmd_halt},
    {"diskls", cmd_diskls},
    {"diskcat", cmd_diskcat},
    {"disktail", cmd_disktail},
    {"diskhead", cmd_diskhead},
    {"diskgrep", cmd_diskgrep},
    {"diskrgrep", cmd_diskrgrep},
    {"diskwc", cmd_diskwc},
    {"diskhash", cmd_diskhash},
    {"diskcmp", cmd_diskcmp},
    {"diskwrite", cmd_diskwrite},
    {"diskappend", cmd_diskappend},
    {"diskfill", cmd_diskfill},
    {"disktruncate", cmd_disktruncate},
    {"disktouch", cmd_disktouch},
    {"diskmkdir", cmd_diskmkdir},
    {"diskrm", cmd_diskrm},
    {"diskcd", cmd_diskcd},
    {"diskpwd", cmd_diskpwd},
    {"diskcp", cmd_diskcp},
    {"diskmv", cmd_diskmv},
    {"diskstat", cmd_diskstat},
    {"diskro", cmd_diskro},
    {"diskrw", cmd_diskrw},
    {"diskdf", cmd_diskdf},
    {"disktree", cmd_disktree},
    {"diskdu", cmd_diskdu},
    {"diskfind", cmd_diskfind},
    {"diskcache", cmd_diskcache},
    {"fsck", cmd_fsck},
    {"aping", cmd_aping},
    {"crash", cmd_crash},
    {"actors", cmd_actors},
    {"send", cmd_send},
    {"actormap", cmd_actormap},
    {"recv", cmd_recv},
    {"events", cmd_events},
    {"effects", cmd_effects},
    {"blast", cmd_blast},
    {"autopsy", cmd_autopsy},
    {"trace", cmd_trace},
    {"why", cmd_why},
    {"cpath", cmd_cpath},
    {"cdot", cmd_cdot},
    {"graph", cmd_graph},
    {"graph-health", cmd_graph_health},
    {"rewind", cmd_rewind},
    {"replay", cmd_replay},
    {"orphans", cmd_orphans},
    {"routes", cmd_routes},
    {"watch", cmd_watch},
    {"timeline", cmd_timeline},
    {"tl", cmd_timeline},
    {"mail", cmd_mail},
    {"note", cmd_note},
    {"proc", cmd_proc},
    {"schedule", cmd_schedule},
    {"scheduled", cmd_scheduled},
    {"crypto", cmd_crypto},
    {"hexdump", cmd_hexdump},
    {"random", cmd_random},
    {"cpu", cmd_cpu},
    {"prov", cmd_prov},
    {"journal", cmd_journal},
    {"schema", cmd_schema},
    {"cap", cmd_cap},
    {"search", cmd_search},
    {"tldiff", cmd_tldiff},
    {"blame", cmd_blame},
    {"cbisect", cmd_cbisect},
    {"cdb", cmd_cdb},
    {"cprof", cmd_cprof},
    {"attest", cmd_attest},
    {"capsule", cmd_capsule},
    {"tempcap", cmd_tempcap},
    {"liveness", cmd_liveness},
    {"whatif", cmd_whatif},
    {"digest", cmd_digest},
    {"eset", cmd_eset},
    {"pattern", cmd_pattern},
    {"mood", cmd_mood},
    {"ptree", cmd_ptree},
    {"dmesg", cmd_dmesg},
    {"heap", cmd_heap},
    {"memleak", cmd_memleak},
    {"cflush", cmd_cflush},
    {"crestore", cmd_crestore},
    {nullptr, nullptr},
};

int dispatch(int argc, char** argv) {
    if (argc < 1)
        return 0;
    const command_t* command = find_command(argv[0]);
    if (command == nullptr)
        return 0;
    if (is_recorded(command->name))
        record_command(command->name);
    command->func(argc, argv);
    return 1;
}

void shell_exec(const char* cmdline) {
    char line[SHELL_LINE_BYTES];
    char* argv[SHELL_ARGS_MAX];
    string_copy(line, cmdline, sizeof line);
    kprintf("%s\n", line);
    const int argc = parse_args(line, argv);
    if (argc == 0 || dispatch(argc, argv) != 0)
        return;
    kprintf("vorn: unknown command '%s'\n", argv[0]);
    suggest_command(argv[0]);
}

void shell_exec_unattended(const char* cmdline) {
    unattended = task_getpid();
    shell_exec(cmdline);
    unattended = NO_TASK;
}

bool shell_is_attended(void) { return !console_is_captured() && task_getpid() != unattended; }
