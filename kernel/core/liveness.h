// Liveness: named components that promise a heartbeat every so many ticks, and proof tokens that a
// name was asked about at a tick.
//
//   alive ---- interval without a beat ----> suspect ---- twice the interval ----> dead
//     ^------------------------ a heartbeat ------------------------------------------+
//
// The task "liveness" looks every 50 ticks; between its looks a state is the last one found. It
// beats itself for the tasks that registered as such. An entry stays for the rest of the run. The
// table is guarded by irq_guard; any context unless it says otherwise. Events are CAUSAL_USER
// "liveness".
#pragma once

#include <stdint.h>

constexpr int LIVENESS_ENTRIES = 32;
constexpr uint32_t LIVENESS_NAME_SIZE = 32;  ///< with the terminator; longer names are cut

enum liveness_state_t : uint32_t {
    LIVENESS_ALIVE = 0,
    LIVENESS_SUSPECT = 1,
    LIVENESS_DEAD = 2,
};

struct liveness_entry_t {
    char name[LIVENESS_NAME_SIZE];
    uint32_t interval;   ///< ticks
    uint32_t last_beat;  ///< tick of the last heartbeat, or of registration
    liveness_state_t state;
    bool active;
};

struct liveness_proof_t {
    char name[LIVENESS_NAME_SIZE];
    uint32_t tick;
    uint32_t hash;
};

/// Clears the table and starts the task "liveness". Start-up.
void liveness_init();

/// A new component, alive: 0; -1 for a null name or an interval of 0, -2 when the name is
/// registered, -3 when the table is full. Records "register name=%s interval=%u".
int liveness_register(const char* name, uint32_t interval);

/// Registers the running task as a component that needs not beat itself: every look is a heartbeat
/// while the task runs, is ready, sleeps or waits for input. Results of liveness_register.
int liveness_register_task(const char* name, uint32_t interval);

/// 0; -1 for a null or unknown name. Records "recovered name=%s" if the component was not alive.
int liveness_heartbeat(const char* name);

/// The state; dead for a null or unknown name.
liveness_state_t liveness_check(const char* name);

/// Moves every component to the state of its age. Records "suspect name=%s elapsed=%u" and "dead
/// name=%s elapsed=%u" as they become so. Part of the task "liveness".
void liveness_tick();

/// A token for a component at this tick: 0; -1 for an unknown name or a null argument.
int liveness_proof(const char* name, liveness_proof_t* out);

/// Whether the token's hash is that of its name and tick; false for null.
bool liveness_verify(const liveness_proof_t* p);

/// Entries in use; they are the first ones.
int liveness_count();

/// Copies entry `index`; false when there is none.
[[nodiscard]] bool liveness_describe(int index, liveness_entry_t* out);
