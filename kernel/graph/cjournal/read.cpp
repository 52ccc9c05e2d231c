// Segments and their companions, read back. Nothing read is trusted: sizes are checked before
// buffers are filled, headers before they are used.
#include <algorithm>

#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/cjournal/internal.h"

namespace {

constexpr int READ_ATTEMPTS = 8;

/// The last bytes of a segment file, where a footer may stand.
struct tail_t {
    uint8_t bytes[CJOURNAL_FOOTER_SIZE];
    uint32_t size;
};

bool read_tail(int inode, uint32_t file_size, tail_t* tail) {
    tail->size = file_size < CJOURNAL_FOOTER_SIZE ? file_size : CJOURNAL_FOOTER_SIZE;
    const int got =
        cjournal_read_exact_retry(inode, tail->bytes, file_size - tail->size, tail->size);
    return got == static_cast<int>(tail->size);
}

/// The inode and size of a regular file; false when there is none.
bool find_file(const char* path, int* inode, uint32_t* size) {
    struct sys_stat st = {};
    if (blockfs_stat(path, &st) != 0 || st.type != BLOCKFS_FILE)
        return false;
    *inode = static_cast<int>(st.inode);
    *size = st.size;
    return true;
}

}  // namespace

int cjournal_read_exact_retry(int inum, void* buf, uint32_t offset, uint32_t len) {
    int got = -1;
    for (int attempt = 0; attempt < READ_ATTEMPTS && got != static_cast<int>(len); attempt++)
        got = blockfs_read_file(inum, buf, offset, len);
    return got;
}

int64_t cjournal_file_size(const char* path) {
    int inode = -1;
    uint32_t size = 0;
    return find_file(path, &inode, &size) ? size : int64_t{-1};
}

int cjournal_read_file(const char* path, void* buf, uint32_t len, bool longer) {
    if (blockfs_resolve(path) < 0)
        return 0;
    int inode = -1;
    uint32_t size = 0;
    if (!find_file(path, &inode, &size) || size < len || (size > len && !longer))
        return -1;
    return cjournal_read_exact_retry(inode, buf, 0, len) == static_cast<int>(len) ? 1 : -1;
}

int cjournal_open_segment_locked(uint32_t segment, cjournal_segment_file_t* file) {
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, cjournal_file_t::segment, path);
    if (!find_file(path, &file->inode, &file->size))
        return -1;
    const int got = cjournal_read_exact_retry(file->inode, &file->header, 0, sizeof file->header);
    if (got != static_cast<int>(sizeof file->header) || !cjournal_header_valid(file->header))
        return -1;
    tail_t tail;
    if (!read_tail(file->inode, file->size, &tail))
        return -1;
    const bool known = cjournal_recognise(file->header, segment, file->size,
                                          {tail.bytes, tail.size}, &file->layout);
    return known ? 0 : -1;
}

int read_segment_header_locked(uint32_t segment, cjournal_header_t* header) {
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, cjournal_file_t::segment, path);
    if (cjournal_read_file(path, header, sizeof *header, true) != 1)
        return -1;
    return cjournal_header_valid(*header) ? 0 : -1;
}

int read_segment_events_locked(uint32_t segment, cjournal_event_t* out, int max) {
    cjournal_segment_file_t file;
    if (max < 0 || cjournal_open_segment_locked(segment, &file) != 0)
        return -1;
    const uint32_t size = file.layout.event_size;
    if (size > CJOURNAL_EVENT_SIZE)
        return -1;
    uint32_t count = file.header.event_count;
    if (count > static_cast<uint32_t>(max))
        count = static_cast<uint32_t>(max);
    // Stored records go to the end of the buffer; each is then read before its place is written.
    uint8_t* stored = reinterpret_cast<uint8_t*>(out + count) - count * size;
    const int got =
        cjournal_read_exact_retry(file.inode, stored, CJOURNAL_HEADER_SIZE, count * size);
    if (got != static_cast<int>(count * size))
        return -1;
    if (size == CJOURNAL_EVENT_SIZE)
        return static_cast<int>(count);
    for (uint32_t i = 0; i < count; i++) {
        cjournal_event_t record;
        if (!cjournal_convert_record({stored + i * size, size}, &record))
            return -1;
        out[i] = record;
    }
    return static_cast<int>(count);
}

