#include "kernel/graph/causal_schema.h"

#include "kernel/core/string.h"
#include "kernel/core/string/words.h"

namespace {

constexpr causal_schema_def_t SCHEMAS[] = {
    {CAUSAL_SCHEMA_LEGACY_TEXT, 1, "legacy.text", "Activity", "free-form legacy event description"},
    {CAUSAL_SCHEMA_SYSCALL, 1, "syscall", "Activity",
     "system call entry with syscall number, pid, and argument summary"},
    {CAUSAL_SCHEMA_TASK_CREATE, 1, "task.create", "Agent", "task/process creation"},
    {CAUSAL_SCHEMA_TASK_EXIT, 1, "task.exit", "Agent", "task/process exit"},
    {CAUSAL_SCHEMA_ACTOR_SEND, 1, "actor.send", "Activity", "actor mailbox send"},
    {CAUSAL_SCHEMA_ACTOR_RECV, 1, "actor.recv", "Activity", "actor mailbox receive"},
    {CAUSAL_SCHEMA_FS_WRITE, 1, "fs.write", "Activity", "persistent or RAM filesystem write"},
    {CAUSAL_SCHEMA_FS_CREATE, 1, "fs.create", "Entity", "filesystem entity creation"},
    {CAUSAL_SCHEMA_NET_PACKET, 1, "net.packet", "Entity", "network packet transmit or receive"},
    {CAUSAL_SCHEMA_MESH_PEER, 1, "mesh.peer", "Agent", "mesh peer state change"},
    {CAUSAL_SCHEMA_TIMELINE_EVENT, 1, "timeline.event", "Activity", "timeline application event"},
    {CAUSAL_SCHEMA_CAP_GRANT, 1, "cap.grant", "Activity", "capability grant or delegation"},
};
constexpr uint32_t SCHEMA_COUNT = sizeof SCHEMAS / sizeof SCHEMAS[0];

/// What an event is about, most telling first: where type and subsystem differ, the first counts.
enum topic_t : uint8_t {
    TOPIC_SYSCALL,
    TOPIC_ACTOR,
    TOPIC_FS,
    TOPIC_NET,
    TOPIC_MESH,
    TOPIC_TIMELINE,
    TOPIC_CAP,
    TOPIC_SCHED,
    TOPIC_OTHER,
};

constexpr topic_t TOPIC_OF_TYPE[CAUSAL_TYPE_COUNT] = {
    TOPIC_SCHED, TOPIC_OTHER, TOPIC_FS,   TOPIC_NET,   TOPIC_SYSCALL,
    TOPIC_OTHER, TOPIC_ACTOR, TOPIC_MESH, TOPIC_OTHER, TOPIC_OTHER,
};

/// Four characters of a zero-padded text as the word that they are in memory.
constexpr uint32_t four(const char (&s)[5]) {
    return static_cast<uint32_t>(s[0]) | static_cast<uint32_t>(s[1]) << 8 |
           static_cast<uint32_t>(s[2]) << 16 | static_cast<uint32_t>(s[3]) << 24;
}

/// Word `i` of `text`.
inline uint32_t word_at(const char* text, uint32_t i) {
    return reinterpret_cast<const text_word_t*>(text)[i].bits;
}

/// The topic of a subsystem's tag. The tag is terminated, but what follows may be anything, so each
/// case compares no word behind the one that ends the name.
topic_t topic_of_subsystem(const char s[CAUSAL_SUBSYSTEM_SIZE]) {
    const auto ends = [s](uint32_t at) { return s[at] == '\0'; };
    switch (word_at(s, 0)) {
        case four("sysc"):
            return word_at(s, 1) == four("all\0") ? TOPIC_SYSCALL : TOPIC_OTHER;
        case four("acto"):
            return s[4] == 'r' && ends(5) ? TOPIC_ACTOR : TOPIC_OTHER;
        case four("vofs"):
            return ends(4) ? TOPIC_FS : TOPIC_OTHER;
        case four("net\0"):
        case four("tcp\0"):
        case four("udp\0"):
            return TOPIC_NET;
        case four("mesh"):
            return ends(4) ? TOPIC_MESH : TOPIC_OTHER;
        case four("fede"):
            return word_at(s, 1) == four("rati") && s[8] == 'o' && s[9] == 'n' && ends(10)
                       ? TOPIC_MESH
                       : TOPIC_OTHER;
        case four("remo"):
            return word_at(s, 1) == four("te-p") && word_at(s, 2) == four("aren") && s[12] == 't' &&
                           ends(13)
                       ? TOPIC_MESH
                       : TOPIC_OTHER;
        case four("time"):
            return word_at(s, 1) == four("line") && ends(8) ? TOPIC_TIMELINE : TOPIC_OTHER;
        case four("cap\0"):
            return TOPIC_CAP;
        case four("capa"):
            return word_at(s, 1) == four("bili") && s[8] == 't' && s[9] == 'y' && ends(10)
                       ? TOPIC_CAP
                       : TOPIC_OTHER;
        case four("sche"):
            return s[4] == 'd' && ends(5) ? TOPIC_SCHED : TOPIC_OTHER;
        default:
            break;
    }
    if (s[0] == 'f' && s[1] == 's' && ends(2))
        return TOPIC_FS;
    return s[0] == 't' && s[1] == 'l' && ends(2) ? TOPIC_TIMELINE : TOPIC_OTHER;
}

/// A description: `len` characters in a zero-filled field of CAUSAL_DESC_SIZE bytes.
struct desc_t {
    const char* text;
    uint32_t len;
};

/// Whether `word` stands at `at`.
template <uint32_t size>
[[gnu::always_inline]] inline bool stands_at(const desc_t& desc, uint32_t at,
                                             const char (&word)[size]) {
    return at + size - 1 <= desc.len && __builtin_memcmp(desc.text + at, word, size - 1) == 0;
}

/// Bit 7 of each byte of `bits` that is `c`, and perhaps of some that are not.
inline uint32_t maybe(uint32_t bits, char c) {
    return ((bits ^ word_of(static_cast<uint8_t>(c))) - WORD_LOW_BITS) & WORD_HIGH_BITS;
}

/// Whether `word` stands anywhere. Every event of the scheduler and the file systems is searched,
/// so this goes by eight bytes, looking for letter number `letter`: a rare one is a good choice.
template <uint32_t letter, uint32_t size>
[[gnu::always_inline]] inline bool contains(const desc_t& desc, const char (&word)[size]) {
    for (uint32_t from = 0; from < desc.len; from += 8) {
        const uint32_t first = maybe(word_at(desc.text + from, 0), word[letter]);
        const uint32_t second = maybe(word_at(desc.text + from, 1), word[letter]);
        if ((first | second) == 0)
            continue;
        // Bit 7 of each byte marks the first four characters, bit 6 the second four.
        for (uint32_t marks = first | second >> 1; marks != 0; marks &= marks - 1) {
            const auto bit = static_cast<uint32_t>(__builtin_ctz(marks));
            const uint32_t at = from + bit / 8 + (bit % 2 == 0 ? 4 : 0);
            if (at >= letter && stands_at(desc, at - letter, word))
                return true;
        }
    }
    return false;
}
static_assert(CAUSAL_DESC_SIZE % 8 == 0);

uint16_t infer_actor(const desc_t& desc) {
    if (stands_at(desc, 0, "recv ") || contains<3>(desc, "recv name="))
        return CAUSAL_SCHEMA_ACTOR_RECV;
    if (stands_at(desc, 0, "send ") || stands_at(desc, 0, "remote send "))
        return CAUSAL_SCHEMA_ACTOR_SEND;
    return CAUSAL_SCHEMA_LEGACY_TEXT;
}

uint16_t infer_fs(const desc_t& desc) {
    if (contains<0>(desc, "create"))
        return CAUSAL_SCHEMA_FS_CREATE;
    if (contains<0>(desc, "write") || contains<1>(desc, "append"))
        return CAUSAL_SCHEMA_FS_WRITE;
    return CAUSAL_SCHEMA_LEGACY_TEXT;
}

uint16_t infer_sched(const desc_t& desc) {
    if (contains<0>(desc, "create"))
        return CAUSAL_SCHEMA_TASK_CREATE;
    return contains<1>(desc, "exit") ? CAUSAL_SCHEMA_TASK_EXIT : CAUSAL_SCHEMA_LEGACY_TEXT;
}

}  // namespace

