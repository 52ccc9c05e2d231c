// What the files of the journal share. Private to kernel/graph/cjournal/ and the `journal` command.
//
//   format, records, merkle   the codec
//   read      segments and companions back      segment   writing one with its companions
//   start     start-up, numbering, hooks        index     entries, saving, loading, rebuilding
//   recover   what a power cut left behind      retain    eviction
//   spill     the regular spill and its task    import    the older snapshot
//   sign      the node's key                    lookup    archived events by number and parent
//
// Every function here expects the journal's mutex held unless it excludes it; what the public
// header declares takes it itself. Under it no one asks the store for events beyond the ring.
#pragma once

#include "kernel/core/heap_ptr.h"
#include "kernel/core/mutex.h"
#include "kernel/graph/cjournal.h"

inline mutex_t cjournal_lock;  ///< the one lock of the journal

/// Events that are not on disk and never will be, and the event that says so; all 0: none. It must
/// be on disk before what shows the gap.
struct cjournal_account_t {
    uint32_t first, last;
    uint32_t event;
};

/// What is not part of the public state.
struct cjournal_writer_t {
    uint32_t retention_max_segments;  ///< 1 to 32
    uint32_t retention_max_kb;        ///< 0: unlimited
    bool index_file_valid;            ///< the index file says what memory says
    const char* index_source;         ///< "none", "loaded", "rebuilt" or "live"
    uint8_t node_sign_sk[64];
    uint8_t node_sign_pk[32];
    bool node_sign_ready;
    uint32_t tail_segment;       ///< segment that this boot wrote last; 0: none
    uint32_t tail_checksum;      ///< its checksum
    uint32_t lost_through;       ///< last event that was lost before it was spilled; 0: none
    cjournal_account_t account;  ///< not on disk yet
    uint32_t last_spill_tick;    ///< when the spill last wrote something; 0: never
};

extern cjournal_state_t cjournal GUARDED_BY(cjournal_lock);
extern cjournal_writer_t cjournal_writer GUARDED_BY(cjournal_lock);

/// A segment's records in the current form, on the heap.
using cjournal_records_t = heap_ptr<cjournal_event_t>;

/// Initialised, with a disk.
[[nodiscard]] inline bool cjournal_running_locked() REQUIRES(cjournal_lock) {
    return cjournal.initialized && cjournal.disk_available;
}

/// The active entry of a segment, or null.
[[nodiscard]] cjournal_entry_t* cjournal_find_entry_locked(uint32_t segment)
    REQUIRES(cjournal_lock);

/// Takes an entry out of the index; events_spilled follows.
void cjournal_remove_entry_locked(cjournal_entry_t* entry) REQUIRES(cjournal_lock);

// --- read ----------------------------------------------------------------------------------------

/// blockfs_read_file, up to 8 times until it gives exactly `len` bytes; the last result.
int cjournal_read_exact_retry(int inum, void* buf, uint32_t offset, uint32_t len);

/// The size of a regular file, or -1.
[[nodiscard]] int64_t cjournal_file_size(const char* path);

/// Reads a file of exactly `len` bytes, or its first `len` when `longer` is allowed; 1, 0 when it
/// is missing, -1 when it has another size or cannot be read.
[[nodiscard]] int cjournal_read_file(const char* path, void* buf, uint32_t len,
                                     bool longer = false);

/// A segment's header, with its magic and version checked; 0 or -1.
[[nodiscard]] int read_segment_header_locked(uint32_t segment, cjournal_header_t* header)
    REQUIRES(cjournal_lock);

/// A segment as it is on disk: what its header says, its layout, its file.
struct cjournal_segment_file_t {
    int inode;
    uint32_t size;
    cjournal_header_t header;
    cjournal_layout_t layout;
};

/// Reads the header and recognises the layout; 0 or -1.
[[nodiscard]] int cjournal_open_segment_locked(uint32_t segment, cjournal_segment_file_t* file)
    REQUIRES(cjournal_lock);

/// Up to `max` records of a segment in the current form; their number or -1.
[[nodiscard]] int read_segment_events_locked(uint32_t segment, cjournal_event_t* out, int max)
    REQUIRES(cjournal_lock);

/// The record at `position` of an opened segment, in the current form; 0 or -1.
[[nodiscard]] int read_segment_event_locked(const cjournal_segment_file_t& file, uint32_t position,
                                            cjournal_event_t* out) REQUIRES(cjournal_lock);

