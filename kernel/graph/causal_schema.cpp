#include "kernel/graph/causal_schema.h"

#include "kernel/core/string.h"

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

struct [[gnu::packed, gnu::may_alias]] text_word_t {
    uint32_t bits;
};

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

bool starts_with(const char* text, const char* start) {
    for (; *start != '\0'; text++, start++) {
        if (*text != *start)
            return false;
    }
    return true;
}

constexpr uint32_t LOW_BITS = 0x01010101;
constexpr uint32_t HIGH_BITS = 0x80808080;

/// Bit 7 of each byte of `word` that is `c`, and perhaps of some that are not.
inline uint32_t maybe(uint32_t word, char c) {
    return ((word ^ static_cast<uint8_t>(c) * LOW_BITS) - LOW_BITS) & HIGH_BITS;
}

/// Whether `word` stands in `desc` with its letter number `letter` at `at`.
inline bool word_around(const char* desc, uint32_t at, uint32_t letter, const char* word) {
    return at >= letter && starts_with(desc + at - letter, word);
}

/// Runs `look` at each character that is perhaps one of `letters`, until it answers true. Every
/// event of the scheduler and the file systems is read here, so this goes by words.
template <typename look_fn, typename... letter_t>
void scan(const char* desc, uint32_t len, look_fn look, letter_t... letters) {
    for (uint32_t from = 0; from < len; from += 4) {
        const uint32_t word = word_at(desc, from / 4);
        for (uint32_t hits = (maybe(word, letters) | ...); hits != 0; hits &= hits - 1) {
            const uint32_t at = from + static_cast<uint32_t>(__builtin_ctz(hits)) / 8;
            if (at < len && look(at))
                return;
        }
    }
}

uint16_t infer_sched(const char* desc, uint32_t len) {
    uint16_t found = CAUSAL_SCHEMA_LEGACY_TEXT;
    const auto look = [desc, &found](uint32_t at) {
        if (word_around(desc, at, 1, "exit"))
            found = CAUSAL_SCHEMA_TASK_EXIT;
        if (word_around(desc, at, 0, "create"))
            found = CAUSAL_SCHEMA_TASK_CREATE;
        return found == CAUSAL_SCHEMA_TASK_CREATE;
    };
    scan(desc, len, look, 'c', 'x');
    return found;
}

uint16_t infer_fs(const char* desc, uint32_t len) {
    uint16_t found = CAUSAL_SCHEMA_LEGACY_TEXT;
    const auto look = [desc, &found](uint32_t at) {
        if (word_around(desc, at, 0, "write") || word_around(desc, at, 1, "append"))
            found = CAUSAL_SCHEMA_FS_WRITE;
        if (word_around(desc, at, 0, "create"))
            found = CAUSAL_SCHEMA_FS_CREATE;
        return found == CAUSAL_SCHEMA_FS_CREATE;
    };
    scan(desc, len, look, 'c', 'w', 'p');
    return found;
}

uint16_t infer_actor(const char* desc) {
    if (starts_with(desc, "recv ") || strstr(desc, "recv name=") != nullptr)
        return CAUSAL_SCHEMA_ACTOR_RECV;
    if (starts_with(desc, "send ") || starts_with(desc, "remote send "))
        return CAUSAL_SCHEMA_ACTOR_SEND;
    return CAUSAL_SCHEMA_LEGACY_TEXT;
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
    uint16_t id = CAUSAL_SCHEMA_LEGACY_TEXT;
    switch (of_type < of_subsystem ? of_type : of_subsystem) {
        case TOPIC_SYSCALL:
            id = CAUSAL_SCHEMA_SYSCALL;
            break;
        case TOPIC_ACTOR:
            id = infer_actor(desc);
            break;
        case TOPIC_FS:
            id = infer_fs(desc, desc_len);
            break;
        case TOPIC_NET:
            id = CAUSAL_SCHEMA_NET_PACKET;
            break;
        case TOPIC_MESH:
            id = CAUSAL_SCHEMA_MESH_PEER;
            break;
        case TOPIC_TIMELINE:
            id = CAUSAL_SCHEMA_TIMELINE_EVENT;
            break;
        case TOPIC_CAP:
            id = CAUSAL_SCHEMA_CAP_GRANT;
            break;
        case TOPIC_SCHED:
            id = infer_sched(desc, desc_len);
            break;
        case TOPIC_OTHER:
            break;
    }
    return SCHEMAS[id];
}

void causal_event_assign_schema(causal_event_t* ev) {
    const causal_schema_def_t& schema =
        causal_schema_infer(ev->type, ev->subsystem, ev->desc, strlen(ev->desc));
    ev->schema_id = schema.id;
    ev->schema_version = schema.version;
}
