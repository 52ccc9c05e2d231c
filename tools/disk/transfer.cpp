// Files into and out of the image.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "kernel/fs/blockfs.h"
#include "tools/disk/disk.h"

namespace {

constexpr uint32_t PIECE_BYTES = 65536;

std::string reason() { return strerror(errno); }

bool write_all(int file, const uint8_t* from, size_t bytes) {
    while (bytes > 0) {
        const ssize_t put = write(file, from, bytes);
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        from += put;
        bytes -= static_cast<size_t>(put);
    }
    return true;
}

/// Copies a file of the volume; an empty text, or what went wrong.
std::string copy_out(const std::string& path, const struct sys_stat& stat, int to,
                     const std::string& name) {
    std::vector<uint8_t> piece(PIECE_BYTES);
    for (uint32_t done = 0; done < stat.size;) {
        const int got =
            blockfs_read_file(static_cast<int>(stat.inode), piece.data(), done, PIECE_BYTES);
        if (got <= 0)
            return path + ": ends after " + std::to_string(done) + " of " +
                   std::to_string(stat.size) +
                   " bytes: the volume has faults, or the image cannot"
                   " be read";
        if (!write_all(to, piece.data(), static_cast<size_t>(got)))
            return name + ": " + reason();
        done += static_cast<uint32_t>(got);
    }
    return {};
}

/// Copies to a file that gets its name when it is complete.
int get_whole(const std::string& path, const struct sys_stat& stat, const std::string& name,
              mode_t mode) {
    std::string made = name + ".XXXXXX";
    const int file = mkstemp(made.data());
    if (file < 0)
        return complain(name + ": " + reason());
    std::string wrong = copy_out(path, stat, file, name);
    if (wrong.empty() && fchmod(file, mode) != 0)
        wrong = name + ": " + reason();
    if (close(file) != 0 && wrong.empty())
        wrong = name + ": " + reason();
    if (wrong.empty() && rename(made.c_str(), name.c_str()) != 0)
        wrong = name + ": " + reason();
    if (wrong.empty())
        return EXIT_GOOD;
    unlink(made.c_str());
    return complain(wrong);
}

/// Copies to a file of the host; into it, if it is a directory, through it, if it is a device.
int get_file(const std::string& path, const struct sys_stat& stat, std::string name) {
    struct stat st = {};
    if (::stat(name.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        name = path_in(name, base_name(path));
    const bool exists = ::stat(name.c_str(), &st) == 0;
    if (exists && S_ISDIR(st.st_mode))
        return complain(name + ": is a directory");
    if (!exists || S_ISREG(st.st_mode)) {
        const mode_t mask = umask(0);
        umask(mask);
        return get_whole(path, stat, name, exists ? st.st_mode & 07777 : 0666 & ~mask);
    }
    const int file = open(name.c_str(), O_WRONLY | O_CLOEXEC);
    if (file < 0)
        return complain(name + ": " + reason());
    const std::string wrong = copy_out(path, stat, file, name);
    close(file);
    return wrong.empty() ? EXIT_GOOD : complain(wrong);
}

/// Reads a file of the host, or standard input; false after a message.
bool read_input(const std::string& name, std::vector<uint8_t>* data) {
    const int file = name == "-" ? STDIN_FILENO : open(name.c_str(), O_RDONLY | O_CLOEXEC);
    ssize_t got = -1;
    if (file >= 0) {
        do {
            const size_t length = data->size();
            data->resize(length + PIECE_BYTES);
            got = read(file, data->data() + length, PIECE_BYTES);
            data->resize(length + (got > 0 ? static_cast<size_t>(got) : 0));
        } while ((got > 0 && data->size() <= BLOCKFS_FILE_BYTES_MAX) ||
                 (got < 0 && errno == EINTR));
    }
    const std::string shown = name == "-" ? "standard input" : name;
    if (got < 0)
        complain(shown + ": " + reason());
    else if (data->size() > BLOCKFS_FILE_BYTES_MAX)
        complain(shown + ": is larger than a file can be (" +
                 std::to_string(BLOCKFS_FILE_BYTES_MAX) + " bytes)");
    if (file > STDIN_FILENO)
        close(file);
    return got >= 0 && data->size() <= BLOCKFS_FILE_BYTES_MAX;
}

/// Where in the volume an input goes; false after a message.
bool find_place(const std::string& input, const std::string& wanted, std::string* path) {
    struct sys_stat stat;
    const std::string name = base_name(input);
    if (!make_path(wanted, path))
        return false;
    if (blockfs_stat(path->c_str(), &stat) != 0 || !is_directory(stat))
        return true;
    if (input == "-") {
        complain(*path + ": is a directory: standard input has no name to bear there");
        return false;
    }
    if (!make_path(path_in(*path, name), path))
        return false;
    if (blockfs_stat(path->c_str(), &stat) != 0 || !is_directory(stat))
        return true;
    complain(*path + ": is a directory");
    return false;
}

/// Beside the old contents, if there is room for both; over them otherwise: the image is changed as
/// a whole, or not at all.
bool store(const std::string& path, const std::vector<uint8_t>& data) {
    const auto length = static_cast<uint32_t>(data.size());
    if (blockfs_replace_file(path.c_str(), data.data(), length) == 0)
        return true;
    const int inode = blockfs_resolve(path.c_str());
    return inode >= 0 && blockfs_write_file(inode, data.data(), length) == static_cast<int>(length);
}

}  // namespace

int run_get(const std::string& image, arguments_t arguments) {
    if (arguments.empty() || arguments.size() > 2)
        return complain_usage("get needs a path, and takes the name of a file");
    std::string path;
    struct sys_stat stat;
    if (!mount_image(image, image_access::read) || !make_path(arguments[0], &path) ||
        !find_entry(path, &stat))
        return EXIT_BAD;
    if (is_directory(stat))
        return complain(path + ": is a directory");
    if (arguments.size() == 1 || arguments[1] != "-")
        return get_file(path, stat, arguments.size() == 1 ? base_name(path) : arguments[1]);
    const std::string wrong = copy_out(path, stat, STDOUT_FILENO, "standard output");
    return wrong.empty() ? EXIT_GOOD : complain(wrong);
}

int run_put(const std::string& image, arguments_t arguments) {
    if (arguments.empty() || arguments.size() > 2)
        return complain_usage("put needs the name of a file, and takes a path");
    if (arguments.size() == 1 && arguments[0] == "-")
        return complain_usage("put - needs a path");
    std::string path;
    std::vector<uint8_t> data;
    if (!mount_image(image, image_access::write) ||
        !find_place(arguments[0], arguments.size() == 2 ? arguments[1] : "/", &path) ||
        !read_input(arguments[0], &data))
        return EXIT_BAD;
    if (!store(path, data))
        return complain(path + ": " + why(path) + "; nothing was changed");
    return commit_image();
}
