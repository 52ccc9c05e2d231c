#include "kernel/apps/mood.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/graph/causal.h"
#include "kernel/graph/ring_read.h"

namespace {

constexpr int TASK_PRIORITY = 6;
constexpr uint32_t SAMPLE_TICKS = 100;
constexpr uint32_t WINDOW_BEFORE_SAMPLE = 100;  // ticks before the last sample that still count
constexpr uint32_t RECENT_PER_TYPE = 32;
constexpr uint32_t HOT_TICKS = 200;
constexpr uint32_t CALM_RATE = 5;
constexpr uint32_t BUSY_RATE = 50;
constexpr uint32_t CRITICAL_FAULTS = 3;
constexpr int SAMPLES_TO_CHANGE = 5;
constexpr uint32_t HISTORY_SLOTS = 16;

constexpr const char* mood_names[MOOD_COUNT] = {"zen",      "calm",     "busy",
                                                "stressed", "critical", "recovering"};
constexpr const char* mood_faces[MOOD_COUNT] = {"(^_^)", "(\xb7_\xb7)", "(>_<)",
                                                "(O_O)", "(X_X)",       "(~_~)"};

struct mood_transition_t {
    mood_t mood;
    uint32_t tick;
};

struct mood_state_t {
    mood_t current_mood;
    bool override_active;
    mood_t candidate_mood;
    int candidate_count;
    uint32_t last_total_events, last_tick;
    uint32_t last_event_rate, last_fault_count;
    mood_transition_t history[HISTORY_SLOTS];
    uint32_t history_head, history_count;
};

mood_state_t state GUARDED_BY(irq_mask);

const char* name_of(mood_t mood) { return mood < MOOD_COUNT ? mood_names[mood] : "unknown"; }

const char* face_of(mood_t mood) { return mood < MOOD_COUNT ? mood_faces[mood] : "(?_?)"; }

mood_state_t snapshot() {
    const irq_guard guard;
    return state;
}

void push_history(mood_t mood) REQUIRES(irq_mask) {
    state.history[state.history_head] = {mood, system_ticks};
    state.history_head = (state.history_head + 1) % HISTORY_SLOTS;
    if (state.history_count < HISTORY_SLOTS)
        ++state.history_count;
}

void transition_to(mood_t mood) REQUIRES(irq_mask) {
    if (mood == state.current_mood)
        return;
    causal_event_fmt(CAUSAL_USER, "mood", "mood: %s -> %s", name_of(state.current_mood),
                     name_of(mood));
    state.current_mood = mood;
    push_history(mood);
}

// Before the text of an event that an earlier boot left; it keeps that boot's tick.
constexpr std::string_view RESTORED = "[R] ";

bool is_restored(const causal_event_t& ev) {
    return strncmp(ev.desc, RESTORED.data(), RESTORED.size()) == 0;
}

/// What the count of faults needs of an event.
struct glimpse_t {
    uint32_t tick, type;
    bool fault, restored;
};

/// False for an event that cannot be read.
bool glimpse(uint32_t id, glimpse_t* out) {
    const bool whole = causal_read_ring(id, [out](const causal_event_t& ev) {
        *out = {ev.time.wall_ticks, ev.type, causal_is_fault(ev.desc), is_restored(ev)};
    });
    return whole && out->type < CAUSAL_TYPE_COUNT;
}

/// Faults among the newest RECENT_PER_TYPE events of each type that are later than tick `since`.
/// This boot's ticks never go back, so the walk ends at the first one that is not.
uint32_t count_faults(uint32_t since) {
    uint32_t seen[CAUSAL_TYPE_COUNT] = {};
    uint32_t faults = 0;
    const uint32_t oldest = causal_oldest_event_id();
    for (uint32_t id = causal_total_events(); id != 0 && id >= oldest; --id) {
        glimpse_t event;
        if (!glimpse(id, &event) || event.restored)
            continue;
        if (static_cast<int32_t>(event.tick - since) <= 0)
            break;
        if (++seen[event.type] <= RECENT_PER_TYPE && event.fault)
            ++faults;
    }
    return faults;
}

mood_t target_of(mood_t current, uint32_t rate, uint32_t faults) {
    if (faults >= CRITICAL_FAULTS)
        return MOOD_CRITICAL;
    if (faults > 0)
        return MOOD_STRESSED;
    if (current == MOOD_STRESSED || current == MOOD_CRITICAL)
        return MOOD_RECOVERING;
    if (rate >= BUSY_RATE)
        return MOOD_BUSY;
    return current == MOOD_RECOVERING || rate >= CALM_RATE ? MOOD_CALM : MOOD_ZEN;
}

/// Follows a target that stays the same for long enough.
void settle(mood_t target) REQUIRES(irq_mask) {
    if (target == state.current_mood) {
        state.candidate_count = 0;
        return;
    }
    if (state.candidate_count == 0 || target != state.candidate_mood) {
        state.candidate_mood = target;
        state.candidate_count = 1;
        return;
    }
    if (++state.candidate_count < SAMPLES_TO_CHANGE)
        return;
    state.candidate_count = 0;
    transition_to(target);
}

void mood_task() {
    for (;;) {
        task_sleep_unrecorded(SAMPLE_TICKS);
        mood_tick();
    }
}

/// What the newest events of all types say.
struct diagnosis_t {
    uint32_t hottest, hottest_events;
    uint32_t fault_id;
    char fault_desc[CAUSAL_DESC_SIZE];
};

void diagnose_type(uint32_t type, diagnosis_t* out) {
    uint32_t ids[RECENT_PER_TYPE];
    const int count =
        causal_recent_ids(static_cast<causal_type_t>(type), ids, static_cast<int>(RECENT_PER_TYPE));
    const uint32_t now = system_ticks;
    uint32_t fresh = 0;
    for (int i = 0; i < count; ++i) {
        causal_event_t ev;
        if (!causal_copy(ids[i], &ev))
            continue;
        fresh += !is_restored(ev) && now - ev.time.wall_ticks <= HOT_TICKS ? 1 : 0;
        if (ev.id <= out->fault_id || !causal_is_fault(ev.desc))
            continue;
        out->fault_id = ev.id;
        string_copy(out->fault_desc, ev.desc, sizeof out->fault_desc);
    }
    if (fresh <= out->hottest_events)
        return;
    out->hottest = type;
    out->hottest_events = fresh;
}

void print_diagnosis() {
    diagnosis_t found = {0, 0, 0, "(none)"};
    for (uint32_t type = 0; type < CAUSAL_TYPE_COUNT; ++type)
        diagnose_type(type, &found);
    kprintf("\n--- Auto-diagnosis ---\n");
    kprintf("  Hottest: %s (%u events)\n", causal_type_label_upper(found.hottest),
            found.hottest_events);
    kprintf("  Last fault: event %u (%s)\n", found.fault_id, found.fault_desc);
    if (found.fault_id != 0)
        kprintf("  Try: query root-cause %u\n", found.fault_id);
}

void show() {
    const mood_state_t now = snapshot();
    kprintf("\n  %s  %s\n\n", face_of(now.current_mood), name_of(now.current_mood));
    kprintf("  event rate : %u/interval\n", now.last_event_rate);
    kprintf("  faults     : %u recent\n", now.last_fault_count);
    kprintf("  uptime     : %u ticks\n", system_ticks);
    if (now.current_mood == MOOD_STRESSED || now.current_mood == MOOD_CRITICAL)
        print_diagnosis();
    else
        kprintf("\n");
}

void show_history() {
    const mood_state_t now = snapshot();
    if (now.history_count == 0) {
        kprintf("  no mood transitions yet\n");
        return;
    }
    kprintf("  mood transition history:\n");
    for (uint32_t i = now.history_count; i > 0; --i) {
        const uint32_t slot = (now.history_head + HISTORY_SLOTS - i) % HISTORY_SLOTS;
        const mood_transition_t& entry = now.history[slot];
        kprintf("  [%8u] %s %s\n", entry.tick, face_of(entry.mood), name_of(entry.mood));
    }
}

void explain() {
    const mood_state_t now = snapshot();
    const uint32_t rate = now.last_event_rate;
    kprintf("  current mood: %s %s\n\n", face_of(now.current_mood), name_of(now.current_mood));
    switch (now.current_mood) {
        case MOOD_ZEN:
            kprintf("  System is idle. Event rate (%u) below threshold (%u).\n", rate, CALM_RATE);
            kprintf("  No faults detected. Everything is quiet.\n");
            break;
        case MOOD_CALM:
            kprintf("  Normal activity. Event rate (%u) is moderate.\n", rate);
            kprintf("  No faults. System operating normally.\n");
            break;
        case MOOD_BUSY:
            kprintf("  High activity. Event rate (%u) exceeds threshold (%u).\n", rate, BUSY_RATE);
            kprintf("  No faults though — system is healthy, just working hard.\n");
            break;
        case MOOD_STRESSED:
            kprintf("  Elevated faults detected: %u recent fault events.\n", now.last_fault_count);
            kprintf("  System is under strain. Monitor for escalation.\n");
            break;
        case MOOD_CRITICAL:
            kprintf("  Multiple faults: %u recent fault events (>= %u threshold).\n",
                    now.last_fault_count, CRITICAL_FAULTS);
            kprintf("  System health is degraded. Investigate immediately.\n");
            break;
        case MOOD_RECOVERING:
        case MOOD_COUNT:
            kprintf("  Was stressed/critical but faults have subsided.\n");
            kprintf("  Event rate: %u. Waiting for sustained stability.\n", rate);
            break;
    }
}

void pin(const char* name) {
    const auto* found = std::find_if(std::begin(mood_names), std::end(mood_names),
                                     [name](const char* one) { return strcmp(one, name) == 0; });
    if (found == std::end(mood_names)) {
        kprintf("  unknown mood: %s\n", name);
        kprintf("  valid: zen calm busy stressed critical recovering\n");
        return;
    }
    const auto mood = static_cast<mood_t>(found - std::begin(mood_names));
    {
        const irq_guard guard;
        state.override_active = true;
        state.candidate_count = 0;
        transition_to(mood);
    }
    kprintf("  mood override: %s %s\n", face_of(mood), name_of(mood));
}

void release() {
    {
        const irq_guard guard;
        state.override_active = false;
        // What happened meanwhile belongs to no sample.
        state.last_total_events = causal_total_events();
        state.last_tick = system_ticks;
    }
    kprintf("  mood override cleared\n");
}

}  // namespace

