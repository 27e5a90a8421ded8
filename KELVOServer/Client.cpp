#include "KELVOServer/Client.h"

#include <cstdlib>
#include <filesystem>

#include "KELVOCore/ApiKeys.h"
#include "KELVOCore/Config.h"
#include "KELVOCore/Files.h"
#include "KELVOCore/HttpClient.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Paths.h"

namespace kelvo::cli {

std::string Reply::header(const std::string& lowerName) const {
  const auto it = headers.find(lowerName);
  return it == headers.end() ? std::string() : it->second;
}

Json Reply::json() const { return parseJsonObject(std::span<const std::uint8_t>(body)).value_or(Json()); }

ServiceClient::ServiceClient(std::string url) : url_(url.empty() ? defaultUrl() : std::move(url)) {
  while (!url_.empty() && url_.back() == '/') url_.pop_back();
}

namespace {

// The host of "http://host:port/...", without brackets around an IPv6 address.
std::string urlHost(const std::string& url) {
  std::size_t from = url.find("://");
  from = from == std::string::npos ? 0 : from + 3;
  if (from < url.size() && url[from] == '[') return url.substr(from + 1, url.find(']', from) - from - 1);
  return url.substr(from, url.find_first_of(":/", from) - from);
}

}  // namespace

std::string ServiceClient::apiKey() const {
  if (const char* env = std::getenv("KELVO_API_KEY"); env != nullptr && !trimmed(env).empty()) return trimmed(env);
  // The service's local key never leaves this machine: it is sent only to a loopback address.
  const std::string host = urlHost(url_);
  if (host != "localhost" && host != "::1" && host.rfind("127.", 0) != 0) return {};
  const std::optional<Bytes> key = readFile(KELVOPaths::dataDir() + std::string(localKeyFileName));
  return key ? trimmed(std::string(key->begin(), key->end())) : std::string();
}

std::string ServiceClient::defaultUrl() {
  if (const char* env = std::getenv("KELVO_URL"); env != nullptr && !trimmed(env).empty()) return trimmed(env);
  AppConfig config(KELVOPaths::configFile());
  // load() writes a missing file; a client only looks.
  std::error_code ec;
  if (std::filesystem::exists(config.path(), ec)) config.load();
  return config.baseUrl();
}

Reply ServiceClient::call(const std::string& method, const std::string& path, const Bytes& body,
                          const std::string& contentType, std::chrono::milliseconds timeout) {
  HttpClientRequest request;
  request.method = method;
  request.url = url_ + path;
  if (!body.empty()) request.headers.emplace_back("Content-Type", contentType);
  if (const std::string key = apiKey(); !key.empty()) request.headers.emplace_back("Authorization", "Bearer " + key);
  request.body = body;
  request.timeout = timeout;
  const HttpClientReply raw = httpExchange(request);
  if (!raw.error.empty()) {
    throw CommandError{exitNoService, TF("%s 上没有 KELVO 服务在应答 — 请用 `kelvo serve` 启动它", url_)};
  }
  Reply reply{raw.status, raw.headers, raw.body};
  if (reply.status >= 400) {
    const Json j = reply.json();
    std::string message = jStr(j, "message");
    if (message.empty()) message = TF("服务返回了 %d", static_cast<int>(reply.status));
    throw CommandError{exitRefused, message};
  }
  return reply;
}

Json ServiceClient::callJson(const std::string& method, const std::string& path, const Json& body) {
  const Bytes bytes = body.is_null() ? Bytes() : jsonData(body, false);
  return call(method, path, bytes).json();
}

std::string urlEncode(const std::string& text) {
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string out;
  for (const unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out.push_back(static_cast<char>(c));
    } else {
      out += {'%', hex[c >> 4], hex[c & 15]};
    }
  }
  return out;
}

}  // namespace kelvo::cli
