// The `crypto` and `random` commands.
#pragma once

/// `crypto [selftest]`: runs the seven self-tests and prints PASS or FAIL for each. Task context.
void cmd_crypto(int argc, char** argv);

/// `random [n]`: prints n words (1..64, 8 without an argument) of the random source. Task context.
void cmd_random(int argc, char** argv);