void mood_init() {
    {
        const irq_guard guard;
        memset(&state, 0, sizeof state);
        state.last_total_events = causal_total_events();
        state.last_tick = system_ticks;
        push_history(MOOD_ZEN);
    }
    task_create("mood", mood_task, TASK_PRIORITY);
    kprintf("mood: system mood indicator active\n");
}

void mood_tick() {
    const mood_state_t before = snapshot();
    if (before.override_active)
        return;
    const uint32_t total = causal_total_events();
    const uint32_t rate = total - before.last_total_events;
    const uint32_t faults = count_faults(before.last_tick - WINDOW_BEFORE_SAMPLE);
    const irq_guard guard;
    if (state.override_active)
        return;
    state.last_total_events = total;
    state.last_tick = system_ticks;
    state.last_event_rate = rate;
    state.last_fault_count = faults;
    settle(target_of(state.current_mood, rate, faults));
}

mood_t mood_current() { return snapshot().current_mood; }

void cmd_mood(int argc, char** argv) {
    const char* word = argc > 1 ? argv[1] : "";
    if (argc == 1)
        show();
    else if (argc == 2 && strcmp(word, "history") == 0)
        show_history();
    else if (argc == 2 && strcmp(word, "explain") == 0)
        explain();
    else if (argc == 3 && strcmp(word, "set") == 0)
        pin(argv[2]);
    else if (argc == 2 && strcmp(word, "reset") == 0)
        release();
    else
        kprintf("  usage: mood [history|explain|set <mood>|reset]\n");
}