const causal_schema_def_t* causal_schema_get(uint16_t id) {
    return id < SCHEMA_COUNT ? &SCHEMAS[id] : nullptr;
}

const causal_schema_def_t* causal_schema_find(const char* name) {
    if (name == nullptr)
        return nullptr;
    for (const causal_schema_def_t& schema : SCHEMAS) {
        if (strcmp(schema.name, name) == 0)
            return &schema;
    }
    return nullptr;
}

uint32_t causal_schema_count() { return SCHEMA_COUNT; }

const causal_schema_def_t& causal_schema_infer(uint32_t type, const char* subsystem,
                                               const char* desc, uint32_t desc_len) {
    const topic_t of_type = type < CAUSAL_TYPE_COUNT ? TOPIC_OF_TYPE[type] : TOPIC_OTHER;
    const topic_t of_subsystem = topic_of_subsystem(subsystem);
    const desc_t text = {desc, desc_len};
    switch (of_type < of_subsystem ? of_type : of_subsystem) {
        case TOPIC_SYSCALL:
            return SCHEMAS[CAUSAL_SCHEMA_SYSCALL];
        case TOPIC_ACTOR:
            return SCHEMAS[infer_actor(text)];
        case TOPIC_FS:
            return SCHEMAS[infer_fs(text)];
        case TOPIC_NET:
            return SCHEMAS[CAUSAL_SCHEMA_NET_PACKET];
        case TOPIC_MESH:
            return SCHEMAS[CAUSAL_SCHEMA_MESH_PEER];
        case TOPIC_TIMELINE:
            return SCHEMAS[CAUSAL_SCHEMA_TIMELINE_EVENT];
        case TOPIC_CAP:
            return SCHEMAS[CAUSAL_SCHEMA_CAP_GRANT];
        case TOPIC_SCHED:
            return SCHEMAS[infer_sched(text)];
        case TOPIC_OTHER:
            break;
    }
    return SCHEMAS[CAUSAL_SCHEMA_LEGACY_TEXT];
}

void causal_event_assign_schema(causal_event_t* ev) {
    const causal_schema_def_t& schema =
        causal_schema_infer(ev->type, ev->subsystem, ev->desc, strlen(ev->desc));
    ev->schema_id = schema.id;
    ev->schema_version = schema.version;
}
