// What the floors below the scheduler may know of the task that runs on this processor. The
// scheduler fills the record at each switch; before that it says "no task".
//
// An interrupt handler runs with an empty causal context of its own, so that a hardware event is
// a root: irq_context_scope swaps that context in and puts the interrupted task's back.
#pragma once

#include <stdint.h>

/// Most processors the kernel's tables hold.
constexpr uint32_t CPU_MAX = 16;

/// The running task as the lower floors see it; one record a processor.
struct running_t {
    int32_t pid = 0;                 ///< 0: the boot task, or none yet
    const char* name = "none";       ///< at most 31 characters
    uint32_t* page_dir = nullptr;    ///< null: no task yet
    uint32_t* causal_ctx = nullptr;  ///< its current event id; null: no task yet
    bool recorded = false;           ///< it recorded an event since it got the processor
};

/// Index of this processor. The multiprocessor start-up installs the real query; until then 0.
using cpu_id_fn = uint32_t (*)();
inline cpu_id_fn cpu_id_query = nullptr;

inline running_t running_by_cpu[CPU_MAX];

/// This processor's record. Any context.
inline running_t& running() { return running_by_cpu[cpu_id_query == nullptr ? 0 : cpu_id_query()]; }

/// Gives the interrupt handler in its scope an empty causal context. Interrupts are masked.
class irq_context_scope {
public:
    irq_context_scope()
        : record_(running()), task_ctx_(record_.causal_ctx), task_recorded_(record_.recorded) {
        if (task_ctx_ != nullptr)
            record_.causal_ctx = &own_;
    }
    ~irq_context_scope() {
        // After a task switch inside the handler the scheduler has set the record up already.
        if (task_ctx_ == nullptr || record_.causal_ctx != &own_)
            return;
        record_.causal_ctx = task_ctx_;
        record_.recorded = task_recorded_;
    }
    irq_context_scope(const irq_context_scope&) = delete;
    irq_context_scope& operator=(const irq_context_scope&) = delete;

private:
    running_t& record_;
    uint32_t own_ = 0;
    uint32_t* task_ctx_;
    bool task_recorded_;
};
