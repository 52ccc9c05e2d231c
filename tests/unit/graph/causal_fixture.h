// A fresh event store for a test, with what the kernel prints kept in `screen`.
#pragma once

#include "kernel/core/record.h"
#include "tests/machine/kernel.h"

class causal_fixture : public testing::Test {
protected:
    using ids_t = std::vector<uint32_t>;
    static inline std::string& screen = machine_texts();
    uint32_t task_ctx = 0;

    /// No task runs, and the store has but its first event.
    void SetUp() override {
        boot_kernel();
        running() = {};
        causal_init();
        screen.clear();
    }
    void TearDown() override {
        cpu_id_query = nullptr;
        running() = {};
        record_set_hook(nullptr);
    }

    /// From here on a task runs whose events follow each other.
    void run_task() { running().causal_ctx = &task_ctx; }

    static uint32_t emit(const ids_t& parents = {}, const char* desc = "thing",
                         causal_type_t type = CAUSAL_USER, const char* subsystem = "test") {
        return causal_emit(type, subsystem, desc, parents.data(), static_cast<int>(parents.size()));
    }
    static ids_t parents(uint32_t id) {
        const causal_event_t* ev = causal_get(id);
        return ids_t(ev->parents, ev->parents + ev->num_parents);
    }
};
