// Saving a timeline. Each file is replaced in one step, chunks first and the header last: until the
// header changes over, the old one still finds all its events, because a history that has only
// grown begins with the same chunks.
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/cjournal/format.h"
#include "kernel/graph/timeline/format.h"
#include "kernel/graph/timeline/internal.h"

namespace {

constexpr uint32_t STALE_CHUNKS_REMOVED = 4;
constexpr int NAMES_BYTES = 16641;  // every listing of a volume of 256 inodes
/// Files of a full journal: segments with their companions, index, key, snapshots.
constexpr uint32_t JOURNAL_FILES = CJOURNAL_SEGMENTS_MAX * 4 + 4;
constexpr uint32_t INODES_LEFT = 8;  ///< to others

bool exists(const char* path) { return blockfs_resolve(path) >= 0; }

/// Makes the directories of the saved files; a name with "/" has more than one.
bool make_directories(const char* name) {
    char path[TIMELINE_PATH_SIZE];
    ksnprintf(path, sizeof path, "%s/%s", TIMELINE_DIRECTORY, name);
    *strrchr(path, '/') = '\0';
    return blockfs_mkdir_p(path) == 0;
}

/// Inodes that the journal may still need: no history is worth more than the record of all.
uint32_t journal_inodes() {
    const auto names = heap_ptr<char>::make(NAMES_BYTES);
    const int files = names ? blockfs_list(CJOURNAL_DIR, names.get(), NAMES_BYTES) : 0;
    const auto known = static_cast<uint32_t>(files > 0 ? files : 0);
    return known < JOURNAL_FILES ? JOURNAL_FILES - known : 0;
}

/// Whether the volume has inodes for the files that are not there yet.
bool has_inodes(const char* name, uint32_t chunks) {
    char path[TIMELINE_PATH_SIZE];
    uint32_t missing = 0;
    for (uint32_t i = chunks; i-- > 0;) {
        timeline_chunk_path(name, i, path);
        if (exists(path))
            break;
        ++missing;
    }
    uint32_t free_inodes = 0;
    if (blockfs_df(nullptr, nullptr, nullptr, nullptr, nullptr, &free_inodes) != 0)
        return false;
    return missing == 0 || missing + 1 + INODES_LEFT + journal_inodes() <= free_inodes;
}

/// Writes the events of `ids`; one that is nowhere any more leaves zeros.
bool save_chunk(const char* path, std::span<const uint32_t> ids, causal_event_t* records) {
    for (size_t i = 0; i < ids.size(); ++i) {
        if (!causal_copy(ids[i], &records[i]))
            memset(&records[i], 0, sizeof records[i]);
    }
    const auto len = static_cast<uint32_t>(ids.size()) * TIMELINE_RECORD_SIZE;
    return blockfs_replace_file(path, records, len) == 0;
}

bool save_chunks(const timeline_chain_t& chain) {
    const auto records = heap_ptr<causal_event_t>::make(TIMELINE_CHUNK_EVENTS);
    if (!records)
        return false;
    char path[TIMELINE_PATH_SIZE];
    std::span<const uint32_t> left(chain.ids.get(), static_cast<size_t>(chain.count));
    for (uint32_t chunk = 0; !left.empty(); ++chunk) {
        const size_t n = left.size() < TIMELINE_CHUNK_EVENTS ? left.size() : TIMELINE_CHUNK_EVENTS;
        timeline_chunk_path(chain.tl.name, chunk, path);
        if (!save_chunk(path, left.first(n), records.get()))
            return false;
        left = left.subspan(n);
    }
    return true;
}

/// Removes what an earlier, longer save left behind.
void remove_stale_chunks(const char* name, uint32_t chunks) {
    char path[TIMELINE_PATH_SIZE];
    for (uint32_t i = 0; i < STALE_CHUNKS_REMOVED; ++i) {
        timeline_chunk_path(name, chunks + i, path);
        if (!exists(path))
            return;
        blockfs_remove(path);
    }
}

int persist_locked(int tl_id) REQUIRES(timeline_lock) {
    timeline_chain_t chain;
    if (!timeline_collect(tl_id, &chain) || !make_directories(chain.tl.name))
        return -1;
    const auto header = timeline_make_header(chain.tl, static_cast<uint32_t>(chain.count));
    if (!has_inodes(chain.tl.name, header.chunk_count) || !save_chunks(chain))
        return -1;
    char path[TIMELINE_PATH_SIZE];
    timeline_header_path(chain.tl.name, path);
    if (blockfs_replace_file(path, &header, sizeof header) != 0)
        return -1;
    remove_stale_chunks(chain.tl.name, header.chunk_count);
    return 0;
}

}  // namespace

void timeline_header_path(const char* name, char (&path)[TIMELINE_PATH_SIZE]) {
    ksnprintf(path, sizeof path, "%s/%s.tl", TIMELINE_DIRECTORY, name);
}

void timeline_chunk_path(const char* name, uint32_t chunk, char (&path)[TIMELINE_PATH_SIZE]) {
    ksnprintf(path, sizeof path, "%s/%s.%03u", TIMELINE_DIRECTORY, name, chunk);
}

bool timeline_find_file(const char* path, int* inode, uint32_t* size) {
    struct sys_stat st = {};
    if (blockfs_stat(path, &st) != 0 || st.type != SYS_STAT_FILE)
        return false;
    *inode = static_cast<int>(st.inode);
    *size = st.size;
    return true;
}

int timeline_persist(int tl_id) {
    const mutex_guard guard(timeline_lock);
    return blockfs_mounted() ? persist_locked(tl_id) : -1;
}

int timeline_saved(const char* name, uint32_t* events, uint32_t* chunks) {
    *events = 0;
    *chunks = 0;
    char path[TIMELINE_PATH_SIZE];
    int inode;
    uint32_t size;
    timeline_header_path(name, path);
    if (strlen(name) >= TIMELINE_NAME_SIZE || !timeline_find_file(path, &inode, &size))
        return 0;
    timeline_persist_header_t header = {};
    const int count = blockfs_read_file(inode, &header, 0, sizeof header);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&header);
    if (count < 0 ||
        timeline_recognise({bytes, static_cast<size_t>(count)}) != timeline_form_t::current)
        return -1;
    *events = header.event_count;
    *chunks = header.chunk_count;
    return 1;
}
