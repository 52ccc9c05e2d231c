// The file commands. Names are relative to shell_cwd, and "." and ".." are resolved in their text.
// A path is read from the RAM filesystem when that holds it, else from VoFS; `ls` of a directory
// that both hold shows both. Writes go where kernel/fs/route.h says; missing directories on the
// disk are made. Each error is one line that begins with the command's name; a command with several
// names goes on with the next one. Contents pass through a small heap buffer and go to the
// console without being logged. All run in the task of the shell that dispatched them and may run
// in several tasks at once; no pointer into a filesystem is kept between two of its calls.
#pragma once

/// `ls [-l] [-a] [name...]`: names, directories with a "/"; -l adds type, size and where it lies;
/// -a shows names that begin with a dot.
void cmd_ls(int argc, char** argv);

/// `cat name...`: contents, one file after the other.
void cmd_cat(int argc, char** argv);

/// `head [-n lines] name...`: the first lines, 10 by default; `-n` may be written "-5".
void cmd_head(int argc, char** argv);

/// `tail [-n lines] name...`: the last lines, 10 by default.
void cmd_tail(int argc, char** argv);

/// `wc [-l] [-w] [-c] name...`: lines, words and bytes, with a total for several files.
void cmd_wc(int argc, char** argv);

/// `grep [-i] [-n] [-v] [-c] text name...`: the lines, of any length, that hold a text.
void cmd_grep(int argc, char** argv);

/// `cp [-r] from... to`: copies files, with -r directories.
void cmd_cp(int argc, char** argv);

/// `mv from... to`: moves or renames; a file takes the place of a file that exists.
void cmd_mv(int argc, char** argv);

/// `more name...`, `less name...`: a page at a time: space, Enter, b back, q ends.
void cmd_more(int argc, char** argv);

/// `mkdir [-p] name...`: makes directories.
void cmd_mkdir(int argc, char** argv);

/// `touch name...`: makes empty files, or sets the modification time of those on the disk.
void cmd_touch(int argc, char** argv);

/// `write name text...`: makes the words the file's contents.
void cmd_write(int argc, char** argv);

/// `rm [-r] [-f] name...`: removes files and empty directories, with -r whole trees.
void cmd_rm(int argc, char** argv);

/// `cd [name]`: sets the current directory of the RAM filesystem, "/" without a name.
void cmd_cd(int argc, char** argv);

/// `pwd`: prints it.
void cmd_pwd(int argc, char** argv);

/// `edit name`: a full-screen editor for files up to 64 KiB.
void cmd_edit(int argc, char** argv);
