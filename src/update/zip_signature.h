#pragma once

#include <cstdint>
#include <string>

// "PK" followed by 3, 5 or 7: a local file header, an end-of-directory
// record or a spanning marker. The fourth byte is not looked at, but must
// be there.
bool ondrelHasZipSignature(const std::string& head, uint64_t length);

struct ArchiveHead {
  uint64_t length = 0;  // 0 when the file cannot be read
  std::string head;     // up to the first 4 bytes
};

// Length and first bytes of a file without reading all of it.
ArchiveHead ondrelReadArchiveHead(const std::string& path);
