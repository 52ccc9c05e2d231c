// The bytes of a VoFS volume and what follows from them alone: the geometry of a size, the place of
// a file's block, the order in which a file's blocks are laid out. Pure: no I/O, no state.
//
//   sector 0   1 .. B   B+1 .. B+N        B+N+1 .. S-1
//   super      bitmap   inodes, one each  data and pointer blocks
//
// All integers are little-endian, sector numbers absolute. The records are exactly one sector and
// have no gaps and are copied as they stand; everything in one that came from a device may be a
// lie.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr uint32_t VOFS_SECTOR = 512;
constexpr uint32_t VOFS_MAGIC = 0x564F4653;  ///< "VOFS" read as a big-endian number
constexpr uint32_t VOFS_VERSION = 1;
constexpr uint32_t VOFS_SECTORS_MAX = 0x800000;  ///< 4 GiB
constexpr uint32_t VOFS_INODES = 256;            ///< as formatted; a volume may have another number
constexpr uint32_t VOFS_BITS = VOFS_SECTOR * 8;  ///< blocks that one bitmap sector describes
constexpr uint32_t VOFS_NAME_SIZE = 64;          ///< with the terminator
constexpr uint32_t VOFS_DIRECT = 12;
constexpr uint32_t VOFS_POINTERS = VOFS_SECTOR / 4;
constexpr uint32_t VOFS_DOUBLE_START = VOFS_DIRECT + VOFS_POINTERS;  ///< first block behind it: 140
constexpr uint32_t VOFS_BLOCKS_MAX = VOFS_DOUBLE_START + VOFS_POINTERS * VOFS_POINTERS;
constexpr uint32_t VOFS_FILE_MAX = VOFS_BLOCKS_MAX * VOFS_SECTOR;

constexpr uint32_t VOFS_FREE = 0;  ///< inode types
constexpr uint32_t VOFS_FILE = 1;
constexpr uint32_t VOFS_DIRECTORY = 2;
constexpr uint32_t VOFS_READ_ONLY = 1;  ///< the one inode flag

/// Sector 0.
struct vofs_super {
    uint32_t magic;
    uint32_t version;
    uint32_t total_sectors;
    uint32_t inode_count;
    uint32_t inode_start;
    uint32_t data_start;
    uint32_t bitmap_start;
    uint32_t bitmap_sectors;
    uint8_t pad[480];
};
static_assert(sizeof(vofs_super) == VOFS_SECTOR && offsetof(vofs_super, pad) == 32);

/// Inode n, in sector inode_start + n.
struct vofs_inode {
    uint32_t type;                 ///< VOFS_FREE, VOFS_FILE, VOFS_DIRECTORY
    uint32_t size;                 ///< bytes; 0 for a directory
    uint32_t blocks[VOFS_DIRECT];  ///< sectors; 0: none
    uint32_t parent_inode;         ///< of the directory it lies in; the root is its own
    char name[VOFS_NAME_SIZE];     ///< terminated; "/" for the root
    uint32_t indirect_block;       ///< pointers of blocks 12..139; 0: none
    uint32_t ctime_ticks;
    uint32_t mtime_ticks;
    uint32_t flags;
    uint32_t double_indirect_block;  ///< leaves of blocks 140..16523; 0: none
    uint8_t pad[368];
};
static_assert(sizeof(vofs_inode) == VOFS_SECTOR && offsetof(vofs_inode, pad) == 144);
static_assert(offsetof(vofs_inode, name) == 60 && offsetof(vofs_inode, indirect_block) == 124);
static_assert(offsetof(vofs_inode, flags) == 136);

/// An indirect block, a double-indirect block or a leaf: sectors, 0 for none.
struct vofs_pointers {
    uint32_t at[VOFS_POINTERS];
};
static_assert(sizeof(vofs_pointers) == VOFS_SECTOR);

/// The superblock of a volume of `sectors`, at most VOFS_SECTORS_MAX. Of the sizes 258 + 4097 m the
/// last sector stays unused: with it the bitmap would be a sector longer than what it describes.
/// False when there is no room for data.
[[nodiscard]] bool vofs_make_super(uint32_t sectors, vofs_super* super);

/// Whether `super`, whose magic is right, describes a volume that fits on `capacity` sectors.
[[nodiscard]] bool vofs_super_valid(const vofs_super& super, uint32_t capacity);

/// Characters of a name as it stands in an inode, VOFS_NAME_SIZE when it is not terminated.
constexpr uint32_t vofs_name_length(const char* name) {
    uint32_t length = 0;
    while (length < VOFS_NAME_SIZE && name[length] != '\0')
        ++length;
    return length;
}

/// Blocks of 512 bytes that hold `size` bytes.
constexpr uint32_t vofs_blocks_for(uint32_t size) {
    return size / VOFS_SECTOR + (size % VOFS_SECTOR != 0 ? 1 : 0);
}

/// A file's sectors are taken in one order, each pointer block just before the first block that
/// needs it: blocks 0..11, indirect, 12..139, double-indirect, leaf 0, 140..267, leaf 1, ...
/// A *place* is a position in that order.
enum class vofs_kind : uint8_t { data, indirect, double_indirect, leaf };

struct vofs_place {
    vofs_kind kind;
    uint32_t index;  ///< of the data block, or of the leaf
};

/// What stands at position `place` of the order.
vofs_place vofs_place_at(uint32_t place);

/// The position of data block `block`.
constexpr uint32_t vofs_place_of_block(uint32_t block) {
    if (block < VOFS_DIRECT)
        return block;
    if (block < VOFS_DOUBLE_START)
        return block + 1;
    return block + 3 + (block - VOFS_DOUBLE_START) / VOFS_POINTERS;
}

/// How many sectors a file of `blocks` data blocks takes, pointer blocks included.
constexpr uint32_t vofs_places_for(uint32_t blocks) {
    return blocks == 0 ? 0 : vofs_place_of_block(blocks - 1) + 1;
}

/// How many data blocks stand among the first `places` positions.
uint32_t vofs_blocks_within(uint32_t places);

/// How many leaves a file of `blocks` data blocks has.
constexpr uint32_t vofs_leaves_for(uint32_t blocks) {
    if (blocks <= VOFS_DOUBLE_START)
        return 0;
    return (blocks - VOFS_DOUBLE_START + VOFS_POINTERS - 1) / VOFS_POINTERS;
}

constexpr uint32_t VOFS_PLACES_MAX = vofs_places_for(VOFS_BLOCKS_MAX);
static_assert(VOFS_PLACES_MAX == 16654 && VOFS_FILE_MAX == 8460288);

/// Whether `path` is absolute, of 255 characters at most, and made of components of 1 to 63
/// characters none of which is "." or "..".
[[nodiscard]] bool vofs_path_valid(const char* path);
