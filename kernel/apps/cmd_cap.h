// Commands about capabilities. They run in the task of the shell that dispatched them, and what
// they grant and revoke needs that task's admin capability.
#pragma once

/// `cap [list|show <pid>|grant <pid> <cap>|revoke <pid> <cap>|audit|test <cap>]`: masks and checks.
void cmd_cap(int argc, char** argv);

/// `tempcap list [pid] | grant <pid> <cap> <duration_ticks> | revoke <pid> <token_id> | status`:
/// grants for a time.
void cmd_tempcap(int argc, char** argv);
