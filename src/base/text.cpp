#include "base/text.h"

#include <glib.h>

bool isValidUtf8(std::string_view bytes) {
  // GLib's check stops at a NUL; each stretch between NULs is checked alone.
  for (;;) {
    size_t nul = bytes.find('\0');
    std::string_view stretch = bytes.substr(0, nul);
    if (!g_utf8_validate_len(stretch.data(), stretch.size(), nullptr)) return false;
    if (nul == std::string_view::npos) return true;
    bytes.remove_prefix(nul + 1);
  }
}
