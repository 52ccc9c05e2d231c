// `whatif`: the forms of the command.
#include "kernel/graph/whatif.h"

#include "kernel/apps/cmd_whatif.h"
#include "kernel/apps/shell.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

constexpr const char* USAGE =
    "Usage: whatif <subcommand> [args...]\n"
    "  whatif <event_id>                        — impact of dropping an event\n"
    "  whatif drop <event_id>                   — the same\n"
    "  whatif summary <event_id>                — the same in one line\n"
    "  whatif fix <fault_event_id>              — drop the suspected cause of a fault\n"
    "  whatif branch <event_id> [description]   — copy an event and its effects\n"
    "  whatif remove <branch> <event_id>        — mark an event removed\n"
    "  whatif inject <branch> <type> <desc...>  — add a hypothetical event\n"
    "  whatif analyze <branch>                  — what would not have happened\n"
    "  whatif impact <branch>                   — the same with its impact\n"
    "  whatif compare <branch>                  — all events of a branch\n"
    "  whatif list                              — the branches\n"
    "  whatif destroy <branch>                  — free a branch\n"
    "  whatif selftest | opstest                — self-tests\n"
    "  whatif demos                             — all demonstrations: actordemo, fsdemo,\n"
    "                                             delaydemo, capdemo, netdemo, remotedemo\n"
    "  whatif live                              — all live tests: sleeptest, fstest,\n"
    "                                             captest, nettest\n";

uint32_t event_arg(const char* arg) { return static_cast<uint32_t>(atoi(arg)); }

void do_drop(int, char** args) { whatif_drop(event_arg(args[0])); }
void do_summary(int, char** args) { whatif_summary(event_arg(args[0])); }
void do_fix(int, char** args) { whatif_fix(event_arg(args[0])); }

void do_branch(int count, char** args) {
    whatif_branch(event_arg(args[0]), count > 1 ? args[1] : nullptr);
}

void do_remove(int, char** args) { whatif_remove(atoi(args[0]), event_arg(args[1])); }

void do_inject(int count, char** args) {
    char desc[CAUSAL_DESC_SIZE];
    shell_concat_args(desc, sizeof desc, count, args, 2);
    whatif_inject(atoi(args[0]), event_arg(args[1]), "user", desc);
}

void do_analyze(int, char** args) { whatif_analyze(atoi(args[0])); }

void do_impact(int, char** args) {
    const auto impact = heap_ptr<whatif_impact_t>::make();
    if (impact)
        whatif_analyze_impact(atoi(args[0]), impact.get());
    else
        kprintf("whatif impact: out of memory\n");
}

void do_compare(int, char** args) { whatif_compare(atoi(args[0])); }
void do_list(int, char**) { whatif_list(); }
void do_destroy(int, char** args) { whatif_destroy(atoi(args[0])); }
void do_selftest(int, char**) { whatif_selftest(); }
void do_opstest(int, char**) { whatif_opstest(); }

/// A form with its arguments behind the word.
struct form_t {
    const char* word;
    int needs;
    const char* usage;
    void (*act)(int count, char** args);
};

constexpr form_t FORMS[] = {
    {"drop", 1, "Usage: whatif drop <event_id>\n", do_drop},
    {"summary", 1, "Usage: whatif summary <event_id>\n", do_summary},
    {"fix", 1, "Usage: whatif fix <fault_event_id>\n", do_fix},
    {"branch", 1, "Usage: whatif branch <event_id> [description]\n", do_branch},
    {"remove", 2, "Usage: whatif remove <branch> <event_id>\n", do_remove},
    {"inject", 3, "Usage: whatif inject <branch> <type> <desc...>\n", do_inject},
    {"analyze", 1, "Usage: whatif analyze <branch>\n", do_analyze},
    {"impact", 1, "Usage: whatif impact <branch>\n", do_impact},
    {"compare", 1, "Usage: whatif compare <branch>\n", do_compare},
    {"list", 0, "", do_list},
    {"destroy", 1, "Usage: whatif destroy <branch>\n", do_destroy},
    {"selftest", 0, "", do_selftest},
    {"opstest", 0, "", do_opstest},
};

}  // namespace

void cmd_whatif(int argc, char** argv) {
    if (argc < 2) {
        kprint_text(USAGE);
        return;
    }
    const char* word = argv[1];
    if (word[0] >= '0' && word[0] <= '9') {
        whatif_drop(event_arg(word));
        return;
    }
    for (const form_t& form : FORMS) {
        if (strcmp(form.word, word) != 0)
            continue;
        if (argc - 2 < form.needs)
            kprintf("%s", form.usage);
        else
            form.act(argc - 2, argv + 2);
        return;
    }
    if (!whatif_demo(word) && !whatif_live(word))
        kprintf("whatif: unknown subcommand '%s'\n", word);
}
