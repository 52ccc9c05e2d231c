// The `journal` command: what the journal holds, whether it is whole, and what is done to it.
#pragma once

/// `journal [subcommand ...]`; without one the status.
void cmd_journal(int argc, char** argv);
