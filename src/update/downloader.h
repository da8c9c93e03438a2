#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

class UpdateTransfer;

// Downloads one URL into a file on a worker thread, under the updater's
// transport rules (a refused URL fails before anything is written). The
// body of any HTTP answer counts as the download (an error page is judged
// later, by the install step). Callbacks run on that worker thread.
class OndrelDownloader : public std::enable_shared_from_this<OndrelDownloader> {
 public:
  using Progress = std::function<void(double fraction)>;
  // nullopt on success, else the reason.
  using Done = std::function<void(const std::optional<std::string>& error)>;

  // The returned object may be dropped: the transfer keeps it alive until
  // it has reported.
  static std::shared_ptr<OndrelDownloader> startWithURL(const std::string& url, const std::string& dest,
                                                        Progress progress, Done done);

  OndrelDownloader(const OndrelDownloader&) = delete;
  OndrelDownloader& operator=(const OndrelDownloader&) = delete;
  ~OndrelDownloader();

 private:
  OndrelDownloader() = default;
  void run(const std::string& url);
  void didWriteData(int64_t totalWritten, int64_t totalExpected);
  void didFinishDownloadingTo(const std::string& tempPath);
  void didCompleteWithError(const std::string& error);
  static size_t write(char* data, size_t size, size_t count, void* self);

  std::unique_ptr<UpdateTransfer> _session;
  std::string _dest;
  Done _done;
  Progress _progress;

  // Transfer state, touched by the download thread only.
  std::FILE* file_ = nullptr;
  int64_t written_ = 0;
  int writeErrno_ = 0;
};
