// The image and the volume in it: opening, checking, making.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "kernel/apps/cmd_disk.h"
#include "kernel/fs/blockfs.h"
#include "kernel/fs/blockfs/format.h"
#include "tools/disk/disk.h"
#include "tools/host/host.h"

namespace {

/// The lines that the filesystem printed.
std::string printed;

void keep(const char* text) { printed += text; }

bool is_fault(const std::string& line) {
    for (const char* word : {"ERROR", "WARNING", "warning", "error", "invalid"}) {
        if (line.find(word) != std::string::npos)
            return true;
    }
    return false;
}

bool is_about_check(const std::string& line) {
    return is_fault(line) || line.starts_with("[fsck]");
}

bool is_about_format(const std::string& line) {
    return is_fault(line) || line.starts_with("[vofs] format") ||
           line.starts_with("[vofs] Formatted");
}

/// Takes those of the lines printed so far that are wanted; the others are forgotten.
std::string take_lines(bool (*is_wanted)(const std::string& line)) {
    std::string taken;
    for (size_t at = 0; at < printed.size();) {
        const size_t end = std::min(printed.find('\n', at), printed.size() - 1) + 1;
        const std::string line = printed.substr(at, end - at);
        if (is_wanted(line))
            taken += line;
        at = end;
    }
    printed.clear();
    return taken;
}

bool holds_volume() {
    vofs_super super;
    return image_sector(0, &super) && super.magic == VOFS_MAGIC;
}

/// Mounts the volume of the open image; what was printed is kept.
bool mount_open(const std::string& image) {
    if (!holds_volume()) {
        complain(image + ": holds no volume (vorn disk " + image + " mkfs makes one)");
        return false;
    }
    host_set_print(keep);
    if (blockfs_init() == 0)
        return true;
    fputs(take_lines(is_fault).c_str(), stderr);
    complain(image + ": its volume cannot be mounted");
    return false;
}

bool open_image(const std::string& image, image_access access) {
    const std::string wrong = image_open(image, access);
    if (!wrong.empty())
        complain(wrong);
    return wrong.empty();
}

constexpr uint64_t KILO = 1024;

/// Reads a size such as "64M", "4G" or "1000s"; 0 when it is none.
uint64_t parse_size(const std::string& text) {
    constexpr uint64_t BYTES_MAX = uint64_t{1} << 50;
    size_t digits = 0;
    uint64_t value = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9' && digits < 15)
        value = value * 10 + static_cast<uint64_t>(text[digits++] - '0');
    const std::string unit = text.substr(digits);
    if (digits == 0)
        return 0;
    uint64_t scale = 1;
    if (unit == "s")
        scale = BLOCKFS_BLOCK_BYTES;
    else if (unit == "K")
        scale = KILO;
    else if (unit == "M")
        scale = KILO * KILO;
    else if (unit == "G")
        scale = KILO * KILO * KILO;
    else if (!unit.empty())
        return 0;
    return value <= BYTES_MAX / scale ? value * scale : 0;
}

/// Whether the image holds nothing where filesystems begin.
bool is_blank() {
    constexpr uint64_t SECTORS = 128;
    for (uint64_t sector = 0; sector < SECTORS && sector < image_sectors(); ++sector) {
        uint8_t data[VOFS_SECTOR];
        if (!image_sector(sector, data) ||
            std::any_of(data, data + sizeof data, [](uint8_t byte) { return byte != 0; }))
            return false;
    }
    return true;
}

/// Formats the open image.
int format_open() {
    uint8_t empty[VOFS_SECTOR] = {};
    if (holds_volume() && !image_put_sector(0, empty))
        return complain("the image cannot be changed");
    host_set_print(keep);
    const int failed = blockfs_init();
    fputs(take_lines(is_about_format).c_str(), stderr);
    return failed != 0 ? complain("no volume was made") : commit_image();
}

int format_existing(const std::string& image, uint64_t bytes, bool force) {
    if (!open_image(image, image_access::write))
        return EXIT_BAD;
    if (bytes != 0 && bytes / BLOCKFS_BLOCK_BYTES != image_sectors())
        return complain(image + ": exists and has " + std::to_string(image_sectors()) +
                        " sectors; remove it for another size");
    if (!force && !is_blank())
        return complain(image + ": holds " + (holds_volume() ? "a volume" : "something") +
                        " already (--force makes a new volume)");
    return format_open();
}

/// Makes the image under another name first, so that nothing half done bears its own.
int format_new(const std::string& image, uint64_t bytes) {
    std::string name = image + ".XXXXXX";
    const int file = mkstemp(name.data());
    if (file < 0)
        return complain(image + ": cannot make it: " + strerror(errno));
    const mode_t mask = umask(0);
    umask(mask);
    const bool sized =
        fchmod(file, 0666 & ~mask) == 0 && ftruncate(file, static_cast<off_t>(bytes)) == 0;
    const int reason = errno;
    close(file);
    int result = EXIT_BAD;
    if (!sized)
        complain(image + ": cannot make it: " + strerror(reason));
    else if (open_image(name, image_access::write))
        result = format_open();
    // No other image of that name has appeared meanwhile.
    if (result == EXIT_GOOD && link(name.c_str(), image.c_str()) != 0)
        result = complain(image + ": cannot make it: " + strerror(errno));
    unlink(name.c_str());
    return result;
}

}  // namespace