int read_segment_event_locked(const cjournal_segment_file_t& file, uint32_t position,
                              cjournal_event_t* out) {
    uint8_t stored[CJOURNAL_EVENT_SIZE];
    const uint32_t size = file.layout.event_size;
    if (size > sizeof stored || position >= file.header.event_count)
        return -1;
    const int got =
        cjournal_read_exact_retry(file.inode, stored, CJOURNAL_HEADER_SIZE + position * size, size);
    return got == static_cast<int>(size) && cjournal_convert_record({stored, size}, out) ? 0 : -1;
}

bool cjournal_checksum_by_pieces_locked(uint32_t segment, std::span<uint8_t> piece,
                                        uint32_t* checksum) {
    cjournal_segment_file_t file;
    if (cjournal_open_segment_locked(segment, &file) != 0)
        return false;
    const uint32_t covered = file.size - file.layout.footer_size;
    uint32_t state = CJOURNAL_FNV_BASIS;
    for (uint32_t at = 0; at < covered;) {
        const auto bytes = std::min<uint32_t>(covered - at, piece.size());
        if (cjournal_read_exact_retry(file.inode, piece.data(), at, bytes) !=
            static_cast<int>(bytes))
            return false;
        state = cjournal_fnv(piece.first(bytes), state);
        at += bytes;
    }
    *checksum = state != 0 ? state : 1;
    return true;
}

bool cjournal_segment_checksum_locked(uint32_t segment, uint32_t* checksum) {
    const auto bytes = heap_ptr<uint8_t>::make(CJOURNAL_SEGMENT_BYTES_MAX);
    return bytes && cjournal_checksum_by_pieces_locked(
                        segment, {bytes.get(), CJOURNAL_SEGMENT_BYTES_MAX}, checksum);
}

uint32_t cjournal_segment_flags_locked(const cjournal_segment_file_t& file, uint32_t segment) {
    if (file.layout.footer_size != CJOURNAL_FOOTER_SIZE ||
        file.layout.event_size != CJOURNAL_EVENT_SIZE)
        return 0;
    cjournal_footer_t footer;
    const int got = cjournal_read_exact_retry(file.inode, &footer, file.size - CJOURNAL_FOOTER_SIZE,
                                              sizeof footer);
    const bool valid =
        got == static_cast<int>(sizeof footer) &&
        cjournal_check_footer(file.header, segment, file.layout,
                              {reinterpret_cast<const uint8_t*>(&footer), sizeof footer},
                              footer.checksum);
    return valid ? footer.flags : 0;
}

void cjournal_sidecar_summary_locked(cjournal_entry_t* entry) {
    struct [[gnu::packed]] {
        cjournal_hash_header_t header;
        cjournal_hash_t first;
    } head;
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(entry->segment_num, cjournal_file_t::sidecar, path);
    const int got = cjournal_read_file(path, &head, sizeof head, true);
    entry->hash_first_valid =
        got == 1 && cjournal_hash_header_valid(head.header, entry->segment_num);
    entry->hash_first_prefix = entry->hash_first_valid ? cjournal_hash_prefix(head.first) : 0;
    entry->hash_version = got == 0 ? 0 : CJOURNAL_BAD_VERSION;
    if (entry->hash_first_valid)
        entry->hash_version = head.header.version;
}

void cjournal_root_summary_locked(cjournal_entry_t* entry) {
    cjournal_root_header_t root;
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(entry->segment_num, cjournal_file_t::root, path);
    const int got = cjournal_read_file(path, &root, sizeof root);
    entry->root_valid = got == 1 && cjournal_root_valid(root, entry->segment_num);
    entry->root_prefix = entry->root_valid ? cjournal_hash_prefix(root.root) : 0;
    entry->root_hash_version = got == 0 ? 0 : CJOURNAL_BAD_VERSION;
    if (entry->root_valid)
        entry->root_hash_version = root.hash_version;
}

bool cjournal_read_signature_locked(uint32_t segment, uint8_t signature[64]) {
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, cjournal_file_t::signature, path);
    return cjournal_read_file(path, signature, CJOURNAL_SIGNATURE_BYTES) == 1;
}
