// What is in a volume, and entries made and removed.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "kernel/fs/blockfs.h"
#include "tools/disk/disk.h"

namespace {

/// A path argument, or the root without one; false after a message.
bool take_path(const arguments_t& arguments, std::string* path, struct sys_stat* stat) {
    return make_path(arguments.empty() ? "/" : arguments[0], path) && find_entry(*path, stat);
}

/// A name as a terminal may see it: no byte of it is a command.
std::string shown(std::string name) {
    for (char& c : name) {
        if (static_cast<unsigned char>(c) < ' ' || c == 127)
            c = '?';
    }
    return name;
}

void print_entry(const std::string& name, const struct sys_stat& stat, bool details) {
    if (details)
        printf("%c %s %8u %10u  ", is_directory(stat) ? 'd' : '-',
               (stat.flags & BLOCKFS_READ_ONLY) != 0 ? "ro" : "rw", stat.size, stat.mtime_ticks);
    printf("%s%s\n", shown(name).c_str(), is_directory(stat) && name != "/" ? "/" : "");
}

struct count_t {
    uint32_t directories, files, unread;
};

/// Draws what is below `path`; `indent` stands before each line. As deep as paths are long.
void draw(const std::string& path, const std::string& indent, count_t* count) {
    const std::vector<std::string> names = list_names(path);
    for (size_t i = 0; i < names.size(); ++i) {
        const bool last = i + 1 == names.size();
        const std::string below = path_in(path, names[i]);
        struct sys_stat stat;
        // A damaged name with a "/" would lead elsewhere.
        if (names[i].find('/') != std::string::npos || blockfs_stat(below.c_str(), &stat) != 0) {
            complain(shown(below) + ": cannot be read");
            ++count->unread;
            continue;
        }
        printf("%s%s%s%s\n", indent.c_str(), last ? "`-- " : "|-- ", shown(names[i]).c_str(),
               is_directory(stat) ? "/" : "");
        ++(is_directory(stat) ? count->directories : count->files);
        if (is_directory(stat))
            draw(below, indent + (last ? "    " : "|   "), count);
    }
}

int remove_one(const std::string& name, bool tree) {
    std::string path;
    struct sys_stat stat;
    if (!make_path(name, &path) || !find_entry(path, &stat))
        return EXIT_BAD;
    if (path == "/")
        return complain("/: the root stays");
    if (!tree && is_directory(stat) && !list_names(path).empty())
        return complain(path + ": directory not empty (-r removes all of it)");
    if (tree && blockfs_remove_recursive(path.c_str()) != 0)
        return complain(path + ": it or something in it is read-only");
    if (!tree && blockfs_remove(path.c_str()) != 0)
        return complain(path + ": " + why(path));
    return EXIT_GOOD;
}

int make_one(const std::string& name, bool with_parents) {
    std::string path;
    if (!make_path(name, &path))
        return EXIT_BAD;
    struct sys_stat stat;
    const bool exists = blockfs_stat(path.c_str(), &stat) == 0;
    if (exists)
        return with_parents && is_directory(stat) ? EXIT_GOOD : complain(path + ": exists");
    const int made = with_parents ? blockfs_mkdir_p(path.c_str())
                                  : blockfs_create(path.c_str(), BLOCKFS_DIRECTORY);
    return made < 0 ? complain(path + ": " + why(path)) : EXIT_GOOD;
}

/// Runs `each` for all names and keeps what succeeded.
int change(const std::string& image, const arguments_t& names, bool option,
           int (*each)(const std::string& name, bool option)) {
    if (!mount_image(image, image_access::write))
        return EXIT_BAD;
    int result = EXIT_GOOD;
    for (const std::string& name : names)
        result = std::max(result, each(name, option));
    return std::max(result, commit_image());
}

void print_usage(const char* what, uint32_t total, uint32_t used, uint32_t unused) {
    const uint64_t percent = total == 0 ? 0 : (uint64_t{used} * 100 + total - 1) / total;
    printf("%-7s %10u %10u %10u %3llu%%\n", what, total, used, unused,
           static_cast<unsigned long long>(percent));
}

}  // namespace

