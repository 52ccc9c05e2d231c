// Where something came from: the events in the ring that touched a file, an actor, a task, the
// network or a subsystem, and the way back from the newest of them.
//
// Nothing is kept between calls. Task context.
#pragma once

#include <stdint.h>

#include "kernel/graph/causal.h"

constexpr int PROV_RESULTS_MAX = 64;

struct prov_result_t {
    uint32_t event_id;
    uint32_t tick;
    uint32_t node_hash;
    uint8_t type;
    char subsystem[CAUSAL_SUBSYSTEM_SIZE];
    char desc[CAUSAL_DESC_SIZE];
    int32_t depth;    ///< 0: it matched; 1 and more: steps of the way back
    bool cross_node;  ///< it came from another node
};

/// An answer: what matched, newest first, then the way back. What does not fit is left out.
struct prov_chain_t {
    prov_result_t results[PROV_RESULTS_MAX];
    int32_t count;
    char query_desc[CAUSAL_DESC_SIZE];  ///< its title
};

/// Records CAUSAL_SHELL "prov" "provenance: query engine initialized". Start-up.
void provenance_init();

/// Each fills `chain` and returns its count: file operations that name a path, messages that name
/// an actor, scheduling and system calls that name a task, network events with a text (null: all).
int prov_query_file(const char* path, prov_chain_t* chain);
int prov_query_actor(const char* actor_name, prov_chain_t* chain);
int prov_query_task(int pid, prov_chain_t* chain);
int prov_query_net(const char* filter, prov_chain_t* chain);

/// The same without the way back: events of a subsystem, and those with a text.
int prov_query_subsystem(const char* subsystem, prov_chain_t* chain);
int prov_query_pattern(const char* pattern, prov_chain_t* chain);

/// Prints an answer.
void prov_print_chain(const prov_chain_t* chain);

/// `prov`: see its usage lines.
void cmd_prov(int argc, char** argv);

/// The parent to go on with on the way back from `ev`, 0 for a root: the only one, else the first
/// that can be fetched and is of another subsystem, so that a walk shows how one subsystem caused
/// another, else the first. `max_scan` of 1 and more: only so many parents are looked at. Task
/// context: it may go to the archive.
uint32_t prov_preferred_parent(const causal_event_t& ev, int max_scan);

/// Whether an event came from another node.
bool prov_is_remote(const causal_event_t& ev);
