// What changes the volume: contents, directories, removal.
#include "kernel/apps/cmd_disk/common.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"

namespace {

constexpr uint32_t OPTION_FIRST = 1;  // the only letter of `diskmkdir -p` and `diskrm -r`
constexpr const char* FILLING = "Vorn\n";

/// Puts what "\n", "\t" and "\\" stand for in their place; the new length.
uint32_t unescape(char* text) {
    uint32_t length = 0;
    for (const char* from = text; *from != '\0'; ++from) {
        char c = *from;
        if (c == '\\' && (from[1] == 'n' || from[1] == 't' || from[1] == '\\')) {
            ++from;
            c = *from == 'n' ? '\n' : *from == 't' ? '\t' : '\\';
        }
        text[length++] = c;
    }
    text[length] = '\0';
    return length;
}

/// The path of a file to be written to, which need not exist; false after a line.
bool name_file(const char* command, const char* name, char path[SHELL_PATH_BYTES]) {
    disk_entry_t entry;
    if (!disk_name(command, name, path))
        return false;
    if (!disk_look(path, &entry) || !disk_is_directory(entry))
        return true;
    disk_complain(command, name, "is a directory");
    return false;
}

/// The inode of an existing or new file; -1 after a line.
int open_file(const char* command, const char* name, char path[SHELL_PATH_BYTES]) {
    if (!name_file(command, name, path))
        return -1;
    int inode = blockfs_resolve(path);
    if (inode < 0)
        inode = blockfs_create(path, BLOCKFS_FILE);
    if (inode < 0)
        disk_complain(command, name, disk_why(path));
    return inode;
}

/// Fills `buffer` with `text` over and over, as it stands at `offset` of its repetition.
void fill(uint8_t* buffer, const char* text, uint32_t offset) {
    const auto length = static_cast<uint32_t>(strlen(text));
    uint32_t at = offset % length;
    for (uint32_t i = 0; i < DISK_COPY_BYTES; ++i) {
        buffer[i] = static_cast<uint8_t>(text[at]);
        at = at + 1 == length ? 0 : at + 1;
    }
}

/// Appends `bytes` of the repeated text to an empty file; the bytes appended.
uint32_t append_filling(const char* path, int inode, uint8_t* buffer, const char* text,
                        uint32_t bytes) {
    uint32_t done = 0;
    while (done < bytes) {
        const uint32_t piece = bytes - done < DISK_COPY_BYTES ? bytes - done : DISK_COPY_BYTES;
        fill(buffer, text, done);
        const uint32_t stored = disk_append(path, inode, buffer, piece);
        if (stored == 0)
            break;
        done += stored;
    }
    return done;
}

void fill_file(const char* command, const char* name, uint32_t bytes, const char* text) {
    const heap_ptr<uint8_t> buffer = heap_ptr<uint8_t>::make(DISK_COPY_BYTES);
    if (!buffer) {
        disk_complain(command, name, "no memory");
        return;
    }
    char path[SHELL_PATH_BYTES];
    const int inode = open_file(command, name, path);
    if (inode < 0)
        return;
    if (blockfs_write_file(inode, nullptr, 0) != 0) {
        disk_complain(command, name, disk_why(path));
        return;
    }
    const uint32_t done = append_filling(path, inode, buffer.get(), text, bytes);
    if (done != bytes)
        kprintf("%s: %s: %u of %u bytes written: %s\n", command, name, done, bytes,
                disk_append_why(path, inode));
}

void make_directory(const char* command, const char* name, bool with_parents) {
    disk_entry_t entry;
    if (!disk_name(command, name, entry.path))
        return;
    const bool exists = disk_look(entry.path, &entry);
    if (exists && !(with_parents && disk_is_directory(entry)))
        disk_complain(command, name, "exists");
    else if (!exists && (with_parents ? blockfs_mkdir_p(entry.path)
                                      : blockfs_create(entry.path, BLOCKFS_DIRECTORY)) < 0)
        disk_complain(command, name, disk_why(entry.path));
}

bool is_empty(const char* path) {
    char names[BLOCKFS_NAME_MAX + 3];
    return blockfs_list(path, names, sizeof names) == 0;
}

void remove_entry(const char* command, const char* name, bool tree) {
    disk_entry_t entry;
    if (!disk_find(command, name, &entry))
        return;
    if (strcmp(entry.path, "/") == 0)
        disk_complain(command, name, "the root stays");
    else if (!tree && disk_is_directory(entry) && !is_empty(entry.path))
        disk_complain(command, name, "directory not empty (-r removes all of it)");
    else if (tree && blockfs_remove_recursive(entry.path) != 0)
        disk_complain(command, name,
                      disk_is_directory(entry) ? "it or something in it is read-only, or the disk "
                                                 "fails"
                                               : disk_why(entry.path));
    else if (!tree && blockfs_remove(entry.path) != 0)
        disk_complain(command, name, disk_why(entry.path));
}

/// Runs `each` for all names of a command with one possible letter.
void for_names(int argc, char** argv, const char* letter,
               void (*each)(const char* command, const char* name, bool option)) {
    if (!disk_ready(argv[0]))
        return;
    uint32_t options = 0;
    int first = 0;
    if (!disk_options(argc, argv, letter, &options, &first) || first == argc) {
        kprintf("Usage: %s [-%s] name...\n", argv[0], letter);
        return;
    }
    for (int i = first; i < argc; ++i)
        each(argv[0], argv[i], (options & OPTION_FIRST) != 0);
}

}  // namespace

