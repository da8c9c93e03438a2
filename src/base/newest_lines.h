#pragma once

#include <string>
#include <string_view>

// Text made of lines that keeps only its newest lines: appending past the
// limit drops the oldest. The log panel's cap; the system log keeps all.
// A line is what ends in a line feed, so a logged line that holds line feeds
// counts as several, as it does in the panel.
class NewestLines {
 public:
  explicit NewestLines(size_t maxLines) : maxLines_(maxLines) {}

  // Adds the line and a line feed after it.
  void appendLine(std::string_view line);
  // Up to maxLines of the oldest lines kept, which are then no longer kept.
  std::string take(size_t maxLines);
  bool empty() const { return head_ == text_.size(); }

 private:
  // Where the line `count` lines after the oldest starts; those lines stop
  // being counted.
  size_t skipLines(size_t count);
  void reclaim();

  size_t maxLines_;
  std::string text_;
  size_t head_ = 0;  // where the oldest kept line starts
  size_t lines_ = 0;
};
