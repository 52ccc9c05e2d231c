// The inode table, and its index in memory: what a lookup needs of each inode, in hash chains by
// directory and name. The index follows every inode that is written.
#include "kernel/core/string.h"
#include "kernel/fs/blockfs/internal.h"

namespace {

/// FNV-1a over the directory's number and the name.
uint32_t hash_of(uint32_t parent, const char* name, uint32_t length) {
    constexpr uint32_t PRIME = 16777619;
    uint32_t hash = 2166136261u;
    for (uint32_t shift = 0; shift < 32; shift += 8)
        hash = (hash ^ (parent >> shift & 0xFF)) * PRIME;
    for (uint32_t i = 0; i < length; ++i)
        hash = (hash ^ static_cast<uint8_t>(name[i])) * PRIME;
    return hash;
}

uint32_t& bucket_locked(uint32_t hash) REQUIRES(vofs_lock) {
    return vofs.buckets[hash % VOFS_BUCKETS];
}

void unchain_locked(uint32_t n) REQUIRES(vofs_lock) {
    uint32_t* link = &bucket_locked(vofs.index[n].hash);
    while (*link != VOFS_NO_INODE && *link != n)
        link = &vofs.index[*link].next;
    if (*link == n)
        *link = vofs.index[n].next;
}

void chain_locked(uint32_t n) REQUIRES(vofs_lock) {
    uint32_t* link = &bucket_locked(vofs.index[n].hash);
    while (*link < n)
        link = &vofs.index[*link].next;
    vofs.index[n].next = *link;
    *link = n;
}

void describe_locked(uint32_t n, const vofs_inode& inode) REQUIRES(vofs_lock) {
    vofs_entry_t& entry = vofs.index[n];
    entry.known = true;
    entry.type = inode.type;
    entry.parent = inode.parent_inode;
    entry.flags = inode.flags;
    memcpy(entry.name, inode.name, VOFS_NAME_SIZE);
    entry.hash = hash_of(entry.parent, entry.name, vofs_name_length(entry.name));
}

/// Brings the entry of inode `n` to what was read or written.
void index_set_locked(uint32_t n, const vofs_inode& inode) REQUIRES(vofs_lock) {
    vofs_entry_t& entry = vofs.index[n];
    if (!entry.known)
        --vofs.unknown;
    else if (entry.type != VOFS_FREE)
        unchain_locked(n);
    describe_locked(n, inode);
    if (entry.type != VOFS_FREE)
        chain_locked(n);
}

/// Chains all used entries; from the last to the first, so that each goes to a head.
void chain_all_locked() REQUIRES(vofs_lock) {
    for (uint32_t& bucket : vofs.buckets)
        bucket = VOFS_NO_INODE;
    for (uint32_t n = vofs.sb.inode_count; n-- > 0;)
        if (vofs.index[n].known && vofs.index[n].type != VOFS_FREE)
            chain_locked(n);
}

/// Reads the next batch; inode by inode where the device does not give it as a whole.
void refill_locked(inode_walk_t* walk) REQUIRES(vofs_lock) {
    const uint32_t left = vofs.sb.inode_count - walk->n;
    const uint32_t batch = left < VOFS_RUN_SECTORS ? left : VOFS_RUN_SECTORS;
    const uint32_t sector = vofs.sb.inode_start + walk->n;
    walk->first = walk->n;
    walk->count = batch;
    if (walk->n >= walk->singles_end) {
        if (cache_read_locked(sector, vofs_buffers.run, batch) == 0)
            return;
        walk->singles_end = walk->n + batch;
    }
    walk->count = cache_read_locked(sector, vofs_buffers.run, 1) == 0 ? 1 : 0;
}

}  // namespace

int inode_read_locked(uint32_t n, vofs_inode* inode) {
    return cache_read_locked(vofs.sb.inode_start + n, inode, 1);
}

vofs_stored inode_write_locked(uint32_t n, const vofs_inode& inode) {
    const uint32_t sector = vofs.sb.inode_start + n;
    if (cache_write_locked(sector, &inode, 1) == 0) {
        index_set_locked(n, inode);
        return vofs_stored::yes;
    }
    vofs_inode now;
    if (cache_reread_locked(sector, &now) != 0)
        return vofs_stored::unknown;
    index_set_locked(n, now);
    return memcmp(&now, &inode, sizeof now) == 0 ? vofs_stored::yes : vofs_stored::no;
}

void inode_touch_locked(uint32_t n) {
    vofs_inode inode;
    if (inode_read_locked(n, &inode) != 0 || inode.mtime_ticks == vofs_now())
        return;
    inode.mtime_ticks = vofs_now();
    (void)inode_write_locked(n, inode);
}

bool inode_walk_locked(inode_walk_t* walk) {
    if (walk->next == vofs.sb.inode_count)
        return false;
    walk->n = walk->next++;
    if (walk->n - walk->first >= walk->count)
        refill_locked(walk);
    walk->inode = nullptr;
    if (walk->n - walk->first < walk->count)
        walk->inode = reinterpret_cast<const vofs_inode*>(vofs_buffers.run) + walk->n - walk->first;
    return true;
}

uint32_t index_load_locked() {
    vofs.unknown = 0;
    uint32_t used = 0;
    for (inode_walk_t walk; inode_walk_locked(&walk);) {
        vofs.index[walk.n].known = walk.inode != nullptr;
        if (walk.inode == nullptr) {
            ++vofs.unknown;
            continue;
        }
        describe_locked(walk.n, *walk.inode);
        used += walk.n != 0 && walk.inode->type != VOFS_FREE ? 1 : 0;
    }
    chain_all_locked();
    return used;
}

uint32_t index_find_locked(uint32_t parent, const char* name, uint32_t length) {
    const uint32_t hash = hash_of(parent, name, length);
    for (uint32_t n = bucket_locked(hash); n != VOFS_NO_INODE; n = vofs.index[n].next) {
        const vofs_entry_t& entry = vofs.index[n];
        if (n != 0 && entry.hash == hash && entry.parent == parent &&
            vofs_name_length(entry.name) == length && memcmp(entry.name, name, length) == 0)
            return n;
    }
    return VOFS_NO_INODE;
}

uint32_t index_next_entry_locked(uint32_t parent, uint32_t after) {
    for (uint32_t n = after + 1; n < vofs.sb.inode_count; ++n) {
        const vofs_entry_t& entry = vofs.index[n];
        if (entry.known && entry.type != VOFS_FREE && entry.parent == parent)
            return n;
    }
    return VOFS_NO_INODE;
}

uint32_t index_free_inode_locked() {
    for (uint32_t n = 1; n < vofs.sb.inode_count; ++n)
        if (vofs.index[n].known && vofs.index[n].type == VOFS_FREE)
            return n;
    return VOFS_NO_INODE;
}

bool index_complete_locked() {
    vofs_inode inode;
    for (uint32_t n = 0; vofs.unknown != 0 && n < vofs.sb.inode_count; ++n)
        if (!vofs.index[n].known && inode_read_locked(n, &inode) == 0)
            index_set_locked(n, inode);
    return vofs.unknown == 0;
}
