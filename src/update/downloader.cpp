#include "update/downloader.h"

#include <curl/curl.h>
#include <glib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include "base/files.h"
#include "base/main_thread.h"
#include "update/update_transfer.h"

namespace {

constexpr long kTimeoutSeconds = 4 * 60 * 60;
// A server that sends nothing for this long has gone away.
constexpr long kStallSeconds = 60;
constexpr size_t kFileBuffer = 1 << 20;

std::string describeErrno(const std::string& what, const std::string& path, int err) {
  return what + " “" + path + "”: " + g_strerror(err);
}

}  // namespace

std::shared_ptr<OndrelDownloader> OndrelDownloader::startWithURL(const std::string& url, const std::string& dest,
                                                                 Progress progress, Done done) {
  std::shared_ptr<OndrelDownloader> downloader(new OndrelDownloader);
  downloader->_dest = dest;
  downloader->_done = std::move(done);
  downloader->_progress = std::move(progress);
  runInBackground([downloader, url] { downloader->run(url); });
  return downloader;
}

OndrelDownloader::~OndrelDownloader() = default;

size_t OndrelDownloader::write(char* data, size_t size, size_t count, void* user) {
  auto* self = static_cast<OndrelDownloader*>(user);
  size_t n = size * count;
  size_t put = std::fwrite(data, 1, n, self->file_);
  if (put != n) {
    self->writeErrno_ = errno ? errno : EIO;
    return put;
  }
  self->written_ += static_cast<int64_t>(n);
  curl_off_t expected = -1;
  curl_easy_getinfo(self->_session->handle(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected);
  self->didWriteData(self->written_, expected);
  return n;
}

void OndrelDownloader::didWriteData(int64_t totalWritten, int64_t totalExpected) {
  if (!_progress) return;
  if (totalExpected < 1) {
    _progress(0.0);
  } else {
    _progress(static_cast<double>(totalWritten) / static_cast<double>(totalExpected));
  }
}

void OndrelDownloader::didFinishDownloadingTo(const std::string& tempPath) {
  std::remove(_dest.c_str());
  std::optional<std::string> error;
  if (std::rename(tempPath.c_str(), _dest.c_str()) != 0) {
    error = describeErrno("Could not move the download to", _dest, errno);
    std::remove(tempPath.c_str());
  }
  if (_done) _done(error);
}

void OndrelDownloader::didCompleteWithError(const std::string& error) {
  if (_done) _done(error);
}

void OndrelDownloader::run(const std::string& url) {
  _session = std::make_unique<UpdateTransfer>(url);
  CURL* curl = _session->handle();
  if (!curl) {
    didCompleteWithError(_session->perform());
    return;
  }
  // The partial file sits beside the destination, so the final move is a
  // rename on one file system, never a copy of the whole archive.
  std::string tempPath = parentDirectory(_dest) + "/.ondrel-download-XXXXXX";
  int fd = mkstemp(tempPath.data());
  if (fd < 0) {
    didCompleteWithError(describeErrno("Could not create a file in", parentDirectory(_dest), errno));
    return;
  }
  file_ = fdopen(fd, "wb");
  if (!file_) {
    int err = errno;
    close(fd);
    std::remove(tempPath.c_str());
    didCompleteWithError(describeErrno("Could not write", tempPath, err));
    return;
  }
  std::setvbuf(file_, nullptr, _IOFBF, kFileBuffer);

  curl_easy_setopt(curl, CURLOPT_TIMEOUT, kTimeoutSeconds);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, kStallSeconds);
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, 512L * 1024L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &OndrelDownloader::write);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, this);

  std::string transferError = _session->perform();
  int closeErrno = std::fclose(file_) == 0 ? 0 : errno;
  file_ = nullptr;

  std::optional<std::string> error;
  if (writeErrno_) {
    error = describeErrno("Could not write", tempPath, writeErrno_);
  } else if (!transferError.empty()) {
    error = transferError;
  } else if (closeErrno) {
    error = describeErrno("Could not write", tempPath, closeErrno);
  }
  if (error) {
    std::remove(tempPath.c_str());
    didCompleteWithError(*error);
  } else {
    didFinishDownloadingTo(tempPath);
  }
  _session.reset();
}
