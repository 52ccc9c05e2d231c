// Contents in pieces: from a file, to the end of one, and to the console.
#include "kernel/apps/cmd_disk/common.h"
#include "kernel/drivers/console.h"
#include "kernel/fs/blockfs.h"

namespace {

constexpr const char* CHANGED = "changed by another task meanwhile";

/// Whether the file at `path` is still the one of this inode: the number of one that was removed
/// may be another's by now.
bool names_still(const char* path, int inode) { return blockfs_resolve(path) == inode; }

}  // namespace

uint32_t disk_append(const char* path, int inode, const uint8_t* bytes, uint32_t len) {
    const int stored = names_still(path, inode) ? blockfs_append_file(inode, bytes, len) : 0;
    return stored > 0 ? static_cast<uint32_t>(stored) : 0;
}

const char* disk_append_why(const char* path, int inode) {
    struct sys_stat stat = {};
    if (!names_still(path, inode))
        return CHANGED;
    const bool full = blockfs_stat(path, &stat) == 0 && stat.size == BLOCKFS_FILE_BYTES_MAX;
    return full ? "the file has the largest size there is" : disk_why(path);
}

bool disk_reader_t::open(const char* command, const disk_entry_t& entry, uint32_t piece) {
    command_ = command;
    entry_ = &entry;
    offset_ = 0;
    if (!buffer_) {
        buffer_ = heap_ptr<uint8_t>::make(piece);
        size_ = piece;
    }
    if (!buffer_)
        disk_complain(command, entry.path, "no memory");
    return static_cast<bool>(buffer_);
}

int disk_reader_t::next(uint32_t most) {
    const uint32_t length = most < size_ ? most : size_;
    if (!names_still(entry_->path, static_cast<int>(entry_->stat.inode))) {
        disk_complain(command_, entry_->path, CHANGED);
        return -1;
    }
    const int got =
        blockfs_read_file(static_cast<int>(entry_->stat.inode), buffer_.get(), offset_, length);
    if (got < 0)
        disk_complain(command_, entry_->path, "the disk fails");
    else
        offset_ += static_cast<uint32_t>(got);
    return got;
}

void disk_output_t::write(const uint8_t* bytes, uint32_t len) {
    if (len == 0)
        return;
    console_write_len(bytes, len);
    last_ = bytes[len - 1];
}

void disk_output_t::end() {
    if (last_ != '\n')
        console_write("\n");
    last_ = '\n';
}
