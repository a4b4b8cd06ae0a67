// The `edsdk` backend: the camera boundary over Canon's own libEDSDK.so,
// loaded at run time (EdsdkLibrary).
//
// Threads: the library is used from one thread only, the serial queue
// kEdsdkQueueLabel owned by this object. EdsInitializeSDK and every later
// library call run there; a caller on another thread waits for its call.
// Linux gives the library no message loop, so while the SDK is initialised a
// repeating timer on that queue calls EdsGetEvent every kEdsdkEventPeriod;
// the library calls our handlers from inside EdsGetEvent.
// Those handlers do not call the application's handlers on the library's
// queue: an application handler may wait for the main thread while the main
// thread waits for a library call, so the events are handed, in order, to a
// second serial queue (kEdsdkEventQueueLabel, the backend's event thread)
// and the library's queue stays free. Object references are retained across
// that hop. Events for a handler that was cleared or replaced meanwhile are
// dropped. The progress callback runs on the thread that called EdsDownload;
// while it runs, the library's queue goes on serving other callers.
//
// Ownership: createEdsdkSdk() returns a backend owned by the caller; it
// terminates the SDK if the caller did not, and keeps the library mapped.
#pragma once

#include "EdsdkLibrary.h"

#include <chrono>

namespace brix::eds {

inline constexpr const char *kEdsdkQueueLabel = "com.lumetra.brix.edsdk";
inline constexpr const char *kEdsdkEventQueueLabel = "com.lumetra.brix.edsdk.events";
// Period of the EdsGetEvent pump.
inline constexpr std::chrono::milliseconds kEdsdkEventPeriod{10};

// The backend over an already loaded library (tests load one by path).
std::unique_ptr<EdsSdk> createEdsdkSdk(std::unique_ptr<EdsdkLibrary> library);

} // namespace brix::eds
