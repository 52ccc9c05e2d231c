#include "tests/unit/core/task/fixture.h"

namespace {

constexpr const char* LONG_NAME = "a-name-of-more-than-thirty-one-characters";

int no_write(const uint8_t*, uint32_t, void*) { return 0; }
int no_read(uint8_t*, uint32_t, void*) { return 0; }

TEST_F(Sched, CreationFillsTheRecordAndItsEventFollowsTheCreators) {
    int session = 0;
    task_set_io(task_current(), no_write, no_read, &session);
    const uint32_t cause = causal_emit(CAUSAL_USER, "test", "cause", nullptr, 0);
    const task_t* t = task(LONG_NAME, 3);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->pid, 1);
    EXPECT_EQ(t->pgid, 1);
    EXPECT_EQ(std::string(t->name), std::string(LONG_NAME).substr(0, 31));
    EXPECT_EQ(t->io_write, no_write);
    EXPECT_EQ(t->io_ctx, &session);
    const auto* frame = reinterpret_cast<const uint32_t*>(t->esp);
    EXPECT_EQ(frame + 6, reinterpret_cast<const uint32_t*>(t->stack_bottom + TASK_STACK_BYTES));
    EXPECT_EQ(frame[4], 0x202u);
    EXPECT_EQ(frame[5], switch_trampoline());
    const causal_event_t& event = *causal_get_ring(t->causal_ctx);
    EXPECT_EQ(event.desc, "pid=1 name=" + std::string(LONG_NAME).substr(0, 31) + " pri=3");
    // Between them stands the stack's own allocation.
    EXPECT_EQ(causal_get_ring(event.parents[0])->parents[0], cause);
}

TEST_F(Sched, CreationThatCannotSucceedLeavesNothingBehind) {
    const uint32_t before = heap_used();
    for (const task_t* none :
         {task_create("x", nullptr, 1), task("x", -1), task("x", 8), task("x", 1, 16)})
        EXPECT_EQ(none, nullptr);
    EXPECT_EQ(task_create(nullptr, body, 7)->name[0], '\0');
    for (int i = 2; i < TASK_MAX; ++i)
        ASSERT_NE(task("fill", 7), nullptr);
    const uint32_t full = heap_used();
    EXPECT_EQ(task("one too many", 7), nullptr);
    EXPECT_EQ(heap_used(), full);

    // Slots come back with their memory; pids do not.
    for (int i = 1; i < TASK_MAX; ++i) {
        dequeue_task_locked(&task_get_list()[i]);
        task_get_list()[i].state = TASK_DEAD;
    }
    task_reap();
    EXPECT_EQ(heap_used(), before);
    EXPECT_EQ(recorded("reap pid=63"), 1);
    const task_t* again = task("again", 2);
    EXPECT_EQ(again, task_get_list() + 1);
    EXPECT_EQ(again->pid, TASK_MAX);

    const auto rest = take_heap_but(16000);
    EXPECT_EQ(task("no memory", 2), nullptr);
    EXPECT_EQ(task_find_by_pid(TASK_MAX + 1), nullptr);
}

TEST_F(Sched, UserTasksOwnTheirPagesAndGiveThemBack) {
    const uint32_t memory = heap_used(), frames = pmm_used_frames();
    task_t* t = task_create_user("user", body, 4);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->state, TASK_BLOCKED);
    EXPECT_EQ(t->user_page_count, 16u);
    EXPECT_EQ(recorded("pid=1 name=user pri=4 ring=3"), 1);
    std::string text(5000, 'x');
    EXPECT_TRUE(task_write_user(t, TASK_USER_STACK_BASE + 4000, text.data(), text.size()));
    EXPECT_EQ(*reinterpret_cast<char*>(t->user_pages[2].phys + 807), 'x');
    EXPECT_EQ(*reinterpret_cast<char*>(t->user_pages[2].phys + 808), '\0');
    EXPECT_FALSE(task_write_user(t, TASK_USER_STACK_END - 4, text.data(), 5));
    EXPECT_NE(task_alloc_user_page(t, 0x40000123, 0), 0u);
    EXPECT_EQ(t->user_pages[16].virt, 0x40000000u);
    running().page_dir = t->page_dir;
    EXPECT_TRUE(vmm_user_range_ok(0x40000000, 4096, false));
    EXPECT_FALSE(vmm_user_range_ok(0x40000000, 1, true));
    task_make_ready(t);
    sched_start();
    schedule();
    EXPECT_EQ(machine().cr3, reinterpret_cast<uintptr_t>(t->page_dir));
    EXPECT_EQ(task_enter_user(), uint64_t{reinterpret_cast<uintptr_t>(body)} << 32 | 0x50000000);
    EXPECT_THROW(task_exit(), machine_halted);
    machine().interrupts_on = true;
    task_reap();
    EXPECT_EQ(heap_used(), memory);
    EXPECT_EQ(pmm_used_frames(), frames);

    while (pmm_available_frames() > 12)
        EXPECT_NE(pmm_alloc_frame(), 0u);
    EXPECT_EQ(task_create_user("too big", body, 4), nullptr);
    EXPECT_EQ(heap_used(), memory);
    EXPECT_EQ(pmm_available_frames(), 12u);
}

TEST_F(Sched, TerminalSizesAreClampedAndSharedInASession) {
    int ctx = 0, rows = -1, cols = -1;
    task_t* a = task("a", 1);
    task_t* b = task("b", 1);
    task_set_term_size(a, 0, 80);
    EXPECT_FALSE(task_get_term_size(a, &rows, &cols));
    EXPECT_EQ(rows, -1);
    task_set_io(a, no_write, no_read, &ctx);
    task_set_io(b, no_write, no_read, &ctx);
    task_set_term_size(a, 5000, 20);
    ASSERT_TRUE(task_get_term_size(b, &rows, &cols));
    EXPECT_EQ(std::pair(rows, cols), std::pair(1000, 20));
    EXPECT_FALSE(task_get_term_size(task("c", 1), &rows, &cols));
}

}  // namespace
