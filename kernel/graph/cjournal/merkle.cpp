// Sidecar and root files, and the tree between them:
//
//   level 0   h0  h1  h2  h3  h4         an odd level's last node is paired with itself
//   level 1    h01     h23    h44
//   level 2       h0123      h4444
//   level 3            root
#include <array>

#include "kernel/core/endian.h"
#include "kernel/core/noise.h"
#include "kernel/core/string.h"
#include "kernel/graph/cjournal/format.h"

namespace {

bool hash_version_valid(uint32_t version) { return version >= 1 && version <= CAUSAL_HASH_VERSION; }

cjournal_hash_t join(const cjournal_hash_t& left, const cjournal_hash_t& right) {
    const std::array<cjournal_hash_t, 2> pair = {left, right};
    cjournal_hash_t parent;
    blake2s(parent.bytes, pair.data(), sizeof pair);
    return parent;
}

/// Makes the level above in place; its nodes.
std::span<cjournal_hash_t> climb(std::span<cjournal_hash_t> level) {
    size_t parents = 0;
    for (size_t i = 0; i < level.size(); i += 2)
        level[parents++] = join(level[i], level[i + 1 < level.size() ? i + 1 : i]);
    return level.first(parents);
}

}  // namespace

cjournal_hash_header_t cjournal_make_hash_header(const cjournal_header_t& header,
                                                 uint32_t segment) {
    return {CJOURNAL_HASH_MAGIC, CAUSAL_HASH_VERSION, segment,
            header.event_count,  header.first_id,     header.last_id};
}

bool cjournal_hash_header_valid(const cjournal_hash_header_t& sidecar, uint32_t segment) {
    return sidecar.magic == CJOURNAL_HASH_MAGIC && hash_version_valid(sidecar.version) &&
           sidecar.segment_num == segment;
}

cjournal_root_header_t cjournal_make_root(const cjournal_header_t& header, uint32_t segment,
                                          const cjournal_hash_t& root) {
    return {
        CJOURNAL_ROOT_MAGIC, CJOURNAL_ROOT_VERSION, segment, header.event_count, header.first_id,
        header.last_id,      CAUSAL_HASH_VERSION,   root};
}

bool cjournal_root_valid(const cjournal_root_header_t& root, uint32_t segment) {
    return root.magic == CJOURNAL_ROOT_MAGIC && root.version == CJOURNAL_ROOT_VERSION &&
           root.segment_num == segment && hash_version_valid(root.hash_version);
}

cjournal_hash_t cjournal_merkle_root(std::span<cjournal_hash_t> hashes) {
    if (hashes.empty())
        return {};
    while (hashes.size() > 1)
        hashes = climb(hashes);
    return hashes[0];
}

cjournal_hash_t cjournal_merkle_proof(std::span<cjournal_hash_t> hashes, uint32_t leaf,
                                      std::span<cjournal_hash_t, CJOURNAL_PROOF_DEPTH> siblings,
                                      uint32_t* depth) {
    uint32_t level = 0;
    for (size_t index = leaf; hashes.size() > 1 && level < siblings.size(); index /= 2) {
        const size_t sibling = index ^ 1;
        siblings[level++] = hashes[sibling < hashes.size() ? sibling : index];
        hashes = climb(hashes);
    }
    *depth = level;
    return hashes[0];
}

cjournal_hash_t cjournal_proof_root(const cjournal_hash_t& leaf_hash, uint32_t leaf,
                                    std::span<const cjournal_hash_t> siblings) {
    cjournal_hash_t node = leaf_hash;
    for (const cjournal_hash_t& sibling : siblings) {
        node = leaf % 2 == 0 ? join(node, sibling) : join(sibling, node);
        leaf /= 2;
    }
    return node;
}

uint32_t cjournal_hash_prefix(const cjournal_hash_t& hash) { return load_le32(hash.bytes); }
