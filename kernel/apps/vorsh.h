// vorsh, the scripting language: one statement a line.
//
//   # words after a "#" at a word's start are a comment
//   set NAME [WORD...]            the words, joined with single spaces
//   expr NAME A [OP B]...         whole numbers of 32 bits; * / % before + -
//   echo [WORD...]
//   while A OP B ... end          OP: == != < <= > >=; == and != compare texts as well
//   if A OP B ... [else ...] end  a single word is true unless it is empty or 0
//   anything else                 a shell command with its arguments
//
// $NAME or ${NAME} stands for a variable's value, $$ for a dollar sign; a value is one word or part
// of one, whatever it holds. $0 is the script, $1, $2 ... are its arguments. Words are parted by
// spaces and tabs; double quotes keep them together.
//
// The first error ends a script with one line that names the script and its line. A run ends after
// VORSH_STEPS_MAX statements, those of the scripts that it runs itself counted in; scripts run each
// other VORSH_DEPTH_MAX deep. Task context; each run has variables of its own, so several tasks may
// run scripts at once. Working memory comes from the heap.
#pragma once

#include <stdint.h>

constexpr uint32_t VORSH_STEPS_MAX = 100000;
constexpr int VORSH_DEPTH_MAX = 4;
constexpr uint32_t VORSH_SCRIPT_BYTES_MAX = 16384;

/// Runs the statements of `text`; 0, or -1 after the error's line.
int vorsh_exec(const char* text);

/// Runs the script at the absolute path `path`, of the RAM filesystem or else of VoFS; 0, or -1
/// after the error's line.
int vorsh_exec_file(const char* path);

/// `run FILE [ARG...]`: runs a script.
void cmd_run(int argc, char** argv);

/// `vorsh FILE [ARG...]`, `vorsh -c TEXT...` (";" parts statements), `vorsh` (reads statements
/// until "exit"; an error ends the statement only).
void cmd_vorsh(int argc, char** argv);
