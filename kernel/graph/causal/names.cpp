// Names of the event types, and the small readers of numbers that the graph's tools share.
#include "kernel/core/string.h"
#include "kernel/graph/causal/store.h"

namespace {

constexpr const char* NAMES[CAUSAL_TYPE_COUNT] = {"sched", "mem",   "fs",   "net", "syscall",
                                                  "shell", "actor", "mesh", "io",  "user"};
constexpr const char* LABELS[CAUSAL_TYPE_COUNT] = {"SCHED", "MEM",   "FS",   "NET", "SYSCALL",
                                                   "SHELL", "ACTOR", "MESH", "IO",  "USER"};

}  // namespace

const char* causal_type_name(uint32_t type) { return type < CAUSAL_TYPE_COUNT ? NAMES[type] : "?"; }

const char* causal_type_label_upper(uint32_t type) {
    return type < CAUSAL_TYPE_COUNT ? LABELS[type] : "???";
}

int causal_type_from_name(const char* name) {
    if (name == nullptr)
        return -1;
    for (int type = 0; type < static_cast<int>(CAUSAL_TYPE_COUNT); type++) {
        if (strcmp(name, NAMES[type]) == 0)
            return type;
    }
    return -1;
}

uint32_t causal_parse_uint(const char* s) {
    uint32_t value = 0;
    for (; s != nullptr && *s >= '0' && *s <= '9'; s++)
        value = value * 10 + static_cast<uint32_t>(*s - '0');
    return value;
}

void causal_set_kv_hook(causal_kv_fn lookup) { causal_store.kv_lookup = lookup; }

int causal_read_kv_int(const char* key, int def) {
    int value = def;
    if (causal_store.kv_lookup == nullptr || !causal_store.kv_lookup(key, &value))
        return def;
    return value;
}
