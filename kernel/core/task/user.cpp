// Ring 3 tasks: their address space, stack and pages.
#include "arch/x86/switch.h"
#include "kernel/core/string.h"
#include "kernel/core/task/sched.h"

namespace {

constexpr uint32_t PAGES_CAP_FIRST = 32;

phys_addr_t page_base(uint32_t addr) { return addr & ~(PAGE_SIZE - 1); }

/// Makes room for one more entry in the task's list of pages; false without memory.
bool grow_page_list(task_t* t) {
    if (t->user_page_count < t->user_page_cap)
        return true;
    const uint32_t cap = t->user_page_cap == 0 ? PAGES_CAP_FIRST : 2 * t->user_page_cap;
    auto* pages = static_cast<user_page_mapping_t*>(kmalloc(cap * sizeof(user_page_mapping_t)));
    if (pages == nullptr)
        return false;
    if (t->user_pages != nullptr)
        memcpy(pages, t->user_pages, t->user_page_count * sizeof(user_page_mapping_t));
    kfree(t->user_pages);
    t->user_pages = pages;
    t->user_page_cap = cap;
    return true;
}

const user_page_mapping_t* find_page(const task_t* t, virt_addr_t virt) {
    for (uint32_t i = 0; i < t->user_page_count; ++i)
        if (t->user_pages[i].virt == virt)
            return &t->user_pages[i];
    return nullptr;
}

bool give_user_stack(task_t* t) {
    t->user_stack = TASK_USER_STACK_BASE;
    t->user_entry_esp = TASK_USER_STACK_END;
    for (virt_addr_t virt = TASK_USER_STACK_BASE; virt < TASK_USER_STACK_END; virt += PAGE_SIZE)
        if (task_alloc_user_page(t, virt, PAGE_WRITABLE) == 0)
            return false;
    return true;
}

/// Everything a user task's draft needs; what was taken stays in the draft when it fails.
bool build(task_t* draft) {
    draft->state = TASK_BLOCKED;
    draft->is_user = true;
    draft->parent_pid = task_getpid();
    draft->page_dir = vmm_create_user_dir();
    return draft->page_dir != nullptr && task_draft_stack(draft, switch_trampoline_user()) &&
           give_user_stack(draft);
}

void free_user_pages(const task_t* t) {
    for (uint32_t i = 0; i < t->user_page_count; ++i)
        pmm_free_frame(t->user_pages[i].phys);
    kfree(t->user_pages);
    vmm_destroy_user_dir(t->page_dir);
}

}  // namespace

task_t* task_create_user(const char* name, task_entry_fn entry, int priority) {
    task_t draft;
    if (!task_draft(&draft, name, entry, priority, 0))
        return nullptr;
    task_t* t = build(&draft) ? task_publish(&draft) : nullptr;
    if (t == nullptr)
        task_free_memory(&draft);
    return t;
}

phys_addr_t task_alloc_user_page(task_t* t, virt_addr_t virt, uint32_t flags) {
    constexpr uint32_t FRAMES_NEEDED = 2;  // the page, and perhaps its page table
    if (pmm_available_frames() < FRAMES_NEEDED || !grow_page_list(t))
        return 0;
    const phys_addr_t phys = pmm_alloc_frame();
    if (phys == 0)
        return 0;
    memset(reinterpret_cast<void*>(phys), 0, PAGE_SIZE);
    vmm_map_page(t->page_dir, page_base(virt), phys, flags | PAGE_USER);
    t->user_pages[t->user_page_count++] = {page_base(virt), phys};
    return phys;
}

bool task_write_user(task_t* t, virt_addr_t dst, const void* src, size_t len) {
    const auto* from = static_cast<const uint8_t*>(src);
    while (len > 0) {
        const user_page_mapping_t* page = find_page(t, page_base(dst));
        if (page == nullptr)
            return false;
        const uint32_t offset = dst - page->virt;
        const size_t room = PAGE_SIZE - offset;
        const size_t n = len < room ? len : room;
        memcpy(reinterpret_cast<void*>(page->phys + offset), from, n);
        from += n;
        dst += static_cast<uint32_t>(n);
        len -= n;
    }
    return true;
}

void task_free_memory(task_t* t) {
    kfree(reinterpret_cast<void*>(t->stack_bottom));
    if (t->is_user) {
        free_user_pages(t);
        return;
    }
    kfree(reinterpret_cast<void*>(t->user_stack));
    kfree(reinterpret_cast<void*>(t->heap_base));
}
