// The subcommands of `journal`, between its dispatcher and the files that carry them out. argv[0]
// is the subcommand's word, argc counts it; each prints its own lines and checks its arguments.
#pragma once

/// A subcommand.
using journal_subcommand_fn = void (*)(int argc, char** argv);

// The writing side (writer.cpp).
void journal_spill(int argc, char** argv);          ///< spill [n]
void journal_spill_through(int argc, char** argv);  ///< spill-through <id|last>
void journal_import_legacy(int argc, char** argv);  ///< import-legacy
void journal_rebuild(int argc, char** argv);        ///< rebuild
void journal_retention(int argc, char** argv);      ///< retention [set ...|reset]
void journal_pubkey(int argc, char** argv);         ///< pubkey
void journal_sign(int argc, char** argv);           ///< sign <n>
void journal_sign_all(int argc, char** argv);       ///< sign-all
void journal_sign_test(int argc, char** argv);      ///< sign-test
