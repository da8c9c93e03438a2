#include "update/zip_signature.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

bool ondrelHasZipSignature(const std::string& head, uint64_t length) {
  if (length < 4 || head.size() < 4) return false;
  auto third = static_cast<unsigned char>(head[2]);
  return head[0] == 'P' && head[1] == 'K' && (third == 3 || third == 5 || third == 7);
}

ArchiveHead ondrelReadArchiveHead(const std::string& path) {
  ArchiveHead result;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return result;
  struct stat info {};
  char bytes[4];
  ssize_t got = 0;
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
    while (got < 4) {
      ssize_t n = read(fd, bytes + got, 4 - got);
      if (n <= 0) break;
      got += n;
    }
    // Reading the whole file would have failed outright; so does this.
    if (got == 4 || got == info.st_size) {
      result.length = static_cast<uint64_t>(info.st_size);
      result.head.assign(bytes, static_cast<size_t>(got));
    }
  }
  close(fd);
  return result;
}