void cmd_diskwrite(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    if (argc < 2) {
        kprintf("Usage: diskwrite name text...\n");
        return;
    }
    char path[SHELL_PATH_BYTES];
    char text[SHELL_LINE_BYTES];
    if (!name_file(argv[0], argv[1], path))
        return;
    shell_concat_args(text, sizeof text, argc, argv, 2);
    if (blockfs_replace_file(path, text, unescape(text)) != 0)
        disk_complain(argv[0], argv[1], disk_why(path));
}

void cmd_diskappend(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    if (argc < 3) {
        kprintf("Usage: diskappend name text...\n");
        return;
    }
    char path[SHELL_PATH_BYTES];
    char text[SHELL_LINE_BYTES];
    shell_concat_args(text, sizeof text, argc, argv, 2);
    const uint32_t length = unescape(text);
    const int inode = open_file(argv[0], argv[1], path);
    const auto* bytes = reinterpret_cast<const uint8_t*>(text);
    if (inode >= 0 && disk_append(path, inode, bytes, length) != length)
        disk_complain(argv[0], argv[1], disk_append_why(path, inode));
}

void cmd_diskfill(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    uint32_t bytes = 0;
    if (argc < 3 || argc > 4 || !disk_parse_size(argv[2], &bytes) ||
        (argc == 4 && argv[3][0] == '\0')) {
        kprintf("Usage: diskfill name bytes[K|M] [text]\n");
        return;
    }
    if (bytes > BLOCKFS_FILE_BYTES_MAX) {
        kprintf("diskfill: a file has at most %u bytes\n", BLOCKFS_FILE_BYTES_MAX);
        return;
    }
    if (argc == 4)
        unescape(argv[3]);
    fill_file(argv[0], argv[1], bytes, argc == 4 ? argv[3] : FILLING);
}

void cmd_disktruncate(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    uint32_t bytes = 0;
    if (argc != 3 || !disk_parse_size(argv[2], &bytes)) {
        kprintf("Usage: disktruncate name bytes[K|M]\n");
        return;
    }
    if (bytes > BLOCKFS_FILE_BYTES_MAX) {
        kprintf("disktruncate: a file has at most %u bytes\n", BLOCKFS_FILE_BYTES_MAX);
        return;
    }
    char path[SHELL_PATH_BYTES];
    const int inode = open_file(argv[0], argv[1], path);
    if (inode >= 0 && blockfs_truncate_file(inode, bytes) != 0)
        disk_complain(argv[0], argv[1], disk_why(path));
}

void cmd_disktouch(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    if (argc < 2)
        kprintf("Usage: disktouch name...\n");
    for (int i = 1; i < argc; ++i) {
        char path[SHELL_PATH_BYTES];
        if (disk_name(argv[0], argv[i], path) && blockfs_touch(path) != 0)
            disk_complain(argv[0], argv[i], disk_why(path));
    }
}

void cmd_diskmkdir(int argc, char** argv) { for_names(argc, argv, "p", make_directory); }

void cmd_diskrm(int argc, char** argv) { for_names(argc, argv, "r", remove_entry); }
