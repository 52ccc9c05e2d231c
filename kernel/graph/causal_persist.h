// Event persistence: a snapshot of the newest events in "/causal/journal.bin", so that the graph of
// the next boot does not begin empty. The snapshot's events come back as new events with the old
// times; docs/formats/journal.md has the file's bytes.
//
// Task context. One sleeping mutex above VoFS's lets one flush or restore run at a time. Without a
// volume nothing is written or read. The file is replaced as a whole: a power cut leaves the old
// snapshot or the new one.
#pragma once

#include <stdint.h>

constexpr uint32_t CAUSAL_AUTO_FLUSH_TICKS = 3000;    ///< at least, between two
constexpr uint32_t CAUSAL_AUTO_FLUSH_EVENTS = 12288;  ///< more than these in the ring

/// Start-up, once, after the volume is mounted or found missing: makes "/causal", restores the
/// snapshot and says in one line how it went.
void causal_persist_init();

/// Writes the newest 512 events of the ring. Their number, 0 when the ring is empty, -1 without a
/// volume, without memory or when the write failed. Records CAUSAL_FS "causal" "flushed %d events
/// to disk".
int causal_flush();

/// Emits the snapshot's events anew, as "[R] ..." and with their old times and node. Their number,
/// 0 without a snapshot or with an empty one, -1 without a volume, without memory, or for a file
/// that is damaged, of which then nothing is taken. Raises the Lamport clock to the snapshot's.
/// Records CAUSAL_FS "causal" "restored %d events from disk".
int causal_restore();

/// Flushes when CAUSAL_AUTO_FLUSH_TICKS have passed since the last flush and the ring holds more
/// than CAUSAL_AUTO_FLUSH_EVENTS events, unless next to nothing has happened since. To be called
/// periodically; costs nothing otherwise.
void causal_auto_flush();

/// `cflush`, `crestore`.
void cmd_cflush(int argc, char** argv);
void cmd_crestore(int argc, char** argv);
