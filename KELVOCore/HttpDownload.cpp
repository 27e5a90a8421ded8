#include "KELVOCore/HttpDownload.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "KELVOCore/Types.h"

namespace kelvo {

std::string HttpDownloadHead::header(const std::string& name) const {
  const auto it = headers.find(name);
  return it == headers.end() ? std::string{} : it->second;
}

namespace {

// The transfer's state, shared by libcurl's callbacks. It owns the file
// descriptor, which is opened only once the head and the prefix allow it.
class Transfer {
 public:
  Transfer(const HttpDownloadRequest& request, CURL* curl) : request_(request), curl_(curl) {}
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;
  ~Transfer() {
    if (fd_ >= 0) ::close(fd_);
  }

  // A status line starts a new header block (after a redirect or a
  // "100 Continue"); only the last block describes the body.
  void headerLine(std::string_view line) {
    if (line.starts_with("HTTP/")) {
      result.head.headers.clear();
      return;
    }
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return;
    result.head.headers[toLower(trimmed(line.substr(0, colon)))] = trimmed(line.substr(colon + 1));
  }

  // False ends the transfer; `result` then says why.
  bool body(std::span<const std::uint8_t> data) {
    if (!decided_ && !decide()) return false;
    if (checking_) {
      const std::size_t take = std::min(data.size(), request_.prefixBytes - prefix_.size());
      prefix_.insert(prefix_.end(), data.begin(), data.begin() + static_cast<std::ptrdiff_t>(take));
      data = data.subspan(take);
      if (prefix_.size() < request_.prefixBytes) return true;
      if (!releasePrefix()) return false;
    }
    return write(data);
  }

  // After libcurl reported success: a body shorter than the prefix, or none at
  // all, still goes through the same decisions.
  void finish() {
    if (!decided_ && !decide()) return;
    if (checking_ && !releasePrefix()) return;
    if (fd_ < 0 && !open()) return;
    if (::fsync(fd_) != 0) {
      fail(HttpDownloadEnd::writeError, std::strerror(errno));
      return;
    }
    result.end = HttpDownloadEnd::complete;
  }

  // libcurl's own low-speed check averages over several seconds, which would
  // stretch a short stall time-out; counting from the last byte is exact.
  bool progress(std::int64_t received) {
    const auto now = std::chrono::steady_clock::now();
    if (received != lastReceived_) {
      lastReceived_ = received;
      lastByte_ = now;
    } else if (now - lastByte_ >= request_.stallTimeout) {
      return fail(HttpDownloadEnd::stalled, "no data for " + std::to_string(request_.stallTimeout.count()) + " ms");
    }
    return !request_.onProgress || request_.onProgress(result.written) || fail(HttpDownloadEnd::cancelled, {});
  }

  // True when one of our callbacks ended the transfer; `result` says why.
  bool endedByUs() const { return ended_; }

  HttpDownloadResult result;

 private:
  bool decide() {
    decided_ = true;
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &result.head.status);
    write_ = request_.onHead ? request_.onHead(result.head) : DownloadWrite::replace;
    if (write_ == DownloadWrite::discard) return fail(HttpDownloadEnd::refused, {});
    checking_ = write_ == DownloadWrite::replace && request_.prefixBytes > 0 && request_.checkPrefix;
    return true;
  }

  bool releasePrefix() {
    checking_ = false;
    if (!request_.checkPrefix(prefix_)) return fail(HttpDownloadEnd::refused, {});
    return write(prefix_);
  }

  bool open() {
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (write_ == DownloadWrite::append ? O_APPEND : O_TRUNC);
    fd_ = ::open(request_.path.c_str(), flags, 0644);
    return fd_ >= 0 || fail(HttpDownloadEnd::writeError, std::strerror(errno));
  }

  bool write(std::span<const std::uint8_t> data) {
    if (data.empty()) return true;
    if (fd_ < 0 && !open()) return false;
    while (!data.empty()) {
      const ssize_t n = ::write(fd_, data.data(), data.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return fail(HttpDownloadEnd::writeError, std::strerror(n < 0 ? errno : EIO));
      data = data.subspan(static_cast<std::size_t>(n));
      result.written += n;
    }
    return true;
  }

  bool fail(HttpDownloadEnd end, std::string error) {
    result.end = end;
    result.error = std::move(error);
    ended_ = true;
    return false;
  }

  const HttpDownloadRequest& request_;
  CURL* curl_;
  int fd_ = -1;
  bool decided_ = false;
  bool checking_ = false;
  bool ended_ = false;
  DownloadWrite write_ = DownloadWrite::replace;
  std::vector<std::uint8_t> prefix_;
  std::int64_t lastReceived_ = 0;
  std::chrono::steady_clock::time_point lastByte_ = std::chrono::steady_clock::now();
};

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
  static_cast<Transfer*>(user)->headerLine({data, size * count});
  return size * count;
}

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(data);
  return static_cast<Transfer*>(user)->body({bytes, size * count}) ? size * count : 0;
}

int onProgress(void* user, curl_off_t, curl_off_t received, curl_off_t, curl_off_t) {
  return static_cast<Transfer*>(user)->progress(received) ? 0 : 1;
}

// The environment's no-proxy list with loopback added: a proxy must never sit
// between us and a server on this machine (the test doubles, a local hub).
std::string noProxyList() {
  std::string list = "127.0.0.1,localhost,::1";
  for (const char* name : {"no_proxy", "NO_PROXY"}) {
    if (const char* value = std::getenv(name); value != nullptr && *value != '\0') {
      return std::string(value) + "," + list;
    }
  }
  return list;
}

}  // namespace

HttpDownloadResult httpDownload(const HttpDownloadRequest& request) {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });

  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(), curl_easy_cleanup);
  if (!handle) return {HttpDownloadEnd::transportError, {}, 0, "cannot create an HTTP client handle"};
  CURL* h = handle.get();
  Transfer transfer(request, h);
  char errorText[CURL_ERROR_SIZE] = {};
  const std::string noProxy = noProxyList();
  const std::string range = std::to_string(request.rangeFrom) + "-";

  curl_easy_setopt(h, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(h, CURLOPT_MAXREDIRS, 10L);
  curl_easy_setopt(h, CURLOPT_NOPROXY, noProxy.c_str());
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, static_cast<long>(request.connectTimeout.count()));
  if (request.rangeFrom > 0) curl_easy_setopt(h, CURLOPT_RANGE, range.c_str());
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, &transfer);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, onProgress);
  curl_easy_setopt(h, CURLOPT_XFERINFODATA, &transfer);

  const CURLcode rc = curl_easy_perform(h);
  if (rc == CURLE_OK) {
    transfer.finish();
  } else if (!transfer.endedByUs()) {
    transfer.result.end = HttpDownloadEnd::transportError;
    transfer.result.error = errorText[0] != '\0' ? errorText : curl_easy_strerror(rc);
  }
  if (transfer.result.head.status == 0) curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &transfer.result.head.status);
  return std::move(transfer.result);
}

}  // namespace kelvo
