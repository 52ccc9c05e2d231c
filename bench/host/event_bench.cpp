// Measures the recording of events, compiled as the image has it, beside clearing and copying a
// record of the same size in the same run. One line a figure:
//
//     NAME  MEDIAN ns (MIN..MAX)  RATIOx of clear-and-copy (ITS MEDIAN)
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "kernel/graph/causal.h"

volatile uint32_t system_ticks;

namespace {

constexpr size_t RUNS = 15;
constexpr int REPEATS = 100000;
constexpr const char* PEER = "clear-and-copy";
constexpr double AIM = 2.0;

struct figure_t {
    double median, low, high;  ///< nanoseconds
};

template <typename Operation>
figure_t measure(Operation operation) {
    using clock = std::chrono::steady_clock;
    std::array<double, RUNS> costs;
    for (double& cost : costs) {
        const auto start = clock::now();
        for (int i = 0; i < REPEATS; ++i)
            operation();
        const std::chrono::duration<double, std::nano> spent = clock::now() - start;
        cost = spent.count() / REPEATS;
    }
    std::sort(costs.begin(), costs.end());
    return {costs[RUNS / 2], costs.front(), costs.back()};
}

void print(const char* name, const figure_t& figure, const figure_t& peer) {
    std::printf("%-26s %10.1f ns            (%.1f..%.1f)  %.2fx of %s (%.1f), aim %.1fx\n", name,
                figure.median, figure.low, figure.high, figure.median / peer.median, PEER,
                peer.median, AIM);
}

}  // namespace

int main() {
    static causal_event_t record, copy;
    static const uint8_t payload[24] = {8, 0, 1};
    causal_init();
    uint32_t parent = causal_total_events();
    // Through pointers, so that the C library's own routines run and not what a compiler puts in.
    void* (*volatile clear)(void*, int, size_t) = std::memset;
    void* (*volatile copy_over)(void*, const void*, size_t) = std::memcpy;
    const figure_t peer = measure([&] {
        clear(&record, 0, sizeof record);
        copy_over(&copy, &record, sizeof copy);
    });
    print("host-event-one-parent", measure([&] {
              parent = causal_emit(CAUSAL_FS, "vofs", "write ino=12 len=512", &parent, 1);
          }),
          peer);
    print("host-event-payload-24", measure([&] {
              parent = causal_emit_payload(CAUSAL_NET, "tcp", "rx seq=100 len=512", &parent, 1,
                                           payload, sizeof payload);
          }),
          peer);
    print("host-event-formatted", measure([&] {
              parent =
                  causal_event_fmt(CAUSAL_SCHED, "sched", "pid=%d name=%s pri=%d", 42, "worker", 4);
          }),
          peer);
    return 0;
}
