#include "bridge/bridge_gate.h"

#include <sys/random.h>

#include <cerrno>
#include <stdexcept>

#include "base/log.h"

namespace {

constexpr size_t kOriginLogLimit = 200;

std::string randomKey() {
  unsigned char bytes[16];
  size_t filled = 0;
  while (filled < sizeof bytes) {
    ssize_t n = getrandom(bytes + filled, sizeof bytes - filled, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw std::runtime_error("no randomness for the bridge key");
    filled += static_cast<size_t>(n);
  }
  static const char kHex[] = "0123456789abcdef";
  std::string key;
  for (unsigned char b : bytes) {
    key += kHex[b >> 4];
    key += kHex[b & 15];
  }
  return key;
}

// Only the key's owner compares it, but a comparison whose time does not
// depend on how much of a guess was right costs nothing.
bool sameKey(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  return diff == 0;
}

// The origin and the key are ASCII without quotes or backslashes; JSON text
// is a valid JavaScript string literal all the same.
std::string jsString(const std::string& text) { return Json(text).dump(); }

// On the prototype, not on the handler: the handler's script object is made
// anew whenever the engine has collected the last one, and would come back
// without the wrapper.
std::string wrapHandler(const std::string& condition, const std::string& envelopeHead, const std::string& extra) {
  return "(function () {\n"
         "  if (" + condition + ") return;\n"
         "  var handlers = window.webkit && window.webkit.messageHandlers;\n"
         "  var handler = handlers && handlers.ondrel;\n"
         "  if (!handler) return;\n"
         "  var proto = Object.getPrototypeOf(handler), post = proto.postMessage;\n"
         "  Object.defineProperty(proto, 'postMessage', { value: function (body) {\n"
         "    return post.call(this, [" + envelopeHead + ", body]);\n"
         "  } });\n" + extra +
         "})();\n";
}

}  // namespace

BridgeGate::BridgeGate(std::string instanceOrigin, std::string key)
    : origin_(std::move(instanceOrigin)), key_(key.empty() ? randomKey() : std::move(key)) {}

std::string BridgeGate::topFrameScript(const std::string& extraScript) const {
  return wrapHandler("window !== window.top || location.origin !== " + jsString(origin_),
                     jsString(key_) + ", location.origin", "  " + extraScript + "\n");
}

std::string BridgeGate::otherFrameScript() const {
  return wrapHandler("window === window.top && location.origin === " + jsString(origin_),
                     "'', String(location.origin)", "");
}

std::optional<Json> BridgeGate::admit(Json&& envelope) const {
  if (envelope.is_array() && envelope.size() == 3 && envelope[0].is_string() &&
      sameKey(envelope[0].get_ref<const std::string&>(), key_)) {
    return std::move(envelope[2]);
  }
  std::string from = "a frame that bypassed the bridge";
  if (envelope.is_array() && envelope.size() == 3 && envelope[1].is_string())
    from = abbreviateForLog(envelope[1].get_ref<const std::string&>(), kOriginLogLimit);
  logLine("[Bridge] refused a message from " + from + ": only the instance's top frame (" + origin_ +
          ") may use the bridge");
  return std::nullopt;
}

std::string originGuardExpression(const std::string& origin) {
  return "location.origin === " + jsString(origin) + " && ";
}
