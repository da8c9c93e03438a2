// The built-in native actions: files, project folders, platform, window
// tint, sounds and the folder chooser. Subsystems add theirs with addAction.
#include <fcntl.h>
#include <glib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "base/files.h"
#include "bridge/agent_sounds.h"
#include "bridge/bridge.h"
#include "bridge/platform_info.h"
#include "bridge/project_dirs.h"

namespace {

constexpr size_t kMaxBase64Source = 16777216;

const Json kOk = Json{{"ok", true}};

std::optional<std::string> stringArg(const Json& args, size_t index) {
  if (index < args.size() && args[index].is_string()) return args[index].get<std::string>();
  return std::nullopt;
}

std::optional<double> numberArg(const Json& args, size_t index) {
  if (index >= args.size()) return std::nullopt;
  const Json& v = args[index];
  if (v.is_number()) return v.get<double>();
  if (v.is_boolean()) return v.get<bool>() ? 1.0 : 0.0;
  return std::nullopt;
}

std::string fileError(const char* what, const std::string& path, int error) {
  return std::string(what) + " “" + path + "”: " + g_strerror(error);
}

// Maps a file read-only; the bytes are encoded straight from the mapping.
class MappedFile {
 public:
  ~MappedFile() {
    if (data_ && size_) munmap(data_, size_);
  }
  // Fills error on failure; tooLarge when the file exceeds limit.
  bool open(const std::string& path, size_t limit, bool& tooLarge, std::string& error) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      error = fileError("Failed to open file", path, errno);
      return false;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0) {
      error = fileError("Failed to get attributes of file", path, errno);
      ::close(fd);
      return false;
    }
    if (S_ISDIR(st.st_mode)) {
      error = fileError("Failed to read from file", path, EISDIR);
      ::close(fd);
      return false;
    }
    if (!S_ISREG(st.st_mode)) {
      // Pipes and devices have no size to check up front: read them.
      ::close(fd);
      return readWhole(path, limit, tooLarge, error);
    }
    if (static_cast<size_t>(st.st_size) > limit) {
      tooLarge = true;
      ::close(fd);
      return false;
    }
    size_ = static_cast<size_t>(st.st_size);
    if (size_ > 0) {
      void* p = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
      if (p == MAP_FAILED) {
        error = fileError("Failed to map file", path, errno);
        size_ = 0;
        ::close(fd);
        return false;
      }
      data_ = p;
    }
    ::close(fd);
    return true;
  }
  const guchar* data() const { return data_ ? static_cast<const guchar*>(data_) : fallback_.empty() ? nullptr : reinterpret_cast<const guchar*>(fallback_.data()); }
  size_t size() const { return data_ ? size_ : fallback_.size(); }

 private:
  bool readWhole(const std::string& path, size_t limit, bool& tooLarge, std::string& error) {
    auto bytes = readWholeFile(path, &error);
    if (!bytes) return false;
    if (bytes->size() > limit) {
      tooLarge = true;
      return false;
    }
    fallback_ = std::move(*bytes);
    return true;
  }
  void* data_ = nullptr;
  size_t size_ = 0;
  std::string fallback_;
};

void appendBase64(std::string& out, const guchar* data, size_t size) {
  size_t start = out.size();
  out.resize(start + (size / 3 + 1) * 4 + 4);
  gint state = 0, save = 0;
  gsize written = size ? g_base64_encode_step(data, size, FALSE, &out[start], &state, &save) : 0;
  written += g_base64_encode_close(FALSE, &out[start] + written, &state, &save);
  out.resize(start + written);
}

}  // namespace

void Bridge::addBuiltInActions() {
  addAction("pickDirectory", [this](const Json& reqId, const Json& args) {
    host_.pickDirectory(stringArg(args, 0), [this, reqId](std::optional<std::string> path) {
      replyToJS(reqId, true, path ? Json(*path) : Json());
    });
  });

  addAction("platform", [this](const Json& reqId, const Json&) { replyToJS(reqId, true, platformInfo()); });

  addAction("getProjectDirs", [this](const Json& reqId, const Json&) {
    replyToJS(reqId, true, projectDirs().value_or(Json::object()));
  });

  addAction("setProjectDir", [this](const Json& reqId, const Json& args) {
    auto id = stringArg(args, 0), path = stringArg(args, 1);
    if (!id || !path) {
      replyToJS(reqId, false, "setProjectDir expects [projectId, path]");
      return;
    }
    setProjectDir(*id, *path);
    replyToJS(reqId, true, kOk);
  });

  addAction("readFile", [this](const Json& reqId, const Json& args) {
    auto path = stringArg(args, 0);
    if (!path) {
      replyToJS(reqId, false, "readFile expects [path]");
      return;
    }
    std::string error;
    auto bytes = readWholeFile(*path, &error);
    if (!bytes) {
      replyToJS(reqId, false, error);
      return;
    }
    if (!g_utf8_validate_len(bytes->data(), bytes->size(), nullptr)) {
      replyToJS(reqId, false, "The file “" + *path + "” couldn’t be read because it is not valid UTF-8 text.");
      return;
    }
    replyToJS(reqId, true, std::move(*bytes));
  });

  addAction("readFileBase64", [this](const Json& reqId, const Json& args) {
    auto path = stringArg(args, 0);
    if (!path) {
      replyToJS(reqId, false, "readFileBase64 expects [path]");
      return;
    }
    MappedFile file;
    bool tooLarge = false;
    std::string error;
    if (!file.open(*path, kMaxBase64Source, tooLarge, error)) {
      replyToJS(reqId, false, tooLarge ? std::string("file too large to present (max 16 MB)") : error);
      return;
    }
    replyToJSWithJsonText(reqId, true, (file.size() / 3 + 1) * 4 + 2, [&file](std::string& out) {
      out += '"';
      appendBase64(out, file.data(), file.size());
      out += '"';
    });
  });

  addAction("writeFile", [this](const Json& reqId, const Json& args) {
    auto path = stringArg(args, 0);
    if (!path) {
      replyToJS(reqId, false, "writeFile expects [path, content]");
      return;
    }
    // Missing content writes an empty file, on purpose.
    std::string content = stringArg(args, 1).value_or("");
    if (path->find('/') != std::string::npos) {
      auto made = makeDirectories(parentDirectory(*path));
      if (!made.ok) {
        replyToJS(reqId, false, made.error);
        return;
      }
    }
    auto written = writeFileAtomically(*path, content);
    if (!written.ok) {
      replyToJS(reqId, false, written.error);
      return;
    }
    replyToJS(reqId, true, kOk);
  });

  addAction("setChromeScrim", [this](const Json& reqId, const Json& args) {
    host_.setChromeScrim(scrimColorFromArgs(args));
    replyToJS(reqId, true, kOk);
  });

  addAction("playSound", [this](const Json& reqId, const Json& args) {
    sounds_.playAgentSound(stringArg(args, 0).value_or("complete"));
    replyToJS(reqId, true, kOk);
  });
}

std::optional<ScrimColor> scrimColorFromArgs(const Json& args) {
  double v[4];
  for (size_t i = 0; i < 4; ++i) v[i] = numberArg(args, i).value_or(0.0);
  if (args.size() < 4 || !numberArg(args, 3) || v[3] <= 0) return std::nullopt;
  return ScrimColor{v[0] / 255.0, v[1] / 255.0, v[2] / 255.0, std::min(v[3], 1.0)};
}
