// The built-in native actions: files, project folders, platform, window
// tint, sounds and the folder chooser. Subsystems add theirs with addAction.
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "base/files.h"
#include "bridge/action_args.h"
#include "bridge/agent_sounds.h"
#include "bridge/bridge.h"
#include "bridge/platform_info.h"
#include "bridge/project_dirs.h"

namespace {

// The most either read action hands the page in one reply. The value is
// held several times over on its way (the file's bytes, our reply text,
// WebKit's copy of each piece, the messages to the web process, the pieces
// in the page and the string they are joined into), so a reply costs both
// processes several times the file's size for a moment, and 16 MB takes the
// page up to a second or two on a busy machine. More would only stall the
// page and swell both processes; text that large is not something a page
// shows anyway.
constexpr size_t kMaxPresentable = 16777216;
const char* const kTooLarge = "file too large to present (max 16 MB)";

// About how much of a long reply goes to the page in one script: WebKit
// copies a script's text several times on the main thread, which for this
// much takes a millisecond or two.
constexpr size_t kPieceBytes = 1 << 18;

const Json kOk = Json{{"ok", true}};

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

// Reads a whole file in one buffer sized up front. (Not mapped: a file
// truncated by another process while mapped would kill the app.) Regular
// files only: a device such as /dev/zero never ends, and opening a FIFO
// would wait for a writer; O_NONBLOCK keeps even that open from waiting.
std::optional<std::string> readFileLimited(const std::string& path, size_t limit, bool& tooLarge, std::string& error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    error = fileError("Failed to open file", path, errno);
    return std::nullopt;
  }
  struct stat st {};
  const bool statted = fstat(fd, &st) == 0;
  if (!statted || !S_ISREG(st.st_mode)) {
    if (!statted || S_ISDIR(st.st_mode))
      error = fileError("Failed to read from file", path, statted ? EISDIR : errno);
    else
      error = "The file “" + path + "” couldn’t be read because it is not a regular file.";
    ::close(fd);
    return std::nullopt;
  }
  if (static_cast<uint64_t>(st.st_size) > limit) {
    tooLarge = true;
    ::close(fd);
    return std::nullopt;
  }
  std::string data;
  // Files of /proc and /sys report no size: grow as they deliver.
  size_t capacity = st.st_size > 0 ? static_cast<size_t>(st.st_size) + 1 : 65536;
  data.resize(capacity);
  size_t used = 0;
  for (;;) {
    if (used == data.size()) data.resize(data.size() * 2);
    ssize_t n = ::read(fd, &data[used], data.size() - used);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error = fileError("Failed to read from file", path, errno);
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    used += static_cast<size_t>(n);
    if (used > limit) {
      tooLarge = true;
      ::close(fd);
      return std::nullopt;
    }
  }
  ::close(fd);
  data.resize(used);
  return data;
}

// JSON string text for valid UTF-8, written straight into the reply: only
// quotes, backslashes and control characters need escaping.
void appendJsonString(std::string& out, const char* data, size_t size) {
  static const char* hex = "0123456789abcdef";
  out += '"';
  const char* run = data;
  const char* end = data + size;
  for (const char* p = data; p < end; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    out.append(run, p);
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        out += "\\u00";
        out += hex[c >> 4];
        out += hex[c & 0xf];
    }
    run = p + 1;
  }
  out.append(run, end);
  out += '"';
}

