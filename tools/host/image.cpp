#include "tools/host/image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kernel/drivers/virtio_blk.h"

namespace {

using sector_t = std::array<uint8_t, BLK_SECTOR_SIZE>;

/// A request of the filesystem's.
struct request_t {
    uint64_t sector;
    std::vector<uint8_t> data;
};

struct {
    int file = -1;
    image_access access = image_access::read;
    std::string path;
    uint64_t sectors = 0;
    std::vector<request_t> requests;                ///< not committed
    std::unordered_map<uint64_t, sector_t> latest;  ///< their sectors as they are now
} image;

std::string failure(const char* what) {
    return image.path + ": " + what + ": " + std::strerror(errno);
}

// QEMU locks two ranges of bytes of its images, one byte a permission: those of the first say what
// it does with the image, those of the second what it does not let others do.
constexpr off_t LOCK_USED = 100;
constexpr off_t LOCK_NOT_SHARED = 200;
constexpr off_t LOCK_BYTES = 100;

struct flock range(short type, off_t start, off_t bytes) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = bytes;
    return lock;
}

/// Whether the image can be had; a filesystem without such locks lets everybody.
bool lock_image(image_access access) {
    if (access == image_access::write) {
        struct flock all = range(F_WRLCK, LOCK_USED, 2 * LOCK_BYTES);
        return fcntl(image.file, F_OFD_SETLK, &all) == 0 || (errno != EAGAIN && errno != EACCES);
    }
    struct flock used = range(F_WRLCK, LOCK_USED, LOCK_BYTES);
    if (fcntl(image.file, F_OFD_GETLK, &used) == 0 && used.l_type != F_UNLCK)
        return false;
    struct flock ours = range(F_RDLCK, LOCK_NOT_SHARED, LOCK_BYTES);
    return fcntl(image.file, F_OFD_SETLK, &ours) == 0 || (errno != EAGAIN && errno != EACCES);
}

bool read_file(void* to, size_t bytes, uint64_t offset) {
    auto* at = static_cast<uint8_t*>(to);
    while (bytes > 0) {
        const ssize_t got = pread(image.file, at, bytes, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        at += got;
        bytes -= static_cast<size_t>(got);
        offset += static_cast<uint64_t>(got);
    }
    return true;
}

bool write_file(const void* from, size_t bytes, uint64_t offset) {
    const auto* at = static_cast<const uint8_t*>(from);
    while (bytes > 0) {
        const ssize_t put = pwrite(image.file, at, bytes, static_cast<off_t>(offset));
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        at += put;
        bytes -= static_cast<size_t>(put);
        offset += static_cast<uint64_t>(put);
    }
    return true;
}

/// Whether the file holds a request's data already: what is a hole stays one.
bool is_stored(const request_t& request) {
    std::vector<uint8_t> now(request.data.size());
    return read_file(now.data(), now.size(), request.sector * BLK_SECTOR_SIZE) &&
           now == request.data;
}

/// The requests that change the file, in order. Where an earlier one changed a sector, a later one
/// of the same sector does, too, whatever it writes.
std::vector<const request_t*> find_changes() {
    std::vector<const request_t*> changes;
    std::unordered_set<uint64_t> touched;
    for (const request_t& request : image.requests) {
        const uint64_t end = request.sector + request.data.size() / BLK_SECTOR_SIZE;
        bool again = false;
        for (uint64_t sector = request.sector; sector < end; ++sector)
            again = again || touched.contains(sector);
        if (!again && is_stored(request))
            continue;
        changes.push_back(&request);
        for (uint64_t sector = request.sector; sector < end; ++sector)
            touched.insert(sector);
    }
    return changes;
}

/// Takes room for a request without changing what the file holds.
bool reserve(const request_t& request) {
    const uint64_t offset = request.sector * BLK_SECTOR_SIZE;
    const size_t bytes = request.data.size();
    if (fallocate(image.file, 0, static_cast<off_t>(offset), static_cast<off_t>(bytes)) == 0)
        return true;
    if (errno != EOPNOTSUPP && errno != ENOSYS)
        return false;
    std::vector<uint8_t> now(bytes);
    return read_file(now.data(), bytes, offset) && write_file(now.data(), bytes, offset);
}

bool in_range(uint64_t sector, uint32_t count) {
    return count != 0 && count <= image.sectors && sector <= image.sectors - count;
}

}  // namespace

