// Contents: shown, counted, hashed, compared.
#include "kernel/apps/cmd_disk/common.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/noise.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal.h"

namespace {

constexpr uint32_t LINES_DEFAULT = 10;

/// How much of a file `diskhead` and `disktail` show.
struct extent_t {
    bool bytes;  ///< else lines
    uint32_t count;
};

/// Reads "-n N", "-c N" and "-N"; `*first` becomes the first name.
bool parse_extent(int argc, char** argv, extent_t* extent, int* first) {
    *extent = {false, LINES_DEFAULT};
    *first = 1;
    if (argc < 2 || argv[1][0] != '-')
        return argc >= 2;
    *first = 2;
    const char letter = argv[1][1];
    const char* number = argv[1] + 1;
    if (letter == 'n' || letter == 'c') {
        extent->bytes = letter == 'c';
        ++number;
        if (*number == '\0' && argc > 2)
            number = argv[(*first)++];
    }
    return safe_parse_uint(number, &extent->count) == 0 && *first < argc;
}

/// Shows a file from `offset` on, as far as `extent` says (a count of 0 lines: nothing).
void show(const char* command, const disk_entry_t& entry, uint32_t offset, extent_t extent) {
    disk_reader_t reader;
    disk_output_t out;
    if (!reader.open(command, entry))
        return;
    reader.seek(offset);
    while (extent.count > 0) {
        const int got = reader.next(extent.bytes ? extent.count : DISK_PIECE_BYTES);
        if (got <= 0)
            break;
        auto length = static_cast<uint32_t>(got);
        if (extent.bytes) {
            extent.count -= length;
        } else {
            uint32_t end = 0;
            for (; end < length && extent.count > 0; ++end)
                extent.count -= reader.data()[end] == '\n' ? 1 : 0;
            length = end;
        }
        out.write(reader.data(), length);
    }
    out.end();
}

constexpr extent_t EVERYTHING = {true, 0xFFFFFFFF};

/// Where the last `lines` lines of a file begin; -1 after a line when it cannot be read.
int64_t find_last_lines(const char* command, const disk_entry_t& entry, uint32_t lines) {
    disk_reader_t reader;
    if (lines == 0)
        return entry.stat.size;
    if (!reader.open(command, entry))
        return -1;
    // The line feed that ends the last line separates nothing.
    uint32_t end = entry.stat.size == 0 ? 0 : entry.stat.size - 1;
    while (end > 0) {
        const uint32_t start = end > DISK_PIECE_BYTES ? end - DISK_PIECE_BYTES : 0;
        reader.seek(start);
        const int got = reader.next(end - start);
        if (got < 0)
            return -1;
        for (auto i = static_cast<uint32_t>(got); i-- > 0;) {
            if (reader.data()[i] == '\n' && --lines == 0)
                return start + i + 1;
        }
        end = start;
    }
    return 0;
}

void show_head(const char* command, const disk_entry_t& entry, extent_t extent) {
    show(command, entry, 0, extent);
}

void show_tail(const char* command, const disk_entry_t& entry, extent_t extent) {
    const int64_t start = !extent.bytes ? find_last_lines(command, entry, extent.count)
                          : extent.count < entry.stat.size ? entry.stat.size - extent.count
                                                           : 0;
    if (start >= 0)
        show(command, entry, static_cast<uint32_t>(start), EVERYTHING);
}

void show_ends(int argc, char** argv,
               void (*show_one)(const char*, const disk_entry_t&, extent_t)) {
    if (!disk_ready(argv[0]))
        return;
    extent_t extent;
    int first = 0;
    if (!parse_extent(argc, argv, &extent, &first)) {
        kprintf("Usage: %s [-n lines | -c bytes] name...\n", argv[0]);
        return;
    }
    for (int i = first; i < argc; ++i) {
        disk_entry_t entry;
        if (!disk_find_file(argv[0], argv[i], &entry))
            continue;
        if (argc - first > 1)
            kprintf("==> %s <==\n", argv[i]);
        show_one(argv[0], entry, extent);
    }
}

struct counts_t {
    uint32_t lines, words, bytes;
};

void print_counts(const counts_t& counts, const char* name) {
    kprintf("%8u %8u %8u  %s\n", counts.lines, counts.words, counts.bytes, name);
}

constexpr bool is_space(uint8_t c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool count_file(const char* command, const disk_entry_t& entry, counts_t* counts) {
    disk_reader_t reader;
    if (!reader.open(command, entry))
        return false;
    bool in_word = false;
    int got = 0;
    while ((got = reader.next()) > 0) {
        counts->bytes += static_cast<uint32_t>(got);
        for (int i = 0; i < got; ++i) {
            const uint8_t c = reader.data()[i];
            counts->lines += c == '\n' ? 1 : 0;
            counts->words += !in_word && !is_space(c) ? 1 : 0;
            in_word = !is_space(c);
        }
    }
    return got == 0;
}

void print_hash(const char* command, const char* name, const disk_entry_t& entry) {
    disk_reader_t reader;
    if (!reader.open(command, entry))
        return;
    blake2s_t hash;
    blake2s_start(&hash);
    int got = 0;
    while ((got = reader.next()) > 0)
        blake2s_add(&hash, reader.data(), static_cast<uint32_t>(got));
    uint8_t digest[BLAKE2S_BYTES];
    char text[2 * BLAKE2S_BYTES + 1];
    blake2s_end(&hash, digest);
    causal_hash_hex(digest, text);
    if (got == 0)
        kprintf("%s  %s\n", text, name);
}

/// Where two files are, byte for byte.
struct place_t {
    uint32_t bytes;  ///< the same so far
    uint32_t lines;
};

/// Goes through pieces of two files; whether they are the same as far as both go.
bool same_bytes(const uint8_t* a, const uint8_t* b, uint32_t len, place_t* at) {
    for (uint32_t i = 0; i < len; ++i) {
        if (a[i] != b[i])
            return false;
        ++at->bytes;
        at->lines += a[i] == '\n' ? 1 : 0;
    }
    return true;
}

void compare(const char* command, char** names, const disk_entry_t& a, const disk_entry_t& b) {
    disk_reader_t left;
    disk_reader_t right;
    if (!left.open(command, a) || !right.open(command, b))
        return;
    place_t at = {};
    for (;;) {
        const int l = left.next();
        const int r = right.next();
        if (l < 0 || r < 0)
            return;
        const auto len = static_cast<uint32_t>(l < r ? l : r);
        if (!same_bytes(left.data(), right.data(), len, &at)) {
            kprintf("%s %s differ: byte %u, line %u\n", names[0], names[1], at.bytes + 1,
                    at.lines + 1);
            return;
        }
        if (l != r) {
            kprintf("%s: EOF on %s after byte %u\n", command, names[l < r ? 0 : 1], at.bytes);
            return;
        }
        if (l == 0)
            break;
    }
    kprintf("%s %s are the same: %u bytes\n", names[0], names[1], at.bytes);
}

}  // namespace

void cmd_diskcat(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    if (argc < 2)
        kprintf("Usage: diskcat name...\n");
    for (int i = 1; i < argc; ++i) {
        disk_entry_t entry;
        if (disk_find_file(argv[0], argv[i], &entry))
            show(argv[0], entry, 0, EVERYTHING);
    }
}

void cmd_diskhead(int argc, char** argv) { show_ends(argc, argv, show_head); }

void cmd_disktail(int argc, char** argv) { show_ends(argc, argv, show_tail); }

void cmd_diskwc(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    if (argc < 2)
        kprintf("Usage: diskwc name...\n");
    counts_t total = {};
    for (int i = 1; i < argc; ++i) {
        disk_entry_t entry;
        counts_t counts = {};
        if (!disk_find_file(argv[0], argv[i], &entry) || !count_file(argv[0], entry, &counts))
            continue;
        print_counts(counts, argv[i]);
        total.lines += counts.lines;
        total.words += counts.words;
        total.bytes += counts.bytes;
    }
    if (argc > 2)
        print_counts(total, "total");
}

void cmd_diskhash(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    if (argc < 2)
        kprintf("Usage: diskhash name...\n");
    for (int i = 1; i < argc; ++i) {
        disk_entry_t entry;
        if (disk_find_file(argv[0], argv[i], &entry))
            print_hash(argv[0], argv[i], entry);
    }
}

void cmd_diskcmp(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    if (argc != 3) {
        kprintf("Usage: diskcmp name name\n");
        return;
    }
    disk_entry_t a;
    disk_entry_t b;
    if (disk_find_file(argv[0], argv[1], &a) && disk_find_file(argv[0], argv[2], &b))
        compare(argv[0], argv + 1, a, b);
}
