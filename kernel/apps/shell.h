// The kernel shell: the command table and its dispatcher, the interactive loop with line editor and
// history, the help screen, and the task that ends start-up. Remote sessions run the same loop in
// tasks of their own.
//
// History and current directories belong to all shells together; they change with interrupts
// masked, a bounded step at a time. Everything here runs in task context, in the task whose
// terminal it speaks to.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr int SHELL_ARGS_MAX = 16;
constexpr size_t SHELL_LINE_BYTES = 256;  ///< of a command line, with the terminator
constexpr size_t SHELL_PATH_BYTES = 256;

using command_fn = void (*)(int argc, char** argv);

/// A built-in command. `argv[0]` is its name; `func` checks its own arguments.
struct command_t {
    const char* name;
    command_fn func;
};

/// The built-in commands in the order in which names are looked up; a null name ends them.
extern const command_t commands[];

/// The current directory in the RAM filesystem and on the persistent one, terminated.
extern char shell_cwd[SHELL_PATH_BYTES];
extern char disk_cwd[SHELL_PATH_BYTES];

/// The actor "shell" of the first shell that ran; -1 before.
extern int shell_actor_id;

/// Forgets history and directories.
void shell_init(void);

/// The shell's start-up: checklist, banner, then shell_run. Task entry.
void shell_task(void);

/// Registers the actor "shell" and makes the shells' timeline where they are not there yet, then
/// reads lines from the task's terminal and runs them; never returns.
[[noreturn]] void shell_run(void);

/// The next key of the task's terminal, as keyboard_getchar gives it; waits for one.
uint8_t shell_getchar(void);

/// The key that waits at the task's terminal; -1 when none does.
int shell_poll_key(void);

/// Shows `prompt` and edits one line to its end; `line` holds SHELL_LINE_BYTES. The history is at
/// hand and stays as it is.
void shell_read_line(const char* prompt, char* line);

/// Prints `cmdline` (cut at 255 characters) and runs it. An unknown name gets its line and a
/// suggestion.
void shell_exec(const char* cmdline);

/// shell_exec where nobody answers: commands that would wait for keys do not. One task at a time.
void shell_exec_unattended(const char* cmdline);

/// Whether somebody sees what the running task shows and can answer it.
bool shell_is_attended(void);

/// Splits `line` in place at runs of spaces; a token that begins with a double quote runs to the
/// next one or the end. Stores at most SHELL_ARGS_MAX arguments and ignores the rest. Returns their
/// number.
int parse_args(char* line, char** argv);

/// Runs the command that `argv[0]` names exactly; 1 if there is one, else 0. Records CAUSAL_SHELL
/// "shell" "cmd: %s" first, which is the current event while the command runs; the commands that
/// read the graph record nothing.
int dispatch(int argc, char** argv);

/// Prints "  Did you mean: %s?" with the first command name within the smallest edit distance below
/// 3, if there is one; names above 20 characters are near to nothing.
void suggest_command(const char* name);

/// The absolute path of `name` in the RAM filesystem, relative to shell_cwd, cut to size - 1
/// characters; `size` is at least 1. "." and ".." stay as they are.
void shell_make_path(const char* name, char* out, size_t size);

/// Joins argv[start..argc-1] with single spaces, cut to size - 1 characters; `size` is at least 1.
/// Returns the length.
int shell_concat_args(char* out, size_t size, int argc, char** argv, int start);

/// Writes to the task's session if it has one, else to the console. Not logged.
void shell_write(const char* bytes, size_t len);
void shell_puts(const char* text);

/// Draws prompt and line anew and leaves the terminal's cursor behind the first `cursor`
/// characters.
void line_redraw(const char* line, int length, int cursor, const char* prompt);

/// `help`: the help screen.
void cmd_help(int argc, char** argv);

/// `exit`, `logout`: ends a remote session's task.
void cmd_exit(int argc, char** argv);