std::string image_open(const std::string& path, image_access access) {
    image_close();
    image.path = path;
    image.access = access;
    const int mode = access == image_access::write ? O_RDWR : O_RDONLY;
    image.file = open(path.c_str(), mode | O_CLOEXEC);
    if (image.file < 0)
        return failure("cannot open");
    struct stat st = {};
    const off_t end = lseek(image.file, 0, SEEK_END);
    std::string wrong;
    if (fstat(image.file, &st) != 0 || end < 0)
        wrong = failure("cannot read");
    else if (!S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode))
        wrong = path + ": is no image file";
    else if (!lock_image(access))
        wrong = path +
                ": is in use, by a running machine or another program; ./vorn stop ends"
                " the machine";
    if (!wrong.empty()) {
        image_close();
        return wrong;
    }
    image.sectors = static_cast<uint64_t>(end) / BLK_SECTOR_SIZE;
    return {};
}

std::string image_commit() {
    if (image.access != image_access::write)
        return image.path + ": was opened for reading";
    const std::vector<const request_t*> changes = find_changes();
    for (const request_t* request : changes) {
        if (!reserve(*request))
            return failure("no room for the changes; nothing was changed");
    }
    for (const request_t* request : changes) {
        if (!write_file(request->data.data(), request->data.size(),
                        request->sector * BLK_SECTOR_SIZE))
            return failure("the image is damaged: cannot write");
    }
    if (!changes.empty() && fdatasync(image.file) != 0)
        return failure("cannot write");
    image.requests.clear();
    image.latest.clear();
    return {};
}

void image_close() {
    if (image.file >= 0)
        close(image.file);
    image = {};
}

uint64_t image_sectors() { return image.sectors; }

bool image_changed() { return !image.requests.empty(); }

bool image_sector(uint64_t sector, void* to) { return blk_read(sector, to, 1) == 0; }

bool image_put_sector(uint64_t sector, const void* from) { return blk_write(sector, from, 1) == 0; }

int blk_read(uint64_t sector, void* buf, uint32_t count) {
    if (buf == nullptr || !in_range(sector, count))
        return -1;
    auto* to = static_cast<uint8_t*>(buf);
    if (!read_file(to, size_t{count} * BLK_SECTOR_SIZE, sector * BLK_SECTOR_SIZE))
        return -1;
    for (uint32_t i = 0; i < count && !image.latest.empty(); ++i) {
        const auto found = image.latest.find(sector + i);
        if (found != image.latest.end())
            std::memcpy(to + size_t{i} * BLK_SECTOR_SIZE, found->second.data(), BLK_SECTOR_SIZE);
    }
    return 0;
}

int blk_write(uint64_t sector, const void* buf, uint32_t count) {
    const blk_piece_t piece = {buf, count};
    return blk_write_pieces(sector, {&piece, 1});
}

int blk_write_pieces(uint64_t sector, std::span<const blk_piece_t> pieces) {
    request_t request = {sector, {}};
    for (const blk_piece_t& piece : pieces) {
        if (piece.data == nullptr)
            return -1;
        const auto* from = static_cast<const uint8_t*>(piece.data);
        request.data.insert(request.data.end(), from, from + size_t{piece.count} * BLK_SECTOR_SIZE);
    }
    const size_t count = request.data.size() / BLK_SECTOR_SIZE;
    if (!in_range(sector, static_cast<uint32_t>(count)))
        return -1;
    for (size_t i = 0; i < count; ++i)
        std::memcpy(image.latest[sector + i].data(), &request.data[i * BLK_SECTOR_SIZE],
                    BLK_SECTOR_SIZE);
    image.requests.push_back(std::move(request));
    return 0;
}

uint64_t blk_capacity() { return image.sectors; }

bool blk_present() { return image.file >= 0; }
