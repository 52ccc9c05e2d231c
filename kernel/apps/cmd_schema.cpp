#include "kernel/apps/cmd_schema.h"

#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal_schema.h"

namespace {

void list_schemas() {
    kprintf("Causal Schemas:\n");
    kprintf("  ID  VER  PROV      NAME\n");
    for (uint32_t id = 0; id < causal_schema_count(); id++) {
        const causal_schema_def_t* schema = causal_schema_get(static_cast<uint16_t>(id));
        kprintf("  %-3u %-4u %-9s %s\n", static_cast<uint32_t>(schema->id),
                static_cast<uint32_t>(schema->version), schema->prov_kind, schema->name);
    }
}

void show_schema(const char* which) {
    const bool by_id = which[0] >= '0' && which[0] <= '9';
    const causal_schema_def_t* schema =
        by_id ? causal_schema_get(static_cast<uint16_t>(causal_parse_uint(which)))
              : causal_schema_find(which);
    if (schema == nullptr) {
        kprintf("schema: '%s' not found\n", which);
        return;
    }
    kprintf("Schema %u: %s\n", static_cast<uint32_t>(schema->id), schema->name);
    kprintf("  version: %u\n", static_cast<uint32_t>(schema->version));
    kprintf("  PROV:    %s\n", schema->prov_kind);
    kprintf("  desc:    %s\n", schema->description);
}

}  // namespace

void cmd_schema(int argc, char** argv) {
    if (argc < 2 || strcmp(argv[1], "list") == 0 || strcmp(argv[1], "help") == 0) {
        list_schemas();
        return;
    }
    if (strcmp(argv[1], "show") != 0) {
        kprintf("usage: schema [list|show <id|name>]\n");
        return;
    }
    if (argc < 3) {
        kprintf("usage: schema show <id|name>\n");
        return;
    }
    show_schema(argv[2]);
}
