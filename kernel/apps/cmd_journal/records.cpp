// What `journal`'s subcommands share: arguments, words, and lines of results.
#include <stdarg.h>

#include "kernel/apps/cmd_journal/internal.h"
#include "kernel/core/string.h"

namespace {

/// Copies a text field up to its end.
template <size_t room, size_t size>
void copy_printable(char (&out)[room], const char (&from)[size], bool quoted) {
    static_assert(room > 2 * size);
    size_t length = 0;
    for (size_t i = 0; i < size && from[i] != '\0'; i++) {
        const char c = from[i] >= ' ' && from[i] <= '~' ? from[i] : '?';
        if (quoted && (c == '"' || c == '\\'))
            out[length++] = '\\';
        out[length++] = c;
    }
    out[length] = '\0';
}

void add_parents(const cjournal_event_t& record, journal_line_t* line) {
    char list[CAUSAL_PARENTS_MAX * sizeof "4294967295;"] = "none";
    int length = 0;
    for (uint32_t i = 0; i < record.num_parents && i < CAUSAL_PARENTS_MAX; i++)
        length += ksnprintf(list + length, sizeof list - static_cast<size_t>(length), "%s%u",
                            i == 0 ? "" : ";", record.parents[i]);
    line->add("parents", "%s", list);
}

/// The fields that only the full form has.
void add_rest(const cjournal_event_t& record, journal_line_t* line) {
    uint32_t segment = 0;
    cjournal_hash_t hash;
    (void)cjournal_segment_for_event(record.id, &segment);
    cjournal_record_hash(CAUSAL_HASH_VERSION, record, &hash);
    line->add_number("segment", segment).add("node", "%08x", record.node_hash);
    line->add_number("children", record.child_count).add_number("schema", record.schema_id);
    line->add_number("schema_version", record.schema_version);
    line->add_number("payload_len", record.payload_len);
    line->add_hash("payload_hash", record.payload_hash);
    line->add_number("hashv", CAUSAL_HASH_VERSION).add_hash("hash", hash.bytes);
}

}  // namespace

const char* journal_status_word(int status) {
    if (status > 0)
        return "ok";
    return status == 0 ? "missing" : "bad";
}

const char* segment_hash_status_cached(uint32_t version) {
    constexpr const char* WORDS[] = {"missing", "ok-v1", "ok-v2", "ok-v3", "ok-v4"};
    static_assert(sizeof WORDS / sizeof WORDS[0] == CAUSAL_HASH_VERSION + 1);
    return version <= CAUSAL_HASH_VERSION ? WORDS[version] : "bad";
}

journal_text_t::journal_text_t(const cjournal_event_t& record, bool quoted) {
    copy_printable(subsystem, record.subsystem, quoted);
    copy_printable(desc, record.desc, quoted);
}

journal_line_t::journal_line_t(journal_form_t form, const char* word, const char* record_name)
    : is_record_(form != journal_form_t::text) {
    put(is_record_ ? record_name : "journal ");
    put(is_record_ ? "{source=journal,transport=syscall" : word);
    put(is_record_ ? "" : ":");
}

void journal_line_t::put(const char* piece) {
    const auto length = static_cast<uint32_t>(strlen(piece));
    if (len_ + length >= sizeof buf_) {
        kprint_text(buf_);
        len_ = 0;
    }
    string_copy(buf_ + len_, piece, sizeof buf_ - len_);
    len_ += length;
}

journal_line_t& journal_line_t::verdict(uint32_t segment, const char* status) {
    if (is_record_)
        return add_number("segment", segment).add("status", "%s", status);
    put(" ");
    put(status);
    return add_number("segment", segment);
}

journal_line_t& journal_line_t::add(const char* key, const char* fmt, ...) {
    char value[192];
    va_list args;
    va_start(args, fmt);
    kvsnprintf(value, sizeof value, fmt, args);
    va_end(args);
    put(is_record_ ? "," : " ");
    put(key);
    put("=");
    put(value);
    return *this;
}

journal_line_t& journal_line_t::add_hash(const char* key, const uint8_t hash[32]) {
    char hex[2 * CAUSAL_HASH_SIZE + 1];
    causal_hash_hex(hash, hex);
    return add(key, "%s", hex);
}

void journal_line_t::end() {
    put(is_record_ ? "}\n" : "\n");
    kprint_text(buf_);
}

void journal_print_record(journal_form_t form, const cjournal_event_t& record, int indent) {
    const journal_text_t text(record, form != journal_form_t::text);
    const char* type = causal_type_name(record.type);
    if (form == journal_form_t::text) {
        for (int i = 0; i < indent; i++)
            kprintf(" ");
        kprintf("[%u] T+%u %s %s: %s\n", record.id, record.wall_ticks, type, text.subsystem,
                text.desc);
        return;
    }
    journal_line_t line(form, "", "event");
    line.add_number("id", record.id).add("type", "%s", type).add_number("tick", record.wall_ticks);
    line.add("lamport", "%llu", static_cast<unsigned long long>(record.lamport));
    line.add("subsystem", "\"%s\"", text.subsystem).add("desc", "\"%s\"", text.desc);
    add_parents(record, &line);
    if (form == journal_form_t::full)
        add_rest(record, &line);
    line.end();
}

uint32_t journal_parse_archived(int argc, char** argv) {
    const char* word = argc >= 2 ? argv[1] : "";
    const uint32_t id = cjournal_resolve_archived_event_arg(word);
    if (id == 0)
        kprintf("journal %s: no archived event '%s'\n", argv[0], word);
    return id;
}

bool journal_parse_segment(int argc, char** argv, uint32_t* segment) {
    *segment = 0;
    if (argc < 2) {
        journal_each_entry([segment](const cjournal_entry_t& entry) {
            *segment = entry.segment_num > *segment ? entry.segment_num : *segment;
        });
        if (*segment == 0)
            kprintf("journal %s: there is no segment yet\n", argv[0]);
        return *segment != 0;
    }
    if (safe_parse_uint(argv[1], segment) == 0)
        return true;
    kprintf("journal %s: invalid segment '%s'\n", argv[0], argv[1]);
    return false;
}

bool journal_parse_full(int argc, char** argv, int at, bool* full) {
    *full = argc > at;
    if (!*full || strcmp(argv[at], "full") == 0)
        return true;
    kprintf("journal %s: '%s' is not 'full'\n", argv[0], argv[at]);
    return false;
}

bool journal_copy_entry(int32_t position, cjournal_entry_t* out) {
    const mutex_guard guard(cjournal_lock);
    if (position >= cjournal.index_count)
        return false;
    *out = cjournal.index[position];
    return true;
}
