// Temporal capabilities: grants to one pid for a window of ticks, held in 32 slots and checked in
// addition to the permanent mask.
//
// A slot is pending before its start tick, active before its end tick, and then expired until the
// task "tempcap" clears it, which it does within 100 ticks. Whoever offers grants to others checks
// that the asker has admin. Guarded by irq_guard; any context unless it says otherwise. Events are
// CAUSAL_USER "tempcap".
#pragma once

#include <stdint.h>

#include "kernel/core/cap.h"

constexpr int TEMPCAP_SLOTS = 32;

struct tempcap_slot_t {
    bool active;
    int owner_pid;
    uint32_t caps;
    uint32_t start_tick;
    uint32_t end_tick;  ///< the first tick at which it is no longer valid
    uint32_t token_id;
};

struct tempcap_status_t {
    int in_use;
    uint32_t granted, expired, revoked;
};

/// Clears slots and counters and starts the task "tempcap". Start-up.
void tempcap_init(void);

/// Grants `caps` from `start_tick` until before `end_tick`: the token, or -1 for no bits, an empty
/// window, a pid outside 0..63, or when all slots are in use, which prints "tempcap: no free
/// slots". Records "grant token=%u pid=%d caps=0x%x start=%u end=%u". Task context.
[[nodiscard]] int tempcap_grant_window(int pid, uint32_t caps, uint32_t start_tick,
                                       uint32_t end_tick);

/// The window [now, now + duration_ticks).
[[nodiscard]] int tempcap_grant(int pid, uint32_t caps, uint32_t duration_ticks);

/// Whether the running task holds all of `cap`, by its mask or by one grant that is valid now.
[[nodiscard]] bool tempcap_check(uint32_t cap);

/// The audited form of tempcap_check: cap_require in which a temporal grant counts as well.
[[nodiscard]] bool tempcap_require(uint32_t cap, const char* operation);

/// Ends a grant early: 0; -1 when no slot in use has that owner and token. Records "revoke token=%u
/// pid=%d caps=0x%x".
[[nodiscard]] int tempcap_revoke(int pid, uint32_t token_id);

/// Clears the slots whose window is over. Each records "expired token=%u pid=%d caps=0x%x tick=%u".
void tempcap_tick(void);

/// Prints the slots of one pid, or of all for a negative one. Task context.
void tempcap_list(int pid);

void tempcap_status(tempcap_status_t* out);
