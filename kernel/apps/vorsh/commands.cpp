// Scripts out of files, texts and the terminal.
#include <algorithm>

#include "kernel/apps/shell.h"
#include "kernel/apps/vorsh.h"
#include "kernel/apps/vorsh/script.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/fs/overlay.h"

namespace {

constexpr const char* PROMPT = "vorsh> ";
constexpr const char* PROMPT_INSIDE = "  ...> ";  // a block is open

/// The scripts that a task runs inside each other. Each task uses only the entry of its own slot.
struct runs_t {
    pid_t pid;  ///< whose figures these are: a slot is used again
    int depth;
    uint32_t steps_left;
};
runs_t runs_by_slot[TASK_MAX];

/// One more script inside those that the task runs; `steps_left` is null when they are too many.
class run_scope {
public:
    run_scope() {
        const task_t* task = task_current();
        runs_ = &runs_by_slot[task == nullptr ? 0 : task - task_get_list()];
        if (runs_->depth == 0 || runs_->pid != task_getpid())
            *runs_ = {task_getpid(), 0, VORSH_STEPS_MAX};
        if (++runs_->depth <= VORSH_DEPTH_MAX)
            steps_left = &runs_->steps_left;
        else
            kprintf("vorsh: scripts run each other more than %d deep\n", VORSH_DEPTH_MAX);
    }
    ~run_scope() { --runs_->depth; }
    run_scope(const run_scope&) = delete;
    run_scope& operator=(const run_scope&) = delete;

    uint32_t* steps_left = nullptr;

private:
    runs_t* runs_;
};

void print_line(const char* line) {
    kprint_text(line);
    kprintf("\n");
}

bool run_command(int argc, char** argv) { return dispatch(argc, argv) != 0; }

constexpr vorsh_hooks_t HOOKS = {print_line, run_command, SHELL_ARGS_MAX};

/// `name`: the script's, or null.
int report(const vorsh_script_t* script, const char* name) {
    kprintf("vorsh: %s%sline %u: %s\n", name == nullptr ? "" : name, name == nullptr ? "" : ": ",
            script->error_line, script->error);
    return -1;
}

int report_memory() {
    kprintf("vorsh: %s\n", overlay_error_text(OVERLAY_NO_MEMORY));
    return -1;
}

/// $0, $1 and so on.
bool set_arguments(vorsh_script_t* script, int argc, char** argv) {
    for (int i = 0; i < argc; ++i) {
        char name[VORSH_NAME_SIZE];
        ksnprintf(name, sizeof name, "%d", i);
        if (!vorsh_set(script, name, argv[i]))
            return false;
    }
    return true;
}

int execute(const char* name, const char* text, size_t length, int argc, char** argv) {
    const run_scope run;
    if (run.steps_left == nullptr)
        return -1;
    const auto script = heap_ptr<vorsh_script_t>::make();
    if (!script)
        return report_memory();
    vorsh_start(script.get(), &HOOKS, run.steps_left);
    const bool good = set_arguments(script.get(), argc, argv) &&
                      vorsh_load(script.get(), text, length) == vorsh_result_t::good &&
                      vorsh_run(script.get()) == vorsh_result_t::good;
    return good ? 0 : report(script.get(), name);
}

int report_file(const char* path, int error) {
    kprintf("vorsh: %s: %s\n", path, overlay_error_text(error));
    return -1;
}

int execute_file(const char* path, int argc, char** argv) {
    overlay_file_t file;
    if (const int error = overlay_open(path, &file); error != 0)
        return report_file(path, error);
    if (file.size > VORSH_SCRIPT_BYTES_MAX) {
        kprintf("vorsh: %s: larger than %u bytes\n", path, VORSH_SCRIPT_BYTES_MAX);
        return -1;
    }
    const auto text = heap_ptr<char>::make(file.size);
    if (!text)
        return report_memory();
    const int length = overlay_read(&file, text.get(), 0, file.size);
    if (length < 0)
        return report_file(path, length);
    return execute(path, text.get(), static_cast<size_t>(length), argc, argv);
}

/// `run` and `vorsh` with a file: argv[1] is the script, what follows its arguments.
void run_named(int argc, char** argv) {
    char path[PATH_BYTES];
    shell_make_path(argv[1], path, sizeof path);
    // A text that fills the buffer may have been cut.
    if (strlen(path) == sizeof path - 1) {
        (void)report_file(argv[1], OVERLAY_TOO_LONG);
        return;
    }
    path_normalize(path);
    (void)execute_file(path, argc - 1, argv + 1);
}

void run_inline(int argc, char** argv) {
    char text[SHELL_LINE_BYTES];
    if (argc == SHELL_ARGS_MAX) {
        kprintf("vorsh: -c takes many words in quotes only\n");
        return;
    }
    const int length = shell_concat_args(text, sizeof text, argc, argv, 2);
    std::replace(text, text + length, ';', '\n');
    (void)vorsh_exec(text);
}

/// What the terminal has given so far of a statement, or of a block up to its end.
struct session_t {
    vorsh_script_t script;
    size_t length;
    char text[VORSH_SCRIPT_BYTES_MAX];
};

/// Adds a line; false when it does not fit.
bool add_line(session_t* session, const char* line) {
    const size_t length = strlen(line);
    if (session->length + length + 1 > sizeof session->text)
        return false;
    memcpy(session->text + session->length, line, length);
    session->length += length;
    session->text[session->length++] = '\n';
    return true;
}

void run_session(session_t* session) {
    char line[SHELL_LINE_BYTES];
    for (;;) {
        shell_read_line(session->length == 0 ? PROMPT : PROMPT_INSIDE, line);
        if (strcmp(line, "exit") == 0)
            return;
        if (!add_line(session, line)) {
            kprintf("vorsh: the block is too long\n");
            session->length = 0;
            continue;
        }
        vorsh_result_t result = vorsh_load(&session->script, session->text, session->length);
        if (result == vorsh_result_t::unfinished)
            continue;
        *session->script.steps_left = VORSH_STEPS_MAX;
        if (result == vorsh_result_t::good)
            result = vorsh_run(&session->script);
        if (result != vorsh_result_t::good)
            (void)report(&session->script, nullptr);
        else if (session->script.exited)
            return;
        session->length = 0;
    }
}

void run_interactive() {
    const run_scope run;
    if (run.steps_left == nullptr)
        return;
    const auto session = heap_ptr<session_t>::make();
    if (!session) {
        (void)report_memory();
        return;
    }
    kprintf("vorsh: statements, one a line; \"exit\" ends\n");
    vorsh_start(&session->script, &HOOKS, run.steps_left);
    session->length = 0;
    run_session(session.get());
}

}  // namespace

int vorsh_exec(const char* text) { return execute(nullptr, text, strlen(text), 0, nullptr); }

int vorsh_exec_file(const char* path) {
    char normal[PATH_BYTES];
    string_copy(normal, path, sizeof normal);
    char* argv[] = {normal};
    return execute_file(normal, 1, argv);
}

void cmd_run(int argc, char** argv) {
    if (argc < 2)
        kprintf("Usage: run <file> [argument...]\n");
    else
        run_named(argc, argv);
}

void cmd_vorsh(int argc, char** argv) {
    if (argc == 1 && shell_is_attended())
        run_interactive();
    else if (argc > 2 && strcmp(argv[1], "-c") == 0)
        run_inline(argc, argv);
    else if (argc > 1 && argv[1][0] != '-')
        run_named(argc, argv);
    else
        kprintf("Usage: vorsh [<file> [argument...] | -c \"statement; ...\"]\n");
}