/// The checksum over a segment's header and records as stored; false when it cannot be read.
/// Takes a heap block of the segment's size.
[[nodiscard]] bool cjournal_segment_checksum_locked(uint32_t segment, uint32_t* checksum)
    REQUIRES(cjournal_lock);

/// The same with a buffer of the caller's, of any size: it needs no memory.
[[nodiscard]] bool cjournal_checksum_by_pieces_locked(uint32_t segment, std::span<uint8_t> piece,
                                                      uint32_t* checksum) REQUIRES(cjournal_lock);

/// The footer's flags: those of a current segment with a valid footer, else 0.
[[nodiscard]] uint32_t cjournal_segment_flags_locked(const cjournal_segment_file_t& file,
                                                     uint32_t segment) REQUIRES(cjournal_lock);

/// Fills hash_version, hash_first_prefix and hash_first_valid from the sidecar.
void cjournal_sidecar_summary_locked(cjournal_entry_t* entry) REQUIRES(cjournal_lock);

/// Fills root_hash_version, root_prefix and root_valid from the root file.
void cjournal_root_summary_locked(cjournal_entry_t* entry) REQUIRES(cjournal_lock);

// --- verify (reading side) -----------------------------------------------------------------------

/// Checks the root against the records: 1 verified, 0 missing, -1 bad.
[[nodiscard]] int verify_segment_epoch_root_locked(uint32_t segment,
                                                   const cjournal_header_t& header,
                                                   std::span<const cjournal_event_t> records,
                                                   cjournal_hash_t* out_root)
    REQUIRES(cjournal_lock);

/// The root of a segment whose root file matches its records: 0, else -1.
[[nodiscard]] int segment_verified_root_locked(uint32_t segment, cjournal_hash_t* out_root)
    REQUIRES(cjournal_lock);

// --- segment -------------------------------------------------------------------------------------

/// The buffer that a segment and its companions are made in; on the heap.
struct cjournal_draft_t {
    uint8_t segment[CJOURNAL_SEGMENT_BYTES_MAX];
    uint8_t sidecar[cjournal_sidecar_bytes(CJOURNAL_SEGMENT_EVENTS)];
    uint32_t count;                                 ///< records so far
    cjournal_hash_t first_hash;                     ///< of the first record, once written
    cjournal_root_header_t root;                    ///< once written
    cjournal_hash_t tree[CJOURNAL_SEGMENT_EVENTS];  ///< Merkle tree's working space

    cjournal_event_t* records() {
        return reinterpret_cast<cjournal_event_t*>(segment + CJOURNAL_HEADER_SIZE);
    }
    cjournal_header_t* header() { return reinterpret_cast<cjournal_header_t*>(segment); }
    /// The working space, for reading by pieces while there is no tree.
    std::span<uint8_t> piece() { return {reinterpret_cast<uint8_t*>(tree), sizeof tree}; }
};

/// Makes the journal's directory where there is none.
void cjournal_make_directory();

/// Writes the draft's records as segment `segment`: companions first, the segment file last, each
/// as one step. 0; -1 when a write failed, with nothing of the segment left.
[[nodiscard]] int write_segment_locked(uint32_t segment, cjournal_draft_t* draft, uint32_t flags)
    REQUIRES(cjournal_lock);

/// Makes sidecar and root of the segment in the draft, whose header is filled in.
void cjournal_make_companions(uint32_t segment, cjournal_draft_t* draft);

/// Makes and writes them: 0, or -1.
[[nodiscard]] int cjournal_write_companions_locked(uint32_t segment, cjournal_draft_t* draft)
    REQUIRES(cjournal_lock);

/// The segment's file is in the directory.
[[nodiscard]] bool cjournal_segment_exists(uint32_t segment);

/// Removes segment file, sidecar and root, in this order, as far as that succeeds; false when one
/// of them is still there.
bool cjournal_remove_segment_locked(uint32_t segment) REQUIRES(cjournal_lock);
bool cjournal_remove_companions_locked(uint32_t segment) REQUIRES(cjournal_lock);

// --- index and retention -------------------------------------------------------------------------

/// Writes the index file; 0, or -1 (index_file_valid then is false).
int save_index_file_locked() REQUIRES(cjournal_lock);

/// Adds the entry of the draft's segment, just written, for which there must be room.
/// events_spilled and segments_written follow; last_spilled_id is the regular spill's business.
void index_add_segment_locked(uint32_t segment, cjournal_draft_t* draft, uint32_t flags)
    REQUIRES(cjournal_lock);

