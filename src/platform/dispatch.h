#pragma once

#include <functional>

// Hand-off to the main thread. Both need a QCoreApplication.

// Runs fn on the main thread at a later turn of its event loop.
void dispatchAsyncMain(std::function<void()> fn);

// Runs fn on the main thread and waits for it; runs it at once when called
// on the main thread.
void dispatchSyncMain(const std::function<void()> &fn);

bool isMainThread();
