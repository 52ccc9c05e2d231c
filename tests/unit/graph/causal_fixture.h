// A fresh event store for a test, with what it prints kept in `screen`.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/record.h"
#include "kernel/core/running.h"
#include "kernel/graph/causal.h"
#include "tests/machine/machine.h"

class causal_fixture : public testing::Test {
protected:
    using ids_t = std::vector<uint32_t>;
    static inline std::string screen;
    uint32_t task_ctx = 0;

    void SetUp() override {
        machine_reset();
        system_ticks = 0;
        cpu_id_query = nullptr;
        running_by_cpu[0] = running_t{};
        kprintf_set_log(nullptr);
        kprintf_set_console([](const char* text) { screen += text; });
        causal_init();
        screen.clear();
    }
    void TearDown() override {
        running_by_cpu[0] = running_t{};
        cpu_id_query = nullptr;
        record_set_hook(nullptr);
        kprintf_set_console(nullptr);
    }

    /// From here on a task runs whose events follow each other.
    void run_task() { running_by_cpu[0].causal_ctx = &task_ctx; }

    static uint32_t emit(const ids_t& parents = {}, const char* desc = "thing",
                         causal_type_t type = CAUSAL_USER, const char* subsystem = "test") {
        return causal_emit(type, subsystem, desc, parents.data(), static_cast<int>(parents.size()));
    }
    /// What `command` prints for these arguments.
    static std::string run(void (*command)(int, char**), std::vector<std::string> args = {}) {
        args.insert(args.begin(), "name");
        std::vector<char*> argv;
        for (std::string& arg : args)
            argv.push_back(arg.data());
        screen.clear();
        command(static_cast<int>(argv.size()), argv.data());
        return screen;
    }
    static ids_t parents(uint32_t id) {
        const causal_event_t* ev = causal_get(id);
        return ids_t(ev->parents, ev->parents + ev->num_parents);
    }
};
