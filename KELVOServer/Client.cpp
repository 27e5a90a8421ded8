#include "KELVOServer/Client.h"

#include <cstdlib>
#include <filesystem>

#include "KELVOCore/Config.h"
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
