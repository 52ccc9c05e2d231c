// A graph that a test remembers beside the store, and walks over it as anybody would write them.
#pragma once

#include <map>
#include <random>
#include <set>

#include "tests/unit/graph/causal_fixture.h"

/// The fixture's store, an archive behind it, and a record of every event emitted.
class naive_graph : public causal_fixture {
protected:
    struct naive_event_t {
        ids_t parents;
        std::string desc;
    };
    static inline std::map<uint32_t, naive_event_t> events;
    static inline std::map<uint32_t, std::set<uint32_t>> effects;  ///< of each cause
    static inline std::map<uint32_t, causal_event_t> archive;

    void SetUp() override {
        causal_fixture::SetUp();
        events.clear();
        effects.clear();
        archive.clear();
        learn();
    }
    void TearDown() override {
        causal_set_archive_hooks(nullptr);
        causal_fixture::TearDown();
    }
    static uint32_t add(const ids_t& parents, const std::string& desc = "thing",
                        causal_type_t type = CAUSAL_USER, const char* subsystem = "test") {
        learn();
        const uint32_t id = emit(parents, desc.c_str(), type, subsystem);
        const size_t kept = std::min<size_t>(4, parents.size());
        remember(id, ids_t(parents.begin(), parents.begin() + static_cast<long>(kept)), desc);
        return id;
    }
    static void remember(uint32_t id, const ids_t& parents, const std::string& desc) {
        events[id] = {parents, desc};
        for (const uint32_t parent : parents)
            effects[parent].insert(id);
    }
    /// Remembers what others recorded.
    static void learn() {
        for (uint32_t id = events.empty() ? 1 : events.rbegin()->first + 1;
             id <= causal_total_events(); id++)
            remember(id, naive_graph::parents(id), causal_get(id)->desc);
    }
    /// `count` events with up to 5 parents each among the `reach` before; some lie about them.
    static void add_random(std::mt19937& random, uint32_t count, uint32_t reach, bool lies) {
        for (uint32_t i = 0; i < count; i++) {
            const uint32_t next = causal_get_next_id();
            ids_t parents;
            for (uint32_t n = 1 + random() % 5; n > 0; n--)
                parents.push_back(next - std::min(next - 1, 1 + random() % reach));
            if (lies && random() % 8 == 0)
                parents[0] = next + random() % 20;
            add(parents, random() % 9 == 0 ? "page fault" : "step");
        }
    }
    /// From here on what leaves the ring is in the archive.
    static void keep_archive() {
        for (uint32_t id = causal_oldest_event_id(); id <= causal_total_events(); id++)
            archive[id] = *causal_get_ring(id);
        static const causal_archive_hooks_t hooks = {
            [](uint32_t id, causal_event_t* out) {
                const auto at = archive.find(id);
                if (at != archive.end())
                    *out = at->second;
                return at != archive.end();
            },
            [](uint32_t id, uint32_t* ids, int max) {
                int count = 0;
                for (const uint32_t child : effects[id])
                    if (count < max && archive.contains(child))
                        ids[count++] = child;
                return count;
            }};
        causal_set_archive_hooks(&hooks);
    }
    static bool in_ring(uint32_t id) {
        return id >= causal_oldest_event_id() && events.contains(id);
    }
    static bool reachable(uint32_t id) { return in_ring(id) || archive.contains(id); }

    /// Effects in the ring, then those in the archive, 16 at most.
    static ids_t naive_children(uint32_t id) {
        ids_t found;
        for (const bool ring : {true, false})
            for (const uint32_t child : effects[id])
                if (id != 0 && found.size() < 16 && reachable(child) && in_ring(child) == ring)
                    found.push_back(child);
        return found;
    }
    /// Whether `id` descends from `ancestor` within `depth` generations.
    static bool naive_descends(uint32_t id, uint32_t ancestor, int depth) {
        if (depth == 0 || !events.contains(id))
            return false;
        for (const uint32_t parent : events.at(id).parents)
            if (parent == ancestor || naive_descends(parent, ancestor, depth - 1))
                return true;
        return false;
    }
};
