// Ownership of a kernel-heap block as a scope.
#pragma once

#include <type_traits>

#include "kernel/core/memory.h"

/// Owns one kmalloc or kmalloc_aligned block, or nothing; frees it at the end of its scope. Only
/// for types that need no destructor: the block is raw memory.
template <typename T>
class heap_ptr {
    static_assert(std::is_trivially_destructible_v<T>);

public:
    heap_ptr() = default;
    /// Takes over `block`, which came from the heap or is null.
    explicit heap_ptr(void* block) : block_(static_cast<T*>(block)) {}
    ~heap_ptr() { kfree(block_); }
    heap_ptr(const heap_ptr&) = delete;
    heap_ptr& operator=(const heap_ptr&) = delete;
    heap_ptr(heap_ptr&& other) noexcept : block_(other.release()) {}
    heap_ptr& operator=(heap_ptr&& other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }

    /// A block of `count` objects, not initialised; empty when memory or the size runs out.
    [[nodiscard]] static heap_ptr make(size_t count = 1) {
        if (count > HEAP_BYTES / sizeof(T))
            return heap_ptr();
        return heap_ptr(kmalloc(count * sizeof(T)));
    }

    explicit operator bool() const { return block_ != nullptr; }
    T* get() const { return block_; }
    T* operator->() const { return block_; }
    T& operator*() const { return *block_; }
    T& operator[](size_t i) const { return block_[i]; }

    /// Gives the block away without freeing it.
    [[nodiscard]] T* release() {
        T* block = block_;
        block_ = nullptr;
        return block;
    }

    /// Frees the block and takes over `block` (null: nothing).
    void reset(T* block = nullptr) {
        T* old = block_;
        block_ = block;
        kfree(old);
    }

private:
    T* block_ = nullptr;
};
