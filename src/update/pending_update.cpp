#include "update/pending_update.h"

#include <cstdio>

#include "base/files.h"
#include "base/json.h"
#include "base/log.h"
#include "update/update_host.h"
#include "update/update_paths.h"
#include "update/updater.h"

std::optional<PendingUpdate> ondrelReadPendingUpdate(const std::string& path) {
  auto bytes = readWholeFile(path);
  if (!bytes) return std::nullopt;
  auto record = parseJson(*bytes);
  if (!record || !record->is_object()) return std::nullopt;
  auto url = record->find("url");
  if (url == record->end() || !url->is_string() || url->get<std::string>().empty()) return std::nullopt;
  PendingUpdate pending;
  pending.url = url->get<std::string>();
  if (auto version = record->find("version"); version != record->end() && version->is_string())
    pending.version = version->get<std::string>();
  return pending;
}

bool ondrelWritePendingUpdate(const std::string& path, const std::string& version, const std::string& url) {
  Json record = Json::object();
  record["version"] = version;
  record["url"] = url;
  return writeFileAtomically(path, record.dump(2, ' ', false, Json::error_handler_t::replace) + "\n").ok;
}

void Updater::applyScheduledUpdate() {
  const std::string path = ondrelPendingUpdatePath();
  auto pending = ondrelReadPendingUpdate(path);
  if (!pending) return;
  // Gone before anything is tried: an update that keeps failing must not
  // come back at every start.
  std::remove(path.c_str());
  logLine("[Update] applying scheduled update " + pending->version + " (" + pending->url + ")");
  updateIsDeferred_ = true;
  beginUpdate(pending->version, pending->url);
  host_.runEventLoop();
}
