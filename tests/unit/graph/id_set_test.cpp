#include "kernel/graph/id_set.h"

#include <gtest/gtest.h>

#include <set>

namespace {

TEST(IdSet, AgreesWithAnOrdinarySet) {
    static id_set_t<300> ids;
    for (const uint32_t step : {1u, 128u, 512u, 0x9E3779B1u}) {
        ids.clear();
        std::set<uint32_t> wanted;
        for (uint32_t i = 0; i < 400; ++i) {
            const uint32_t id = i % 7 == 0 ? step : i * step;
            const bool fits = id != 0 && wanted.size() < 300;
            EXPECT_EQ(ids.add(id), fits && wanted.insert(id).second);
        }
        EXPECT_EQ(ids.count(), wanted.size());
        EXPECT_TRUE(ids.full());
        for (uint32_t i = 0; i < 500; ++i)
            EXPECT_EQ(ids.holds(i * step), wanted.contains(i * step));
    }
}

}  // namespace
