#pragma once

// Writes zip archives with whatever entries a test needs, hostile ones
// included (absolute names, "..", links pointing anywhere).

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>

#include <string>
#include <vector>

struct ZipEntry {
  enum Kind { File, Dir, Symlink };
  std::string name;
  Kind kind = File;
  std::string data;  // file contents, or the link target
  int mode = 0644;
};

inline bool writeZip(const std::string& path, const std::vector<ZipEntry>& entries) {
  archive* a = archive_write_new();
  archive_write_set_format_zip(a);
  if (archive_write_open_filename(a, path.c_str()) != ARCHIVE_OK) {
    archive_write_free(a);
    return false;
  }
  bool ok = true;
  for (const auto& e : entries) {
    archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, e.name.c_str());
    archive_entry_set_mtime(entry, 1700000000, 0);
    switch (e.kind) {
      case ZipEntry::File:
        archive_entry_set_filetype(entry, AE_IFREG);
        archive_entry_set_size(entry, static_cast<la_int64_t>(e.data.size()));
        break;
      case ZipEntry::Dir:
        archive_entry_set_filetype(entry, AE_IFDIR);
        break;
      case ZipEntry::Symlink:
        archive_entry_set_filetype(entry, AE_IFLNK);
        archive_entry_set_symlink(entry, e.data.c_str());
        break;
    }
    archive_entry_set_perm(entry, e.kind == ZipEntry::Dir ? 0755 : e.mode);
    ok = ok && archive_write_header(a, entry) == ARCHIVE_OK;
    if (e.kind == ZipEntry::File && !e.data.empty())
      ok = ok && archive_write_data(a, e.data.data(), e.data.size()) == static_cast<la_ssize_t>(e.data.size());
    archive_entry_free(entry);
  }
  ok = archive_write_close(a) == ARCHIVE_OK && ok;
  archive_write_free(a);
  return ok;
}

// A minimal AppDir as the packaging script lays it out.
inline std::vector<ZipEntry> appDirEntries(const std::string& prefix) {
  return {
      {prefix + "/", ZipEntry::Dir, ""},
      {prefix + "/AppRun", ZipEntry::File, "#!/bin/sh\n", 0755},
      {prefix + "/ondrel.desktop", ZipEntry::File, "[Desktop Entry]\n"},
      {prefix + "/ondrel.svg", ZipEntry::File, "<svg/>"},
      {prefix + "/.DirIcon", ZipEntry::Symlink, "ondrel.svg"},
      {prefix + "/usr/", ZipEntry::Dir, ""},
      {prefix + "/usr/bin/", ZipEntry::Dir, ""},
      {prefix + "/usr/bin/ondrel", ZipEntry::File, "\x7f" "ELF", 0755},
  };
}