/// Reads the index file: false unless it is a valid one. Takes a heap block for the entries.
[[nodiscard]] bool cjournal_read_index_locked(cjournal_index_header_t* header,
                                              heap_ptr<cjournal_index_entry_t>* entries)
    REQUIRES(cjournal_lock);

/// Takes the index file over: false, with the index empty or half filled, when it is not valid or a
/// segment says something else.
[[nodiscard]] bool cjournal_load_index_locked() REQUIRES(cjournal_lock);

/// An entry as it is saved.
[[nodiscard]] cjournal_index_entry_t cjournal_saved_entry(const cjournal_entry_t& entry);

/// cjournal_rebuild_index. -1 also, with the index as it was, when the segments cannot be listed or
/// there is no memory to read them.
int rebuild_index_locked() REQUIRES(cjournal_lock);

/// Records of the indexed segments, and the bytes that the byte limit counts for them.
[[nodiscard]] uint32_t cjournal_indexed_events_locked() REQUIRES(cjournal_lock);
[[nodiscard]] uint32_t cjournal_indexed_kb_locked() REQUIRES(cjournal_lock);

/// Sets both limits, applies them and saves the index: 0, or -1 when that failed. Takes the mutex.
int cjournal_set_retention(uint32_t max_segments, uint32_t max_kb) EXCLUDES(cjournal_lock);

/// Evicts the oldest segments until the byte limit holds and at most `stay` are left; false when
/// one of them could not be removed.
bool apply_retention_limit_locked(uint32_t stay) REQUIRES(cjournal_lock);

/// Evicts the segment with the smallest first identifier; false, with its entry in place, when its
/// file could not be removed. Records "evict %u %s" with its number and root (79 characters), and
/// both in the payload, before anything is removed. An imported segment between others goes only
/// when that event is on disk, alone in a segment that takes its place in the index.
bool delete_oldest_segment_locked() REQUIRES(cjournal_lock);

// --- recover -------------------------------------------------------------------------------------

/// What the directory has of one segment.
struct cjournal_listed_t {
    uint32_t segment;
    uint32_t files;  ///< bit f: cjournal_file_t f

    bool has(cjournal_file_t file) const { return (files >> static_cast<uint32_t>(file) & 1) != 0; }
};

/// The segments' files, by rising number; on the heap.
struct cjournal_listing_t {
    heap_ptr<cjournal_listed_t> items;
    uint32_t count = 0;

    const cjournal_listed_t& at(uint32_t i) const { return items[i]; }
};

/// Reads the directory, however long; without one the list is empty. Names of another form are
/// ignored. False, with an empty list, without memory, or when the volume cannot be read.
[[nodiscard]] bool cjournal_list_locked(cjournal_listing_t* listing) REQUIRES(cjournal_lock);

/// Clears away what was left half done; true when a segment is there that the index does not name.
[[nodiscard]] bool cjournal_recover_locked() REQUIRES(cjournal_lock);

/// The highest identifier that a segment or the snapshot on the volume holds; 0 without one. Where
/// a segment itself does not tell, its entry in the index file does.
[[nodiscard]] uint32_t cjournal_highest_archived_locked() REQUIRES(cjournal_lock);

// --- spill and sign ------------------------------------------------------------------------------

/// The last event that is not the spill's business any more.
[[nodiscard]] uint32_t cjournal_cursor_locked() REQUIRES(cjournal_lock);

/// Records that events `first` to `last` were lost: "lost %u..%u". The spill sees to it that this
/// is on disk before a gap shows.
void cjournal_record_lost_locked(uint32_t first, uint32_t last) REQUIRES(cjournal_lock);

/// cjournal_spill.
int cjournal_spill_locked(uint32_t count) REQUIRES(cjournal_lock);

/// Emission's note that many events wait. Any context.
void cjournal_wake();

/// Copies event `id` out of the ring as a record; false when it is not there.
[[nodiscard]] bool cjournal_ring_record(uint32_t id, cjournal_event_t* out);

/// Makes the node's signing key ready, creating it when there is none; 0, or -1 when a new one
/// could not be stored.
[[nodiscard]] int ensure_node_signing_key_locked() REQUIRES(cjournal_lock);

/// Signs `len` bytes with the node's key: 0, or -1. Takes the mutex.
[[nodiscard]] int cjournal_sign_message(uint8_t signature[64], const void* message, uint32_t len)
    EXCLUDES(cjournal_lock);

/// Reads a segment's signature: false unless the file has exactly 64 bytes.
[[nodiscard]] bool cjournal_read_signature_locked(uint32_t segment, uint8_t signature[64])
    REQUIRES(cjournal_lock);
