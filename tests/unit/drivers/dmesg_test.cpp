#include "kernel/drivers/dmesg.h"

#include <gtest/gtest.h>

#include "kernel/core/kprintf.h"
#include "tests/machine/machine.h"

TEST(Dmesg, KeepsTheLast4096BytesInOrder) {
    machine_reset();
    dmesg_init();
    char tiny = '#';
    dmesg_append("x", -5);
    EXPECT_EQ(dmesg_read(&tiny, 1), 0);
    EXPECT_EQ(tiny, '#') << "an empty log writes nothing";
    std::string all;
    const auto expect_tail = [&](size_t count) {
        std::vector<char> out(count + 1, '#');  // its end is guarded
        EXPECT_EQ(dmesg_read(out.data(), static_cast<int>(count) + 1), static_cast<int>(count));
        EXPECT_EQ(out.data(), all.substr(all.size() - count));
    };
    for (int i = 0; i < 900; ++i) {
        machine().interrupts_on = i % 2 == 0;
        kprintf("%d\n", i * 7919);
        EXPECT_EQ(machine().interrupts_on, i % 2 == 0);
        all += std::to_string(i * 7919) + "\n";
        expect_tail(std::min<size_t>(all.size(), DMESG_BYTES));
    }
    dmesg_append(all.data(), static_cast<int>(all.size()));
    expect_tail(DMESG_BYTES - 1);
    expect_tail(0);
}
