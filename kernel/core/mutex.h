// A lock for what waits: whoever finds it held sleeps, and gets it in the order of asking.
//
// Task context only; the processor may be taken away while it is held. The holder is recorded, and
// unlocking hands the mutex to the first waiter, so none can be overtaken for ever. Before the
// scheduler starts there is one context, which may lock and unlock as usual. A task that is ended
// from outside while it holds a mutex goes on until it has released the last one.
#pragma once

#include "kernel/core/compiler.h"

struct task_t;

/// All zero: free. A static mutex needs no initialisation.
struct CAPABILITY("mutex") mutex_t {
    bool locked = false;
    task_t* owner = nullptr;  ///< the holder; null while free or before tasks exist
    task_t* first_waiter = nullptr;
    task_t* last_waiter = nullptr;
};

/// Takes `m`, sleeping while another task holds it. Locking one that the caller holds is a bug and
/// stops the machine. A waiter is woken with reason "mutex", which records "unblock" (task.h).
void mutex_lock(mutex_t& m) ACQUIRE(m);

/// Releases `m`, which the caller must hold, or hands it to the first waiter.
void mutex_unlock(mutex_t& m) RELEASE(m);

/// Holds `m` for its scope.
class SCOPED_CAPABILITY mutex_guard {
public:
    explicit mutex_guard(mutex_t& m) ACQUIRE(m) : m_(m) { mutex_lock(m_); }
    ~mutex_guard() RELEASE() { mutex_unlock(m_); }
    mutex_guard(const mutex_guard&) = delete;
    mutex_guard& operator=(const mutex_guard&) = delete;

private:
    mutex_t& m_;
};