// Where valid UTF-8 text is cut into pieces of about kPieceBytes: the
// offsets of the pieces' starts and then the text's end. Never inside a
// character, so each piece is valid text on its own.
std::vector<size_t> pieceCuts(const std::string& text) {
  std::vector<size_t> cuts{0};
  while (text.size() - cuts.back() > kPieceBytes) {
    size_t cut = cuts.back() + kPieceBytes;
    while ((static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
    cuts.push_back(cut);
  }
  cuts.push_back(text.size());
  return cuts;
}

void appendBase64(std::string& out, const guchar* data, size_t size) {
  size_t start = out.size();
  out.resize(start + (size / 3 + 1) * 4 + 4);
  gint state = 0, save = 0;
  gsize written = size ? g_base64_encode_step(data, size, FALSE, &out[start], &state, &save) : 0;
  written += g_base64_encode_close(FALSE, &out[start] + written, &state, &save);
  out.resize(start + written);
}

// The work of the file actions, on the file thread: the reply's scripts.

std::vector<std::string> readTextReply(const std::string& path, const ReplyText& reply) {
  bool tooLarge = false;
  std::string error;
  auto text = readFileLimited(path, kMaxPresentable, tooLarge, error);
  if (!text) return {reply(false, tooLarge ? kTooLarge : error)};
  if (!g_utf8_validate_len(text->data(), text->size(), nullptr))
    return {reply(false, "The file “" + path + "” couldn’t be read because it is not valid UTF-8 text.")};
  const auto cuts = pieceCuts(*text);
  return reply.inPieces(true, cuts.size() - 1, kPieceBytes + kPieceBytes / 8, [&](std::string& out, size_t i) {
    appendJsonString(out, text->data() + cuts[i], cuts[i + 1] - cuts[i]);
  });
}

std::vector<std::string> readBase64Reply(const std::string& path, const ReplyText& reply) {
  bool tooLarge = false;
  std::string error;
  auto bytes = readFileLimited(path, kMaxPresentable, tooLarge, error);
  if (!bytes) return {reply(false, tooLarge ? kTooLarge : error)};
  // Whole groups of three bytes a piece, so the pieces' Base64 joins into
  // the whole file's.
  const size_t piece = kPieceBytes / 4 * 3;
  const size_t count = std::max<size_t>(1, (bytes->size() + piece - 1) / piece);
  return reply.inPieces(true, count, kPieceBytes + 2, [&](std::string& out, size_t i) {
    const size_t start = i * piece;
    out += '"';
    appendBase64(out, reinterpret_cast<const guchar*>(bytes->data()) + start, std::min(piece, bytes->size() - start));
    out += '"';
  });
}

std::vector<std::string> writeReply(const std::string& path, const std::string& content, const ReplyText& reply) {
  if (path.find('/') != std::string::npos) {
    auto made = makeDirectories(parentDirectory(path));
    if (!made.ok) return {reply(false, made.error)};
  }
  auto written = writeFileAtomically(path, content);
  return {written.ok ? reply(true, kOk) : reply(false, written.error)};
}

}  // namespace

void Bridge::addBuiltInActions() {
  addAction("pickDirectory", [this](const Json& reqId, const Json& args) {
    host_.pickDirectory(stringArg(args, 0), [this, reqId](std::optional<std::string> path) {
      replyToJS(reqId, true, path ? Json(*path) : Json());
    });
  });

  addAction("platform", [this](const Json& reqId, const Json&) {
    // Neither the kernel nor the account changes while the app runs.
    static const Json info = platformInfo();
    replyToJS(reqId, true, info);
  });

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
  addFileActions();
}

void Bridge::addFileActions() {
  addAction("readFile", [this](const Json& reqId, const Json& args) {
    auto path = stringArg(args, 0);
    if (!path) {
      replyToJS(reqId, false, "readFile expects [path]");
      return;
    }
    replyFromFileThread(reqId, [path = *path](const ReplyText& reply) { return readTextReply(path, reply); });
  });

  addAction("readFileBase64", [this](const Json& reqId, const Json& args) {
    auto path = stringArg(args, 0);
    if (!path) {
      replyToJS(reqId, false, "readFileBase64 expects [path]");
      return;
    }
    replyFromFileThread(reqId, [path = *path](const ReplyText& reply) { return readBase64Reply(path, reply); });
  });

  addAction("writeFile", [this](const Json& reqId, Json& args) {
    auto path = stringArg(args, 0);
    if (!path) {
      replyToJS(reqId, false, "writeFile expects [path, content]");
      return;
    }
    // Missing content writes an empty file, on purpose. Moved, not copied:
    // it may be many megabytes.
    std::string content;
    if (args.size() > 1 && args[1].is_string()) content = std::move(args[1].get_ref<std::string&>());
    replyFromFileThread(reqId, [path = *path, content = std::move(content)](const ReplyText& reply) {
      return writeReply(path, content, reply);
    });
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
