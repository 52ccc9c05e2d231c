// `search`: events by the words of their descriptions.
#include "kernel/graph/search.h"

#include "kernel/apps/cmd_whatif.h"
#include "kernel/apps/shell.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal.h"

namespace {

constexpr const char* USAGE =
    "Usage: search <term>\n"
    "       search <t1> AND <t2>\n"
    "       search <t1> OR <t2>\n"
    "       search rebuild\n"
    "       search stats\n";
constexpr int RESULTS_MAX = 64;
constexpr size_t QUERY_SIZE = 128;

void print_stats() {
    constexpr int INDEX_KB = 70;
    const csearch_stats_t stats = csearch_stats();
    kprintf("Search Index:\n");
    kprintf("  Terms indexed:  %d\n", stats.terms);
    kprintf("  Events indexed: %d\n", stats.events);
    kprintf("  Memory usage:   ~%d KB\n", INDEX_KB);
    kprintf("  Last rebuild:   T+%u\n", stats.rebuild_tick);
}

void print_header(const char* text, int count) {
    csearch_query_t query;
    csearch_parse(text, &query);
    if (query.kind == csearch_query_t::ONE)
        kprintf("Search: \"%s\" (%d results):\n", text, count);
    else
        kprintf("Search: \"%s\" %s \"%s\" (%d results):\n", query.left,
                query.kind == csearch_query_t::AND ? "AND" : "OR", query.right, count);
}

void search(const char* text) {
    uint32_t ids[RESULTS_MAX];
    const int count = csearch_query(text, ids, RESULTS_MAX);
    print_header(text, count);
    if (count == 0)
        kprintf("  (no matches)\n");
    causal_event_t ev;
    for (int i = 0; i < count; i++) {
        if (causal_copy(ids[i], &ev))
            kprintf("  #%-5u [%-6s] %-40s T+%u\n", ev.id, causal_type_label_upper(ev.type), ev.desc,
                    ev.time.wall_ticks);
    }
}

}  // namespace

void cmd_search(int argc, char** argv) {
    if (argc < 2) {
        kprint_text(USAGE);
    } else if (argc == 2 && strcmp(argv[1], "rebuild") == 0) {
        csearch_rebuild();
    } else if (argc == 2 && strcmp(argv[1], "stats") == 0) {
        print_stats();
    } else {
        char query[QUERY_SIZE];
        shell_concat_args(query, sizeof query, argc, argv, 1);
        search(query);
    }
}
