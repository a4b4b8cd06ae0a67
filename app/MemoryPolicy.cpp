#include "MemoryPolicy.h"

#include <malloc.h>

namespace brix {

void keepShotBuffersInTheHeap() {
    // Left to its defaults the allocator maps every such buffer afresh from the
    // system and unmaps it again, so each download pays a page fault per 4 KiB
    // before a byte is copied. Buffers up to the allocator's largest heap size
    // stay in the heap, and the heap is not trimmed between shots.
    mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 256 * 1024 * 1024);
    // One heap for all threads: a shot is allocated on the camera's queue and
    // freed on the saving one, and in a thread's own heap a buffer that size
    // sits alone in a segment that is unmapped when it is freed, whatever the
    // trim threshold, so every shot would be mapped afresh again.
    mallopt(M_ARENA_MAX, 1);
}

IdleHeapTrim::IdleHeapTrim(dispatch::Nanos quiet) : quiet_(quiet) {}

void IdleHeapTrim::shotSaved() {
    const unsigned long shot = ++*shots_;
    dispatch::after(quiet_, dispatch::globalQueue(dispatch::QOS::Utility), [shots = shots_, shot] {
        if (shots->load() == shot) // no shot since this one
            malloc_trim(0);
    });
}

} // namespace brix
