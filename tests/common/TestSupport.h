// Helpers shared by the tests.
#pragma once

#include "Dispatch.h"

#include <QString>

#include <chrono>
#include <functional>

namespace brix::test {

// Runs the main thread's event loop until `done` answers true or the timeout
// passes. Returns the last answer of `done`.
bool processEventsUntil(const std::function<bool()> &done, std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Waits until every task submitted to `queue` so far has run.
void drain(const dispatch::QueuePtr &queue);

// The temporary HOME of the running test.
QString testHome();

} // namespace brix::test
