// Writing a segment with its companions. Each file changes over in one sector write, and the
// segment file comes last: a cut leaves companions without a segment, which start-up clears away,
// but never a segment without its companions.
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/cjournal/internal.h"

namespace {

bool remove_file(uint32_t segment, cjournal_file_t file) {
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, file, path);
    return blockfs_resolve(path) < 0 || blockfs_remove(path) == 0;
}

int replace_file(uint32_t segment, cjournal_file_t file, const void* data, uint32_t len) {
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, file, path);
    return blockfs_replace_file(path, data, len);
}

/// The checksum that goes into `segment` as its predecessor's: 0 for segment 1, and when the one
/// before cannot be read.
uint32_t previous_checksum_locked(uint32_t segment, cjournal_draft_t* draft)
    REQUIRES(cjournal_lock) {
    uint32_t checksum = 0;
    if (segment <= 1)
        return 0;
    if (cjournal_writer.tail_segment == segment - 1)
        return cjournal_writer.tail_checksum;
    return cjournal_checksum_by_pieces_locked(segment - 1, draft->piece(), &checksum) ? checksum
                                                                                      : 0;
}

/// Header and footer around the records; the size of the file. Its checksum goes to `checksum`.
uint32_t seal_segment_locked(uint32_t segment, cjournal_draft_t* draft, uint32_t flags,
                             uint32_t* checksum) REQUIRES(cjournal_lock) {
    const cjournal_header_t header = cjournal_make_header({draft->records(), draft->count});
    *draft->header() = header;
    const uint32_t covered = CJOURNAL_HEADER_SIZE + draft->count * CJOURNAL_EVENT_SIZE;
    *checksum = cjournal_checksum({draft->segment, covered});
    const cjournal_footer_t footer = cjournal_make_footer(
        header, segment, *checksum, previous_checksum_locked(segment, draft), flags);
    memcpy(draft->segment + covered, &footer, sizeof footer);
    return covered + CJOURNAL_FOOTER_SIZE;
}

}  // namespace

void cjournal_make_companions(uint32_t segment, cjournal_draft_t* draft) {
    const cjournal_header_t& header = *draft->header();
    const cjournal_hash_header_t sidecar = cjournal_make_hash_header(header, segment);
    memcpy(draft->sidecar, &sidecar, sizeof sidecar);
    for (uint32_t i = 0; i < draft->count; i++)
        cjournal_record_hash(CAUSAL_HASH_VERSION, draft->records()[i], &draft->tree[i]);
    draft->first_hash = draft->tree[0];
    memcpy(draft->sidecar + sizeof sidecar, draft->tree, draft->count * sizeof draft->tree[0]);
    draft->root =
        cjournal_make_root(header, segment, cjournal_merkle_root({draft->tree, draft->count}));
}

int cjournal_write_companions_locked(uint32_t segment, cjournal_draft_t* draft) {
    cjournal_make_companions(segment, draft);
    if (replace_file(segment, cjournal_file_t::sidecar, draft->sidecar,
                     cjournal_sidecar_bytes(draft->count)) != 0)
        return -1;
    return replace_file(segment, cjournal_file_t::root, &draft->root, sizeof draft->root);
}

void cjournal_make_directory() {
    if (blockfs_resolve(CJOURNAL_DIR) < 0)
        blockfs_create(CJOURNAL_DIR, BLOCKFS_DIRECTORY);
}

int write_segment_locked(uint32_t segment, cjournal_draft_t* draft, uint32_t flags) {
    uint32_t checksum = 0;
    cjournal_make_directory();  // somebody may have removed it
    const uint32_t size = seal_segment_locked(segment, draft, flags, &checksum);
    const bool written = remove_file(segment, cjournal_file_t::signature) &&
                         cjournal_write_companions_locked(segment, draft) == 0 &&
                         replace_file(segment, cjournal_file_t::segment, draft->segment, size) == 0;
    if (!written) {
        cjournal_remove_segment_locked(segment);
        return -1;
    }
    cjournal_writer.tail_segment = segment;
    cjournal_writer.tail_checksum = checksum;
    return 0;
}

bool cjournal_segment_exists(uint32_t segment) {
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, cjournal_file_t::segment, path);
    return blockfs_resolve(path) >= 0;
}

bool cjournal_remove_segment_locked(uint32_t segment) {
    if (cjournal_writer.tail_segment == segment)
        cjournal_writer.tail_segment = 0;
    return remove_file(segment, cjournal_file_t::segment) &&
           cjournal_remove_companions_locked(segment);
}

bool cjournal_remove_companions_locked(uint32_t segment) {
    const bool sidecar = remove_file(segment, cjournal_file_t::sidecar);
    return remove_file(segment, cjournal_file_t::root) && sidecar;
}
