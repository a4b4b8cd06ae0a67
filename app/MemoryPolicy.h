// The station's process-wide memory policy, applied once at start-up by the
// shell (and by the benchmarks that measure the station's shot path).
//
// Threads: call from the main thread before the camera starts. Owns nothing.
#pragma once

namespace brix {

// Shots of tens of megabytes arrive one after another, each in a buffer of its
// own that is let go once the file is written: keep such buffers in the heap
// so that the next shot reuses the memory of the last one.
void keepShotBuffersInTheHeap();

} // namespace brix
