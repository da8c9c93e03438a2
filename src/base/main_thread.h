#pragma once

#include <functional>

// The only place that knows about the main loop. Both are callable from any
// thread; the work runs on the main thread in the order it was queued.
void runOnMain(std::function<void()> fn);
void runOnMainAfter(double seconds, std::function<void()> fn);
