// Where something came from: which of an event's causes to follow back.
#pragma once

#include <stdint.h>

#include "kernel/graph/causal.h"

/// The parent to go on with on the way back from `ev`, 0 for a root: the only one, else the first
/// that can be fetched and is of another subsystem, so that a walk shows how one subsystem caused
/// another, else the first. `max_scan` of 1 and more: only so many parents are looked at. Task
/// context: it may go to the archive.
uint32_t prov_preferred_parent(const causal_event_t& ev, int max_scan);

/// Whether an event came from another node.
bool prov_is_remote(const causal_event_t& ev);
