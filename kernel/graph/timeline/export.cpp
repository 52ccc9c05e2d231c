// A timeline as a text: a line about it, then one an event.
#include "kernel/core/string.h"
#include "kernel/fs/overlay.h"
#include "kernel/graph/timeline/internal.h"

namespace {

/// Identifier, tick, subsystem and description with what stands between them.
constexpr uint32_t LINE_BYTES = 24 + CAUSAL_SUBSYSTEM_SIZE + CAUSAL_DESC_SIZE + 16;

int write_text(const char* path, const char* text, uint32_t len) {
    char full[PATH_BYTES];
    if (strlen(path) + 1 >= sizeof full)
        return OVERLAY_TOO_LONG;
    ksnprintf(full, sizeof full, "/%s", path);
    path_normalize(full);
    const int error = overlay_write(full, vorn_route_for_write(path), text, len);
    return error < 0 ? error : static_cast<int>(len);
}

int export_locked(int tl_id, const char* path, int max_events) REQUIRES(timeline_lock) {
    timeline_chain_t chain;
    if (!timeline_collect(tl_id, &chain))
        return -1;
    const int count = chain.count < max_events ? chain.count : max_events;
    const uint32_t size = static_cast<uint32_t>(count + 1) * LINE_BYTES;
    const auto text = heap_ptr<char>::make(size);
    if (!text)
        return -1;
    auto len = static_cast<uint32_t>(ksnprintf(text.get(), size, "# %s (%s), %u events\n",
                                               chain.tl.name, chain.tl.app, chain.tl.event_count));
    causal_event_t ev;
    for (int i = chain.count - count; i < chain.count; ++i) {
        if (causal_copy(chain.ids[i], &ev))
            len +=
                static_cast<uint32_t>(ksnprintf(text.get() + len, size - len, "[%u] T+%u %s: %s\n",
                                                ev.id, ev.time.wall_ticks, ev.subsystem, ev.desc));
    }
    return write_text(path, text.get(), len);
}

}  // namespace

int timeline_export_recent(int tl_id, const char* path, int max_events) {
    if (path == nullptr || max_events < 0)
        return -1;
    const mutex_guard guard(timeline_lock);
    return export_locked(tl_id, path, max_events);
}

int timeline_export(int tl_id, const char* path) {
    return timeline_export_recent(tl_id, path, INT32_MAX);
}
