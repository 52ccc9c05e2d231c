// Commands about timelines. All run in the task of the shell that dispatched them.
#pragma once

/// `timeline`, `tl`: without arguments lists the timelines. Its subcommands show, change, save and
/// load one; see its usage line.
void cmd_timeline(int argc, char** argv);

/// `rewind [TICK|now [TIMELINE]]`: moves the cursors of all timelines, or of one, back to a tick or
/// up to their heads; without arguments shows where they are.
void cmd_rewind(int argc, char** argv);

/// `proc [PID]`: the tasks with what their timelines hold, or one task's history.
void cmd_proc(int argc, char** argv);
