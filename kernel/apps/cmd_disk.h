// The commands about files on the disk (VoFS). Names are relative to disk_cwd; "." and ".." are
// resolved in their text. Each error is one line that begins with the command's name; a command
// with several names goes on with the next one. Without a volume every command says so in one
// line. Contents pass through a heap buffer of 4 KiB (64 KiB where they are copied) and go to the
// console without being logged. All run in the task of the shell that dispatched them, and may run
// in several tasks at once.
#pragma once

#include <stddef.h>

/// The absolute path of `name` relative to the absolute path `cwd`: ".", ".." and empty components
/// resolved, no "/" at the end but the root's. 0, or -1 when the result has `size` characters or
/// more. Pure.
[[nodiscard]] int disk_path_join(const char* cwd, const char* name, char* out, size_t size);

/// disk_path_join relative to disk_cwd.
[[nodiscard]] int disk_make_path(const char* name, char* out, size_t size);

/// `diskls [-l] [name...]`: names in order, directories with a "/"; -l adds type, flag, size and
/// modification time.
void cmd_diskls(int argc, char** argv);

/// `diskcat name...`: contents, one file after the other.
void cmd_diskcat(int argc, char** argv);

/// `disktail [-n lines | -c bytes] name...`: the last lines, 10 by default.
void cmd_disktail(int argc, char** argv);

/// `diskhead [-n lines | -c bytes] name...`: the first lines, 10 by default.
void cmd_diskhead(int argc, char** argv);

/// `diskgrep [-cinv] text name...`: the lines that hold the text, of any length; -c counts them,
/// -i ignores case, -n numbers them, -v takes the others.
void cmd_diskgrep(int argc, char** argv);

/// `diskrgrep [-cinv] text [name]`: diskgrep of all files below a directory.
void cmd_diskrgrep(int argc, char** argv);

/// `diskwc name...`: lines, words and bytes, with a total for several files.
void cmd_diskwc(int argc, char** argv);

/// `diskhash name...`: BLAKE2s-256.
void cmd_diskhash(int argc, char** argv);

/// `diskcmp name name`: where two files begin to differ.
void cmd_diskcmp(int argc, char** argv);

/// `diskwrite name text...`: makes the words, joined with spaces, the file's contents. In them "\n"
/// stands for a line feed, "\t" for a tab and "\\" for a backslash.
void cmd_diskwrite(int argc, char** argv);

/// `diskappend name text...`: appends the words to a file, which is made when it is missing.
void cmd_diskappend(int argc, char** argv);

/// `diskfill name bytes [text]`: makes a file of so many bytes (K and M are units) that repeats a
/// text, "Vorn" and a line feed without one.
void cmd_diskfill(int argc, char** argv);

/// `disktruncate name bytes`: cuts a file, or extends it with zeros.
void cmd_disktruncate(int argc, char** argv);

/// `disktouch name...`: sets the modification time; makes an empty file when there is none.
void cmd_disktouch(int argc, char** argv);

/// `diskmkdir [-p] name...`: makes directories; -p: with those above them.
void cmd_diskmkdir(int argc, char** argv);

/// `diskrm [-r] name...`: removes files and empty directories; -r: trees.
void cmd_diskrm(int argc, char** argv);

/// `diskcd [name]`: sets the working directory, "/" without a name.
void cmd_diskcd(int argc, char** argv);

/// `diskpwd`: prints it.
void cmd_diskpwd(int argc, char** argv);

/// `diskcp from... to`: copies files, over one that exists or into a directory.
void cmd_diskcp(int argc, char** argv);

/// `diskmv from... to`: renames; a file takes the place of a file that exists.
void cmd_diskmv(int argc, char** argv);

/// `diskstat name...`: what the volume says of an entry.
void cmd_diskstat(int argc, char** argv);

/// `diskro name...`, `diskrw name...`: sets and clears the read-only flag.
void cmd_diskro(int argc, char** argv);
void cmd_diskrw(int argc, char** argv);

/// `diskdf`: blocks and inodes, in use and free.
void cmd_diskdf(int argc, char** argv);

/// `disktree [name]`: a directory with all below it, drawn.
void cmd_disktree(int argc, char** argv);

/// `diskdu [name]`: bytes on disk of each directory below a directory, and of that itself.
void cmd_diskdu(int argc, char** argv);

/// `diskfind [name] text`: the paths below a directory whose last component holds the text; "*"
/// and "?" stand for any characters and for one.
void cmd_diskfind(int argc, char** argv);

/// `diskcache [clear]`: what the sector cache did; empties it.
void cmd_diskcache(int argc, char** argv);

/// `fsck [repair]`: checks the volume; repair rebuilds its bitmap first.
void cmd_fsck(int argc, char** argv);
