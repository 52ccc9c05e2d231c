// The commands that ask the graph: what if an event had not been, who is to blame for one, where a
// word or a sequence occurs. All run in the task of the shell that dispatched them.
#pragma once

/// `whatif <event_id>`, `whatif drop|summary|fix|branch|remove|inject|analyze|impact|compare|list|
/// destroy ...`, its self-tests (whatif.h).
void cmd_whatif(int argc, char** argv);

/// `blame <event_id|last>`: the suspects for a fault, the most blamed first.
void cmd_blame(int argc, char** argv);

/// `search <term>`, `search <t1> AND|OR <t2>`, `search rebuild`, `search stats` (search.h).
void cmd_search(int argc, char** argv);

/// `pattern match|count|watch <pattern>`, `pattern watchers` (epattern.h). `match` records
/// CAUSAL_USER "epattern" "pattern match '%s': %d results".
void cmd_pattern(int argc, char** argv);
