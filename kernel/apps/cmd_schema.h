// The `schema` command: the table of payload schemas.
#pragma once

/// `schema [list|show <id|name>]`. Task context.
void cmd_schema(int argc, char** argv);
