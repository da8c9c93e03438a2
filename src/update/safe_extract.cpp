#include "update/safe_extract.h"

#include <archive.h>
#include <archive_entry.h>
#include <stdlib.h>

#include <memory>

namespace {

struct ReadCloser {
  void operator()(archive* a) const { archive_read_free(a); }
};
struct WriteCloser {
  void operator()(archive* a) const { archive_write_free(a); }
};

// An entry name is acceptable when it stays below the folder it is
// unpacked into: relative, no ".." component, not empty.
bool staysInside(const char* name) {
  if (!name || !*name || *name == '/') return false;
  std::string_view path(name);
  size_t start = 0;
  bool any = false;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    std::string_view part = path.substr(start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
    if (part == "..") return false;
    if (!part.empty() && part != ".") any = true;
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  return any;
}

ExtractResult failure(const std::string& text) { return {1, text.empty() ? std::string("unknown error") : text}; }

std::string errorOf(archive* a, const char* fallback) {
  const char* text = archive_error_string(a);
  return text && *text ? text : fallback;
}

}  // namespace

ExtractResult ondrelExtractArchive(const std::string& archivePath, const std::string& stageDir) {
  // Entries are written by absolute path under the staging folder's real
  // location, so the folder's own ancestors may be symbolic links without
  // the symlink guard refusing everything.
  char* resolved = realpath(stageDir.c_str(), nullptr);
  if (!resolved) return failure("cannot resolve the staging folder " + stageDir);
  std::string stage(resolved);
  free(resolved);

  std::unique_ptr<archive, ReadCloser> reader(archive_read_new());
  std::unique_ptr<archive, WriteCloser> writer(archive_write_disk_new());
  if (!reader || !writer) return failure("out of memory");
  archive_read_support_format_zip(reader.get());
  // Permission bits (the executables' x bit) come from the entries, less the
  // umask; owners, set-id bits, ACLs and extended attributes never do.
  archive_write_disk_set_options(writer.get(), ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                                                   ARCHIVE_EXTRACT_SECURE_NODOTDOT);

  if (archive_read_open_filename(reader.get(), archivePath.c_str(), 1 << 20) != ARCHIVE_OK)
    return failure(errorOf(reader.get(), "cannot open the archive"));

  while (true) {
    archive_entry* entry = nullptr;
    int status = archive_read_next_header(reader.get(), &entry);
    if (status == ARCHIVE_EOF) break;
    if (status < ARCHIVE_WARN) return failure(errorOf(reader.get(), "cannot read the archive"));

    const char* name = archive_entry_pathname(entry);
    std::string shown = name ? name : "";
    if (!staysInside(name)) return failure("refused entry \"" + shown + "\": it would land outside the staging folder");
    archive_entry_set_pathname(entry, (stage + "/" + name).c_str());

    if (const char* target = archive_entry_hardlink(entry)) {
      if (!staysInside(target))
        return failure("refused entry \"" + shown + "\": it links to a file outside the staging folder");
      archive_entry_set_hardlink(entry, (stage + "/" + target).c_str());
    }

    // A refused entry (one that would go through a link) is only a warning
    // to libarchive, which skips it; an update with a hole in it is no update.
    status = archive_read_extract2(reader.get(), entry, writer.get());
    if (status != ARCHIVE_OK) {
      std::string reason = errorOf(reader.get(), "");
      if (reason.empty()) reason = errorOf(writer.get(), "cannot write the entry");
      return failure("\"" + shown + "\": " + reason);
    }
  }
  if (archive_write_close(writer.get()) < ARCHIVE_WARN) return failure(errorOf(writer.get(), "cannot finish writing"));
  return {0, "(no output)"};
}
