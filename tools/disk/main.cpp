// The disk tool: looks at and changes the volume in an image file, with the kernel's own code.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "tools/disk/disk.h"

namespace {

constexpr const char* HELP =
    "Usage: vorn disk IMAGE COMMAND [ARGUMENTS]\n"
    "\n"
    "Looks at and changes the files of a disk image while no machine runs on it.\n"
    "\n"
    "  ls [-l] [PATH]        the names in a directory; -l: type, flag, size, time in ticks\n"
    "  tree [PATH]           a directory with all below it\n"
    "  get PATH [FILE]       copies a file out of the image; FILE \"-\" is standard output\n"
    "  put FILE [PATH]       copies a file into the image; FILE \"-\" is standard input\n"
    "  rm [-r] PATH...       removes files and empty directories; -r: with all below them\n"
    "  mkdir [-p] PATH...    makes directories; -p: with those above them\n"
    "  stat PATH             what the volume says of an entry\n"
    "  df                    blocks and inodes, in use and free\n"
    "  fsck [repair]         checks the volume; repair: mends what a power cut left, and rebuilds\n"
    "                        the bitmap of what is in use\n"
    "  mkfs [SIZE] [--force] makes a volume: on an existing image (--force: also over what it\n"
    "                        holds), or in a new sparse image of SIZE bytes (units K, M, G, and\n"
    "                        s for sectors; 64M without it)\n"
    "\n"
    "Paths begin at the root, with or without \"/\". A command that fails leaves the image as it\n"
    "was; rm and mkdir of several paths keep what succeeded. Exit codes: 0 good, 1 bad, 2 wrong\n"
    "usage.\n";

struct command_t {
    std::string_view name;
    int (*run)(const std::string& image, arguments_t arguments);
};

constexpr command_t COMMANDS[] = {
    {"ls", run_ls},     {"tree", run_tree},   {"get", run_get},   {"put", run_put},
    {"rm", run_rm},     {"mkdir", run_mkdir}, {"stat", run_stat}, {"df", run_df},
    {"fsck", run_fsck}, {"mkfs", run_mkfs},
};

bool is_help(std::string_view word) { return word == "--help" || word == "-h" || word == "help"; }

int run(const arguments_t& words) {
    for (const std::string& word : words) {
        if (word == "--help" || word == "-h" || (words.size() == 1 && is_help(word))) {
            fputs(HELP, stdout);
            return EXIT_GOOD;
        }
    }
    if (words.size() < 2)
        return complain_usage(words.empty() ? "which image?" : "which command?");
    for (const command_t& command : COMMANDS) {
        if (words[1] == command.name)
            return command.run(words[0], {words.begin() + 2, words.end()});
    }
    return complain_usage("unknown command '" + words[1] + "'");
}

}  // namespace

int main(int argc, char** argv) {
    int result = run({argv + 1, argv + argc});
    image_close();
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        result = complain(std::string("standard output: ") + strerror(errno));
    return result;
}
