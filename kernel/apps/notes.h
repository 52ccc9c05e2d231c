// Notes, kept on the timeline "note": adding and removing are events of it, and the list is what
// they add up to. At most NOTES_MAX; a full list takes no more.
//
// The list changes under a sleeping mutex. Task context.
#pragma once

#include <stdint.h>

constexpr int NOTES_MAX = 64;
constexpr uint32_t NOTE_TEXT_SIZE = 256;  ///< with the terminator

/// Empties the list and creates the timeline. Start-up, once.
void notes_init();

/// Adds a note; its number, or -1 when the list is full or nothing could be recorded. A longer text
/// is cut.
int notes_add(const char* text);

/// `note`: see its usage line.
void cmd_note(int argc, char** argv);
