// Payload schemas: what the typed payload of an event means. The table is fixed; an event whose
// payload names no schema gets one inferred from its type, subsystem and description.
#pragma once

#include <stdint.h>

#include "kernel/graph/causal.h"

constexpr uint16_t CAUSAL_SCHEMA_LEGACY_TEXT = 0;
constexpr uint16_t CAUSAL_SCHEMA_SYSCALL = 1;
constexpr uint16_t CAUSAL_SCHEMA_TASK_CREATE = 2;
constexpr uint16_t CAUSAL_SCHEMA_TASK_EXIT = 3;
constexpr uint16_t CAUSAL_SCHEMA_ACTOR_SEND = 4;
constexpr uint16_t CAUSAL_SCHEMA_ACTOR_RECV = 5;
constexpr uint16_t CAUSAL_SCHEMA_FS_WRITE = 6;
constexpr uint16_t CAUSAL_SCHEMA_FS_CREATE = 7;
constexpr uint16_t CAUSAL_SCHEMA_NET_PACKET = 8;
constexpr uint16_t CAUSAL_SCHEMA_MESH_PEER = 9;
constexpr uint16_t CAUSAL_SCHEMA_TIMELINE_EVENT = 10;
constexpr uint16_t CAUSAL_SCHEMA_CAP_GRANT = 11;

/// A schema. `prov_kind` is the W3C PROV class that its events stand for.
struct causal_schema_def_t {
    uint16_t id;
    uint8_t version;
    const char* name;
    const char* prov_kind;  ///< "Activity", "Agent" or "Entity"
    const char* description;
};

/// The schema with this identifier, or null. Any context, as all calls here.
const causal_schema_def_t* causal_schema_get(uint16_t id);

/// The schema with this name, or null (for a null name as well).
const causal_schema_def_t* causal_schema_find(const char* name);

/// Number of schemas; their identifiers are 0 to count - 1.
uint32_t causal_schema_count();

/// The schema that an event's type and texts tell. `subsystem` has CAUSAL_SUBSYSTEM_SIZE bytes,
/// `desc` CAUSAL_DESC_SIZE; both are terminated, `desc` after `desc_len` characters.
const causal_schema_def_t& causal_schema_infer(uint32_t type, const char* subsystem,
                                               const char* desc, uint32_t desc_len);

/// Sets schema_id and schema_version of `ev` by inference.
void causal_event_assign_schema(causal_event_t* ev);
