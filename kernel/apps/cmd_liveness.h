// The command about components and their heartbeats.
#pragma once

/// `liveness <list|register <name> <N>|check <name>|proofs>`: shows the components, registers one
/// for which nothing beats yet, or makes a proof token for each.
void cmd_liveness(int argc, char** argv);