std::string base_name(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string path_in(const std::string& path, const std::string& name) {
    return (path == "/" ? path : path + "/") + name;
}

std::vector<std::string> list_names(const std::string& path) {
    std::vector<std::string> names;
    std::string text;
    // A name that did not fit may be missing only where little room is left.
    for (size_t bytes = 16641; text.size() + BLOCKFS_NAME_MAX + 3 > text.capacity(); bytes *= 2) {
        text.assign(bytes, '\0');
        if (blockfs_list(path.c_str(), text.data(), static_cast<int>(bytes)) < 0)
            return {};
        text.resize(strlen(text.c_str()));
    }
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        // A name with a line feed in it is two lines, which may be empty.
        if (end != at)
            names.push_back(text.substr(at, end - at));
        at = end == std::string::npos ? text.size() : end + 1;
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool take_option(arguments_t* arguments, const std::string& option) {
    const auto found = std::find(arguments->begin(), arguments->end(), option);
    if (found == arguments->end())
        return false;
    arguments->erase(found);
    return true;
}

int run_ls(const std::string& image, arguments_t arguments) {
    const bool details = take_option(&arguments, "-l");
    if (arguments.size() > 1)
        return complain_usage("ls takes -l and one path");
    std::string path;
    struct sys_stat stat;
    if (!mount_image(image, image_access::read) || !take_path(arguments, &path, &stat))
        return EXIT_BAD;
    if (!is_directory(stat)) {
        print_entry(path, stat, details);
        return EXIT_GOOD;
    }
    int result = EXIT_GOOD;
    for (const std::string& name : list_names(path)) {
        if (find_entry(path_in(path, name), &stat))
            print_entry(name, stat, details);
        else
            result = EXIT_BAD;
    }
    return result;
}

int run_tree(const std::string& image, arguments_t arguments) {
    if (arguments.size() > 1)
        return complain_usage("tree takes one path");
    std::string path;
    struct sys_stat stat;
    if (!mount_image(image, image_access::read) || !take_path(arguments, &path, &stat))
        return EXIT_BAD;
    count_t count = {};
    printf("%s\n", path.c_str());
    if (is_directory(stat))
        draw(path, "", &count);
    printf("%u directories, %u files\n", count.directories, count.files);
    return count.unread == 0 ? EXIT_GOOD : EXIT_BAD;
}

int run_rm(const std::string& image, arguments_t arguments) {
    const bool tree = take_option(&arguments, "-r");
    if (arguments.empty())
        return complain_usage("rm needs a path");
    return change(image, arguments, tree, remove_one);
}

int run_mkdir(const std::string& image, arguments_t arguments) {
    const bool with_parents = take_option(&arguments, "-p");
    if (arguments.empty())
        return complain_usage("mkdir needs a path");
    return change(image, arguments, with_parents, make_one);
}

int run_stat(const std::string& image, arguments_t arguments) {
    if (arguments.size() != 1)
        return complain_usage("stat needs a path");
    std::string path;
    struct sys_stat stat;
    if (!mount_image(image, image_access::read) || !take_path(arguments, &path, &stat))
        return EXIT_BAD;
    printf("%s\n", path.c_str());
    printf("  Type:      %s\n", is_directory(stat) ? "directory" : "file");
    printf("  Size:      %u bytes\n", stat.size);
    printf("  Blocks:    %u\n", stat.blocks);
    printf("  Inode:     %u\n", stat.inode);
    printf("  Flags:     %s\n", (stat.flags & BLOCKFS_READ_ONLY) != 0 ? "read-only" : "none");
    printf("  Created:   tick %u\n", stat.ctime_ticks);
    printf("  Modified:  tick %u\n", stat.mtime_ticks);
    return EXIT_GOOD;
}

int run_df(const std::string& image, arguments_t arguments) {
    if (!arguments.empty())
        return complain_usage("df takes no arguments");
    uint32_t blocks[3];
    uint32_t inodes[3];
    if (!mount_image(image, image_access::read))
        return EXIT_BAD;
    if (blockfs_df(&blocks[0], &blocks[1], &blocks[2], &inodes[0], &inodes[1], &inodes[2]) != 0)
        return complain("the image cannot be read");
    printf("             TOTAL       USED       FREE  USE\n");
    print_usage("Blocks", blocks[0], blocks[1], blocks[2]);
    print_usage("Inodes", inodes[0], inodes[1], inodes[2]);
    printf("A block has %u bytes: %u KB free\n", BLOCKFS_BLOCK_BYTES, blocks[2] / 2);
    return EXIT_GOOD;
}
