#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

// Splits a byte stream into lines at 0x0A. Bytes arrive in chunks of any
// size; a line split over several chunks comes out once, whole. Empty lines
// are skipped. A line longer than the cap is dropped up to its newline, so a
// server printing without end cannot exhaust memory; the lines after it
// come out as usual.
class LineBuffer {
 public:
  explicit LineBuffer(size_t maxLine) : maxLine_(maxLine) {}

  template <class OnLine>
  void append(const char* data, size_t size, OnLine&& onLine) {
    if (discarding_) {
      const void* nl = std::memchr(data, '\n', size);
      if (!nl) return;
      discarding_ = false;
      size_t skip = static_cast<const char*>(nl) - data + 1;
      data += skip;
      size -= skip;
    }
    // A long line gets room for the longest one at once: its pages are only
    // touched as it fills, and nothing of it is copied to a bigger buffer
    // (which would hold it twice) on the way.
    if (buffer_.size() + size > std::max(buffer_.capacity(), kKeepCapacity)) buffer_.reserve(maxLine_ + size);
    buffer_.append(data, size);
    size_t start = 0;
    for (;;) {
      const void* nl = std::memchr(buffer_.data() + scanned_, '\n', buffer_.size() - scanned_);
      if (!nl) break;
      size_t end = static_cast<const char*>(nl) - buffer_.data();
      if (end > start) onLine(std::string_view(buffer_.data() + start, end - start));
      start = end + 1;
      scanned_ = start;
    }
    buffer_.erase(0, start);
    scanned_ = buffer_.size();
    bool released = start > 0;
    if (buffer_.size() > maxLine_) {
      buffer_.clear();
      scanned_ = 0;
      discarding_ = true;
      ++dropped_;
      released = true;
    }
    // A long line, delivered or dropped, must not keep its memory for the
    // life of the server.
    if (released && buffer_.capacity() > kKeepCapacity && buffer_.size() < buffer_.capacity() / 4)
      buffer_.shrink_to_fit();
  }

  // Lines dropped for their length since the last call.
  size_t takeDropped() {
    size_t n = dropped_;
    dropped_ = 0;
    return n;
  }

  // The last line when the stream ended without a newline ("" for none).
  std::string takeRest() {
    std::string rest;
    rest.swap(buffer_);
    scanned_ = 0;
    if (discarding_) rest.clear();
    discarding_ = false;
    return rest;
  }

 private:
  static constexpr size_t kKeepCapacity = size_t(1) << 20;

  std::string buffer_;
  size_t scanned_ = 0;  // bytes of buffer_ known to hold no newline
  size_t maxLine_;
  size_t dropped_ = 0;
  bool discarding_ = false;
};
