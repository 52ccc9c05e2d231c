// `cdb`: moving through the causal graph as a debugger moves through a program.
//
// One state for all shells, guarded by a sleeping mutex: a cursor, and a breakpoint on a type, on a
// text, or on both. It only reads the store. Task context.
#pragma once

/// `cdb <command>`: see its help.
void cmd_cdb(int argc, char** argv);
