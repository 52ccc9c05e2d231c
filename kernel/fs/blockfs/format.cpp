#include "kernel/fs/blockfs/format.h"

#include "kernel/core/string.h"

namespace {

constexpr uint32_t PATH_MAX_CHARS = 255;
constexpr uint32_t INDIRECT_PLACE = VOFS_DIRECT;
constexpr uint32_t DOUBLE_PLACE = VOFS_DOUBLE_START + 1;
constexpr uint32_t LEAF_GROUP = VOFS_POINTERS + 1;  // a leaf and its data blocks

constexpr uint32_t divide_up(uint32_t value, uint32_t by) {
    return value / by + (value % by != 0 ? 1 : 0);
}

bool component_valid(const char* name, uint32_t length) {
    if (length == 0 || length >= VOFS_NAME_SIZE)
        return false;
    const bool dots = name[0] == '.' && (length == 1 || (length == 2 && name[1] == '.'));
    return !dots;
}

}  // namespace

bool vofs_make_super(uint32_t sectors, vofs_super* super) {
    constexpr uint32_t FIXED = 1 + VOFS_INODES;
    if (sectors > VOFS_SECTORS_MAX || sectors <= FIXED + 1)
        return false;
    // The last of 258 + 4097 m sectors would be taken by a bitmap sector that describes nothing.
    if ((sectors - FIXED) % (VOFS_BITS + 1) == 1)
        --sectors;
    const uint32_t bitmap = divide_up(sectors - FIXED, VOFS_BITS + 1);
    *super = {};
    super->magic = VOFS_MAGIC;
    super->version = VOFS_VERSION;
    super->total_sectors = sectors;
    super->inode_count = VOFS_INODES;
    super->inode_start = bitmap + 1;
    super->data_start = bitmap + FIXED;
    super->bitmap_start = 1;
    super->bitmap_sectors = bitmap;
    return true;
}

bool vofs_super_valid(const vofs_super& super, uint32_t capacity) {
    const uint32_t total = super.total_sectors;
    if (super.version != VOFS_VERSION || capacity == 0 || capacity < total)
        return false;
    if (total < 1 || total > VOFS_SECTORS_MAX || super.inode_count == 0)
        return false;
    if (super.bitmap_start != 1 || super.bitmap_sectors == 0 || super.bitmap_sectors > total - 1)
        return false;
    if (super.inode_start != super.bitmap_sectors + 1 || super.inode_start >= total)
        return false;
    if (total - super.inode_start < super.inode_count)
        return false;
    if (super.data_start != super.inode_start + super.inode_count || super.data_start >= total)
        return false;
    return super.bitmap_sectors == divide_up(total - super.data_start, VOFS_BITS);
}

vofs_place vofs_place_at(uint32_t place) {
    if (place < INDIRECT_PLACE)
        return {vofs_kind::data, place};
    if (place == INDIRECT_PLACE)
        return {vofs_kind::indirect, 0};
    if (place < DOUBLE_PLACE)
        return {vofs_kind::data, place - 1};
    if (place == DOUBLE_PLACE)
        return {vofs_kind::double_indirect, 0};
    const uint32_t behind = place - DOUBLE_PLACE - 1;
    const uint32_t leaf = behind / LEAF_GROUP;
    if (behind % LEAF_GROUP == 0)
        return {vofs_kind::leaf, leaf};
    return {vofs_kind::data, VOFS_DOUBLE_START + behind - leaf - 1};
}

uint32_t vofs_blocks_within(uint32_t places) {
    if (places <= INDIRECT_PLACE)
        return places;
    if (places <= DOUBLE_PLACE)
        return places - 1;
    if (places == DOUBLE_PLACE + 1)
        return VOFS_DOUBLE_START;
    const uint32_t behind = places - DOUBLE_PLACE - 1;
    return VOFS_DOUBLE_START + behind - divide_up(behind, LEAF_GROUP);
}

bool vofs_path_valid(const char* path) {
    if (path == nullptr || path[0] != '/')
        return false;
    if (path[1] == '\0')
        return true;
    uint32_t start = 1, at = 1;
    for (; path[at] != '\0'; ++at) {
        if (at >= PATH_MAX_CHARS)
            return false;
        if (path[at] != '/')
            continue;
        if (!component_valid(path + start, at - start))
            return false;
        start = at + 1;
    }
    return component_valid(path + start, at - start);
}
