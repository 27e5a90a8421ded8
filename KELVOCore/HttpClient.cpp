#include "KELVOCore/HttpClient.h"

#include <curl/curl.h>

#include <charconv>
#include <memory>
#include <mutex>

namespace kelvo {

namespace {

// A declared length is trusted for reserving only up to this much.
constexpr std::size_t kReserveLimit = 256u << 20;

void initOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::size_t collectBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* body = static_cast<Bytes*>(user);
  body->insert(body->end(), data, data + size * count);
  return size * count;
}

std::size_t collectHeader(char* data, std::size_t size, std::size_t count, void* user) {
  auto* reply = static_cast<HttpClientReply*>(user);
  auto* headers = &reply->headers;
  const std::string_view line(data, size * count);
  // A status line starts a new header block (after "100 Continue" or a
  // redirect); only the final block describes the reply.
  if (line.starts_with("HTTP/")) {
    headers->clear();
    return size * count;
  }
  const std::size_t colon = line.find(':');
  if (colon != std::string_view::npos) {
    const std::string value = trimmed(line.substr(colon + 1));
    const std::string name = toLower(trimmed(line.substr(0, colon)));
    // Large replies (seconds of audio) land in one allocation, not a chain of regrowths.
    if (name == "content-length") {
      std::size_t length = 0;
      const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), length);
      if (ec == std::errc() && length <= kReserveLimit) reply->body.reserve(length);
    }
    (*headers)[name] = value;
  }
  return size * count;
}

bool isLoopback(const std::string& url) {
  for (const char* prefix : {"http://127.0.0.1", "http://localhost", "http://[::1]"}) {
    if (url.starts_with(prefix)) return true;
  }
  return false;
}

HttpClientReply noHandle() {
  HttpClientReply reply;
  reply.error = "cannot create an HTTP client handle";
  return reply;
}

// One exchange on `h`, whose options are set afresh; its connection cache
// stays. `maxIdle` bounds the reuse of a cached connection.
HttpClientReply perform(CURL* h, const HttpClientRequest& request, std::chrono::seconds maxIdle) {
  HttpClientReply reply;
  curl_easy_reset(h);
  curl_slist* rawList = nullptr;
  for (const auto& [name, value] : request.headers) rawList = curl_slist_append(rawList, (name + ": " + value).c_str());
  // Without this libcurl waits up to a second for a "100 Continue" before a
  // large body; none of our servers asks for that pause.
  rawList = curl_slist_append(rawList, "Expect:");
  const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headerList(rawList, curl_slist_free_all);

  char errorText[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(h, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(h, CURLOPT_MAXAGE_CONN, static_cast<long>(maxIdle.count()));
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeout.count()));
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headerList.get());
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collectBody);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &reply.body);
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, collectHeader);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, &reply);
  // A proxy from the environment must never sit between us and a local process.
  if (isLoopback(request.url)) curl_easy_setopt(h, CURLOPT_NOPROXY, "*");
  // An empty body still goes out (with "Content-Length: 0") for the methods that carry one.
  const bool sendsBody =
      !request.body.empty() || request.method == "POST" || request.method == "PUT" || request.method == "PATCH";
  if (sendsBody) {
    curl_easy_setopt(h, CURLOPT_POSTFIELDS,
                     request.body.empty() ? "" : reinterpret_cast<const char*>(request.body.data()));
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
  }
  if (request.method == "HEAD") {
    curl_easy_setopt(h, CURLOPT_NOBODY, 1L);
  } else if (request.method != (sendsBody ? "POST" : "GET")) {
    curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }

  const CURLcode rc = curl_easy_perform(h);
  if (rc != CURLE_OK) {
    reply.error = errorText[0] != '\0' ? errorText : curl_easy_strerror(rc);
    reply.status = 0;
    reply.headers.clear();
    reply.body.clear();
    return reply;
  }
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &reply.status);
  return reply;
}

}  // namespace

HttpClientReply httpExchange(const HttpClientRequest& request) {
  initOnce();
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
  if (!curl) return noHandle();
  return perform(curl.get(), request, std::chrono::seconds(0));
}

HttpSession::HttpSession(std::chrono::seconds maxIdle) : maxIdle_(maxIdle) {}

HttpSession::~HttpSession() { curl_easy_cleanup(kept_); }

HttpClientReply HttpSession::exchange(const HttpClientRequest& request) {
  initOnce();  // not in the constructor: an engine that never starts never loads libcurl
  CURL* h = nullptr;
  {
    std::lock_guard guard(lock_);
    std::swap(h, kept_);
  }
  if (h == nullptr) h = curl_easy_init();
  if (h == nullptr) return noHandle();
  HttpClientReply reply = perform(h, request, maxIdle_);
  std::lock_guard guard(lock_);
  if (kept_ == nullptr) {
    kept_ = h;
  } else {
    curl_easy_cleanup(h);
  }
  return reply;
}

}  // namespace kelvo
