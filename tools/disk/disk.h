// What the commands of the disk tool share. Data go to standard output, messages to standard error;
// a command's result is the program's exit code.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kernel/core/sys_stat.h"
#include "tools/host/image.h"

constexpr int EXIT_GOOD = 0;
constexpr int EXIT_BAD = 1;
constexpr int EXIT_USAGE = 2;

using arguments_t = std::vector<std::string>;

/// Prints "vorn disk: what" and returns EXIT_BAD, or EXIT_USAGE after a pointer to the help.
int complain(const std::string& what);
int complain_usage(const std::string& what);

/// Opens the image and mounts its volume; false after a message.
[[nodiscard]] bool mount_image(const std::string& image, image_access access);

/// Writes the changes to the image; EXIT_GOOD, or EXIT_BAD after a message.
[[nodiscard]] int commit_image();

/// The absolute path that an argument means; false after a message.
[[nodiscard]] bool make_path(const std::string& name, std::string* path);

/// Looks an entry up; false after a message when there is none.
[[nodiscard]] bool find_entry(const std::string& path, struct sys_stat* stat);

inline bool is_directory(const struct sys_stat& stat) { return stat.type == SYS_STAT_DIRECTORY; }

/// Why a change at `path` failed, as far as the volume tells it.
std::string why(const std::string& path);

/// The last component of a path; "" for the root.
std::string base_name(const std::string& path);

/// `name` in the directory `path`.
std::string path_in(const std::string& path, const std::string& name);

/// The names in a directory, sorted.
std::vector<std::string> list_names(const std::string& path);

/// Takes "-x" out of the arguments; whether it was there.
bool take_option(arguments_t* arguments, const std::string& option);

// The commands; `arguments` are those behind the command's name.
int run_ls(const std::string& image, arguments_t arguments);
int run_tree(const std::string& image, arguments_t arguments);
int run_get(const std::string& image, arguments_t arguments);
int run_put(const std::string& image, arguments_t arguments);
int run_rm(const std::string& image, arguments_t arguments);
int run_mkdir(const std::string& image, arguments_t arguments);
int run_stat(const std::string& image, arguments_t arguments);
int run_df(const std::string& image, arguments_t arguments);
int run_fsck(const std::string& image, arguments_t arguments);
int run_mkfs(const std::string& image, arguments_t arguments);
