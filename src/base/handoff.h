#pragma once

// GLib hands work between threads (thread pools, GTask) through its own
// futex-based locks, which ThreadSanitizer cannot see. These mark such a
// hand-off for it, so that what the receiving thread reads of the work is
// known to come after what the sending thread wrote; in other builds they
// are nothing.
#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
inline void markHandOff(const void* work) { __tsan_release(const_cast<void*>(work)); }
inline void markTakeOver(const void* work) { __tsan_acquire(const_cast<void*>(work)); }
#else
inline void markHandOff(const void*) {}
inline void markTakeOver(const void*) {}
#endif