int complain(const std::string& what) {
    fflush(stdout);
    fprintf(stderr, "vorn disk: %s\n", what.c_str());
    return EXIT_BAD;
}

int complain_usage(const std::string& what) {
    complain(what + " (vorn disk --help lists all)");
    return EXIT_USAGE;
}

bool mount_image(const std::string& image, image_access access) {
    if (!open_image(image, access) || !mount_open(image))
        return false;
    const std::string faults = take_lines(is_fault);
    if (!faults.empty())
        fprintf(stderr, "%svorn disk: the volume has faults: see `fsck`\n", faults.c_str());
    return true;
}

int commit_image() {
    const std::string wrong = image_commit();
    return wrong.empty() ? EXIT_GOOD : complain(wrong);
}

bool make_path(const std::string& name, std::string* path) {
    char joined[BLOCKFS_PATH_MAX + 1];
    const bool fits = disk_path_join("/", name.c_str(), joined, sizeof joined) == 0;
    if (!fits || !vofs_path_valid(joined))
        complain(name + ": name too long");
    else
        *path = joined;
    return fits && vofs_path_valid(joined);
}

bool find_entry(const std::string& path, struct sys_stat* stat) {
    if (blockfs_stat(path.c_str(), stat) == 0)
        return true;
    complain(path + ": no such file or directory");
    return false;
}

std::string why(const std::string& path) {
    struct sys_stat stat;
    if (blockfs_stat(path.c_str(), &stat) == 0 && (stat.flags & BLOCKFS_READ_ONLY) != 0)
        return "read-only";
    const size_t slash = path.rfind('/');
    const std::string parent = slash == 0 ? "/" : path.substr(0, slash);
    if (blockfs_stat(parent.c_str(), &stat) != 0)
        return "no such directory";
    if (!is_directory(stat))
        return "a file stands where a directory should be";
    if ((stat.flags & BLOCKFS_READ_ONLY) != 0)
        return "its directory is read-only";
    uint32_t inodes = 0;
    if (blockfs_df(nullptr, nullptr, nullptr, nullptr, nullptr, &inodes) != 0)
        return "the image cannot be read";
    return inodes == 0 && blockfs_resolve(path.c_str()) < 0 ? "no inode is free"
                                                            : "the volume is full";
}

int run_fsck(const std::string& image, arguments_t arguments) {
    const bool repair = arguments.size() == 1 && arguments[0] == "repair";
    if (!arguments.empty() && !repair)
        return complain_usage("fsck takes 'repair' or nothing");
    if (!open_image(image, repair ? image_access::write : image_access::read) || !mount_open(image))
        return EXIT_BAD;
    // What the mount mends it mends in memory only, after its check has shown it.
    bool sound = !image_changed();
    std::string lines = take_lines(is_about_check);
    if (repair) {
        const bool repaired = blockfs_fsck_repair() == 0;
        sound = blockfs_fsck() == 0 && repaired;
        lines += take_lines(is_about_check);
        if (commit_image() != EXIT_GOOD)
            return EXIT_BAD;
    } else {
        sound = sound && blockfs_fsck() == 0;
    }
    fputs(lines.c_str(), stdout);
    if (sound)
        return EXIT_GOOD;
    return complain(repair || !image_changed()
                        ? "the volume has faults"
                        : "the next start, or `fsck repair`, mends the bitmap and what a power"
                          " cut left");
}

int run_mkfs(const std::string& image, arguments_t arguments) {
    constexpr uint64_t BYTES_DEFAULT = 64 * KILO * KILO;
    const bool force = take_option(&arguments, "--force");
    uint64_t bytes = 0;
    if (arguments.size() > 1 || (arguments.size() == 1 && (bytes = parse_size(arguments[0])) == 0))
        return complain_usage("mkfs takes a size such as 64M, 4G or 1000s, and --force");
    struct stat st = {};
    if (stat(image.c_str(), &st) == 0)
        return format_existing(image, bytes, force);
    if (errno != ENOENT)
        return complain(image + ": " + strerror(errno));
    return format_new(image, bytes != 0 ? bytes : BYTES_DEFAULT);
}
