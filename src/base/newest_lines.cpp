#include "base/newest_lines.h"

#include <algorithm>

void NewestLines::appendLine(std::string_view line) {
  text_ += line;
  text_ += '\n';
  lines_ += 1 + static_cast<size_t>(std::count(line.begin(), line.end(), '\n'));
  if (lines_ > maxLines_) head_ = skipLines(lines_ - maxLines_);
  reclaim();
}

std::string NewestLines::take(size_t maxLines) {
  if (maxLines >= lines_) {
    std::string out = head_ == 0 ? std::move(text_) : text_.substr(head_);
    text_.clear();
    head_ = 0;
    lines_ = 0;
    return out;
  }
  const size_t end = skipLines(maxLines);
  std::string out = text_.substr(head_, end - head_);
  head_ = end;
  reclaim();
  return out;
}

size_t NewestLines::skipLines(size_t count) {
  size_t at = head_;
  for (; count > 0; --count, --lines_) at = text_.find('\n', at) + 1;
  return at;
}

// Text before head_ is reclaimed once it is the larger part: amortised linear.
void NewestLines::reclaim() {
  if (head_ == 0 || head_ <= text_.size() / 2) return;
  text_.erase(0, head_);
  head_ = 0;
}
